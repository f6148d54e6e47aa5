// The one place that decides which addresses and names the tool works on. The library composes
// whatever it is given into paths; here is refused what would lead outside of a mailbox, before
// anything is touched. Everything that is refused is a Failure with code kExitData and a message
// that names it.
#ifndef TSMAIL_TOOLS_CLI_ADDRESS_H
#define TSMAIL_TOOLS_CLI_ADDRESS_H

#include <tessaly/MailUserId.h>

#include <string>
#include <string_view>

namespace Tessaly::tool {

// The mailbox of an address. Refused: '/', control characters, an empty local part, "." or ".." as
// domain or tag, a part longer than a file name may be, and, where the domain is a directory of its
// own, an address without one (its home would be a domain's directory, with all its mailboxes in
// it). The types that keep a path or another text are checked for control characters only, and
// MAILBOX_DEFERRED for a text that is no name.
TSMailUserId mailbox_of(std::string_view address, MailBoxType type = MAILBOX_USER);

// Whether a folder may have this name: valid for the library, no control characters, no component
// longer than a file name may be.
bool is_folder_name(const std::string& name);
// The same for a name given by a person: refused with the reason.
void check_folder_name(const std::string& name);

// The name of an address list, which becomes part of file names: refused are the empty name, '/', a
// '.' at the beginning (hidden files beside the lists have such names) and control characters.
void check_list_name(std::string_view list);
// The user of a list of the home scope, which is the name of a directory.
void check_home_name(std::string_view user);

// A queue identifier becomes part of a file name: letters, digits and -_.+=@~ only, 1 to 100 of
// them.
void check_queue_id(std::string_view queue_id);

}  // namespace Tessaly::tool

#endif
