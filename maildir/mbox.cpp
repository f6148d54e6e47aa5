// The test for mbox files: is the first line a separator line, "From sender date"?
#include <sys/stat.h>
#include <tessaly/mailstore.h>

#include <cstddef>
#include <cstring>
#include <string_view>

#include "base/fd.h"
#include "base/io.h"
#include "base/store_file.h"

namespace {

using std::string_view;
using Tessaly::base::retry;

constexpr size_t kLooked = 1023;  // bytes of the file that are looked at
constexpr size_t kBefore = 32;  // NULs in front of them: offsets from a line's end may reach there
constexpr string_view kFrom = "From ";
constexpr string_view kRemote = " remote from";
constexpr ptrdiff_t kShortest = 27;   // "From " and the shortest date
constexpr ptrdiff_t kPlainLine = 40;  // a line longer than this may name a remote host at its end

// The beginning of a file, with NULs around it.
class Beginning {
  public:
    bool read(const char* path) {
        struct stat st;
        const auto look = [&] { return ::stat(path, &st); };
        if (retry(look) != 0 || st.st_size == 0) return false;
        const Tessaly::base::Fd file = Tessaly::base::open_for_reading(path);
        return file && Tessaly::base::pread_full(file.get(), buffer_ + kBefore, kLooked, 0) >= 0;
    }
    const char* text() const { return buffer_ + kBefore; }

  private:
    char buffer_[kBefore + kLooked + 1] = {};
};

// The 'F' of "From ". Line ends and blanks may stand before it if the last of them is a line feed.
const char* find_from(const char* text) {
    const size_t skipped = std::strspn(text, "\n\r \t");
    if (skipped > 0 && text[skipped - 1] != '\n') return nullptr;
    text += skipped;
    return std::strncmp(text, kFrom.data(), kFrom.size()) == 0 ? text : nullptr;
}

// The end of the date in the line that begins at `from`: the line's end, or the beginning of
// " remote from host". nullptr for a line that is not whole or is too short.
const char* find_date_end(const char* from) {
    const char* end = std::strchr(from, '\n');
    if (end == nullptr) return nullptr;
    if (end[-1] == '\r') --end;
    if (end - from > kPlainLine) {
        const char* blank = end - 1;
        while (*blank != ' ') --blank;  // that of "From " at the latest
        if (string_view(blank - kRemote.size(), kRemote.size()) != kRemote) return end;
        end = blank - kRemote.size();
    }
    return end - from < kShortest ? nullptr : end;
}

bool is_sign(char c) { return c == '+' || c == '-'; }

// The offset from `end` of the blank behind the time of day. It depends on the places of year and
// zone; 0 if neither is found.
int find_time_end(const char* end) {
    if (end[-5] == ' ') {  // the year is last, a zone may stand before it
        if (end[-8] == ':') return -5;
        if (end[-9] == ' ') return -9;
        return end[-11] == ' ' && is_sign(end[-10]) ? -11 : 0;
    }
    if (end[-4] == ' ') return end[-9] == ' ' ? -9 : 0;                        // year, zone name
    if (end[-6] == ' ') return end[-11] == ' ' && is_sign(end[-5]) ? -11 : 0;  // year, zone offset
    return 0;
}

// The offset from `end` of the blank in front of the time of day, if a date ends there; else 0.
int find_time(const char* end) {
    int t = find_time_end(end);
    if (t == 0 || end[t - 3] != ':') return 0;
    t -= end[t - 6] == ':' ? 9 : 6;  // with seconds or without
    // In front of time, day, month name and weekday.
    const bool blanks =
        end[t] == ' ' && end[t - 3] == ' ' && end[t - 7] == ' ' && end[t - 11] == ' ';
    return blanks ? t : 0;
}

}  // namespace

int tsl_is_mbox(const char* file) {
    Beginning beginning;
    if (file == nullptr || !beginning.read(file)) return 0;
    const char* from = find_from(beginning.text());
    const char* end = from == nullptr ? nullptr : find_date_end(from);
    return end == nullptr ? 0 : find_time(end);
}
