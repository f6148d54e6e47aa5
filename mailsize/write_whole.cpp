#include "mailsize/write_whole.h"

#include <unistd.h>

#include "base/fd.h"
#include "base/io.h"

namespace Tessaly::mailsize {

bool write_whole(int fd, std::string_view text, off_t length) {
    if (base::write_all(fd, text)) return true;
    if (length >= 0) base::retry([=] { return ::ftruncate(fd, length); });
    return false;
}

}  // namespace Tessaly::mailsize
