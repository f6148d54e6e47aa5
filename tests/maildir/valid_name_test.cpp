// Folder names given by people.
#include <tessaly/mailstore.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "maildir/literal.h"

namespace {

TEST(ValidName, Rows) {
    const struct {
        const char* name;
        int by_flags[4];  // 0, path, reserved, both
    } rows[] = {
        {nullptr, {1, 1, 1, 1}},
        {"", {1, 1, 1, 1}},
        {"Work", {0, 0, 0, 0}},
        {"Work/2024", {1, 0, 1, 0}},
        {"a/b/c/d", {1, 0, 1, 0}},
        {"/Work", {1, 1, 1, 1}},
        {"Work/", {1, 1, 1, 1}},
        {"Work//2024", {1, 1, 1, 1}},
        {"/", {1, 1, 1, 1}},
        {"cur", {0, 0, 2, 2}},
        {"new", {0, 0, 2, 2}},
        {"tmp", {0, 0, 2, 2}},
        {"Work/cur", {1, 0, 1, 2}},
        {"tmp/Work", {1, 0, 1, 2}},
        {"a/new/b", {1, 0, 1, 2}},
        {"Work/CUR", {1, 0, 1, 0}},
        {"current", {0, 0, 0, 0}},
        {"cu", {0, 0, 0, 0}},
        {".hidden", {1, 1, 1, 1}},
        {".", {1, 1, 1, 1}},
        {"..", {1, 1, 1, 1}},
        {"a/..", {1, 1, 1, 1}},
        {"../a", {1, 1, 1, 1}},
        {"a/.b", {1, 1, 1, 1}},
        {"a.b", {0, 0, 0, 0}},
        {"a.", {0, 0, 0, 0}},
        {"a b", {0, 0, 0, 0}},
        {" ", {0, 0, 0, 0}},
        {"Inbox", {0, 0, 0, 0}},
        {"\x01\n\x7f", {0, 0, 0, 0}},
        {"Entw\xc3\xbcrfe", {0, 0, 0, 0}},
        {"\xff", {0, 0, 0, 0}},
        // the first bad component decides
        {"cur/a|b", {1, 1, 1, 2}},
        {"a|b/cur", {1, 1, 1, 1}},
        {"cur//", {1, 1, 1, 2}},
        {"x/cur/.y", {1, 1, 1, 2}},
    };
    for (const auto& row : rows) {
        for (unsigned flags = 0; flags < 4; ++flags) {
            EXPECT_EQ(tsl_is_valid_mailbox_name(row.name, flags), row.by_flags[flags])
                << (row.name == nullptr ? "NULL" : row.name) << ", flags " << flags;
        }
        // other bits mean nothing
        EXPECT_EQ(tsl_is_valid_mailbox_name(row.name, ~3u), row.by_flags[0]);
    }
}

TEST(ValidName, EveryByteAtEveryPlace) {
    const std::string forbidden = "/\\?*:\"<>|";
    for (int byte = 1; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        const bool bad = forbidden.find(c) != std::string::npos;
        EXPECT_EQ(tsl_is_valid_mailbox_name(std::string{c}.c_str(), 0), bad || c == '.') << byte;
        for (const auto& name :
             {std::string{c, 'x'}, std::string{'x', c}, std::string{'x', c, 'x'}}) {
            const bool hidden = name[0] == '.';
            EXPECT_EQ(tsl_is_valid_mailbox_name(name.c_str(), 0), bad || hidden) << name;
            const bool good_path = c == '/' && name == "x/x";
            EXPECT_EQ(tsl_is_valid_mailbox_name(name.c_str(), 1), (bad && !good_path) || hidden)
                << name;
        }
    }
}

TEST(ValidName, LongNames) {
    const std::string name(1 << 20, 'n');
    EXPECT_EQ(tsl_is_valid_mailbox_name(name.c_str(), 0), 0);
    EXPECT_EQ(tsl_is_valid_mailbox_name((name + "/cur").c_str(), 3), 2);
    std::string path = "a";
    for (int i = 0; i < 100000; ++i) path += "/a";
    EXPECT_EQ(tsl_is_valid_mailbox_name(path.c_str(), 1), 0);
    EXPECT_EQ(tsl_is_valid_mailbox_name(std::string(1 << 20, '/').c_str(), 1), 1);
}

TEST(ValidName, AgreesWithTheLiteralTestOnRandomNames) {
    constexpr unsigned kSeed = 7;
    RecordProperty("seed", kSeed);
    std::mt19937 random(kSeed);
    const std::vector<std::string> pieces = {"new", "cur", "tmp", "/", "/", "/", ".",
                                             "a",   "b c", "Cur", "|", ":", "x", "\xe4"};
    int seen[3] = {};
    for (int i = 0; i < 50000; ++i) {
        std::string name;
        for (unsigned n = 1 + static_cast<unsigned>(random() % 5); n > 0; --n) {
            name += pieces[random() % pieces.size()];
        }
        const auto flags = static_cast<unsigned>(random() % 4);
        const int expected = literal::judge_name(name, flags);
        ASSERT_EQ(tsl_is_valid_mailbox_name(name.c_str(), flags), expected)
            << name << " flags " << flags << " seed " << kSeed;
        ++seen[expected];
    }
    for (const int count : seen) EXPECT_GT(count, 1000);
}

}  // namespace
