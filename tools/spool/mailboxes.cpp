#include "tools/spool/mailboxes.h"

#include <optional>

#include "tools/cli/address.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/folder.h"
#include "tools/work/paths.h"

namespace Tessaly::tool {

namespace {

using std::string;

// The mailbox whose home this directory is, if it is one.
std::optional<TSMailUserId> mailbox_at(const string& home) {
    try {
        const TSMailUserId id = mailbox_of(home.substr(home.rfind('/') + 1));
        if (id.homepath() == home && mailbox_exists(id)) return id;
    } catch (const Failure& failure) {
        // A name that no mailbox can have is somebody else's; what cannot be read is to be said.
        if (failure.code() != kExitData) throw;
    }
    return std::nullopt;
}

}  // namespace

TSMailUserId existing_mailbox(const string& address) {
    TSMailUserId id = mailbox_of(address);
    demand_mailbox(id);
    return id;
}

std::vector<TSMailUserId> chosen_mailboxes(const std::optional<string>& address, bool all) {
    if (all == address.has_value()) {
        throw Failure(kExitUsage, "either an address or --all is wanted");
    }
    return all ? all_mailboxes() : std::vector{existing_mailbox(*address)};
}

std::vector<TSMailUserId> all_mailboxes(const std::optional<string>& domain) {
    std::vector<TSMailUserId> all;
    const auto domains = domain ? std::vector{mailbox_of("any@" + *domain).domain()}
                                : names_in(TSMailUserId::MAIL_PATH_PREFIX);
    for (const string& name : domains) {
        const string directory = in(TSMailUserId::MAIL_PATH_PREFIX, name);
        for (const string& home : names_in(directory)) {
            if (const auto id = mailbox_at(in(directory, home))) all.push_back(*id);
        }
    }
    return all;
}

}  // namespace Tessaly::tool
