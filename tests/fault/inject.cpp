// Runs a command and makes system calls of one of its processes fail, or its last. That process is
// the command itself, or one of the workers that it starts, from the worker's first step on.
//
// usage: inject [--worker NUMBER] [--log FILE] [--fault NAME FIRST LAST EFFECT]... -- COMMAND
// [WORD]...
//   --worker  the calls of this worker count (the first one is 1), not the command's own
//   --log     one line for each call that counts
//   --fault   the FIRST to the LAST call of this name: EFFECT is an error's number, or "kill", or
//             "kill-all", which kills the command with all its processes
//
// It ends as the command has ended, after all processes of the command. As it traces them from
// their beginning, and a tracee stands still until the tracer has seen it, nothing is left to
// chance.
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fault/calls.h"
#include "fault/lines.h"
#include "fault/tracee.h"

namespace fault {

namespace {

constexpr int kExitTrouble = 125;  // of this program, no exit code of the command

enum class Effect { error, kill, kill_all };

struct Order {
    std::string name;
    long first, last;
    Effect effect;
    int error;
};

struct Options {
    std::size_t worker = 0;
    std::string log = "/dev/null";
    std::vector<Order> orders;
    char** words = nullptr;
};

[[noreturn]] void give_up(const char* what) {
    std::fprintf(stderr, "inject: %s: %s\n", what, std::strerror(errno));
    std::exit(kExitTrouble);
}

class Tracer {
  public:
    Tracer(pid_t command, const Options& options)
        : options_(options), log_(options.log), command_(command) {
        if (options.worker == 0) counted_ = command;
    }

    // Returns the command's status.
    int follow() {
        for (int status = 0;;) {
            const pid_t pid = ::waitpid(-1, &status, __WALL);
            if (pid < 0 && errno == ECHILD) return status_;
            if (pid < 0) continue;
            if (WIFSTOPPED(status)) {
                stopped(pid, WSTOPSIG(status), status >> 16);
            } else {
                ended(pid, status);
            }
        }
    }

  private:
    void ended(pid_t pid, int status) {
        alive_.erase(pid);
        if (pid == command_) status_ = status;
        if (pid == counted_) finish_line("?");
    }

    void stopped(pid_t pid, int signal, int event) {
        const bool is_new = begin(pid);
        if (all_killed_) {
            ::kill(pid, SIGKILL);
        } else if (signal == kCallStop) {
            call_stop(pid);
        } else if (event != 0) {
            happened(pid, event);
            resume(pid, 0);
        } else {
            // The first stop of a new tracee concerns only the tracer.
            resume(pid, is_new && signal == SIGSTOP ? 0 : signal);
        }
    }

    void happened(pid_t pid, int event) {
        if (event == PTRACE_EVENT_EXEC) {
            counting_ = counting_ || pid == counted_;
        } else if (pid == command_) {
            started(started_by(pid));
        }
    }

    // Whether the process is new.
    bool begin(pid_t pid) {
        if (!alive_.insert(pid).second) return false;
        if (pid == command_) {
            trace(PTRACE_SETOPTIONS, pid, 0, kOptions);
        } else {
            started(pid);
        }
        return true;
    }

    // A worker's first stop and the command's event come in any order, but both before the next
    // worker: the command stands still at the event.
    void started(pid_t worker) {
        if (!workers_.insert(worker).second) return;
        if (workers_.size() == options_.worker) counted_ = worker;
    }

    void resume(pid_t pid, int signal) {
        pid == counted_ ? go_on(pid, signal) : run_on(pid, signal);
    }

    void call_stop(pid_t pid) {
        const auto info = call_info(pid);
        if (!info) return;
        if (info->op == PTRACE_SYSCALL_INFO_ENTRY) {
            entry(pid, entered(*info, false));
        } else {
            exit(pid, *info);
        }
        if (!all_killed_) go_on(pid);
    }

    void entry(pid_t pid, const Call& call) {
        // The worker's first step: it closes what it does not need.
        if (options_.worker != 0 && call.number == SYS_close_range) counting_ = true;
        if (!counting_) return;
        line_ = line(pid, call);
        const long n = ++counts_[name(call)];
        for (const Order& order : options_.orders) {
            if (order.name == name(call) && order.first <= n && n <= order.last) {
                apply(pid, call, order);
            }
        }
    }

    void apply(pid_t pid, const Call& call, const Order& order) {
        if (order.effect != Effect::error || !works_anyway(call)) skip_call(pid);
        switch (order.effect) {
            case Effect::error:
                answer_ = -order.error;
                break;
            case Effect::kill:
                ::kill(pid, SIGKILL);
                break;
            case Effect::kill_all:
                kill_all();
                break;
        }
    }

    // The command first, so that it does not see its worker die.
    void kill_all() {
        all_killed_ = true;
        ::kill(command_, SIGKILL);
        for (const pid_t pid : alive_) ::kill(pid, SIGKILL);
    }

    void exit(pid_t pid, const __ptrace_syscall_info& info) {
        long answer = info.exit.rval;
        if (answer_) set_answer(pid, answer = *answer_);
        const bool failed = answer_.has_value() || info.exit.is_error != 0;
        finish_line(failed ? "-1 (" + std::to_string(-answer) + ')' : std::to_string(answer));
        answer_.reset();
    }

    void finish_line(const std::string& result) {
        if (line_) log_ << *line_ << " = " << result << '\n';
        line_.reset();
    }

    const Options& options_;
    std::ofstream log_;
    pid_t command_;
    pid_t counted_ = 0;  // the process whose calls count, once it exists
    bool counting_ = false;
    bool all_killed_ = false;
    int status_ = 0;
    std::set<pid_t> alive_;
    std::set<pid_t> workers_;  // all that were started
    std::map<std::string, long> counts_;
    std::optional<std::string> line_;  // the present call
    std::optional<long> answer_;       // that it is going to have
};

Order order(char** words) {
    const std::string effect = words[3];
    const Effect what = effect == "kill"       ? Effect::kill
                        : effect == "kill-all" ? Effect::kill_all
                                               : Effect::error;
    return {words[0], std::atol(words[1]), std::atol(words[2]), what, std::atoi(words[3])};
}

Options parse(char** words) {
    Options options;
    for (; *words != nullptr; ++words) {
        const std::string word = *words;
        if (word == "--worker") {
            options.worker = std::strtoul(*++words, nullptr, 10);
        } else if (word == "--log") {
            options.log = *++words;
        } else if (word == "--fault") {
            options.orders.push_back(order(words + 1));
            words += 4;
        } else {
            break;
        }
    }
    if (*words == nullptr || std::strcmp(*words, "--") != 0 || words[1] == nullptr) {
        std::fputs("inject: a command is expected after --\n", stderr);
        std::exit(kExitTrouble);
    }
    options.words = words + 1;
    return options;
}

pid_t start(char** words) {
    const pid_t command = ::fork();
    if (command < 0) give_up("fork");
    if (command == 0) {
        trace(PTRACE_TRACEME, 0, 0, 0);
        ::raise(SIGSTOP);
        ::execvp(words[0], words);
        give_up(words[0]);
    }
    return command;
}

// Ends this process as the command has ended.
[[noreturn]] void end_with(int status) {
    if (WIFSIGNALED(status)) {
        const rlimit no_core = {0, 0};
        ::setrlimit(RLIMIT_CORE, &no_core);
        std::signal(WTERMSIG(status), SIG_DFL);
        ::raise(WTERMSIG(status));
    }
    std::exit(WEXITSTATUS(status));
}

}  // namespace

}  // namespace fault

int main(int, char** argv) {
    const fault::Options options = fault::parse(argv + 1);
    // Processes that a killed command leaves behind become children of this one, which waits for
    // them, too.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    const int status = fault::Tracer(fault::start(options.words), options).follow();
    fault::end_with(status);
}
