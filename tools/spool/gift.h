// Gives a file to the owner of the home in which it lies.
#ifndef TSMAIL_TOOLS_SPOOL_GIFT_H
#define TSMAIL_TOOLS_SPOOL_GIFT_H

#include <string>

#include "tools/spool/owner.h"

namespace Tessaly::tool {

// Makes `owner` the owner of a file below the home; `path` is relative to the home. This needs
// root's rights. It gives only a regular file that has no other name, as another name could lie
// outside the home, and follows no link on the way to it. A Failure, with nothing changed, for
// anything else.
void give_file(const Place& home, const std::string& path, const Owner& owner);

}  // namespace Tessaly::tool

#endif
