// One line into the record.
#include "helpers.h"

namespace {

// Applies a line in memory of exactly its size, so that a read beyond its end is detected.
int parse(user_pref& p, const std::string& line) {
    const std::vector<char> exact(line.c_str(), line.c_str() + line.size() + 1);
    std::vector<char> given = exact;
    const int answer = parse_pref_line(&p, given.data());
    EXPECT_EQ(given, exact) << "the line was written to";
    return answer;
}

struct Line {
    std::string text;
    int answer;
    bool applied;
};

std::vector<Line> lines_for(const std::string& key) {
    return {
        {key + "=77\n", 0, true},
        {key + "=77", 0, true},
        {key + "=77\r\n", 0, true},
        {key + " =77\n", 0, true},
        {key + "\t=77\n", 0, true},
        {key + " \t \t=77\n", 0, true},
        {key + "=77\nnext=1\n", 0, true},
        {key + "\n", 3, false},
        {key + "\r\n", 3, false},
        {key + "\r=77\n", 3, false},
        {key, 3, false},
        {key + " \n", 0, false},
        {key + " ", 0, false},
        {key + " \r\n", 0, false},
        {key + "\v=77\n", 0, false},
        {key + " x=77\n", 0, false},
        {key + "x=77\n", 0, false},
        {key + "_=77\n", 0, false},
        {key + ":77\n", 0, false},
        {" " + key + "=77\n", 0, false},
        {"\t" + key + "=77\n", 0, false},
        {"#" + key + "=77\n", 0, false},
        {key.substr(0, key.size() - 1) + "=77\n", 0, false},
        {key.substr(1) + "=77\n", 0, false},
        {key.substr(0, 3) + "\n", 0, false},
        {key.substr(0, 2), 0, false},
        {key.substr(0, 1), 0, false},
        {static_cast<char>(key[0] - 'a' + 'A') + key.substr(1) + "=77\n", 0, false},
    };
}

TEST(Line, EveryKeyInEveryForm) {
    const user_pref before = prefs::defaults();
    for (const pref_property* row = pref_properties; row->name != nullptr; ++row) {
        for (const Line& line : lines_for(row->name)) {
            SCOPED_TRACE(line.text);
            user_pref p = before;
            EXPECT_EQ(parse(p, line.text), line.answer);
            std::string wanted = prefs::value_of(before, *row);
            if (line.applied) wanted = row->type == PREF_TYPE_BOOL ? "1" : "77";
            // A line ends only at its NUL. A text keeps what follows a line feed in its middle.
            if (line.applied && row->type == PREF_TYPE_STRING && line.text.ends_with("next=1\n")) {
                wanted = "77\nnext=1";
            }
            EXPECT_EQ(prefs::value_of(p, *row), wanted);
            EXPECT_EQ(parse(p, std::string(row->name) + "=" + prefs::value_of(before, *row)), 0);
            EXPECT_TRUE(prefs::same(p, before)) << "another field changed";
        }
    }
}

TEST(Line, LinesWithoutAKey) {
    const std::pair<const char*, int> rows[] = {
        {"", 0},          {"\n", 3},           {"\n\n", 3},     {"\ndate=1\n", 3},
        {"\r\n", 0},      {" \n", 0},          {"=1\n", 0},     {"# x\n", 0},
        {"a", 0},         {"ab", 0},           {"abc", 0},      {"abcd", 0},
        {"abcde\n", 0},   {"\xff\xfe=1\n", 0}, {"zone=1\n", 0}, {"npage;=1\n", 0},
        {"[npage]\n", 0},
    };
    const user_pref before = prefs::defaults();
    for (const auto& [text, answer] : rows) {
        user_pref p = before;
        EXPECT_EQ(parse(p, text), answer) << text;
        EXPECT_EQ(std::memcmp(&p, &before, sizeof p), 0) << text;
    }
}

TEST(Line, NullIsAnswered) {
    user_pref p = prefs::defaults();
    char line[] = "npage=3\n";
    char empty[] = "\n";
    EXPECT_EQ(parse_pref_line(nullptr, line), 2);
    EXPECT_EQ(parse_pref_line(nullptr, empty), 2);
    EXPECT_EQ(parse_pref_line(&p, nullptr), 2);
    EXPECT_EQ(parse_pref_line(nullptr, nullptr), 2);
    EXPECT_EQ(p.npage, 25);
}

TEST(Line, ALineIsNotClamped) {
    user_pref p = prefs::defaults();
    EXPECT_EQ(parse(p, "npage=500\n"), 0);
    EXPECT_EQ(p.npage, 500);
}

TEST(Line, TheTextBehindTheFirstEqualsSignCounts) {
    user_pref p = prefs::defaults();
    EXPECT_EQ(parse(p, "uname==  a = b  \n"), 0);
    EXPECT_STREQ(p.uname, "=  a = b");
    EXPECT_EQ(parse(p, "npage= 12 = 13\n"), 0);
    EXPECT_EQ(p.npage, 12);
}

}  // namespace
