// tag - puts the sizes of messages into their names.
#include <fmt/format.h>

#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/spool/mailbox_job.h"
#include "tools/verbs/verbs.h"
#include "tools/work/folder_list.h"
#include "tools/work/tag.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    string address;
    std::optional<string> folder;
};

void tag_one(const TSMailUserId& id, const string& name, Report& report) {
    try {
        const Tagged tagged = tag_folder(id, name);
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

int tag_all(const TSMailUserId& id, const std::optional<string>& folder, Report& report) {
    const FolderList folders = folders_to_tag(id, folder);
    for (const auto& [path, error] : folders.unread) {
        report.error(system_failure(printable(path), error));
    }
    std::size_t done = 0;
    for (const string& name : folders.names) {
        tag_one(id, name, report);
        report.progress(++done, folders.names.size());
    }
    return kExitOk;
}

void show(Session& session, const Json& object) {
    if (session.json) return session.out.object(object);
    const auto tagged = object.at("tagged").get<std::uint64_t>();
    if (tagged == 0 && session.verbosity == 0) return;
    session.out.line(fmt::format("{}: {} tagged", printable(object.at("folder").get<string>()),
                                 messages_text(tagged)));
}

int run_tag(Session& session, const Arguments& arguments) {
    if (arguments.folder) check_folder_name(*arguments.folder);
    MailboxJob job;
    job.progress = "tagging folders";
    job.work = [&](const TSMailUserId& id, Report& report) {
        return tag_all(id, arguments.folder, report);
    };
    job.show = [&](const TSMailUserId&, const Json& object) { show(session, object); };
    return run_on(session, one_mailbox(arguments.address), job);
}

void declare_tag(Verb& verb, Arguments& arguments) {
    verb.address(arguments.address)
        .text("FOLDER", arguments.folder, "The folder, as Work/2024 (default: all)");
}

}  // namespace

void add_tag_verb(const VerbGroup& top) {
    top.verb("tag", "Put the sizes of messages into their names, where they are missing",
             declare_tag, run_tag);
}

}  // namespace Tessaly::tool
