// tag - puts the sizes of messages into their names.
#include <fmt/format.h>

#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/verbs/each_mailbox.h"
#include "tools/verbs/verbs.h"
#include "tools/work/folder.h"
#include "tools/work/folder_list.h"
#include "tools/work/tag.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    Choice choice;
    std::optional<string> folder;
    bool dry_run = false;
    std::optional<string> jobs;
};

Tagged taggable_in(const TSMailUserId& id, const string& name) {
    const Untagged untagged = untagged_in(existing_folder(id, name));
    return {untagged.taggable, untagged.stuck.size()};
}

void tag_one(const TSMailUserId& id, const string& name, bool dry_run, Report& report) {
    const Tagged tagged = dry_run ? taggable_in(id, name) : tag_folder(id, name);
    report.object({{"folder", name}, {"tagged", tagged.tagged}, {"left", tagged.left}});
    if (tagged.left == 0) return;
    report.warn(
        fmt::format("{}: {} could not be tagged", printable(name), messages_text(tagged.left)));
}

int tag_all(const TSMailUserId& id, bool dry_run, Report& report) {
    const FolderList folders = list_folders(id);
    for (const auto& [path, error] : folders.unread) {
        report.error(system_failure(printable(path), error));
    }
    std::size_t done = 0;
    for (const string& name : folders.names) {
        try {
            tag_one(id, name, dry_run, report);
        } catch (const Failure& failure) {
            report.error(failure);
        }
        report.progress(++done, folders.names.size());
    }
    return kExitOk;
}

int tag(const TSMailUserId& id, const Arguments& arguments, Report& report) {
    if (!arguments.folder) return tag_all(id, arguments.dry_run, report);
    tag_one(id, *arguments.folder, arguments.dry_run, report);
    return kExitOk;
}

void show(Session& session, const string& mailbox, const Json& object, bool dry_run) {
    const auto tagged = object.at("tagged").get<std::uint64_t>();
    if (tagged == 0 && session.verbosity == 0) return;
    session.out.line(fmt::format("{}{}: {} {}tagged", mailbox,
                                 printable(object.at("folder").get<string>()),
                                 messages_text(tagged), dry_run ? "would be " : ""));
}

int run_tag(Session& session, const Arguments& arguments) {
    if (arguments.folder) check_folder_name(*arguments.folder);
    const Mailboxes mailboxes = mailboxes_of(arguments.choice);
    MailboxJob job;
    job.progress = mailboxes.all ? "tagging messages in mailboxes" : "tagging folders";
    job.jobs = jobs_of(arguments.jobs);
    job.work = [&](const TSMailUserId& id, Report& report) { return tag(id, arguments, report); };
    job.show = [&](const TSMailUserId& id, const Json& object) {
        show(session, lead(mailboxes, id, " "), object, arguments.dry_run);
    };
    return run_on_each(session, mailboxes, job);
}

void declare_tag(Verb& verb, Arguments& arguments) {
    verb.choice(arguments.choice)
        .text("FOLDER", arguments.folder, "The folder, as Work/2024 (default: all)")
        .flag("--dry-run", arguments.dry_run, "Only say how many would be tagged")
        .jobs(arguments.jobs);
}

}  // namespace

void add_tag_verb(const VerbGroup& top) {
    top.verb("tag", "Put the sizes of messages into their names, where they are missing",
             declare_tag, run_tag);
}

}  // namespace Tessaly::tool
