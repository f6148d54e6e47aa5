#include "tools/work/mbox.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <vector>

#include "base/number.h"
#include "tools/cli/descriptors.h"
#include "tools/cli/failure.h"

namespace Tessaly::tool {

namespace {

using std::string_view;
using Words = std::vector<string_view>;

constexpr std::size_t kBuffer = 262144;
constexpr string_view kFrom = "From ";
constexpr string_view kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr string_view kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

Words words_of(string_view line) {
    Words words;
    for (;;) {
        const std::size_t begin = line.find_first_not_of(" \t\r\n");
        if (begin == string_view::npos) return words;
        line.remove_prefix(begin);
        const std::size_t end = std::min(line.find_first_of(" \t\r\n"), line.size());
        words.push_back(line.substr(0, end));
        line.remove_prefix(end);
    }
}

// A number within the limits, or -1.
int number_of(string_view text, int most) {
    const auto number = base::whole_number<int>(text);
    return number && *number >= 0 && *number <= most ? *number : -1;
}

template <std::size_t n>
int place_of(string_view word, const string_view (&words)[n]) {
    const auto* found = std::find(std::begin(words), std::end(words), word);
    return found == std::end(words) ? -1 : static_cast<int>(found - words);
}

// "10:20:30" or "10:20".
bool read_clock(string_view text, std::tm& when) {
    const bool has_seconds = text.size() == 8 && text[5] == ':';
    if (!has_seconds && text.size() != 5) return false;
    if (text[2] != ':') return false;
    when.tm_hour = number_of(text.substr(0, 2), 23);
    when.tm_min = number_of(text.substr(3, 2), 59);
    when.tm_sec = has_seconds ? number_of(text.substr(6), 60) : 0;
    return when.tm_hour >= 0 && when.tm_min >= 0 && when.tm_sec >= 0;
}

// Seconds east of Greenwich of "+0130"; 0 for other words, as names of zones are ambiguous.
std::time_t zone_of(string_view word) {
    if (word.size() != 5 || (word[0] != '+' && word[0] != '-')) return 0;
    const int number = number_of(word.substr(1), 9999);
    const std::time_t seconds = number < 0 ? 0 : (number / 100 * 60 + number % 100) * 60;
    return word[0] == '-' ? -seconds : seconds;
}

// The year, and a zone in front of it or behind it.
std::optional<std::time_t> read_rest(const Words& words, std::size_t at, std::tm& when) {
    constexpr int kLastYear = 9999, kFirst = 1900;
    int year = -1;
    std::time_t zone = 0;
    for (; at < words.size(); ++at) {
        if (words[at].size() == 4 && year < 0) year = number_of(words[at], kLastYear);
        zone += zone_of(words[at]);
    }
    if (year < kFirst) return std::nullopt;
    when.tm_year = year - kFirst;
    return ::timegm(&when) - zone;
}

// The date that begins with the word, as "Thu Jan  1 00:00:00 1970".
std::optional<std::time_t> date_at(const Words& words, std::size_t at) {
    constexpr std::size_t kParts = 5;
    constexpr int kLastDay = 31;
    if (at + kParts > words.size() || place_of(words[at], kDays) < 0) return std::nullopt;
    std::tm when = {};
    when.tm_mon = place_of(words[at + 1], kMonths);
    when.tm_mday = number_of(words[at + 2], kLastDay);
    if (when.tm_mon < 0 || when.tm_mday < 1 || !read_clock(words[at + 3], when)) {
        return std::nullopt;
    }
    return read_rest(words, at + 4, when);
}

// The letters of Status and X-Status, with the flags that they stand for.
struct StatusLine {
    string_view name;
    string_view letters, flags;  // '\0': no flag
};
constexpr StatusLine kStatus[] = {{"status:", "RON", string_view("S\0\0", 3)},
                                  {"x-status:", "AFDT", "RFTD"}};

bool is_empty_line(string_view line) { return line == "\n" || line == "\r\n"; }

// One pass over an mbox file.
class MboxPass {
  public:
    explicit MboxPass(const MboxVisitor& visitor) : visitor_(visitor) {}

    // False if the file does not begin like an mbox.
    bool take(const FileLines& lines) {
        const string_view text = lines.text();
        if (lines.begins() && begins_message(text)) {
            finish();
            start(text);
            return true;
        }
        if (!in_message_) return false;
        if (lines.begins()) {
            take_line(text);
        } else {
            pass(text);
        }
        return true;
    }

    void finish() {
        if (in_message_) visitor_.end(flags_, old_);
        in_message_ = false;
    }

  private:
    // A line without a date begins a message only where nothing else can be meant.
    bool begins_message(string_view line) const {
        return date_of_from_line(line).has_value() ||
               (line.starts_with(kFrom) && words_of(line).size() == 1 &&
                (!in_message_ || !held_.empty()));
    }

    void start(string_view line) {
        in_message_ = in_header_ = true;
        flags_.clear();
        held_.clear();
        old_ = false;
        visitor_.begin(date_of_from_line(line));
    }

    void take_line(string_view line) {
        if (in_header_ && take_status(line)) return;
        if (is_empty_line(line)) {
            pass_held();
            in_header_ = false;
            held_ = line.size() == 1 ? "\n" : "\r\n";
            return;
        }
        pass(needs_quote(line) && line.front() == '>' ? line.substr(1) : line);
    }

    bool take_status(string_view line) {
        const auto flags = flags_of_status(line);
        if (!flags) return false;
        flags_ += *flags;
        old_ = old_ || line.find('O', line.find(':')) != string_view::npos;
        return true;
    }

    void pass(string_view text) {
        pass_held();
        visitor_.text(text);
    }

    // An empty line is not passed on before something follows it in the message.
    void pass_held() {
        if (!held_.empty()) visitor_.text(held_);
        held_.clear();
    }

    const MboxVisitor& visitor_;
    bool in_message_ = false, in_header_ = false, old_ = false;
    std::string flags_, held_;
};

}  // namespace

bool needs_quote(string_view line) {
    const auto begin = line.find_first_not_of('>');
    return begin != string_view::npos && line.substr(begin).starts_with(kFrom);
}

std::optional<std::string> flags_of_status(string_view line) {
    for (const StatusLine& status : kStatus) {
        if (line.size() < status.name.size() || line.back() != '\n') continue;
        if (::strncasecmp(line.data(), status.name.data(), status.name.size()) != 0) continue;
        std::string flags;
        for (const char letter : line.substr(status.name.size())) {
            const auto at = status.letters.find(letter);
            const bool blank = letter == ' ' || letter == '\r' || letter == '\n';
            if (at == string_view::npos && !blank) return std::nullopt;
            if (at != string_view::npos && status.flags[at] != '\0') flags += status.flags[at];
        }
        return flags;
    }
    return std::nullopt;
}

bool read_mbox(int fd, const MboxVisitor& visitor) {
    MboxPass pass(visitor);
    for (FileLines lines(fd); lines.next();) {
        if (!pass.take(lines)) return false;
    }
    pass.finish();
    return true;
}

std::optional<std::time_t> date_of_from_line(string_view line) {
    constexpr std::size_t kLongest = 1000;
    if (!line.starts_with(kFrom) || line.size() > kLongest) return std::nullopt;
    const Words words = words_of(line);
    for (std::size_t at = 1; at < words.size(); ++at) {
        if (const auto date = date_at(words, at)) return date;
    }
    return std::nullopt;
}

FileLines::FileLines(int fd) : fd_(fd), buffer_(std::make_unique<char[]>(kBuffer)) {}

void FileLines::fill() {
    char* buffer = buffer_.get();
    std::memmove(buffer, buffer + position_, filled_ - position_);
    filled_ -= position_;
    position_ = 0;
    while (!ended_ && filled_ < kBuffer) {
        const ssize_t n =
            retry([&] { return ::pread(fd_, buffer + filled_, kBuffer - filled_, offset_); });
        if (n < 0) throw Failure(kExitIo, error_text(errno));
        ended_ = n == 0;
        filled_ += static_cast<std::size_t>(n);
        offset_ += n;
    }
}

bool FileLines::next() {
    begins_ = text_.empty() || text_.back() == '\n';
    const auto end_of_line = [&] {
        return static_cast<const char*>(
            std::memchr(buffer_.get() + position_, '\n', filled_ - position_));
    };
    const char* end = end_of_line();
    if (end == nullptr) {
        fill();
        end = end_of_line();
    }
    const char* begin = buffer_.get() + position_;
    const std::size_t length =
        end == nullptr ? filled_ - position_ : static_cast<std::size_t>(end - begin) + 1;
    text_ = {begin, length};
    position_ += length;
    bytes_ += static_cast<off_t>(length);
    return length > 0;
}

bool holds_several_messages(int fd) {
    struct stat st;
    char head[kFrom.size()];
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return false;
    if (::pread(fd, head, sizeof head, 0) != sizeof head) return false;
    if (string_view(head, sizeof head) != kFrom) return false;
    int messages = 0;
    for (FileLines lines(fd); messages < 2 && lines.next();) {
        messages += lines.begins() && date_of_from_line(lines.text()) ? 1 : 0;
    }
    return messages == 2;
}

}  // namespace Tessaly::tool
