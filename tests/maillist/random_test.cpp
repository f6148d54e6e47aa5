// Every operation against its literal version, on random lists.
#include <tessaly/maillist.h>

#include <gtest/gtest.h>

#include <random>

#include "lists.h"
#include "literal.h"
#include "testing/files.h"

using namespace lists;

namespace {

constexpr char kTwin[] = "/tmp/twin";  // the literal version's list

// Mostly a line of the list in some letter case, sometimes any text.
std::string some_text(std::mt19937& random) {
    const auto lines = literal::lines(kTwin);
    std::string text = random_content(random, random() % 5);
    if (!lines.empty() && random() % 4 != 0) text = lines[random() % lines.size()];
    for (char& c : text) {
        if (random() % 3 == 0 && c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return text.c_str();
}

void compare_contents() { ASSERT_EQ(content(), testing_files::read(kTwin)); }

void one_step(std::mt19937& random) {
    const std::string text = some_text(random);
    const char* entry = text.c_str();
    ASSERT_EQ(find(entry), literal::find(kTwin, entry)) << text;
    ASSERT_EQ(match(entry), literal::match(kTwin, entry)) << text;
    for (const bool sorted : {false, true}) {
        const Names listing = names(sorted);
        ASSERT_EQ(listing.result, 0);
        ASSERT_EQ(listing.names, literal::names(kTwin, sorted));
    }
    switch (random() % 4) {
        case 0:
            ASSERT_EQ(add(entry), literal::add(kTwin, entry));
            break;
        case 1: {
            const auto line_no = static_cast<unsigned>(random() % 12);
            std::string plain = text + "\r\n";
            ASSERT_EQ(modify(plain, line_no), 0);
            literal::modify(kTwin, plain.data(), line_no);
            break;
        }
        case 2:
            ASSERT_EQ(drop(entry), 0);
            literal::remove(kTwin, entry);
            break;
        default: {
            const int id = static_cast<int>(random() % 20) - 3;
            ASSERT_EQ(drop_id(id), 0);
            literal::remove_id(kTwin, id);
        }
    }
    compare_contents();
}

void random_walk(unsigned seed, int lists, std::size_t about) {
    std::mt19937 random(seed);
    std::printf("seed %u\n", seed);
    for (int i = 0; i < lists; ++i) {
        const std::string text = random_content(random, random() % about);
        put(text);
        testing_files::write(kTwin, text);
        for (int step = 0; step < 6; ++step) ASSERT_NO_FATAL_FAILURE(one_step(random)) << i;
    }
}

}  // namespace

TEST(RandomLists, SmallOnes) { random_walk(81, 600, 120); }
TEST(RandomLists, OnesOfSomeLines) { random_walk(82, 150, 2000); }
TEST(RandomLists, OnesOfManyReads) { random_walk(83, 3, 150000); }

TEST(RandomPatterns, MatchAsFnmatchDoes) {
    std::mt19937 random(84);
    static constexpr std::string_view kAlphabet = "aAbB@@..**??[[]]!-\\1\xe4\xc4";
    const auto some = [&](std::size_t most) {
        std::string text;
        for (auto n = random() % (most + 1); n > 0; --n)
            text += kAlphabet[random() % kAlphabet.size()];
        return text;
    };
    for (int round = 0; round < 1500; ++round) {
        std::string text;
        for (int i = 0; i < 3; ++i) text += some(4) + '\n';
        put(text);
        for (int i = 0; i < 6; ++i) {
            const std::string address = some(3);
            ASSERT_EQ(match(address.c_str()), literal::match(kPath, address.c_str()))
                << text << " | " << address;
        }
    }
}
