// The line functions and the lock, on which the operations are built.
#include "maillist/lines.h"

#include <fcntl.h>
#include <sys/file.h>
#include <tessaly/maillist.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <random>
#include <thread>

#include "base/fd.h"
#include "base/io.h"
#include "lists.h"
#include "literal.h"
#include "maillist/line_ends.h"
#include "maillist/lock.h"
#include "maillist/paths.h"
#include "testing/files.h"
#include "testing/processes.h"

using namespace Tessaly::maillist;
using Tessaly::base::Fd;
using testing_files::TempDir;

namespace {

Fd open_read(const std::string& path) { return Fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)); }

std::vector<std::string> lines_of(int fd) {
    std::vector<std::string> lines;
    EXPECT_TRUE(read_lines(fd, [&](std::string_view line) {
        lines.emplace_back(line);
        return true;
    }));
    return lines;
}

int find_in(const std::string& path, const char* entry) {
    return find_line(open_read(path).get(), entry);
}

}  // namespace

TEST(BuildPath, NamesListLockAndTemporaryFile) {
    const struct {
        const char* user;
        unsigned scope;
        const char *list, *lock, *temporary;
    } rows[] = {
        {"Ann@Site.Test", MAIL_LIST_USER,
         "/var/spool/home/site.test/ann~site.test/pref/ann~site.test.a.b",
         "/var/spool/home/site.test/ann~site.test/pref/.ann~site.test.a.b.lock",
         "/var/spool/home/site.test/ann~site.test/pref/.ann~site.test.a.b.tmp"},
        {"Ann@Site.Test", MAIL_LIST_HOME, "/var/spool/home/Ann@Site.Test/ann~site.test.a.b",
         "/var/spool/home/Ann@Site.Test/.ann~site.test.a.b.lock",
         "/var/spool/home/Ann@Site.Test/.ann~site.test.a.b.tmp"},
        {nullptr, MAIL_LIST_SYSTEM, "/var/spool/etc/mail/a.b", "/var/spool/etc/mail/.a.b.lock",
         "/var/spool/etc/mail/.a.b.tmp"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(mail_list_build_path(row.user, "a.b", "", false, row.scope), row.list);
        EXPECT_EQ(mail_list_build_path(row.user, "a.b", ".lock", true, row.scope), row.lock);
        EXPECT_EQ(mail_list_build_path(row.user, "a.b", ".tmp", true, row.scope), row.temporary);
    }
    EXPECT_EQ(mail_list_build_path(nullptr, "a", "", false, MAIL_LIST_HOME), "");
    EXPECT_EQ(mail_list_build_path("u", nullptr, ".lock", true, MAIL_LIST_SYSTEM), "");
}

TEST(StripLineEnd, RemovesEveryLineEndAtTheEnd) {
    const struct {
        const char *text, *stripped;
    } rows[] = {
        {"", ""},
        {"a", "a"},
        {"a\n", "a"},
        {"a\r\n", "a"},
        {"\n", ""},
        {"\r\n", ""},
        {"\n\n\n", ""},
        {"\r\n\r\n", ""},
        {"a\n\r\n\n", "a"},
        {"a\r\r\n", "a\r"},
        {"a\r", "a\r"},
        {"\r", "\r"},
        {"\r\r\n", "\r"},
        {"a\nb\n", "a\nb"},
        {"a\n\r", "a\n\r"},
        {"a\r\r\n\n", "a\r"},
        {"a \n", "a "},
        {"\na\n", "\na"},
        {"a\r\n\r\r\n", "a\r\n\r"},
    };
    for (const auto& row : rows) {
        std::string text = row.text;
        EXPECT_EQ(strip_line_end(text.data()), text.data());
        EXPECT_STREQ(text.c_str(), row.stripped);
        std::string plainly = row.text;
        EXPECT_STREQ(literal::strip(plainly.data()), row.stripped);
    }
}

TEST(StripLineEnd, WritesNothingWithoutALineEnd) {
    // Literals lie in memory that cannot be written.
    for (const char* text : {"", "a", "a\r", "a\nb"}) {
        char* const literal = const_cast<char*>(text);
        EXPECT_EQ(strip_line_end(literal), literal);
    }
}

TEST(StripLineEnd, EqualsTheLiteralOnRandomTexts) {
    std::mt19937 random(61);
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        for (auto length = random() % 12; length > 0; --length) text += "\n\n\r\ra"[random() % 5];
        std::string plainly = text;
        EXPECT_STREQ(strip_line_end(text.data()), literal::strip(plainly.data()));
    }
}

TEST(LineEnds, AreFoundInBothWays) {
    std::mt19937 random(62);
    for (int round = 0; round < 20000; ++round) {
        char text[LineEnds::kWidth];
        // Among them are neighbours of the bytes that matter.
        const auto alphabet = round % 3 == 0 ? std::string("\n\v\t\x8a\x8b\x0e")
                                             : std::string("\n\0\r\x8a\x80\x8d\x01\x0b", 8);
        for (char& c : text)
            c = round % 4 == 1 ? static_cast<char>(random()) : alphabet[random() % alphabet.size()];
        LineEnds expected;
        for (std::size_t i = 0; i < sizeof text; ++i) {
            if (text[i] == '\n') expected.bits |= std::uint64_t{1} << i;
            expected.odd = expected.odd || text[i] == '\0' || text[i] == '\r';
        }
        for (const LineEnds& found : {line_ends(text), portable_line_ends(text)}) {
            ASSERT_EQ(found.bits, expected.bits) << round;
            ASSERT_EQ(found.odd, expected.odd) << round;
        }
    }
}

TEST(ReadLines, CutsAt255Characters) {
    const struct {
        std::string content;
        std::vector<std::string> lines;
    } rows[] = {
        {"", {}},
        {"\n", {""}},
        {"a", {"a"}},
        {"a\nb", {"a", "b"}},
        {"a\r\n\r\n", {"a", ""}},
        {"a\r", {"a\r"}},
        {std::string(254, 'x') + "\n", {std::string(254, 'x')}},
        {std::string(255, 'x') + "\n", {std::string(255, 'x'), ""}},
        {std::string(256, 'x') + "\n", {std::string(255, 'x'), "x"}},
        {std::string(255, 'x'), {std::string(255, 'x')}},
        {std::string(256, 'x'), {std::string(255, 'x'), "x"}},
        {std::string(253, 'x') + "\r\n", {std::string(253, 'x')}},
        {std::string(254, 'x') + "\r\n", {std::string(254, 'x') + "\r", ""}},
        {std::string(510, 'x') + "\ny\n", {std::string(255, 'x'), std::string(255, 'x'), "", "y"}},
        {std::string("a\0b\nc\n", 6), {"a", "c"}},
        {std::string("\0b\nc\n", 5), {"", "c"}},
        {std::string("a\r\0\nb\r\n", 7), {"a\r", "b"}},
        {std::string("a\0\r\n", 4), {"a"}},
        {std::string("a\n\0", 3), {"a", ""}},
        {std::string(1, '\0') + std::string(300, 'x'), {"", std::string(46, 'x')}},
    };
    for (const auto& row : rows) {
        TempDir dir;
        testing_files::write(dir / "list", row.content);
        EXPECT_EQ(lines_of(open_read(dir / "list").get()), row.lines);
        EXPECT_EQ(literal::lines(dir / "list"), row.lines);
    }
}

// Line ends, and the limit of a line, at every place around the end of a read.
TEST(ReadLines, GoesOnFromPieceToPiece) {
    TempDir dir;
    std::string filler;
    while (filler.size() < 65536) filler += std::string(200, 'f') + '\n';
    for (std::size_t before = 65536 - 1500; before < 65536 + 10; ++before) {
        const char* end = before % 2 == 0 ? "\n" : "\r\n";
        const std::string content = filler.substr(0, before) + "\na" + end + std::string(254, 'b') +
                                    end + std::string(255, 'c') + end + std::string(600, 'd') +
                                    end + "last";
        testing_files::write(dir / "list", content);
        ASSERT_EQ(lines_of(open_read(dir / "list").get()), literal::lines(dir / "list")) << before;
    }
}

TEST(ReadLines, EqualsFgetsOnRandomBytes) {
    std::mt19937 random(63);
    TempDir dir;
    for (int round = 0; round < 400; ++round) {
        testing_files::write(dir / "list", lists::random_content(
                                               random, random() % (round % 8 == 0 ? 150000 : 900)));
        ASSERT_EQ(lines_of(open_read(dir / "list").get()), literal::lines(dir / "list")) << round;
    }
}

// A pipe gives what it has: reads are short, and only an empty one is the end.
TEST(ReadLines, TakesShortReads) {
    std::mt19937 random(64);
    const std::string content = lists::random_content(random, 100000);
    TempDir dir;
    testing_files::write(dir / "list", content);
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const Fd reading(ends[0]);
    std::thread writer([&] {
        const Fd writing(ends[1]);
        for (std::size_t at = 0; at < content.size();) {
            const std::size_t n = std::min<std::size_t>(1 + random() % 700, content.size() - at);
            Tessaly::base::write_all(writing.get(), std::string_view(content).substr(at, n));
            at += n;
        }
    });
    EXPECT_EQ(lines_of(reading.get()), literal::lines(dir / "list"));
    writer.join();
}

TEST(ReadLines, TellsAReadErrorFromTheEnd) {
    const Fd directory = open_read("/var/spool");
    int visits = 0;
    EXPECT_FALSE(read_lines(directory.get(), [&](std::string_view) { return ++visits > 0; }));
    EXPECT_EQ(visits, 0);
    EXPECT_EQ(errno, EISDIR);
}

TEST(ReadLines, StopsWhenToldTo) {
    TempDir dir;
    testing_files::write(dir / "list", "a\nb\nc\n" + std::string(600, 'x'));
    for (int stop = 1; stop <= 6; ++stop) {
        int visits = 0;
        EXPECT_TRUE(read_lines(open_read(dir / "list").get(),
                               [&](std::string_view) { return ++visits < stop; }));
        EXPECT_EQ(visits, stop);
    }
}

TEST(FindLine, ComparesWholeLinesIgnoringCase) {
    TempDir dir;
    testing_files::write(dir / "list",
                         "Ann@Site.Test\r\nb\n\nlast@site.test\nuser0001@site.test\nno end");
    const struct {
        const char* entry;
        int found;
    } rows[] = {
        {"ann@site.test", 1},
        {"ANN@SITE.TEST", 1},
        {"ann@site.tes", 0},
        {"nn@site.test", 0},
        {"ann@site.testt", 0},
        {"B", 1},
        {"c", 0},
        {"", 1},
        {"last@site.test", 1},
        {"NO END", 1},
        {"ann@site.test\n", 0},
        {"user0002@site.test", 0},
        {"\n", 0},
        {"ann@site.test\r\n", 0},
        {"user0001@site.tesu", 0},
        {"`nn@site.test", 0},
        {"ann`site.test", 0},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(find_in(dir / "list", row.entry), row.found) << row.entry;
        EXPECT_EQ(literal::find(dir / "list", row.entry), row.found) << row.entry;
    }
    testing_files::write(dir / "list", "a\n");
    EXPECT_EQ(find_in(dir / "list", ""), 0);
}

// Bytes that are not letters are different even if they differ only in the bit of the letter case.
TEST(FindLine, KnowsLettersFromOtherBytes) {
    TempDir dir;
    for (int a = 1; a < 256; ++a) {
        if (a == '\n' || a == '\r') continue;
        const std::string line(12, static_cast<char>(a));
        testing_files::write(dir / "list", line + "\n");
        EXPECT_EQ(find_in(dir / "list", line.c_str()), 1) << a;
        for (int bit = 1; bit < 256; bit *= 2) {
            const std::string entry(12, static_cast<char>(a ^ bit));
            EXPECT_EQ(find_in(dir / "list", entry.c_str()),
                      literal::compare(line.c_str(), entry.c_str()) == 0)
                << a << ' ' << bit;
        }
    }
}

TEST(FindLine, FindsLinesUpToTheLimitOnly) {
    TempDir dir;
    for (const std::size_t length : {254U, 255U, 256U, 300U}) {
        testing_files::write(dir / "list", std::string(length, 'X') + "\n");
        EXPECT_EQ(find_in(dir / "list", std::string(length, 'x').c_str()), length <= 255);
        EXPECT_EQ(find_in(dir / "list", std::string(255, 'x').c_str()), length >= 255);
        EXPECT_EQ(find_in(dir / "list", std::string(45, 'x').c_str()), length == 300);
        EXPECT_EQ(find_in(dir / "list", ""), length == 255);
    }
}

TEST(AppendLine, WritesAtTheEndAndTellsAFailure) {
    TempDir dir;
    testing_files::write(dir / "list", "a\nno end");
    const Fd file(::open((dir / "list").c_str(), O_RDWR | O_APPEND | O_CLOEXEC));
    EXPECT_EQ(append_line(file.get(), "b"), 0);
    EXPECT_EQ(append_line(file.get(), std::string(300, 'c').c_str()), 0);
    EXPECT_EQ(append_line(file.get(), ""), 0);
    EXPECT_EQ(testing_files::read(dir / "list"), "a\nno endb\n" + std::string(300, 'c') + "\n\n");
    EXPECT_EQ(append_line(open_read(dir / "list").get(), "d"), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(ListLock, LocksAFileOfModeAndName) {
    testing_files::make_dirs(lists::kDirectory);
    const mode_t old = ::umask(027);
    Fd lock = mail_list_lock(nullptr, lists::kName, MAIL_LIST_SYSTEM);
    ::umask(old);
    ASSERT_TRUE(lock);
    EXPECT_EQ(testing_files::mode_of(lists::kLock), 0640U);
    EXPECT_NE(::fcntl(lock.get(), F_GETFD) & FD_CLOEXEC, 0);
    const Fd other = open_read(lists::kLock);
    EXPECT_EQ(::flock(other.get(), LOCK_SH | LOCK_NB), -1);
    lock.reset();
    EXPECT_EQ(::flock(other.get(), LOCK_EX | LOCK_NB), 0);
    EXPECT_TRUE(testing_files::exists(lists::kLock));
}

TEST(ListLock, EmptiesItsFile) {
    testing_files::write(lists::kLock, "left over");
    EXPECT_TRUE(mail_list_lock(nullptr, lists::kName, MAIL_LIST_SYSTEM));
    EXPECT_EQ(testing_files::read(lists::kLock), "");
}

TEST(ListLock, GoesOnWithoutWhenAnotherHasIt) {
    testing_files::make_dirs(lists::kDirectory);
    const Fd first = mail_list_lock(nullptr, lists::kName, MAIL_LIST_SYSTEM);
    const Fd second = mail_list_lock(nullptr, lists::kName, MAIL_LIST_SYSTEM);
    EXPECT_TRUE(first);
    EXPECT_TRUE(second);
}

TEST(ListLock, IsNullWithoutTheDirectory) {
    const std::size_t open = testing_files::open_descriptors();
    EXPECT_FALSE(mail_list_lock(nullptr, lists::kName, MAIL_LIST_SYSTEM));
    EXPECT_FALSE(mail_list_lock(nullptr, lists::kName, MAIL_LIST_USER));
    EXPECT_EQ(testing_files::open_descriptors(), open);
}
