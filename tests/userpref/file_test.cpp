// The preference file: what is read from it, what a store leaves.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <tessaly/mailstore.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <functional>
#include <locale>
#include <memory>
#include <thread>
#include <utility>

#include "helpers.h"
#include "literal.h"
#include "testing/files.h"
#include "testing/processes.h"

namespace fs = testing_files;
using prefs::defaults;
using prefs::kDir;
using prefs::kFile;
using prefs::kHome;
using prefs::kUser;
using prefs::same;

namespace {

const char* const kDefaultText =
    "default_sort=1\nnpage=25\ndspam=1\nautotrain=1\nwhitelist=0\nspamreport=1\nuname=\nremail=\n"
    "signature=0\ntimezone=0\nautoreply=0\nar_to_me_only=1\nar_start_date=\nar_end_date=\n"
    "ar_subject=[Auto Reply]\nar_action=1\nar_level=1\nar_interval=7\nautoforward=0\nkeepcopy=0\n"
    "web_idle_timeout=1\nlang=en\ndate=0\nsize=0\ntheme=0\nforward_option=1\nmessage_preview=1\n"
    "calendar_time_format=0\ncalendar_default_view=1\nalternate_id=\ndefault_id=\n"
    "message_check_interval=5\nshow_remote_content=1\npage_size=25\nnotification=0\n";

// Reads a file of this content over the defaults.
user_pref read(std::string_view content) {
    fs::write(kFile, content);
    user_pref p = prefs::filled_with(0x5a);
    EXPECT_EQ(read_user_pref_all(kUser, &p), 0);
    return p;
}

// Applies this content as a stream over the defaults.
user_pref fill(std::string content) {
    user_pref p = defaults();
    content.reserve(content.size() + 1);  // fmemopen refuses an empty one
    FILE* stream = content.empty() ? std::fopen("/dev/null", "r")
                                   : ::fmemopen(content.data(), content.size(), "r");
    EXPECT_EQ(fill_user_pref_struct(&p, stream), 0);
    std::fclose(stream);
    return p;
}

TEST(Store, WritesEveryLineInTheOrderOfTheTable) {
    const user_pref p = defaults();
    EXPECT_EQ(store_user_pref(kUser, &p), 0);
    EXPECT_EQ(fs::read(kFile), kDefaultText);
}

TEST(Store, MakesTheDirectoryForTheOwnerAlone) {
    ::umask(022);
    const user_pref p = defaults();
    ASSERT_EQ(store_user_pref("Ann+Tag@Site.Test", &p), 0);
    EXPECT_EQ(fs::read(kFile), kDefaultText);
    EXPECT_EQ(fs::mode_of(kDir), 0700u);
    EXPECT_EQ(fs::mode_of(kFile), 0644u);
    EXPECT_EQ(fs::list(kHome), std::vector<std::string>{"pref"});
    EXPECT_EQ(fs::list(kDir), std::vector<std::string>{"ann~site.test.pref"});
}

TEST(Store, ReplacesALongerFileInPlace) {
    fs::write(kFile, std::string(100000, 'x'));
    const ino_t file = fs::status(kFile).st_ino;
    const user_pref p = defaults();
    EXPECT_EQ(store_user_pref(kUser, &p), 0);
    EXPECT_EQ(fs::read(kFile), kDefaultText);
    EXPECT_EQ(fs::status(kFile).st_ino, file);
}

TEST(Store, NullIsAFailure) {
    const user_pref p = defaults();
    EXPECT_EQ(store_user_pref(kUser, nullptr), -1);
    EXPECT_EQ(store_user_pref(nullptr, &p), -1);
    EXPECT_EQ(store_user_pref(nullptr, nullptr), -1);
    EXPECT_TRUE(fs::list("/var/spool").empty());
}

// An empty user is an error for two functions. For the others it is a user without a name.
TEST(Store, AnEmptyUserHasAFile) {
    user_pref p = defaults();
    p.theme = 7;
    EXPECT_EQ(store_user_pref("", &p), 0);
    EXPECT_TRUE(fs::exists("/var/spool/home/pref/.pref"));
    p.theme = 0;
    EXPECT_EQ(read_user_pref(&p, ""), 0);
    EXPECT_EQ(p.theme, 7);
}

TEST(Store, FailsWhereNoDirectoryCanBe) {
    fs::write(kDir, "a file");
    const user_pref p = defaults();
    EXPECT_EQ(store_user_pref(kUser, &p), -1);
    EXPECT_EQ(fs::read(kDir), "a file");
    fs::write("/var/spool/home/other.test", "a file");
    EXPECT_EQ(store_user_pref("bob@other.test", &p), -1);
}

TEST(Store, FailsWhereTheFileIsADirectory) {
    fs::make_dirs(kFile);
    const user_pref p = defaults();
    EXPECT_EQ(store_user_pref(kUser, &p), -1);
    user_pref q = defaults();
    EXPECT_EQ(read_user_pref(&q, kUser), -1);
    EXPECT_EQ(get_user_pref_lite_timezone(kUser), 12);
}

TEST(Store, FailsWithoutPermission) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
    fs::make_dirs(kDir);
    ASSERT_EQ(::chmod(kDir.c_str(), 0555), 0);
    const user_pref p = defaults();
    EXPECT_EQ(testing_processes::run_unprivileged(
                  [&] { return store_user_pref(kUser, &p) == -1 ? 0 : 1; }),
              0);
    EXPECT_TRUE(fs::list(kDir).empty());
    fs::write(kFile, "npage=7\n");
    ASSERT_EQ(::chmod(kFile.c_str(), 0400), 0);
    EXPECT_EQ(testing_processes::run_unprivileged(
                  [&] { return store_user_pref(kUser, &p) == -1 ? 0 : 1; }),
              0);
    EXPECT_EQ(fs::read(kFile), "npage=7\n");
}

TEST(Store, FlagsAreWrittenAsZeroOrOne) {
    user_pref p = defaults();
    p.dspam = 0;
    p.date = 255;
    p.size = 2;
    ASSERT_EQ(store_user_pref(kUser, &p), 0);
    const std::string text = fs::read(kFile);
    EXPECT_NE(text.find("\ndspam=0\n"), std::string::npos);
    EXPECT_NE(text.find("\ndate=1\nsize=1\n"), std::string::npos);
    user_pref q;
    ASSERT_EQ(read_user_pref_all(kUser, &q), 0);
    EXPECT_EQ(q.date, 1);
    EXPECT_EQ(q.size, 1);
}

TEST(Store, NumbersAtTheirLimits) {
    user_pref p = defaults();
    p.theme = INT_MIN;
    p.timezone = INT_MAX;
    p.web_idle_timeout = 65535;
    p.npage = -3;
    ASSERT_EQ(store_user_pref(kUser, &p), 0);
    user_pref q;
    ASSERT_EQ(read_user_pref_all(kUser, &q), 0);
    EXPECT_TRUE(same(p, q));
    EXPECT_NE(fs::read(kFile).find("\ntheme=-2147483648\n"), std::string::npos);
}

// The writer's line holds 510 bytes, line end included.
TEST(Store, ALineThatIsTooLongSwallowsTheNext) {
    const std::string key = "alternate_id=";
    for (const std::size_t length : {496u, 497u, 498u, 1275u}) {
        user_pref p = defaults();
        std::strcpy(p.default_id, "ann@home.test");
        std::memset(p.alternate_id, 'a', length);
        ASSERT_EQ(store_user_pref(kUser, &p), 0);
        user_pref q;
        ASSERT_EQ(read_user_pref_all(kUser, &q), 0);
        SCOPED_TRACE(length);
        if (key.size() + length + 1 <= 510) {
            EXPECT_TRUE(same(p, q));
            continue;
        }
        const std::string kept(510 - key.size(), 'a');
        const std::string line = key + kept + "default_id=ann@home.test\n";
        EXPECT_NE(fs::read(kFile).find("\n" + line + "message_check_interval=5\n"),
                  std::string::npos);
        EXPECT_STREQ(q.alternate_id, (kept + "default_id=ann@home.test").c_str());
        EXPECT_STREQ(q.default_id, "");
    }
}

TEST(Store, ALineFeedInATextBreaksItsLine) {
    user_pref p = defaults();
    std::strcpy(p.uname, "Ann\ntheme=9");
    ASSERT_EQ(store_user_pref(kUser, &p), 0);
    EXPECT_NE(fs::read(kFile).find("\nuname=Ann\ntheme=9\nremail=\n"), std::string::npos);
    user_pref q;
    ASSERT_EQ(read_user_pref_all(kUser, &q), 0);
    EXPECT_STREQ(q.uname, "Ann");
    EXPECT_EQ(q.theme, 0) << "the last line of a key counts";
    std::strcpy(p.uname, "Ann\nfree text\n");
    p.theme = 3;
    ASSERT_EQ(store_user_pref(kUser, &p), 0);
    ASSERT_EQ(read_user_pref_all(kUser, &q), 0);
    EXPECT_STREQ(q.uname, "Ann");
    EXPECT_EQ(q.theme, 3);
}

TEST(Store, TextsLoseTheirTrailingBlanks) {
    user_pref p = defaults();
    std::strcpy(p.uname, "  Ann Lee \t ");
    ASSERT_EQ(store_user_pref(kUser, &p), 0);
    user_pref q;
    ASSERT_EQ(read_user_pref_all(kUser, &q), 0);
    EXPECT_STREQ(q.uname, "  Ann Lee");
}

// A caller's text without a NUL: nothing beyond its field is read, the rest of the file is right.
TEST(Store, TextsWithoutEndAreCut) {
    const auto p = std::make_unique<user_pref>(prefs::filled_with('z'));
    ASSERT_EQ(store_user_pref(kUser, p.get()), 0);
    user_pref q;
    ASSERT_EQ(read_user_pref_all(kUser, &q), 0);
    EXPECT_EQ(std::string(q.uname), std::string(255, 'z'));
    EXPECT_EQ(std::string(q.lang), std::string(255, 'z'));
    EXPECT_EQ(std::string(q.ar_subject), std::string(255, 'z'));
    EXPECT_EQ(q.theme, p->theme);
    EXPECT_EQ(q.web_idle_timeout, p->web_idle_timeout);
    const std::string text = fs::read(kFile);
    EXPECT_NE(text.find("\nlang=" + std::string(255, 'z') + "\ndate=1\n"), std::string::npos);
    EXPECT_NE(text.find("\nalternate_id=" + std::string(497, 'z') + "default_id="),
              std::string::npos);
}

TEST(Store, TheLocaleHasNoSay) {
    struct Grouped : std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale before = std::locale::global(std::locale(std::locale(), new Grouped));
    user_pref p = defaults();
    p.theme = 1234567;
    EXPECT_EQ(store_user_pref(kUser, &p), 0);
    std::locale::global(before);
    EXPECT_NE(fs::read(kFile).find("\ntheme=1234567\n"), std::string::npos);
}

struct ReadCase {
    const char* what;
    std::string content;
    // What differs from the defaults.
    void (*expect)(user_pref& p);
};

void nothing(user_pref&) {}

std::vector<ReadCase> read_cases() {
    using namespace std::string_literals;
    return {
        {"empty", "", nothing},
        {"only a line end", "\n", nothing},
        {"a bare key", "npage\n", nothing},
        {"a bare key, CRLF", "npage\r\n", nothing},
        {"a bare key at the end", "npage", nothing},
        {"a key with blanks and no value", "npage \n", nothing},
        {"a number without digits", "npage=x\n", [](user_pref& p) { p.npage = 0; }},
        {"an empty number", "npage=\n", [](user_pref& p) { p.npage = 0; }},
        {"an empty number before a line of digits", "theme=\n\n55\n",
         [](user_pref& p) { p.theme = 0; }},
        {"a number of blanks before a line of digits", "npage= \n55\n",
         [](user_pref& p) { p.npage = 0; }},
        {"an empty text before another line", "lang=\nxx\n", [](user_pref& p) { *p.lang = 0; }},
        {"page 99", "npage=99\n", [](user_pref& p) { p.npage = 99; }},
        {"page 100", "npage=100\n", [](user_pref& p) { p.npage = 100; }},
        {"page 101", "npage=101\n", [](user_pref& p) { p.npage = 100; }},
        {"page 500", "npage=500\n", [](user_pref& p) { p.npage = 100; }},
        {"page -3", "npage=-3\n", [](user_pref& p) { p.npage = -3; }},
        {"other numbers are not clamped", "page_size=500\n",
         [](user_pref& p) { p.page_size = 500; }},
        {"the last line of a key counts", "theme=1\nlang=x\ntheme=2\n",
         [](user_pref& p) { p.theme = 2, std::strcpy(p.lang, "x"); }},
        {"any order", "notification=1\nlang=de\ndefault_sort=4\n",
         [](user_pref& p) { p.notification = 1, std::strcpy(p.lang, "de"), p.default_sort = 4; }},
        {"blanks before the equals sign", "theme \t =3\n", [](user_pref& p) { p.theme = 3; }},
        {"blanks before the key", " theme=3\n", nothing},
        {"unknown keys and comments", "# theme=3\nthemes=3\n;x\ntheme.x=3\n", nothing},
        {"CRLF", "lang=de\r\ntheme=3\r\nuname=Ann Lee \r\n",
         [](user_pref& p) {
             std::strcpy(p.lang, "de"), p.theme = 3, std::strcpy(p.uname, "Ann Lee");
         }},
        {"no final line end", "lang=de\ntheme=3",
         [](user_pref& p) { std::strcpy(p.lang, "de"), p.theme = 3; }},
        {"no final line end, text", "theme=3\nlang=de",
         [](user_pref& p) { std::strcpy(p.lang, "de"), p.theme = 3; }},
        {"a NUL ends a line's text", "lang=d\0e\ntheme=3\n"s,
         [](user_pref& p) { std::strcpy(p.lang, "d"), p.theme = 3; }},
        {"a NUL ends a key", "lang\0=x\nthe\0me=3\n"s, nothing},
        {"text after a NUL does not count as a line", "x\0theme=3\nlang=x\0\ntheme=4"s,
         [](user_pref& p) { std::strcpy(p.lang, "x"), p.theme = 4; }},
        {"NUL bytes alone", std::string(5000, '\0'), nothing},
        {"line ends alone", std::string(5000, '\n'), nothing},
        {"bytes above 127", "uname=\xc3\x84nn\xff\n\xfftheme=3\n",
         [](user_pref& p) { std::strcpy(p.uname, "\xc3\x84nn\xff"); }},
        {"a long unknown line", std::string(100000, 'x') + "\ntheme=3\n",
         [](user_pref& p) { p.theme = 3; }},
        {"a text of 254", "uname=" + std::string(254, 'u') + "\n",
         [](user_pref& p) { std::memset(p.uname, 'u', 254); }},
        {"a text of 255", "uname=" + std::string(255, 'u') + "\n",
         [](user_pref& p) { std::memset(p.uname, 'u', 255); }},
        {"a text of 256", "uname=" + std::string(256, 'u') + "\ntheme=3\n",
         [](user_pref& p) { std::memset(p.uname, 'u', 255), p.theme = 3; }},
        {"a text of a megabyte", "uname=" + std::string(1 << 20, 'u') + "\ntheme=3\n",
         [](user_pref& p) { std::memset(p.uname, 'u', 255), p.theme = 3; }},
    };
}

TEST(Read, EveryKindOfContent) {
    for (const ReadCase& row : read_cases()) {
        SCOPED_TRACE(row.what);
        user_pref wanted = defaults();
        row.expect(wanted);
        const user_pref from_file = read(row.content);
        const user_pref from_stream = fill(row.content);
        EXPECT_TRUE(same(from_file, wanted));
        EXPECT_EQ(std::memcmp(&from_file, &from_stream, sizeof from_file), 0);
    }
}

// Around the largest size of a file that is read without an allocation.
TEST(Read, FilesOfEveryLength) {
    for (std::size_t length = 2600; length <= 4200;
         length += length > 2850 && length < 2900 ? 1 : 50) {
        std::string content = "theme=3\n#";
        content.resize(length - 7, 'x');
        const user_pref p = read(content + "\nlang=d");
        EXPECT_EQ(p.theme, 3);
        EXPECT_STREQ(p.lang, "d") << length;
    }
}

TEST(Read, AMissingFileIsAFailure) {
    user_pref p = prefs::filled_with(0x5a);
    const user_pref before = p;
    EXPECT_EQ(read_user_pref(&p, kUser), -1);
    EXPECT_EQ(std::memcmp(&p, &before, sizeof p), 0);
    fs::make_dirs(kDir);
    EXPECT_EQ(read_user_pref(&p, kUser), -1);
    EXPECT_EQ(std::memcmp(&p, &before, sizeof p), 0);
    EXPECT_EQ(read_user_pref_all(kUser, &p), -1);
    const user_pref wanted = defaults();
    EXPECT_EQ(std::memcmp(&p, &wanted, sizeof p), 0) << "the defaults stay";
    EXPECT_FALSE(fs::exists(kFile)) << "reading makes no file";
}

TEST(Read, AnUnreadableFileIsAFailure) {
    fs::write(kFile, "npage=7\n");
    ASSERT_EQ(::chmod(kFile.c_str(), 0), 0);
    EXPECT_EQ(testing_processes::run_unprivileged([] {
                  user_pref p = defaults();
                  if (read_user_pref(&p, kUser) != -1 || p.npage != 25) return 1;
                  return get_user_pref_lite_timezone(kUser) == 12 ? 0 : 2;
              }),
              0);
}

TEST(Read, LeavesWhatTheFileDoesNotMention) {
    fs::write(kFile, "theme=3\n");
    user_pref p = prefs::filled_with(0x11);
    user_pref wanted = p;
    wanted.theme = 3;
    wanted.npage = 100;  // it was greater, and is limited even if the file does not mention it
    EXPECT_EQ(read_user_pref(&p, kUser), 0);
    EXPECT_EQ(std::memcmp(&p, &wanted, sizeof p), 0);
}

TEST(Read, AllRefusesBadArguments) {
    user_pref p = prefs::filled_with(0x5a);
    const user_pref before = p;
    EXPECT_EQ(read_user_pref_all(nullptr, &p), -1);
    EXPECT_EQ(read_user_pref_all("", &p), -1);
    EXPECT_EQ(read_user_pref_all(kUser, nullptr), -1);
    EXPECT_EQ(std::memcmp(&p, &before, sizeof p), 0);
}

// Each user has a file. The tag plays no part.
TEST(Read, FindsTheUsersFile) {
    user_pref p = defaults();
    p.theme = 1;
    ASSERT_EQ(store_user_pref("ann@site.test", &p), 0);
    p.theme = 2;
    ASSERT_EQ(store_user_pref("bob@site.test", &p), 0);
    user_pref q;
    EXPECT_EQ(read_user_pref_all("ANN+Work@Site.Test", &q), 0);
    EXPECT_EQ(q.theme, 1);
    EXPECT_EQ(read_user_pref_all("bob~site.test", &q), 0);
    EXPECT_EQ(q.theme, 2);
    EXPECT_EQ(read_user_pref_all("bob", &q), -1);
}

TEST(Read, APathThatIsTooLongIsAFailure) {
    const std::string user = std::string(3000, 'a') + "@" + std::string(3000, 'b');
    user_pref p = defaults();
    EXPECT_EQ(read_user_pref(&p, user.c_str()), -1);
    EXPECT_EQ(store_user_pref(user.c_str(), &p), -1);
    EXPECT_EQ(get_user_pref_lite_timezone(user.c_str()), 12);
}

TEST(Stream, StartsAtItsPositionAndStaysOpen) {
    char text[] = "theme=3\nlang=de\n";
    FILE* stream = ::fmemopen(text, sizeof text - 1, "r");
    ASSERT_EQ(std::fseek(stream, 8, SEEK_SET), 0);
    user_pref p = defaults();
    EXPECT_EQ(fill_user_pref_struct(&p, stream), 0);
    EXPECT_EQ(p.theme, 0);
    EXPECT_STREQ(p.lang, "de");
    EXPECT_TRUE(std::feof(stream));
    std::rewind(stream);
    EXPECT_EQ(fill_user_pref_struct(&p, stream), 0);
    EXPECT_EQ(p.theme, 3);
    std::fclose(stream);
}

// Also through a pipe that fills slowly, and with bytes that wait in the stream's buffer.
TEST(Stream, NeedsNoFile) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    std::thread writer([&] {
        for (const std::string_view part : {"xlan", "g=d", "e\nthe", "me=3"}) {
            EXPECT_EQ(::write(ends[1], part.data(), part.size()),
                      static_cast<ssize_t>(part.size()));
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        ::close(ends[1]);
    });
    FILE* stream = ::fdopen(ends[0], "r");
    EXPECT_EQ(std::fgetc(stream), 'x');
    user_pref p = defaults();
    EXPECT_EQ(fill_user_pref_struct(&p, stream), 0);
    writer.join();
    std::fclose(stream);
    EXPECT_EQ(p.theme, 3);
    EXPECT_STREQ(p.lang, "de");
}

TEST(Stream, NullIsAnswered) {
    user_pref p = defaults();
    EXPECT_EQ(fill_user_pref_struct(&p, nullptr), -1);
    EXPECT_EQ(fill_user_pref_struct(nullptr, nullptr), -1);
    char text[] = "theme=3\nlang=de\n";
    FILE* stream = ::fmemopen(text, sizeof text - 1, "r");
    EXPECT_EQ(fill_user_pref_struct(nullptr, stream), 0);
    EXPECT_EQ(std::ftell(stream), 8) << "one line is read";
    std::fclose(stream);
}

TEST(Stream, AReadErrorShowsInTheStream) {
    const int write_only = ::open("/tmp/file", O_WRONLY | O_CREAT, 0600);
    FILE* stream = ::fdopen(write_only, "w");
    user_pref p = defaults();
    p.npage = 500;
    EXPECT_EQ(fill_user_pref_struct(&p, stream), 0);
    EXPECT_TRUE(std::ferror(stream));
    EXPECT_EQ(p.npage, 100);
    std::fclose(stream);
}

TEST(Failures, LeaveTheErrorOfTheFailedCall) {
    user_pref p = defaults();
    const auto error_of = [](int result) { return result == -1 ? std::exchange(errno, 0) : 0; };
    EXPECT_EQ(error_of(read_user_pref(&p, kUser)), ENOENT);
    fs::make_dirs(kFile);
    EXPECT_EQ(error_of(read_user_pref(&p, kUser)), EISDIR);
    EXPECT_EQ(error_of(store_user_pref(kUser, &p)), EISDIR);
    fs::write("/var/spool/home/other.test", "a file");
    EXPECT_EQ(error_of(read_user_pref(&p, "bob@other.test")), ENOTDIR);
    EXPECT_EQ(error_of(store_user_pref("bob@other.test", &p)), ENOTDIR);
    EXPECT_EQ(store_user_pref(nullptr, &p), -1);
    EXPECT_EQ(errno, 0);
}

class Timezone : public testing::Test {
  protected:
    Timezone() {
        fs::write("/tmp/tsmail.toml", "timezone = 42\n");
        ::setenv("TSMAIL_CONFIG", "/tmp/tsmail.toml", 1);
    }
};

TEST_F(Timezone, IsTwelveWithoutAFileOrAUser) {
    EXPECT_EQ(get_user_pref_lite_timezone(kUser), 12);
    EXPECT_EQ(get_user_pref_lite_timezone(nullptr), 12);
    EXPECT_EQ(get_user_pref_lite_timezone(""), 12);
}

TEST_F(Timezone, IsTheSystemsUnlessTheFileNamesOne) {
    fs::write(kFile, "");
    EXPECT_EQ(get_user_pref_lite_timezone(kUser), 42);
    fs::write(kFile, "theme=3\ntimezone\n");
    EXPECT_EQ(get_user_pref_lite_timezone(kUser), 42);
    fs::write(kFile, "theme=3\ntimezone=7\n");
    EXPECT_EQ(get_user_pref_lite_timezone(kUser), 7);
    fs::write(kFile, "timezone=-1\n");
    EXPECT_EQ(get_user_pref_lite_timezone(kUser), -1);
    fs::write(kFile, "timezone=x\n");
    EXPECT_EQ(get_user_pref_lite_timezone(kUser), 0);
}

TEST_F(Timezone, TheFileWithDefaultsKnowsNoSystem) {
    fs::write(kFile, "");
    user_pref p;
    EXPECT_EQ(read_user_pref_all(kUser, &p), 0);
    EXPECT_EQ(p.timezone, 0);
}

// Whether a call waits while a lock of this kind is held.
bool waits_for(int lock, const std::function<void()>& call) {
    const int holder = ::open(kFile.c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(::flock(holder, lock), 0);
    std::atomic<bool> done = false;
    std::thread caller([&] { call(), done = true; });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const bool waited = !done;
    ::close(holder);
    caller.join();
    return waited;
}

TEST(Lock, ReadersShareAndWritersWait) {
    fs::write(kFile, "theme=3\n");
    const auto reader = [] {
        user_pref p = defaults();
        EXPECT_EQ(read_user_pref(&p, kUser), 0);
        EXPECT_EQ(p.theme, 3);
    };
    EXPECT_FALSE(waits_for(LOCK_SH, reader));
    EXPECT_TRUE(waits_for(LOCK_EX, reader));
    const auto writer = [] {
        const user_pref p = defaults();
        EXPECT_EQ(store_user_pref(kUser, &p), 0);
    };
    EXPECT_TRUE(waits_for(LOCK_SH, writer));
    EXPECT_EQ(fs::read(kFile), kDefaultText);
    EXPECT_TRUE(waits_for(LOCK_EX, writer));
}

TEST(Descriptors, NoneIsLeftOpen) {
    const std::size_t before = fs::open_descriptors();
    user_pref p = defaults();
    for (int round = 0; round < 3; ++round) {
        read_user_pref(&p, kUser);
        get_user_pref_lite_timezone(kUser);
        store_user_pref(kUser, &p);
        read_user_pref(&p, kUser);
        if (round == 1)
            fs::make_dirs("/var/spool/home/site.test/bob~site.test/pref/bob~site.test.pref");
        read_user_pref(&p, "bob@site.test");
        store_user_pref("bob@site.test", &p);
    }
    EXPECT_EQ(fs::open_descriptors(), before);
}

// Without standard streams the file gets one of their descriptors, which must do no harm.
TEST(Descriptors, LowOnesMayBeClosed) {
    EXPECT_EQ(testing_processes::Child([] {
                  for (int fd = 0; fd < 3; ++fd) ::close(fd);
                  user_pref p = defaults();
                  p.theme = 3;
                  if (store_user_pref(kUser, &p) != 0) return 1;
                  user_pref q;
                  return read_user_pref_all(kUser, &q) == 0 && q.theme == 3 ? 0 : 2;
              }).wait(),
              0);
}

}  // namespace
