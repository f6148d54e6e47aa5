// Putting a new list in the place of an old one.
#ifndef TSMAIL_MAILLIST_REPLACE_H
#define TSMAIL_MAILLIST_REPLACE_H

#include <string>
#include <string_view>

namespace Tessaly::maillist {

// Writes the content to the temporary file and moves that over the list. False with errno if the
// temporary file could not be written whole; the list is untouched then. A move that failed is not
// reported. Throws std::bad_alloc.
bool replace_list(const std::string& list, const std::string& temporary, std::string_view content);

}  // namespace Tessaly::maillist

#endif
