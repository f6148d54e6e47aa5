#include "tools/cli/text.h"

#include <gtest/gtest.h>

#include <string>

using namespace Tessaly::tool;

TEST(Printable, EscapesWhatATerminalWouldActOn) {
    const struct {
        std::string text, shown;
    } rows[] = {
        {"", ""},
        {"plain text ~ \\", "plain text ~ \\"},
        {"\x1b[2J", "\\x1b[2J"},
        {std::string("a\0b", 3), "a\\x00b"},
        {"\t\r\n\x7f", "\\x09\\x0d\\x0a\\x7f"},
        {"gr\xc3\xbc\xc3\x9f\x65 \xe2\x82\xac \xf0\x9f\x8d\xb0",
         "gr\xc3\xbc\xc3\x9f\x65 \xe2\x82\xac \xf0\x9f\x8d\xb0"},
        {"\xc2\x9b", "\\xc2\\x9b"},                                      // C1 control
        {"\xe2\x80\xae\xe2\x80\x8b", "\\xe2\\x80\\xae\\xe2\\x80\\x8b"},  // right-to-left, invisible
        {"\xef\xbb\xbf", "\\xef\\xbb\\xbf"},                             // byte order mark
        {"\xe2\x80\xa8", "\\xe2\\x80\\xa8"},                             // line separator
        {"\xc2\xad", "\\xc2\\xad"},                                      // soft hyphen
        {"\xe3\x85\xa4", "\\xe3\\x85\\xa4"},                             // invisible letter
        {"\xf3\xa0\x81\xa1", "\\xf3\\xa0\\x81\\xa1"},                    // invisible tag
        {"\xe2\x9d\xa4\xef\xb8\x8f", "\xe2\x9d\xa4\xef\xb8\x8f"},        // heart as a picture
        {"u\xcc\x88", "u\xcc\x88"},                                      // decomposed umlaut
        {"\xff\xfe", "\\xff\\xfe"},
        {"\xc3", "\\xc3"},  // cut
        {"\xe2\x82", "\\xe2\\x82"},
        {"\xc0\xaf", "\\xc0\\xaf"},                    // overlong '/'
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},           // surrogate
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // beyond the last code point
        {"\xc3(", "\\xc3("},
    };
    for (const auto& [text, shown] : rows) EXPECT_EQ(printable(text), shown);
}

TEST(WidthOf, ColumnsOfATerminal) {
    const struct {
        std::string text;
        std::size_t columns;
    } rows[] = {
        {"", 0},
        {"abc", 3},
        {"\xc3\xbc", 1},
        {"u\xcc\x88", 1},                             // the same umlaut, decomposed
        {"\xe4\xbc\x9a\xe8\xad\xb0", 4},              // ideographs
        {"\xed\x95\x9c", 2},                          // a syllable of Hangul
        {"\xe1\x84\x92\xe1\x85\xa1\xe1\x86\xab", 2},  // the same one, decomposed
        {"\xf0\x9f\x8d\xb0", 2},                      // a picture
        {"\xe2\x82\xac", 1},
        {"\xff", 1},
    };
    for (const auto& [text, columns] : rows) EXPECT_EQ(width_of(text), columns) << text;
}

TEST(SizeText, BinaryUnitsWithBoundaries) {
    const struct {
        std::uint64_t bytes;
        const char* shown;
    } rows[] = {
        {0, "0 B"},
        {1, "1 B"},
        {1023, "1023 B"},
        {1024, "1.0 KiB"},
        {1536, "1.5 KiB"},
        {1024 * 1024 - 52, "1023.9 KiB"},
        {1024 * 1024 - 51, "1.0 MiB"},
        {1ULL << 30, "1.0 GiB"},
        {1ULL << 40, "1.0 TiB"},
        {1ULL << 50, "1.0 PiB"},
        {1ULL << 60, "1.0 EiB"},
        {UINT64_MAX, "16.0 EiB"},
    };
    for (const auto& [bytes, shown] : rows) EXPECT_EQ(size_text(bytes), shown) << bytes;
}

TEST(Folded, LettersAndUnderscores) { EXPECT_EQ(folded("MUF_Quota-Flag9"), "muf-quota-flag9"); }
