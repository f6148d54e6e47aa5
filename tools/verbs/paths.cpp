// paths - shows the paths of a mailbox's files.
#include <tessaly/MailUserId.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <functional>
#include <optional>

#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/verbs/verbs.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    string address;
    string type = "user";
    std::optional<string> kind;
};

constexpr Word kTypes[] = {
    {MAILBOX_NONE, "none"},
    {MAILBOX_USER, "user"},
    {MAILBOX_DEAD_LETTER, "dead-letter"},
    {MAILBOX_SYSTEM_ARCHIVE, "system-archive"},
    {MAILBOX_QUARANTINE, "quarantine"},
    {MAILBOX_SECURE_STORE, "secure-store"},
    {MAILBOX_USER_UNTYPED, "user-untyped"},
    {MAILBOX_EXTERNAL, "external"},
    {MAILBOX_GIVEN_PATH, "given-path"},
    {MAILBOX_DIRECT, "direct"},
    {MAILBOX_DEFERRED, "deferred"},
    {MAILBOX_GIVEN_PATH_2, "given-path-2"},
    {MAILBOX_LOCAL, "local"},
};

constexpr Word kKinds[] = {
    {MUF_WHITELIST, "whitelist"},
    {MUF_BLACKLIST, "blacklist"},
    {MUF_BLOCKLIST, "blocklist"},
    {MUF_MAILPATH, "mailpath"},
    {MUF_PREFPATH, "prefpath"},
    {MUF_MAILDROP, "maildrop"},
    {MUF_QUOTA_WARNING_FLAG, "quota-warning-flag"},
    {MUF_QUOTA_EXCEEDED_FLAG, "quota-exceeded-flag"},
    {MUF_BULK, "bulk"},
    {MUF_HOMEPATH, "homepath"},
    {MUF_HOME_PARENT, "home-parent"},
    {MUF_PRIMARY_ADDR, "primary-addr"},
    {MUF_SECONDARY_ADDR, "secondary-addr"},
    {MUF_PREF_FILE, "pref-file"},
    {MUF_INBOX_ARCHIVE, "inbox-archive"},
    {MUF_INBOX, "inbox"},
    {MUF_INBOX_INDEX, "inbox-index"},
    {MUF_BULK_ARCHIVE, "bulk-archive"},
    {MUF_BULK_FOLDER, "bulk-folder"},
    {MUF_BULK_INDEX, "bulk-index"},
    {MUF_QUOTA_EXCEEDED_FLAG_2, "quota-exceeded-flag-2"},
    {MUF_EMAILTAG, "emailtag"},
    {MUF_CALENDARTAG, "calendartag"},
    {MUF_TRASH, "trash"},
    {MUF_CALENDAR, "calendar"},
    {MUF_ALERT_NOTIFICATION, "alert-notification"},
    {MUF_WEBDAV, "webdav"},
    {MUF_LOCAL_HOMEPATH, "local-homepath"},
    {MUF_FAVORLIST, "favorlist"},
};

struct Place {
    const char* name;
    string (*path)(const TSMailUserId&);
};
constexpr Place kPlaces[] = {
    {"home", [](const TSMailUserId& id) { return id.homepath(); }},
    {"mail", [](const TSMailUserId& id) { return id.mailpath(); }},
    {"pref", [](const TSMailUserId& id) { return id.prefpath(); }},
    {"trash", [](const TSMailUserId& id) { return id.trashfolder(); }},
    {"drop", [](const TSMailUserId& id) { return id.maildrop(""); }},
};

// The kind with this word or number; the enumeration's own names, MUF_..., are accepted as well.
const Word& kind_of(string given) {
    if (folded(given).starts_with("muf-")) given.erase(0, 4);
    return word_of(kKinds, "file kind", given);
}

// A type without a layout has no paths: the library throws.
std::optional<string> path_or_none(const std::function<string()>& path) {
    try {
        return path();
    } catch (const Exception&) {
        return std::nullopt;
    }
}

Json json_of(const std::optional<string>& path) { return path ? Json(*path) : Json(nullptr); }

void show_json(Session& session, const TSMailUserId& id, const Word& type) {
    Json object = {{"address", id.address()},
                   {"type", type.word},
                   {"type_number", type.number},
                   {"tilde_name", id.tilde_name()},
                   {"tag", id.tag()}};
    for (const Place& place : kPlaces) {
        object[place.name] = json_of(path_or_none([&] { return place.path(id); }));
    }
    for (const Word& kind : kKinds) {
        object["kinds"][string(kind.word)] =
            json_of(path_or_none([&] { return id.fname(kind.number); }));
    }
    session.out.object(object);
}

void show_tables(Session& session, const string& given, const TSMailUserId& id, const Word& type) {
    session.out.line(
        session.out.strong(printable(fmt::format("{}, mailbox type {}", given, type.word))));
    Table places({{"place"}, {"path"}});
    for (const Place& place : kPlaces) {
        places.row({place.name, path_or_none([&] { return place.path(id); }).value_or("-")});
    }
    places.print(session.out);
    session.out.line("");
    Table kinds({{"kind"}, {"path"}});
    for (const Word& kind : kKinds) {
        kinds.row(
            {string(kind.word), path_or_none([&] { return id.fname(kind.number); }).value_or("-")});
    }
    kinds.print(session.out);
}

void show_one(Session& session, const TSMailUserId& id, const Word& kind) {
    const std::optional<string> path = path_or_none([&] { return id.fname(kind.number); });
    if (session.json) {
        session.out.object(
            Json{{"kind", kind.word}, {"kind_number", kind.number}, {"path", json_of(path)}});
    } else {
        session.out.line(printable(path.value_or("-")));
    }
}

int run_paths(Session& session, const Arguments& arguments) {
    const Word& type = word_of(kTypes, "mailbox type", arguments.type);
    const Word* kind = arguments.kind ? &kind_of(*arguments.kind) : nullptr;
    const TSMailUserId id = mailbox_of(arguments.address, static_cast<MailBoxType>(type.number));
    if (kind != nullptr) {
        show_one(session, id, *kind);
    } else if (session.json) {
        show_json(session, id, type);
    } else {
        show_tables(session, arguments.address, id, type);
    }
    return kExitOk;
}

void declare_paths(Verb& verb, Arguments& arguments) {
    verb.address(arguments.address)
        .text("--type", arguments.type, "The mailbox type, by name or number (default: user)")
        .one_of(kTypes)
        .text("--kind", arguments.kind, "Only the path of this file kind, by name or number")
        .one_of(kKinds);
}

}  // namespace

void add_paths_verb(const VerbGroup& top) {
    top.reader("paths", "Show where everything of a mailbox lies", declare_paths, run_paths);
}

}  // namespace Tessaly::tool
