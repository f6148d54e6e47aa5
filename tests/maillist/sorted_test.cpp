// The sorted order against the insertion that defines it.
#include "maillist/sorted.h"

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "literal.h"

namespace {

using Texts = std::vector<std::string>;

Texts inserted(const Texts& texts) {
    Texts sorted;
    for (const std::string& text : texts) literal::insert(sorted, text);
    return sorted;
}

Texts by_library(Texts texts) {
    std::vector<char*> names;
    for (std::string& text : texts) names.push_back(text.data());
    Tessaly::maillist::sort_names(names.data(), names.size());
    return {names.begin(), names.end()};
}

}  // namespace

TEST(SortNames, KeepsTheTieRule) {
    const struct {
        Texts in, out;
    } rows[] = {
        {{}, {}},
        {{"b", "A", "c"}, {"A", "b", "c"}},
        // Equal to the last entry: behind it.
        {{"a", "A", "a"}, {"a", "A", "a"}},
        {{"b", "a", "B"}, {"a", "b", "B"}},
        // Equal to any other: in front of its equals.
        {{"a", "b", "A"}, {"A", "a", "b"}},
        {{"a", "A", "b", "aA", "A", "a"}, {"a", "A", "a", "A", "aA", "b"}},
        {{"x", "m", "M", "X", "m"}, {"m", "M", "m", "x", "X"}},
        {{"ab", "a", "AB", "abc", "Ab"}, {"a", "Ab", "ab", "AB", "abc"}},
        // Equal in the first eight letters, and in more.
        {{"abcdefgh", "abcdefg", "ABCDEFGHI", "abcdefgH", "abcdefghi"},
         {"abcdefg", "abcdefgH", "abcdefgh", "ABCDEFGHI", "abcdefghi"}},
        // Upper-case letters are behind '_' as lower-case ones; bytes are unsigned.
        {{"_", "A", "\xe4", "z", "@"}, {"@", "_", "A", "z", "\xe4"}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(inserted(row.in), row.out);
        EXPECT_EQ(by_library(row.in), row.out);
    }
}

TEST(SortNames, EqualsTheInsertionOnRandomTexts) {
    std::mt19937 random(65);
    for (int round = 0; round < 6000; ++round) {
        const auto count = random() % (round % 20 == 0 ? 300 : 12);
        const auto lengths = 1 + random() % 3;
        Texts texts;
        for (unsigned i = 0; i < count; ++i) {
            std::string text = round % 5 == 0 ? "SamePrefix" : "";
            if (!text.empty() && random() % 2) text = "sameprefix";
            for (auto n = 1 + random() % lengths; n > 0; --n) text += "aAbB_"[random() % 5];
            texts.push_back(text);
        }
        ASSERT_EQ(by_library(texts), inserted(texts)) << round;
    }
}

TEST(SortNames, EqualsTheInsertionOnRandomBytes) {
    std::mt19937 random(66);
    for (int round = 0; round < 2000; ++round) {
        Texts texts;
        for (auto i = random() % 60; i > 0; --i) {
            std::string text;
            for (auto n = 1 + random() % 20; n > 0; --n) {
                text += static_cast<char>(1 + random() % (round % 2 == 0 ? 255 : 2));
            }
            texts.push_back(text);
        }
        ASSERT_EQ(by_library(texts), inserted(texts)) << round;
    }
}

TEST(SortNames, EqualsTheInsertionOnSortedAndConstantInput) {
    Texts up, down, same, longest;
    for (int i = 0; i < 700; ++i) {
        char text[32];
        std::snprintf(text, sizeof text, "%cser%04d@site.test", i % 2 ? 'u' : 'U', i / 2);
        up.push_back(text);
        down.insert(down.begin(), text);
        same.push_back(i % 3 ? "Same@Site.test" : "same@site.test");
        longest.push_back(std::string(254, i % 2 ? 'x' : 'X') + "abc"[i % 3]);
    }
    for (const Texts& texts : {up, down, same, longest}) {
        EXPECT_EQ(by_library(texts), inserted(texts));
    }
}
