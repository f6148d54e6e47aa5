// Letter case depends on the process's locale, also for letters beyond ASCII, and where 'I' is not
// the upper case of 'i'. The locales are made by localedef; without their sources a case is
// skipped.
#include <strings.h>
#include <tessaly/maillist.h>

#include <gtest/gtest.h>

#include <cctype>
#include <clocale>
#include <random>

#include "lists.h"
#include "literal.h"
#include "testing/locales.h"

using namespace lists;

namespace {

// Two cases of one letter of the locale, in texts long enough for every way of comparing.
void expect_equal(const char* upper, const char* lower) {
    const auto text = [](const char* letter) { return "long enough " + std::string(letter); };
    put(text(upper) + "\n");
    EXPECT_EQ(find(text(lower).c_str()), 1);
    EXPECT_EQ(add(text(lower).c_str()), 0);
    EXPECT_EQ(content(), text(upper) + "\n");
}

std::string in_some_case(std::string text, std::mt19937& random) {
    for (char& c : text) {
        const auto byte = static_cast<unsigned char>(c);
        c = static_cast<char>(random() % 2 ? std::tolower(byte) : std::toupper(byte));
    }
    return text;
}

std::string random_list(std::mt19937& random) {
    const std::string before = random() % 2 == 0 ? "prefix of a line " : "";
    std::string text;
    for (int i = 0; i < 12; ++i) {
        text += before;
        for (auto n = 1 + random() % 3; n > 0; --n) {
            text += "aAiI\xc4\xe4\xa1\xb1\xdd\xfd*"[random() % 11];
        }
        text += '\n';
    }
    return text;
}

// The plain comparison of the literal versions agrees with the C library's.
void expect_the_usual_comparison() {
#if !defined(__SANITIZE_ADDRESS__)
    for (int a = 1; a < 256; ++a) {
        for (int b = 1; b < 256; ++b) {
            const char one[] = {static_cast<char>(a), '\0'}, other[] = {static_cast<char>(b), '\0'};
            ASSERT_EQ(literal::compare(one, other) > 0, strcasecmp(one, other) > 0);
            ASSERT_EQ(literal::compare(one, other) < 0, strcasecmp(one, other) < 0);
        }
    }
#endif
}

void expect_as_literally() {
    expect_the_usual_comparison();
    std::mt19937 random(91);
    for (int round = 0; round < 300; ++round) {
        put(random_list(random));
        ASSERT_EQ(names(true).names, literal::names(kPath, true));
        for (const std::string& line : literal::lines(kPath)) {
            const std::string entry = in_some_case(line, random);
            ASSERT_EQ(find(entry.c_str()), literal::find(kPath, entry.c_str())) << entry;
            ASSERT_EQ(match(entry.c_str()), literal::match(kPath, entry.c_str())) << entry;
        }
    }
}

}  // namespace

TEST(Locale, OfWesternEurope) {
    if (!testing_locales::use("de_DE", "ISO-8859-1")) GTEST_SKIP() << "no locale sources";
    expect_equal("\xc4", "\xe4");
    expect_as_literally();
}

TEST(Locale, WhoseLettersAreNotOneBitApart) {
    if (!testing_locales::use("pl_PL", "ISO-8859-2")) GTEST_SKIP() << "no locale sources";
    expect_equal("\xa1", "\xb1");
    expect_as_literally();
}

TEST(Locale, WithAnotherCaseOfI) {
    if (!testing_locales::use("tr_TR", "ISO-8859-9")) GTEST_SKIP() << "no locale sources";
    ASSERT_NE(literal::compare("I", "i"), 0);
    expect_equal("\xdd", "i");
    expect_equal("I", "\xfd");
    put("III@SITE.TEST\n");
    EXPECT_EQ(find("iii@site.test"), 0);
    expect_as_literally();
}

TEST(Locale, OfSeveralBytesALetter) {
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    expect_equal("A", "a");
    put("\xc3\x84*\n");
    EXPECT_EQ(match("\xc3\xa4x"), 1);  // a pattern knows letters,
    EXPECT_EQ(find("\xc3\xa4*"), 0);   // a comparison bytes
    expect_as_literally();
}
