#include "tools/cli/address.h"

#include <gtest/gtest.h>

#include <string>

#include "tools/cli/failure.h"

using namespace Tessaly::tool;

TEST(Address, NulIsRefusedEverywhere) {
    const std::string nul("a\0b", 3);
    EXPECT_THROW(mailbox_of(nul + "@site.test"), Failure);
    EXPECT_THROW(mailbox_of("/x" + nul, Tessaly::MAILBOX_GIVEN_PATH), Failure);
    EXPECT_FALSE(is_folder_name(nul));
    EXPECT_THROW(check_queue_id(nul), Failure);
    EXPECT_THROW(check_list_name(nul), Failure);
    EXPECT_THROW(check_home_name(nul), Failure);
    EXPECT_NO_THROW(check_list_name("a.b"));
    EXPECT_NO_THROW(check_home_name("Group"));
}

TEST(FolderName, LengthsOnBothSides) {
    EXPECT_TRUE(is_folder_name(std::string(255, 'x')));
    EXPECT_FALSE(is_folder_name(std::string(256, 'x')));
    EXPECT_TRUE(is_folder_name("a/" + std::string(255, 'x') + "/b"));
    EXPECT_FALSE(is_folder_name("a/" + std::string(256, 'x') + "/b"));
}
