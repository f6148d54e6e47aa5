// quota - flags, kept totals and notices of a mailbox; the share of the archive accounts.
#include "tools/work/quota.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <nlohmann/json.hpp>

#include <charconv>

#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/spool/identity.h"
#include "tools/verbs/verbs.h"
#include "tools/work/folder.h"

namespace Tessaly::tool {

namespace {

using std::string;

constexpr Word kFlagWords[] = {{kWarningFlag, "warning"}, {kExceededFlag, "exceeded"}};

QuotaFlag flag_of(const string& given) {
    return static_cast<QuotaFlag>(word_of(kFlagWords, "flag", given).number);
}

TSMailUserId existing(const string& address) {
    TSMailUserId id = mailbox_of(address);
    demand_mailbox(id);
    return id;
}

// In UTC, as "2024-02-29 12:00:00Z".
string time_text(std::time_t time) {
    struct tm parts;
    char text[64];
    if (::gmtime_r(&time, &parts) == nullptr) return std::to_string(time);
    text[std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%SZ", &parts)] = '\0';
    return text;
}

struct AddressArguments {
    string address;
};

void declare_address(Verb& verb, AddressArguments& arguments) { verb.address(arguments.address); }

// ---- show

Json json_of(const FlagState& flag) { return {{"set", flag.set}, {"value", flag.value}}; }

template <class Value>
Json json_or_null(bool known, Value value) {
    return known ? Json(value) : Json(nullptr);
}

void show_state_object(Session& session, const TSMailUserId& id, const QuotaState& state) {
    const KeptTotals kept = state.kept.value_or(KeptTotals{});
    session.out.object(Json{
        {"address", id.address(true)},
        {"warning", json_of(state.warning)},
        {"exceeded", json_of(state.exceeded)},
        {"bytes", json_or_null(state.kept.has_value(), kept.bytes)},
        {"messages", json_or_null(state.kept.has_value(), kept.messages)},
        {"dirty", state.dirty},
        {"last_notice", json_or_null(state.last_notice.has_value(),
                                     static_cast<std::int64_t>(state.last_notice.value_or(0)))},
        {"notice_due", state.notice_due}});
}

string flag_text(const FlagState& flag) {
    return flag.set ? fmt::format("set, value {}", flag.value) : "not set";
}

string kept_text(const QuotaState& state) {
    if (!state.kept) return "unknown";
    return fmt::format("{} ({} bytes) in {} messages", size_text(state.kept->bytes),
                       state.kept->bytes, state.kept->messages);
}

void show_state_table(Session& session, const QuotaState& state) {
    Table table({{"what"}, {"state"}});
    table.row({"warning flag", flag_text(state.warning)});
    table.row({"exceeded flag", flag_text(state.exceeded)});
    table.row({"kept total", kept_text(state)});
    table.row({"to be recounted", state.dirty ? "yes" : "no"});
    table.row({"last notice", state.last_notice ? time_text(*state.last_notice) : "never"});
    table.row({"notice due", state.notice_due ? "yes" : "no"});
    table.print(session.out);
}

int run_show(Session& session, const AddressArguments& arguments) {
    const TSMailUserId id = existing(arguments.address);
    const AsOwner owner(session, id);
    const QuotaState state = quota_state(id);
    if (session.json) {
        show_state_object(session, id, state);
    } else {
        show_state_table(session, state);
    }
    return kExitOk;
}

// ---- set, clear, reset

struct FlagArguments {
    string address;
    string flag;
    string value = "1";
};

int value_of(const string& text) {
    int value = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error == std::errc() && rest == end) return value;
    throw Failure(kExitUsage, "\"" + printable(text) + "\" is no number of 32 bits");
}

int run_set(Session& session, const FlagArguments& arguments) {
    const QuotaFlag flag = flag_of(arguments.flag);
    const int value = value_of(arguments.value);
    const TSMailUserId id = existing(arguments.address);
    const AsOwner owner(session, id);
    set_quota_flag(id, flag, value);
    return kExitOk;
}

int run_clear(Session& session, const FlagArguments& arguments) {
    const QuotaFlag flag = flag_of(arguments.flag);
    const TSMailUserId id = existing(arguments.address);
    const AsOwner owner(session, id);
    clear_quota_flag(id, flag);
    return kExitOk;
}

void declare_clear(Verb& verb, FlagArguments& arguments) {
    verb.address(arguments.address)
        .text("FLAG", arguments.flag, "warning or exceeded")
        .one_of(kFlagWords)
        .required();
}

void declare_set(Verb& verb, FlagArguments& arguments) {
    declare_clear(verb, arguments);
    verb.text("VALUE", arguments.value, "The number in the flag (default: 1)");
}

int run_reset(Session& session, const AddressArguments& arguments) {
    const TSMailUserId id = existing(arguments.address);
    const AsOwner owner(session, id);
    mark_totals_untrusted(id);
    return kExitOk;
}

// ---- notify

struct NotifyArguments {
    string address;
    string subject;
    std::optional<string> body_file;
    std::optional<string> from;
    bool force = false;
};

void show_sent(Session& session, const TSMailUserId& id, bool sent) {
    if (session.json) {
        session.out.object(Json{{"address", id.address(true)}, {"sent", sent}});
    } else {
        session.out.line(sent ? "sent" : "not sent: the last notice is less than a day old");
    }
}

Notice notice_of(const TSMailUserId& id, const NotifyArguments& arguments) {
    Notice notice = {arguments.from, id.address(true), arguments.subject, ""};
    check_notice(notice);
    if (arguments.body_file) notice.body = read_notice_body(*arguments.body_file);
    check_notice(notice);
    return notice;
}

// Whether to send. Of a forced notice the time is kept only if one was due anyway.
bool may_notify(const Session& session, const TSMailUserId& id, bool force) {
    const AsOwner owner(session, id);
    const Guard guard = pass_notice_guard(id);
    if (guard.due && !guard.kept) {
        session.warn("the time of this notice could not be kept: the next one is due at once");
    }
    return guard.due || force;
}

int run_notify(Session& session, const NotifyArguments& arguments) {
    const TSMailUserId id = existing(arguments.address);
    const Notice notice = notice_of(id, arguments);
    // Before the guard, so that the day's notice is not used up by one that nobody could send.
    demand_submission_program();
    const bool send = may_notify(session, id, arguments.force);
    if (send) {
        // The program makes files of its own, with modes of its own.
        ::umask(session.callers_umask);
        send_notice(notice);
    }
    show_sent(session, id, send);
    return kExitOk;
}

void declare_notify(Verb& verb, NotifyArguments& arguments) {
    verb.address(arguments.address);
    verb.text("--subject", arguments.subject, "The notice's subject").required();
    verb.text("--body-file", arguments.body_file, "Its text (-: standard input; default: none)")
        .text("--from", arguments.from, "Its sender (default: the local postmaster)")
        .flag("--force", arguments.force, "Send even if the last notice is less than a day old");
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
    quota.verb("show", "Show a mailbox's flags, kept total and notice state", declare_address,
               run_show);
    quota.verb("set", "Set a flag", declare_set, run_set);
    quota.verb("clear", "Remove a flag", declare_clear, run_clear);
    quota.verb("notify", "Mail a notice to the mailbox's user, at most once a day", declare_notify,
               run_notify);
    quota.verb("reset", "Mark a mailbox's kept total as untrusted until a recount", declare_address,
               run_reset);
    quota.verb("archive", "Show what archive accounts have been given and may still get",
               declare_archive, run_archive);
}

}  // namespace Tessaly::tool
