// tag - puts the sizes of messages into their names.
#include <fmt/format.h>

#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/spool/mailbox_job.h"
#include "tools/verbs/verbs.h"
#include "tools/work/folder.h"
#include "tools/work/folder_list.h"
#include "tools/work/tag.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    string address;
    std::optional<string> folder;
    bool dry_run = false;
};

Tagged taggable_in(const TSMailUserId& id, const string& name) {
    const Untagged untagged = untagged_in(existing_folder(id, name));
    return {untagged.taggable, untagged.stuck.size()};
}

void tag_one(const TSMailUserId& id, const string& name, bool dry_run, Report& report) {
    try {
        const Tagged tagged = dry_run ? taggable_in(id, name) : tag_folder(id, name);
        report.object({{"folder", name}, {"tagged", tagged.tagged}, {"left", tagged.left}});
        if (tagged.left == 0) return;
        report.warn(
            fmt::format("{}: {} could not be tagged", printable(name), messages_text(tagged.left)));
    } catch (const Failure& failure) {
        report.error(failure);
    }
}

FolderList folders_to_tag(const TSMailUserId& id, const std::optional<string>& folder) {
    if (!folder) return list_folders(id);
    FolderList one;
    one.names = {*folder};
    return one;
}

int tag_all(const TSMailUserId& id, const Arguments& arguments, Report& report) {
    const FolderList folders = folders_to_tag(id, arguments.folder);
    for (const auto& [path, error] : folders.unread) {
        report.error(system_failure(printable(path), error));
    }
    std::size_t done = 0;
    for (const string& name : folders.names) {
        tag_one(id, name, arguments.dry_run, report);
        report.progress(++done, folders.names.size());
    }
    return kExitOk;
}

void show(Session& session, const Json& object, bool dry_run) {
    if (session.json) return session.out.object(object);
    const auto tagged = object.at("tagged").get<std::uint64_t>();
    if (tagged == 0 && session.verbosity == 0) return;
    session.out.line(fmt::format("{}: {} {}tagged", printable(object.at("folder").get<string>()),
                                 messages_text(tagged), dry_run ? "would be " : ""));
}

int run_tag(Session& session, const Arguments& arguments) {
    if (arguments.folder) check_folder_name(*arguments.folder);
    MailboxJob job;
    job.progress = "tagging folders";
    job.work = [&](const TSMailUserId& id, Report& report) {
        return tag_all(id, arguments, report);
    };
    job.show = [&](const TSMailUserId&, const Json& object) {
        show(session, object, arguments.dry_run);
    };
    return run_on(session, one_mailbox(arguments.address), job);
}

void declare_tag(Verb& verb, Arguments& arguments) {
    verb.address(arguments.address)
        .text("FOLDER", arguments.folder, "The folder, as Work/2024 (default: all)")
        .flag("--dry-run", arguments.dry_run, "Only say how many would be tagged");
}

}  // namespace

void add_tag_verb(const VerbGroup& top) {
    top.verb("tag", "Put the sizes of messages into their names, where they are missing",
             declare_tag, run_tag);
}

}  // namespace Tessaly::tool
