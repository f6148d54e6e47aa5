// The order of a sorted listing.
#ifndef TSMAIL_MAILLIST_SORTED_H
#define TSMAIL_MAILLIST_SORTED_H

#include <cstddef>

namespace Tessaly::maillist {

// Orders texts that stand as they arrived: as if each were inserted into those before it, at the
// end if strcasecmp finds it not smaller than the last, else in front of the first that it is not
// greater than. Throws std::bad_alloc, the texts then standing as before.
void sort_names(char** names, std::size_t count);

}  // namespace Tessaly::maillist

#endif
