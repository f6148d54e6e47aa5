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
#include <cstring>
#include <new>
#include <optional>
#include <utility>

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

union Control {
    char bytes[CMSG_SPACE(sizeof(int))];
    cmsghdr align;
};

struct Given {
    std::size_t task;
    Fd input;
};

bool send_task(int socket, std::size_t task, int input) {
    iovec part = {&task, sizeof task};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    Control control = {};
    if (input >= 0) {
        message.msg_control = control.bytes;
        message.msg_controllen = sizeof control.bytes;
        cmsghdr* head = CMSG_FIRSTHDR(&message);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(sizeof input);
        std::memcpy(CMSG_DATA(head), &input, sizeof input);
    }
    return retry([&] { return ::sendmsg(socket, &message, MSG_NOSIGNAL); }) == sizeof task;
}

// Nothing if the parent has closed its end.
std::optional<Given> receive_task() {
    Given given = {0, Fd()};
    iovec part = {&given.task, sizeof given.task};
    Control control = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    const ssize_t n =
        retry([&] { return ::recvmsg(kSocket, &message, MSG_CMSG_CLOEXEC | MSG_WAITALL); });
    if (n != sizeof given.task) return std::nullopt;
    if (const cmsghdr* head = CMSG_FIRSTHDR(&message)) {
        int input = -1;
        std::memcpy(&input, CMSG_DATA(head), sizeof input);
        given.input.reset(input);
    }
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

// noexcept: an exception while reporting ends the process.
void do_tasks(const Job& job, const std::optional<Failure>& refused) noexcept {
    Report report(kSocket);
    while (const auto given = receive_task()) {
        if (refused) report.error(*refused);
        report.end(refused ? int{refused->code()} : do_task(job, *given, report));
    }
}

[[noreturn]] void work(const Job& job, const Owner& owner, int socket, pid_t parent) {
    keep_own_descriptors(socket);
    set_limits();
    std::optional<Failure> refused;
    try {
        become(owner);
    } catch (const Failure& failure) {
        refused = failure;
    }
    end_with_parent(parent);
    // The owner may have no access to the directory in which the program was started.
    if (::chdir("/") != 0) refused = system_failure("/");
    do_tasks(job, refused);
    ::_exit(kExitOk);
}

}  // namespace

Worker::Worker(const Job& job, const Owner& owner) : owner_(owner) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw system_failure("a worker's socket");
    }
    socket_.reset(ends[0]);
    const Fd other(ends[1]);
    const pid_t parent = ::getpid();
    process_ = ::fork();
    if (process_ < 0) throw system_failure("starting a worker");
    if (process_ == 0) work(job, owner, other.get(), parent);
}

Worker::~Worker() {
    if (!socket_) return;
    const bool busy = !tasks_.empty();
    if (busy) stop([](const Message& message) { return message.event != Event::end; });
    end(busy);
}

bool Worker::give(std::size_t task, int input) {
    if (!send_task(socket_.get(), task, input)) return false;
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
