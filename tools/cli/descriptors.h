// Makes the descriptor helpers of base/ known in the tool's namespace.
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
