// Random files and records, compared with the plainest version.
#include <random>

#include "helpers.h"
#include "literal.h"
#include "testing/files.h"

namespace fs = testing_files;

namespace {

class Random {
  public:
    explicit Random(unsigned seed) : engine_(seed) {}
    unsigned below(unsigned n) { return static_cast<unsigned>(engine_() % n); }
    bool one_in(unsigned n) { return below(n) == 0; }
    template <class List>
    const auto& of(const List& list) {
        return list[below(static_cast<unsigned>(std::size(list)))];
    }
    std::string text(std::string_view letters, unsigned longest) {
        std::string text(below(longest + 1), '\0');
        for (char& c : text) c = of(letters);
        return text;
    }

  private:
    std::mt19937 engine_;
};

using namespace std::string_view_literals;
constexpr std::string_view kBytes = "ab=1 9-\t\r\v\0\xff\xe4#"sv;

std::string random_key(Random& random) {
    std::string key = pref_properties[random.below(35)].name;
    if (random.one_in(12)) key.resize(random.below(static_cast<unsigned>(key.size())));
    if (random.one_in(12)) key += random.of("xs_ 1Z\0"sv);
    if (random.one_in(20)) key.insert(0, 1, random.of(" \tx#\0"sv));
    return key;
}

std::string random_value(Random& random) {
    switch (random.below(6)) {
        case 0:
            return std::to_string(static_cast<int>(random.below(400)) - 100);
        case 1:
            return random.text("0123456789", 25);
        case 2:
            return random.text("abc  \t", 20);
        case 3:
            return random.text(kBytes, 30);
        case 4:
            return random.one_in(8) ? random.text("xyz ", 3000) : random.text("xyz ", 300);
        default:
            return random.one_in(2) ? "0" : "1";
    }
}

std::string random_line(Random& random) {
    if (random.one_in(15)) return random.text(kBytes, 40) + "\n";
    std::string line = random_key(random);
    if (random.one_in(5)) line += random.text(" \t", 3);
    if (!random.one_in(10)) line += "=";
    if (!random.one_in(10)) line += random_value(random);
    return line + std::string(random.one_in(5) ? "\r\n" : random.one_in(30) ? "\0\n"sv : "\n");
}

std::string random_file(Random& random) {
    std::string text;
    for (unsigned n = random.below(60); n > 0; --n) text += random_line(random);
    if (!text.empty() && random.one_in(4))
        text.resize(random.below(static_cast<unsigned>(text.size())));
    return text;
}

user_pref by_stream(const std::string& path, const user_pref& start,
                    int (*fill)(user_pref*, FILE*)) {
    user_pref p = start;
    FILE* stream = std::fopen(path.c_str(), "r");
    EXPECT_EQ(fill(&p, stream), 0);
    std::fclose(stream);
    return p;
}

TEST(RandomFiles, AreReadAsLineByLine) {
    const unsigned seed = 711;
    SCOPED_TRACE(seed);
    Random random(seed);
    for (int round = 0; round < 4000; ++round) {
        const std::string text = random_file(random);
        fs::write(prefs::kFile, text);
        user_pref start = prefs::filled_with(round % 2 == 0 ? 0 : 0x5a);
        const user_pref wanted = by_stream(prefs::kFile, start, literal::fill);
        const user_pref filled = by_stream(prefs::kFile, start, fill_user_pref_struct);
        ASSERT_EQ(std::memcmp(&filled, &wanted, sizeof wanted), 0) << round << "\n" << text;
        ASSERT_EQ(read_user_pref(&start, prefs::kUser), 0);
        ASSERT_EQ(std::memcmp(&start, &wanted, sizeof wanted), 0) << round << "\n" << text;
    }
}

TEST(RandomLines, AreAppliedAsKeyByKey) {
    const unsigned seed = 712;
    SCOPED_TRACE(seed);
    Random random(seed);
    for (int round = 0; round < 100000; ++round) {
        const std::string text = random_line(random);
        std::vector<char> line(text.c_str(), text.c_str() + text.size() + 1);
        user_pref wanted = prefs::filled_with(0x5a);
        user_pref p = wanted;
        const int answer = literal::parse_line(&wanted, line.data());
        ASSERT_EQ(parse_pref_line(&p, line.data()), answer) << text;
        ASSERT_EQ(std::memcmp(&p, &wanted, sizeof p), 0) << text;
    }
}

// A record whose lines fit the writer; texts of any bytes but line feeds.
user_pref random_record(Random& random) {
    user_pref p = prefs::filled_with(static_cast<int>(random.below(256)));
    for (const pref_property* row = pref_properties; row->name != nullptr; ++row) {
        auto* field = static_cast<char*>(prefs::field_of(p, *row));
        if (row->type != PREF_TYPE_STRING) {
            for (unsigned i = 0; i < row->size; ++i)
                field[i] = static_cast<char>(random.below(256));
            if (random.one_in(3)) std::memset(field, random.one_in(2) ? 0 : 255, row->size);
            continue;
        }
        const unsigned longest = std::min(row->size - 1, 496u);
        std::string text = random.text(kBytes.substr(0, 10), random.one_in(4) ? longest : 20);
        std::erase(text, '\0');
        std::strcpy(field, text.c_str());
    }
    return p;
}

TEST(RandomRecords, ComeBackButForTheKnownChanges) {
    const unsigned seed = 713;
    SCOPED_TRACE(seed);
    Random random(seed);
    for (int round = 0; round < 3000; ++round) {
        const user_pref p = random_record(random);
        ASSERT_EQ(store_user_pref(prefs::kUser, &p), 0);
        ASSERT_EQ(fs::read(prefs::kFile), literal::text_of(p)) << round;
        user_pref q;
        ASSERT_EQ(read_user_pref_all(prefs::kUser, &q), 0);
        ASSERT_TRUE(prefs::same(q, literal::normalised(p))) << round;
    }
}

// The same with texts that do not fit the writer's line or hold line feeds. The file is that of the
// plain writer, and it is read like any other file.
TEST(RandomRecords, AreWrittenAsByThePlainWriter) {
    const unsigned seed = 714;
    SCOPED_TRACE(seed);
    Random random(seed);
    for (int round = 0; round < 1500; ++round) {
        user_pref p = random_record(random);
        const std::string text = random.text("abc=\n d", 1275);
        std::strcpy(p.alternate_id, text.c_str());
        std::strcpy(p.lang, random.text("theme=1\n", 255).c_str());
        ASSERT_EQ(store_user_pref(prefs::kUser, &p), 0);
        ASSERT_EQ(fs::read(prefs::kFile), literal::text_of(p)) << round;
    }
}

}  // namespace
