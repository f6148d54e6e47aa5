// The values of a verb's arguments, as people write them. What is anything else is a Failure with
// code kExitUsage.
#ifndef TSMAIL_TOOLS_CLI_VALUES_H
#define TSMAIL_TOOLS_CLI_VALUES_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace Tessaly::tool {

// A word that people write and the number that it stands for.
struct Word {
    int number;
    std::string_view word;
};

// The row with the given word (letter case does not matter, '_' equals '-') or number. If there is
// no such row, a Failure with code kExitUsage lists the words; `what` says what they are.
const Word& word_of(std::span<const Word> words, std::string_view what, std::string_view given);

// Converts a whole number between the limits. A Failure with code kExitUsage for anything else.
long long whole_number(std::string_view what, std::string_view given, long long least,
                       long long most);

// Converts an age: a whole number followed by s, h, d or w for seconds, hours, days or weeks. A
// Failure with code kExitUsage for anything else.
std::chrono::seconds age_of(std::string_view what, std::string_view given);

// Converts the value of --jobs; one job for each processor if it was not given. A Failure with code
// kExitUsage for anything but a number within the limits.
std::size_t jobs_of(const std::optional<std::string>& given);

}  // namespace Tessaly::tool

#endif
