#include <tessaly/MailUserId.h>

#include <climits>

#include "binding.h"

namespace tsmail_python {

namespace {

using Tessaly::MailBoxType;
using Tessaly::TSMailUserId;
using Class = py::class_<TSMailUserId>;

// A text of the value, under a property's name.
template <class Get>
void property(Class& type, const char* name, const char* summary, CName from, Get get) {
    type.def_property_readonly(
        name, [get](const TSMailUserId& id) { return python_text(get(id)); },
        documented(summary, {from}).c_str());
}

// A path that a name leads to.
template <class Get>
void path_method(Class& type, const char* name, const char* summary, CName from, Get get) {
    type.def(
        name,
        [get](const TSMailUserId& id, const Text& text) { return python_text(get(id, text)); },
        documented(summary, {from}).c_str(), "name"_a = Text{});
}

void add_making(Class& type) {
    type.def(py::init<>(), documented("No mailbox.", {"TSMailUserId::TSMailUserId"}).c_str());
    type.def(py::init([](const Text& text) { return TSMailUserId(text.bytes); }),
             documented("An ordinary user's mailbox.", {"TSMailUserId::TSMailUserId"}).c_str(),
             "text"_a);
    type.def(py::init([](const Text& text, unsigned kind) {
                 return TSMailUserId(static_cast<MailBoxType>(kind), text.bytes);
             }),
             documented("A mailbox of any type.", {"TSMailUserId::TSMailUserId"}).c_str(), "text"_a,
             "type"_a);
    // Behind the texts, which are asked for far more often.
    type.def(py::init<const TSMailUserId&>(), "The same mailbox.", "other"_a);
    // These three change the value; the package calls them on fresh copies only, so that a mailbox
    // that threads share never changes.
    type.def(
        "_init", [](TSMailUserId& id, const Text& text) { id.init(text.bytes); },
        documented("Fills the fields by the type.", {"TSMailUserId::init"}).c_str());
    type.def(
        "_parse", [](TSMailUserId& id, const Text& text) { id.parse(text.bytes); },
        documented("Splits an address.", {"TSMailUserId::parse"}).c_str());
    type.def(
        "_set_type",
        [](TSMailUserId& id, unsigned kind) { id.type(static_cast<MailBoxType>(kind)); },
        documented("Sets the type only.", {"TSMailUserId::type"}).c_str());
}

void add_fields(Class& type) {
    type.def_property_readonly(
        "type_number", [](const TSMailUserId& id) { return unsigned{id.type()}; },
        documented("The type's number.", {"TSMailUserId::type"}).c_str());
    type.def_property_readonly("user_type", &TSMailUserId::userType,
                               documented("The user type.", {"TSMailUserId::userType"}).c_str());
    using Id = const TSMailUserId&;
    property(type, "tilde_name", "The normalised name: local~domain.", "TSMailUserId::tilde_name",
             [](Id id) -> const std::string& { return id.tilde_name(); });
    property(type, "tag", "The sub-address, its letter case kept.", "TSMailUserId::tag",
             [](Id id) -> const std::string& { return id.tag(); });
    property(type, "domain", "The domain.", "TSMailUserId::domain",
             [](Id id) -> const std::string& { return id.domain(); });
    property(type, "local", "The local part, with the tag.", "TSMailUserId::local",
             [](Id id) { return id.local(); });
    property(type, "bare_local", "The local part, without the tag.", "TSMailUserId::local",
             [](Id id) { return id.local(true); });
    property(type, "address", "The address, with the tag.", "TSMailUserId::address",
             [](Id id) { return id.address(); });
    property(type, "bare_address", "The address, without the tag.", "TSMailUserId::address",
             [](Id id) { return id.address(true); });
}

void add_comparison(Class& type) {
    const auto other = [&](const char* name, const char* summary, CName from, auto compare) {
        type.def(name, compare, py::is_operator(), documented(summary, {from}).c_str());
    };
    using Id = const TSMailUserId&;
    other("__eq__", "Whether both name one mailbox.",
          "TSMailUserId::operator==", [](Id a, Id b) { return a == b; });
    other("__ne__", "Whether they do not.",
          "TSMailUserId::operator!=", [](Id a, Id b) { return a != b; });
    other("__lt__", "The order of the addresses.", "TSMailUserId::operator<",
          [](Id a, Id b) { return a < b; });
    // Two local mailboxes are equal whatever their addresses: a set would keep only one of them.
    type.attr("__hash__") = py::none();
}

void add_paths(Class& type) {
    using Id = const TSMailUserId&;
    property(type, "home", "The home directory.", "TSMailUserId::homepath",
             [](Id id) { return id.homepath(); });
    property(type, "mail", "The maildir root.", "TSMailUserId::mailpath",
             [](Id id) { return id.mailpath(); });
    property(type, "pref", "The preference directory.", "TSMailUserId::prefpath",
             [](Id id) { return id.prefpath(); });
    property(type, "trash", "The trash of all mailboxes.", "TSMailUserId::trashfolder",
             [](Id id) { return id.trashfolder(); });
    using Name = const Text&;
    path_method(type, "index_path", "An index folder.", "TSMailUserId::indexfolder",
                [](Id id, Name name) { return id.indexfolder(name.bytes); });
    path_method(type, "folder_path", "A mail folder.", "TSMailUserId::mailfolder",
                [](Id id, Name name) { return id.mailfolder(name.bytes); });
    path_method(type, "drop_name", "The folder that mail goes to, below the maildir root.",
                "TSMailUserId::local_maildrop",
                [](Id id, Name name) { return id.local_maildrop(name.bytes); });
    path_method(type, "drop_path", "The folder that mail goes to.", "TSMailUserId::maildrop",
                [](Id id, Name name) { return id.maildrop(name.bytes); });
    type.def(
        "file", [](Id id, int kind) { return python_text(id.fname(kind)); },
        documented("The path of a file kind.", {"TSMailUserId::fname", "MailUserFileKind"}).c_str(),
        "kind"_a);
}

void add_files(Class& type) {
    using Id = const TSMailUserId&;
    type.def(
        "append_size",
        [](Id id, long long size, long long count) {
            without_gil([&] { return id.append_maildirsize(size, count); });
        },
        documented("Adds to the mailbox's total.", {"TSMailUserId::append_maildirsize"}).c_str(),
        "size"_a, "count"_a);
    type.def(
        "distrust_sizes", [](Id id) { without_gil([&] { id.quota_reset(); }); },
        documented("Asks for a recount.", {"TSMailUserId::quota_reset"}).c_str());
    type.def(
        "folder_kilobytes",
        [](Id id, const Text& folder) {
            return without_gil([&] { return id.getFolderSize(folder.bytes); });
        },
        documented("The size of a folder and those below it in kilobytes.",
                   {"TSMailUserId::getFolderSize"})
            .c_str(),
        "folder"_a);
    type.def_property(
        "quota_exceeded", [](Id id) { return without_gil([&] { return id.quota_exceeded(); }); },
        [](Id id, bool flag) { without_gil([&] { id.quota_exceeded(flag); }); },
        documented("Whether the exceeded flag's file is there.", {"TSMailUserId::quota_exceeded"})
            .c_str());
    type.def(
        "notice_is_due", [](Id id) { return without_gil([&] { return id.alert_notification(); }); },
        documented("Whether a quota notice is due; once a day it is.",
                   {"TSMailUserId::alert_notification"})
            .c_str());
}

void add_constants(Class& type) {
    const std::pair<const char*, const std::string&> constants[] = {
        {"SYSTEM_DOMAIN", TSMailUserId::SYSTEM_DOMAIN},
        {"MAIL_PATH_PREFIX", TSMailUserId::MAIL_PATH_PREFIX},
        {"MAIL_PATH_SUFFIX", TSMailUserId::MAIL_PATH_SUFFIX},
        {"SYSTEM_DEAD_LETTER_PATH", TSMailUserId::SYSTEM_DEAD_LETTER_PATH},
        {"SYSTEM_QUARANTINE_HOME_PATH", TSMailUserId::SYSTEM_QUARANTINE_HOME_PATH},
        {"ADMIN_USER", TSMailUserId::AdminUser},
        {"MAIL_LOCAL_PATH_PREFIX", TSMailUserId::MAIL_LOCAL_PATH_PREFIX}};
    for (const auto& [name, value] : constants) type.attr(name) = python_text(value);
}

// The path of a file kind for an address alone. A path that fills the buffer may have been cut.
py::str user_file(int kind, const Text& address) {
    char path[PATH_MAX];
    mailuser_filename(kind, path, sizeof path, address.c_str());
    const std::string_view text = path;
    if (text.size() == sizeof path - 1) throw_os_error(ENAMETOOLONG, address);
    return python_text(text);
}

}  // namespace

void add_identity(py::module_& module) {
    Class type(module, "Identity",
               "A mailbox by type and text. Nothing of it changes once it is made.");
    add_making(type);
    add_fields(type);
    add_comparison(type);
    add_paths(type);
    add_files(type);
    add_constants(type);
    module.def(
        "user_file", user_file,
        documented("The path of a file kind of an ordinary user.", {"mailuser_filename"}).c_str(),
        "kind"_a, "address"_a);
}

}  // namespace tsmail_python
