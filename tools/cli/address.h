// The one place that decides which addresses and names the tool works on. The library builds paths
// from any text that it gets, so these functions refuse, before anything is touched, a text that
// would lead out of a mailbox. A refusal is a Failure with code kExitData and a message that names
// the text.
#ifndef TSMAIL_TOOLS_CLI_ADDRESS_H
#define TSMAIL_TOOLS_CLI_ADDRESS_H

#include <tessaly/MailUserId.h>

#include <string>
#include <string_view>

namespace Tessaly::tool {

// The mailbox of an address. Refused: '/', control characters, an empty local part, "." or ".." as
// domain or tag, a part longer than a file name may be, and, where the domain is a directory of its
// own, an address without a domain (its home would be a domain's directory, with all its mailboxes
// in it). An address is one local part and one domain, so commas, blanks and brackets outside of
// the tag, which senders choose, and a second '@' are refused as well. The types that hold a path
// or another text are checked for control characters only, except that the text of MAILBOX_DEFERRED
// must be a valid name.
TSMailUserId mailbox_of(std::string_view address, MailBoxType type = MAILBOX_USER);

// The same for a verb that works on the mailbox itself: refuses an address with a tag, which would
// make a mistake look like another mailbox.
TSMailUserId exact_mailbox_of(std::string_view address);

// Whether a folder may have this name: valid for the library, no control characters, no component
// longer than a file name may be.
bool is_folder_name(const std::string& name);
// The same for a name given by a person: a Failure tells the reason.
void check_folder_name(const std::string& name);

// Checks the name of an address list, which becomes part of file names. Refuses the empty name,
// '/', control characters, and a '.' at the beginning (hidden files beside the lists have such
// names).
void check_list_name(std::string_view list);
// Checks the user of a list of the home scope, which is the name of a directory.
void check_home_name(std::string_view user);

// Checks a queue identifier, which becomes part of a file name: 1 to 100 letters, digits and
// -_.+=@~.
void check_queue_id(std::string_view queue_id);

}  // namespace Tessaly::tool

#endif
