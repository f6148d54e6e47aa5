// The mails that the recorder has kept.
#ifndef TSMAIL_TESTS_QUOTA_RECORDED_H
#define TSMAIL_TESTS_QUOTA_RECORDED_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "testing/files.h"

namespace quota_test {

// A shell script that the recorder runs before it reads.
inline const char kRecorderDoes[] = "/tmp/recorder.rc";

// The files whose names end as given: ".args" or ".input", "" for all.
inline std::vector<std::string> recorded(const std::string& ending) {
    std::vector<std::string> files;
    for (const std::string& name : testing_files::list("/tmp")) {
        if (name.starts_with("sent.") && name.ends_with(ending)) files.push_back("/tmp/" + name);
    }
    return files;
}

// The one message that was sent.
inline std::string sent() {
    const auto files = recorded(".input");
    EXPECT_EQ(files.size(), 1U);
    return files.size() == 1 ? testing_files::read(files[0]) : "";
}

inline void forget_sent() {
    for (const std::string& file : recorded("")) ::unlink(file.c_str());
}

inline std::string notice(const std::string& from, const std::string& to,
                          const std::string& subject, const std::string& body) {
    return "From:" + from + "\nTo:" + to + "\nSubject:" + subject +
           "\nX-Tessaly-Quota: 1\nPrecedence: bulk\n\n" + body + "\n.\n";
}

}  // namespace quota_test

#endif
