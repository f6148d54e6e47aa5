// The owners of base/ under the tool's own names.
#ifndef TSMAIL_TOOLS_CLI_DESCRIPTORS_H
#define TSMAIL_TOOLS_CLI_DESCRIPTORS_H

#include "base/fd.h"
#include "base/io.h"
#include "base/rename.h"

namespace Tessaly::tool {

using base::Fd;
using base::rename_new;
using base::retry;

}  // namespace Tessaly::tool

#endif
