// Names, dates and first lines, read step by step in the plainest way. The library must agree with
// it.
#ifndef TSMAIL_TESTS_MAILDIR_LITERAL_H
#define TSMAIL_TESTS_MAILDIR_LITERAL_H

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace literal {

inline constexpr char kDigits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

// A moment of this 60-year period.
inline time_t moment(int year_digit, int month, int day, int hour, int minute, int second) {
    const time_t now = ::time(nullptr);
    struct tm utc = *::gmtime(&now);
    struct tm when = {};
    when.tm_year = utc.tm_year / 60 * 60 + year_digit;
    when.tm_mon = month;
    when.tm_mday = day;
    when.tm_hour = hour;
    when.tm_min = minute;
    when.tm_sec = second;
    return ::timegm(&when);
}

inline time_t creation_date(const char* name) {
    if (name == nullptr) return -1;
    char* copy = ::strdup(name);
    char* p = copy;
    while (*p >= '0' && *p <= '9') ++p;
    time_t result = -1;
    if (*p == '.') {
        *p = '\0';
        const time_t t = static_cast<time_t>(std::strtoul(copy, nullptr, 10));
        struct tm local;
        if (::localtime_r(&t, &local) != nullptr) {
            local.tm_isdst = -1;
            result = ::mktime(&local);
        }
    }
    std::free(copy);
    return result;
}

inline int value(char c) {
    for (int i = 0; i < 62; ++i) {
        if (kDigits[i] == c) return i;
    }
    return -1;
}

inline time_t received_date(const std::string& name) {
    const auto mark = name.find("#Q#");
    if (mark == std::string::npos) return creation_date(name.c_str());
    size_t p = mark + 3;
    size_t r = name.size() - p;
    for (;;) {
        if (r < 6) return creation_date(name.c_str());
        const int month = value(name[p + 1]);
        if (month < 0) return creation_date(name.c_str());
        if (month <= 11 || name[p] != 'q') break;
        ++p;
        --r;
    }
    int v[6];
    for (size_t i = 0; i < 6; ++i) {
        v[i] = value(name[p + i]);
        if (v[i] < 0) return creation_date(name.c_str());
    }
    const time_t t = moment(v[0], v[1], v[2], v[3], v[4], v[5]);
    return t == -1 ? creation_date(name.c_str()) : t;
}

// What is wrong with a folder name: 0, 1 or 2.
inline int judge_name(const std::string& name, unsigned flags) {
    std::vector<std::string> components(1);
    for (const char c : name) {
        if (c == '/' && (flags & 1) != 0) {
            components.emplace_back();
        } else {
            components.back() += c;
        }
    }
    for (const auto& component : components) {
        if (component.empty() || component[0] == '.') return 1;
        for (const char c : component) {
            for (const char bad : {'/', '\\', '?', '*', ':', '"', '<', '>', '|'}) {
                if (c == bad) return 1;
            }
        }
        if ((flags & 2) == 0) continue;
        if (component == "new" || component == "cur" || component == "tmp") return 2;
    }
    return 0;
}

// The test for the first line of an mbox file, step by step over positions in a text.
class MboxLine {
  public:
    explicit MboxLine(const std::string& content) : text_(content.substr(0, 1023)) {}

    int check() const {
        long f = 0;
        while (at(f) == '\n' || at(f) == '\r' || at(f) == ' ' || at(f) == '\t') ++f;
        if (f > 0 && at(f - 1) != '\n') return 0;
        if (text_.compare(static_cast<size_t>(f), 5, "From ") != 0) return 0;
        long x = f + 5;
        while (at(x) != '\n') {
            if (at(x) == '\0') return 0;
            ++x;
        }
        if (at(x - 1) == '\r') --x;
        long length = x - f;
        if (length > 40) {
            long space = x - 1;
            while (at(space) != ' ') --space;
            bool remote = true;
            for (long i = 0; i < 12; ++i)
                remote = remote && at(space - 12 + i) == " remote from"[i];
            if (remote) {
                x = space - 12;
                length = x - f;
                if (length < 27) return 0;
            }
        } else if (length < 27) {
            return 0;
        }
        int t;
        if (at(x - 5) == ' ') {
            if (at(x - 8) == ':') {
                t = -5;
            } else if (at(x - 9) == ' ') {
                t = -9;
            } else if (at(x - 11) == ' ' && (at(x - 10) == '+' || at(x - 10) == '-')) {
                t = -11;
            } else {
                return 0;
            }
        } else if (at(x - 4) == ' ') {
            if (at(x - 9) != ' ') return 0;
            t = -9;
        } else if (at(x - 6) == ' ') {
            if (at(x - 11) != ' ') return 0;
            if (at(x - 5) != '+' && at(x - 5) != '-') return 0;
            t = -11;
        } else {
            return 0;
        }
        if (at(x + t - 3) != ':') return 0;
        if (at(x + t - 6) == ':') {
            t -= 9;
        } else {
            t -= 6;
        }
        for (const int behind : {0, 3, 7, 11}) {
            if (at(x + t - behind) != ' ') return 0;
        }
        return t;
    }

  private:
    char at(long i) const {
        return i < 0 || i >= static_cast<long>(text_.size()) ? '\0' : text_[static_cast<size_t>(i)];
    }
    std::string text_;
};

}  // namespace literal

#endif
