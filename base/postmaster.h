// The postmaster of this host's domain.
#ifndef TSMAIL_BASE_POSTMASTER_H
#define TSMAIL_BASE_POSTMASTER_H

#include <cstddef>

namespace Tessaly::base {

// Room for the address: the local part, '@' and the longest host name, with its NUL.
inline constexpr std::size_t kPostmasterRoom = 11 + 256;

// Writes "postmaster@" and the domain of this host into the buffer and returns it. The domain is
// the host name without its first label, or the whole host name if nothing follows the first label.
// If the system cannot give the host name, the domain is "localhost".
const char* default_postmaster(char (&buffer)[kPostmasterRoom]);

}  // namespace Tessaly::base

#endif
