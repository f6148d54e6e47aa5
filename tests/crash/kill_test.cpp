// Every operation that writes is killed at every one of its system calls.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "fault/attempt.h"

namespace fault {

namespace {

class Writers : public testing::TestWithParam<Operation> {};

bool has_temporary(const Tree& tree) {
    return std::any_of(tree.begin(), tree.end(),
                       [](const auto& entry) { return entry.first.ends_with(".tmp"); });
}

// The operation works again on what a kill left, and clears it away. If it had done its work before
// the kill, it may find nothing to do.
std::string judge_next(const Operation& operation, bool was_done) {
    const Attempt next = attempt(operation, {}, {.as_it_is = true});
    if (!next.complaint.empty()) return next.complaint;
    if (has_temporary(next.run.after)) return "a temporary file stays";
    const bool claims = (operation.traits & kAcknowledges) != 0;
    const bool good = was_done || !claims || next.run.answer.result == operation.good;
    return good ? "" : "answered " + text_of(next.run.answer);
}

TEST_P(Writers, KilledAtEverySystemCall) {
    const Operation& operation = GetParam();
    make_neighbour();
    const Tree neighbour = neighbour_tree();
    const Attempt clean = attempt(operation);
    ASSERT_EQ(clean.complaint, "");
    const long calls = std::ssize(clean.trace.calls);
    for (long k = 1; k <= calls + 1; ++k) {
        const std::string point =
            k > calls ? "at the end"
                      : "before call " + std::to_string(k) + " (" +
                            name(clean.trace.calls[static_cast<std::size_t>(k - 1)]) + ')';
        const Attempt killed = attempt(operation, {.effect = Effect::kill, .first = k});
        EXPECT_FALSE(killed.run.returned) << point;
        EXPECT_EQ(judge(operation, killed, clean.run), "") << point;
        EXPECT_EQ(judge_next(operation, killed.run.after == clean.run.after), "") << point;
        EXPECT_EQ(difference(neighbour_tree(), neighbour), "") << point;
    }
    std::printf("%s: killed at %ld points\n", title(operation).c_str(), calls + 1);
    EXPECT_GT(calls, 0);
}

std::vector<Operation> writers() {
    std::vector<Operation> rows = all_operations();
    std::erase_if(rows, [](const Operation& row) { return (row.traits & kWrites) == 0; });
    return rows;
}

INSTANTIATE_TEST_SUITE_P(All, Writers, testing::ValuesIn(writers()),
                         [](const auto& row) { return title(row.param); });

}  // namespace

}  // namespace fault
