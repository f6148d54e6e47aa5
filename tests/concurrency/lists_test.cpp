// Many processes on one list.
#include <tessaly/maillist.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <set>

#include "maillist/lists.h"
#include "maillist/literal.h"
#include "mailsize/shared.h"
#include "testing/files.h"
#include "testing/processes.h"

using namespace lists;
using testing_processes::Child;
using testing_processes::run_together;

using Texts = std::vector<std::string>;

namespace {

constexpr int kProcesses = 8;

// Entries make lines of 32 bytes, so that a line does not cross a page of the file. A kill that
// comes while the kernel goes from one page to the next cuts the write there.
std::string entry_of(int process, int i) {
    std::string entry = "entry-" + std::to_string(process) + "-" + std::to_string(i) + "@";
    entry.resize(31, 'x');
    return entry;
}

// Whether the text is one that the processes write: an entry with its number behind and before it.
bool is_whole(const std::string& line) {
    int number = -1, again = -1, length = -1;
    const int read =
        std::sscanf(line.c_str(), "%d,entry-%*[a-z]-%d@site.test%n", &number, &again, &length);
    return read == 2 && length == static_cast<int>(line.size());
}

}  // namespace

// There are many lists because each takes at most 2,048 lines.
namespace {

constexpr int kSteps = 8000, kLists = 125;

struct Counters {
    std::atomic<int> begun[kProcesses], done[kProcesses];
    std::atomic<bool> stop;
};

std::string list_of(int step) { return "list" + std::to_string(step % kLists); }

// Goes on at the place where the process before it was killed.
int add_all(const Shared<Counters>& shared, int process) {
    while (shared->begun[process] < kSteps) {
        const int step = shared->begun[process]++;
        const std::string entry = entry_of(process, step);
        if (mail_list_add_to(nullptr, list_of(step).c_str(), entry.c_str(), MAIL_LIST_SYSTEM) != 0)
            return 1;
        ++shared->done[process];
    }
    return 0;
}

// Looks at the lists again and again. 1 if a line is not one that the processes add.
int watch_lists(const Shared<Counters>& shared) {
    for (int i = 0; !shared->stop; ++i) {
        mail_list_names out;
        mail_list_get_names(nullptr, list_of(i).c_str(), &out, 0, MAIL_LIST_SYSTEM);
        bool whole = true;
        for (std::uint32_t n = 0; n < out.count; ++n) {
            int process = -1, step = -1;
            std::sscanf(out.names[n], "entry-%d-%d@", &process, &step);
            whole = whole && out.names[n] == entry_of(process, step);
        }
        mail_list_free_names(&out);
        if (!whole) return 1;
    }
    return 0;
}

// Checks the lists: each entry is in them once, except for at most one entry for each kill.
void expect_all_but(int missing_at_most) {
    std::set<std::string> found;
    std::size_t lines = 0;
    for (int list = 0; list < kLists; ++list) {
        const Texts texts = literal::lines(kDirectory + ("/list" + std::to_string(list)));
        found.insert(texts.begin(), texts.end());
        lines += texts.size();
    }
    EXPECT_EQ(lines, found.size()) << "an entry stands twice";
    int missing = 0;
    for (int process = 0; process < kProcesses; ++process) {
        for (int step = 0; step < kSteps; ++step)
            missing += !found.contains(entry_of(process, step));
    }
    EXPECT_LE(missing, missing_at_most);
    EXPECT_EQ(found.size() + static_cast<std::size_t>(missing), std::size_t{kProcesses} * kSteps);
    EXPECT_EQ(testing_files::list(kDirectory).size(), std::size_t{2} * kLists) << "stray files";
}

}  // namespace

TEST(Lists, ProcessesThatOnlyAddLoseNothing) {
    testing_files::make_dirs(kDirectory);
    const Shared<Counters> shared;
    Child reader([&] { return watch_lists(shared); });
    EXPECT_EQ(run_together(kProcesses, [&](int process) { return add_all(shared, process); }), 0);
    shared->stop = true;
    EXPECT_EQ(reader.wait(), 0);
    expect_all_but(0);
}

TEST(Lists, KilledAddersLoseNothing) {
    constexpr unsigned kSeed = 17;
    SCOPED_TRACE(kSeed);
    std::mt19937 random(kSeed);
    testing_files::make_dirs(kDirectory);
    const Shared<Counters> shared;
    Child reader([&] { return watch_lists(shared); });
    std::vector<std::unique_ptr<Child>> adders(kProcesses);
    const auto start = [&](std::size_t i) {
        adders[i] =
            std::make_unique<Child>([&, i] { return add_all(shared, static_cast<int>(i)); });
    };
    for (std::size_t i = 0; i < adders.size(); ++i) start(i);
    int kills = 0;
    for (; kills < 100; ++kills) {
        ::usleep(static_cast<useconds_t>(random() % 10000));
        const auto victim = random() % adders.size();
        adders[victim].reset();
        start(victim);
    }
    for (const auto& adder : adders) EXPECT_EQ(adder->wait(), 0);
    shared->stop = true;
    EXPECT_EQ(reader.wait(), 0);
    expect_all_but(kills);
}

// Additions, rewrites of every kind and readers at the same time: entries may be lost, but every
// line is whole at any moment, and no file is left behind.
TEST(Lists, ProcessesThatRewriteTearNothing) {
    constexpr int kLines = 400;
    std::string text;
    for (int i = 0; i < kLines; ++i) {
        const std::string number = std::to_string(i % 50);
        text += number + ",entry-" + std::string(40, 'x') + "-" + number + "@site.test\n";
    }
    put(text);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    EXPECT_EQ(run_together(kProcesses,
                           [end](int process) {
                               int work = 0;
                               for (int i = 0; std::chrono::steady_clock::now() < end; ++i) {
                                   const std::string number = std::to_string(i % 50);
                                   const std::string entry = number + ",entry-" +
                                                             char('a' + process) + "-" + number +
                                                             "@site.test";
                                   if (process < 2) {
                                       if (add(entry.c_str()) == -1) return 1;
                                   } else if (process < 4) {
                                       if (drop(entry.c_str()) != 0) return 2;
                                   } else if (process < 6) {
                                       if (modify(entry, static_cast<unsigned>(i) % 300) != 0)
                                           return 3;
                                   } else {
                                       const Names listing = names(i % 2 == 0);
                                       if (listing.result != 0) return 4;
                                       for (const std::string& line : listing.names) {
                                           if (!is_whole(line)) return 5;
                                       }
                                       if (listing.names.size() < 100) return 6;
                                   }
                                   ++work;
                               }
                               return work > 10 ? 0 : 7;
                           }),
              0);
    for (const std::string& line : literal::lines(kPath)) EXPECT_TRUE(is_whole(line)) << line;
    EXPECT_EQ(testing_files::list(kDirectory), (Texts{".test.lock", "test"}));
}
