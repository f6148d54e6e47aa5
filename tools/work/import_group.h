// ImportGroup - messages that are written one by one and appear in a folder together.
#ifndef TSMAIL_TOOLS_WORK_IMPORT_GROUP_H
#define TSMAIL_TOOLS_WORK_IMPORT_GROUP_H

#include <tessaly/MailUserId.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tools/cli/descriptors.h"
#include "tools/work/signals.h"
#include "tools/work/spool_file.h"

namespace Tessaly::tool {

// A message that is written below tmp.
class ImportDraft {
  public:
    // tmp: the open directory. -1: nothing is written.
    explicit ImportDraft(int tmp);
    void write(std::string_view bytes);
    // Writes the rest and sets the file's time.
    void finish(std::time_t date);
    std::uint64_t size() const { return size_; }
    SpoolFile* file() const { return file_.get(); }

  private:
    void flush();

    std::unique_ptr<SpoolFile> file_;
    std::string buffer_;
    std::uint64_t size_ = 0;
};

struct ImportCount {
    std::uint64_t messages = 0, bytes = 0;
    std::uint64_t present = 0;  // not stored, as they are there
    bool counted = true, flushed = true;
};

class ImportGroup {
  public:
    // The folder must exist. A Failure if it cannot be opened.
    ImportGroup(const TSMailUserId& id, std::string folder);

    const std::string& folder() const { return folder_; }
    int tmp() const { return tmp_.get(); }
    bool is_full() const;
    // Adds a finished message, which will have this name in cur, or in new if it is fresh.
    void add(ImportDraft draft, std::string name, bool fresh);

    // Flushes the messages, lets them appear and counts them; afterwards the group is empty. A
    // Failure if the folder was removed meanwhile or something cannot be written. Messages that
    // appeared by then stay, and the mailbox is marked for a recount.
    ImportCount commit(const SignalHold& signals);

  private:
    struct Member {
        ImportDraft draft;
        std::string name;
        bool fresh;
    };
    void flush_files() const;
    void appear(int folder, ImportCount& count) const;

    TSMailUserId id_;
    std::string folder_;
    Fd fd_, tmp_;
    std::vector<Member> members_;
    std::uint64_t bytes_ = 0;
};

}  // namespace Tessaly::tool

#endif
