// A host name that changes while the process runs. The sandbox gives this program the right to do
// that to its own view of it.
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

namespace {

void set_host(const std::string& name) { ASSERT_EQ(::sethostname(name.data(), name.size()), 0); }

bool name_has(const std::string& part) {
    char name[512];
    tsl_gen_mail_unique_name(1, "q", name, sizeof name);
    return std::string(name).find(part) != std::string::npos;
}

TEST(HostName, IsKeptOnceItIsKnown) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can change the host name";
    set_host("");
    EXPECT_TRUE(name_has(".#Q#q"));
    set_host("first");
    EXPECT_TRUE(name_has(".first#Q#q"));
    set_host("second");
    EXPECT_TRUE(name_has(".first#Q#q"));
}

}  // namespace
