// The mailbox value: parsing, comparison, layout and file kinds, each driven by a table.
#include <libgen.h>
#include <tessaly/MailUserId.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

#include "base/guard.h"
#include "base/store_names.h"
#include "base/text.h"
#include "mailuser/direct.h"

#define SPOOL "/var/spool"
#define SPOOL_HOME SPOOL "/home"

namespace Tessaly {

using base::concat;
using std::string;
using std::string_view;

const string TSMailUserId::SYSTEM_DOMAIN = "system";
const string TSMailUserId::MAIL_PATH_PREFIX = SPOOL_HOME;
const string TSMailUserId::MAIL_PATH_SUFFIX = "/mail";
const string TSMailUserId::SYSTEM_DEAD_LETTER_PATH = SPOOL "/dead";
const string TSMailUserId::SYSTEM_QUARANTINE_HOME_PATH = SPOOL_HOME "/sys_quar";
const string TSMailUserId::AdminUser = "admin";
const string TSMailUserId::MAIL_LOCAL_PATH_PREFIX = SPOOL_HOME ".local";

namespace {

// How init fills the fields.
enum class Text { ignored, parsed, kept, kept_for_system };
// What follows the home's fixed prefix.
enum class Home { empty, prefix, tilde, domain_tilde, bucket_domain_tilde };
// What == compares.
enum class Equal { never, always, tilde, address };

struct TypeRow {
    Text text;
    Home home;
    string_view prefix;
    bool home_is_maildir;
    Equal equal;
    int user_type;
};

// One row a mailbox type, by its number; the last one serves every number from 13 up.
constexpr TypeRow kTypes[] = {
    /* 0 NONE */ {Text::ignored, Home::empty, "", false, Equal::always, 0},
    /* 1 USER */ {Text::parsed, Home::domain_tilde, SPOOL_HOME "/", false, Equal::address, 1},
    /* 2 DEAD_LETTER */
    {Text::kept_for_system, Home::prefix, SPOOL "/dead", true, Equal::always, 0},
    /* 3 SYSTEM_ARCHIVE */
    {Text::parsed, Home::tilde, SPOOL_HOME "/sys_arch/", false, Equal::address, 2},
    /* 4 QUARANTINE */
    {Text::parsed, Home::tilde, SPOOL_HOME "/sys_quar/", false, Equal::address, 3},
    /* 5 SECURE_STORE */
    {Text::parsed, Home::tilde, SPOOL "/ibe_tmp/store/", true, Equal::address, 0},
    /* 6 USER_UNTYPED */
    {Text::parsed, Home::domain_tilde, SPOOL_HOME "/", false, Equal::address, 0},
    /* 7 EXTERNAL */
    {Text::parsed, Home::bucket_domain_tilde, SPOOL_HOME "/external/", false, Equal::address, 0},
    /* 8 GIVEN_PATH */ {Text::kept_for_system, Home::tilde, "", true, Equal::tilde, 0},
    /* 9 DIRECT */ {Text::ignored, Home::empty, "", false, Equal::always, 0},
    /* 10 DEFERRED */ {Text::kept, Home::tilde, SPOOL "/deferd/", true, Equal::tilde, 0},
    /* 11 GIVEN_PATH_2 */ {Text::kept_for_system, Home::tilde, "", true, Equal::tilde, 0},
    /* 12 LOCAL */
    {Text::parsed, Home::domain_tilde, SPOOL_HOME ".local/", false, Equal::always, 0},
    /* 13 and above */ {Text::ignored, Home::empty, "", false, Equal::never, 0},
};
static_assert(std::size(kTypes) == MAILBOX_LOCAL + 2);

const TypeRow& row_of(MailBoxType type) {
    return kTypes[std::min<std::size_t>(type, std::size(kTypes) - 1)];
}

// tolower of the C locale; the process's locale must not decide where a mailbox lies.
void lower_case(string& text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
}

}  // namespace

TSMailUserId::TSMailUserId() : type_(MAILBOX_NONE) {}
TSMailUserId::TSMailUserId(const string& text) : TSMailUserId(MAILBOX_USER, text) {}
TSMailUserId::TSMailUserId(MailBoxType type, const string& text) : type_(type) {
    // The direct type keeps its text. parse does that; init does nothing for it.
    if (type == MAILBOX_DIRECT) {
        parse(text);
    } else {
        init(text);
    }
}
TSMailUserId::~TSMailUserId() = default;

void TSMailUserId::init(const string& text) {
    switch (row_of(type_).text) {
        case Text::ignored:
            break;
        case Text::parsed:
            parse(text);
            break;
        case Text::kept_for_system:
            tilde_name_ = text;  // first, as it may be the domain itself
            domain_ = SYSTEM_DOMAIN;
            break;
        case Text::kept:
            tilde_name_ = text;
            break;
    }
}

void TSMailUserId::parse(const string& text) {
    tilde_name_ = text;
    if (type_ == MAILBOX_DIRECT) return;

    // Domain. Without a separator the domain of an earlier parse stays.
    if (const auto at = tilde_name_.find('@'); at != string::npos) {
        tilde_name_[at] = '~';
        domain_.assign(tilde_name_, at + 1);
    } else if (const auto tilde = tilde_name_.rfind('~'); tilde != string::npos) {
        domain_.assign(tilde_name_, tilde + 1);
    }

    // Tag. A '+' behind the last '~' does not start one. Without a tag that of an earlier parse
    // stays.
    const auto plus = tilde_name_.find('+');
    const auto tilde = tilde_name_.rfind('~');
    if (plus != string::npos && (tilde == string::npos || plus < tilde)) {
        const auto end = std::min(tilde, tilde_name_.size());
        tag_.assign(tilde_name_, plus + 1, end - plus - 1);
        tilde_name_.erase(plus, end - plus);
    }

    lower_case(tilde_name_);
    local_.assign(tilde_name_, 0, tilde_name_.rfind('~'));
    lower_case(domain_);
}

MailBoxType TSMailUserId::type() const { return type_; }
void TSMailUserId::type(MailBoxType type) { type_ = type; }
int TSMailUserId::userType() const { return row_of(type_).user_type; }
const string& TSMailUserId::tilde_name() const { return tilde_name_; }
const string& TSMailUserId::tag() const { return tag_; }

const string& TSMailUserId::domain() const {
    // The message names homepath; callers know it by that text.
    if (type_ == MAILBOX_DIRECT) throw_not_implemented("homepath", __LINE__);
    return domain_;
}

string TSMailUserId::local(bool without_tag) const {
    if (without_tag || tag_.empty()) return local_;
    return concat({local_, "+", tag_});
}

string TSMailUserId::address(bool without_tag) const {
    const bool tagged = !without_tag && !tag_.empty();
    return concat({local_, tagged ? "+" : "", tagged ? string_view(tag_) : "",
                   domain_.empty() ? "" : "@", domain_});
}

bool TSMailUserId::operator==(const TSMailUserId& other) const {
    if (type_ != other.type_) return false;
    switch (row_of(type_).equal) {
        case Equal::always:
            return true;
        case Equal::tilde:
            return tilde_name_ == other.tilde_name_;
        case Equal::address:
            return address() == other.address();
        case Equal::never:
            break;
    }
    return false;
}

bool TSMailUserId::operator!=(const TSMailUserId& other) const { return !(*this == other); }

bool TSMailUserId::operator<(const TSMailUserId& other) const {
    return address() < other.address();
}

string TSMailUserId::homepath() const {
    if (type_ == MAILBOX_DIRECT) throw_not_implemented("homepath", __LINE__);
    const TypeRow& row = row_of(type_);
    switch (row.home) {
        case Home::empty:
            break;
        case Home::prefix:
            return string(row.prefix);
        case Home::tilde:
            return concat({row.prefix, tilde_name_});
        case Home::domain_tilde:
            return concat({row.prefix, domain_, "/", tilde_name_});
        case Home::bucket_domain_tilde:
            // The first byte of an empty domain is its terminator: such a path is unusable.
            return concat(
                {row.prefix, string_view(domain_.c_str(), 1), "/", domain_, "/", tilde_name_});
    }
    return {};
}

string TSMailUserId::mailpath() const {
    if (type_ == MAILBOX_DIRECT) throw_not_implemented("mailpath", __LINE__);
    string path = homepath();
    if (!row_of(type_).home_is_maildir) path += MAIL_PATH_SUFFIX;
    return path;
}

string TSMailUserId::prefpath() const {
    if (type_ == MAILBOX_DIRECT) throw_not_implemented("perfpath", __LINE__);
    return concat({homepath(), "/pref"});
}

string TSMailUserId::indexfolder(const string& name) const {
    if (type_ == MAILBOX_DIRECT) throw_not_implemented("indexfolder", __LINE__);
    return concat({homepath(), "/index/", name});
}

string TSMailUserId::trashfolder() const {
    if (type_ == MAILBOX_DIRECT) throw_not_implemented("trashfolder", __LINE__);
    return SPOOL_HOME "/sys_arch/.Trash";
}

string TSMailUserId::mailfolder(const string& name) const {
    if (type_ == MAILBOX_DIRECT) return name;
    if (type_ == MAILBOX_SECURE_STORE) return mailpath();
    return concat({mailpath(), "/", name});
}

string TSMailUserId::local_maildrop(const string& name) const {
    if (type_ == MAILBOX_DIRECT) throw_not_implemented("local_maildrop", __LINE__);
    const string& chosen = name.empty() ? tag_ : name;
    if (type_ != MAILBOX_QUARANTINE) return chosen.empty() ? "Inbox" : chosen;
    return concat({chosen.empty() ? "Content" : string_view(chosen), "/current"});
}

string TSMailUserId::maildrop(const string& name) const { return mailfolder(local_maildrop(name)); }

namespace {

// What the path of a file kind begins with, and how the row's text continues it.
enum class Start {
    nothing,      // the empty path
    home,         // H
    home_file,    // H + "/" + text
    home_parent,  // dirname of H
    mail,         // the maildir root
    drop,         // the delivery folder
    folder,       // mailfolder(text)
    index,        // indexfolder(text)
    pref,         // P
    pref_file,    // P + "/" + text
    pref_tilde,   // P + "/" + T + "." + text
    webdav,       // text + D + "/" + T
};

struct KindRow {
    Start start;
    string_view text;
};

// One row a file kind, by its number.
constexpr KindRow kKinds[] = {
    /* 0 WHITELIST */ {Start::pref_tilde, "whitelist"},
    /* 1 BLACKLIST */ {Start::pref_tilde, "blacklist"},
    /* 2 BLOCKLIST */ {Start::pref_tilde, "blocklist"},
    /* 3 */ {Start::nothing, ""},
    /* 4 MAILPATH */ {Start::mail, ""},
    /* 5 PREFPATH */ {Start::pref, ""},
    /* 6 MAILDROP */ {Start::drop, ""},
    /* 7 QUOTA_WARNING_FLAG */ {Start::home_file, names::kQuotaWarning},
    /* 8 QUOTA_EXCEEDED_FLAG */ {Start::home_file, names::kQuotaExceeded},
    /* 9 */ {Start::nothing, ""},
    /* 10 BULK */ {Start::folder, "Bulk"},
    /* 11 HOMEPATH */ {Start::home, ""},
    /* 12 HOME_PARENT */ {Start::home_parent, ""},
    /* 13 PRIMARY_ADDR */ {Start::pref_tilde, names::kPrimaryAddresses},
    /* 14 SECONDARY_ADDR */ {Start::pref_tilde, names::kSecondaryAddresses},
    /* 15 PREF_FILE */ {Start::pref_tilde, names::kPreferences},
    /* 16 */ {Start::nothing, ""},
    /* 17 INBOX_ARCHIVE */ {Start::folder, "Inbox_archive"},
    /* 18 INBOX */ {Start::folder, "Inbox"},
    /* 19 INBOX_INDEX */ {Start::index, "Inbox"},
    /* 20 BULK_ARCHIVE */ {Start::folder, "Bulk_archive"},
    /* 21 BULK_FOLDER */ {Start::folder, "Bulk"},
    /* 22 BULK_INDEX */ {Start::index, "Bulk"},
    /* 23 QUOTA_EXCEEDED_FLAG_2 */ {Start::home_file, names::kQuotaExceeded},
    /* 24 EMAILTAG */ {Start::pref_tilde, "emailtag"},
    /* 25 CALENDARTAG */ {Start::pref_tilde, "calendartag"},
    /* 26 TRASH */ {Start::folder, "Trash"},
    /* 27 CALENDAR */ {Start::pref_file, "calendar.ics"},
    /* 28 ALERT_NOTIFICATION */ {Start::home_file, names::kNoticeStamp},
    /* 29 WEBDAV */ {Start::webdav, SPOOL_HOME "/sys_dav/webdav/"},
    /* 30 LOCAL_HOMEPATH */ {Start::home, ""},
    /* 31 FAVORLIST */ {Start::pref_tilde, "favorlist"},
};
static_assert(std::size(kKinds) == MUF_FAVORLIST + 1);

// POSIX dirname of a home of any length.
string directory_part(string path) { return ::dirname(path.data()); }

}  // namespace

string TSMailUserId::fname(int kind) const {
    if (type_ == MAILBOX_DIRECT) throw_not_implemented("fname", __LINE__);
    if (kind < 0 || kind >= static_cast<int>(std::size(kKinds))) return {};
    const KindRow& row = kKinds[kind];
    switch (row.start) {
        case Start::nothing:
            break;
        case Start::home:
            return homepath();
        case Start::home_file:
            return concat({homepath(), "/", row.text});
        case Start::home_parent:
            return directory_part(homepath());
        case Start::mail:
            return mailpath();
        case Start::drop:
            return maildrop(string());
        case Start::folder:
            return mailfolder(string(row.text));
        case Start::index:
            return indexfolder(string(row.text));
        case Start::pref:
            return prefpath();
        case Start::pref_file:
            return concat({prefpath(), "/", row.text});
        case Start::pref_tilde:
            return concat({prefpath(), "/", tilde_name_, ".", row.text});
        case Start::webdav:
            return concat({row.text, domain_, "/", tilde_name_});
    }
    return {};
}

}  // namespace Tessaly

int mailuser_filename(int kind, char* dst, unsigned int len, const char* address) {
    using Tessaly::TSMailUserId;
    if (dst == nullptr || len == 0) return 0;
    const std::string path = Tessaly::base::no_throw(std::string(), [&]() -> std::string {
        if (address == nullptr) return {};
        const auto type =
            kind == MUF_LOCAL_HOMEPATH ? Tessaly::MAILBOX_LOCAL : Tessaly::MAILBOX_USER;
        return TSMailUserId(type, address).fname(kind);
    });
    // Only now, as the address may lie in dst.
    const std::size_t length = path.copy(dst, len - 1);
    std::memset(dst + length, 0, len - length);
    return 0;
}
