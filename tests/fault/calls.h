// What the injector knows of single system calls.
#ifndef TSMAIL_TESTS_FAULT_CALLS_H
#define TSMAIL_TESTS_FAULT_CALLS_H

#include <cstdint>
#include <string>

namespace fault {

// One system call as the tracee was about to make it.
struct Call {
    std::uint64_t number;
    std::uint64_t args[6];
    bool by_child;  // of a child of the process, on its way to another program
};

// Calls that give or take memory and time, signals and the process's end: they do not count.
bool counted(const Call& call);
// Reads and writes that may be interrupted or cut short, after which a caller just goes on.
bool interruptible(const Call& call);
// Writes of data, those that a full disk refuses.
bool writes(const Call& call);
// Calls that do their work even if they answer an error: close.
bool works_anyway(const Call& call);
// The third argument that makes the call a shorter one, or 0 if it cannot be made shorter.
std::uint64_t shorter_count(const Call& call);
// Opens a descriptor that a program started from here would inherit.
bool leaks_into_programs(const Call& call);

std::string name(const Call& call);

}  // namespace fault

#endif
