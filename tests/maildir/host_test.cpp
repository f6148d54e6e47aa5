// The host name in message file names. Built once for each host name that the sandbox sets.
#include <tessaly/mailstore.h>

#include <gtest/gtest.h>

#include <string>

namespace {

std::string host_in_name() {
    char name[512];
    tsl_gen_mail_unique_name(1, "q", name, sizeof name);
    const std::string text = name;
    const auto begin = text.find('.', text.find('_')) + 1;
    return text.substr(begin, text.rfind("#Q#q,#F#S#1#E") - begin);
}

TEST(HostName, InNames) {
    EXPECT_EQ(host_in_name(), HOST_IN_NAMES);
    EXPECT_EQ(host_in_name(), HOST_IN_NAMES);
}

}  // namespace
