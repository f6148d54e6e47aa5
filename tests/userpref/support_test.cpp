// Which of the support library's functions are called, when and how often. This program defines
// them itself, as a process of an appliance may: the library must call the ones that it finds here.
#include <dlfcn.h>
#include <tessaly/support.h>

#include "helpers.h"
#include "testing/files.h"

namespace fs = testing_files;
using Calls = std::vector<std::string>;

namespace {

Calls calls;
int timezone_number = 42;

template <class Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

// The calls since the last look.
Calls taken() { return std::exchange(calls, {}); }

const Calls kRead = {"open r", "close"};
const Calls kStored = {"open w", "close"};

}  // namespace

FILE* open_and_lock_file(const char* path, const char* mode) {
    calls.push_back(std::string("open ") + mode);
    return real<FILE*(const char*, const char*)>("open_and_lock_file")(path, mode);
}
int close_and_unlock_file(FILE* stream) {
    calls.emplace_back("close");
    return real<int(FILE*)>("close_and_unlock_file")(stream);
}
char* trim_right(char* text) {
    calls.push_back(std::string("trim ") + text);
    return real<char*(char*)>("trim_right")(text);
}
const int* cfg_get_TZ() {
    calls.emplace_back("zone");
    return &timezone_number;
}

namespace {

TEST(Support, AFileIsOpenedAndClosedOnce) {
    user_pref p = prefs::defaults();
    EXPECT_EQ(store_user_pref(prefs::kUser, &p), 0);
    EXPECT_EQ(taken(), kStored);
    fs::write(prefs::kFile, "theme=3\n");
    EXPECT_EQ(read_user_pref(&p, prefs::kUser), 0);
    EXPECT_EQ(taken(), kRead);
    EXPECT_EQ(read_user_pref_all(prefs::kUser, &p), 0);
    EXPECT_EQ(taken(), kRead);
}

TEST(Support, AMissingFileIsNotOpened) {
    user_pref p = prefs::defaults();
    EXPECT_EQ(read_user_pref(&p, prefs::kUser), -1);
    EXPECT_EQ(taken(), Calls{});
}

TEST(Support, WhatWasNotOpenedIsNotClosed) {
    fs::make_dirs(prefs::kFile);
    const user_pref p = prefs::defaults();
    EXPECT_EQ(store_user_pref(prefs::kUser, &p), -1);
    EXPECT_EQ(taken(), Calls{"open w"});
}

TEST(Support, WhatCannotBeReadIsClosed) {
    fs::make_dirs(prefs::kFile);
    user_pref p = prefs::defaults();
    EXPECT_EQ(read_user_pref(&p, prefs::kUser), -1);
    EXPECT_EQ(taken(), kRead);
}

TEST(Support, TextsAreTrimmedByIt) {
    user_pref p = prefs::defaults();
    char line[] = "uname= Ann \r\n";
    EXPECT_EQ(parse_pref_line(&p, line), 0);
    EXPECT_EQ(taken(), Calls{"trim  Ann \r\n"});
    fs::write(prefs::kFile, "theme=3\nlang=de \nsize=1\nuname=Ann");
    EXPECT_EQ(read_user_pref(&p, prefs::kUser), 0);
    EXPECT_EQ(taken(), (Calls{"open r", "trim de \n", "trim Ann", "close"}));
}

TEST(Support, TheTimezoneIsTheConfiguredOne) {
    user_pref p;
    EXPECT_EQ(get_default_user_pref_with_tz(&p)->timezone, 42);
    timezone_number = -7;
    EXPECT_EQ(get_default_user_pref_with_tz(&p)->timezone, -7);
    EXPECT_EQ(taken(), (Calls{"zone", "zone"}));
    EXPECT_EQ(get_default_user_pref(&p)->timezone, 0);
    EXPECT_EQ(taken(), Calls{});
    fs::write(prefs::kFile, "");
    EXPECT_EQ(get_user_pref_lite_timezone(prefs::kUser), -7);
    EXPECT_EQ(taken(), (Calls{"zone", "open r", "close"}));
}

}  // namespace
