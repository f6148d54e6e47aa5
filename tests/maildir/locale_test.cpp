// What depends on the process's locale: the order of the walk, and the letter case of the system
// folder in front of a sub-folder.
#include <dirent.h>
#include <tessaly/mailstore.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "testing/files.h"
#include "testing/locales.h"

namespace {

using testing_files::TempDir;
using Names = std::vector<std::string>;

int note(const char* name, const struct stat*, void* names) {
    static_cast<Names*>(names)->push_back(name);
    return 1;
}

Names walk(const std::string& dir) {
    Names names;
    tsl_visit_folders(dir.c_str(), 1, note, &names);
    return names;
}

// The C library's own listing.
Names sorted_listing(const std::string& dir) {
    struct dirent** entries;
    const int count = ::scandir(dir.c_str(), &entries, nullptr, ::alphasort);
    Names names;
    for (int i = 0; i < count; ++i) {
        if (entries[i]->d_name[0] != '.') names.push_back(entries[i]->d_name);
        std::free(entries[i]);
    }
    if (count >= 0) std::free(entries);
    return names;
}

// In byte order, as in a program that has not set a locale. Umlauts come last.
const Names kInByteOrder = {"B", "C", "Z", "_x", "a", "b b", "bb", "\xe4"};

class LocaleOrder : public testing::Test {
  protected:
    LocaleOrder() {
        for (const auto& name : kInByteOrder) testing_files::make_maildir(dir_ / name);
    }
    const TempDir dir_;
};

TEST_F(LocaleOrder, IsThatOfBytesWithoutOne) {
    EXPECT_EQ(walk(dir_.path()), kInByteOrder);
    EXPECT_EQ(sorted_listing(dir_.path()), kInByteOrder);
}

TEST_F(LocaleOrder, IsThatOfTheLocale) {
    if (!testing_locales::use("de_DE", "ISO-8859-1")) GTEST_SKIP() << "no locale sources";
    const Names expected = sorted_listing(dir_.path());
    ASSERT_NE(expected, kInByteOrder);
    EXPECT_EQ(walk(dir_.path()), expected);
}

TEST(LocaleCase, OfTheSystemFolderInFrontOfASubFolder) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "its strncasecmp knows no locales";
#endif
    EXPECT_EQ(tsl_is_system_sub_folder("inbox/x"), 1);
    if (!testing_locales::use("tr_TR", "ISO-8859-9")) GTEST_SKIP() << "no locale sources";
    EXPECT_EQ(tsl_is_system_sub_folder("inbox/x"), 0);  // 'i' is not the small 'I' there
    EXPECT_EQ(tsl_is_system_sub_folder("INBOX/x"), 1);
    EXPECT_EQ(tsl_is_system_sub_folder("\xfdnbox/x"), 1);
    EXPECT_EQ(tsl_is_system_sub_folder("drafts/x"), 2);
    EXPECT_EQ(tsl_is_system_folder("Inbox"), 1);
}

}  // namespace
