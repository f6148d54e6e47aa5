// The record's layout, its description and its defaults, against tables written out by hand.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "helpers.h"
#include "testing/files.h"

namespace {

struct Row {
    const char* key;
    unsigned type, size, offset;
    const char* by_default;
};

// In the order of the file.
const Row kRows[] = {
    {"default_sort", 0, 4, 0, "1"},
    {"npage", 0, 4, 4, "25"},
    {"dspam", 1, 1, 8, "1"},
    {"autotrain", 1, 1, 9, "1"},
    {"whitelist", 1, 1, 794, "0"},
    {"spamreport", 1, 1, 798, "1"},
    {"uname", 2, 256, 804, ""},
    {"remail", 2, 256, 1060, ""},
    {"signature", 1, 1, 793, "0"},
    {"timezone", 0, 4, 800, "0"},
    {"autoreply", 1, 1, 10, "0"},
    {"ar_to_me_only", 1, 1, 11, "1"},
    {"ar_start_date", 2, 256, 12, ""},
    {"ar_end_date", 2, 256, 268, ""},
    {"ar_subject", 2, 256, 524, "[Auto Reply]"},
    {"ar_action", 0, 4, 780, "1"},
    {"ar_level", 0, 4, 784, "1"},
    {"ar_interval", 0, 4, 788, "7"},
    {"autoforward", 1, 1, 792, "0"},
    {"keepcopy", 1, 1, 795, "0"},
    {"web_idle_timeout", 3, 2, 1316, "1"},
    {"lang", 2, 256, 1318, "en"},
    {"date", 1, 1, 796, "0"},
    {"size", 1, 1, 797, "0"},
    {"theme", 0, 4, 1576, "0"},
    {"forward_option", 0, 4, 1580, "1"},
    {"message_preview", 1, 1, 1584, "1"},
    {"calendar_time_format", 0, 4, 1588, "0"},
    {"calendar_default_view", 0, 4, 1592, "1"},
    {"alternate_id", 2, 1276, 1596, ""},
    {"default_id", 2, 256, 2872, ""},
    {"message_check_interval", 0, 4, 3128, "5"},
    {"show_remote_content", 1, 1, 3132, "1"},
    {"page_size", 0, 4, 3136, "25"},
    {"notification", 1, 1, 3140, "0"},
};

TEST(Record, RowsAreTheDocumentedOnes) {
    std::size_t i = 0;
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.key);
        const pref_property& is = pref_properties[i++];
        EXPECT_STREQ(is.name, row.key);
        EXPECT_EQ(is.type, row.type);
        EXPECT_EQ(is.size, row.size);
        EXPECT_EQ(is.offset, row.offset);
    }
    EXPECT_EQ(i, 35u);
    const pref_property& last = pref_properties[i];
    EXPECT_EQ(last.name, nullptr);
    EXPECT_EQ(last.type + last.offset + last.size, 0u);
}

// The fields cover the record, except for the gaps of alignment, and do not overlap.
TEST(Record, FieldsFillTheRecord) {
    std::string covered(sizeof(user_pref), '.');
    for (const Row& row : kRows) {
        const auto field = covered.begin() + row.offset;
        EXPECT_EQ(std::count(field, field + row.size, '.'), row.size) << row.key;
        std::fill(field, field + row.size, 'x');
    }
    EXPECT_EQ(covered.size(), 3144u);
    std::vector<std::size_t> padding;
    for (std::size_t i = 0; i < covered.size(); ++i) {
        if (covered[i] == '.') padding.push_back(i);
    }
    EXPECT_EQ(padding, (std::vector<std::size_t>{799, 1574, 1575, 1585, 1586, 1587, 3133, 3134,
                                                 3135, 3141, 3142, 3143}));
}

TEST(Record, TypeCodesIndexTheConverters) {
    EXPECT_EQ(PREF_TYPE_INT, 0);
    EXPECT_EQ(PREF_TYPE_BOOL, 1);
    EXPECT_EQ(PREF_TYPE_STRING, 2);
    EXPECT_EQ(PREF_TYPE_UINT16, 3);
    EXPECT_EQ(pref_data_convertor[0], pref_data_convertor[6]);
    const std::size_t n = sizeof pref_data_convertor / sizeof *pref_data_convertor;
    EXPECT_EQ(n, 8u);
    EXPECT_EQ(std::count(pref_data_convertor, pref_data_convertor + n, nullptr), 0);
}

TEST(Record, DefaultsOverGarbage) {
    user_pref p = prefs::filled_with(0xa5);
    EXPECT_EQ(get_default_user_pref(&p), &p);
    for (const Row& row : kRows) {
        EXPECT_EQ(prefs::value_of(p, prefs::row_of(row.key)), row.by_default) << row.key;
    }
}

// Every byte that a default does not set is zero, also in padding and behind the ends of texts.
TEST(Record, DefaultsLeaveNoGarbage) {
    user_pref p = prefs::filled_with(0xa5);
    get_default_user_pref(&p);
    std::string expected(sizeof p, '\0');
    const auto put = [&expected](const auto& value, std::size_t offset) {
        std::memcpy(expected.data() + offset, &value, sizeof value);
    };
    for (const Row& row : kRows) {
        if (row.type == PREF_TYPE_STRING) {
            std::strcpy(expected.data() + row.offset, row.by_default);
        } else if (row.size == 4) {
            put(static_cast<std::int32_t>(std::atoi(row.by_default)), row.offset);
        } else if (row.size == 2) {
            put(static_cast<std::uint16_t>(std::atoi(row.by_default)), row.offset);
        } else {
            put(static_cast<std::uint8_t>(std::atoi(row.by_default)), row.offset);
        }
    }
    EXPECT_EQ(std::memcmp(&p, expected.data(), sizeof p), 0);
}

TEST(Record, DefaultsWithTheSystemsTimezone) {
    testing_files::write("/tmp/tsmail.toml", "timezone = 42\n");
    ::setenv("TSMAIL_CONFIG", "/tmp/tsmail.toml", 1);
    user_pref p = prefs::filled_with(0xa5);
    EXPECT_EQ(get_default_user_pref_with_tz(&p), &p);
    EXPECT_EQ(p.timezone, 42);
    p.timezone = 0;
    const user_pref without = prefs::defaults();
    EXPECT_EQ(std::memcmp(&p, &without, sizeof p), 0);
}

TEST(RecordDeathTest, TheTablesCannotBeWrittenTo) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(const_cast<pref_property*>(pref_properties)->size = 9, "");
    EXPECT_DEATH(*const_cast<pref_convertor*>(pref_data_convertor) = nullptr, "");
}

}  // namespace
