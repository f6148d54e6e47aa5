#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <string>
#include <vector>

#include "testing/files.h"
#include "tools/cli/address.h"
#include "tools/cli/failure.h"
#include "tools/cli/output.h"
#include "tools/cli/text.h"
#include "tools/work/folder_list.h"

using namespace Tessaly::tool;

TEST(Printable, EscapesWhatATerminalWouldActOn) {
    const struct {
        std::string text, shown;
    } rows[] = {
        {"", ""},
        {"plain text ~ \\", "plain text ~ \\"},
        {"\x1b[2J", "\\x1b[2J"},
        {std::string("a\0b", 3), "a\\x00b"},
        {"\t\r\n\x7f", "\\x09\\x0d\\x0a\\x7f"},
        {"gr\xc3\xbc\xc3\x9f\x65 \xe2\x82\xac \xf0\x9f\x8d\xb0",
         "gr\xc3\xbc\xc3\x9f\x65 \xe2\x82\xac \xf0\x9f\x8d\xb0"},
        {"\xc2\x9b", "\\xc2\\x9b"},                                      // C1 control
        {"\xe2\x80\xae\xe2\x80\x8b", "\\xe2\\x80\\xae\\xe2\\x80\\x8b"},  // right-to-left, invisible
        {"\xef\xbb\xbf", "\\xef\\xbb\\xbf"},                             // byte order mark
        {"\xe2\x80\xa8", "\\xe2\\x80\\xa8"},                             // line separator
        {"\xc2\xad", "\\xc2\\xad"},                                      // soft hyphen
        {"\xe3\x85\xa4", "\\xe3\\x85\\xa4"},                             // invisible letter
        {"\xf3\xa0\x81\xa1", "\\xf3\\xa0\\x81\\xa1"},                    // invisible tag
        {"\xe2\x9d\xa4\xef\xb8\x8f", "\xe2\x9d\xa4\xef\xb8\x8f"},        // heart as a picture
        {"u\xcc\x88", "u\xcc\x88"},                                      // decomposed umlaut
        {"\xff\xfe", "\\xff\\xfe"},
        {"\xc3", "\\xc3"},  // cut
        {"\xe2\x82", "\\xe2\\x82"},
        {"\xc0\xaf", "\\xc0\\xaf"},                    // overlong '/'
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},           // surrogate
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // beyond the last code point
        {"\xc3(", "\\xc3("},
    };
    for (const auto& [text, shown] : rows) EXPECT_EQ(printable(text), shown);
}

TEST(WidthOf, ColumnsOfATerminal) {
    const struct {
        std::string text;
        std::size_t columns;
    } rows[] = {
        {"", 0},
        {"abc", 3},
        {"\xc3\xbc", 1},
        {"u\xcc\x88", 1},                             // the same umlaut, decomposed
        {"\xe4\xbc\x9a\xe8\xad\xb0", 4},              // ideographs
        {"\xed\x95\x9c", 2},                          // a syllable of Hangul
        {"\xe1\x84\x92\xe1\x85\xa1\xe1\x86\xab", 2},  // the same one, decomposed
        {"\xf0\x9f\x8d\xb0", 2},                      // a picture
        {"\xe2\x82\xac", 1},
        {"\xff", 1},
    };
    for (const auto& [text, columns] : rows) EXPECT_EQ(width_of(text), columns) << text;
}

TEST(SizeText, BinaryUnitsWithBoundaries) {
    const struct {
        std::uint64_t bytes;
        const char* shown;
    } rows[] = {
        {0, "0 B"},
        {1, "1 B"},
        {1023, "1023 B"},
        {1024, "1.0 KiB"},
        {1536, "1.5 KiB"},
        {1024 * 1024 - 52, "1023.9 KiB"},
        {1024 * 1024 - 51, "1.0 MiB"},
        {1ULL << 30, "1.0 GiB"},
        {1ULL << 40, "1.0 TiB"},
        {1ULL << 50, "1.0 PiB"},
        {1ULL << 60, "1.0 EiB"},
        {UINT64_MAX, "16.0 EiB"},
    };
    for (const auto& [bytes, shown] : rows) EXPECT_EQ(size_text(bytes), shown) << bytes;
}

TEST(Folded, LettersAndUnderscores) { EXPECT_EQ(folded("MUF_Quota-Flag9"), "muf-quota-flag9"); }

TEST(ExitCodes, ByError) {
    const struct {
        int error, code;
    } rows[] = {{ENOSPC, 75}, {EDQUOT, 75}, {EFBIG, 75},   {ENOMEM, 75},       {EMFILE, 75},
                {ENFILE, 75}, {ENOLCK, 75}, {EAGAIN, 75},  {EINTR, 75},        {EEXIST, 75},
                {ENOENT, 75}, {ESTALE, 75}, {EACCES, 73},  {EPERM, 73},        {EROFS, 73},
                {ELOOP, 73},  {EXDEV, 73},  {ENOTDIR, 73}, {ENAMETOOLONG, 73}, {EINVAL, 73},
                {EIO, 74},    {ENXIO, 74},  {0, 74}};
    for (const auto& [error, code] : rows) EXPECT_EQ(exit_code_of(error), code) << error;
    const Failure failure = system_failure("a file", EACCES);
    EXPECT_STREQ(failure.what(), "a file: Permission denied");
    EXPECT_EQ(failure.code(), 73);
}

TEST(Address, NulIsRefusedEverywhere) {
    const std::string nul("a\0b", 3);
    EXPECT_THROW(mailbox_of(nul + "@site.test"), Failure);
    EXPECT_THROW(mailbox_of("/x" + nul, Tessaly::MAILBOX_GIVEN_PATH), Failure);
    EXPECT_FALSE(is_folder_name(nul));
    EXPECT_THROW(check_queue_id(nul), Failure);
    EXPECT_THROW(check_list_name(nul), Failure);
    EXPECT_THROW(check_home_name(nul), Failure);
    EXPECT_NO_THROW(check_list_name("a.b"));
    EXPECT_NO_THROW(check_home_name("Group"));
}

TEST(FolderName, LengthsOnBothSides) {
    EXPECT_TRUE(is_folder_name(std::string(255, 'x')));
    EXPECT_FALSE(is_folder_name(std::string(256, 'x')));
    EXPECT_TRUE(is_folder_name("a/" + std::string(255, 'x') + "/b"));
    EXPECT_FALSE(is_folder_name("a/" + std::string(256, 'x') + "/b"));
}

namespace {

// What an Output shows, through a real file.
template <class Show>
std::string shown(Show show) {
    const testing_files::TempDir dir;
    const std::string path = dir / "out";
    std::FILE* file = std::fopen(path.c_str(), "w");
    Output out(::fileno(file));
    show(out);
    EXPECT_TRUE(out.finish());
    std::fclose(file);
    return testing_files::read(path);
}

}  // namespace

// A removal beside a walk: the system says of the open directory that there is none.
TEST(Listing, OfADirectoryThatWasRemovedIsEmpty) {
    const testing_files::TempDir dir;
    const std::string path = dir / "gone";
    ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::rmdir(path.c_str()), 0);
    const Listing listing = list_directory(fd);
    ::close(fd);
    EXPECT_EQ(listing.error, 0);
    EXPECT_FALSE(listing.is_folder);
    EXPECT_TRUE(listing.below.empty());
}

TEST(Table, AlignsByWidthOnTheScreen) {
    EXPECT_EQ(shown([](Output& out) {
                  Table table({{"name"}, {"size", Align::right}, {"end"}});
                  table.row({"gr\xc3\xbc\xc3\x9f\x65", "1", "x"});
                  table.row({"gru\xcc\x88\xc3\x9f\x65", "3", "x"});     // decomposed
                  table.row({"\xe4\xbc\x9a\xe8\xad\xb0", "100", "y"});  // two columns each
                  table.row({"a\x1b", "12", ""});
                  table.print(out);
              }),
              "name   size  end\n"
              "gr\xc3\xbc\xc3\x9f\x65     1  x\n"
              "gru\xcc\x88\xc3\x9f\x65     3  x\n"
              "\xe4\xbc\x9a\xe8\xad\xb0    100  y\n"
              "a\\x1b    12\n");
}

TEST(Output, JsonKeepsOrderAndStaysOnOneLine) {
    EXPECT_EQ(
        shown([](Output& out) {
            out.object(Json{{"z", 1}, {"a", "line\nbreak \x1b"}, {"bad", "\xff"}});
        }),
        "{\"z\":1,\"a\":\"line\\nbreak \\u001b\",\"bad\":\"\xef\xbf\xbd\",\"bad_hex\":\"ff\"}\n");
}

TEST(Output, LongOutputComesWhole) {
    const std::string line(999, 'x');
    EXPECT_EQ(shown([&](Output& out) {
                  for (int i = 0; i < 1000; ++i) out.line(line);
              }).size(),
              1000000U);
}

TEST(Output, SilenceShowsNothing) {
    EXPECT_EQ(shown([](Output& out) {
                  out.silence();
                  out.line("x");
              }),
              "");
}
