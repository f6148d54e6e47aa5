#include "tools/cli/nearest.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace Tessaly::tool {

namespace {

using std::string_view;

// A candidate with more mistakes than this is another word.
constexpr std::size_t kMistakes = 2;

// How many letters must be changed, added, removed or swapped with their neighbour.
std::size_t distance(string_view a, string_view b) {
    std::vector<std::size_t> before, last, row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t i = 1; i <= a.size(); ++i) {
        before = std::exchange(last, row);
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t change = last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            row[j] = std::min({change, last[j] + 1, row[j - 1] + 1});
            const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
            if (swapped) row[j] = std::min(row[j], before[j - 2] + 1);
        }
    }
    return row.back();
}

}  // namespace

std::string nearest(string_view word, const std::vector<std::string>& candidates) {
    const auto best = std::min_element(
        candidates.begin(), candidates.end(),
        [&](const auto& a, const auto& b) { return distance(word, a) < distance(word, b); });
    const bool found = best != candidates.end() && distance(word, *best) <= kMistakes;
    return found ? *best : std::string();
}

}  // namespace Tessaly::tool
