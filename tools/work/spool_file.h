// SpoolFile - a message on its way into a folder.
#ifndef TSMAIL_TOOLS_WORK_SPOOL_FILE_H
#define TSMAIL_TOOLS_WORK_SPOOL_FILE_H

#include <climits>
#include <string>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

// A new file in a folder's tmp, mode 0600. Where the file system can, it has no name, so that
// nothing of it stays however the process ends; else it has the name of a message of size 0, since
// whoever tags messages with their size leaves alone what has a size already, and it is removed
// with this object. It becomes a message by appear().
class SpoolFile {
  public:
    // tmp: the open directory, which must outlive this. A Failure if there can be no file.
    SpoolFile(int tmp, std::string queue_id);
    SpoolFile(const SpoolFile&) = delete;
    SpoolFile& operator=(const SpoolFile&) = delete;
    ~SpoolFile();

    int fd() const { return fd_.get(); }

    // Puts the file into the folder's `new`, which is open, under a fresh name with its size, and
    // returns that name. A Failure if that cannot be; then nothing of it stands there.
    std::string appear(int fresh, unsigned long long size);

  private:
    bool open_unnamed();
    void open_named();
    std::string draw_name(unsigned long long size) const;
    bool give_name(int fresh, const std::string& name);
    bool move_name(int fresh, const std::string& name);

    int tmp_;
    std::string queue_id_;
    Fd fd_;
    std::string name_;  // in tmp; empty: none
};

}  // namespace Tessaly::tool

#endif
