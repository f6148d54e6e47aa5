#include "tools/lmtp/outcome.h"

#include <algorithm>

#include "tools/cli/text.h"

namespace Tessaly::tool::lmtp {

namespace {

using std::string;

struct Row {
    int code;
    const char* status;
};

// A reply is one line, and no longer than 512 bytes.
string one_line(const string& text) {
    string shown = printable(text);
    std::replace_if(
        shown.begin(), shown.end(), [](char c) { return static_cast<unsigned char>(c) > 126; },
        '?');
    constexpr std::size_t kLongest = 450;
    return shown.substr(0, kLongest);
}

Row row_for(const Failure& failure) {
    if (failure.error() == ENOSPC) return {452, "4.3.1"};
    if (failure.error() == EDQUOT) return {452, "4.2.2"};
    switch (failure.code()) {
        case kExitNoUser:
            return {550, "5.1.1"};
        case kExitData:
            return {553, "5.1.3"};
        default:
            return {451, "4.3.0"};
    }
}

}  // namespace

Reply reply_to(const Failure& failure) {
    const string& status = failure.status();
    if (status == "4.2.2") return {452, status, one_line(failure.what())};
    if (status == "5.2.2") return {552, status, one_line(failure.what())};
    const Row row = row_for(failure);
    return {row.code, row.status, one_line(failure.what())};
}

}  // namespace Tessaly::tool::lmtp
