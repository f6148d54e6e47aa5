// Which of the support library's functions are called, when and how often. This program defines
// them itself, as a process of an appliance may: the library must call the ones that it finds here.
#include <dlfcn.h>
#include <tessaly/support.h>
#include <unistd.h>

#include "helpers.h"
#include "testing/files.h"

namespace fs = testing_files;
using Calls = std::vector<std::string>;

namespace {

Calls calls;
int timezone_number = 42;

// A preference file in memory: its stream has no descriptor. Used while `memory` is set.
std::string* memory = nullptr;
bool memory_is_full = false;

struct Cookie {
    std::size_t read = 0;
};
ssize_t read_memory(void* cookie, char* buffer, size_t size) {
    auto* place = static_cast<Cookie*>(cookie);
    const std::size_t n = memory->copy(buffer, size, place->read);
    place->read += n;
    return static_cast<ssize_t>(n);
}
ssize_t write_memory(void*, const char* buffer, size_t size) {
    if (memory_is_full) return 0;
    memory->append(buffer, size);
    return static_cast<ssize_t>(size);
}
int close_memory(void* cookie) {
    delete static_cast<Cookie*>(cookie);
    return 0;
}
FILE* open_memory(const char* mode) {
    if (*mode == 'w') memory->clear();
    return ::fopencookie(new Cookie, mode, {read_memory, write_memory, nullptr, close_memory});
}

// The result of close_and_unlock_file after its work; 0: the real one.
int answer_of_close = 0;

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
    if (memory != nullptr) return open_memory(mode);
    return real<FILE*(const char*, const char*)>("open_and_lock_file")(path, mode);
}
int close_and_unlock_file(FILE* stream) {
    calls.emplace_back("close");
    const int closed = real<int(FILE*)>("close_and_unlock_file")(stream);
    return answer_of_close != 0 ? answer_of_close : closed;
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
    fs::write(prefs::kFile, "");
    ASSERT_EQ(::truncate(prefs::kFile.c_str(), off_t{65} << 20),
              0);  // longer than any file is read
    user_pref p = prefs::defaults();
    EXPECT_EQ(read_user_pref(&p, prefs::kUser), -1);
    EXPECT_EQ(taken(), kRead);
}

// A support library may answer anything: the meaning of the answer is not known.
TEST(Support, TheAnswerOfTheCloseIsNotLookedAt) {
    user_pref p = prefs::defaults();
    for (const int answer : {1, -1}) {
        answer_of_close = answer;
        p.theme = 7;
        EXPECT_EQ(store_user_pref(prefs::kUser, &p), 0);
        EXPECT_EQ(read_user_pref_all(prefs::kUser, &p), 0);
        EXPECT_EQ(p.theme, 7);
    }
    answer_of_close = 0;
    taken();
}

// An appliance's own streams may be of any kind.
TEST(Support, AStreamWithoutADescriptorServes) {
    std::string text = "stale";
    memory = &text;
    user_pref p = prefs::defaults();
    p.theme = 7;
    std::strcpy(p.uname, "Ann");
    fs::write(prefs::kFile, "");  // the file exists, its content is elsewhere
    EXPECT_EQ(store_user_pref(prefs::kUser, &p), 0);
    EXPECT_EQ(taken(), kStored);
    EXPECT_TRUE(text.starts_with("default_sort=1\nnpage=25\n"));
    EXPECT_NE(text.find("\nuname=Ann\n"), std::string::npos);
    EXPECT_TRUE(text.ends_with("\nnotification=0\n"));
    user_pref read = {};
    EXPECT_EQ(read_user_pref(&read, prefs::kUser), 0);
    EXPECT_EQ(std::memcmp(&read, &p, sizeof p), 0);
    text += "npage=500";
    EXPECT_EQ(read_user_pref(&read, prefs::kUser), 0);
    EXPECT_EQ(read.npage, 100);
    memory_is_full = true;
    EXPECT_EQ(store_user_pref(prefs::kUser, &p), -1);
    memory = nullptr;
    memory_is_full = false;
    taken();
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
