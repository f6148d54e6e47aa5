// The one way in which members refuse the direct mailbox type.
#ifndef TSMAIL_MAILUSER_DIRECT_H
#define TSMAIL_MAILUSER_DIRECT_H

#include <string>

namespace Tessaly {

// Throws Tessaly::Exception " TSDirectMailUserId::<what>() - Not Implimented". A `what` that ends
// with parentheses of its own gets no others.
[[noreturn]] void throw_not_implemented(const char* what, int line);

}  // namespace Tessaly

#endif
