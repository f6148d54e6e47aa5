// Real processes for tests.
#ifndef TSMAIL_TESTS_TESTING_PROCESSES_H
#define TSMAIL_TESTS_TESTING_PROCESSES_H

#include <sys/types.h>

#include <cstddef>
#include <functional>

namespace testing_processes {

// A child made by fork that runs the body and exits with its result. Exceptions give 99.
class Child {
  public:
    explicit Child(const std::function<int()>& body);
    ~Child();  // kills and reaps it unless it was waited for
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return pid_; }
    void kill(int signal);
    // The exit code, or 128 + the signal that ended it.
    int wait();

  private:
    pid_t pid_;
    bool waited_ = false;
};

// Runs body(0) to body(n - 1) in processes of their own that begin together. Returns how many of
// them did not return 0.
int run_together(int n, const std::function<int(int)>& body);

// Runs the body in a thread with a stack of this size and waits for it.
void run_with_stack(std::size_t bytes, const std::function<void()>& body);

// Runs the body in a child that may not make a file longer than this, and returns its exit code.
int run_with_file_limit(std::size_t bytes, const std::function<int()>& body);

// Runs the body in a child that permission checks apply to (as user 65534 if this process is root),
// and returns its exit code.
int run_unprivileged(const std::function<int()>& body);

}  // namespace testing_processes

#endif
