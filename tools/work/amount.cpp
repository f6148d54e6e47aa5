#include "tools/work/amount.h"

#include <fmt/format.h>
#include <fts.h>
#include <tessaly/mailstore.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>

#include "base/store_names.h"
#include "tools/cli/text.h"
#include "tools/work/message_size.h"

namespace Tessaly::tool {

namespace {

constexpr std::uint64_t kMost = INT64_MAX;

bool is_message(const FTSENT& entry) {
    if (entry.fts_info != FTS_F || entry.fts_name[0] == '.' || entry.fts_level == FTS_ROOTLEVEL)
        return false;
    const std::string_view directory = entry.fts_parent->fts_name;
    return directory == names::kCur || directory == names::kNew;
}

void add_message(const FTSENT& entry, Amount& amount) {
    const long long named = get_maildir_msg_len_from_name(entry.fts_name);
    ++amount.messages;
    amount.bytes = std::min(amount.bytes + counted_size(named, *entry.fts_statp), kMost);
}

void add_entry(const FTSENT& entry, Amount& amount) {
    switch (entry.fts_info) {
        case FTS_D:
        case FTS_DP:
            return;
        case FTS_DNR:
        case FTS_ERR:
        case FTS_NS:
            if (amount.error == 0) amount.error = entry.fts_errno;
            return;
        default:
            if (is_message(entry)) return add_message(entry, amount);
            ++amount.others;
    }
}

}  // namespace

Amount amount_below(const std::string& path) {
    Amount amount;
    std::string argument = path;
    char* const paths[] = {argument.data(), nullptr};
    const std::unique_ptr<FTS, int (*)(FTS*)> walk(::fts_open(paths, FTS_PHYSICAL, nullptr),
                                                   ::fts_close);
    if (!walk) {
        amount.error = errno;
        return amount;
    }
    errno = 0;
    while (const FTSENT* entry = ::fts_read(walk.get())) add_entry(*entry, amount);
    if (errno != 0 && amount.error == 0) amount.error = errno;
    return amount;
}

std::string amount_text(const Amount& amount) {
    return fmt::format("{} ({}) and {}", counted(amount.messages, "message"),
                       size_text(amount.bytes), counted(amount.others, "other file"));
}

}  // namespace Tessaly::tool
