#include "mailsize/literal.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace literal {

namespace {

__extension__ using Wide = __int128;
using File = std::unique_ptr<FILE, int (*)(FILE*)>;

File open(const std::string& path, const char* mode) {
    File file(std::fopen(path.c_str(), mode), std::fclose);
    if (!file) throw std::runtime_error("cannot open " + path);
    return file;
}

long long wrapped(long long a, long long b) {
    return static_cast<long long>(static_cast<unsigned long long>(a) +
                                  static_cast<unsigned long long>(b));
}

bool fits(Wide sum) { return sum == static_cast<long long>(sum); }

unsigned long long clamped(Wide sum) { return sum < 0 ? 0 : static_cast<unsigned long long>(sum); }

}  // namespace

void append(const std::string& path, long long size, long long count, bool with_header) {
    const File file = open(path, "a+");
    struct stat st;
    if (::fstat(::fileno(file.get()), &st) != 0) throw std::runtime_error("fstat");
    if (st.st_size > 4096) {
        char line[255];
        std::rewind(file.get());
        while (std::fgets(line, sizeof line, file.get()) != nullptr) {
            long long a, b;
            if (std::sscanf(line, "%lld %lld", &a, &b) != 2) continue;
            size = wrapped(size, a);
            count = wrapped(count, b);
        }
        if (::ftruncate(::fileno(file.get()), 0) != 0) throw std::runtime_error("ftruncate");
        if (with_header) std::fputs("0S, 0C\n", file.get());
    }
    std::fprintf(file.get(), "%lld %lld\n", size, count);
}

Read read(const std::string& path) {
    const File file = open(path, "r");
    Wide size = 0, count = 0;
    char line[255];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        long long a, b;
        errno = 0;
        if (std::sscanf(line, "%lld %lld", &a, &b) != 2) continue;
        size += a;
        count += b;
        if (errno != 0 || !fits(size) || !fits(count)) return {0, 0, true};
    }
    return {clamped(size), clamped(count), size < 0 || count < 0};
}

bool read_date(const std::string& path, long& date) {
    const File file = open(path, "r");
    bool found = false;
    char line[255];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        int value;
        if (std::sscanf(line, "%d", &value) != 1) continue;
        date = value;
        found = true;
    }
    return found;
}

bool read_cache(const std::string& path, long& mtime, unsigned long& size) {
    const File file = open(path, "r");
    long a;
    unsigned long b;
    if (std::fscanf(file.get(), "mtime=%ld,size=%lu", &a, &b) != 2) return false;
    mtime = a;
    size = b;
    return true;
}

ScanCache read_scan_cache(const std::string& path, bool anywhere) {
    const File file = open(path, "r");
    ScanCache cache;
    char line[128];
    while ((cache.mtime == 0 || cache.size == 0) &&
           std::fgets(line, sizeof line, file.get()) != nullptr) {
        const char* mtime = anywhere ? std::strstr(line, "mtime=") : line;
        if (mtime != nullptr) std::sscanf(mtime, "mtime=%ld", &cache.mtime);
        const char* size = anywhere ? std::strstr(line, "size=") : line;
        if (size != nullptr) std::sscanf(size, "size=%ld", &cache.size);
    }
    return cache;
}

long long size_in_name(const char* name) {
    bool begun = false, complete = false;
    const char* size = nullptr;
    for (; *name != '\0'; ++name) {
        if (!begun) {
            begun = std::strncmp(name, ",#F", 3) == 0;
        } else if (std::strncmp(name, "#S", 2) == 0) {
            size = name + 2;
        } else if (std::strncmp(name, "#E", 2) == 0) {
            complete = true;
        }
    }
    if (size == nullptr || !complete) return -1;
    return std::strtoll(*size == '#' ? size + 1 : size, nullptr, 10);
}

long long dir_size(const std::string& dir, int flags) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::opendir(dir.c_str()), ::closedir);
    long long sum = 0;
    while (const dirent* entry = entries ? ::readdir(entries.get()) : nullptr) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        struct stat st;
        if (const long long size = size_in_name(entry->d_name); !(flags & 2) && size >= 0) {
            sum += size;
        } else if (::stat((dir + "/" + name).c_str(), &st) == 0) {
            sum += st.st_size;
        }
    }
    return sum;
}

std::string tagged(const std::string& name, long long size) {
    std::size_t place = name.find(",U");
    if (place == std::string::npos) place = name.find(":2");
    if (place == std::string::npos) place = name.size();
    return name.substr(0, place) + ",#F#S#" + std::to_string(size) + "#E" + name.substr(place);
}

}  // namespace literal
