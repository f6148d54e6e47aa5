#include "fault/lines.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/syscall.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <iterator>

#include "fault/tracee.h"

namespace fault {

namespace {

constexpr std::size_t kShown = 32;  // of the bytes that a call writes
constexpr std::size_t kPiece = 64;  // of a path that is read at a time

// One letter for each argument. d: a number; p: a path; b: bytes, whose count is the next argument;
// o, l, r: flags of open, flock and renameat2.
struct Form {
    std::uint64_t number;
    const char* arguments;
};

constexpr const char* kOther = "ddd";
constexpr Form kForms[] = {
    {SYS_openat, "dpo"},    {SYS_write, "db"},      {SYS_pwrite64, "db"},
    {SYS_sendto, "db"},     {SYS_linkat, "dpdp"},   {SYS_renameat2, "dpdpr"},
    {SYS_renameat, "dpdp"}, {SYS_symlinkat, "pdp"}, {SYS_unlinkat, "dpd"},
    {SYS_mkdirat, "dpd"},   {SYS_newfstatat, "dp"}, {SYS_statx, "dp"},
    {SYS_statfs, "p"},      {SYS_faccessat, "dpd"}, {SYS_faccessat2, "dpd"},
    {SYS_readlinkat, "dp"}, {SYS_utimensat, "dp"},  {SYS_fchmodat, "dpd"},
    {SYS_fchownat, "dpdd"}, {SYS_chdir, "p"},       {SYS_execve, "p"},
    {SYS_flock, "dl"},      {SYS_close, "d"},       {SYS_fsync, "d"},
    {SYS_setxattr, "pp"},   {SYS_getxattr, "pp"},
#ifdef SYS_open
    {SYS_open, "po"},       {SYS_link, "pp"},       {SYS_rename, "pp"},
    {SYS_symlink, "pp"},    {SYS_unlink, "p"},      {SYS_rmdir, "p"},
    {SYS_mkdir, "pd"},      {SYS_stat, "p"},        {SYS_lstat, "p"},
    {SYS_access, "pd"},     {SYS_readlink, "p"},    {SYS_chmod, "pd"},
    {SYS_chown, "pdd"},
#endif
};

struct Flag {
    char letter;
    std::uint64_t bits;
    const char* name;
};

// O_TMPFILE has the bit of O_DIRECTORY, too.
constexpr Flag kFlags[] = {
    {'o', O_WRONLY, "O_WRONLY"},
    {'o', O_RDWR, "O_RDWR"},
    {'o', O_CREAT, "O_CREAT"},
    {'o', O_EXCL, "O_EXCL"},
    {'o', O_TRUNC, "O_TRUNC"},
    {'o', O_APPEND, "O_APPEND"},
    {'o', O_NOFOLLOW, "O_NOFOLLOW"},
    {'o', O_CLOEXEC, "O_CLOEXEC"},
    {'o', O_TMPFILE, "O_TMPFILE"},
    {'l', LOCK_SH, "LOCK_SH"},
    {'l', LOCK_EX, "LOCK_EX"},
    {'l', LOCK_NB, "LOCK_NB"},
    {'l', LOCK_UN, "LOCK_UN"},
    {'r', RENAME_NOREPLACE, "RENAME_NOREPLACE"},
    {'r', RENAME_EXCHANGE, "RENAME_EXCHANGE"},
};

std::string flags(char letter, std::uint64_t value) {
    std::string text;
    for (const Flag& flag : kFlags) {
        if (flag.letter != letter || (value & flag.bits) != flag.bits) continue;
        text += (text.empty() ? "" : "|") + std::string(flag.name);
    }
    return text.empty() ? "0" : text;
}

std::string quoted(const std::string& bytes) {
    std::string text = "\"";
    for (const char c : bytes) {
        if (c == '"' || c == '\\') text += '\\';
        text += static_cast<unsigned char>(c) < ' ' ? '?' : c;
    }
    return text + '"';
}

std::string path_at(pid_t pid, std::uint64_t address) {
    std::string path;
    while (path.size() < PATH_MAX) {
        const std::string piece = bytes_at(pid, address + path.size(), kPiece);
        const std::size_t end = piece.find('\0');
        path.append(piece, 0, end);
        if (end != std::string::npos || piece.size() < kPiece) break;
    }
    return path;
}

std::string argument(pid_t pid, char letter, const std::uint64_t* value) {
    switch (letter) {
        case 'd':
            return std::to_string(static_cast<int>(*value));
        case 'p':
            return *value == 0 ? "NULL" : quoted(path_at(pid, *value));
        case 'b':
            return quoted(bytes_at(pid, *value, std::min<std::size_t>(value[1], kShown)));
        default:
            return flags(letter, *value);
    }
}

const char* form(const Call& call) {
    const Form* found = std::find_if(std::begin(kForms), std::end(kForms),
                                     [&](const Form& f) { return f.number == call.number; });
    return found == std::end(kForms) ? kOther : found->arguments;
}

}  // namespace

std::string line(pid_t pid, const Call& call) {
    std::string text;
    const std::uint64_t* value = call.args;
    for (const char* letter = form(call); *letter != '\0'; ++letter, ++value) {
        text += (text.empty() ? "" : ", ") + argument(pid, *letter, value);
    }
    return name(call) + '(' + text + ')';
}

}  // namespace fault
