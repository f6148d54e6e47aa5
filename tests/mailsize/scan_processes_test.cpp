// Scanning, tagging and unlinking while other processes work on the same folder.
#include <gtest/gtest.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <stdexcept>

#include "mailsize/garbage.h"
#include "mailsize/shared.h"
#include "testing/files.h"
#include "testing/processes.h"

namespace files = testing_files;
using testing_processes::Child;

namespace {

constexpr int kTag = 4;
constexpr long long kLength = 10;  // of every message

// Renames disturb the reading of a directory in memory and of one on a disk in different ways, so
// every case is run on both.
std::string new_folder(const char* kind) {
    std::string dir = kind == std::string("disk") ? SCRATCH "/XXXXXX" : "/var/spool/XXXXXX";
    if (::mkdtemp(dir.data()) == nullptr) throw std::runtime_error("mkdtemp");
    files::make_maildir(dir + "/Inbox");
    return dir + "/Inbox";
}
std::string folder;  // that of the present case

long long scan(const char* sub, int flags) { return tsl_get_dir_size(folder.c_str(), sub, flags); }

// A whole scan, whatever the cache says.
long long scan_folder(int flags) {
    ::unlink((folder + "/.ts_cache").c_str());
    return tsl_get_mailbox_size_actual(folder.c_str(), nullptr, flags);
}

void add_message(const std::string& path) { files::write(path, std::string(kLength, 'x')); }

// The name with which a message was delivered, without additions.
std::string base_name(const std::string& name) { return name.substr(0, name.find_first_of(",:")); }

class Together : public testing::TestWithParam<const char*> {
  protected:
    Together() { folder = new_folder(GetParam()); }
    ~Together() override {
        std::filesystem::remove_all(std::filesystem::path(folder).parent_path());
    }
};
INSTANTIATE_TEST_SUITE_P(In, Together, testing::Values("memory", "disk"),
                         [](const auto& where) { return where.param; });

TEST_P(Together, AMessageThatIsTaggedMeanwhileCountsOnce) {
    constexpr int kMessages = 700, kRounds = 4, kMostRounds = 100;
    struct State {
        std::atomic<bool> begun, done;
    };
    int during = 0;
    // On a busy machine a tagger may finish before a scan gets its turn.
    for (int round = 0; round < kRounds || (during <= kRounds && round < kMostRounds); ++round) {
        for (int i = 0; i < kMessages; ++i) add_message(folder + "/cur/" + std::to_string(i));
        const Shared<State> state;
        Child tagger([&] {
            state->begun = true;
            const long long sum = scan("cur", kTag);
            state->done = true;
            return sum == kMessages * kLength ? 0 : 1;
        });
        while (!state->begun) {
        }
        while (!state->done) {
            // By name and by stat, the directory alone and the folder with tmp.
            const int flags = during % 2 == 0 ? 0 : 2;
            ASSERT_LE(round % 2 == 0 ? scan("cur", flags) : scan_folder(flags),
                      kMessages * kLength);
            ++during;
            ::usleep(1000);  // a scan keeps renames waiting
        }
        EXPECT_EQ(tagger.wait(), 0);
        EXPECT_EQ(scan("cur", 0), kMessages * kLength);
        for (const auto& name : files::list(folder + "/cur")) {
            ::unlink((folder + "/cur/" + name).c_str());
        }
    }
    EXPECT_GT(during, kRounds);
}

// One tags the message that the other has just put into tmp. Neither loses it.
TEST_P(Together, TaggersDoNotLoseEachOthersMessages) {
    constexpr int kMessages = 500;
    for (int i = 0; i < kMessages; ++i) add_message(folder + "/cur/" + std::to_string(i));
    EXPECT_EQ(testing_processes::run_together(4,
                                              [](int) {
                                                  for (int i = 0; i < 3; ++i) scan_folder(kTag);
                                                  return 0;
                                              }),
              0);
    EXPECT_EQ(files::list(folder + "/tmp"), std::vector<std::string>{});
    EXPECT_EQ(scan("cur", 0), kMessages * kLength);
}

// The work of the workers of the last test.
struct Counters {
    std::atomic<int> begun, attempts, removed;
    std::atomic<bool> done;
};

// The present name of a message in a directory, "" while it is being moved.
std::string find_message(const std::string& dir, const std::string& base) {
    for (const auto& name : files::list(dir)) {
        if (base_name(name) == base) return name;
    }
    return {};
}

// Delivers messages without a size field, moves them to cur as a reader does, and deletes every
// third when it has its field.
class Worker {
  public:
    Worker(int number, const Shared<Counters>& counters)
        : number_(number), counters_(counters), random_(static_cast<unsigned>(number)) {}

    int run() {
        constexpr int kMessages = 90;
        for (int i = 0; i < kMessages; ++i) {
            const std::string base = std::to_string(number_) + "." + std::to_string(i);
            if (!deliver(base) || (i % 2 == 0 && !move_to_cur(base))) return 1;
            if (i % 3 == 0 && !remove(i % 2 == 0 ? "/cur/" : "/new/", base)) return 1;
        }
        return 0;
    }

  private:
    bool deliver(const std::string& base) {
        ++counters_->begun;
        add_message(folder + "/tmp/" + base);
        return ::rename((folder + "/tmp/" + base).c_str(), (folder + "/new/" + base).c_str()) == 0;
    }
    bool move_to_cur(const std::string& base) {
        return eventually([&] {
            const std::string name = find_message(folder + "/new", base);
            return !name.empty() && ::rename((folder + "/new/" + name).c_str(),
                                             (folder + "/cur/" + name + ":2,S").c_str()) == 0;
        });
    }
    bool remove(const std::string& sub, const std::string& base) {
        return eventually([&] {
            const std::string name = find_message(folder + sub, base);
            if (get_maildir_msg_len_from_name(name.c_str()) < 0) return false;
            ++counters_->attempts;
            const bool removed = tsl_maildir_unlink_mail((folder + sub + name).c_str()) == 0;
            counters_->removed += removed;
            return removed;
        });
    }
    template <class Attempt>
    bool eventually(Attempt attempt) {
        for (int i = 0; i < 20000; ++i) {
            if (attempt()) return true;
            ::usleep(static_cast<useconds_t>(random_() % 500));
        }
        return false;
    }

    int number_;
    const Shared<Counters>& counters_;
    testing_garbage::Random random_;
};

// Scans and tags until the workers are done. 1 if a scan found more than existed.
int scan_on(const Shared<Counters>& counters) {
    int scans = 0;
    for (; !counters->done; ++scans) {
        const int gone = counters->removed;
        // cur first: a message that moves there meanwhile is missed, not found twice.
        long long sum = scan("cur", scans % 2 == 0 ? kTag : 0);
        sum += scan("new", kTag);
        if (sum > (counters->begun - gone) * kLength) return 1;
    }
    return scans > 10 ? 0 : 1;
}

TEST_P(Together, DeliveringMovingTaggingAndDeleting) {
    constexpr int kWorkers = 4, kPerWorker = 90;
    const Shared<Counters> counters;
    Child first([&] { return scan_on(counters); }), second([&] { return scan_on(counters); });
    EXPECT_EQ(testing_processes::run_together(
                  kWorkers, [&](int number) { return Worker(number, counters).run(); }),
              0);
    counters->done = true;
    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(second.wait(), 0);
    scan("cur", kTag);
    scan("new", kTag);

    // Every message exists once, in its place, under a name with its size.
    std::map<std::string, int> found;
    for (const char* sub : {"/cur/", "/new/"}) {
        for (const auto& name : files::list(folder + sub)) {
            ++found[sub + base_name(name)];
            EXPECT_EQ(get_maildir_msg_len_from_name(name.c_str()), kLength) << name;
            EXPECT_EQ(files::read(folder + sub + name).size(), std::size_t{kLength});
        }
    }
    std::map<std::string, int> expected;
    for (int worker = 0; worker < kWorkers; ++worker) {
        for (int i = 0; i < kPerWorker; ++i) {
            const std::string base = std::to_string(worker) + "." + std::to_string(i);
            if (i % 3 != 0) expected[(i % 2 == 0 ? "/cur/" : "/new/") + base] = 1;
        }
    }
    EXPECT_EQ(found, expected);
    EXPECT_EQ(files::list(folder + "/tmp"), std::vector<std::string>{});

    // And the total has every deletion.
    const int deleted = kWorkers * kPerWorker / 3;
    EXPECT_EQ(counters->attempts, deleted);
    tsl_append_mail_folder_size((folder + "/.ts_folder_size").c_str(), 1000 + deleted * kLength,
                                7 + deleted);
    unsigned long long size = 0, count = 0;
    tsl_read_mail_folder_size((folder + "/.ts_folder_size").c_str(), &size, &count);
    EXPECT_EQ(size, 1000U);
    EXPECT_EQ(count, 7U);
}

}  // namespace
