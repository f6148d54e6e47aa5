// Sizes of folder trees in kilobytes, from the folders' size files.
#include <fcntl.h>
#include <sys/stat.h>
#include <tessaly/MailUserId.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "base/dir_reader.h"
#include "base/fd.h"
#include "base/store_names.h"
#include "base/text.h"
#include "maildir/folders.h"
#include "mailsize/folder_path.h"
#include "mailuser/direct.h"

namespace Tessaly::mailsize {

namespace {

constexpr unsigned long long kKilobyte = 1024;

// What a folder itself holds, rounded up.
unsigned long long own_kilobytes(const char* folder) {
    unsigned long long bytes = 0;
    FolderPath file(folder, names::kFolderSize);
    if (!file.cut()) tsl_read_mail_folder_size(file.c_str(), &bytes, nullptr);
    return (bytes + kKilobyte - 1) / kKilobyte;
}

// A walk over a tree of folders by their paths, without recursion and with one directory open at a
// time. Links are followed; a folder that the walk is inside of is not entered again.
class FolderTree {
  public:
    explicit FolderTree(std::string top) : path_(std::move(top)) {}
    unsigned long long kilobytes();

  private:
    // A folder that the walk is inside of.
    struct Level {
        dev_t device;
        ino_t inode;
        std::size_t path_length;
        std::vector<std::string> below;  // entries still to be looked at
    };

    void enter();
    bool is_inside(const struct stat& st) const;
    std::vector<std::string> entries() const;

    std::string path_;  // of the present folder
    std::vector<Level> levels_;
    unsigned long long sum_ = 0;
};

unsigned long long FolderTree::kilobytes() {
    enter();
    while (!levels_.empty()) {
        Level& level = levels_.back();
        path_.resize(level.path_length);
        if (level.below.empty()) {
            levels_.pop_back();
            continue;
        }
        path_ += '/';
        path_ += level.below.back();
        level.below.pop_back();
        enter();
    }
    return sum_;
}

void FolderTree::enter() {
    struct stat st;
    if (!tsl_is_maildir_folder(path_.c_str())) return;
    if (::stat(path_.c_str(), &st) != 0 || is_inside(st)) return;
    sum_ += own_kilobytes(path_.c_str());
    levels_.push_back({st.st_dev, st.st_ino, path_.size(), entries()});
}

bool FolderTree::is_inside(const struct stat& st) const {
    return std::any_of(levels_.begin(), levels_.end(), [&st](const Level& level) {
        return level.inode == st.st_ino && level.device == st.st_dev;
    });
}

std::vector<std::string> FolderTree::entries() const {
    std::vector<std::string> names;
    const base::Fd dir(
        base::retry([this] { return ::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!dir) return names;
    base::DirReader reader(dir.get());
    while (const dirent64* entry = reader.next()) {
        if (entry->d_name[0] != '.' && maildir::may_be_folder(*entry))
            names.emplace_back(entry->d_name);
    }
    return names;
}

unsigned long long folder_size_kb(std::string folder) {
    return FolderTree(std::move(folder)).kilobytes();
}

}  // namespace

}  // namespace Tessaly::mailsize

namespace Tessaly {

unsigned long long TSMailUserId::getFolderSize(const std::string& folder) const {
    constexpr int kLine = 344;  // part of the exception as callers know it
    if (type_ == MAILBOX_DIRECT) throw_not_implemented("getFolderSize", kLine);
    if (folder.empty()) return 0;
    std::string path = mailfolder(folder);
    if (::access(path.c_str(), F_OK) != 0) return 0;
    return mailsize::folder_size_kb(std::move(path));
}

}  // namespace Tessaly
