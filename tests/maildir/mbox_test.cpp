// The first line of an mbox file.
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "maildir/literal.h"
#include "testing/files.h"
#include "testing/processes.h"

namespace {

using testing_files::TempDir;
using testing_files::write;

class Mbox : public testing::Test {
  protected:
    int check(const std::string& content) {
        write(dir_ / "file", content);
        return tsl_is_mbox((dir_ / "file").c_str());
    }
    const TempDir dir_;
};

struct Row {
    std::string line;
    int expected;
};

TEST_F(Mbox, Dates) {
    const Row rows[] = {
        {"From user Wed Dec  2 05:53:22 1992", -14},
        {"From user Wed Dec  2 05:53 1992", -11},
        {"From user Wed Dec  2 05:53:22 PST 1992", -18},
        {"From user Wed Dec  2 05:53 PST 1992", -15},
        {"From user Wed Dec  2 05:53:22 -0800 1992", -20},
        {"From user Wed Dec  2 05:53:22 +0100 1992", -20},
        {"From user Wed Dec  2 05:53 -0800 1992", -17},
        {"From user Wed Dec  2 05:53:22 1992 PST", -18},
        {"From user Wed Dec  2 05:53 1992 PST", -15},
        {"From user Wed Dec  2 05:53:22 1992 -0800", -20},
        {"From user Wed Dec  2 05:53:22 1992 +0800", -20},
        {"From user Wed Dec  2 05:53 1992 -0800", -17},
        {"From ann.lee@some.very.long.site.test Wed Dec 12 05:53:22 1992", -14},
        {"From user Wed Dec  2 05:53:22 1992 remote from host", -14},
        {"From user Wed Dec  2 05:53:22 1992 PST remote from host", -18},
        {"From user Wed Dec  2 05:53:22 1992 -0800 remote from host", -20},
        {"From u Wed Dec  2 05:53 1992 remote from h", -11},
        // without a date, or with a date of another form
        {"From ", 0},
        {"From user", 0},
        {"From user Wed Dec  2 05:53:22 92", 0},
        {"From user Wed Dec  2 05.53.22 1992", 0},
        {"From user Wed, 2 Dec 1992 05:53:22", 0},
        {"From user Wed Dec  2 05:53:22 =0800 1992", 0},
        {"From user Wed Dec  2 05:53:22 1992 =0800", 0},
        {"From user Wed Dec  2 05:53:22 199 PST", 0},
        {"From user Wed Dec  2 05:53:22 199 -0800", 0},
        {"From user Wed Decc 2 05:53:22 1992", 0},
        {"From user WedDec  2 05:53:22 1992", 0},
        {"From user Wed Dec  2x05:53:22 1992", 0},
        {"From user Wed Dec-12 05:53:22 1992", 0},
        {"From user Wed_Dec  2 05:53:22 1992", 0},
        {"From user Wed Dec  2 05:53:22 1992 remotefrom a host", 0},
        {"From a message that is only a line of text, as long as a separator", 0},
        {"from user Wed Dec  2 05:53:22 1992", 0},
        {"From: user Wed Dec  2 05:53:22 1992", 0},
        {">From user Wed Dec  2 05:53:22 1992", 0},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(check(row.line + "\n"), row.expected) << row.line;
        EXPECT_EQ(check(row.line + "\r\nSubject: x\r\n"), row.expected) << row.line;
        EXPECT_EQ(check("\r\n \t\n" + row.line + "\n"), row.expected) << row.line;
        EXPECT_EQ(check(row.line), 0) << "without a line feed: " << row.line;
        EXPECT_EQ(check(row.line + std::string("\0\n", 2)), 0) << "NUL before it: " << row.line;
    }
}

TEST_F(Mbox, WhatStandsBeforeTheLine) {
    const std::string line = "From user Wed Dec  2 05:53:22 1992\n";
    const struct {
        const char* before;
        bool accepted;
    } rows[] = {{"\n", true},      {"\n\n", true}, {"\r\n", true},  {" \n", true},
                {"\t\r \n", true}, {" ", false},   {"  ", false},   {"\t", false},
                {"\r", false},     {"\n ", false}, {"\n\r", false}, {"x\n", false}};
    for (const auto& row : rows) {
        EXPECT_EQ(check(row.before + line), row.accepted ? -14 : 0)
            << testing::PrintToString(row.before);
    }
    EXPECT_EQ(check("\n\nFrom a Wed Dec  2 05:53:22 1992\n"), -14);
}

// The shortest line has 27 characters in front of its end. In a line with a remote host only the
// part before it counts. A line of more than 40 characters without a remote host is not counted.
TEST_F(Mbox, Lengths) {
    EXPECT_EQ(check("From Wed Dec  2 05:53 1992\n"), 0);  // 26
    EXPECT_EQ(check("From  Wed Dec  2 05:53 1992\n"), -11);
    EXPECT_EQ(check("From Wed Dec  2 05:53 1992 remote from hostt\n"), 0);
    EXPECT_EQ(check("From  Wed Dec  2 05:53 1992 remote from host\n"), -11);
    // 40 characters: the remote host is not looked for
    EXPECT_EQ(check("From  Wed Dec  2 05:53 1992 remote from \n"), 0);
    EXPECT_EQ(check("From  Wed Dec  2 05:53 1992 remote from h\n"), -11);
    EXPECT_EQ(check("From " + std::string(36, 'x') + "\n"), 0);
}

TEST_F(Mbox, LooksAtTheFirst1023Bytes) {
    const std::string date = " Wed Dec  2 05:53:22 1992\n";
    const auto line = [&](size_t length) {
        return "From " + std::string(length - 5 - date.size(), 'u') + date;
    };
    EXPECT_EQ(check(line(1023)), -14);
    EXPECT_EQ(check(line(1023) + "Subject: x\n"), -14);
    EXPECT_EQ(check(line(1024)), 0);
    EXPECT_EQ(check(std::string(1000, '\n') + line(60)), 0);
    EXPECT_EQ(check(std::string(963, '\n') + line(60)), -14);
    EXPECT_EQ(check(std::string(2000, '\n')), 0);
}

TEST_F(Mbox, WhatIsNoReadableFile) {
    EXPECT_EQ(check(""), 0);
    EXPECT_EQ(tsl_is_mbox((dir_ / "missing").c_str()), 0);
    EXPECT_EQ(tsl_is_mbox(dir_.path().c_str()), 0);
    EXPECT_EQ(tsl_is_mbox(nullptr), 0);
    EXPECT_EQ(tsl_is_mbox(std::string(1 << 20, 'x').c_str()), 0);
    const std::string fifo = dir_ / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(tsl_is_mbox(fifo.c_str()), 0);  // it does not wait for a writer

    const std::string file = dir_ / "file";
    write(file, "From user Wed Dec  2 05:53:22 1992\n");
    ASSERT_EQ(::chmod(dir_.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(file.c_str(), 0), 0);
    EXPECT_EQ(
        testing_processes::run_unprivileged([&] { return tsl_is_mbox(file.c_str()) == 0 ? 0 : 1; }),
        0);
    ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
    EXPECT_EQ(testing_processes::run_unprivileged(
                  [&] { return tsl_is_mbox(file.c_str()) == -14 ? 0 : 1; }),
              0);
}

TEST_F(Mbox, LeavesNoDescriptorOpen) {
    const auto before = testing_files::open_descriptors();
    check("From user Wed Dec  2 05:53:22 1992\n");
    check("x");
    tsl_is_mbox(dir_.path().c_str());
    EXPECT_EQ(testing_files::open_descriptors(), before);
}

class Mutator {
  public:
    explicit Mutator(unsigned seed) : random_(seed) {}

    // A line of one of the accepted forms, mostly changed in a few places.
    std::string next() {
        static const char* const kDates[] = {
            " Wed Dec  2 05:53:22 1992",     " Wed Dec  2 05:53 1992",
            " Wed Dec  2 05:53:22 PST 1992", " Wed Dec 12 05:53:22 1992 PST",
            " Wed Dec  2 05:53 -0800 1992",  " Wed Dec  2 05:53:22 1992 +0800"};
        std::string text = below(4) == 0 ? std::string(below(4), ' ') + "\n" : "";
        text += "From " + std::string(below(below(8) == 0 ? 1100 : 30), 'u') + kDates[below(6)];
        if (below(3) == 0) text += " remote from " + std::string(below(10), 'h');
        text += below(2) == 0 ? "\n" : "\r\n";
        for (unsigned changes = below(4); changes > 0; --changes) change(text);
        return text;
    }

  private:
    unsigned below(unsigned n) { return static_cast<unsigned>(random_() % n); }
    void change(std::string& text) {
        static const std::string kBytes("   ::+-\r\n\tF1a\0", 15);
        const size_t where =
            below(2) == 0 ? below(static_cast<unsigned>(text.size()))
                          : text.size() - 1 -
                                below(std::min<unsigned>(40, static_cast<unsigned>(text.size())));
        const char byte = kBytes[below(static_cast<unsigned>(kBytes.size()))];
        switch (below(3)) {
            case 0:
                text[where] = byte;
                break;
            case 1:
                text.insert(where, 1, byte);
                break;
            default:
                text.erase(where, 1);
                if (text.empty()) text = "\n";
        }
    }
    std::mt19937 random_;
};

TEST_F(Mbox, AgreesWithTheStepByStepTestOnChangedLines) {
    constexpr unsigned kSeed = 20251101;
    RecordProperty("seed", kSeed);
    Mutator mutator(kSeed);
    int accepted = 0;
    for (int i = 0; i < 20000; ++i) {
        const std::string text = mutator.next();
        const int expected = literal::MboxLine(text).check();
        ASSERT_EQ(check(text), expected) << testing::PrintToString(text) << " seed " << kSeed;
        accepted += expected != 0;
    }
    EXPECT_GT(accepted, 2000);
    EXPECT_LT(accepted, 18000);
}

}  // namespace
