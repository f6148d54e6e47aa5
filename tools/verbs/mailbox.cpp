// create, folders - mailboxes and their folders.
#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>

#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/spool/mailbox_job.h"
#include "tools/spool/new_home.h"
#include "tools/verbs/verbs.h"
#include "tools/work/folder.h"
#include "tools/work/folder_list.h"
#include "tools/work/scan.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct CreateArguments {
    string address;
    std::vector<string> folders;
    std::optional<string> owner;
};

// As the mailbox's owner.
int create(const TSMailUserId& id, const std::vector<string>& folders, mode_t umask,
           Report& report) {
    const auto made = [&](const string& name, const string& path, bool created) {
        report.object({{"name", name}, {"path", path}, {"created", created}});
    };
    const FolderMaker maker(umask);
    made("", id.mailpath(), maker.make_roots(id));
    for (const string& name : folders) made(name, id.mailfolder(name), maker.make_folder(id, name));
    return kExitOk;
}

void show_made(Session& session, const Json& made) {
    if (session.json) return session.out.object(made);
    session.out.line(fmt::format("{} {}", made.at("created").get<bool>() ? "created" : "existed",
                                 printable(made.at("path").get<string>())));
}

int run_create(Session& session, const CreateArguments& arguments) {
    const TSMailUserId id = mailbox_of(arguments.address);
    for (const string& name : arguments.folders) check_folder_name(name);
    std::vector<string> folders = system_folders();
    folders.insert(folders.end(), arguments.folders.begin(), arguments.folders.end());
    std::optional<Owner> wanted;
    if (arguments.owner) wanted = owner_named(*arguments.owner);
    const Owner owner = owner_of_made_mailbox(session, id, wanted);
    Job job;
    job.owner = [&](std::size_t) { return owner; };
    job.work = [&](std::size_t, int, Report& report) {
        return create(id, folders, session.callers_umask, report);
    };
    job.show = [&](std::size_t, const Json& made) { show_made(session, made); };
    return run_job(session, job).code;
}

void declare_create(Verb& verb, CreateArguments& arguments) {
    verb.address(arguments.address)
        .texts("FOLDER", arguments.folders, "Folders besides the system's own, as Work/2024")
        .text("--owner", arguments.owner,
              "Whose a home that is made will be, as USER or USER:GROUP (default: the owner of the "
              "domain's directory; where that is root the configured mail user)");
}

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

void add_mailbox_verbs(const VerbGroup& top) {
    top.verb("create", "Create a mailbox and folders in it, as far as they are missing",
             declare_create, run_create);
    top.verb("folders", "Show a mailbox's folders with their messages and sizes", declare_folders,
             run_folders);
}

}  // namespace Tessaly::tool
