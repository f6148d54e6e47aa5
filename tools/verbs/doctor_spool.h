// doctor --spool - whether the file system keeps what the store relies on.
#ifndef TSMAIL_TOOLS_VERBS_DOCTOR_SPOOL_H
#define TSMAIL_TOOLS_VERBS_DOCTOR_SPOOL_H

#include <optional>
#include <string>

#include "tools/cli/grammar.h"

namespace Tessaly::tool {

struct SpoolArguments {
    bool spool = false;
    bool wait = false;
    bool probe = false;
    std::optional<std::string> peer;
};

void declare_doctor_spool(Verb& verb, SpoolArguments& arguments);
bool is_about_spool(const SpoolArguments& arguments);
int run_doctor_spool(Session& session, const SpoolArguments& arguments);

}  // namespace Tessaly::tool

#endif
