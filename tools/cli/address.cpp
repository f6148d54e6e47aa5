#include "tools/cli/address.h"

#include <algorithm>
#include <climits>
#include <iterator>

#include "base/store_names.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

// Leaves room for the names of the hidden files beside a list or preference file: a dot,
// ".secondaryaddr", ".lock".
constexpr std::size_t kLongestName = NAME_MAX - 32;
constexpr std::size_t kLongestQueueId = 100;
constexpr std::size_t kLongestList = 100;

// What a mailbox type takes as its text, and whether the domain is a directory of the home's path.
enum class Takes { nothing, address, address_with_domain, name, path };

constexpr Takes kTakes[] = {
    /* NONE */ Takes::nothing,
    /* USER */ Takes::address_with_domain,
    /* DEAD_LETTER */ Takes::nothing,
    /* SYSTEM_ARCHIVE */ Takes::address,
    /* QUARANTINE */ Takes::address,
    /* SECURE_STORE */ Takes::address,
    /* USER_UNTYPED */ Takes::address_with_domain,
    /* EXTERNAL */ Takes::address_with_domain,
    /* GIVEN_PATH */ Takes::path,
    /* DIRECT */ Takes::path,
    /* DEFERRED */ Takes::name,
    /* GIVEN_PATH_2 */ Takes::path,
    /* LOCAL */ Takes::address_with_domain,
};
static_assert(std::size(kTakes) == MAILBOX_LOCAL + 1, "a row for each mailbox type");

constexpr char kMaildirNames[] = "\"new\", \"cur\" and \"tmp\" are parts of a folder";
constexpr char kDots[] = "\".\" and \"..\" are not names";

bool is_dots(string_view part) { return part == "." || part == ".."; }

[[noreturn]] void refuse(string_view what, string_view text, string_view reason) {
    throw Failure(kExitData,
                  string(what) + " \"" + printable(text) + "\" is refused: " + string(reason));
}

// A reason against the text as one component of a path, or nullptr.
const char* against_component(string_view text) {
    if (text.find('/') != string_view::npos) return "it holds a '/'";
    if (is_dots(text)) return kDots;
    if (text.size() > kLongestName) return "it is too long";
    return nullptr;
}

const char* against_address(const TSMailUserId& id, string_view text, bool domain_needed) {
    if (text.find('/') != string_view::npos) return "it holds a '/'";
    if ((id.local(true) + id.domain()).find_first_of(" ,()<>[]") != string::npos) {
        return "it holds a blank, a comma or a bracket";
    }
    if (std::count(text.begin(), text.end(), '@') > 1) return "it holds more than one '@'";
    if (text.starts_with(names::kDeletedPrefix)) return "such names are for removed mailboxes";
    if (id.local(true).empty()) return "nothing stands before the domain";
    if (domain_needed && id.domain().empty()) return "it has no domain";
    for (const string& part : {id.tilde_name(), id.domain()}) {
        if (const char* reason = against_component(part)) return reason;
    }
    return is_dots(id.tag()) ? kDots : nullptr;
}

// Whether a '+' stands before the domain, even without a tag behind it.
bool has_tag_mark(string_view address) {
    const auto at = address.find('@');
    const auto end = at != string_view::npos ? at : address.rfind('~');
    return address.substr(0, end).find('+') != string_view::npos;
}

const char* against(const TSMailUserId& id, string_view text, Takes takes) {
    if (has_control_character(text)) return "it holds a control character";
    switch (takes) {
        case Takes::address:
            return against_address(id, text, false);
        case Takes::address_with_domain:
            return against_address(id, text, true);
        case Takes::name:
            return text.empty() ? "it is empty" : against_component(text);
        case Takes::path:
            return text.empty() ? "it is empty" : nullptr;
        case Takes::nothing:
            break;
    }
    return nullptr;
}

// What is wrong with one component of a folder name that the library finds valid. The library would
// make a folder "Cur", but walks skip such names in any letter case, so nothing would find its
// mail.
const char* against_folder_component(string_view name) {
    const string letters = folded(name);
    if (std::find(std::begin(names::kSubDirs), std::end(names::kSubDirs), letters) !=
        std::end(names::kSubDirs)) {
        return kMaildirNames;
    }
    return name.size() > NAME_MAX ? "it is too long" : nullptr;
}

const char* against_folder_name(const string& name) {
    if (has_control_character(name)) return "it holds a control character";
    const int answer =
        tsl_is_valid_mailbox_name(name.c_str(), TSL_NAME_IS_PATH | TSL_NAME_REFUSE_SUB_DIRS);
    if (answer == TSL_NAME_RESERVED) return kMaildirNames;
    if (answer == TSL_NAME_MALFORMED) {
        return "a folder name is one or more names separated by '/', none of them empty or "
               "beginning "
               "with '.', without \\ ? * : \" < > |";
    }
    for (std::size_t begin = 0, end = 0; end != string::npos; begin = end + 1) {
        end = name.find('/', begin);
        const string_view component = string_view(name).substr(begin, end - begin);
        if (const char* reason = against_folder_component(component)) return reason;
    }
    return name.size() > PATH_MAX / 2 ? "it is too long" : nullptr;
}

// What is wrong with a text that has to be a single name, or nullptr.
const char* against_name(string_view text) {
    if (text.empty()) return "it is empty";
    if (has_control_character(text)) return "it holds a control character";
    return against_component(text);
}

}  // namespace

TSMailUserId mailbox_of(string_view address, MailBoxType type) {
    TSMailUserId id(type, string(address));
    if (const char* reason = against(id, address, kTakes[type])) refuse("address", address, reason);
    return id;
}

TSMailUserId exact_mailbox_of(string_view address) {
    TSMailUserId id = mailbox_of(address);
    if (id.address(true) == id.address() && !has_tag_mark(address)) return id;
    refuse("address", address,
           "a tag is not part of a mailbox's address; give " + printable(id.address(true)));
}

bool is_folder_name(const string& name) { return against_folder_name(name) == nullptr; }

void check_folder_name(const string& name) {
    if (const char* reason = against_folder_name(name)) refuse("folder name", name, reason);
}

void check_list_name(string_view list) {
    if (const char* reason = against_name(list)) refuse("list name", list, reason);
    if (list.starts_with('.')) refuse("list name", list, "it begins with '.'");
    if (list.size() > kLongestList) refuse("list name", list, "it is too long");
}

void check_home_name(string_view user) {
    if (const char* reason = against_name(user)) refuse("home", user, reason);
}

void check_queue_id(string_view queue_id) {
    constexpr string_view kAllowed =
        "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_.+=@~";
    if (queue_id.empty() || queue_id.size() > kLongestQueueId ||
        queue_id.find_first_not_of(kAllowed) != string_view::npos) {
        refuse("queue identifier", queue_id, "1 to 100 letters, digits and -_.+=@~ are allowed");
    }
}

}  // namespace Tessaly::tool
