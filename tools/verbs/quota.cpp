// quota - flags, kept totals and notices of a mailbox; the share of the archive accounts.
#include "tools/work/quota.h"
#include <fmt/format.h>

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <functional>

#include "base/number.h"
#include "tools/cli/address.h"
#include "tools/cli/progress.h"
#include "tools/cli/text.h"
#include "tools/verbs/each_mailbox.h"
#include "tools/verbs/verbs.h"

namespace Tessaly::tool {

namespace {

using std::string;

constexpr Word kFlagWords[] = {{kWarningFlag, "warning"}, {kExceededFlag, "exceeded"}};

QuotaFlag flag_of(const string& given) {
    return static_cast<QuotaFlag>(word_of(kFlagWords, "flag", given).number);
}

// The time in UTC, as "2024-02-29 12:00:00Z".
string time_text(std::time_t time) {
    struct tm parts;
    char text[64];
    if (::gmtime_r(&time, &parts) == nullptr) return std::to_string(time);
    text[std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%SZ", &parts)] = '\0';
    return text;
}

struct ChoiceArguments {
    Choice choice;
    bool dry_run = false;
};

void declare_choice(Verb& verb, ChoiceArguments& arguments) { verb.choice(arguments.choice); }

void declare_reset(Verb& verb, ChoiceArguments& arguments) {
    verb.choice(arguments.choice)
        .flag("--dry-run", arguments.dry_run, "Only say what would be done");
}

// ---- show

Json json_of(const FlagState& flag) { return {{"set", flag.set}, {"value", flag.value}}; }

Json json_of(const TSMailUserId& id, const QuotaState& state) {
    Json object = {{"address", id.address(true)},
                   {"warning", json_of(state.warning)},
                   {"exceeded", json_of(state.exceeded)}};
    object["bytes"] = state.kept ? Json(state.kept->bytes) : Json(nullptr);
    object["messages"] = state.kept ? Json(state.kept->messages) : Json(nullptr);
    object["dirty"] = state.dirty;
    object["last_notice"] = state.last_notice ? Json(*state.last_notice) : Json(nullptr);
    object["notice_due"] = state.notice_due;
    return object;
}

string flag_text(const Json& flag) {
    if (!flag.at("set").get<bool>()) return "not set";
    return fmt::format("set, value {}", flag.at("value").get<int>());
}

string kept_text(const Json& state) {
    if (state.at("bytes").is_null()) return "unknown";
    const auto bytes = state.at("bytes").get<std::uint64_t>();
    return fmt::format("{} ({} bytes) in {} messages", size_text(bytes), bytes,
                       state.at("messages").get<std::uint64_t>());
}

string last_notice_text(const Json& time) {
    return time.is_null() ? "never" : time_text(time.get<std::time_t>());
}

string yes_or_no(const Json& answer) { return answer.get<bool>() ? "yes" : "no"; }

// What people see of a state.
struct StateText {
    const char* what;
    string (*of)(const Json& state);
};
constexpr StateText kStateTexts[] = {
    {"warning flag", [](const Json& state) { return flag_text(state.at("warning")); }},
    {"exceeded flag", [](const Json& state) { return flag_text(state.at("exceeded")); }},
    {"kept total", kept_text},
    {"to be recounted", [](const Json& state) { return yes_or_no(state.at("dirty")); }},
    {"last notice", [](const Json& state) { return last_notice_text(state.at("last_notice")); }},
    {"notice due", [](const Json& state) { return yes_or_no(state.at("notice_due")); }},
};

void show_state_table(Session& session, const Json& state) {
    Table table({{"what"}, {"state"}});
    for (const StateText& text : kStateTexts) table.row({text.what, text.of(state)});
    table.print(session.out);
}

// The states of many mailboxes, a row for each.
class StateRows {
  public:
    void add(const Json& state) {
        std::vector<string> cells = {state.at("address").get<string>()};
        for (const StateText& text : kStateTexts) cells.push_back(text.of(state));
        table_.row(std::move(cells));
    }
    void print(Output& out) const { table_.print(out); }

  private:
    static std::vector<Table::Column> columns() {
        std::vector<Table::Column> columns = {{"mailbox"}};
        for (const StateText& text : kStateTexts) columns.push_back({text.what});
        return columns;
    }

    Table table_{columns()};
};

int run_show(Session& session, const ChoiceArguments& arguments) {
    session.out.end_with_reader();
    const Mailboxes mailboxes = mailboxes_of(arguments.choice);
    StateRows rows;
    MailboxJob job;
    job.progress = mailboxes.all ? "looking at mailboxes" : "";
    job.work = [](const TSMailUserId& id, Report& report) {
        report.object(json_of(id, quota_state(id)));
        return kExitOk;
    };
    job.show = [&](const TSMailUserId&, const Json& state) {
        mailboxes.all ? rows.add(state) : show_state_table(session, state);
    };
    return run_on_each(session, mailboxes, job, [&](int) {
        if (mailboxes.all) rows.print(session.out);
    });
}

// ---- set, clear, reset

struct FlagArguments {
    Choice choice;
    string flag;
    string value = "1";
    bool dry_run = false;
};

int value_of(const string& text) {
    if (const auto value = base::whole_number<int>(text)) return *value;
    throw Failure(kExitUsage, "\"" + printable(text) + "\" is not a 32-bit number");
}

// Runs work that shows nothing. A dry run says to people what the work would do.
int run_silently(Session& session, const Choice& choice, bool dry_run, const string& what,
                 const std::function<void(const TSMailUserId&)>& work) {
    const Mailboxes mailboxes = mailboxes_of(choice);
    MailboxJob job;
    job.progress = mailboxes.all ? "changing mailboxes" : "";
    job.work = [&](const TSMailUserId& id, Report& report) {
        dry_run ? report.object(Json::object()) : work(id);
        return kExitOk;
    };
    job.show = [&](const TSMailUserId& id, const Json&) {
        if (!session.json) session.out.line(lead(mailboxes, id) + "would " + what);
    };
    return run_on(session, mailboxes, job);
}

int run_set(Session& session, const FlagArguments& arguments) {
    const QuotaFlag flag = flag_of(arguments.flag);
    const int value = value_of(arguments.value);
    return run_silently(session, arguments.choice, arguments.dry_run,
                        fmt::format("set the flag to {}", value),
                        [=](const TSMailUserId& id) { set_quota_flag(id, flag, value); });
}

int run_clear(Session& session, const FlagArguments& arguments) {
    const QuotaFlag flag = flag_of(arguments.flag);
    return run_silently(session, arguments.choice, arguments.dry_run, "remove the flag",
                        [=](const TSMailUserId& id) { clear_quota_flag(id, flag); });
}

void declare_clear(Verb& verb, FlagArguments& arguments) {
    verb.choice(arguments.choice)
        .text("FLAG", arguments.flag, "warning or exceeded")
        .one_of(kFlagWords)
        .required()
        .flag("--dry-run", arguments.dry_run, "Only say what would be done");
}

void declare_set(Verb& verb, FlagArguments& arguments) {
    declare_clear(verb, arguments);
    verb.text("VALUE", arguments.value, "The number in the flag (default: 1)");
}

int run_reset(Session& session, const ChoiceArguments& arguments) {
    return run_silently(session, arguments.choice, arguments.dry_run,
                        "mark the mailbox for a recount", mark_totals_untrusted);
}

// ---- notify

constexpr char kRecent[] = ": the last notice is less than a day old";

struct NotifyArguments {
    Choice choice;
    string subject;
    std::optional<string> body_file;
    std::optional<string> from;
    bool force = false;
    bool dry_run = false;
};

void show_sent(Session& session, const string& mailbox, const TSMailUserId& id, bool sent,
               bool dry_run) {
    if (session.json) {
        return session.out.object(
            Json{{"address", id.address(true)}, {"sent", sent}, {"done", !dry_run}});
    }
    const char* what = dry_run ? "would be sent" : "sent";
    const char* what_not = dry_run ? "would not be sent" : "not sent";
    session.out.line(mailbox + (sent ? what : string(what_not) + kRecent));
}

// A notice to nobody yet, whose texts are checked.
Notice notice_of(const NotifyArguments& arguments) {
    Notice notice = {arguments.from, "", arguments.subject, ""};
    check_notice(notice);
    if (arguments.body_file) notice.body = read_notice_body(*arguments.body_file);
    check_notice(notice);
    return notice;
}

// The worker's part: reports whether a notice is due and, if so, stores its time.
int pass_guard(const TSMailUserId& id, Report& report) {
    const Guard guard = pass_notice_guard(id);
    if (guard.due && !guard.kept) {
        report.warn("the time of this notice could not be kept: the next one is due at once");
    }
    report.object({{"due", guard.due}});
    return kExitOk;
}

int look_at_guard(const TSMailUserId& id, Report& report) {
    report.object({{"due", quota_state(id).notice_due}});
    return kExitOk;
}

// The program makes its own files and chooses their modes.
void send(const Session& session, const Notice& notice) {
    const mode_t own = ::umask(session.callers_umask);
    try {
        send_notice(notice);
    } catch (...) {
        ::umask(own);
        throw;
    }
    ::umask(own);
}

// Notices to one mailbox or to many, one after the other: a mailbox's day is not used up long
// before its notice is sent.
class Notices {
  public:
    Notices(Session& session, const Mailboxes& mailboxes, const NotifyArguments& arguments)
        : session_(session),
          mailboxes_(mailboxes),
          arguments_(arguments),
          notice_(notice_of(arguments)) {}

    int send_all() {
        JobResult result = run({});  // says which domains could not be read
        Progress progress(session_, mailboxes_.all ? "sending notices" : "", 0);
        for (std::size_t n = 0; n < mailboxes_.ids.size(); ++n) {
            const JobResult one = send_to(mailboxes_.ids[n]);
            result = {std::max(result.code, one.code), result.left_out + one.left_out};
            if (mailboxes_.all) progress.advance(n + 1, mailboxes_.ids.size());
        }
        if (mailboxes_.all) show_left_out(session_, result);
        return result.code;
    }

  private:
    // Runs the worker's part for these mailboxes.
    JobResult run(const std::vector<TSMailUserId>& ids) {
        Mailboxes some = {ids, mailboxes_.all};
        if (ids.empty()) some.unread = mailboxes_.unread;
        MailboxJob job;
        job.work = [&](const TSMailUserId& id, Report& report) {
            Notice notice = notice_;
            notice.to = id.address(true);
            check_notice(notice);
            return arguments_.dry_run ? look_at_guard(id, report) : pass_guard(id, report);
        };
        job.show = [&](const TSMailUserId&, const Json& guard) {
            due_ = guard.at("due").get<bool>();
        };
        due_.reset();
        return run_quietly_on(session_, some, job);
    }

    // A forced notice's time is stored only if a notice was due anyway. This process starts the
    // submission program with the caller's rights, as the program may need to gain rights.
    JobResult send_to(const TSMailUserId& id) {
        const JobResult result = run({id});
        if (result.code != kExitOk || !due_) return result;
        const bool wanted = arguments_.force || *due_;
        try {
            notice_.to = id.address(true);
            if (wanted && !arguments_.dry_run) send(session_, notice_);
        } catch (const Failure& failure) {
            session_.error(lead(mailboxes_, id) + failure.what());
            return {failure.code(), 1};
        }
        show_sent(session_, lead(mailboxes_, id), id, wanted, arguments_.dry_run);
        return result;
    }

    Session& session_;
    const Mailboxes& mailboxes_;
    const NotifyArguments& arguments_;
    Notice notice_;
    std::optional<bool> due_;  // nothing if the mailbox vanished
};

int run_notify(Session& session, const NotifyArguments& arguments) {
    const Mailboxes mailboxes = mailboxes_of(arguments.choice);
    // A Failure if there is no such mailbox.
    if (!mailboxes.all) Homes().owner(mailboxes.ids.front());
    Notices notices(session, mailboxes, arguments);
    // Comes before the guard: a notice that cannot be sent must not use up the day's notice.
    demand_submission_program();
    return notices.send_all();
}

void declare_notify(Verb& verb, NotifyArguments& arguments) {
    verb.choice(arguments.choice);
    verb.text("--subject", arguments.subject, "The notice's subject").required();
    verb.text("--body-file", arguments.body_file, "Its text (-: standard input; default: none)")
        .text("--from", arguments.from, "Its sender (default: the local postmaster)")
        .flag("--force", arguments.force, "Send even if the last notice is less than a day old")
        .flag("--dry-run", arguments.dry_run, "Only say whether it would be sent");
}

// ---- archive

struct ArchiveArguments {
    std::optional<string> exclude;
};

void show_archive_object(Session& session, const ArchiveShare& archive) {
    Json accounts = Json::array();
    for (const auto& [name, quota, counts] : archive.accounts) {
        accounts.push_back({{"name", name}, {"quota_gib", quota}, {"counts", counts}});
    }
    session.out.object(Json{{"share_gib", archive.share},
                            {"given_gib", archive.given},
                            {"free_gib", archive.free},
                            {"accounts", accounts}});
}

void show_archive_table(Session& session, const ArchiveShare& archive) {
    Table table({{"archive quota"}, {"GiB", Align::right}});
    table.row({"share", std::to_string(archive.share)});
    for (const auto& [name, quota, counts] : archive.accounts) {
        table.row(
            {fmt::format("  {}{}", name, counts ? "" : " (left out)"), std::to_string(quota)});
    }
    table.row({"given", std::to_string(archive.given)});
    table.row({"free", std::to_string(archive.free)});
    table.print(session.out);
}

int run_archive(Session& session, const ArchiveArguments& arguments) {
    const ArchiveShare archive = archive_share(arguments.exclude);
    if (session.json) {
        show_archive_object(session, archive);
    } else {
        show_archive_table(session, archive);
    }
    return kExitOk;
}

void declare_archive(Verb& verb, ArchiveArguments& arguments) {
    verb.text("--exclude", arguments.exclude, "Leave this account's quota out");
}

}  // namespace

void add_quota_verbs(const VerbGroup& top) {
    const VerbGroup quota = top.group("quota", "Quota flags, notices and the archive share");
    quota.reader("show", "Show a mailbox's flags, kept total and notice state", declare_choice,
                 run_show);
    quota.verb("set", "Set a flag", declare_set, run_set);
    quota.verb("clear", "Remove a flag", declare_clear, run_clear);
    quota.verb("notify", "Mail a notice to the mailbox's user, at most once a day", declare_notify,
               run_notify);
    quota.verb("reset", "Mark a mailbox's kept total as untrusted until a recount", declare_reset,
               run_reset);
    quota.reader("archive", "Show what archive accounts have been given and may still get",
                 declare_archive, run_archive);
}

}  // namespace Tessaly::tool
