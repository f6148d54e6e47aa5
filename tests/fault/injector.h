// The injector: runs a piece of code in a process of its own and makes its K-th system call fail,
// end short, or be its last.
//
// It works on the system calls themselves (ptrace). A library in front of the C library would miss
// the calls that the C library makes inside its streams.
#ifndef TSMAIL_TESTS_FAULT_INJECTOR_H
#define TSMAIL_TESTS_FAULT_INJECTOR_H

#include <climits>
#include <functional>
#include <optional>
#include <vector>

#include "fault/calls.h"

namespace fault {

enum class Effect {
    none,       // only watch
    error,      // the call is not made and returns the error (close is made nevertheless)
    cut,        // the call is made, with a smaller count
    disk_full,  // the first write is cut short, every later one returns ENOSPC
    kill        // the process is killed before the call
};

struct Fault {
    Effect effect = Effect::none;
    int error = 0;
    long first = 1;         // the call, counted from 1, at which it begins
    long calls = LONG_MAX;  // the number of calls that it lasts
};

struct Trace {
    std::vector<Call> calls;  // the calls that counted; complete unless a fault of one call hit
    std::optional<Call> hit;  // the first call that the fault changed
    int status = 0;           // the status of the process, as waitpid gives it
};

// Runs the body in a child, which exits with its result. Calls count from begin() to end(), those
// of children of the child too until they become another program. A kill whose `first` is the
// number of calls plus one happens at end(). The caller must have no other children.
Trace run(const std::function<int()>& body, const Fault& fault);

// Mark the counted part, in the body. Without a tracer they do nothing.
void begin();
void end();

}  // namespace fault

#endif
