#include "fault/injector.h"

#include <elf.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <map>
#include <system_error>

namespace fault {

namespace {

// The markers' signal. By default it is ignored, but a tracer still sees it.
constexpr int kMarker = SIGURG;
constexpr int kCallStop = SIGTRAP | 0x80;  // PTRACE_O_TRACESYSGOOD
constexpr long kOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACEFORK |
                          PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC;

// A tracee may be killed at any time, which the next wait reports.
long trace(int request, pid_t pid, std::uintptr_t address, std::uintptr_t data) {
    return ::ptrace(static_cast<enum __ptrace_request>(request), pid, address, data);
}

#if defined(__x86_64__)

void set_call(pid_t pid, long number) {
    trace(PTRACE_POKEUSER, pid, offsetof(user, regs.orig_rax), static_cast<std::uintptr_t>(number));
}
void set_count(pid_t pid, std::uint64_t count) {
    trace(PTRACE_POKEUSER, pid, offsetof(user, regs.rdx), count);
}
void set_answer(pid_t pid, long answer) {
    trace(PTRACE_POKEUSER, pid, offsetof(user, regs.rax), static_cast<std::uintptr_t>(answer));
}

#elif defined(__aarch64__)

void set_call(pid_t pid, long number) {
    int value = static_cast<int>(number);
    iovec data{&value, sizeof value};
    trace(PTRACE_SETREGSET, pid, NT_ARM_SYSTEM_CALL, reinterpret_cast<std::uintptr_t>(&data));
}
void set_register(pid_t pid, int index, std::uint64_t value) {
    user_regs_struct registers;
    iovec data{&registers, sizeof registers};
    trace(PTRACE_GETREGSET, pid, NT_PRSTATUS, reinterpret_cast<std::uintptr_t>(&data));
    registers.regs[index] = value;
    trace(PTRACE_SETREGSET, pid, NT_PRSTATUS, reinterpret_cast<std::uintptr_t>(&data));
}
void set_count(pid_t pid, std::uint64_t count) { set_register(pid, 2, count); }
void set_answer(pid_t pid, long answer) {
    set_register(pid, 0, static_cast<std::uint64_t>(answer));
}

#else
#error "the injector does not know this machine's registers"
#endif

class Tracer {
  public:
    Tracer(pid_t child, const Fault& fault) : child_(child), fault_(fault) {}

    Trace follow() {
        for (int status = 0;;) {
            const pid_t pid = ::waitpid(-1, &status, __WALL);
            if (pid < 0 && errno == ECHILD) return trace_;
            if (pid < 0) continue;
            if (WIFSTOPPED(status)) {
                stopped(pid, WSTOPSIG(status), status >> 16);
            } else if (pid == child_) {
                trace_.status = status;
            }
        }
    }

  private:
    void stopped(pid_t pid, int signal, int event) {
        if (signal == kCallStop) {
            call_stop(pid);
        } else if (event == PTRACE_EVENT_EXEC) {
            leave(pid);
        } else if (event != 0) {
            go_on(pid);
        } else if (signal == kMarker && pid == child_) {
            marker();
        } else {
            // The first stop of a new tracee concerns only the tracer.
            go_on(pid, pid != child_ && signal == SIGSTOP ? 0 : signal);
        }
    }

    void marker() {
        if (!counting_) {
            counting_ = true;
            trace(PTRACE_SETOPTIONS, child_, 0, kOptions);
            go_on(child_);
        } else {
            if (fault_.effect == Effect::kill && fault_.first > count()) ::kill(child_, SIGKILL);
            leave(child_);
        }
    }

    void call_stop(pid_t pid) {
        __ptrace_syscall_info info;
        if (trace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info,
                  reinterpret_cast<std::uintptr_t>(&info)) <= 0) {
            return;
        }
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            Call call{info.entry.nr, {}, pid != child_};
            std::copy(std::begin(info.entry.args), std::end(info.entry.args), call.args);
            if (counted(call)) entry(pid, call);
        } else if (const auto answer = answers_.find(pid); answer != answers_.end()) {
            set_answer(pid, answer->second);
            answers_.erase(answer);
            if (fault_.calls == 1) return leave(pid);  // at full speed from here
        }
        go_on(pid);
    }

    void entry(pid_t pid, const Call& call) {
        trace_.calls.push_back(call);
        const long n = count();
        if (n < fault_.first || n - fault_.first >= fault_.calls) return;
        if (apply(pid, call) && !trace_.hit) trace_.hit = call;
    }

    // Whether the fault changed the call.
    bool apply(pid_t pid, const Call& call) {
        switch (fault_.effect) {
            case Effect::none:
                return false;
            case Effect::error:
                return fail(pid, call, fault_.error);
            case Effect::cut:
                return cut(pid, call);
            case Effect::disk_full:
                if (!writes(call)) return false;
                return (!trace_.hit && cut(pid, call)) || fail(pid, call, ENOSPC);
            case Effect::kill:
                set_call(pid, -1);
                ::kill(child_, SIGKILL);
                return true;
        }
        return false;
    }

    bool fail(pid_t pid, const Call& call, int error) {
        if (!works_anyway(call)) set_call(pid, -1);
        answers_[pid] = -error;
        return true;
    }

    static bool cut(pid_t pid, const Call& call) {
        const std::uint64_t count = shorter_count(call);
        if (count != 0) set_count(pid, count);
        return count != 0;
    }

    long count() const { return static_cast<long>(trace_.calls.size()); }
    static void go_on(pid_t pid, int signal = 0) {
        trace(PTRACE_SYSCALL, pid, 0, static_cast<std::uintptr_t>(signal));
    }
    static void leave(pid_t pid) { trace(PTRACE_DETACH, pid, 0, 0); }

    pid_t child_;
    Fault fault_;
    bool counting_ = false;
    std::map<pid_t, long> answers_;  // the result that the present call is going to have
    Trace trace_;
};

}  // namespace

Trace run(const std::function<int()>& body, const Fault& fault) {
    // Processes that a killed child leaves behind become children of this process, which waits for
    // them, too.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t child = ::fork();
    if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0) {
        trace(PTRACE_TRACEME, 0, 0, 0);
        ::_exit(body());
    }
    return Tracer(child, fault).follow();
}

void begin() { ::kill(::getpid(), kMarker); }
void end() { ::kill(::getpid(), kMarker); }

}  // namespace fault
