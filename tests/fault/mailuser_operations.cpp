#include <tessaly/MailUserId.h>

#include "fault/operations.h"

namespace fault {

namespace {

using Tessaly::TSMailUserId;

long long compose_everything(Output& out) {
    const TSMailUserId id("Ann+Work@Fault.Test");
    TSMailUserId other(Tessaly::MAILBOX_QUARANTINE, "cid@fault.test"), none;
    none.init("nothing");
    other.parse(id.address());
    other.type(id.type());
    out.numbers = {id == other && !(id != other) && !(id < other), id.userType()};
    const std::string all = id.local() + id.tag() + id.domain() + id.tilde_name() + id.homepath() +
                            id.mailpath() + id.prefpath() + id.indexfolder("x") + id.trashfolder() +
                            id.mailfolder("x") + id.local_maildrop("") + id.maildrop("") +
                            id.fname(MUF_PREF_FILE);
    out.set_text(all);
    return 0;
}

// The members that only compose texts.
std::string member_names() {
    std::string names;
    for (const char* member :
         {"TSMailUserId", "~TSMailUserId", "init",           "parse",    "type",     "userType",
          "tilde_name",   "tag",           "domain",         "local",    "address",  "operator==",
          "operator!=",   "operator<",     "homepath",       "mailpath", "prefpath", "indexfolder",
          "trashfolder",  "mailfolder",    "local_maildrop", "maildrop", "fname"}) {
        names += std::string(names.empty() ? "" : " ") + "Tessaly::TSMailUserId::" + member;
    }
    return names;
}

}  // namespace

std::vector<Operation> mailuser_operations() {
    return {
        {.names = "mailuser_filename",
         .run = [](Output& out) -> long long {
             return mailuser_filename(MUF_PREF_FILE, out.text.data(), Output::kRoom, kUser);
         },
         .without_memory = {{0}},
         .traits = kNoCalls},
        {.names = member_names(), .run = compose_everything, .traits = kNoCalls | kThrows},
    };
}

}  // namespace fault
