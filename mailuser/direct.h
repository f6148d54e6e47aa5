// The one way in which members refuse the direct mailbox type.
#ifndef TSMAIL_MAILUSER_DIRECT_H
#define TSMAIL_MAILUSER_DIRECT_H

#include <string>

namespace Tessaly {

// Throws Tessaly::Exception " TSDirectMailUserId::<what>() - Not Implimented"; a `what` that brings
// its own parentheses is taken as it stands.
[[noreturn]] void throw_not_implemented(const char* what, int line);

}  // namespace Tessaly

#endif
