// Many processes on one size file of either kind.
#include <gtest/gtest.h>
#include <signal.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <memory>

#include "mailsize/garbage.h"
#include "mailsize/shared.h"
#include "testing/files.h"
#include "testing/processes.h"

namespace files = testing_files;
using testing_processes::Child;

namespace {

constexpr int kWriters = 8;
// Long records, so that a file is compacted about every 190 appends. Every sum is a multiple of one
// record.
constexpr long long kSize = 1'000'000'000'000;

const std::string kMail = "/var/spool/mail";

// One of the two kinds of size files.
struct Kind {
    const char* name;
    std::string path;
    int (*append)(const char* path, long long size, long long count);
    int (*read)(unsigned long long* size, unsigned long long* count);
};

int read_total(unsigned long long* size, unsigned long long* count) {
    return tsl_get_maildirsize(nullptr, kMail.c_str(), size, count);
}
int read_folder(unsigned long long* size, unsigned long long* count) {
    return tsl_read_mail_folder_size((kMail + "/.ts_folder_size").c_str(), size, count);
}

std::ostream& operator<<(std::ostream& out, const Kind& kind) { return out << kind.name; }

const Kind kKinds[] = {
    {"Mailbox", kMail + "/.maildirsize", tsl_append_maildirsize, read_total},
    {"Folder", kMail + "/.ts_folder_size", tsl_append_mail_folder_size, read_folder},
};

struct Counters {
    std::atomic<long long> begun[kWriters];
    std::atomic<long long> done[kWriters];
    std::atomic<bool> stop;
};

long long total(const std::atomic<long long> (&counts)[kWriters]) {
    long long sum = 0;
    for (const auto& count : counts) sum += count;
    return sum;
}

// Reads until it is told to stop. 1 if a sum was half-written or decreased, lacked an acknowledged
// record, or held one that was not begun.
int watch(const Kind& kind, const Shared<Counters>& shared) {
    unsigned long long last = 0, reads = 0;
    for (; !shared->stop; ++reads) {
        const auto before = static_cast<unsigned long long>(total(shared->done));
        unsigned long long size = 1, count = 1;
        if (kind.read(&size, &count) != 0) return 1;
        const auto after = static_cast<unsigned long long>(total(shared->begun));
        if (size != count * kSize || count < last || count < before || count > after) {
            std::fprintf(stderr, "read %llu %llu after %llu, between %llu and %llu\n", size, count,
                         last, before, after);
            return 1;
        }
        last = count;
    }
    return reads > 10 ? 0 : 1;
}

int append(const Kind& kind, const Shared<Counters>& shared, int writer, int times) {
    for (int i = 0; i < times && !shared->stop; ++i) {
        ++shared->begun[writer];
        kind.append(kind.path.c_str(), kSize, 1);
        ++shared->done[writer];
    }
    return 0;
}

class Sizes : public testing::TestWithParam<Kind> {
  protected:
    // A record before the first append, so that readers find a file.
    Sizes() { files::write(kind.path, ""); }
    // Nothing but the size file is left.
    ~Sizes() override {
        const std::string name = kind.path.substr(kMail.size() + 1);
        EXPECT_EQ(files::list(kMail), std::vector<std::string>{name});
    }
    const Kind& kind = GetParam();
};
INSTANTIATE_TEST_SUITE_P(Of, Sizes, testing::ValuesIn(kKinds),
                         [](const auto& kind) { return std::string(kind.param.name); });

TEST_P(Sizes, AppendsAreAllCountedAndReadersSeeWholeFiles) {
    constexpr int kTimes = 8000;
    const Shared<Counters> shared;
    Child first([&] { return watch(kind, shared); }), second([&] { return watch(kind, shared); });
    const int failed = testing_processes::run_together(
        kWriters, [&](int writer) { return append(kind, shared, writer, kTimes); });
    shared->stop = true;
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(second.wait(), 0);
    unsigned long long size = 0, count = 0;
    EXPECT_EQ(kind.read(&size, &count), 0);
    EXPECT_EQ(count, kWriters * kTimes);
    EXPECT_EQ(size, kWriters * kTimes * kSize);
    EXPECT_LT(files::status(kind.path).st_size, 4096 + 64);
}

TEST_P(Sizes, KilledWritersLoseNothing) {
    constexpr unsigned kSeed = 5;
    constexpr int kKills = 150;
    testing_garbage::Random random(kSeed);
    const Shared<Counters> shared;
    const auto start = [&](int writer) {
        return std::make_unique<Child>(
            [&, writer] { return append(kind, shared, writer, 1 << 30); });
    };
    Child watcher([&] { return watch(kind, shared); });
    std::vector<std::unique_ptr<Child>> writers;
    for (int i = 0; i < kWriters; ++i) writers.push_back(start(i));
    long long in_flight = 0;
    for (int i = 0; i < kKills; ++i) {
        ::usleep(static_cast<useconds_t>(random() % 6000));
        const int victim = static_cast<int>(random() % kWriters);
        auto& writer = writers[static_cast<std::size_t>(victim)];
        writer->kill(SIGKILL);
        EXPECT_EQ(writer->wait(), 128 + SIGKILL);
        writer.reset();
        writer = start(victim);
    }
    shared->stop = true;
    for (const auto& writer : writers) EXPECT_EQ(writer->wait(), 0);
    EXPECT_EQ(watcher.wait(), 0);
    unsigned long long size = 0, count = 0;
    EXPECT_EQ(kind.read(&size, &count), 0);
    const long long done = total(shared->done);
    in_flight = total(shared->begun) - done;
    EXPECT_LE(in_flight, kKills);
    EXPECT_GE(count, static_cast<unsigned long long>(done));
    EXPECT_LE(count, static_cast<unsigned long long>(done + in_flight));
    EXPECT_EQ(size, count * kSize);
    RecordProperty("appended", std::to_string(done));
}

}  // namespace
