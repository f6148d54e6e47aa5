// The verb families. Each has a file of its own in verbs/, which reads arguments and prints
// results. The code that works on the store is in work/, spool/ and doctor/.
#ifndef TSMAIL_TOOLS_VERBS_VERBS_H
#define TSMAIL_TOOLS_VERBS_VERBS_H

#include "tools/cli/grammar.h"

namespace Tessaly::tool {

void add_paths_verb(const VerbGroup& top);
void add_create_verb(const VerbGroup& top);
void add_folders_verb(const VerbGroup& top);
void add_deliver_verb(const VerbGroup& top);
void add_lmtp_verb(const VerbGroup& top);
void add_policy_verb(const VerbGroup& top);
void add_size_verb(const VerbGroup& top);
void add_recount_verb(const VerbGroup& top);
void add_tag_verb(const VerbGroup& top);
void add_messages_verb(const VerbGroup& top);
void add_usage_verb(const VerbGroup& top);
void add_metrics_verb(const VerbGroup& top);
void add_doctor_verb(const VerbGroup& top);
void add_pref_verbs(const VerbGroup& top);
void add_list_verbs(const VerbGroup& top);
void add_quota_verbs(const VerbGroup& top);
void add_removal_verbs(const VerbGroup& top);
void add_export_verb(const VerbGroup& top);
void add_import_verb(const VerbGroup& top);
void add_message_verbs(const VerbGroup& top);
void add_sweep_verb(const VerbGroup& top);
void add_expire_verb(const VerbGroup& top);
void add_mailbox_group(const VerbGroup& top);
void add_domain_group(const VerbGroup& top);
void add_check_name_verb(const VerbGroup& top);
void add_config_verbs(const VerbGroup& top);

// The families in the order in which help lists them.
// clang-format off
constexpr void (*kVerbFamilies[])(const VerbGroup& top) = {
    add_paths_verb,
    add_create_verb,
    add_folders_verb,
    add_deliver_verb,
    add_lmtp_verb,
    add_policy_verb,
    add_size_verb,
    add_recount_verb,
    add_tag_verb,
    add_messages_verb,
    add_usage_verb,
    add_metrics_verb,
    add_pref_verbs,
    add_list_verbs,
    add_quota_verbs,
    add_removal_verbs,
    add_import_verb,
    add_export_verb,
    add_sweep_verb,
    add_message_verbs,
    add_expire_verb,
    add_mailbox_group,
    add_domain_group,
    add_check_name_verb,
    add_doctor_verb,
    add_config_verbs,
};
// clang-format on

}  // namespace Tessaly::tool

#endif
