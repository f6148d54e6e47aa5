// folders - shows the folders of a mailbox.
#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>

#include "tools/cli/text.h"
#include "tools/verbs/each_mailbox.h"
#include "tools/verbs/verbs.h"
#include "tools/work/folder_list.h"
#include "tools/work/scan.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct FoldersArguments {
    Choice choice;
    std::optional<string> jobs;
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

// The folders of one mailbox are indented; among those of many each has its whole name.
class FolderTable {
  public:
    explicit FolderTable(const Mailboxes& mailboxes)
        : mailboxes_(mailboxes),
          table_(with_mailbox<Table::Column>(mailboxes, {"mailbox"},
                                             {{"folder"},
                                              {"messages", Align::right},
                                              {"new", Align::right},
                                              {"size", Align::right}})) {}

    void add(const TSMailUserId& id, const Json& folder) {
        const FolderCount count = count_in(folder);
        const auto name = folder.at("folder").get<string>();
        row(id.address(true), cells(mailboxes_.all ? name : indented(name), count));
        total_.messages += count.messages;
        total_.fresh += count.fresh;
        total_.bytes += count.bytes;
        empty_ = false;
    }
    bool empty() const { return empty_; }
    void print(Output& out) {
        row("", cells("total", total_));
        table_.print(out);
    }

  private:
    void row(const string& address, std::vector<string> cells) {
        table_.row(with_mailbox(mailboxes_, address, std::move(cells)));
    }

    const Mailboxes& mailboxes_;
    Table table_;
    FolderCount total_;
    bool empty_ = true;
};

int run_folders(Session& session, const FoldersArguments& arguments) {
    session.out.end_with_reader();
    const Mailboxes mailboxes = mailboxes_of(arguments.choice);
    FolderTable table(mailboxes);
    MailboxJob job;
    job.progress = mailboxes.all ? "looking at mailboxes" : "";
    job.jobs = jobs_of(arguments.jobs);
    job.work = list_folders_of;
    job.show = [&](const TSMailUserId& id, const Json& folder) { table.add(id, folder); };
    return run_on_each(session, mailboxes, job, [&](int code) {
        if (code == kExitOk || !table.empty()) table.print(session.out);
    });
}

void declare_folders(Verb& verb, FoldersArguments& arguments) {
    verb.choice(arguments.choice).jobs(arguments.jobs);
}

}  // namespace

void add_folders_verb(const VerbGroup& top) {
    top.reader("folders", "Show a mailbox's folders with their messages and sizes", declare_folders,
               run_folders);
}

}  // namespace Tessaly::tool
