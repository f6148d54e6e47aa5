// The size field of message names.
#include <gtest/gtest.h>
#include <tessaly/mailstore.h>

#include <climits>

#include "mailsize/garbage.h"
#include "mailsize/literal.h"

namespace {

TEST(NameSize, IsReadFromTheField) {
    const struct {
        const char* name;
        long long size;
    } rows[] = {
        {"123.M1P2.host,#F#S#4711#E:2,S", 4711},
        {"123.4_5_6.host#Q#12,#F#S#0#E", 0},
        {"x,#F#S#12", -1},
        {"x#S#5#E", -1},
        {"x", -1},
        {"", -1},
        {"x,#F", -1},
        {"x,#F#E", -1},
        {",#F#S##E", 0},
        {",#F#S#E", 0},
        {",#F#S12#E", 12},
        {",#F#S##12#E", 0},  // one '#' is skipped, not two
        {",#F#S# 12#E", 12},
        {",#F#S#\t\n\v\f\r+12#E", 12},
        {",#F#S#-12#E", -12},
        {",#F#S#--12#E", 0},
        {",#F#S#12.5#E", 12},
        {",#F#S#12", -1},
        {",#F#S#1#S#2#E", 2},  // the last one counts, wherever the end stands
        {",#F#S#1#E#S#2", 2},
        {",#F#E#S#3", 3},
        {"#S#1#E,#F#S#2", -1},
        {"#S#1,#F#E", -1},
        {",#F,#F#S#7#E", 7},
        {",#f#S#7#E", -1},
        {",#F#s#7#e", -1},
        {",#F#S#12#E#S#5", 5},
        {",#F#S#12#E#", 12},
        {",#F#S#12#S#E", 0},
        {",#F#S#0000000000000000000012#E", 12},
        {",#F#S#999999999999999999#E", 999999999999999999},
        {",#F#S#1234567890123456789#E", 1234567890123456789},
        {",#F#S#9223372036854775807#E", LLONG_MAX},
        {",#F#S#9223372036854775808#E", LLONG_MAX},
        {",#F#S#-99999999999999999999#E", LLONG_MIN},
    };
    for (const auto& [name, size] : rows) {
        EXPECT_EQ(get_maildir_msg_len_from_name(name), size) << name;
        EXPECT_EQ(literal::size_in_name(name), size) << name;
    }
    EXPECT_EQ(get_maildir_msg_len_from_name(nullptr), -1);
}

TEST(NameSize, OfRandomNamesIsTheLiteralOne) {
    constexpr unsigned kSeed = 3;
    static const char* const kParts[] = {",#F", ",#F#S#", "#S", "#E", "#E", "#",
                                         ",",   "S",      "E",  "F",  "#S#"};
    testing_garbage::Random random(kSeed);
    int with_size = 0;
    for (int i = 0; i < 200000; ++i) {
        std::string name;
        for (auto parts = testing_garbage::below(random, 10); parts > 0; --parts) {
            switch (testing_garbage::below(random, 6)) {
                case 0:
                    name += testing_garbage::number(random);
                    break;
                case 1:
                    name += testing_garbage::blank(random);
                    break;
                default:
                    name += kParts[testing_garbage::below(random, std::size(kParts))];
            }
        }
        const long long expected = literal::size_in_name(name.c_str());
        with_size += expected > 0;
        ASSERT_EQ(get_maildir_msg_len_from_name(name.c_str()), expected)
            << "seed " << kSeed << ": " << name;
    }
    EXPECT_GT(with_size, 1000);
}

}  // namespace
