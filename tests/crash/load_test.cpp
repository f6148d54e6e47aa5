// Processes killed at random while they work on one mailbox together.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <tessaly/maillist.h>
#include <tessaly/mailstore.h>
#include <tessaly/userpref.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>

#include "fault/spool.h"
#include "testing/files.h"
#include "testing/processes.h"

using namespace testing_files;
using testing_processes::Child;

namespace fault {

namespace {

constexpr int kWorkers = 4;
constexpr int kKills = 100;
constexpr int kLongestLife = 4000;  // microseconds between two kills
constexpr unsigned kSeed = 20240229;

// The steps that the workers have begun and those that were acknowledged. It outlives the workers.
struct Progress {
    std::atomic<long> begun[kWorkers], done[kWorkers];
};

class SharedProgress {
  public:
    SharedProgress()
        : progress_(new (::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Progress{}) {}
    ~SharedProgress() { ::munmap(progress_, sizeof(Progress)); }
    SharedProgress(const SharedProgress&) = delete;
    SharedProgress& operator=(const SharedProgress&) = delete;
    Progress* operator->() { return progress_; }

  private:
    Progress* progress_;
};

long sum(const std::atomic<long> (&counts)[kWorkers]) {
    long total = 0;
    for (const auto& count : counts) total += count;
    return total;
}

// The workers repeat step(worker, number of the step) at the same time. Again and again one of them
// is killed and another takes its place. observe() runs beside them and must always be true.
void work_and_kill(SharedProgress& progress, const std::function<void(int, long)>& step,
                   const std::function<bool()>& observe) {
    const auto start = [&](int worker) {
        return std::make_unique<Child>([&, worker]() -> int {
            for (;;) {
                step(worker, progress->begun[worker]++);
                ++progress->done[worker];
            }
        });
    };
    std::vector<std::unique_ptr<Child>> workers;
    for (int worker = 0; worker < kWorkers; ++worker) workers.push_back(start(worker));
    std::mt19937 random(kSeed);
    std::printf("seed %u\n", kSeed);
    for (int kill = 0; kill < kKills; ++kill) {
        ::usleep(static_cast<useconds_t>(random() % kLongestLife));
        const auto victim = random() % kWorkers;
        workers[victim].reset();
        ASSERT_TRUE(observe()) << "after " << kill << " kills";
        workers[victim] = start(static_cast<int>(victim));
    }
    workers.clear();
    std::printf("%ld steps begun, %ld done\n", sum(progress->begun), sum(progress->done));
    EXPECT_GT(sum(progress->done), kKills);
}

class KilledUnderLoad : public testing::Test {
  protected:
    void SetUp() override { clear_spool(); }
};

std::vector<std::string> lines_of(const std::string& path) {
    std::istringstream text(read(path));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
}

// The sum and the records have such lengths that none of them crosses a page of the file. A kill
// that comes while the kernel goes from one page to the next cuts the write there.
TEST_F(KilledUnderLoad, SizeFilesSumToWhatWasAcknowledged) {
    constexpr const char* kFile = FAULT_MAIL "/.ts_folder_size";
    constexpr long kFirst = 100000000;
    write(kFile, "1000000000000 100000000\n");
    SharedProgress progress;
    const auto append = [&](int, long) { tsl_append_mail_folder_size(kFile, 1000, 10); };
    const auto sums_are_right = [&] {
        unsigned long long size = 0, count = 0;
        const long done = sum(progress->done);
        const int result = tsl_read_mail_folder_size(kFile, &size, &count);
        const long begun = sum(progress->begun);
        const long records = (static_cast<long>(count) - kFirst) / 10;
        return result == 0 && size == count * 100 + kFirst * 9900 && done <= records &&
               records <= begun;
    };
    work_and_kill(progress, append, sums_are_right);
    EXPECT_TRUE(sums_are_right());
    EXPECT_EQ(list(FAULT_MAIL), std::vector<std::string>{".ts_folder_size"});
}

constexpr const char* kList = FAULT_PREF "/ann~fault.test.whitelist";

// Entries that make lines of 32 bytes, for the same reason as with the size files.
constexpr std::size_t kEntry = 31;

std::string entry_of(int worker, long number) {
    const std::string begin = "worker" + std::to_string(worker) + '-' + std::to_string(number);
    return begin + std::string(kEntry - begin.size(), '@');
}

void add(const std::string& entry) {
    mail_list_add_to(kUser, "whitelist", entry.c_str(), MAIL_LIST_USER);
}

TEST_F(KilledUnderLoad, AddsToAListLoseNothing) {
    constexpr long kMost = 500;  // for each worker, so that the list does not get full
    make_dirs(FAULT_PREF);
    SharedProgress progress;
    work_and_kill(
        progress,
        [](int worker, long number) {
            while (number >= kMost) ::pause();
            add(entry_of(worker, number));
        },
        [] { return true; });
    std::map<std::string, int> found;
    for (const std::string& line : lines_of(kList)) ++found[line];
    EXPECT_TRUE(read(kList).ends_with('\n'));
    for (int worker = 0; worker < kWorkers; ++worker) {
        // In the order of adding. Entries that were being added at a kill may be missing.
        long there = 0;
        for (long number = 0; number < progress->begun[worker]; ++number) {
            const int count = found[entry_of(worker, number)];
            EXPECT_LE(count, 1) << entry_of(worker, number);
            there += count;
            found.erase(entry_of(worker, number));
        }
        EXPECT_GE(there, progress->done[worker]);
    }
    EXPECT_TRUE(found.empty()) << found.begin()->first;
}

// Entries of many lengths, so few that the list lies within one page.
TEST_F(KilledUnderLoad, RewritesBesideAddsLeaveNoTornLineAndNoStrayFile) {
    constexpr long kEntries = 40;
    const auto short_entry = [](int worker, long number) {
        return std::to_string(worker) + '-' +
               std::string(static_cast<std::size_t>(number % kEntries), 'x') + '.';
    };
    std::set<std::string> entries;
    for (int worker = 0; worker < kWorkers; ++worker) {
        for (long number = 0; number < kEntries; ++number)
            entries.insert(short_entry(worker, number));
    }
    const auto all_lines_are_whole = [&] {
        const auto lines = lines_of(kList);
        return std::all_of(lines.begin(), lines.end(),
                           [&](const std::string& line) { return entries.contains(line); });
    };
    const auto step = [&](int worker, long number) {
        std::string entry = short_entry(worker, number);
        if (worker % 2 == 0) return add(entry);
        if (number % 2 == 0) {
            mail_list_modify_from(kUser, "whitelist", entry.data(), 1, MAIL_LIST_USER);
        } else {
            entry[0] = '0';
            mail_list_delete_from(kUser, "whitelist", entry.c_str(), MAIL_LIST_USER);
        }
    };
    make_dirs(FAULT_PREF);
    add(short_entry(0, 0));
    SharedProgress progress;
    work_and_kill(progress, step, all_lines_are_whole);
    EXPECT_TRUE(all_lines_are_whole());
    EXPECT_EQ(mail_list_delete_from(kUser, "whitelist", "nobody", MAIL_LIST_USER), 0);
    const std::vector<std::string> files = {".ann~fault.test.whitelist.lock",
                                            "ann~fault.test.whitelist"};
    EXPECT_EQ(list(FAULT_PREF), files);
}

TEST_F(KilledUnderLoad, ReadersNeverSeeTwoStoresMixed) {
    make_dirs(FAULT_PREF);
    SharedProgress progress;
    const auto store = [](int worker, long) {
        user_pref p;
        get_default_user_pref(&p);
        p.npage = p.timezone = p.page_size = worker;
        for (auto* text : {&p.uname, &p.remail, &p.lang, &p.default_id}) {
            std::memset(*text, 'a' + worker, 250u - 60u * static_cast<unsigned>(worker));
        }
        store_user_pref(kUser, &p);
    };
    // A store that was killed may have left a beginning. Its fields must all be of one store.
    const auto is_of_one_store = [] {
        constexpr int kUnset = -1;
        user_pref p{};
        p.npage = p.timezone = p.page_size = kUnset;
        if (read_user_pref(&p, kUser) != 0) return false;
        std::set<int> workers;
        for (const int field : {p.npage, p.timezone, p.page_size}) {
            if (field != kUnset) workers.insert(field);
        }
        for (const auto* text : {&p.uname, &p.remail, &p.lang, &p.default_id}) {
            for (const char c : std::string(*text)) workers.insert(c - 'a');
        }
        return workers.size() <= 1;
    };
    store(0, 0);
    work_and_kill(progress, store, is_of_one_store);
    EXPECT_TRUE(is_of_one_store());
}

}  // namespace

}  // namespace fault
