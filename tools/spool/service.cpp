#include "tools/spool/service.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <set>
#include <utility>

#include "tools/cli/address.h"
#include "tools/cli/passing.h"
#include "tools/cli/text.h"
#include "tools/spool/mailbox_job.h"

namespace Tessaly::tool {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kPatience{9000};        // for the network process, after a signal to end
constexpr milliseconds kWorkersPatience{500};  // for the workers, after the network process

std::pair<Fd, Fd> packet_sockets() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        throw system_failure("a socket between processes");
    }
    return {Fd(ends[0]), Fd(ends[1])};
}

Fd signals_of_parent() {
    sigset_t held;
    sigemptyset(&held);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGCHLD}) sigaddset(&held, signal);
    ::sigprocmask(SIG_BLOCK, &held, nullptr);
    Fd signals(::signalfd(-1, &held, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals) throw system_failure("signalfd");
    return signals;
}

class Keeper {
  public:
    explicit Keeper(const Service& service) : service_(service), signals_(signals_of_parent()) {
        auto [mine, other] = packet_sockets();
        questions_ = std::move(mine);
        const pid_t parent = ::getpid();
        network_ = ::fork();
        if (network_ < 0) throw system_failure("starting the network process");
        if (network_ == 0) talk(std::move(other), parent);
    }

    int run() {
        while (!ended_) {
            pollfd polled[] = {{signals_.get(), POLLIN, 0},
                               {hears_ ? questions_.get() : -1, POLLIN, 0}};
            if (retry([&] { return ::poll(polled, 2, patience()); }) < 0)
                throw system_failure("poll");
            if (polled[0].revents != 0) take_signals();
            if (polled[1].revents != 0) hears_ = answer_one();
            if (stopping_ && Clock::now() >= until_) ::kill(network_, SIGKILL);
        }
        end_workers();
        return code_;
    }

  private:
    // In the network process.
    [[noreturn]] void talk(Fd questions, pid_t parent) noexcept {
        questions_.reset();
        signals_.reset();
        int code = kExitCannotCreate;
        try {
            become(service_.network);
            ::prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (::getppid() == parent) code = service_.talk(questions.get());
        } catch (const std::exception& e) {
            const std::string text = std::string("tsmail: ") + printable(e.what()) + '\n';
            [[maybe_unused]] const auto n = ::write(STDERR_FILENO, text.data(), text.size());
        }
        ::_exit(code);
    }

    int patience() const {
        if (!stopping_) return -1;
        const auto left = std::chrono::ceil<milliseconds>(until_ - Clock::now()).count();
        return static_cast<int>(std::max<long long>(left, 0)) + 1;
    }

    // ---- signals

    void take_signals() {
        signalfd_siginfo info;
        while (::read(signals_.get(), &info, sizeof info) == sizeof info) {
            if (info.ssi_signo != SIGCHLD) pass_on();
        }
        reap();
    }

    void pass_on() {
        if (!stopping_) until_ = Clock::now() + kPatience;
        stopping_ = true;
        ::kill(network_, SIGTERM);
    }

    // A number that was waited for may be another process's later, so it is forgotten here.
    void reap() {
        int status = 0;
        for (pid_t process; (process = ::waitpid(-1, &status, WNOHANG)) > 0;) {
            workers_.erase(process);
            if (process != network_) continue;
            ended_ = true;
            code_ = WIFEXITED(status) ? WEXITSTATUS(status) : int{kExitTryAgain};
        }
    }

    // Their sockets are closed, so they end when they have done what they do.
    void end_workers() {
        questions_.reset();
        const auto until = Clock::now() + kWorkersPatience;
        while (!workers_.empty() && Clock::now() < until) {
            pollfd polled = {signals_.get(), POLLIN, 0};
            retry([&] { return ::poll(&polled, 1, 50); });
            take_signals();
        }
        for (const pid_t worker : workers_) ::kill(worker, SIGKILL);
    }

    // ---- questions

    // False if the network process has closed its end.
    bool answer_one() {
        Question question;
        Fd unused;
        const ssize_t n = receive_with(questions_.get(), &question, sizeof question, unused);
        if (n <= 0) return false;
        if (n != sizeof question || question.length > sizeof question.address) return true;
        if (question.ask == Ask::signal) {
            if (workers_.contains(question.process)) ::kill(question.process, question.signal);
            return true;
        }
        Answer answer;
        answer.serial = question.serial;
        const Fd socket = answer_to(question, answer);
        return send_with(questions_.get(), &answer, sizeof answer, socket.get());
    }

    Fd answer_to(const Question& question, Answer& answer) {
        try {
            const TSMailUserId id = mailbox_of({question.address, question.length});
            answer.owner = owner_for(id);
            return question.ask == Ask::worker ? start_worker(answer) : Fd();
        } catch (const Failure& failure) {
            put_failure(for_queue(failure), answer);
        } catch (const std::bad_alloc&) {
            put_failure(Failure(kExitTryAgain, "out of memory", ENOMEM), answer);
        }
        return {};
    }

    // No worker of a service is root: what the network process asks for must not happen with root's
    // rights.
    Owner owner_for(const TSMailUserId& id) {
        const Owner owner = Homes().owner(id);
        if (::geteuid() != 0 || owner.change) return owner;
        throw Failure(kExitTryAgain, printable(id.address(true)) +
                                         ": root's mailbox gets no mail from the network");
    }

    Fd start_worker(Answer& answer) {
        auto [mine, other] = packet_sockets();
        answer.process = start_process(answer.owner, other.get(), service_.work);
        workers_.insert(answer.process);
        return std::move(mine);
    }

    static void put_failure(const Failure& failure, Answer& answer) {
        const std::string_view text = failure.what();
        answer.code = failure.code();
        answer.error = failure.error();
        answer.length = static_cast<std::uint32_t>(std::min(text.size(), sizeof answer.text));
        std::memcpy(answer.text, text.data(), answer.length);
    }

    const Service& service_;
    Fd signals_, questions_;
    pid_t network_ = -1;
    std::set<pid_t> workers_;
    bool hears_ = true, ended_ = false, stopping_ = false;
    Clock::time_point until_;
    int code_ = kExitOk;
};

}  // namespace

int run_service(const Service& service) { return Keeper(service).run(); }

}  // namespace Tessaly::tool
