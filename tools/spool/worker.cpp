#include "tools/spool/worker.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <new>
#include <optional>
#include <utility>

#include "tools/cli/passing.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

namespace {

constexpr int kSocket = 3;  // the worker's end, after the standard streams
constexpr rlim_t kMemory = rlim_t{4} << 30;
constexpr rlim_t kOpenFiles = 65536;
constexpr rlim_t kFileSize = rlim_t{64} << 30;  // no message is longer

// A sanitizer reserves more address space than any limit allows.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kLimitMemory = false;
#else
constexpr bool kLimitMemory = true;
#endif

// ---- handing over a task: its number, and perhaps a descriptor

struct Given {
    std::size_t task;
    Fd input;
};

// Nothing if the parent has closed its end.
std::optional<Given> receive_task() {
    Given given = {0, Fd()};
    const ssize_t n =
        receive_with(kSocket, &given.task, sizeof given.task, given.input, MSG_WAITALL);
    if (n != sizeof given.task) return std::nullopt;
    return given;
}

// ---- the worker's process

void limit(int resource, rlim_t most) {
    struct rlimit limit;
    if (::getrlimit(static_cast<__rlimit_resource>(resource), &limit) != 0) return;
    limit.rlim_max = std::min(limit.rlim_max, most);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(static_cast<__rlimit_resource>(resource), &limit);
}

void set_limits() {
    if (kLimitMemory) limit(RLIMIT_AS, kMemory);
    limit(RLIMIT_NOFILE, kOpenFiles);  // each locked folder is an open file
    limit(RLIMIT_FSIZE, kFileSize);
    limit(RLIMIT_CORE, 0);  // a core dump could hold a user's mail
}

// Keeps only the standard streams and the socket: a worker neither needs its parent's other files
// nor has a right to them.
void keep_own_descriptors(int socket) {
    if (socket != kSocket) ::dup2(socket, kSocket);
    ::close_range(kSocket + 1, ~0U, 0);
    ::fcntl(kSocket, F_SETFD, FD_CLOEXEC);
}

// Makes this process end with its parent. (A change of user clears this setting, so it comes
// later.)
void end_with_parent(pid_t parent) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(kExitTryAgain);
}

int do_task(const Job& job, const Given& given, Report& report) {
    try {
        return job.work(given.task, given.input.get(), report);
    } catch (const Failure& failure) {
        report.error(failure);
    } catch (const std::bad_alloc&) {
        report.error(Failure(kExitTryAgain, "out of memory", ENOMEM));
    } catch (const std::exception& e) {
        report.error(Failure(kExitSoftware, std::string("internal error: ") + printable(e.what())));
    }
    return kExitOk;
}

// An exception while reporting ends the process, without a word: the parent is gone, or tells of
// it.
void do_tasks(const Job& job, const std::optional<Failure>& refused) noexcept try {
    Report report(kSocket);
    while (const auto given = receive_task()) {
        if (refused) report.error(*refused);
        report.end(refused ? int{refused->code()} : do_task(job, *given, report));
    }
} catch (...) {
    ::_exit(kExitTryAgain);
}

// Becomes the owner; a refusal is a failure of each task.
std::optional<Failure> take_owners_place(const Owner& owner, pid_t parent) {
    std::optional<Failure> refused;
    try {
        become(owner);
    } catch (const Failure& failure) {
        refused = failure;
    }
    end_with_parent(parent);
    // The owner may have no access to the directory in which the program was started.
    if (::chdir("/") != 0) refused = system_failure("/");
    return refused;
}

}  // namespace

pid_t start_process(const Owner& owner, int socket, const Serve& serve) {
    const pid_t parent = ::getpid();
    const pid_t process = ::fork();
    if (process < 0) throw system_failure("starting a worker");
    if (process != 0) return process;
    keep_own_descriptors(socket);
    set_limits();
    serve(kSocket, take_owners_place(owner, parent));
    ::_exit(kExitOk);
}

Worker::Worker(const Job& job, const Owner& owner) : owner_(owner) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw system_failure("a worker's socket");
    }
    socket_.reset(ends[0]);
    const Fd other(ends[1]);
    process_ = start_process(
        owner, other.get(),
        [&](int, const std::optional<Failure>& refused) noexcept { do_tasks(job, refused); });
}

Worker::~Worker() {
    if (!socket_) return;
    const bool busy = !tasks_.empty();
    if (busy) stop([](const Message& message) { return message.event != Event::end; });
    end(busy);
}

bool Worker::give(std::size_t task, int input) {
    if (!send_with(socket_.get(), &task, sizeof task, input)) return false;
    if (tasks_.empty()) began_ = Clock::now();
    tasks_.push_back(task);
    return true;
}

void Worker::finish_task() {
    tasks_.pop_front();
    passed_ = false;
    began_ = Clock::now();
}

void Worker::signal(int number) const { ::kill(process_, number); }

bool Worker::speaks_within(std::chrono::milliseconds time) const {
    pollfd polled = {socket_.get(), POLLIN, 0};
    return retry([&] { return ::poll(&polled, 1, static_cast<int>(time.count())); }) > 0;
}

void Worker::stop(const std::function<bool(Message)>& take) {
    constexpr std::chrono::milliseconds kPatience{2000};
    const auto until = Clock::now() + kPatience;
    signal(SIGTERM);
    try {
        for (bool goes_on = true; goes_on;) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
            if (left.count() <= 0 || !speaks_within(left)) return;
            goes_on = incoming.fill(socket_.get());
            while (auto message = incoming.next()) goes_on = take(std::move(*message)) && goes_on;
        }
    } catch (const std::exception&) {
        return;  // its messages are invalid: it is ended like a silent worker
    }
}

int Worker::end(bool kill) {
    ::shutdown(socket_.get(),
               SHUT_RDWR);  // ends the worker, even if another process also has the socket
    socket_.reset();
    if (kill) signal(SIGKILL);
    int status = 0;
    if (retry([&] { return ::waitpid(process_, &status, 0); }) < 0) return 0;
    return status;
}

}  // namespace Tessaly::tool
