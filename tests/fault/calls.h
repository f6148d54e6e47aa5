// What the injector knows about single system calls.
#ifndef TSMAIL_TESTS_FAULT_CALLS_H
#define TSMAIL_TESTS_FAULT_CALLS_H

#include <cstdint>
#include <string>

namespace fault {

// One system call that the tracee was about to make.
struct Call {
    std::uint64_t number;
    std::uint64_t args[6];
    bool by_child;  // of a child of the process, on its way to another program
};

// Calls for memory, time, signals and the end of the process do not count.
bool counted(const Call& call);
// Reads and writes that may be interrupted or cut short, after which a caller goes on.
bool interruptible(const Call& call);
// Writes of data, which a full disk refuses.
bool writes(const Call& call);
// Calls that do their work even if they return an error: close.
bool works_anyway(const Call& call);
// The third argument that shortens the call, or 0 if it cannot be shortened.
std::uint64_t shorter_count(const Call& call);
// Opens a descriptor that a program started from here would inherit.
bool leaks_into_programs(const Call& call);

std::string name(const Call& call);

}  // namespace fault

#endif
