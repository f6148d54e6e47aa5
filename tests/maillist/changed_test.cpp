// The change flag, with a shared configuration block of this program: its variable replaces the
// support library's.
#include <tessaly/maillist.h>
#include <tessaly/support.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <vector>

void* nCfg_debug_zone = nullptr;

namespace {

constexpr std::size_t kFlagOffset = 280944;

void set_flag(std::vector<char>& block, std::int32_t flag) {
    std::memcpy(block.data() + kFlagOffset, &flag, sizeof flag);
}

}  // namespace

TEST(ListChanged, IsZeroWithoutABlock) {
    nCfg_debug_zone = nullptr;
    EXPECT_EQ(is_mail_list_changed(nullptr), 0);
    EXPECT_EQ(is_mail_list_changed(""), 0);
    EXPECT_EQ(is_mail_list_changed("ann@site.test"), 0);
}

TEST(ListChanged, IsTheFlagAsItStands) {
    std::vector<char> block(kFlagOffset + sizeof(std::int32_t), '\x7f');
    nCfg_debug_zone = block.data();
    for (const std::int32_t flag : {0, 1, -1, 7, INT_MAX, INT_MIN}) {
        set_flag(block, flag);
        EXPECT_EQ(is_mail_list_changed(nullptr), flag);
        EXPECT_EQ(is_mail_list_changed(""), flag);
        EXPECT_EQ(is_mail_list_changed("ann@site.test"), 0);
    }
    std::vector<char> untouched(kFlagOffset + sizeof(std::int32_t), '\x7f');
    set_flag(untouched, INT_MIN);
    EXPECT_EQ(block, untouched);
    nCfg_debug_zone = nullptr;
}
