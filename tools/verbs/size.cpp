// size, recount, tag, messages - what the folders hold, and what is kept of it.
#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <thread>
#include <tuple>

#include "tools/cli/address.h"
#include "tools/cli/failure.h"
#include "tools/cli/grammar.h"
#include "tools/cli/in_order.h"
#include "tools/cli/progress.h"
#include "tools/cli/text.h"
#include "tools/spool/identity.h"
#include "tools/spool/mailboxes.h"
#include "tools/verbs/verbs.h"
#include "tools/work/folder.h"
#include "tools/work/folder_list.h"
#include "tools/work/mailbox_lock.h"
#include "tools/work/quota_daemon.h"
#include "tools/work/recount.h"
#include "tools/work/scan.h"
#include "tools/work/size_file.h"
#include "tools/work/tag.h"

namespace Tessaly::tool {

namespace {

using std::string;

// ---- size

struct SizeArguments {
    string address;
    std::optional<string> folder;
};

// What is known of the size of a folder or a mailbox.
struct SizeRow {
    string name;
    string path;
    std::optional<KeptTotal> kept;
    std::optional<long long> cached;
    FolderCount actual;

    // Without a record nothing is kept, which is right of what is empty.
    bool agrees() const {
        const KeptTotal total = kept.value_or(KeptTotal());
        return !total.damaged && static_cast<std::uint64_t>(total.bytes) == actual.bytes &&
               static_cast<std::uint64_t>(total.messages) == actual.messages;
    }
};

std::optional<long long> cached_size(const string& folder) {
    char file[PATH_MAX];
    if (folder.size() + NAME_MAX >= sizeof file) return std::nullopt;
    tsl_get_maildir_cache_file(folder.c_str(), file, sizeof file);
    if (::access(file, F_OK) != 0) return std::nullopt;
    return tsl_get_mailbox_size(folder.c_str(), nullptr);
}

SizeRow total_row(const TSMailUserId& id, const std::vector<SizeRow>& rows) {
    SizeRow total = {"", id.mailpath(), kept_total(mailbox_size_file(id)), std::nullopt, {}};
    for (const SizeRow& row : rows) {
        total.actual.messages += row.actual.messages;
        total.actual.bytes += row.actual.bytes;
    }
    return total;
}

bool is_marked(const TSMailUserId& id) {
    return ::access((id.mailpath() + "/.maildirsize.dirty").c_str(), F_OK) == 0;
}

Json json_of(const SizeRow& row) {
    Json object = {{"path", row.path}};
    const bool known = row.kept && !row.kept->damaged;
    object["kept_bytes"] = known ? Json(row.kept->bytes) : Json(nullptr);
    object["kept_messages"] = known ? Json(row.kept->messages) : Json(nullptr);
    object["kept_damaged"] = row.kept && row.kept->damaged;
    object["cached_bytes"] = row.cached ? Json(*row.cached) : Json(nullptr);
    object["actual_bytes"] = row.actual.bytes;
    object["actual_messages"] = row.actual.messages;
    object["agrees"] = row.agrees();
    return object;
}

void show_folder_object(Session& session, const SizeRow& row) {
    Json object = {{"folder", row.name}};
    object.update(json_of(row));
    session.out.object(object);
}

void show_total_object(Session& session, const TSMailUserId& id, const SizeRow& total) {
    Json object = {{"address", id.address(true)}};
    object.update(json_of(total));
    object.erase("cached_bytes");
    object["dirty"] = is_marked(id);
    session.out.object(object);
}

string messages_text(std::uint64_t number) {
    return fmt::format("{} message{}", number, number == 1 ? "" : "s");
}

std::vector<string> cells(const string& name, const SizeRow& row) {
    string kept = "-", kept_messages = "-";
    if (row.kept) {
        kept =
            row.kept->damaged ? "damaged" : size_text(static_cast<std::uint64_t>(row.kept->bytes));
        kept_messages = row.kept->damaged ? "-" : std::to_string(row.kept->messages);
    }
    return {name,
            std::move(kept_messages),
            std::move(kept),
            row.cached ? size_text(static_cast<std::uint64_t>(*row.cached)) : "-",
            std::to_string(row.actual.messages),
            size_text(row.actual.bytes),
            row.agrees() ? "" : "differs"};
}

Table size_table() {
    return Table({{"folder"},
                  {"kept", Align::right},
                  {"size", Align::right},
                  {"cached", Align::right},
                  {"actual", Align::right},
                  {"size", Align::right},
                  {""}});
}

void show_size_table(Session& session, const std::vector<SizeRow>& rows, const SizeRow* total) {
    Table table = size_table();
    for (const SizeRow& row : rows) table.row(cells(row.name, row));
    if (total != nullptr) table.row(cells("mailbox", *total));
    table.print(session.out);
}

int say_unread(const Session& session, const std::vector<FolderList::Unread>& all) {
    int worst = kExitOk;
    for (const auto& [path, error] : all) {
        session.error(printable(path) + ": " + error_text(error));
        worst = std::max<int>(worst, exit_code_of(error));
    }
    return worst;
}

SizeRow add_row(const TSMailUserId& id, const string& name,
                std::vector<FolderList::Unread>& unread) {
    const string path = id.mailfolder(name);
    const FolderCount count = count_folder(AT_FDCWD, path.c_str());
    if (count.error != 0) unread.push_back({path, count.error});
    return {name, path, kept_total(folder_size_file(path)), cached_size(path), count};
}

int size_of_folder(Session& session, const TSMailUserId& id, const string& name) {
    check_folder_name(name);
    existing_folder(id, name);
    std::vector<FolderList::Unread> unread;
    const std::vector<SizeRow> rows = {add_row(id, name, unread)};
    if (session.json) {
        show_folder_object(session, rows.front());
    } else {
        show_size_table(session, rows, nullptr);
    }
    return say_unread(session, unread);
}

int size_of_mailbox(Session& session, const TSMailUserId& id) {
    FolderList folders = list_folders(id);
    std::vector<SizeRow> rows;
    for (const string& name : folders.names) rows.push_back(add_row(id, name, folders.unread));
    const SizeRow total = total_row(id, rows);
    if (session.json) {
        for (const SizeRow& row : rows) show_folder_object(session, row);
        show_total_object(session, id, total);
    } else {
        show_size_table(session, rows, &total);
        if (is_marked(id)) session.out.line("The mailbox is marked for a recount.");
    }
    return say_unread(session, folders.unread);
}

int run_size(Session& session, const SizeArguments& arguments) {
    const TSMailUserId id = existing_mailbox(arguments.address);
    const AsOwner owner(session, id);
    return arguments.folder ? size_of_folder(session, id, *arguments.folder)
                            : size_of_mailbox(session, id);
}

void declare_size(Verb& verb, SizeArguments& arguments) {
    verb.address(arguments.address)
        .text("FOLDER", arguments.folder,
              "The folder, as Work/2024 (default: all, and the mailbox)");
}

// ---- recount

struct RecountArguments {
    std::optional<string> address;
    bool all = false;
    std::optional<string> jobs;
};

string total_text(const KeptTotal& total) {
    if (total.damaged) return "damaged";
    return fmt::format("{} ({})", messages_text(static_cast<std::uint64_t>(total.messages)),
                       size_text(static_cast<std::uint64_t>(total.bytes)));
}

Json json_of(const Recounted& record) {
    Json object;
    object["messages"] = record.after.messages;
    object["bytes"] = record.after.bytes;
    object["messages_before"] = record.before.messages;
    object["bytes_before"] = record.before.bytes;
    object["damaged_before"] = record.before.damaged;
    return object;
}

void show_recount_object(Session& session, const TSMailUserId& id, const MailboxRecount& result) {
    Json object = {{"address", id.address(true)}, {"path", id.mailpath()}};
    object.update(json_of(result.mailbox));
    object["dirty_before"] = result.was_marked;
    object["dirty"] = result.is_marked;
    object["corrected"] = Json::array();
    for (const Recounted& folder : result.folders) {
        if (!folder.changed()) continue;
        Json row = {{"folder", folder.name}};
        row.update(json_of(folder));
        object["corrected"].push_back(row);
    }
    session.out.object(object);
}

string change_text(const string& name, const Recounted& record) {
    const string now = fmt::format("{}: {}", printable(name), total_text(record.after));
    return record.changed() ? fmt::format("{}, kept was {}", now, total_text(record.before)) : now;
}

bool is_corrected(const MailboxRecount& result) {
    return result.was_marked || result.mailbox.changed() ||
           std::any_of(result.folders.begin(), result.folders.end(),
                       [](const Recounted& folder) { return folder.changed(); });
}

void show_recount(Session& session, const TSMailUserId& id, const MailboxRecount& result,
                  bool always) {
    if (session.json) return show_recount_object(session, id, result);
    const string address = id.address(true);
    for (const Recounted& folder : result.folders) {
        if (!folder.changed()) continue;
        session.out.line(change_text(fmt::format("{} {}", address, folder.name), folder));
    }
    if (!always && !is_corrected(result)) return;
    const char* mark = result.was_marked ? "; it was marked" : "";
    session.out.line(change_text(address, result.mailbox) + mark);
}

// What came of a recount.
struct RecountEnd {
    MailboxRecount result;
    std::optional<Failure> failure;
};

RecountEnd recount_as_owner(const Session& session, const TSMailUserId& id, bool alone) {
    try {
        const AsOwner owner(session, id);
        if (!alone) return {recount(id), std::nullopt};
        Progress progress(session, "recounting folders", 0);
        const auto done = [&](std::size_t n, std::size_t of) { progress.advance(n, of); };
        return {recount(id, done), std::nullopt};
    } catch (const Failure& failure) {
        return {{}, failure};
    }
}

int end_recount(Session& session, const TSMailUserId& id, const RecountEnd& end, bool alone,
                QuotaDaemon& daemon) {
    const auto& [result, failure] = end;
    if (failure) {
        if (!alone && !mailbox_exists(id)) return kExitOk;  // removed meanwhile
        session.error(printable(id.address(true)) + ": " + failure->what());
        return failure->code();
    }
    show_recount(session, id, result, alone || session.verbosity > 0);
    if (result.is_marked) {
        session.warn(printable(id.address(true)) + " was marked again meanwhile");
    }
    const long long change = result.mailbox.after.bytes - result.mailbox.before.bytes;
    if (change != 0) daemon.tell(id.mailpath(), change);
    return kExitOk;
}

// The recounts of one run of the program.
class Recounts {
  public:
    Recounts(Session& session, std::vector<TSMailUserId> mailboxes, bool alone)
        : session_(session),
          mailboxes_(std::move(mailboxes)),
          alone_(alone),
          progress_(session, "recounting mailboxes", mailboxes_.size()) {}

    // The worst of their exit codes.
    int run(std::size_t jobs) {
        std::vector<std::size_t> crowded;
        const auto work = [this](std::size_t n) { return count(n); };
        in_order(mailboxes_.size(), jobs, work, [&](std::size_t n, const RecountEnd& end) {
            if (is_crowded(end)) {
                crowded.push_back(n);
            } else {
                take(n, end);
            }
        });
        for (const std::size_t n : crowded) take(n, count(n));
        return worst_;
    }

  private:
    // A mailbox of very many folders may take the file descriptors that another one needed at the
    // same time. That one is counted again by itself, when all others are done.
    bool is_crowded(const RecountEnd& end) const {
        return !alone_ && end.failure && end.failure->error() == EMFILE;
    }
    RecountEnd count(std::size_t n) const {
        return recount_as_owner(session_, mailboxes_[n], alone_);
    }
    void take(std::size_t n, const RecountEnd& end) {
        worst_ = std::max(worst_, end_recount(session_, mailboxes_[n], end, alone_, daemon_));
        if (!alone_) progress_.advance(++done_);
    }

    Session& session_;
    const std::vector<TSMailUserId> mailboxes_;
    const bool alone_;
    QuotaDaemon daemon_;
    Progress progress_;
    std::uint64_t done_ = 0;
    int worst_ = kExitOk;
};

std::size_t jobs_of(const RecountArguments& arguments) {
    constexpr long long kMostJobs = 64;
    if (!arguments.jobs) return std::max(1U, std::thread::hardware_concurrency());
    return static_cast<std::size_t>(whole_number("--jobs", *arguments.jobs, 1, kMostJobs));
}

int run_recount(Session& session, const RecountArguments& arguments) {
    const std::size_t jobs = jobs_of(arguments);
    raise_open_file_limit();
    const auto mailboxes = chosen_mailboxes(arguments.address, arguments.all);
    const int worst = Recounts(session, mailboxes, !arguments.all).run(jobs);
    if (arguments.all && !session.json) {
        session.out.line(fmt::format("{} mailboxes recounted", mailboxes.size()));
    }
    return worst;
}

void declare_recount(Verb& verb, RecountArguments& arguments) {
    verb.text("ADDRESS", arguments.address, "The mailbox, as ann@site.test")
        .flag("--all", arguments.all, "All mailboxes")
        .text("--jobs", arguments.jobs,
              "How many mailboxes at a time, up to 64 (default: one for each processor)");
}

// ---- tag

struct TagArguments {
    string address;
    std::optional<string> folder;
};

void show_tagged(Session& session, const string& name, const Tagged& tagged) {
    if (session.json) {
        session.out.object(
            Json{{"folder", name}, {"tagged", tagged.tagged}, {"left", tagged.left}});
    } else if (tagged.tagged > 0 || session.verbosity > 0) {
        session.out.line(
            fmt::format("{}: {} tagged", printable(name), messages_text(tagged.tagged)));
    }
    if (tagged.left > 0) {
        session.warn(
            fmt::format("{}: {} could not be tagged", printable(name), messages_text(tagged.left)));
    }
}

int tag_one(Session& session, const TSMailUserId& id, const string& name) {
    try {
        show_tagged(session, name, tag_folder(id, name));
        return kExitOk;
    } catch (const Failure& failure) {
        session.error(failure.what());
        return failure.code();
    }
}

int run_tag(Session& session, const TagArguments& arguments) {
    const TSMailUserId id = existing_mailbox(arguments.address);
    if (arguments.folder) check_folder_name(*arguments.folder);
    const AsOwner owner(session, id);
    FolderList folders;
    if (arguments.folder) {
        folders.names = {*arguments.folder};
    } else {
        folders = list_folders(id);
    }
    Progress progress(session, "tagging folders", folders.names.size());
    int worst = say_unread(session, folders.unread);
    std::uint64_t done = 0;
    for (const string& name : folders.names) {
        worst = std::max(worst, tag_one(session, id, name));
        progress.advance(++done);
    }
    return worst;
}

void declare_tag(Verb& verb, TagArguments& arguments) {
    verb.address(arguments.address)
        .text("FOLDER", arguments.folder, "The folder, as Work/2024 (default: all)");
}

// ---- messages

struct MessagesArguments {
    string address;
    string folder;
};

struct DatedMessage {
    std::time_t received, created;
    MessageRow row;
};

std::vector<DatedMessage> dated(const std::vector<MessageRow>& rows) {
    std::vector<DatedMessage> all;
    for (const MessageRow& row : rows) {
        const char* name = row.name.c_str();
        all.push_back({tsl_get_mail_received_date(name), tsl_get_mail_creation_date(name), row});
    }
    std::sort(all.begin(), all.end(), [](const DatedMessage& a, const DatedMessage& b) {
        return std::tie(a.received, a.row.name) < std::tie(b.received, b.row.name);
    });
    return all;
}

// What mail readers put behind the name: letters, as S for seen.
string flags_of(const string& name) {
    constexpr std::string_view kInfo = ":2,";
    const auto at = name.rfind(kInfo);
    return at == string::npos ? "" : name.substr(at + kInfo.size());
}

// Names hold any number; a date has to be one of four digits.
std::optional<std::tm> utc_of(std::time_t time) {
    constexpr std::time_t kEnd = 253402300800;  // of the year 9999
    std::tm parts;
    if (time < 0 || time >= kEnd || ::gmtime_r(&time, &parts) == nullptr) return std::nullopt;
    return parts;
}

Json json_of(std::time_t time) { return utc_of(time) ? Json(time) : Json(nullptr); }

string date_text(std::time_t time) {
    const auto parts = utc_of(time);
    return parts ? fmt::format("{:%Y-%m-%d %H:%M:%S}", *parts) : "-";
}

void show_message_objects(Session& session, const std::vector<DatedMessage>& messages) {
    for (const auto& [received, created, row] : messages) {
        session.out.object(Json{{"name", row.name},
                                {"place", row.is_new ? "new" : "cur"},
                                {"received", json_of(received)},
                                {"created", json_of(created)},
                                {"bytes", row.bytes},
                                {"flags", flags_of(row.name)}});
    }
}

void show_message_table(Session& session, const std::vector<DatedMessage>& messages) {
    Table table({{"received (UTC)"},
                 {"created (UTC)"},
                 {"size", Align::right},
                 {"place"},
                 {"flags"},
                 {"name"}});
    for (const auto& [received, created, row] : messages) {
        table.row({date_text(received), date_text(created), size_text(row.bytes),
                   row.is_new ? "new" : "cur", flags_of(row.name), row.name});
    }
    table.print(session.out);
}

int run_messages(Session& session, const MessagesArguments& arguments) {
    check_folder_name(arguments.folder);
    const TSMailUserId id = existing_mailbox(arguments.address);
    const AsOwner owner(session, id);
    const string path = existing_folder(id, arguments.folder);
    int error = 0;
    const std::vector<DatedMessage> messages = dated(messages_of(path, error));
    if (session.json) {
        show_message_objects(session, messages);
    } else {
        show_message_table(session, messages);
    }
    if (error == 0) return kExitOk;
    session.error(printable(path) + ": " + error_text(error));
    return exit_code_of(error);
}

void declare_messages(Verb& verb, MessagesArguments& arguments) {
    verb.address(arguments.address);
    verb.text("FOLDER", arguments.folder, "The folder, as Work/2024").required();
}

}  // namespace

void add_size_verbs(const VerbGroup& top) {
    top.verb("size", "Compare the sizes that are kept with what the folders hold", declare_size,
             run_size);
    top.verb("recount", "Make the sizes that are kept what the folders hold", declare_recount,
             run_recount);
    top.verb("tag", "Put the sizes of messages into their names, where they are missing",
             declare_tag, run_tag);
    top.verb("messages", "Show the messages of a folder", declare_messages, run_messages);
}

}  // namespace Tessaly::tool
