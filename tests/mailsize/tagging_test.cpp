// The pass that gives messages their size field.
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "mailsize/garbage.h"
#include "mailsize/literal.h"
#include "testing/files.h"

namespace files = testing_files;

namespace {

constexpr int kTag = 4;
using Names = std::vector<std::string>;

class Tagging : public testing::Test {
  protected:
    files::TempDir dir;
    const std::string folder = dir / "Inbox";
    std::size_t descriptors = files::open_descriptors();

    Tagging() { files::make_maildir(folder); }
    ~Tagging() override { EXPECT_EQ(files::open_descriptors(), descriptors); }

    void message(const std::string& name, std::size_t length, char c = 'x') {
        files::write(folder + "/" + name, std::string(length, c));
    }
    long long tag(const char* sub) { return tsl_get_dir_size(folder.c_str(), sub, kTag); }
    Names list(const std::string& sub) { return files::list(folder + "/" + sub); }
};

TEST_F(Tagging, PutsTheFieldWhereItBelongs) {
    const std::pair<const char*, const char*> rows[] = {
        {"abc:2,S", "abc,#F#S#10#E:2,S"},
        {"abc,U5:2,S", "abc,#F#S#10#E,U5:2,S"},
        {"abc", "abc,#F#S#10#E"},
        {"abc:2,U,U5", "abc:2,#F#S#10#E,U,U5"},  // the first ",U", wherever it stands
        {"a:1:2:2,S", "a:1,#F#S#10#E:2:2,S"},
        {",U", ",#F#S#10#E,U"},
        {":2", ",#F#S#10#E:2"},
        {"x,#F", "x,#F,#F#S#10#E"},
        {"x#E,#F", "x#E,#F,#F#S#10#E"},
        {"x,#F#S#5", "x,#F#S#5,#F#S#10#E"},
        {".dot", ".dot,#F#S#10#E"},
        {"x,#F#E", "x,#F#E"},  // has its field, such as it is
        {"x,#Fy#Ez:2,S", "x,#Fy#Ez:2,S"},
        {"x,#F#S#99#E:2,", "x,#F#S#99#E:2,"},
    };
    for (const char* sub : {"cur", "new"}) {
        for (const auto& [before, after] : rows) {
            message(std::string(sub) + "/" + before, 10);
            tag(sub);
            EXPECT_EQ(list(sub), Names{after}) << before;
            EXPECT_EQ(files::read(folder + "/" + sub + "/" + after), "xxxxxxxxxx");
            ::unlink((folder + "/" + sub + "/" + after).c_str());
        }
    }
    EXPECT_EQ(list("tmp"), Names{});
}

TEST_F(Tagging, CountsAfterwards) {
    message("cur/a", 10);
    message("cur/b,#F#S#100#E", 1);
    EXPECT_EQ(tag("cur"), 110);
    EXPECT_EQ(list("cur"), (Names{"a,#F#S#10#E", "b,#F#S#100#E"}));
    EXPECT_EQ(tsl_get_dir_size(folder.c_str(), "cur", kTag | 2), 11);
    EXPECT_EQ(tag("cur"), 110);  // and again
    EXPECT_EQ(tag("none"), 0);
}

TEST_F(Tagging, AnyEntryThatCanBeLookedAt) {
    files::make_dirs(folder + "/new/sub");
    message("new/sub/inside", 3);
    message("target", 7);
    ASSERT_EQ(::symlink("../target", (folder + "/new/link").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", (folder + "/new/dangling").c_str()), 0);
    const std::string sub =
        "sub,#F#S#" + std::to_string(files::status(folder + "/new/sub").st_size) + "#E";
    tag("new");
    EXPECT_EQ(list("new"), (Names{"dangling", "link,#F#S#7#E", sub}));
    EXPECT_EQ(list("new/" + sub), Names{"inside"});
}

TEST_F(Tagging, ManyEntries) {
    constexpr int kMany = 3000;  // several reads of the directory
    for (int i = 0; i < kMany; ++i) message("cur/" + std::to_string(i), 2);
    EXPECT_EQ(tag("cur"), 2 * kMany);
    const Names names = list("cur");
    EXPECT_EQ(names.size(), static_cast<std::size_t>(kMany));
    for (const auto& name : names) EXPECT_EQ(get_maildir_msg_len_from_name(name.c_str()), 2);
}

TEST_F(Tagging, RandomNames) {
    constexpr unsigned kSeed = 19;
    testing_garbage::Random random(kSeed);
    static const char* const kParts[] = {",U", ":2", ",S", ",#F", "#E", "#S#", "x", ".", ","};
    for (int i = 0; i < 500; ++i) {
        std::string name = "n";
        for (auto n = random() % 6; n > 0; --n) name += kParts[random() % std::size(kParts)];
        message("new/" + name, 12);
        tag("new");
        const auto field = name.find(",#F");
        const bool had = field != name.npos && name.find("#E", field) != name.npos;
        const std::string expected = had ? name : literal::tagged(name, 12);
        ASSERT_EQ(list("new"), Names{expected}) << "seed " << kSeed << ": " << name;
        ::unlink((folder + "/new/" + expected).c_str());
    }
}

// ",#F#S#10#E" takes 10 bytes; 255 is the longest name.
TEST_F(Tagging, ANameThatWouldBeTooLongStays) {
    const std::string fits(245, 'f'), too_long(246, 't'), longest(255, 'l');
    for (const char* sub : {"cur", "new"}) {
        for (const auto& name : {fits, too_long, longest}) {
            message(std::string(sub) + "/" + name, 10);
        }
        EXPECT_EQ(tag(sub), 30);
        EXPECT_EQ(list(sub), (Names{fits + ",#F#S#10#E", longest, too_long}));
    }
    EXPECT_EQ(list("tmp"), Names{});
}

TEST_F(Tagging, ANameThatIsTakenStays) {
    for (const char* sub : {"cur", "new"}) {
        const std::string path = folder + "/" + sub + "/";
        message(std::string(sub) + "/a", 10, 'a');
        message(std::string(sub) + "/a,#F#S#10#E", 10, 'b');
        tag(sub);
        EXPECT_EQ(list(sub), (Names{"a", "a,#F#S#10#E"}));
        EXPECT_EQ(files::read(path + "a"), std::string(10, 'a'));
        EXPECT_EQ(files::read(path + "a,#F#S#10#E"), std::string(10, 'b'));
    }
    EXPECT_EQ(list("tmp"), Names{});
}

TEST_F(Tagging, ANameThatIsTakenInTmpIsLeftAlone) {
    message("cur/a", 10, 'a');
    message("tmp/a", 3, 'b');
    tag("cur");
    EXPECT_EQ(list("cur"), Names{"a,#F#S#10#E"});
    EXPECT_EQ(files::read(folder + "/cur/a,#F#S#10#E"), std::string(10, 'a'));
    EXPECT_EQ(files::read(folder + "/tmp/a"), std::string(3, 'b'));
}

TEST_F(Tagging, WithoutTmpItGoesDirectly) {
    ASSERT_EQ(::rmdir((folder + "/tmp").c_str()), 0);
    message("cur/a", 10);
    EXPECT_EQ(tag("cur"), 10);
    EXPECT_EQ(list("cur"), Names{"a,#F#S#10#E"});
}

// The names that appear in tmp and leave it, in order.
Names moves_through(const std::string& tmp, const std::function<void()>& action) {
    const int watch = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    ::inotify_add_watch(watch, tmp.c_str(), IN_MOVE | IN_CREATE | IN_DELETE);
    action();
    alignas(inotify_event) char buffer[4096];
    const ssize_t length = ::read(watch, buffer, sizeof buffer);
    ::close(watch);
    Names moves;
    for (ssize_t at = 0; at < length;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
        moves.push_back((event->mask & IN_MOVED_TO     ? "to "
                         : event->mask & IN_MOVED_FROM ? "from "
                                                       : "? ") +
                        std::string(event->name));
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
    return moves;
}

TEST_F(Tagging, OnlyCurGoesByWayOfTmp) {
    const std::string tmp = folder + "/tmp";
    message("cur/a", 10);
    EXPECT_EQ(moves_through(tmp, [&] { tag("cur"); }), (Names{"to a", "from a"}));
    message("new/b", 10);
    EXPECT_EQ(moves_through(tmp, [&] { tag("new"); }), Names{});
    // A directory is "cur" by the second argument alone.
    message("cur/c", 10);
    const std::string cur = folder + "/cur";
    EXPECT_EQ(moves_through(tmp, [&] { tsl_get_dir_size(cur.c_str(), nullptr, kTag); }), Names{});
    message("cur/d", 10);
    EXPECT_EQ(moves_through(tmp, [&] { tsl_get_dir_size(folder.c_str(), "./cur", kTag); }),
              Names{});
    EXPECT_EQ(list("cur"), (Names{"a,#F#S#10#E", "c,#F#S#10#E", "d,#F#S#10#E"}));
}

}  // namespace
