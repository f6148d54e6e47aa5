// Sizes: sums of folders by name and by stat, the actual size with a fresh cache, record appends.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tessaly/mailstore.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/bench.h"
#include "bench/dovecot.h"

namespace {

using bench::Item;
using std::string;

constexpr int kStatOnly = 2;

// Calls handle(fd of the directory, entry) for each entry with getdents64 until 0.
template <class Handle>
void read_entries(const string& dir, Handle handle) {
    alignas(8) char buffer[32768];
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    bench::require(fd >= 0, dir);
    for (ssize_t n; (n = ::getdents64(fd, buffer, sizeof buffer)) > 0;) {
        for (ssize_t at = 0; at < n;) {
            const auto* entry = reinterpret_cast<const dirent64*>(buffer + at);
            handle(fd, entry);
            at += entry->d_reclen;
        }
    }
    ::close(fd);
}

bool is_dots(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// The plainest way: readdir, strstr and strtoll for every size field, and a composed path for every
// entry.
long long literal_sum(const string& dir, bool by_stat) {
    long long sum = 0;
    DIR* stream = ::opendir(dir.c_str());
    bench::require(stream != nullptr, dir);
    while (const dirent* entry = ::readdir(stream)) {
        if (is_dots(entry->d_name)) continue;
        const char* mark = by_stat ? nullptr : std::strstr(entry->d_name, ",#F");
        const char* size = mark == nullptr ? nullptr : std::strstr(mark, "#S");
        if (size != nullptr && std::strstr(mark, "#E") != nullptr) {
            sum += std::strtoll(size + 2 + (size[2] == '#'), nullptr, 10);
            continue;
        }
        char path[4096];
        std::snprintf(path, sizeof path, "%s/%s", dir.c_str(), entry->d_name);
        struct stat st;
        if (::stat(path, &st) == 0) sum += st.st_size;
    }
    ::closedir(stream);
    return sum;
}

const std::vector<string> kDuVersion = {"du", "--version"};
const std::vector<string> kFindVersion = {"find", "--version"};

// `du` shows the size of the directory and of everything in it.
bench::Program du(const string& dir) {
    struct stat st;
    bench::require(::stat(dir.c_str(), &st) == 0, dir);
    const long long own = st.st_size;
    const auto value = [own](const string& output, int code) {
        return bench::sum_of_lines(output, code) - own;
    };
    return {{"du", "-sb", dir},
            {"du", "-sb", bench::fresh_dir("empty")},
            "/dev/null",
            kDuVersion,
            value};
}

bench::Program find_sizes(const string& dir) {
    const auto words = [](const string& place) {
        return std::vector<string>{"find", place, "-type", "f", "-printf", "%s\n"};
    };
    return {words(dir), words(bench::fresh_dir("empty")), "/dev/null", kFindVersion,
            bench::sum_of_lines};
}

constexpr char kPythonSum[] =
    "import mailbox, os, sys\n"
    "total = 0\n"
    "box = mailbox.Maildir(sys.argv[1], create=False)\n"
    "for key in box.iterkeys():\n"
    "    with box.get_file(key) as message:\n"
    "        total += message.seek(0, os.SEEK_END) or message.tell()\n"
    "print(total)\n";

bench::Program python_mailbox(const string& folder) {
    const string empty = bench::make_folder("empty", 0, {});
    return {{"python3", "-c", kPythonSum, folder},
            {"python3", "-c", kPythonSum, empty},
            "/dev/null",
            {"python3", "--version"},
            bench::sum_of_lines};
}

Item sum_names(long messages) {
    const string folder =
        bench::make_folder("sum_names", messages, {.with_new = false, .sparse = true});
    const string dir = folder + "/cur";
    const long long expected = literal_sum(dir, false);
    Item item = {"sum_names",
                 messages,
                 {{"limit",
                   [=] {
                       long entries = 0;
                       read_entries(dir, [&](int, const dirent64*) { ++entries; });
                       bench::require(entries == messages + 2, "entries");
                       return expected;
                   }},
                  {"literal", [=] { return literal_sum(dir, false); }},
                  {"library", [=] { return tsl_get_dir_size(dir.c_str(), nullptr, 0); }}}};
    bench::add_program(item, "du", du(dir));
    if (messages <= 10000) bench::add_program(item, "Python mailbox", python_mailbox(folder));
    // With fewer messages only its start can be measured. With more, making them takes seconds.
    if (messages >= 10000 && messages <= 100000) bench::add_doveadm(item, 1, messages);
    return item;
}

Item sum_stat(long messages) {
    const bench::FolderKind plain = {.tagged = false, .with_new = false, .sparse = true};
    const string dir = bench::make_folder("sum_stat", messages, plain) + "/cur";
    Item item = {"sum_stat",
                 messages,
                 {{"limit",
                   [=] {
                       long long sum = 0;
                       read_entries(dir, [&](int fd, const dirent64* entry) {
                           struct stat st;
                           if (is_dots(entry->d_name)) return;
                           if (::fstatat(fd, entry->d_name, &st, 0) == 0) sum += st.st_size;
                       });
                       return sum;
                   }},
                  {"literal", [=] { return literal_sum(dir, true); }},
                  {"library", [=] { return tsl_get_dir_size(dir.c_str(), nullptr, kStatOnly); }}}};
    bench::add_program(item, "du", du(dir));
    bench::add_program(item, "find", find_sizes(dir));
    return item;
}

Item fresh_cache(long messages) {
    const string folder = bench::make_folder("fresh_cache", messages, {});
    tsl_get_mailbox_size_actual(folder.c_str(), nullptr, 0);  // writes the cache ...
    const long long expected = tsl_get_mailbox_size_actual(folder.c_str(), nullptr, 0);
    return {"fresh_cache",
            messages,
            {{"limit",
              [=] {
                  struct stat st;
                  char text[128];
                  const string cache = folder + "/.ts_cache";
                  ::stat(folder.c_str(), &st);
                  ::stat((folder + "/cur").c_str(), &st);
                  ::stat((folder + "/new").c_str(), &st);
                  const int fd = ::open(cache.c_str(), O_RDONLY | O_CLOEXEC);
                  bench::require(::read(fd, text, sizeof text) > 0, cache);
                  ::close(fd);
                  return expected;
              }},
             {"library", [=] { return tsl_get_mailbox_size_actual(folder.c_str(), nullptr, 0); }}},
            100};
}

// One record each from `writers` processes, in the ways of the columns.
using Append = void (*)(const char* path);
constexpr int kAppends = 2000;

void append_limit(const char* path) {
    struct stat st;
    std::FILE* stream = open_and_lock_file(path, "a+");
    const int fd = ::fileno(stream);
    ::fstat(fd, &st);
    bench::require(::write(fd, "2048 1\n", 7) == 7, path);
    close_and_unlock_file(stream);
}

void append_literal(const char* path) {
    std::FILE* stream = open_and_lock_file(path, "a+");
    struct stat st;
    ::fstat(::fileno(stream), &st);
    long long size = 2048;
    long long count = 1;
    if (st.st_size > 4096) {
        char line[255];
        std::rewind(stream);
        while (std::fgets(line, sizeof line, stream) != nullptr) {
            long long a = 0;
            long long b = 0;
            if (std::sscanf(line, "%lld %lld", &a, &b) == 2) size += a, count += b;
        }
        bench::require(::ftruncate(::fileno(stream), 0) == 0, path);
        std::fputs("0S, 0C\n", stream);
    }
    std::fprintf(stream, "%lld %lld\n", size, count);
    close_and_unlock_file(stream);
}

void append_library(const char* path) { tsl_append_maildirsize(path, 2048, 1); }

long long append_together(const string& path, long writers, Append append) {
    for (long i = 0; i < writers; ++i) {
        const pid_t child = ::fork();
        bench::require(child >= 0, "fork");
        if (child > 0) continue;
        for (int n = 0; n < kAppends; ++n) append(path.c_str());
        ::_exit(0);
    }
    int failed = 0;
    for (int status; ::wait(&status) > 0;) failed += status != 0;
    return failed;
}

Item size_append(long writers) {
    const string path = bench::fresh_dir("size_append") + "/mail/.maildirsize";
    const auto prepare = [path] { bench::write_file(path, ""); };
    const auto column = [=](const char* name, Append append) {
        return bench::Column{name, [=] { return append_together(path, writers, append); }, prepare};
    };
    return {"size_append",
            writers,
            {column("limit", append_limit), column("literal", append_literal),
             column("library", append_library)},
            1,
            static_cast<double>(writers) * kAppends};
}

const bench::Registration kSumNames(
    {"sum_names", {1000, 10000, 100000, 500000}, {1000}, sum_names});
const bench::Registration kSumStat({"sum_stat", {1000, 10000, 100000}, {1000}, sum_stat});
const bench::Registration kFreshCache({"fresh_cache", {1000, 10000, 100000}, {1000}, fresh_cache});
const bench::Registration kSizeAppend({"size_append", {1, 2, 4}, {2}, size_append});

}  // namespace
