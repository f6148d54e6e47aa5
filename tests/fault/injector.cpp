#include "fault/injector.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <map>
#include <system_error>

#include "fault/tracee.h"

namespace fault {

namespace {

// The markers' signal. By default it is ignored, but a tracer still sees it.
constexpr int kMarker = SIGURG;

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
        const auto info = call_info(pid);
        if (!info) return;
        if (info->op == PTRACE_SYSCALL_INFO_ENTRY) {
            const Call call = entered(*info, pid != child_);
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
                skip_call(pid);
                ::kill(child_, SIGKILL);
                return true;
        }
        return false;
    }

    bool fail(pid_t pid, const Call& call, int error) {
        if (!works_anyway(call)) skip_call(pid);
        answers_[pid] = -error;
        return true;
    }

    static bool cut(pid_t pid, const Call& call) {
        const std::uint64_t count = shorter_count(call);
        if (count != 0) set_count(pid, count);
        return count != 0;
    }

    long count() const { return static_cast<long>(trace_.calls.size()); }

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
