// Deletion by a later sweep: the hidden names under which directories wait for the sweep.
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/fd.h"
#include "base/store_names.h"
#include "base/text.h"

namespace {

using std::string_view;
using Tessaly::base::BoundedText;
using Tessaly::names::kDeletedPrefix;

constexpr int kAroundName = 20;  // the prefix, ".", a counter of eight digits, NUL - rounded up

bool is_empty(const char* text) { return text == nullptr || *text == '\0'; }

// A path cut behind its last '/'.
struct Parts {
    explicit Parts(string_view path)
        : directory(path.substr(0, path.rfind('/') + 1)), base(path.substr(directory.size())) {}
    string_view directory;  // with the '/'; empty without one
    string_view base;
};

// Names that differ by a counter in hexadecimal behind a common beginning.
class CountedNames {
  public:
    // The beginning has been written to `text`.
    explicit CountedNames(BoundedText& text) : beginning_(text) {}
    // The next name, or nullptr if the buffer has no room for another one. If the beginning fills
    // the buffer, the first name has no counter.
    const char* next() {
        char digits[2 * sizeof counter_];
        const char* end = std::to_chars(digits, digits + sizeof digits, ++counter_, 16).ptr;
        BoundedText name = beginning_;
        name << string_view(digits, static_cast<size_t>(end - digits));
        return name.cut() && counter_ > 1 ? nullptr : name.c_str();
    }

  private:
    BoundedText beginning_;
    std::uint64_t counter_ = 0;
};

}  // namespace

int tsm_schedule_for_deletion(const char* path, const char* dir, const char* tag) {
    if (is_empty(path) || is_empty(dir)) return -1;
    char buffer[PATH_MAX];
    BoundedText text(buffer, sizeof buffer);
    text << dir << '/' << kDeletedPrefix << (tag == nullptr ? "" : tag) << '.' << Parts(path).base
         << '.';
    if (text.cut()) {
        errno = ENAMETOOLONG;
        return -1;
    }
    CountedNames names(text);
    while (const char* name = names.next()) {
        if (Tessaly::base::retry([=] { return ::rename(path, name); }) == 0) return 0;
        if (errno != ENOTEMPTY && errno != EEXIST) return -1;
    }
    return -1;
}

int tsm_get_deleted_path(const char* path, char* out, int out_len) {
    if (is_empty(path) || out == nullptr) return -1;
    if (out_len < 0 || std::strlen(path) + kAroundName > static_cast<size_t>(out_len)) return -1;
    const Parts parts(path);
    BoundedText text(out, static_cast<size_t>(out_len));
    text << parts.directory << kDeletedPrefix << parts.base << '.';
    CountedNames names(text);
    const char* name = names.next();
    const auto look = [&name] { return ::access(name, F_OK); };
    while (name != nullptr && Tessaly::base::retry(look) == 0) name = names.next();
    return name == nullptr ? -1 : 0;
}

int tsm_is_deleted_user_path(const char* name) {
    return name != nullptr && string_view(name).starts_with(kDeletedPrefix);
}
