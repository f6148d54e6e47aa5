// Writes what `export` hands out: a Maildir++ or mbox files in a directory.
#ifndef TSMAIL_TOOLS_SPOOL_TARGET_H
#define TSMAIL_TOOLS_SPOOL_TARGET_H

#include <string>

#include "tools/work/channel.h"
#include "tools/work/export.h"

namespace Tessaly::tool {

// The directory of an export.
class Target {
  public:
    // Makes the directory if it is missing, and leaves a note in it that an export is under way. A
    // Failure if it cannot be opened, or holds anything but an unfinished export of the same
    // mailbox in the same format, or if another process works on it.
    Target(const std::string& path, const ExportPlan& plan);

    // In a process of its own, with the caller's rights: writes the items of the channel, which
    // come from a worker, and tells at the end what the format could not carry. New files belong to
    // the caller and have the mode 0600. Works relative to open directories, follows no link and
    // replaces no file of another user. A Failure if something cannot be written.
    void write(const Channel& channel) const;

  private:
    std::string path_;
    ExportFormat format_;
    Fd fd_, mark_;
};

}  // namespace Tessaly::tool

#endif
