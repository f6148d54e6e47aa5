// The four pairs of converters, called through the exported table.
#include <tessaly/support.h>

#include <climits>
#include <cstdlib>
#include <random>

#include "helpers.h"

namespace {

using prefs::field_to_text;
using prefs::text_to_field;

struct Number {
    const char* text;
    std::int32_t as_int;
    unsigned as_flag, as_uint16;
};

const Number kNumbers[] = {
    {"12\n", 12, 1, 12},
    {"12", 12, 1, 12},
    {"12abc\n", 12, 1, 12},
    {"abc\n", 0, 0, 0},
    {"", 0, 0, 0},
    {"\n", 0, 0, 0},
    {"-\n", 0, 0, 0},
    {"+\n", 0, 0, 0},
    {"--5\n", 0, 0, 0},
    {"- 5\n", 0, 0, 0},
    {"+5\n", 5, 1, 5},
    {"-5\n", -5, 1, 65531},
    {"  \t 7 8\n", 7, 1, 7},
    {"\v\f\r-7\n", -7, 1, 65529},
    {"007\n", 7, 1, 7},
    {"0x10\n", 0, 0, 0},
    {"1e3\n", 1, 1, 1},
    {"1,000\n", 1, 1, 1},
    {"2\n", 2, 1, 2},
    {"-1\n", -1, 1, 65535},
    {"255\n", 255, 1, 255},
    {"256\n", 256, 0, 256},
    {"257\n", 257, 1, 257},
    {"-256\n", -256, 0, 65280},
    {"65535\n", 65535, 1, 65535},
    {"65536\n", 65536, 0, 0},
    {"70000\n", 70000, 1, 4464},
    {"999999999\n", 999999999, 1, 51711},
    {"1000000000\n", 1000000000, 0, 51712},
    {"-1000000001\n", -1000000001, 1, 13823},
    {"2147483647\n", INT_MAX, 1, 65535},
    {"2147483648\n", INT_MIN, 0, 0},
    {"-2147483648\n", INT_MIN, 0, 0},
    {"-2147483649\n", INT_MAX, 1, 65535},
    {"4294967296\n", 0, 0, 0},
    {"4294967297\n", 1, 1, 1},
    {"9223372036854775807\n", -1, 1, 65535},
    {"9223372036854775808\n", -1, 1, 65535},         // saturates at the largest
    {"99999999999999999999999999\n", -1, 1, 65535},  // so does this
    {"-9223372036854775808\n", 0, 0, 0},
    {"-99999999999999999999999999\n", 0, 0, 0},  // the smallest: low bytes zero
    {"000000000000000000000000000012\n", 12, 1, 12},
};

TEST(Convertors, NumbersFromText) {
    for (const Number& row : kNumbers) {
        SCOPED_TRACE(row.text);
        std::int32_t number = 0x5a5a5a5a;
        EXPECT_EQ(text_to_field(PREF_TYPE_INT)(&number, 4, row.text), 0);
        EXPECT_EQ(number, row.as_int);
        std::uint8_t flag = 0x5a;
        EXPECT_EQ(text_to_field(PREF_TYPE_BOOL)(&flag, 1, row.text), 0);
        EXPECT_EQ(flag, row.as_flag);
        std::uint16_t small = 0x5a5a;
        EXPECT_EQ(text_to_field(PREF_TYPE_UINT16)(&small, 2, row.text), 0);
        EXPECT_EQ(small, row.as_uint16);
    }
}

// As many low bytes as the field has, at most eight, and no byte beyond the field.
TEST(Convertors, IntegersOfEveryWidth) {
    const long long number = -2;
    for (unsigned size = 0; size <= 16; ++size) {
        unsigned char field[20];
        std::memset(field, 0x5a, sizeof field);
        EXPECT_EQ(text_to_field(PREF_TYPE_INT)(field, size, "-2\n"), 0);
        const std::size_t kept = std::min(size, 8u);
        EXPECT_EQ(std::memcmp(field, &number, kept), 0) << size;
        for (std::size_t i = kept; i < sizeof field; ++i) EXPECT_EQ(field[i], 0x5a) << size;
    }
}

TEST(Convertors, AFlagIsOneByteWhateverTheSize) {
    for (const unsigned size : {0u, 1u, 2u, 4u}) {
        unsigned char field[4] = {9, 9, 9, 9};
        EXPECT_EQ(text_to_field(PREF_TYPE_BOOL)(field, size, "7\n"), 0);
        EXPECT_EQ(field[0], size == 0 ? 9 : 1);
        EXPECT_EQ(field[1] + field[2] + field[3], 27);
    }
}

TEST(Convertors, NumbersAgreeWithTheCLibrary) {
    std::mt19937 random(20240501);
    const std::string_view letters = "0123456789 -+\t\nx";
    const auto pick = [&](std::size_t n) { return random() % n; };
    for (int round = 0; round < 200000; ++round) {
        std::string text;
        for (std::size_t n = pick(24); n > 0; --n) {
            text += letters[pick(round % 2 == 0 ? 10 : letters.size())];
        }
        if (round % 3 == 0) text.insert(0, "-");
        const long long wanted = std::strtoll(text.c_str(), nullptr, 10);
        long long number = 0;
        ASSERT_EQ(text_to_field(PREF_TYPE_INT)(&number, 8, text.c_str()), 0);
        ASSERT_EQ(number, wanted) << text;
        std::uint8_t flag = 9;
        ASSERT_EQ(text_to_field(PREF_TYPE_BOOL)(&flag, 1, text.c_str()), 0);
        const auto low = static_cast<std::uint8_t>(std::strtol(text.c_str(), nullptr, 10));
        ASSERT_EQ(flag, low != 0) << text;
    }
}

struct Text {
    unsigned size;
    std::string text, kept;
};

TEST(Convertors, TextsFromText) {
    const Text rows[] = {
        {256, "en\n", "en"},
        {256, "en\r\n", "en"},
        {256, "en", "en"},
        {256, "", ""},
        {256, "\n", ""},
        {256, "  two  \n", "  two"},
        {256, " \t\v\f\r\n", ""},
        {256, "a=b\n", "a=b"},
        {256, "\xc3\xa4\xff \n", "\xc3\xa4\xff"},
        {256, "\xa0\n", "\xa0"},
        {256, std::string(254, 'x') + "\n", std::string(254, 'x')},
        {256, std::string(255, 'x') + "\n", std::string(255, 'x')},
        {256, std::string(256, 'x') + "\n", std::string(255, 'x')},
        {256, std::string(300, 'x') + "\n", std::string(255, 'x')},
        // The text is cut first and then trimmed: the text behind the blanks is lost.
        {256, std::string(250, 'x') + "      y\n", std::string(250, 'x')},
        {1276, std::string(1274, 'x') + "\n", std::string(1274, 'x')},
        {1276, std::string(1276, 'x') + "\n", std::string(1275, 'x')},
        {2, "xy\n", "x"},
        {1, "xy\n", ""},
    };
    for (const Text& row : rows) {
        std::string field(row.size + 8, '#');
        EXPECT_EQ(text_to_field(PREF_TYPE_STRING)(field.data(), row.size, row.text.c_str()), 0);
        EXPECT_STREQ(field.c_str(), row.kept.c_str());
        EXPECT_EQ(field.substr(row.size), "########") << "written beyond the field";
    }
}

TEST(Convertors, ATextFieldWithoutRoomIsLeftAlone) {
    char field[] = "##";
    EXPECT_EQ(text_to_field(PREF_TYPE_STRING)(field, 0, "xy\n"), 0);
    EXPECT_STREQ(field, "##");
}

TEST(Convertors, NullIsRefused) {
    for (unsigned type = 0; type < 4; ++type) {
        char field[8] = "1234567";
        EXPECT_EQ(text_to_field(type)(nullptr, 4, "1\n"), -1);
        EXPECT_EQ(text_to_field(type)(field, 4, nullptr), -1);
        EXPECT_STREQ(field, "1234567");
        char line[8] = "kept";
        EXPECT_EQ(field_to_text(type)(nullptr, 8, "key", field), -1);
        EXPECT_EQ(field_to_text(type)(line, 8, "key", nullptr), -1);
        EXPECT_EQ(field_to_text(type)(line, 8, nullptr, field), -1);
        EXPECT_STREQ(line, "kept");
    }
}

template <class Field>
std::string to_text(unsigned type, const Field& field, unsigned capacity = 511) {
    char line[512] = "";
    EXPECT_EQ(field_to_text(type)(line, capacity, "key", &field), 0);
    return line;
}

TEST(Convertors, FieldsToText) {
    for (const std::int32_t number : {0, 1, -1, 25, INT_MAX, INT_MIN}) {
        EXPECT_EQ(to_text(PREF_TYPE_INT, number), "key=" + std::to_string(number) + "\n");
    }
    for (const int number : {0, 1, 32767, 32768, 65535}) {
        const auto small = static_cast<std::uint16_t>(number);
        EXPECT_EQ(to_text(PREF_TYPE_UINT16, small), "key=" + std::to_string(number) + "\n");
    }
    for (const int flag : {0, 1, 2, 128, 255}) {
        EXPECT_EQ(to_text(PREF_TYPE_BOOL, static_cast<std::uint8_t>(flag)),
                  flag == 0 ? "key=0\n" : "key=1\n");
    }
    for (const char* text : {"", "en", " two ", "a\nb", "100%d", "\xff"}) {
        char field[16];
        std::strcpy(field, text);
        EXPECT_EQ(to_text(PREF_TYPE_STRING, field), "key=" + std::string(text) + "\n");
    }
}

// Cut at every capacity exactly as snprintf cuts.
TEST(Convertors, LinesAreCutAsSnprintfCuts) {
    const std::int32_t number = -1234567;
    const std::uint16_t small = 54321;
    const std::uint8_t flag = 1;
    const char text[] = "some text";
    for (unsigned capacity = 0; capacity <= 20; ++capacity) {
        const auto check = [capacity](unsigned type, const void* field, const std::string& whole) {
            char line[32], wanted[32];
            std::memset(line, '#', sizeof line);
            std::memset(wanted, '#', sizeof wanted);
            EXPECT_EQ(field_to_text(type)(line, capacity, "key", field), 0);
            std::snprintf(wanted, capacity, "%s", whole.c_str());
            EXPECT_EQ(std::memcmp(line, wanted, sizeof line), 0) << whole << capacity;
        };
        check(PREF_TYPE_INT, &number, "key=-1234567\n");
        check(PREF_TYPE_UINT16, &small, "key=54321\n");
        check(PREF_TYPE_BOOL, &flag, "key=1\n");
        check(PREF_TYPE_STRING, text, "key=some text\n");
    }
}

// The fields of a record are aligned. A caller's fields need not be.
TEST(Convertors, FieldsNeedNoAlignment) {
    alignas(8) char bytes[16] = {};
    for (int at = 0; at < 8; ++at) {
        ASSERT_EQ(text_to_field(PREF_TYPE_INT)(bytes + at, 4, "-77\n"), 0);
        char line[32];
        ASSERT_EQ(field_to_text(PREF_TYPE_INT)(line, sizeof line, "k", bytes + at), 0);
        EXPECT_STREQ(line, "k=-77\n");
    }
}

}  // namespace
