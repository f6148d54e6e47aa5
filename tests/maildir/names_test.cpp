// Message file names and queue identifiers.
#include <regex.h>
#include <sys/time.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "testing/processes.h"

namespace {

constexpr std::string_view kDigits =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

std::string make_name(size_t size, const char* queue) {
    char name[512];
    EXPECT_EQ(tsl_gen_mail_unique_name(size, queue, name, sizeof name), name);
    return name;
}

// The fields of a name made by this process on the host "sandbox".
struct Fields {
    explicit Fields(const std::string& name) {
        constexpr char kForm[] =
            "^(0|[1-9][0-9]*)[.]([1-9][0-9]*)_(0|[1-9][0-9]{0,5})_([1-9][0-9]{0,6})"
            "[.]sandbox#Q#(.*),#F#S#([0-9]+)#E$";
        regex_t form;
        if (::regcomp(&form, kForm, REG_EXTENDED) != 0) return;
        regmatch_t at[7];
        valid = ::regexec(&form, name.c_str(), std::size(at), at, 0) == 0;
        ::regfree(&form);
        if (!valid) return;
        const auto part = [&](int i) {
            const auto begin = static_cast<size_t>(at[i].rm_so);
            return name.substr(begin, static_cast<size_t>(at[i].rm_eo) - begin);
        };
        seconds = std::stol(part(1));
        process = std::stol(part(2));
        microseconds = std::stol(part(3));
        counter = std::stol(part(4));
        queue = part(5);
        size = part(6);
    }
    bool valid = false;
    long seconds = 0, process = 0, microseconds = 0, counter = 0;
    std::string queue, size;
};

TEST(UniqueName, Fields) {
    struct timeval before;
    ::gettimeofday(&before, nullptr);
    const std::string name = make_name(2048, "6B9Ha0q3004242");
    struct timeval after;
    ::gettimeofday(&after, nullptr);

    const Fields fields(name);
    ASSERT_TRUE(fields.valid) << name;
    EXPECT_EQ(fields.process, ::getpid());
    EXPECT_EQ(fields.queue, "6B9Ha0q3004242");
    EXPECT_EQ(fields.size, "2048");
    EXPECT_GE(fields.counter, 1);
    EXPECT_LE(fields.counter, 1000000);
    const auto in_microseconds = [](long s, long us) { return s * 1000000 + us; };
    const long made = in_microseconds(fields.seconds, fields.microseconds);
    EXPECT_GE(made, in_microseconds(before.tv_sec, before.tv_usec));
    EXPECT_LE(made, in_microseconds(after.tv_sec, after.tv_usec));
}

TEST(UniqueName, QueuePartAndSize) {
    const struct {
        const char* id;
        const char* part;
        size_t size;
        const char* text;
    } rows[] = {
        {"abc-6B9Ha0xyz", "6B9Ha0xyz", 0, "0"},
        {"6B9Ha0xyz", "6B9Ha0xyz", 1, "1"},
        {"a-b-c", "b-c", 4096, "4096"},
        {"-x", "x", 10, "10"},
        {"x-", "", 10, "10"},
        {"-", "", 10, "10"},
        {"", "", 10, "10"},
        {"\xc3\xa4 #Q#,", "\xc3\xa4 #Q#,", std::numeric_limits<size_t>::max(),
         "18446744073709551615"},
    };
    for (const auto& row : rows) {
        const Fields fields(make_name(row.size, row.id));
        ASSERT_TRUE(fields.valid) << row.id;
        EXPECT_EQ(fields.queue, row.part);
        EXPECT_EQ(fields.size, row.text);
    }
}

// The counter is random() % 1000000 + 1 of the process's generator.
TEST(UniqueName, Counter) {
    for (const unsigned seed : {1u, 2u, 77u}) {
        ::srandom(seed);
        const long expected = ::random() % 1000000 + 1;
        ::srandom(seed);
        EXPECT_EQ(Fields(make_name(1, "q")).counter, expected);
    }
}

TEST(UniqueName, BadArguments) {
    char dst[8] = "unset";
    EXPECT_EQ(tsl_gen_mail_unique_name(1, "q", nullptr, 100), nullptr);
    EXPECT_EQ(tsl_gen_mail_unique_name(1, nullptr, dst, sizeof dst), nullptr);
    EXPECT_EQ(tsl_gen_mail_unique_name(1, "q", dst, 0), nullptr);
    EXPECT_STREQ(dst, "unset");
}

// A name without the parts that differ from call to call: every number is replaced by 'n'.
std::string shape(const std::string& name) {
    std::string result;
    for (const char c : name) {
        if (c < '0' || c > '9') {
            result += c;
        } else if (!result.ends_with('n')) {
            result += 'n';
        }
    }
    return result;
}

TEST(UniqueName, IsCutToTheBuffer) {
    const std::string whole = shape(make_name(7, "queue"));
    const size_t longest = make_name(7, "queue").size() + 20;
    for (size_t room = 1; room < longest; ++room) {
        std::vector<char> buffer(room + 1, '#');
        ASSERT_EQ(tsl_gen_mail_unique_name(7, "queue", buffer.data(), room), buffer.data());
        const std::string name = buffer.data();
        EXPECT_LE(name.size(), room - 1);
        EXPECT_EQ(buffer[room], '#') << "written behind the buffer";
        const bool is_whole = shape(name) == whole;
        // a cut number is still a number
        EXPECT_TRUE(whole.starts_with(shape(name))) << name;
        EXPECT_TRUE(is_whole || name.size() == room - 1) << name;
    }
}

TEST(UniqueName, EndsTheTextAndTheBuffer) {
    for (const size_t room : {1u, 20u, 300u, 4096u}) {
        std::vector<char> buffer(room, '#');
        tsl_gen_mail_unique_name(7, "queue", buffer.data(), room);
        EXPECT_EQ(buffer[room - 1], '\0') << room;
    }
}

TEST(UniqueName, HugeQueueIdentifier) {
    const std::string id(1 << 20, 'q');
    std::vector<char> buffer(id.size() + 300);
    tsl_gen_mail_unique_name(5, id.c_str(), buffer.data(), buffer.size());
    const std::string name = buffer.data();
    EXPECT_TRUE(name.ends_with("#Q#" + id + ",#F#S#5#E"));
    char small[256];
    tsl_gen_mail_unique_name(5, id.c_str(), small, sizeof small);
    EXPECT_EQ(std::strlen(small), 255u);
}

TEST(UniqueName, IdentifierInTheSameBuffer) {
    for (const size_t room : {20u, 64u, 70u, 80u, 300u}) {
        std::vector<char> buffer(room, 'x');
        std::strcpy(buffer.data() + 3, "abc-0123456789");
        tsl_gen_mail_unique_name(9, buffer.data() + 3, buffer.data(), room);
        const std::string name = buffer.data();
        const std::string tail = "#Q#0123456789,#F#S#9#E";
        const auto mark = name.find('#');
        if (mark == std::string::npos) continue;
        EXPECT_TRUE(tail.starts_with(name.substr(mark))) << name;
        EXPECT_TRUE(room < 300 || name.ends_with(tail)) << name;
    }
}

// Makes names and checks each of them. 0 if they have this process's id and all differ, except by
// chance.
int make_many(int count, int chance) {
    std::vector<std::string> names;
    names.reserve(static_cast<size_t>(count));
    const std::string mine = "." + std::to_string(::getpid()) + "_";
    for (int i = 0; i < count; ++i) {
        char name[128];
        tsl_gen_mail_unique_name(100, "0123456789", name, sizeof name);
        if (std::string_view(name).find(mine) != 10) return 1;
        names.emplace_back(name);
    }
    std::sort(names.begin(), names.end());
    const auto distinct = std::unique(names.begin(), names.end()) - names.begin();
    return count - distinct > chance ? 2 : 0;
}

// The children inherit the state of random() and draw the same counters; the process ids keep their
// names apart. Two names of one process are equal if microsecond and counter are equal. With a few
// names a microsecond and a million counters, fewer than one pair in 100,000 names is.
TEST(UniqueName, EightProcessesAcrossFork) {
    ASSERT_EQ(make_many(1000, 3), 0);
    EXPECT_EQ(testing_processes::run_together(8, [](int) { return make_many(100000, 12); }), 0);
}

TEST(UniqueName, ThreadsThatBeginTogether) {
    testing_processes::Child child([] {
        std::vector<std::thread> threads;
        std::vector<std::string> names(8);
        for (auto& name : names) {
            threads.emplace_back([&name] { name = make_name(3, "q"); });
        }
        for (auto& thread : threads) thread.join();
        return static_cast<int>(std::count_if(
            names.begin(), names.end(), [](const auto& name) { return !Fields(name).valid; }));
    });
    EXPECT_EQ(child.wait(), 0);
}

// ---- Queue identifiers --------------------------------------------------------------------------

struct tm broken_down(int year, int month, int day, int hour, int minute, int second) {
    struct tm when = {};
    when.tm_year = year;
    when.tm_mon = month;
    when.tm_mday = day;
    when.tm_hour = hour;
    when.tm_min = minute;
    when.tm_sec = second;
    return when;
}

TEST(QueueId, TimeDigits) {
    const struct {
        struct tm when;
        const char* digits;
    } rows[] = {
        {broken_down(126, 11, 9, 17, 36, 0), "6B9Ha0"},
        {broken_down(0, 0, 1, 0, 0, 0), "001000"},
        {broken_down(59, 11, 31, 23, 59, 61), "xBVNxz"},
        {broken_down(60, 1, 10, 10, 10, 60), "01AAAy"},
        {broken_down(119, 5, 30, 9, 61, 35), "x5U9zZ"},
        {broken_down(120, 5, 30, 9, 62, 62), "05U900"},
        // fields out of range give digits, too
        {broken_down(-1, -1, -1, -1, -1, -1), "xzzzzz"},
        {broken_down(-60, 62, 63, 124, -62, -63), "00100z"},
    };
    for (const auto& row : rows) {
        char id[64];
        ASSERT_EQ(tsl_gen_queue_id(&row.when, id, sizeof id), id);
        EXPECT_EQ(std::string(id, 6), row.digits);
    }
}

TEST(QueueId, EveryValueHasItsDigit) {
    for (int value = 0; value < 62; ++value) {
        const auto when = broken_down(value % 60, value, value, value, value, value);
        char id[32];
        tsl_gen_queue_id(&when, id, sizeof id);
        EXPECT_EQ(id[0], kDigits[static_cast<size_t>(value % 60)]);
        for (int i = 1; i < 6; ++i) EXPECT_EQ(id[i], kDigits[static_cast<size_t>(value)]) << i;
    }
}

TEST(QueueId, ExtremeFields) {
    for (const int value : {std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        const auto when = broken_down(value, value, value, value, value, value);
        char id[32];
        tsl_gen_queue_id(&when, id, sizeof id);
        for (int i = 0; i < 8; ++i) EXPECT_NE(kDigits.find(id[i]), std::string_view::npos);
    }
}

TEST(QueueId, RandomDigitsAndProcess) {
    const auto when = broken_down(125, 0, 1, 0, 0, 0);
    for (unsigned seed = 1; seed < 200; ++seed) {
        std::srand(seed);
        const int r = std::rand();
        std::srand(seed);
        char id[32];
        tsl_gen_queue_id(&when, id, sizeof id);
        EXPECT_EQ(id[6], kDigits[static_cast<size_t>(r % 3600 / 60)]);
        EXPECT_EQ(id[7], kDigits[static_cast<size_t>(r % 3600 % 60)]);
        char process[24];
        std::snprintf(process, sizeof process, "%06d", ::getpid());
        EXPECT_STREQ(id + 8, process);
    }
}

TEST(QueueId, BufferSizes) {
    char buffer[101];
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(tsl_gen_queue_id(nullptr, buffer, 31), nullptr);
    EXPECT_EQ(buffer[0], '#');
    EXPECT_EQ(tsl_gen_queue_id(nullptr, nullptr, 100), nullptr);
    for (const size_t length : {32u, 33u, 100u}) {
        std::memset(buffer, '#', sizeof buffer);
        ASSERT_EQ(tsl_gen_queue_id(nullptr, buffer, length), buffer);
        const size_t used = std::strlen(buffer);
        EXPECT_GE(used, 14u);
        EXPECT_TRUE(std::all_of(buffer + used, buffer + length, [](char c) { return c == 0; }));
        EXPECT_EQ(buffer[length], '#');
    }
}

TEST(QueueId, NowIsTakenInUtc) {
    ::setenv("TZ", "XXX-11", 1);
    ::tzset();
    const time_t before = ::time(nullptr);
    char id[32];
    tsl_gen_queue_id(nullptr, id, sizeof id);
    const std::string name = "1.2_3_4.h#Q#" + std::string(id) + ",#F#S#1#E";
    const time_t coded = tsl_get_mail_received_date(name.c_str());
    EXPECT_GE(coded, before);
    EXPECT_LE(coded, ::time(nullptr));
    ::unsetenv("TZ");
    ::tzset();
}

TEST(QueueId, ProcessOfAChild) {
    testing_processes::Child child([] {
        char id[32];
        tsl_gen_queue_id(nullptr, id, sizeof id);
        return std::atoi(id + 8) == ::getpid() ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
}

}  // namespace
