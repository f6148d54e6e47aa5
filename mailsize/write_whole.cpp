#include "mailsize/write_whole.h"

#include <unistd.h>

#include "base/fd.h"

namespace Tessaly::mailsize {

bool write_whole(const base::LockedStream& file, std::string_view text, off_t length) {
    if (file.write(text)) return true;
    if (length >= 0) base::retry([&] { return ::ftruncate(file.fd(), length); });
    return false;
}

}  // namespace Tessaly::mailsize
