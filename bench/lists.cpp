// Address lists: find, add, names in file order, sorted names.
#include <fcntl.h>
#include <strings.h>
#include <sys/file.h>
#include <tessaly/maillist.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/bench.h"

namespace {

using bench::Item;
using std::string;

constexpr char kUser[] = "ann@site.test";
constexpr char kList[] = "whitelist";
constexpr char kAbsent[] = "nobody@nowhere.test";
constexpr char kFile[] = "/var/spool/home/site.test/ann~site.test/pref/ann~site.test.whitelist";
constexpr char kLock[] =
    "/var/spool/home/site.test/ann~site.test/pref/.ann~site.test.whitelist.lock";

// Unsorted addresses. Every eighth is a duplicate in another letter case.
void make_list(long lines) {
    string text;
    for (long i = 0; i < lines; ++i) {
        const unsigned long key = static_cast<unsigned long>(i % 8 == 7 ? i - 4 : i) * 2654435761UL;
        char line[64];
        std::snprintf(line, sizeof line, "%s%08lx@host%lu.test\n", i % 8 == 7 ? "User" : "user",
                      key % 0xffffffffUL, key % 97);
        text += line;
    }
    bench::write_file(kFile, text);
}

// Opens lock and list, calls flock, reads the list in large pieces, and finds each line with
// memchr. handle gets each line.
template <class Handle>
long bare_lines(int list_flags, Handle handle) {
    const int lock = ::open(kLock, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    ::flock(lock, LOCK_EX | LOCK_NB);
    const int list = ::open(kFile, list_flags | O_CLOEXEC, 0666);
    bench::require(list >= 0, kFile);
    static char buffer[65536];
    std::size_t kept = 0;
    long lines = 0;
    for (ssize_t n; (n = ::read(list, buffer + kept, sizeof buffer - kept)) > 0;) {
        char* at = buffer;
        char* end = buffer + kept + n;
        for (char* line_end; (line_end = static_cast<char*>(
                                  std::memchr(at, '\n', static_cast<std::size_t>(end - at))));) {
            handle(at, static_cast<std::size_t>(line_end - at));
            ++lines;
            at = line_end + 1;
        }
        kept = static_cast<std::size_t>(end - at);
        std::memmove(buffer, at, kept);
    }
    ::close(list);
    ::close(lock);
    return lines;
}

// The plainest way: stdio, one fgets a line, strip, compare.
template <class Handle>
void literal_lines(const char* mode, Handle handle) {
    std::FILE* lock = std::fopen(kLock, "w+");
    ::flock(::fileno(lock), LOCK_EX | LOCK_NB);
    std::FILE* list = std::fopen(kFile, mode);
    bench::require(list != nullptr, kFile);
    handle(list);
    std::fclose(list);
    std::fclose(lock);
}

void strip(char* line) {
    std::size_t length = std::strlen(line);
    while (length > 0 && (line[length - 1] == '\n' || line[length - 1] == '\r')) line[--length] = 0;
}

long long literal_find(std::FILE* list) {
    char line[256];
    std::rewind(list);
    while (std::fgets(line, sizeof line, list) != nullptr) {
        strip(line);
        if (::strcasecmp(line, kAbsent) == 0) return 1;
    }
    return 0;
}

Item list_find(long lines) {
    make_list(lines);
    const auto limit = [] { return bare_lines(O_RDONLY, [](char*, std::size_t) {}) > 0 ? 0 : -1; };
    const auto literal = [] {
        long long found = 0;
        literal_lines("r", [&](std::FILE* list) { found = literal_find(list); });
        return found;
    };
    const auto library = [] {
        return static_cast<long long>(mail_list_find(kUser, kList, kAbsent, 0));
    };
    Item item = {
        "list_find", lines, {{"limit", limit}, {"literal", literal}, {"library", library}}};
    bench::add_program(item, "grep -ixF",
                       {{"grep", "-ixF", kAbsent, kFile},
                        {"grep", "-ixF", kAbsent, "/dev/null"},
                        "/dev/null",
                        {"grep", "--version"},
                        [](const string&, int code) { return code == 0 ? 1LL : 0LL; },
                        {"LC_ALL=C"}});
    return item;
}

// Adding an entry that the list has: everything except for the write, so that the list does not
// grow.
Item list_add(long lines) {
    make_list(lines);
    static const string last = [] {
        string line;
        bare_lines(O_RDONLY, [&](char* at, std::size_t n) { line.assign(at, n); });
        return line;
    }();
    return {"list_add",
            lines,
            {{"limit",
              [] {
                  return bare_lines(O_RDWR | O_CREAT | O_APPEND, [](char*, std::size_t) {}) > 0
                             ? 0LL
                             : -1LL;
              }},
             {"literal",
              [] {
                  literal_lines("a+", [](std::FILE* list) {
                      char line[256];
                      long count = 0;
                      std::rewind(list);
                      while (std::fgets(line, sizeof line, list) != nullptr) ++count;
                      bench::require(count < 2048 && literal_find(list) == 0, "a list to add to");
                  });
                  return 0LL;
              }},
             {"library", [] {
                  return static_cast<long long>(mail_list_add_to(kUser, kList, last.c_str(), 0));
              }}}};
}

long long release(std::vector<char*>& names) {
    const auto count = static_cast<long long>(names.size());
    for (char* name : names) std::free(name);
    names.clear();
    return count;
}

void insert_sorted(std::vector<char*>& names, char* name) {
    const auto not_greater = [name](const char* other) { return ::strcasecmp(name, other) <= 0; };
    if (names.empty() || ::strcasecmp(name, names.back()) >= 0) {
        names.push_back(name);
    } else if (not_greater(names.front())) {
        names.insert(names.begin(), name);
    } else {
        names.insert(std::find_if(names.begin() + 1, names.end(), not_greater), name);
    }
}

using Names = std::vector<char*>;

Names bare_names() {
    Names names;
    bare_lines(O_RDONLY, [&](char* at, std::size_t n) {
        auto* name = static_cast<char*>(std::malloc(n + 1));
        std::memcpy(name, at, n);
        name[n] = '\0';
        names.push_back(name);
    });
    return names;
}

Names literal_names(bool sorted) {
    Names names;
    literal_lines("r", [&](std::FILE* list) {
        char line[256];
        while (std::fgets(line, sizeof line, list) != nullptr) {
            strip(line);
            if (*line == '\0') continue;
            if (sorted) {
                insert_sorted(names, ::strdup(line));
            } else {
                names.push_back(::strdup(line));
            }
        }
    });
    return names;
}

// The values count the names. The names and their order are compared once.
void require_same_names(bool sorted) {
    Names expected = literal_names(sorted);
    mail_list_names names;
    mail_list_get_names(kUser, kList, &names, sorted, 0);
    bench::require(
        std::equal(expected.begin(), expected.end(), names.names, names.names + names.count,
                   [](const char* a, const char* b) { return std::strcmp(a, b) == 0; }),
        "the names are not the literal version's");
    mail_list_free_names(&names);
    release(expected);
}

// Beyond it the literal version takes many seconds for one sorted listing.
constexpr long kMostSortedLiterally = 20000;

Item list_names(const char* name, long lines, bool sorted) {
    make_list(lines);
    Item item = {name, lines, {}};
    item.columns.push_back({"limit", [] {
                                Names names = bare_names();
                                return release(names);
                            }});
    if (!sorted || lines <= kMostSortedLiterally) {
        require_same_names(sorted);
        item.columns.push_back({"literal", [sorted] {
                                    Names names = literal_names(sorted);
                                    return release(names);
                                }});
    }
    item.columns.push_back({"library", [sorted] {
                                mail_list_names names;
                                mail_list_get_names(kUser, kList, &names, sorted, 0);
                                const long long count = names.count;
                                mail_list_free_names(&names);
                                return count;
                            }});
    return item;
}

Item names_in_order(long lines) { return list_names("list_names", lines, false); }
Item names_sorted(long lines) {
    Item item = list_names("list_sorted", lines, true);
    bench::add_program(item, "sort -f",
                       {{"sort", "-f", kFile},
                        {"sort", "-f", "/dev/null"},
                        "/dev/null",
                        {"sort", "--version"},
                        bench::number_of_lines,
                        {"LC_ALL=C"}});
    return item;
}

const bench::Registration kFind({"list_find", {205, 2047, 100000}, {205, 2047}, list_find});
const bench::Registration kAdd({"list_add", {20, 205, 2047}, {205, 2047}, list_add});
const bench::Registration kNames({"list_names", {205, 2047, 100000}, {205}, names_in_order});
const bench::Registration kSorted({"list_sorted", {205, 2047, 100000}, {205}, names_sorted});

}  // namespace
