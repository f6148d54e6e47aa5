#include "tools/cli/values.h"

#include <fmt/format.h>

#include <algorithm>
#include <thread>
#include <utility>
#include <vector>

#include "base/number.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

using std::string;
using std::string_view;

const Word& word_of(std::span<const Word> words, string_view what, string_view given) {
    const auto number = base::whole_number<int>(given);
    const auto row = std::find_if(words.begin(), words.end(), [&](const Word& w) {
        return number ? w.number == *number : w.word == folded(given);
    });
    if (row != words.end()) return *row;
    std::vector<string> allowed;
    for (const Word& w : words) allowed.emplace_back(w.word);
    throw Failure(kExitUsage, fmt::format("there is no {} \"{}\"; allowed: {}", what,
                                          printable(given), fmt::join(allowed, ", ")));
}

long long whole_number(string_view what, string_view given, long long least, long long most) {
    const auto number = base::whole_number<long long>(given);
    if (number && *number >= least && *number <= most) return *number;
    throw Failure(kExitUsage, fmt::format("{} \"{}\": a whole number from {} to {} is wanted", what,
                                          printable(given), least, most));
}

std::chrono::seconds age_of(string_view what, string_view given) {
    constexpr std::pair<char, long long> kUnits[] = {
        {'s', 1}, {'h', 3600}, {'d', 86400}, {'w', 7 * 86400}};
    constexpr long long kMost = 100000;
    for (const auto& [letter, seconds] : kUnits) {
        if (!given.ends_with(letter)) continue;
        given.remove_suffix(1);
        return std::chrono::seconds(seconds * whole_number(what, given, 0, kMost));
    }
    throw Failure(kExitUsage, fmt::format("{} \"{}\": an age as 30d, 12h or 8w is wanted", what,
                                          printable(given)));
}

std::size_t jobs_of(const std::optional<string>& given) {
    constexpr long long kMostJobs = 64;
    if (!given) return std::max(1U, std::thread::hardware_concurrency());
    return static_cast<std::size_t>(whole_number("--jobs", *given, 1, kMostJobs));
}

}  // namespace Tessaly::tool
