// What a tracer does with one stopped process: it reads and changes the system call, and lets the
// process go on.
#ifndef TSMAIL_TESTS_FAULT_TRACEE_H
#define TSMAIL_TESTS_FAULT_TRACEE_H

#include <sys/ptrace.h>
#include <sys/types.h>

#include <csignal>
#include <cstdint>
#include <optional>
#include <string>

#include "fault/calls.h"

namespace fault {

constexpr int kCallStop = SIGTRAP | 0x80;  // PTRACE_O_TRACESYSGOOD
// Children are traced as well, and no tracee outlives the tracer.
constexpr long kOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACEFORK |
                          PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC;

// A tracee may be killed at any time, which the next wait reports. So nobody checks the results.
long trace(int request, pid_t pid, std::uintptr_t address, std::uintptr_t data);

// What a stop at a system call is about: its entry or its exit.
std::optional<__ptrace_syscall_info> call_info(pid_t pid);
// The call of a stop at an entry.
Call entered(const __ptrace_syscall_info& info, bool by_child);

// The process that a process has started, at the event that tells of it.
pid_t started_by(pid_t pid);

void skip_call(pid_t pid);  // at the entry
void set_count(pid_t pid, std::uint64_t count);
void set_answer(pid_t pid, long answer);  // at the exit

// Lets the process run until its next system call, or until its next event.
void go_on(pid_t pid, int signal = 0);
void run_on(pid_t pid, int signal = 0);
void leave(pid_t pid);

// The bytes at an address of the process, at most `most`; fewer if the rest cannot be read.
std::string bytes_at(pid_t pid, std::uint64_t address, std::size_t most);

}  // namespace fault

#endif
