// What the fuzz targets share: taking an input apart, and ending when the library and the plain
// model do not agree.
//
// A target is one LLVMFuzzerTestOneInput. It is linked with libFuzzer (preset fuzz,
// scripts/fuzz.sh) or, in the other presets, with a main that replays the kept inputs.
#ifndef TSMAIL_TESTS_FUZZ_FUZZ_H
#define TSMAIL_TESTS_FUZZ_FUZZ_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

// Everything that a target writes lies below /var/spool, which is the sandbox's own.
inline constexpr char kDirectory[] = "/var/spool/fuzz";

// An input, which is taken from its beginning. It consists of lines where possible, so that people
// can read inputs.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size)
        : left_(reinterpret_cast<const char*>(data), size) {}
    // Up to the next line feed, which is dropped.
    std::string line() {
        const auto end = std::min(left_.find('\n'), left_.size());
        const std::string line(left_.substr(0, end));
        left_.remove_prefix(std::min(end + 1, left_.size()));
        return line;
    }
    // The number in a line, 0 if it is not a number.
    long long number() { return std::strtoll(line().c_str(), nullptr, 10); }
    std::string rest() const { return std::string(left_); }

  private:
    std::string_view left_;
};

inline std::string shown(std::string_view value) { return "[" + std::string(value) + "]"; }
template <class Number>
requires std::is_arithmetic_v<Number> std::string shown(Number value) {
    return std::to_string(value);
}

[[noreturn]] inline void fail(const std::string& what) {
    std::fprintf(stderr, "%s\n", what.c_str());
    std::abort();
}

inline void expect(bool holds, const char* what) {
    if (!holds) fail(what);
}

template <class T>
void expect_equal(const T& library, const T& model, const char* what) {
    if (library == model) return;
    fail(std::string(what) + ": " + shown(library) + " instead of " + shown(model));
}

}  // namespace fuzz

#endif
