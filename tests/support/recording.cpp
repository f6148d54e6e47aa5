// Another support library: the same names with other behaviour. It records every call in the file
// that RECORD names, takes no locks, and has its own configuration. It lacks the functions that a
// support library may lack. It is built twice, as libtssupport and as libkqfquery.
#include <fcntl.h>
#include <sys/stat.h>
#include <tessaly/Exception.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void record(const std::string& call) {
    const char* path = std::getenv("RECORD");
    const int fd =
        path == nullptr ? -1 : ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) return;
    const std::string line = call + '\n';
    [[maybe_unused]] const ssize_t written = ::write(fd, line.data(), line.size());
    ::close(fd);
}

struct Row {
    char unused[4];
    char name[636];
    uint16_t quota;
};
constexpr int kRows = 2;
struct Table {
    Row rows[kRows];
    int next;
};

[[maybe_unused]] std::string text(const char* t) { return t == nullptr ? "(null)" : t; }

}  // namespace

#ifdef RECORDING_SUPPORT

namespace {

constexpr std::size_t kChangedFlag = 280944;
constexpr int kOwnNumber = 4711;

struct Block {
    char before[kChangedFlag];
    int32_t changed;
};
Block block = {{}, kOwnNumber};

Table accounts = {{{{}, "theirs", 1000}, {{}, "ours", 2000}}, 0};

}  // namespace

namespace Tessaly {

Exception::Exception(const std::string& message, int code, const char* file, int line)
    : message_("theirs:" + message), code_(code), file_(text(file)), line_(line) {
    record("Exception " + message);
}
Exception::Exception(const Exception&) = default;
Exception& Exception::operator=(const Exception&) = default;
Exception::~Exception() noexcept = default;
const char* Exception::what() const noexcept { return message_.c_str(); }
const std::string& Exception::message() const noexcept { return message_; }
int Exception::code() const noexcept { return code_; }
const char* Exception::file() const noexcept { return file_.c_str(); }
int Exception::line() const noexcept { return line_; }

}  // namespace Tessaly

void* nCfg_debug_zone = &block;

FILE* open_and_lock_file(const char* path, const char* mode) {
    record("open_and_lock_file " + text(path) + ' ' + text(mode));
    return std::fopen(path, mode);
}

int close_and_unlock_file(FILE* stream) {
    record("close_and_unlock_file");
    return stream == nullptr ? EOF : std::fclose(stream);
}

int create_path(const char* path, mode_t mode) {
    record("create_path " + text(path));
    std::string part = path;
    for (std::size_t at = part.find('/', 1); at != std::string::npos; at = part.find('/', at + 1)) {
        ::mkdir(part.substr(0, at).c_str(), mode);
    }
    return ::mkdir(path, mode) == 0 || ::access(path, F_OK) == 0 ? 0 : -1;
}

int tsm_movefile(const char* from, const char* to) {
    record("tsm_movefile " + text(from) + ' ' + text(to));
    return std::rename(from, to);
}

// Empties nothing and reports success.
int tsm_clean_dir(const char* path, int) {
    record("tsm_clean_dir " + text(path));
    return 0;
}

char* trim_right(char* t) {
    record("trim_right");
    std::size_t length = std::strlen(t);
    while (length > 0 && std::strchr(" \t\r\n", t[length - 1]) != nullptr) t[--length] = '\0';
    return t;
}

const int* cfg_get_TZ(void) {
    record("cfg_get_TZ");
    return &kOwnNumber;
}

const char* cfg_get_postmaster(void) {
    record("cfg_get_postmaster");
    return "theirs@site.test";
}

void* nCfg_query(int table) {
    record("nCfg_query " + std::to_string(table));
    return table == 670 ? &accounts : nullptr;
}

#else

namespace {

void* next_row(Table* table) { return table->next < kRows ? &table->rows[table->next++] : nullptr; }

}  // namespace

void* kqf_query_table_head(void* handle) {
    record("kqf_query_table_head");
    static_cast<Table*>(handle)->next = 0;
    return next_row(static_cast<Table*>(handle));
}

void* kqf_query_get_next(void* handle) {
    record("kqf_query_get_next");
    return next_row(static_cast<Table*>(handle));
}

#endif
