#include "fault/tracee.h"

#include <elf.h>
#include <sys/uio.h>
#include <sys/user.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>

namespace fault {

long trace(int request, pid_t pid, std::uintptr_t address, std::uintptr_t data) {
    return ::ptrace(static_cast<enum __ptrace_request>(request), pid, address, data);
}

std::optional<__ptrace_syscall_info> call_info(pid_t pid) {
    __ptrace_syscall_info info;
    const auto place = reinterpret_cast<std::uintptr_t>(&info);
    if (trace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, place) <= 0) return std::nullopt;
    return info;
}

Call entered(const __ptrace_syscall_info& info, bool by_child) {
    Call call{info.entry.nr, {}, by_child};
    std::copy(std::begin(info.entry.args), std::end(info.entry.args), call.args);
    return call;
}

pid_t started_by(pid_t pid) {
    unsigned long started = 0;
    trace(PTRACE_GETEVENTMSG, pid, 0, reinterpret_cast<std::uintptr_t>(&started));
    return static_cast<pid_t>(started);
}

#if defined(__x86_64__)

void skip_call(pid_t pid) {
    trace(PTRACE_POKEUSER, pid, offsetof(user, regs.orig_rax), static_cast<std::uintptr_t>(-1));
}
void set_count(pid_t pid, std::uint64_t count) {
    trace(PTRACE_POKEUSER, pid, offsetof(user, regs.rdx), count);
}
void set_answer(pid_t pid, long answer) {
    trace(PTRACE_POKEUSER, pid, offsetof(user, regs.rax), static_cast<std::uintptr_t>(answer));
}

#elif defined(__aarch64__)

void skip_call(pid_t pid) {
    int value = -1;
    iovec data{&value, sizeof value};
    trace(PTRACE_SETREGSET, pid, NT_ARM_SYSTEM_CALL, reinterpret_cast<std::uintptr_t>(&data));
}

namespace {
void set_register(pid_t pid, int index, std::uint64_t value) {
    user_regs_struct registers;
    iovec data{&registers, sizeof registers};
    trace(PTRACE_GETREGSET, pid, NT_PRSTATUS, reinterpret_cast<std::uintptr_t>(&data));
    registers.regs[index] = value;
    trace(PTRACE_SETREGSET, pid, NT_PRSTATUS, reinterpret_cast<std::uintptr_t>(&data));
}
}  // namespace

void set_count(pid_t pid, std::uint64_t count) { set_register(pid, 2, count); }
void set_answer(pid_t pid, long answer) {
    set_register(pid, 0, static_cast<std::uint64_t>(answer));
}

#else
#error "the tracers do not know this machine's registers"
#endif

void go_on(pid_t pid, int signal) {
    trace(PTRACE_SYSCALL, pid, 0, static_cast<std::uintptr_t>(signal));
}
void run_on(pid_t pid, int signal) {
    trace(PTRACE_CONT, pid, 0, static_cast<std::uintptr_t>(signal));
}
void leave(pid_t pid) { trace(PTRACE_DETACH, pid, 0, 0); }

std::string bytes_at(pid_t pid, std::uint64_t address, std::size_t most) {
    std::string bytes;
    while (bytes.size() < most) {
        errno = 0;
        const long word = trace(PTRACE_PEEKDATA, pid, address + bytes.size(), 0);
        if (errno != 0) break;
        bytes.append(reinterpret_cast<const char*>(&word), sizeof word);
    }
    return bytes.substr(0, most);
}

}  // namespace fault
