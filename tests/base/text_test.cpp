#include "base/text.h"

#include <gtest/gtest.h>

#include <limits>

using namespace Tessaly::base;

TEST(Concat, JoinsInOneAllocation) {
    EXPECT_EQ(concat({}), "");
    EXPECT_EQ(concat({"", "a", "", "bc"}), "abc");
    EXPECT_EQ(concat({std::string_view("\0x", 2), "y"}), std::string("\0xy", 3));
}

TEST(BoundedText, FillsUpToOneByteForTheEnd) {
    char buffer[] = "########";
    BoundedText text(buffer, 6);
    text << "ab" << 'c' << 45;
    EXPECT_FALSE(text.cut());
    EXPECT_STREQ(text.c_str(), "abc45");
    EXPECT_EQ(text.room(), 0U);
    text << 'x';
    EXPECT_TRUE(text.cut());
    EXPECT_STREQ(text.c_str(), "abc45");
    EXPECT_EQ(buffer[6], '#');
}

TEST(BoundedText, CutsNumbersLikeTexts) {
    char buffer[4];
    BoundedText text(buffer, sizeof buffer);
    text << -12345;
    EXPECT_TRUE(text.cut());
    EXPECT_STREQ(text.c_str(), "-12");
}

TEST(BoundedText, WritesTheLimitsOfNumbers) {
    char buffer[64];
    BoundedText text(buffer, sizeof buffer);
    text << std::numeric_limits<long long>::min() << ' '
         << std::numeric_limits<unsigned long long>::max();
    EXPECT_STREQ(text.c_str(), "-9223372036854775808 18446744073709551615");
}

TEST(BoundedText, HoldsNothingInOneByte) {
    char buffer[1];
    BoundedText text(buffer, sizeof buffer);
    text << "";
    EXPECT_FALSE(text.cut());
    text << 1;
    EXPECT_TRUE(text.cut());
    EXPECT_STREQ(text.c_str(), "");
}
