// The order of a sorted listing.
#ifndef TSMAIL_MAILLIST_SORTED_H
#define TSMAIL_MAILLIST_SORTED_H

#include <cstddef>

namespace Tessaly::maillist {

// Sorts texts that are in the order of arrival. The result is as if each were inserted among those
// before it: at the end if strcasecmp finds it not smaller than the last one, else in front of the
// first that it is not greater than. Throws std::bad_alloc; the texts then stay as they were.
void sort_names(char** names, std::size_t count);

}  // namespace Tessaly::maillist

#endif
