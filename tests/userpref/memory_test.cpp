// A lack of memory at any point gives the failure answer. Nothing is left open or half done.
#include "helpers.h"
#include "quota/failing_new.h"
#include "testing/files.h"

namespace fs = testing_files;
using quota_test::FailingNew;

namespace {

// Makes the call with the n-th allocation failing, for every n until none fails. `failed` checks
// what must hold after a failure. Returns the number of failures.
template <class Call, class Failed>
int with_every_failure(Call call, Failed failed) {
    for (int n = 0;; ++n) {
        bool fired = false;
        const std::size_t open = fs::open_descriptors();
        const int answer = [&] {
            const FailingNew failing(n);
            const int result = call();
            fired = failing.fired();
            return result;
        }();
        EXPECT_EQ(fs::open_descriptors(), open);
        if (!fired) return n;
        failed(answer);
    }
}

TEST(Memory, StoreFailsAndLeavesTheFile) {
    user_pref p = prefs::defaults();
    ASSERT_EQ(store_user_pref(prefs::kUser, &p), 0);
    const std::string before = fs::read(prefs::kFile);
    p.theme = 3;
    const auto call = [&] { return store_user_pref(prefs::kUser, &p); };
    const int points = with_every_failure(call, [&](int answer) {
        EXPECT_EQ(answer, -1);
        EXPECT_EQ(fs::read(prefs::kFile), before);
    });
    EXPECT_GT(points, 0);
    EXPECT_NE(fs::read(prefs::kFile), before) << "the last call stored";
}

TEST(Memory, ReadFailsAndLeavesTheRecord) {
    // A small file, and one that needs an allocation.
    for (const std::size_t comment : {1u, 200000u}) {
        fs::write(prefs::kFile, "theme=3\n#" + std::string(comment, 'x') + "\nlang=de\n");
        user_pref p = prefs::defaults();
        const user_pref before = p;
        const auto call = [&p] { return read_user_pref(&p, prefs::kUser); };
        const int points = with_every_failure(call, [&](int answer) {
            EXPECT_EQ(answer, -1);
            EXPECT_EQ(std::memcmp(&p, &before, sizeof p), 0);
        });
        EXPECT_GT(points, 0);
        EXPECT_EQ(p.theme, 3);
    }
}

TEST(Memory, TimezoneFallsBack) {
    fs::write(prefs::kFile, "timezone=7\n");
    const auto call = [] { return get_user_pref_lite_timezone(prefs::kUser); };
    const int points = with_every_failure(
        call, [](int answer) { EXPECT_TRUE(answer == 12 || answer == 7) << answer; });
    EXPECT_GT(points, 0);
    EXPECT_EQ(call(), 7);
}

}  // namespace
