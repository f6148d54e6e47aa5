// folders - shows the folders of a mailbox.
#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>

#include "tools/cli/text.h"
#include "tools/spool/mailbox_job.h"
#include "tools/verbs/verbs.h"
#include "tools/work/folder_list.h"
#include "tools/work/scan.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct FoldersArguments {
    string address;
};

// As the mailbox's owner.
int list_folders_of(const TSMailUserId& id, Report& report) {
    const FolderList folders = list_folders(id);
    for (const string& name : folders.names) {
        const string path = id.mailfolder(name);
        const FolderCount count = count_folder(AT_FDCWD, path.c_str());
        report.object({{"folder", name},
                       {"path", path},
                       {"messages", count.messages},
                       {"new", count.fresh},
                       {"bytes", count.bytes}});
        if (count.error != 0) report.error(system_failure(printable(path), count.error));
    }
    for (const auto& [path, error] : folders.unread) {
        report.error(system_failure(printable(path), error));
    }
    return kExitOk;
}

// "  2024" for Work/2024, which stands below Work.
string indented(const string& name) {
    const auto depth = static_cast<std::size_t>(std::count(name.begin(), name.end(), '/'));
    return string(2 * depth, ' ') + name.substr(name.rfind('/') + 1);
}

FolderCount count_in(const Json& folder) {
    FolderCount count;
    count.messages = folder.at("messages").get<std::uint64_t>();
    count.fresh = folder.at("new").get<std::uint64_t>();
    count.bytes = folder.at("bytes").get<std::uint64_t>();
    return count;
}

std::vector<string> cells(const string& name, const FolderCount& count) {
    return {name, std::to_string(count.messages), std::to_string(count.fresh),
            size_text(count.bytes)};
}

void show_folder_table(Session& session, const std::vector<Json>& folders) {
    Table table(
        {{"folder"}, {"messages", Align::right}, {"new", Align::right}, {"size", Align::right}});
    FolderCount total;
    for (const Json& folder : folders) {
        const FolderCount count = count_in(folder);
        table.row(cells(indented(folder.at("folder").get<string>()), count));
        total.messages += count.messages;
        total.fresh += count.fresh;
        total.bytes += count.bytes;
    }
    table.row(cells("total", total));
    table.print(session.out);
}

int run_folders(Session& session, const FoldersArguments& arguments) {
    std::vector<Json> folders;
    MailboxJob job;
    job.work = list_folders_of;
    job.show = [&](const TSMailUserId&, const Json& folder) {
        session.json ? session.out.object(folder) : folders.push_back(folder);
    };
    const JobResult result = run_quietly_on(session, one_mailbox(arguments.address), job);
    const bool table = !session.json && (result.code == kExitOk || !folders.empty());
    if (table) show_folder_table(session, folders);
    return result.code;
}

void declare_folders(Verb& verb, FoldersArguments& arguments) { verb.address(arguments.address); }

}  // namespace

void add_folders_verb(const VerbGroup& top) {
    top.reader("folders", "Show a mailbox's folders with their messages and sizes", declare_folders,
               run_folders);
}

}  // namespace Tessaly::tool
