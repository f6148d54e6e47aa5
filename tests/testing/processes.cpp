#include "testing/processes.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <system_error>
#include <vector>

namespace testing_processes {

namespace {

constexpr int kThrew = 99;
constexpr uid_t kNobody = 65534;

[[noreturn]] void run_and_exit(const std::function<int()>& body) {
    int code = kThrew;
    try {
        code = body();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "child: %s\n", e.what());
    }
    std::fflush(nullptr);
    ::_exit(code);
}

}  // namespace

Child::Child(const std::function<int()>& body) {
    std::fflush(nullptr);
    pid_ = ::fork();
    if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (pid_ == 0) run_and_exit(body);
}

Child::~Child() {
    if (waited_) return;
    kill(SIGKILL);
    wait();
}

void Child::kill(int signal) { ::kill(pid_, signal); }

int Child::wait() {
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0) {
        if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "waitpid");
    }
    waited_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int run_together(int n, const std::function<int(int)>& body) {
    int gate[2];
    if (::pipe(gate) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < n; ++i) {
        children.push_back(std::make_unique<Child>([&, i] {
            char start;
            ::close(gate[1]);
            while (::read(gate[0], &start, 1) < 0 && errno == EINTR) {
            }
            return body(i);
        }));
    }
    ::close(gate[0]);
    ::close(gate[1]);  // the end of the pipe starts all of them
    int failed = 0;
    for (const auto& child : children) failed += child->wait() != 0;
    return failed;
}

void run_with_stack(std::size_t bytes, const std::function<void()>& body) {
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, bytes);
    const auto run = [](void* arg) -> void* {
        (*static_cast<const std::function<void()>*>(arg))();
        return nullptr;
    };
    pthread_t thread;
    void* arg = const_cast<std::function<void()>*>(&body);
    const int error = ::pthread_create(&thread, &attributes, run, arg);
    ::pthread_attr_destroy(&attributes);
    if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_create");
    ::pthread_join(thread, nullptr);
}

int run_with_file_limit(std::size_t bytes, const std::function<int()>& body) {
    Child child([&] {
        ::signal(SIGXFSZ, SIG_IGN);
        const struct rlimit limit = {bytes, bytes};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return kThrew;
        return body();
    });
    return child.wait();
}

int run_unprivileged(const std::function<int()>& body) {
    Child child([&] {
        if (::geteuid() == 0 && (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)) return kThrew;
        return body();
    });
    return child.wait();
}

}  // namespace testing_processes
