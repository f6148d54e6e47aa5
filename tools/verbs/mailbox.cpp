// create, folders - mailboxes and their folders.
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>

#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/spool/identity.h"
#include "tools/verbs/verbs.h"
#include "tools/work/folder.h"
#include "tools/work/scan.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct CreateArguments {
    string address;
    std::vector<string> folders;
};

struct Made {
    string name;
    string path;
    bool made;
};

void show_made(Session& session, const std::vector<Made>& all) {
    for (const auto& [name, path, made] : all) {
        if (session.json) {
            session.out.object(Json{{"name", name}, {"path", path}, {"created", made}});
        } else {
            session.out.line(fmt::format("{} {}", made ? "created" : "existed", printable(path)));
        }
    }
}

int run_create(Session& session, const CreateArguments& arguments) {
    const TSMailUserId id = mailbox_of(arguments.address);
    for (const string& name : arguments.folders) check_folder_name(name);
    const FolderMaker maker(session.callers_umask);
    std::vector<Made> all;
    const bool roots = maker.make_roots(id);
    all.push_back({"", id.mailpath(), roots});
    const AsOwner owner(session, id);
    std::vector<string> names = system_folders();
    names.insert(names.end(), arguments.folders.begin(), arguments.folders.end());
    for (const string& name : names) {
        all.push_back({name, id.mailfolder(name), maker.make_folder(id, name)});
    }
    show_made(session, all);
    return kExitOk;
}

void declare_create(Verb& verb, CreateArguments& arguments) {
    verb.address(arguments.address)
        .texts("FOLDER", arguments.folders, "Folders besides the system's own, as Work/2024");
}

struct FoldersArguments {
    string address;
};

void show_folder_objects(Session& session, const TSMailUserId& id,
                         const std::vector<FolderRow>& rows) {
    for (const auto& [name, count] : rows) {
        session.out.object(Json{{"folder", name},
                                {"path", id.mailfolder(name)},
                                {"messages", count.messages},
                                {"new", count.fresh},
                                {"bytes", count.bytes}});
    }
}

// "  2024" for Work/2024, which stands below Work.
string indented(const string& name) {
    const auto depth = static_cast<std::size_t>(std::count(name.begin(), name.end(), '/'));
    return string(2 * depth, ' ') + name.substr(name.rfind('/') + 1);
}

std::vector<string> cells(const string& name, const FolderCount& count) {
    return {name, std::to_string(count.messages), std::to_string(count.fresh),
            size_text(count.bytes)};
}

void show_folder_table(Session& session, const std::vector<FolderRow>& rows) {
    Table table(
        {{"folder"}, {"messages", Align::right}, {"new", Align::right}, {"size", Align::right}});
    FolderCount total;
    for (const auto& [name, count] : rows) {
        table.row(cells(indented(name), count));
        total.messages += count.messages;
        total.fresh += count.fresh;
        total.bytes += count.bytes;
    }
    table.row(cells("total", total));
    table.print(session.out);
}

int run_folders(Session& session, const FoldersArguments& arguments) {
    const TSMailUserId id = mailbox_of(arguments.address);
    demand_mailbox(id);
    const AsOwner owner(session, id);
    const std::vector<FolderRow> rows = folders_of(id);
    if (session.json) {
        show_folder_objects(session, id, rows);
    } else {
        show_folder_table(session, rows);
    }
    int worst = kExitOk;
    for (const auto& [name, count] : rows) {
        if (count.error == 0) continue;
        session.error(printable(id.mailfolder(name)) + ": " + error_text(count.error));
        worst = std::max<int>(worst, exit_code_of(count.error));
    }
    return worst;
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
