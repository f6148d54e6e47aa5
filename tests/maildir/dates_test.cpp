// The dates read back from message file names.
#include <tessaly/mailstore.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "maildir/literal.h"

namespace {

using literal::kDigits;
using literal::moment;

// Local time of a place with daylight-saving time.
class Dates : public testing::Test {
  protected:
    Dates() { set_zone("CET-1CEST,M3.5.0,M10.5.0/3"); }
    ~Dates() override { set_zone("UTC0"); }
    static void set_zone(const char* zone) {
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
};

TEST_F(Dates, CreationDate) {
    const struct {
        const char* name;
        time_t expected;
    } rows[] = {
        {"1763275200.1_2_3.h", 1763275200},
        {"1763275200.", 1763275200},
        {"0.1_2_3.h", 0},
        {".", 0},
        {".1_2_3.h", 0},
        {"0001763275200.x", 1763275200},
        {"253402300800.x", 253402300800},  // the year 10000
        {"18446744073709551515.x", -101},  // digits are taken as 64 bits without sign
        {"x.1", -1},
        {"", -1},
        {"1763275200", -1},
        {"1763275200x.1", -1},
        {" 1763275200.1", -1},
        {"-1763275200.1", -1},
        {"+1763275200.1", -1},
        {"0x10.1", -1},
        {"18446744073709551615.x", -1},
        {"99999999999999999999999999999999.x", -1},
        {"9223372036854775807.x", -1},  // no such local time
        {"9000000000000000000.x", -1},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(tsl_get_mail_creation_date(row.name), row.expected) << row.name;
    }
    EXPECT_EQ(tsl_get_mail_creation_date(nullptr), -1);
    std::string digits(1 << 20, '9');
    EXPECT_EQ(tsl_get_mail_creation_date((digits + ".x").c_str()), -1);
    digits.assign(1 << 20, '0');
    EXPECT_EQ(tsl_get_mail_creation_date((digits + "7.x").c_str()), 7);
}

// 02:30 of 26 October 2025 came twice in this zone. Through local time both become the same moment.
TEST_F(Dates, CreationDateGoesThroughLocalTime) {
    const time_t first = 1761438600;
    const auto date = [](time_t t) {
        return tsl_get_mail_creation_date((std::to_string(t) + ".x").c_str());
    };
    EXPECT_EQ(date(first - 7200), first - 7200);
    EXPECT_EQ(date(first), date(first + 3600));
    EXPECT_EQ(date(first + 7200), first + 7200);
}

std::string with_queue(const std::string& queue) { return "1763275200.2_3_4.h#Q#" + queue; }

constexpr time_t kFallBack = 1763275200;

TEST_F(Dates, ReceivedDate) {
    const struct {
        const char* queue;
        time_t expected;
    } rows[] = {
        {"6B9Ha0q3004242,#F#S#2048#E", moment(6, 11, 9, 17, 36, 0)},
        {"6B9Ha0", moment(6, 11, 9, 17, 36, 0)},
        {"50V000x", moment(5, 0, 31, 0, 0, 0)},
        // letters 'q' in front are skipped; one that a month follows is the year
        {"q6B9Ha0", moment(52, 6, 11, 9, 17, 36)},
        {"qqq6B9Ha0", moment(52, 6, 11, 9, 17, 36)},
        {"qqqaB9Ha0", moment(36, 11, 9, 17, 36, 0)},
        {"qB9Ha0x", moment(52, 11, 9, 17, 36, 0)},
        {"q0V000", moment(52, 0, 31, 0, 0, 0)},
        {"qC9Ha0", kFallBack},  // five are left behind the 'q'
        {"qC9Ha0x", moment(12, 9, 17, 36, 0, 59)},
        // fields out of range carry over into the next
        {"0Cz0zz", moment(0, 12, 61, 0, 61, 61)},
        {"zzzzzz", moment(61, 61, 61, 61, 61, 61)},
        // no digits
        {"6B9Ha,#F#S#1#E", kFallBack},
        {"6B9Ha", kFallBack},
        {"", kFallBack},
        {"6-9Ha0", kFallBack},
        {"-B9Ha0", kFallBack},
        {"6B-Ha0", kFallBack},
        {"6B9-a0", kFallBack},
        {"6B9H-0", kFallBack},
        {"6B9Ha-", kFallBack},
        {"6B9Ha\xe4", kFallBack},
        {"qqqqqqqqq", kFallBack},
        {"#Q#6B9Ha0", kFallBack},  // the first mark counts
    };
    for (const auto& row : rows) {
        EXPECT_EQ(tsl_get_mail_received_date(with_queue(row.queue).c_str()), row.expected)
            << row.queue;
    }
    EXPECT_EQ(tsl_get_mail_received_date("1763275200.1_2_3.h"), kFallBack);
    EXPECT_EQ(tsl_get_mail_received_date("x"), -1);
    EXPECT_EQ(tsl_get_mail_received_date("x#Q#6B9Ha0"), moment(6, 11, 9, 17, 36, 0));
    EXPECT_EQ(tsl_get_mail_received_date(nullptr), -1);
    const std::string qs(1 << 20, 'q');
    EXPECT_EQ(tsl_get_mail_received_date(with_queue(qs + "6B9Ha0").c_str()),
              moment(52, 6, 11, 9, 17, 36));
}

TEST_F(Dates, ReceivedDateReadsWhatAQueueIdSays) {
    for (const time_t when : {946684800, 1709164799, 1735689599, 1900000000}) {
        struct tm utc;
        ::gmtime_r(&when, &utc);
        char id[32];
        tsl_gen_queue_id(&utc, id, sizeof id);
        // 2000 lies in another period of 60 years, so it is read as a year of the present one
        const time_t expected =
            moment(utc.tm_year % 60, utc.tm_mon, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
        EXPECT_EQ(tsl_get_mail_received_date(with_queue(id).c_str()), expected);
    }
}

TEST_F(Dates, AgreeWithTheStepByStepReadingOnRandomNames) {
    constexpr unsigned kSeed = 4242;
    RecordProperty("seed", kSeed);
    std::mt19937 random(kSeed);
    const auto below = [&](unsigned n) { return static_cast<unsigned>(random() % n); };
    int coded = 0;
    for (int i = 0; i < 100000; ++i) {
        std::string name = std::to_string(random()) + (below(10) == 0 ? "" : ".1_2_3.h");
        if (below(8) != 0) name += "#Q#" + std::string(below(4), 'q');
        for (unsigned n = below(9); n > 0; --n) {
            name += below(12) == 0 ? static_cast<char>(1 + below(255)) : kDigits[below(62)];
        }
        name = name.c_str();
        ASSERT_EQ(tsl_get_mail_creation_date(name.c_str()), literal::creation_date(name.c_str()))
            << testing::PrintToString(name) << " seed " << kSeed;
        const time_t received = tsl_get_mail_received_date(name.c_str());
        ASSERT_EQ(received, literal::received_date(name))
            << testing::PrintToString(name) << " seed " << kSeed;
        coded += received != tsl_get_mail_creation_date(name.c_str());
    }
    EXPECT_GT(coded, 15000);
}

}  // namespace
