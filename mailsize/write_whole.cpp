#include "mailsize/write_whole.h"

#include <unistd.h>

#include "base/fd.h"

namespace Tessaly::mailsize {

void write_whole(const base::LockedStream& file, std::string_view text, off_t length) {
    if (file.write(text) || length < 0) return;
    base::retry([&] { return ::ftruncate(file.fd(), length); });
}

}  // namespace Tessaly::mailsize
