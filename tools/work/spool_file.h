// SpoolFile - a message on its way into a folder.
#ifndef TSMAIL_TOOLS_WORK_SPOOL_FILE_H
#define TSMAIL_TOOLS_WORK_SPOOL_FILE_H

#include <climits>
#include <string>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

// A new file in a folder's tmp, mode 0600. If the file system allows it, the file has no name, so
// that nothing remains however the process ends. Otherwise it has the name of a message of size 0,
// because tagging skips names that have a size; this object's destructor removes it. appear() makes
// the file a message.
//
// Some file systems make files without a name and cannot name them later. The first such file of a
// process is copied into one with a name; from then on the process makes only those.
class SpoolFile {
  public:
    // tmp: the open directory, which must outlive this. A Failure if the file cannot be made.
    SpoolFile(int tmp, std::string queue_id);
    SpoolFile(const SpoolFile&) = delete;
    SpoolFile& operator=(const SpoolFile&) = delete;
    ~SpoolFile();

    int fd() const { return fd_.get(); }

    // Moves the file into the folder's open directory `new`, under a fresh name with its size, and
    // returns that name. On a Failure there is nothing in `new`.
    std::string appear(int fresh, unsigned long long size);

    // Moves the file into the open directory under this name. False if the name is taken.
    bool appear_as(int directory, const std::string& name);

  private:
    bool open_unnamed();
    void open_named();
    std::string draw_name(unsigned long long size) const;
    bool appear_at(int directory, const std::string& name);
    bool give_name(int directory, const std::string& name) const;
    void copy_to_named();
    bool move_name(int directory, const std::string& name);

    int tmp_;
    std::string queue_id_;
    Fd fd_;
    std::string name_;  // the name in tmp; empty if it has none
};

}  // namespace Tessaly::tool

#endif
