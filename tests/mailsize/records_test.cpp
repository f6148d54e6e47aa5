// Size record files: every rule that a caller can see, on real files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tessaly/MailUserId.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <climits>

#include "quota/failing_new.h"
#include "testing/files.h"
#include "testing/processes.h"

namespace files = testing_files;
using Tessaly::TSMailUserId;

namespace {

constexpr char kUser[] = "ann@site.test";
const std::string kMail = "/var/spool/home/site.test/ann~site.test/mail";
const std::string kSizeFile = kMail + "/.maildirsize";
const std::string kMarker = kMail + "/.maildirsize.dirty";
const std::string kFolder = kMail + "/Inbox";
const std::string kFolderFile = kFolder + "/.ts_folder_size";

// A file of exactly this many bytes whose records sum to (10 * n, n).
struct Filled {
    std::string text;
    long long records = 0;
    explicit Filled(std::size_t length) {
        while (text.size() + 5 <= length) {
            text += "10 1\n";
            ++records;
        }
        text.resize(length, '\n');
    }
};

struct Totals {
    int result;
    unsigned long long size, count;
    bool operator==(const Totals&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Totals& t) {
    return out << "{" << t.result << ", " << t.size << ", " << t.count << "}";
}

constexpr unsigned long long kUntouched = 12345;

Totals read_folder(const std::string& path) {
    Totals t{0, kUntouched, kUntouched};
    t.result = tsl_read_mail_folder_size(path.c_str(), &t.size, &t.count);
    return t;
}
Totals read_mailbox(const std::string& maildir) {
    Totals t{0, kUntouched, kUntouched};
    static const char ignored = 'x';
    t.result = tsl_get_maildirsize(&ignored, maildir.c_str(), &t.size, &t.count);
    return t;
}

class Records : public testing::Test {
  protected:
    Records() { files::make_dirs(kFolder); }
    std::size_t descriptors_ = files::open_descriptors();
    ~Records() override { EXPECT_EQ(files::open_descriptors(), descriptors_); }
};

TEST_F(Records, AnAppendCreatesTheFileWithTheRecordAlone) {
    EXPECT_EQ(tsl_append_maildirsize(kSizeFile.c_str(), 100, 1), 0);
    EXPECT_EQ(files::read(kSizeFile), "100 1\n");
    EXPECT_EQ(tsl_append_mail_folder_size(kFolderFile.c_str(), -100, -1), 0);
    EXPECT_EQ(files::read(kFolderFile), "-100 -1\n");
    EXPECT_EQ(tsl_append_maildirsize(kSizeFile.c_str(), LLONG_MIN, LLONG_MAX), 0);
    EXPECT_EQ(files::read(kSizeFile), "100 1\n-9223372036854775808 9223372036854775807\n");
}

TEST_F(Records, ANewFileHasTheModeThatTheUmaskLeaves) {
    const mode_t before = ::umask(027);
    tsl_append_maildirsize(kSizeFile.c_str(), 1, 1);
    tsl_append_mail_folder_size(kFolderFile.c_str(), 1, 1);
    tsl_reset_quota_flag_by_user(kUser);
    ::umask(before);
    for (const auto& path : {kSizeFile, kFolderFile, kMarker}) {
        EXPECT_EQ(files::mode_of(path), 0640U) << path;
    }
}

struct Compaction {
    std::size_t length;
    bool compacted;
    friend void PrintTo(const Compaction& row, std::ostream* out) { *out << row.length; }
};
class Compacting : public Records, public testing::WithParamInterface<Compaction> {};

TEST_P(Compacting, HappensAboveAPage) {
    const Filled old(GetParam().length);
    const ino_t inode = [&] {
        files::write(kSizeFile, old.text);
        files::write(kFolderFile, old.text);
        return files::status(kSizeFile).st_ino;
    }();
    tsl_append_maildirsize(kSizeFile.c_str(), 7, 2);
    tsl_append_mail_folder_size(kFolderFile.c_str(), 7, 2);
    const std::string sum =
        std::to_string(10 * old.records + 7) + " " + std::to_string(old.records + 2) + "\n";
    EXPECT_EQ(files::read(kSizeFile), GetParam().compacted ? "0S, 0C\n" + sum : old.text + "7 2\n");
    EXPECT_EQ(files::read(kFolderFile), GetParam().compacted ? sum : old.text + "7 2\n");
    EXPECT_EQ(files::status(kSizeFile).st_ino, inode);
}

INSTANTIATE_TEST_SUITE_P(Lengths, Compacting,
                         testing::Values(Compaction{4095, false}, Compaction{4096, false},
                                         Compaction{4097, true}, Compaction{4100, true},
                                         Compaction{8192, true}, Compaction{100000, true}));

// A last line without its end was not written by an append.
TEST_F(Records, AnOpenLastLineIsJoined) {
    files::write(kFolderFile, "1 1");
    EXPECT_EQ(tsl_append_mail_folder_size(kFolderFile.c_str(), 50, 2), 0);
    EXPECT_EQ(files::read(kFolderFile), "1 150 2\n");
    EXPECT_EQ(read_folder(kFolderFile), (Totals{0, 1, 150}));
}

TEST_F(Records, ACompactionKeepsItsOwnHeaderWhateverWasThere) {
    files::write(kSizeFile, "1000000S, 50C\n" + Filled(5000).text);
    tsl_append_maildirsize(kSizeFile.c_str(), 0, 0);
    EXPECT_EQ(files::read(kSizeFile), "0S, 0C\n10000 1000\n");
}

TEST_F(Records, ACompactionSaturatesNumbersAndWrapsSums) {
    // LLONG_MAX, as the number does not fit; then the sum wraps.
    files::write(kFolderFile, "99999999999999999999 1\n" + std::string(4096, '\n'));
    tsl_append_mail_folder_size(kFolderFile.c_str(), 1, 1);
    EXPECT_EQ(files::read(kFolderFile), "-9223372036854775808 2\n");
}

TEST_F(Records, AFileWithoutLineEndsIsCompactedInPieces) {
    // 17 pieces of 254 bytes; only one of them begins with a record.
    std::string text(17 * 254, 'x');
    text.replace(254, 4, "12 3");
    files::write(kFolderFile, text);
    tsl_append_mail_folder_size(kFolderFile.c_str(), 1, 1);
    EXPECT_EQ(files::read(kFolderFile), "13 4\n");
}

TEST_F(Records, NothingIsLostWhereNothingCanBeWritten) {
    EXPECT_EQ(tsl_append_maildirsize((kMail + "/none/.maildirsize").c_str(), 1, 1), 0);
    EXPECT_EQ(tsl_append_maildirsize(kMail.c_str(), 1, 1), 0);
    EXPECT_EQ(tsl_append_mail_folder_size(nullptr, 1, 1), 0);
    EXPECT_EQ(tsl_append_mail_folder_size("", 1, 1), 0);
    EXPECT_EQ(tsl_append_mail_folder_size(std::string(5000, 'x').c_str(), 1, 1), 0);
    EXPECT_EQ(tsl_write_mail_folder_size(kMail.c_str(), 1, 1), 0);
    EXPECT_EQ(files::list(kMail), std::vector<std::string>{"Inbox"});
}

struct Text {
    const char* name;
    std::string text;
    Totals totals;
    friend void PrintTo(const Text& row, std::ostream* out) { *out << row.name; }
};
class Reading : public Records, public testing::WithParamInterface<Text> {};

TEST_P(Reading, SumsAndJudges) {
    const auto& [name, text, totals] = GetParam();
    files::write(kFolderFile, text);
    files::write(kSizeFile, text);
    EXPECT_EQ(read_folder(kFolderFile), totals);
    EXPECT_EQ(files::exists(kMarker), totals.result == -1);
    EXPECT_FALSE(files::exists(kFolder + "/.maildirsize.dirty"));
    ::unlink(kMarker.c_str());
    EXPECT_EQ(read_mailbox(kMail), totals);
    EXPECT_EQ(files::exists(kMarker), totals.result == -1);
    // Damage is reported, and the files stay as they are for a recount.
    EXPECT_EQ(files::read(kFolderFile), text);
    EXPECT_EQ(files::read(kSizeFile), text);
}

const std::string kPad(250, ' ');
using namespace std::string_literals;

INSTANTIATE_TEST_SUITE_P(
    Rows, Reading,
    testing::Values(
        Text{"Empty", "", {0, 0, 0}}, Text{"One", "100 1\n", {0, 100, 1}},
        Text{"NoLineEnd", "100 1\n5 1", {0, 105, 2}},
        Text{"Sum", "0S, 0C\n100 1\n-30 -1\n", {0, 70, 0}},
        Text{"Ignored", "0S, 0C\n\n5\nabc\n12x 4\n4 x\n1 1\n", {0, 1, 1}},
        Text{"BlanksOfAllKinds", " \t\v\f\r7 \t\v\f\r8 9\r\n", {0, 7, 8}},
        Text{"SignEndsNumber", "5-3\n1+4\n", {0, 6, 1}}, Text{"Signs", "+5 +3\n", {0, 5, 3}},
        Text{"LoneSigns", "- 3 4\n+-3 4\n1 -\n2 2\n", {0, 2, 2}},
        Text{"NulEndsPiece", "5 3\0 9\n1\0 1\n\0 7 7\n"s, {0, 5, 3}},
        Text{"LineEndIsNoBlank", "5\n3\n", {0, 0, 0}},
        Text{"InOnePiece", kPad + "1 2\n", {0, 1, 2}},
        Text{"CutByPiece", kPad + "12 345\n", {0, 12, 3}},
        Text{"RestIsAPiece", kPad + "xxxx12 345\n", {0, 12, 345}},
        Text{"MaxFits", "9223372036854775807 1\n", {0, LLONG_MAX, 1}},
        Text{"MinFits", "-9223372036854775808 1\n9223372036854775807 0\n2 0\n", {0, 1, 1}},
        Text{"NegativeSize", "100 1\n-300 1\n", {-1, 0, 2}},
        Text{"NegativeCount", "100 1\n300 -3\n", {-1, 400, 0}},
        Text{"NegativeBoth", "100 1\n-300 -2\n", {-1, 0, 0}},
        Text{"SizeTooLarge", "5 5\n9223372036854775808 1\n7 7\n", {-1, 0, 0}},
        Text{"SizeTooSmall", "5 5\n-9223372036854775809 1\n", {-1, 0, 0}},
        Text{"CountTooLarge", "5 9223372036854775808\n", {-1, 0, 0}},
        Text{"FarTooLarge", "5 " + std::string(200, '9') + "\n", {-1, 0, 0}},
        Text{"TooLargeAloneIsNoRecord", "99999999999999999999\n5 5\n", {0, 5, 5}},
        Text{"ZerosDoNotCount", std::string(100, '0') + "5 1\n", {0, 5, 1}},
        Text{"SumTooLarge", "9223372036854775807 1\n1 1\n", {-1, 0, 0}},
        Text{"SumComesBackTooLate", "9223372036854775807 1\n1 1\n-9 1\n", {-1, 0, 0}},
        Text{"CountSumTooSmall", "1 -9223372036854775808\n1 -1\n", {-1, 0, 0}}),
    [](const auto& row) { return row.param.name; });

TEST_F(Records, MissingFiles) {
    EXPECT_EQ(read_folder(kFolderFile), (Totals{-1, kUntouched, kUntouched}));
    EXPECT_EQ(tsl_read_mail_folder_size(nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(read_folder(std::string(5000, 'x')), (Totals{-1, kUntouched, kUntouched}));
    EXPECT_EQ(read_mailbox(kMail), (Totals{0, 0, 0}));
    EXPECT_EQ(read_mailbox("/none"), (Totals{0, 0, 0}));
    EXPECT_EQ(read_mailbox(std::string(5000, 'x')), (Totals{0, 0, 0}));
    EXPECT_EQ(tsl_get_maildirsize(nullptr, nullptr, nullptr, nullptr), -1);
}

TEST_F(Records, OutputsMayBeNull) {
    unsigned long long size = 0, count = 0;
    files::write(kFolderFile, "5 6\n");
    files::write(kSizeFile, "5 6\n");
    EXPECT_EQ(tsl_read_mail_folder_size(kFolderFile.c_str(), &size, nullptr), 0);
    EXPECT_EQ(tsl_get_maildirsize(nullptr, kMail.c_str(), nullptr, &count), 0);
    EXPECT_EQ(tsl_read_mail_folder_size(kFolderFile.c_str(), nullptr, nullptr), 0);
    EXPECT_EQ(size, 5U);
    EXPECT_EQ(count, 6U);
}

TEST_F(Records, AnUnreadableFileCountsAsNothing) {
    files::write(kFolderFile, "5 6\n");
    ::chmod(kFolderFile.c_str(), 0);
    EXPECT_EQ(testing_processes::run_unprivileged([] {
                  return read_folder(kFolderFile) == Totals{0, 0, 0} ? 0 : 1;
              }),
              0);
}

TEST_F(Records, DamageOutsideAMailRootIsNotMarked) {
    const files::TempDir dir;
    const std::string path = dir / ".ts_folder_size";
    files::write(path, "100 1\n-300 -1\n");
    EXPECT_EQ(read_folder(path), (Totals{0, 0, 0}));
    files::write(path, "99999999999999999999 1\n");
    EXPECT_EQ(read_folder(path), (Totals{0, 0, 0}));
    EXPECT_EQ(files::list(dir.path()), std::vector<std::string>{".ts_folder_size"});
}

TEST_F(Records, DamageInAFileOfAnotherNameIsNotMarked) {
    files::write(kFolder + "/sizes", "-1 -1\n");
    EXPECT_EQ(read_folder(kFolder + "/sizes"), (Totals{0, 0, 0}));
    EXPECT_FALSE(files::exists(kMarker));
}

TEST_F(Records, TheFirstMailRootIsMarked) {
    const files::TempDir dir;
    const std::string path = dir / "mail/a/mail/.maildirsize";
    files::write(path, "-1 -1\n");
    EXPECT_EQ(read_mailbox(dir / "mail/a/mail"), (Totals{-1, 0, 0}));
    EXPECT_TRUE(files::exists(dir / "mail/.maildirsize.dirty"));
    EXPECT_FALSE(files::exists(dir / "mail/a/mail/.maildirsize.dirty"));
}

TEST_F(Records, AMarkedMailboxIsNotRead) {
    files::write(kSizeFile, "5 6\n");
    files::write(kMarker, "");
    EXPECT_EQ(read_mailbox(kMail), (Totals{-1, kUntouched, kUntouched}));
    ::unlink(kMarker.c_str());
    EXPECT_EQ(read_mailbox(kMail), (Totals{0, 5, 6}));
}

TEST_F(Records, WriteReplaces) {
    files::write(kFolderFile, Filled(9000).text);
    EXPECT_EQ(tsl_write_mail_folder_size(kFolderFile.c_str(), -5, LLONG_MIN), 0);
    EXPECT_EQ(files::read(kFolderFile), "-5 -9223372036854775808\n");
    EXPECT_EQ(tsl_write_mail_folder_size(nullptr, 1, 1), 0);
}

TEST_F(Records, MarkingByPath) {
    EXPECT_EQ(tsl_reset_quota_flag_by_path(nullptr), -1);
    EXPECT_EQ(tsl_reset_quota_flag_by_path(""), -1);
    EXPECT_EQ(tsl_reset_quota_flag_by_path((kMail + "/none").c_str()), -1);
    EXPECT_EQ(tsl_reset_quota_flag_by_path(std::string(5000, '/').c_str()), -1);
    EXPECT_EQ(files::list(kMail), std::vector<std::string>{"Inbox"});

    EXPECT_EQ(tsl_reset_quota_flag_by_path(kMail.c_str()), 0);
    EXPECT_EQ(files::read(kMarker), "");
    files::write(kMarker, "text");
    EXPECT_EQ(tsl_reset_quota_flag_by_path((kMail + "/").c_str()), 0);
    EXPECT_EQ(files::read(kMarker), "");

    files::write(kFolder + "/file", "");
    EXPECT_EQ(tsl_reset_quota_flag_by_path((kFolder + "/file").c_str()), 0);  // not to be created
}

TEST_F(Records, MarkingByUser) {
    EXPECT_EQ(tsl_reset_quota_flag_by_user(nullptr), -1);
    EXPECT_EQ(tsl_reset_quota_flag_by_user(""), -1);
    EXPECT_EQ(tsl_reset_quota_flag_by_user("nobody@site.test"), 0);
    EXPECT_FALSE(files::exists("/var/spool/home/site.test/nobody~site.test"));
    EXPECT_EQ(tsl_reset_quota_flag_by_user(kUser), 0);
    EXPECT_EQ(files::read(kMarker), "");
    files::write(kMarker, "text");
    EXPECT_EQ(tsl_reset_quota_flag_by_user(kUser), 0);
    EXPECT_EQ(files::read(kMarker), "");
}

// The only one of these functions that throws for a lack of memory.
TEST_F(Records, MarkingByUserWaitsForNoFifo) {
    ASSERT_EQ(::mkfifo(kMarker.c_str(), 0600), 0);
    ::alarm(20);  // a caller that hangs is killed
    EXPECT_EQ(tsl_reset_quota_flag_by_user(kUser), 0);
    ::alarm(0);
    EXPECT_TRUE(files::exists(kMarker));
}

TEST_F(Records, AFifoInASizeFilesPlaceHoldsNobody) {
    ASSERT_EQ(::mkfifo(kSizeFile.c_str(), 0600), 0);
    ::alarm(20);  // a caller that hangs is killed
    unsigned long long size = 7, count = 7;
    EXPECT_EQ(tsl_get_maildirsize(nullptr, kMail.c_str(), &size, &count), 0);
    EXPECT_EQ(size, 0U);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(tsl_append_maildirsize(kSizeFile.c_str(), 1, 1), 0);
    ::alarm(0);
}

TEST_F(Records, MarkingByUserLetsALackOfMemoryPass) {
    int n = 0;
    for (bool fired = true; fired; ++n) {
        bool passed = false;
        {
            const quota_test::FailingNew no_memory(n);
            try {
                tsl_reset_quota_flag_by_user(kUser);
            } catch (const std::bad_alloc&) {
                passed = true;
            }
            fired = no_memory.fired();
        }
        EXPECT_EQ(passed, fired) << n;
    }
    EXPECT_GT(n, 2);
    EXPECT_TRUE(files::exists(kMarker));
}

// A composed path is cut at 4095 bytes, and the file of that name is used.
TEST_F(Records, ComposedPathsAreCut) {
    std::string dir = kMail;
    while (dir.size() + 5 < 4080) dir += "/././";
    dir.resize(4080, '/');  // and ".maildirsize" would end at 4093, ".maildirsize.dirty" at 4099
    EXPECT_EQ(tsl_reset_quota_flag_by_path(dir.c_str()), 0);
    EXPECT_EQ(files::list(kMail), (std::vector<std::string>{".maildirsize.d", "Inbox"}));
    EXPECT_EQ(read_mailbox(dir), (Totals{-1, kUntouched, kUntouched}));
}

TEST_F(Records, MembersWorkOnTheMailRoot) {
    TSMailUserId id(kUser);
    EXPECT_EQ(id.append_maildirsize(-5, 3), 0);
    EXPECT_EQ(files::read(kSizeFile), "-5 3\n");
    id.quota_reset();
    EXPECT_TRUE(files::exists(kMarker));

    const files::TempDir dir;
    const TSMailUserId given(Tessaly::MAILBOX_GIVEN_PATH, dir.path());
    EXPECT_EQ(given.append_maildirsize(1, 1), 0);
    given.quota_reset();
    EXPECT_EQ(files::list(dir.path()),
              (std::vector<std::string>{".maildirsize", ".maildirsize.dirty"}));
    TSMailUserId(Tessaly::MAILBOX_GIVEN_PATH, "/none").quota_reset();
}

struct Refusal {
    const char* message;
    int line;
    void (*call)(const TSMailUserId&);
};

TEST_F(Records, TheDirectTypeRefuses) {
    const Refusal rows[] = {
        {" TSDirectMailUserId::append_maildirsize() - Not Implimented", 333,
         [](const TSMailUserId& id) { id.append_maildirsize(1, 1); }},
        {" TSDirectMailUserId::quota_reset() - Not Implimented", 324,
         [](const TSMailUserId& id) { id.quota_reset(); }},
    };
    files::make_dirs("/tmp/direct");
    const TSMailUserId direct(Tessaly::MAILBOX_DIRECT, "/tmp/direct");
    for (const auto& [message, line, call] : rows) {
        try {
            call(direct);
            ADD_FAILURE() << message << " expected";
        } catch (const Tessaly::Exception& e) {
            EXPECT_EQ(e.message(), message);
            EXPECT_EQ(e.code(), 4);
            EXPECT_STREQ(e.file(), "MailUserId");
            EXPECT_EQ(e.line(), line);
        }
    }
    EXPECT_EQ(files::list("/tmp/direct"), std::vector<std::string>{});
}

}  // namespace
