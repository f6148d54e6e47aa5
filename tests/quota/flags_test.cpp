// The quota flags: numbers and existence, as callers see them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <tessaly/MailUserId.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <fstream>
#include <functional>
#include <iostream>
#include <locale>
#include <random>
#include <set>

#include "quota/failing_new.h"
#include "quota/homes.h"
#include "testing/files.h"
#include "testing/processes.h"

using namespace quota_test;
using namespace std::string_literals;
using namespace testing_files;
using namespace testing_processes;
using Tessaly::TSMailUserId;

namespace {

// Digits in groups of three, as many languages write them.
struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
};

class GroupingLocale {
  public:
    GroupingLocale() : before_(std::locale::global({std::locale(), new Grouping})) {}
    ~GroupingLocale() { std::locale::global(before_); }

  private:
    std::locale before_;
};

struct NumberFlag {
    const char* name;
    int (*get)(const char*);
    void (*set)(const char*, int);
    std::string path;
    std::string other_path;
};

void PrintTo(const NumberFlag& flag, std::ostream* out) { *out << flag.name; }

class Number : public testing::TestWithParam<NumberFlag> {
  protected:
    Number() { make_dirs(kHome); }
    const NumberFlag& flag = GetParam();
};

INSTANTIATE_TEST_SUITE_P(Flags, Number,
                         testing::Values(NumberFlag{"exceeded", tsl_get_quota_exceeded,
                                                    tsl_set_quota_exceeded, kExceeded, kWarning},
                                         NumberFlag{"warning", tsl_get_quota_warning,
                                                    tsl_set_quota_warning, kWarning, kExceeded}),
                         [](const auto& test) { return std::string(test.param.name); });

// Makes the call with its first allocation failing, then with the second, and so on until none
// fails. Each failure must throw std::bad_alloc; `after` looks at what is left. Returns the number
// of failures.
int fail_each_allocation(const std::function<void()>& call, const std::function<void()>& after) {
    for (int n = 0;; ++n) {
        bool threw = false;
        try {
            const FailingNew failing(n);
            call();
        } catch (const std::bad_alloc&) {
            threw = true;
        }
        if (!threw) return n;
        after();
    }
}

// A file as a program that does not use this library would write it.
int literal_read(const std::string& path) {
    std::ifstream in;
    in.imbue(std::locale::classic());
    in.open(path);
    int value = 0;
    return in >> value ? value : 0;
}

}  // namespace

TEST_P(Number, SetAndGet) {
    EXPECT_EQ(flag.get(kUser), 0);
    const std::pair<int, std::string> rows[] = {
        {2, "2"},         {1234567, "1234567"},     {0, "0"},
        {-3, "-3"},       {INT_MAX, "2147483647"},  {1, "1"},
        {-1234, "-1234"}, {INT_MIN, "-2147483648"}, {7, "7"},
    };
    for (const auto& [value, text] : rows) {
        flag.set(kUser, value);
        EXPECT_EQ(read(flag.path), text);
        EXPECT_EQ(flag.get(kUser), value);
    }
    EXPECT_FALSE(exists(flag.other_path));
    EXPECT_EQ(list(kHome).size(), 1U);
}

TEST_P(Number, KeepsTheFileAndItsModeAndMakesItByTheUmask) {
    const mode_t before = ::umask(027);
    flag.set(kUser, 1);
    ::umask(before);
    EXPECT_EQ(mode_of(flag.path), 0640U);
    const ino_t inode = status(flag.path).st_ino;
    flag.set(kUser, 22);
    EXPECT_EQ(mode_of(flag.path), 0640U);
    EXPECT_EQ(status(flag.path).st_ino, inode);
}

TEST_P(Number, ReadsWhatAStreamReads) {
    const std::pair<std::string, int> rows[] = {
        {"1", 1},
        {"2\n", 2},
        {"12abc", 12},
        {"-3", -3},
        {"+5", 5},
        {"", 0},
        {"   ", 0},
        {"x1", 0},
        {"-", 0},
        {"+", 0},
        {"- 5", 0},
        {"+-3", 0},
        {"--3", 0},
        {" \t\n\v\f\r 42", 42},
        {std::string(255, ' ') + "42", 42},
        {std::string(256, '\n') + "-42", -42},
        {std::string(5000, ' ') + "7 8", 7},
        {std::string(254, ' ') + "1234", 1234},
        {"007", 7},
        {"0x10", 0},
        {"1e3", 1},
        {"1,234", 1},
        {"1.5", 1},
        {"\0"
         "5"s,
         0},
        {"3\0"
         "5"s,
         3},
        {"\xa0"
         "5",
         0},
        {"2147483647", INT_MAX},
        {"2147483648", 0},
        {"-2147483648", INT_MIN},
        {"-2147483649", 0},
        {"99999999999", 0},
        {"-18446744073709551617", 0},
        {std::string(400, '9'), 0},
        {"  " + std::string(300, '9') + "x", 0},
        {"-" + std::string(400, '9'), 0},
        {std::string(400, '0') + "8", 8},
    };
    for (const auto& [text, value] : rows) {
        write(flag.path, text);
        EXPECT_EQ(flag.get(kUser), value) << '"' << text << '"';
        EXPECT_EQ(literal_read(flag.path), value) << '"' << text << '"';
    }
}

TEST_P(Number, ReadsRandomFilesAsAStreamDoes) {
    constexpr unsigned kSeed = 20240611;
    std::cout << "seed " << kSeed << '\n';
    std::mt19937 random(kSeed);
    const std::string alphabet = " \t\n\v\f\r+-00123456789,.xe\xa0\0"s;
    std::uniform_int_distribution<std::size_t> letter(0, alphabet.size() - 1);
    std::uniform_int_distribution<std::size_t> length(0, 24);
    std::uniform_int_distribution<std::size_t> blanks(0, 600);
    std::set<int> seen;
    for (int i = 0; i < 4000; ++i) {
        std::string text(i % 4 == 0 ? blanks(random) : 0, ' ');
        for (std::size_t n = length(random); n > 0; --n) text += alphabet[letter(random)];
        write(flag.path, text);
        const int value = flag.get(kUser);
        ASSERT_EQ(value, literal_read(flag.path)) << '"' << text << '"';
        seen.insert(value);
    }
    EXPECT_GT(seen.size(), 200U) << "the files hold too few numbers to say anything";
}

TEST_P(Number, IsIndependentOfTheLocale) {
    const GroupingLocale locale;
    const std::string grouped = kHome + "/grouped";
    std::ofstream(grouped) << 1234567;
    ASSERT_EQ(read(grouped), "1,234,567") << "the locale has no effect";

    flag.set(kUser, 1234567);
    EXPECT_EQ(read(flag.path), "1234567");
    EXPECT_EQ(flag.get(kUser), 1234567);
    flag.set(kUser, 2);
    EXPECT_EQ(read(flag.path), "2");
    write(flag.path, "1,234");
    EXPECT_EQ(flag.get(kUser), 1);
}

TEST_P(Number, NullIsNobody) {
    EXPECT_EQ(flag.get(nullptr), 0);
    flag.set(nullptr, 1);
    EXPECT_TRUE(list(kHome).empty());
}

TEST_P(Number, WithoutAHomeNothingHappens) {
    flag.set("bob@site.test", 1);
    EXPECT_EQ(flag.get("bob@site.test"), 0);
    EXPECT_FALSE(exists("/var/spool/home/site.test/bob~site.test"));
}

TEST_P(Number, APathThatIsTooLongHoldsNothing) {
    std::string user(5000, 'a');
    user += "@site.test";
    flag.set(user.c_str(), 1);
    EXPECT_EQ(flag.get(user.c_str()), 0);
}

TEST_P(Number, WhatCannotBeWrittenStays) {
    flag.set(kUser, 2);
    ::chmod(flag.path.c_str(), 0444);
    EXPECT_EQ(run_unprivileged([&] {
                  flag.set(kUser, 5);
                  return flag.get(kUser);
              }),
              2);
    EXPECT_EQ(read(flag.path), "2");
}

TEST_P(Number, WhatCannotBeReadIsZero) {
    flag.set(kUser, 2);
    ::chmod(flag.path.c_str(), 0200);
    EXPECT_EQ(run_unprivileged([&] { return flag.get(kUser); }), 0);
}

TEST_P(Number, WithoutRoomTheFileIsEmpty) {
    flag.set(kUser, 2);
    Child child([&] {
        const rlimit none = {0, 0};
        ::signal(SIGXFSZ, SIG_IGN);
        ::setrlimit(RLIMIT_FSIZE, &none);
        flag.set(kUser, 5);
        return flag.get(kUser);
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(read(flag.path), "");
}

TEST_P(Number, AFifoOrADirectoryInItsPlaceHoldsNobody) {
    ASSERT_EQ(::mkfifo(flag.path.c_str(), 0666), 0);
    ::alarm(5);  // a caller that hangs is killed
    flag.set(kUser, 1);
    EXPECT_EQ(flag.get(kUser), 0);
    const int both_ends = ::open(flag.path.c_str(), O_RDWR | O_CLOEXEC);
    flag.set(kUser, 1);
    EXPECT_EQ(flag.get(kUser), 0);
    ::close(both_ends);
    ::unlink(flag.path.c_str());
    make_dirs(flag.path);
    flag.set(kUser, 1);
    EXPECT_EQ(flag.get(kUser), 0);
    ::alarm(0);
}

TEST_P(Number, WithoutMemoryItThrowsAndLeavesTheFile) {
    flag.set(kUser, 2);
    EXPECT_GT(fail_each_allocation([&] { EXPECT_EQ(flag.get(kUser), 2); }, [] {}), 0);
    EXPECT_GT(
        fail_each_allocation([&] { flag.set(kUser, 5); }, [&] { EXPECT_EQ(read(flag.path), "2"); }),
        0);
    EXPECT_EQ(read(flag.path), "5");
}

TEST_P(Number, WorksWithTheStandardDescriptorsClosed) {
    Child child([&] {
        for (int fd = 0; fd <= 2; ++fd) ::close(fd);
        flag.set(kUser, 42);
        return flag.get(kUser);
    });
    EXPECT_EQ(child.wait(), 42);
    EXPECT_EQ(read(flag.path), "42");
}

TEST_P(Number, OfSettersAtOnceOneValueStays) {
    const std::set<std::string> values = {"1", "-22", "333333", "2147483647"};
    for (int round = 0; round < 40; ++round) {
        ASSERT_EQ(run_together(4,
                               [&](int i) {
                                   const int value = std::stoi(*std::next(values.begin(), i));
                                   for (int n = 0; n < 50; ++n) flag.set(kUser, value);
                                   return 0;
                               }),
                  0);
        ASSERT_EQ(values.count(read(flag.path)), 1U) << read(flag.path);
    }
}

TEST(Archive, CountsByExistence) {
    make_dirs(kHome);
    EXPECT_EQ(tsl_get_arch_quota_exceeded(kUser), 0);
    tsl_set_arch_quota_exceeded(kUser);
    EXPECT_EQ(list(kHome), std::vector<std::string>{"quota_exceeded_flag"});
    EXPECT_EQ(read(kExceeded), "");
    EXPECT_EQ(tsl_get_arch_quota_exceeded(kUser), 1);
    EXPECT_TRUE(TSMailUserId(kUser).quota_exceeded());
    EXPECT_EQ(tsl_get_quota_exceeded(kUser), 0);

    tsl_unset_arch_quota_exceeded(kUser);
    EXPECT_FALSE(exists(kExceeded));
    EXPECT_EQ(tsl_get_arch_quota_exceeded(kUser), 0);
    EXPECT_FALSE(TSMailUserId(kUser).quota_exceeded());
    EXPECT_EQ(tsl_get_quota_exceeded(kUser), 0);
    tsl_unset_arch_quota_exceeded(kUser);
}

TEST(Archive, SharesItsFileWithTheExceededFlag) {
    make_dirs(kHome);
    tsl_set_quota_exceeded(kUser, 3);
    EXPECT_EQ(tsl_get_arch_quota_exceeded(kUser), 1);
    tsl_set_arch_quota_exceeded(kUser);
    EXPECT_EQ(tsl_get_quota_exceeded(kUser), 0);
    tsl_set_quota_warning(kUser, 4);
    tsl_unset_arch_quota_exceeded(kUser);
    EXPECT_EQ(tsl_get_quota_warning(kUser), 4);
}

TEST(Archive, NullIsNobody) {
    EXPECT_EQ(tsl_get_arch_quota_exceeded(nullptr), 0);
    tsl_set_arch_quota_exceeded(nullptr);
    tsl_unset_arch_quota_exceeded(nullptr);
    EXPECT_TRUE(list("/var/spool").empty());
}

TEST(Member, CreatesEmptiesAndRemoves) {
    make_dirs(kHome);
    const TSMailUserId id(kUser);
    id.quota_exceeded(false);
    EXPECT_FALSE(id.quota_exceeded());
    id.quota_exceeded(true);
    EXPECT_TRUE(id.quota_exceeded());
    EXPECT_EQ(read(kExceeded), "");
    tsl_set_quota_exceeded(kUser, 9);
    EXPECT_TRUE(id.quota_exceeded());
    id.quota_exceeded(true);
    EXPECT_EQ(read(kExceeded), "");
    EXPECT_EQ(tsl_get_quota_exceeded(kUser), 0);
    id.quota_exceeded(false);
    EXPECT_FALSE(exists(kExceeded));
    tsl_set_quota_exceeded(kUser, 0);
    EXPECT_TRUE(id.quota_exceeded());
    EXPECT_EQ(tsl_get_arch_quota_exceeded(kUser), 1);
}

TEST(Member, GoesByTheMailboxType) {
    make_dirs("/var/spool/home/sys_arch/ann~site.test");
    make_dirs("/var/spool/given");
    TSMailUserId(Tessaly::MAILBOX_SYSTEM_ARCHIVE, kUser).quota_exceeded(true);
    EXPECT_TRUE(exists("/var/spool/home/sys_arch/ann~site.test/quota_exceeded_flag"));
    TSMailUserId(Tessaly::MAILBOX_GIVEN_PATH, "/var/spool/given").quota_exceeded(true);
    EXPECT_TRUE(exists("/var/spool/given/quota_exceeded_flag"));
}

TEST(Member, WithoutAHomeNothingHappens) {
    const TSMailUserId id(kUser);
    id.quota_exceeded(true);
    EXPECT_FALSE(id.quota_exceeded());
    id.quota_exceeded(false);
    EXPECT_FALSE(exists(kHome));
}

TEST(Member, WhatCannotBeChangedStays) {
    make_dirs(kHome);
    write(kExceeded, "2");
    ::chmod(kExceeded.c_str(), 0444);
    ::chmod(kHome.c_str(), 0555);
    EXPECT_EQ(run_unprivileged([] {
                  const TSMailUserId id(kUser);
                  id.quota_exceeded(true);
                  id.quota_exceeded(false);
                  tsl_set_arch_quota_exceeded(kUser);
                  tsl_unset_arch_quota_exceeded(kUser);
                  return id.quota_exceeded() ? 0 : 1;
              }),
              0);
    EXPECT_EQ(read(kExceeded), "2");
}

namespace {

void expect_refused(const std::function<void()>& call, const std::string& message, int line) {
    try {
        call();
        ADD_FAILURE() << "nothing thrown instead of" << message;
    } catch (const Tessaly::Exception& e) {
        EXPECT_EQ(e.message(), message);
        EXPECT_EQ(e.code(), 4);
        EXPECT_STREQ(e.file(), "MailUserId");
        EXPECT_EQ(e.line(), line);
    }
}

}  // namespace

TEST(Member, RefusesTheDirectType) {
    const TSMailUserId direct(Tessaly::MAILBOX_DIRECT, "/var/spool/x");
    expect_refused([&] { direct.quota_exceeded(); },
                   " TSDirectMailUserId::quota_exceeded() - Not Implimented", 288);
    expect_refused([&] { direct.quota_exceeded(true); },
                   " TSDirectMailUserId::quota_exceeded(flag) - Not Implimented", 275);
    expect_refused([&] { direct.quota_exceeded(false); },
                   " TSDirectMailUserId::quota_exceeded(flag) - Not Implimented", 275);
    EXPECT_TRUE(list("/var/spool").empty());
}

TEST(All, LeaveNoDescriptorOpen) {
    make_dirs(kHome);
    const std::size_t before = open_descriptors();
    const TSMailUserId id(kUser);
    for (const char* user : {kUser, "bob@site.test"}) {
        tsl_set_quota_exceeded(user, 1);
        tsl_set_quota_warning(user, 2);
        tsl_get_quota_exceeded(user);
        tsl_get_quota_warning(user);
        tsl_set_arch_quota_exceeded(user);
        tsl_get_arch_quota_exceeded(user);
        id.quota_exceeded(true);
        tsl_unset_arch_quota_exceeded(user);
    }
    EXPECT_EQ(open_descriptors(), before);
}
