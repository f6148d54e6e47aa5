// Many processes on one preference file: a reader never sees a mixture of two stores.
#include <tessaly/support.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <random>
#include <thread>

#include "mailsize/shared.h"
#include "testing/files.h"
#include "testing/processes.h"
#include "userpref/helpers.h"
#include "userpref/literal.h"

namespace fs = testing_files;
using testing_processes::Child;

namespace {

// A record with the same number in every field that can hold it.
user_pref record(int number) {
    user_pref p = prefs::defaults();
    for (const pref_property* row = pref_properties; row->name != nullptr; ++row) {
        std::string text = std::to_string(number);
        // Each has its own length, so that the lines of a mixture do not fit together.
        if (row->type == PREF_TYPE_STRING)
            text += std::string(static_cast<unsigned>(number) % 200, '.');
        if (row->type == PREF_TYPE_BOOL) text = number % 2 == 0 ? "0" : "1";
        prefs::text_to_field(row->type)(prefs::field_of(p, *row), row->size, text.c_str());
    }
    return p;
}

bool is_one_store(const user_pref& p) {
    user_pref wanted = record(p.theme);
    wanted.npage = std::min(wanted.npage, 100);
    return static_cast<bool>(prefs::same(p, wanted));
}

constexpr int kWriters = 8, kStores = 8000;

int store_often(int writer) {
    for (int n = 0; n < kStores; ++n) {
        const user_pref p = record(writer * kStores + n);
        if (store_user_pref(prefs::kUser, &p) != 0) return 1;
    }
    return 0;
}

int read_until(const std::atomic<bool>& stop) {
    int different = 0, last = -1;
    while (!stop) {
        user_pref p;
        if (read_user_pref_all(prefs::kUser, &p) != 0) return 1;
        if (!is_one_store(p)) return 2;
        different += std::exchange(last, p.theme) != p.theme;
    }
    return different > 5 ? 0 : 3;  // a reader that never met a writer proves nothing
}

TEST(Preferences, ReadersSeeWholeStores) {
    const user_pref first = record(0);
    ASSERT_EQ(store_user_pref(prefs::kUser, &first), 0);
    const Shared<std::atomic<bool>> stop;
    Child one([&] { return read_until(*stop.operator->()); });
    Child two([&] { return read_until(*stop.operator->()); });
    EXPECT_EQ(testing_processes::run_together(kWriters, store_often), 0);
    stop->store(true);
    EXPECT_EQ(one.wait(), 0);
    EXPECT_EQ(two.wait(), 0);
}

// The bytes of the file, read under a reader's lock.
std::string locked_text() {
    FILE* stream = open_and_lock_file(prefs::kFile.c_str(), "r");
    EXPECT_NE(stream, nullptr);
    std::string text(8192, '\0');
    text.resize(std::fread(text.data(), 1, text.size(), stream));
    close_and_unlock_file(stream);
    return text;
}

TEST(Preferences, AKilledWriterLeavesABeginningOfItsStore) {
    const user_pref records[] = {record(1), record(2)};
    const std::string texts[] = {literal::text_of(records[0]), literal::text_of(records[1])};
    const unsigned seed = 715;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    ASSERT_EQ(store_user_pref(prefs::kUser, &records[0]), 0);
    for (int round = 0; round < 150; ++round) {
        Child writer([&] {
            for (int n = 0;; ++n) store_user_pref(prefs::kUser, &records[n % 2]);
            return 0;
        });
        std::this_thread::sleep_for(std::chrono::microseconds(500 + random() % 3000));
        const std::string beside = locked_text();
        EXPECT_TRUE(beside == texts[0] || beside == texts[1]) << beside;
        writer.kill(SIGKILL);
        EXPECT_EQ(writer.wait(), 128 + SIGKILL);
        const std::string left = locked_text();
        ASSERT_TRUE(texts[0].starts_with(left) || texts[1].starts_with(left)) << left;
        // A writer was killed between emptying and writing. The next round starts with a whole
        // file.
        ASSERT_EQ(store_user_pref(prefs::kUser, &records[0]), 0);
    }
}

}  // namespace
