// The operations that read a list, and the one that adds an entry. Each asks for the list's lock
// first and releases it last.
#include <fcntl.h>
#include <fnmatch.h>
#include <tessaly/maillist.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "base/fd.h"
#include "base/guard.h"
#include "base/store_file.h"
#include "maillist/lines.h"
#include "maillist/lock.h"
#include "maillist/paths.h"
#include "maillist/sorted.h"

namespace Tessaly::maillist {

namespace {

using base::Fd;

constexpr int kAddLimit = 2048;  // lines from which on nothing is added
constexpr int kListFull = -2;

// Adds to a list that is open for reading and appending. One pass counts and searches.
int add_entry(int fd, const char* entry) {
    const EntryMatcher is_entry(entry);
    bool present = false;
    int lines = 0;
    const bool read = read_lines(fd, [&](std::string_view line) {
        present = present || is_entry(line);
        return ++lines < kAddLimit;
    });
    if (!read) return -1;
    if (lines >= kAddLimit) return kListFull;
    if (!present) append_line(fd, entry);
    return 0;
}

// Whether the pattern begins with an ASCII letter that the address does not begin with. The locale
// decides about other bytes, so they are left to fnmatch.
bool begins_otherwise(std::string_view pattern, const char* address) {
    const auto is_ascii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
    const auto lower = [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
    };
    if (pattern.empty()) return *address != '\0';
    if (std::strchr("*?[\\", pattern[0]) != nullptr) return false;
    return is_ascii(pattern[0]) && is_ascii(*address) && lower(pattern[0]) != lower(*address);
}

bool matches(std::string_view line, const char* address) {
    // This settles most patterns, and is faster than fnmatch.
    if (begins_otherwise(line, address)) return false;
    char pattern[kLineLimit + 1];
    std::memcpy(pattern, line.data(), line.size());
    pattern[line.size()] = '\0';
    return ::fnmatch(pattern, address, FNM_CASEFOLD) == 0;
}

bool match_line(int fd, const char* address) {
    bool found = false;
    read_lines(fd, [&](std::string_view line) {
        if (!matches(line, address)) return true;
        found = true;
        return false;
    });
    return found;
}

// The names as they grow. Callers release them with free, so they come from malloc.
class Names {
  public:
    Names() = default;
    Names(const Names&) = delete;
    Names& operator=(const Names&) = delete;
    ~Names() { ::mail_list_free_names(&names_); }

    // Without memory for it the text is left out.
    void add(std::string_view text) {
        if (names_.count == room_ && !grow()) return;
        auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
        if (copy == nullptr) return;
        std::memcpy(copy, text.data(), text.size());
        copy[text.size()] = '\0';
        names_.names[names_.count++] = copy;
    }
    void sort() { sort_names(names_.names, names_.count); }
    mail_list_names release() { return std::exchange(names_, {}); }

  private:
    bool grow() {
        const std::uint32_t room = room_ == 0 ? 64 : 4 * room_;
        void* grown = std::realloc(names_.names, room * sizeof(char*));
        if (grown == nullptr) return false;
        names_.names = static_cast<char**>(grown);
        room_ = room;
        return true;
    }

    mail_list_names names_{};
    std::uint32_t room_ = 0;
};

bool read_names(int fd, Names& names) {
    return read_lines(fd, [&](std::string_view line) {
        if (!line.empty()) names.add(line);
        return true;
    });
}

}  // namespace

}  // namespace Tessaly::maillist

using namespace Tessaly::maillist;
using Tessaly::base::Fd;
using Tessaly::base::no_throw;
using Tessaly::base::open_for_reading;
using Tessaly::base::open_for_update;

int mail_list_add_to(const char* user, const char* list, const char* entry, unsigned scope) {
    if (entry == nullptr) return -1;
    return no_throw(-1, [&] {
        const Fd lock = mail_list_lock(user, list, scope);
        if (!lock) return -1;
        const Fd file =
            open_for_update(list_path(user, list, scope).c_str(), O_RDWR | O_CREAT | O_APPEND);
        return file ? add_entry(file.get(), entry) : -1;
    });
}

int mail_list_find(const char* user, const char* list, const char* entry, unsigned scope) {
    if (entry == nullptr) return 0;
    return no_throw(0, [&] {
        const Fd lock = mail_list_lock(user, list, scope);
        if (!lock) return 0;
        const Fd file = open_for_reading(list_path(user, list, scope).c_str());
        return file ? find_line(file.get(), entry) : 0;
    });
}

int mail_list_match(const char* user, const char* list, const char* address, unsigned scope) {
    if (address == nullptr) return 0;
    return no_throw(0, [&] {
        const Fd lock = mail_list_lock(user, list, scope);
        if (!lock) return 0;
        const Fd file = open_for_reading(list_path(user, list, scope).c_str());
        return file && match_line(file.get(), address) ? 1 : 0;
    });
}

int mail_list_get_names(const char* user, const char* list, mail_list_names* out, int sorted,
                        unsigned scope) {
    if (out == nullptr) return -1;
    *out = {};
    return no_throw(-1, [&] {
        const Fd lock = mail_list_lock(user, list, scope);
        if (!lock) return -1;
        const Fd file = open_for_reading(list_path(user, list, scope).c_str());
        Names names;
        if (!file || !read_names(file.get(), names)) return -1;
        if (sorted != 0) names.sort();
        *out = names.release();
        return 0;
    });
}

void mail_list_free_names(mail_list_names* out) {
    if (out == nullptr) return;
    for (std::uint32_t i = 0; i < out->count; ++i) std::free(out->names[i]);
    std::free(out->names);
    *out = {};
}
