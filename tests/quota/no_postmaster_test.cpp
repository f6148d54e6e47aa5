// With a support library that does not have the postmaster's function (built in this folder).
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <tessaly/mailstore.h>

#include "quota/recorded.h"

using namespace quota_test;

TEST(NoPostmaster, ThatOfTheHostsDomainServes) {
    ASSERT_NE(::dlsym(RTLD_DEFAULT, "open_and_lock_file"), nullptr);
    ASSERT_EQ(::dlsym(RTLD_DEFAULT, "cfg_get_postmaster"), nullptr);
    EXPECT_EQ(tsl_send_quota_msg(nullptr, nullptr, nullptr, nullptr), 0);
    const std::string postmaster = "postmaster@" EXPECTED_DOMAIN;
    EXPECT_EQ(sent(), notice(postmaster, postmaster, "(no subject)", ""));
}
