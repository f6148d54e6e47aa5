#include "quota/flag_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <string_view>
#include <utility>

#include "base/fd.h"
#include "base/io.h"
#include "base/store_file.h"

namespace Tessaly::quota {

using base::Fd;
using base::retry;

namespace {

Fd open_emptied(const std::string& path) {
    return base::open_for_writing(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC);
}

// Takes the characters of a file one by one as far as they make an int.
class NumberScan {
  public:
    // False when the character does not belong to the number any more.
    bool take(char c) {
        if (c >= '0' && c <= '9') return take_digit(c - '0');
        if (begun_) return false;
        if (c == ' ' || (c >= '\t' && c <= '\r')) return true;
        negative_ = c == '-';
        return begun_ = negative_ || c == '+';
    }
    int value() const {
        const std::int64_t number = negative_ ? -magnitude_ : magnitude_;
        return std::in_range<int>(number) ? static_cast<int>(number) : 0;
    }

  private:
    // Beyond int with either sign.
    static constexpr std::int64_t kBeyond = std::int64_t{std::numeric_limits<int>::max()} + 2;

    bool take_digit(int digit) {
        magnitude_ = std::min(magnitude_ * 10 + digit, kBeyond);
        return begun_ = true;
    }

    bool begun_ = false;
    bool negative_ = false;
    std::int64_t magnitude_ = 0;
};

}  // namespace

bool exists(const std::string& path) {
    return retry([&] { return ::access(path.c_str(), F_OK); }) == 0;
}

bool make_empty(const std::string& path) { return static_cast<bool>(open_emptied(path)); }

void remove(const std::string& path) {
    retry([&] { return ::unlink(path.c_str()); });
}

int read_number(const std::string& path) {
    const Fd fd = base::open_for_reading(path.c_str());
    if (!fd) return 0;
    NumberScan scan;
    char buffer[256];
    for (off_t taken = 0; taken < base::kLongestFile;) {
        const ssize_t n = retry([&] { return ::read(fd.get(), buffer, sizeof buffer); });
        if (n < 0) return 0;
        if (n == 0) return scan.value();
        taken += n;
        if (!std::all_of(buffer, buffer + n, [&](char c) { return scan.take(c); })) {
            return scan.value();
        }
    }
    return 0;
}

bool write_number(const std::string& path, int number) {
    char digits[std::numeric_limits<int>::digits10 + 3];  // sign, first digit and one to spare
    const char* end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    const std::string_view text(digits, static_cast<std::size_t>(end - digits));

    const Fd fd = open_emptied(path);
    return fd && base::replace_content(fd.get(), text);
}

}  // namespace Tessaly::quota
