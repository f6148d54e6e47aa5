// The verbs below "mailbox". Each has a file of its own.
#ifndef TSMAIL_TOOLS_VERBS_MAILBOX_H
#define TSMAIL_TOOLS_VERBS_MAILBOX_H

#include "tools/cli/grammar.h"

namespace Tessaly::tool {

void add_mailbox_remove(const VerbGroup& group);
void add_mailbox_restore(const VerbGroup& group);
void add_mailbox_rename(const VerbGroup& group);

}  // namespace Tessaly::tool

#endif
