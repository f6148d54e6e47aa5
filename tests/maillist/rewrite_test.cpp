// The operations that write a list anew.
#include <sys/resource.h>
#include <tessaly/maillist.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <climits>
#include <csignal>
#include <filesystem>

#include "lists.h"
#include "testing/files.h"
#include "testing/processes.h"

using namespace lists;
using testing_files::exists;
using testing_files::list;
using testing_files::make_dirs;

using Texts = std::vector<std::string>;

namespace {

void expect_only_list_and_lock() { EXPECT_EQ(list(kDirectory), (Texts{".test.lock", "test"})); }

}  // namespace

TEST(DeleteFrom, RemovesEveryEqualLine) {
    const struct {
        std::string before, entry, after;
    } rows[] = {
        {"a\nB\nA\r\nb\n", "a", "B\nb\n"},
        {"a\nb\n", "c", "a\nb\n"},
        {"a\r\nb", "c", "a\nb\n"},
        {"a\n", "A", ""},
        {"", "a", ""},
        {"a\n\n\r\nb\n", "", "a\nb\n"},
        {"a\n", "a\n", "a\n"},  // the entry is not stripped
        {std::string("a\0x\nb\0y\n", 8), "A", "b\n"},
        {std::string(255, 'x') + "\n", "y", std::string(255, 'x') + "\n\n"},
        {std::string(255, 'x') + "\n", "", std::string(255, 'x') + "\n"},
        {std::string(300, 'x') + "\n", std::string(45, 'X'), std::string(255, 'x') + "\n"},
    };
    for (const auto& row : rows) {
        put(row.before);
        EXPECT_EQ(drop(row.entry.c_str()), 0);
        EXPECT_EQ(content(), row.after);
        expect_only_list_and_lock();
    }
}

TEST(ModifyFrom, ReplacesTheLineOfTheNumber) {
    const struct {
        std::string before, entry;
        unsigned line_no;
        std::string after;
    } rows[] = {
        {"a\nb\nc\n", "x", 1, "x\nb\nc\n"},
        {"a\nb\nc\n", "x\r\n", 2, "a\nx\nc\n"},
        {"a\nb\nc", "x\n\n", 3, "a\nb\nx\n"},
        {"a\r\nb", "x", 0, "a\nb\n"},
        {"a\r\nb", "x", 3, "a\nb\n"},
        {"a\n", "x", UINT_MAX, "a\n"},
        {"", "x", 1, ""},
        {"a\nb\n", "", 1, "\nb\n"},
        {"a\nb\n", "x\ny\n", 1, "x\ny\nb\n"},
        {std::string(300, 'x') + "\nb\n", "y", 2, std::string(255, 'x') + "\ny\nb\n"},
        // The line end behind a whole piece is a line of its own, at each rewrite.
        {std::string(255, 'x') + "\n", "", 0, std::string(255, 'x') + "\n\n"},
        {std::string(255, 'x') + "\n\n", "", 0, std::string(255, 'x') + "\n\n\n"},
        {std::string(254, 'x') + "\nb\n", "y", 2, std::string(254, 'x') + "\ny\n"},
        {std::string(255, 'x') + "\nb\n", "y", 2, std::string(255, 'x') + "\ny\nb\n"},
        {"a\n", std::string(400, 'y') + "\n", 1, std::string(400, 'y') + "\n"},
        {std::string("a\0x\nb\n", 6), "y", 2, "a\ny\n"},
    };
    for (const auto& row : rows) {
        put(row.before);
        EXPECT_EQ(modify(row.entry, row.line_no), 0);
        EXPECT_EQ(content(), row.after);
        expect_only_list_and_lock();
    }
}

TEST(ModifyFrom, StripsTheCallersText) {
    put("a\n");
    for (const unsigned line_no : {0U, 1U, 2U}) {
        char entry[] = "x\r\n\n";
        EXPECT_EQ(mail_list_modify_from(nullptr, kName, entry, line_no, MAIL_LIST_SYSTEM), 0);
        EXPECT_STREQ(entry, "x");
    }
}

TEST(ModifyFrom, TakesALiteral) {
    put("a\n");
    char* const literal = const_cast<char*>("x");
    EXPECT_EQ(mail_list_modify_from(nullptr, kName, literal, 1, MAIL_LIST_SYSTEM), 0);
    EXPECT_EQ(content(), "x\n");
}

TEST(DeleteThroughId, RemovesAndRenumbers) {
    const struct {
        std::string before;
        int id;
        std::string after;
    } rows[] = {
        {"1,a\n2,b\n3,c\n", 2, "1,a\n2,c\n"},
        {"1\n2\n3\n4\n5\n", 3, "1\n2\n3\n4\n"},
        {"1,a\r\n2,b\r\n3,c\r\n", 1, "1,b\n2,c\n"},
        {"1,a\n2,b\n3,c", 3, "1,a\n2,b\n"},
        {"1,a\n2,b\n", 5, "1,a\n2,b\n"},
        {"2,a\n2,b\n3,c\n2,d\n", 2, "2,c\n"},
        // Everything behind the first comma is kept.
        {"7,a,b,,c\n8,\n", 3, "6,a,b,,c\n7,\n"},
        // The number is what strtol makes of the first field.
        {" 7,a\n+8,b\n09,c\n", 3, "6,a\n7,b\n8,c\n"},
        {"7x,a\nx8,b\n-2,c\n", 3, "6,a\nx8,b\n-2,c\n"},
        {"x,a\n5,b\n", 0, "4,b\n"},
        {"x,a\n-5,b\n", -3, "-1,a\n-5,b\n"},
        {"1 ,a\n2 x,b\n", 0, "0,a\n1,b\n"},
        // Commas at the beginning are skipped for the number and kept in the line.
        {",7,a\n,,3,b\n,,2,c\n", 3, "6,7,a\n,,2,c\n"},
        {",,8,b\n,x\n", 3, "7,,8,b\n,x\n"},
        // Lines without a field are removed.
        {",\n,,,\n\n\r\n1,a\n", 9, "1,a\n"},
        // Without a comma the rest behind the number is kept.
        {"7\n8 eight\n", 3, "6\n7 eight\n"},
        {"text\n", -1, "-1text\n"},
        {"text\n", 1, "text\n"},
        // Numbers beyond int, and the limits of long.
        {"4294967299,a\n", 3, "4294967298,a\n"},
        {"-4294967293,a\n", 3, "-4294967293,a\n"},
        {"2147483648,a\n", INT_MAX, "2147483647,a\n"},
        {"2147483647,a\n", INT_MAX, ""},
        {"-2147483648,a\n-2147483647,b\n", INT_MIN, "-2147483648,b\n"},
        {"99999999999999999999,a\n", 1, "9223372036854775806,a\n"},
        {"-99999999999999999999,a\n", 1, "-99999999999999999999,a\n"},
        // Each piece of an overlong line is a line.
        {"5," + std::string(253, 'x') + "6,y\n", 1, "4," + std::string(253, 'x') + "\n5,y\n"},
        {"5," + std::string(252, 'x') + "\n6,y\n", 1, "4," + std::string(252, 'x') + "\n5,y\n"},
        {std::string(255, ',') + "5,y\n", 1, "4,y\n"},
        {std::string(254, ',') + "5,y\n", 1, "4" + std::string(254, ',') + "5\n,y\n"},
        {std::string("5,a\0b\n6\0,b\n", 11), 1, "4,a\n5\n"},
        {"", 1, ""},
    };
    for (const auto& row : rows) {
        put(row.before);
        EXPECT_EQ(drop_id(row.id), 0);
        EXPECT_EQ(content(), row.after) << row.before;
        expect_only_list_and_lock();
    }
}

namespace {

using Rewrite = int (*)();
const Rewrite kRewrites[] = {[] { return drop("user1@site.test"); }, [] { return modify("x", 1); },
                             [] { return drop_id(-1); }};

}  // namespace

TEST(Rewrite, FailsWithoutAListAndMakesNone) {
    for (const Rewrite rewrite : kRewrites) EXPECT_EQ(rewrite(), -1);
    EXPECT_FALSE(exists("/var/spool/etc"));
    make_dirs(kDirectory);
    for (const Rewrite rewrite : kRewrites) {
        EXPECT_EQ(rewrite(), -1);
        EXPECT_EQ(list(kDirectory), Texts{".test.lock"});
    }
}

TEST(Rewrite, FailsOnWhatCannotBeRead) {
    make_dirs(kPath);
    for (const Rewrite rewrite : kRewrites) {
        EXPECT_EQ(rewrite(), -1);
        EXPECT_EQ(list(kDirectory), (Texts{".test.lock", "test"}));
    }
}

TEST(Rewrite, FailsWithoutATemporaryFile) {
    put(numbered(3));
    make_dirs(kTemporary);
    for (const Rewrite rewrite : kRewrites) {
        EXPECT_EQ(rewrite(), -1);
        EXPECT_EQ(content(), numbered(3));
    }
    EXPECT_EQ(list(kDirectory), (Texts{".test.lock", ".test.tmp", "test"}));
}

TEST(Rewrite, TakesNoHarmFromAStaleTemporaryFile) {
    for (const std::size_t length : {0U, 10U, 100000U}) {
        put("a\nuser1@site.test\nb\n");
        testing_files::write(kTemporary, std::string(length, '#'));
        EXPECT_EQ(drop("user1@site.test"), 0);
        EXPECT_EQ(content(), "a\nb\n");
        expect_only_list_and_lock();
    }
    const std::string elsewhere = "/tmp/elsewhere";
    testing_files::write(elsewhere, "mine");
    ASSERT_EQ(::symlink(elsewhere.c_str(), kTemporary), 0);
    EXPECT_EQ(drop("a"), 0);
    EXPECT_EQ(content(), "b\n");
    EXPECT_EQ(testing_files::read(elsewhere), "mine");
    expect_only_list_and_lock();
}

TEST(Rewrite, MakesAFileOfTheUsualMode) {
    put("a\n");
    ASSERT_EQ(::chmod(kPath, 0600), 0);
    const mode_t old = ::umask(027);
    EXPECT_EQ(drop("b"), 0);
    ::umask(old);
    EXPECT_EQ(testing_files::mode_of(kPath), 0640U);
}

TEST(Rewrite, PutsAFileInTheLinksPlace) {
    put("a\nb\n");
    const std::string path = kDirectory + std::string("/") + kName, target = "/var/spool/target";
    ASSERT_EQ(::rename(path.c_str(), target.c_str()), 0);
    ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0);
    EXPECT_EQ(mail_list_delete_from(nullptr, kName, "a", MAIL_LIST_SYSTEM), 0);
    EXPECT_EQ(content(), "b\n");
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(path)));
    EXPECT_EQ(testing_files::read(target), "a\nb\n");
}

TEST(Rewrite, OfManyLinesKeepsThemAll) {
    put(numbered(20000));
    EXPECT_EQ(drop("user20000@site.test"), 0);
    EXPECT_EQ(content(), numbered(19999));
}

// The file-size limit lets only a part be written. The new list is not whole and must not appear.
TEST(Rewrite, FailsWhenTheNewListCannotBeWrittenWhole) {
    put(numbered(300));
    for (const rlim_t limit : {0U, 1U, 1000U}) {
        testing_processes::Child child([limit] {
            ::signal(SIGXFSZ, SIG_IGN);
            const struct rlimit sizes = {limit, limit};
            if (::setrlimit(RLIMIT_FSIZE, &sizes) != 0) return 1;
            const std::size_t open = testing_files::open_descriptors();
            for (const Rewrite rewrite : kRewrites) {
                if (rewrite() != -1) return 2;
            }
            return testing_files::open_descriptors() == open ? 0 : 3;
        });
        EXPECT_EQ(child.wait(), 0);
        EXPECT_EQ(content(), numbered(300));
        expect_only_list_and_lock();
    }
}

TEST(Add, AnswersZeroWhenTheWritingFails) {
    put(numbered(300));
    testing_processes::Child child([] {
        ::signal(SIGXFSZ, SIG_IGN);
        const struct rlimit sizes = {1000, 1000};
        if (::setrlimit(RLIMIT_FSIZE, &sizes) != 0) return 1;
        return add("new") == 0 ? 0 : 2;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(content(), numbered(300));
}
