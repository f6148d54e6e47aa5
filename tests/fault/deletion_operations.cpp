#include <tessaly/mailstore.h>

#include <cerrno>

#include "fault/operations.h"
#include "testing/files.h"

using namespace testing_files;

namespace fault {

namespace {

constexpr const char* kTree = FAULT_WORK "/tree";

// The results of a failure with one of the injected errors, or with an error that follows from it.
std::vector<Answer> errors() {
    std::vector<Answer> answers;
    for (const int error : {ENOSPC, EIO, EINTR, EMFILE, ENOMEM, EACCES, ENOTEMPTY}) {
        answers.push_back({error});
    }
    return answers;
}

void prepare_mailbox() {
    make_maildir(FAULT_INBOX);
    write(FAULT_INBOX "/cur/1.h,#F#S#3#E:2,S", "one");
    write(FAULT_INBOX "/new/2.h,#F#S#3#E", "two");
    write(FAULT_INBOX "/.ts_cache", "mtime=1,size=6");
}

void prepare_tree() {
    write(FAULT_WORK "/outside", "stays");
    write(FAULT_WORK "/tree/a/b/file", "1");
    write(FAULT_WORK "/tree/a/file", "2");
    write(FAULT_WORK "/tree/file", "3");
}

// Two users who name each other in their address lists.
void prepare_partners() {
    write(FAULT_PREF "/ann~fault.test.primaryaddr", "cid@fault.test\n");
    write(FAULT_PREF "/ann~fault.test.secondaryaddr", "cid@fault.test\n");
    const std::string partner = FAULT_DOMAIN "/cid~fault.test/pref/cid~fault.test";
    write(partner + ".primaryaddr", "eve@fault.test\nann@fault.test\n");
    write(partner + ".secondaryaddr", "ann@fault.test\neve@fault.test\n");
}

}  // namespace

std::vector<Operation> deletion_operations() {
    return {
        {.names = "tsm_is_deleted_user_path",
         .run = [](Output&) -> long long { return tsm_is_deleted_user_path(".deleted.x"); },
         .good = 1,
         .traits = kNoCalls | kAllocatesNothing},
        {.names = "tsm_schedule_for_deletion",
         .prepare =
             [] {
                 prepare_mailbox();
                 make_dirs(FAULT_MAIL "/.deleted.x.Inbox.1/not/empty");
             },
         .run = [](Output&) -> long long {
             return tsm_schedule_for_deletion(FAULT_INBOX, FAULT_MAIL, "x");
         },
         .others = {{-1}},
         .rule = all_or_nothing,
         .traits = kWrites | kAcknowledges | kAllocatesNothing},
        {.names = "tsm_get_deleted_path",
         .prepare = [] { make_dirs(FAULT_MAIL "/.deleted.Inbox.1"); },
         .run = [](Output& out) -> long long {
             return tsm_get_deleted_path(FAULT_INBOX, out.text.data(), Output::kRoom);
         },
         .others =
             [] {
                 Answer first;
                 first.output.set_text(FAULT_MAIL "/.deleted.Inbox.1");
                 return std::vector<Answer>{first, {-1}};
             }(),
         .traits = kAllocatesNothing},
        {.names = "tsm_delete_path",
         .prepare = prepare_tree,
         .run = [](Output&) -> long long { return tsm_delete_path(kTree); },
         .others = errors(),
         .rule = only_removed,
         .traits = kWrites | kAcknowledges},
        {.names = "tsm_delete_maildir",
         .prepare = prepare_mailbox,
         .run = [](Output&) -> long long { return tsm_delete_maildir(FAULT_INBOX); },
         .others =
             [] {
                 auto answers = errors();
                 answers.push_back({-1});
                 return answers;
             }(),
         .rule = only_removed,
         .traits = kWrites | kAcknowledges},
        {.names = "tsm_clean_maildir",
         .prepare = prepare_mailbox,
         .run = [](Output&) -> long long { return tsm_clean_maildir(FAULT_INBOX); },
         .others = {{-1}},
         .rule = only_removed,
         .traits = kWrites | kAllocatesNothing},
        {.names = "tsl_delete_user_file",
         .variant = "file",
         .prepare = [] { write(FAULT_PREF "/ann~fault.test.whitelist", "a\n"); },
         .run = [](Output&) -> long long { return tsl_delete_user_file(MUF_WHITELIST, kUser); },
         .others = {{-1}},
         .rule = only_removed,
         .traits = kWrites},
        {.names = "tsl_delete_user_file",
         .variant = "preferences",
         .prepare = prepare_partners,
         .run = [](Output&) -> long long { return tsl_delete_user_file(MUF_PREFPATH, kUser); },
         .others = {{-1}},
         .rule = in_steps,
         .traits = kWrites},
    };
}

}  // namespace fault
