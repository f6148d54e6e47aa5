// The paths of the test user's quota files. They are written out on purpose and not asked for.
#ifndef TSMAIL_TESTS_QUOTA_HOMES_H
#define TSMAIL_TESTS_QUOTA_HOMES_H

#include <string>

namespace quota_test {

inline const char kUser[] = "Ann+Work@Site.Test";
inline const std::string kHome = "/var/spool/home/site.test/ann~site.test";
inline const std::string kWarning = kHome + "/quota_warning_flag";
inline const std::string kExceeded = kHome + "/quota_exceeded_flag";
inline const std::string kStamp = kHome + "/.alert_notification";

}  // namespace quota_test

#endif
