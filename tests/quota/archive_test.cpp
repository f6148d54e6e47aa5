// The free archive quota, with a configuration table of this program: the library calls the
// executable's functions first. The spool is a file system of 100 GiB, so the share is 20.
#include <gtest/gtest.h>
#include <tessaly/mailstore.h>
#include <tessaly/support.h>

#include <cstdint>
#include <cstring>
#include <iostream>
#include <limits>
#include <random>

namespace {

constexpr int kShare = 20;

struct Account {
    std::string name;
    std::uint16_t quota;
};

// The table, the place of the walk, and the calls, with the number of each handle.
struct Table {
    std::string rows;
    std::size_t next = 0;
    std::size_t repeat = 1;  // how often the last row is repeated
    int handles = 0;
    bool log = true;
    std::string calls;
};
Table table;

// One byte in front, so that the rows are not aligned.
constexpr std::size_t kFirstRow = 1;
constexpr std::size_t kRowSize = 642;

void set_table(const std::vector<Account>& accounts) {
    table = {};
    table.rows.assign(kFirstRow, '\0');
    for (const Account& account : accounts) {
        std::string row(kRowSize, '\xee');
        account.name.copy(&row[4], account.name.size());
        row[4 + account.name.size()] = '\0';
        std::memcpy(&row[640], &account.quota, sizeof account.quota);
        table.rows += row;
    }
}

void note(char call, const void* handle) {
    if (table.log)
        table.calls += call + std::to_string(reinterpret_cast<std::uintptr_t>(handle)) + ' ';
}

void* row_at_place() {
    const std::size_t at = kFirstRow + table.next * kRowSize;
    if (at >= table.rows.size()) return nullptr;
    if (at + kRowSize < table.rows.size() || --table.repeat == 0) ++table.next;
    return &table.rows[at];
}

int available(const char* exclude) {
    table.next = 0;
    return tsm_archive_avail_quota(exclude);
}

}  // namespace

// A new handle for each call, so that the test sees which one a walk uses.
extern "C" void* nCfg_query(int number) {
    if (number != 670) ADD_FAILURE() << "table " << number;
    void* handle = reinterpret_cast<void*>(static_cast<std::uintptr_t>(++table.handles));
    note('q', handle);
    return handle;
}
extern "C" void* kqf_query_table_head(void* handle) {
    note('h', handle);
    table.next = 0;
    return row_at_place();
}
extern "C" void* kqf_query_get_next(void* handle) {
    note('n', handle);
    return row_at_place();
}

TEST(Archive, WhatIsGivenIsTakenOffTheShare) {
    struct Row {
        std::vector<Account> accounts;
        const char* exclude;
        int free;
    };
    const std::vector<Account> three = {{"alpha", 5}, {"beta", 7}, {"gamma", 3}};
    const std::string longest(635, 'n');
    const Row rows[] = {
        {{}, nullptr, kShare},
        {{}, "alpha", kShare},
        {three, nullptr, 5},
        {three, "beta", 12},
        {three, "alpha", 10},
        {three, "gamma", 8},
        {three, "delta", 5},
        {three, "Beta", 5},
        {three, "bet", 5},
        {three, "betamax", 5},
        {three, "", 5},
        {{{"", 4}, {"x", 1}}, "", kShare - 1},
        {{{"twice", 4}, {"x", 1}, {"twice", 8}}, "twice", kShare - 1},
        {{{"x", kShare}}, nullptr, 0},
        {{{"x", kShare + 1}}, nullptr, -1},
        {{{"x", 0x1234}}, nullptr, kShare - 0x1234},
        {{{"x", 65535}, {"y", 65535}, {"z", 65535}}, nullptr, kShare - 3 * 65535},
        {{{longest, 2}}, nullptr, kShare - 2},
        {{{longest, 2}}, longest.c_str(), kShare},
    };
    for (const Row& row : rows) {
        set_table(row.accounts);
        EXPECT_EQ(available(row.exclude), row.free)
            << row.accounts.size() << " accounts without " << (row.exclude ? row.exclude : "NULL");
    }
}

TEST(Archive, TheTableIsAskedForBeforeEachStep) {
    set_table({{"alpha", 5}, {"beta", 7}});
    available("beta");
    EXPECT_EQ(table.calls, "q1 h1 q2 n2 q3 n3 ");
    set_table({});
    available(nullptr);
    EXPECT_EQ(table.calls, "q1 h1 ");
}

TEST(Archive, RandomTablesAddUp) {
    constexpr unsigned kSeed = 4711;
    std::cout << "seed " << kSeed << '\n';
    std::mt19937 random(kSeed);
    for (int i = 0; i < 500; ++i) {
        std::vector<Account> accounts;
        const std::string exclude(1, static_cast<char>('a' + random() % 4));
        long given = 0;
        for (auto n = random() % 40; n > 0; --n) {
            accounts.push_back({std::string(1, static_cast<char>('a' + random() % 4)),
                                static_cast<std::uint16_t>(random())});
            if (accounts.back().name != exclude) given += accounts.back().quota;
        }
        set_table(accounts);
        ASSERT_EQ(available(exclude.c_str()), kShare - given);
    }
}

TEST(Archive, TheSumIsThirtyTwoBitsWide) {
    set_table({{"x", 65535}});
    table.log = false;
    table.repeat = 65538;  // 65535 * 65538 = 2^32 + 65534
    EXPECT_EQ(available(nullptr), kShare - 65534);
    set_table({{"x", 65535}});
    table.log = false;
    table.repeat = 32768;  // 2^31 - 32768
    EXPECT_EQ(available(nullptr), kShare - (std::numeric_limits<int>::max() - 32767));
}
