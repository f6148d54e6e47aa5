#include "tools/work/recount.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <optional>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/folder_list.h"
#include "tools/work/mailbox_lock.h"
#include "tools/work/records.h"
#include "tools/work/scan.h"

namespace Tessaly::tool {

namespace {

using mailsize::SizeFile;
using std::string;

bool has_other_folders(const TSMailUserId& id, const LockedFolders& folders) {
    const FolderList list = list_folders(id);
    return !list.unread.empty() ||
           !std::equal(folders.begin(), folders.end(), list.names.begin(), list.names.end(),
                       [](const LockedFolder& a, const string& b) { return a.name == b; });
}

// Shows whether a file has been appended to: its length changes, or, if it was rewritten, at least
// its time. A missing file equals an empty one, as an append never leaves an empty file.
struct FileStamp {
    off_t length = 0;
    timespec written = {0, 0};
    bool operator==(const FileStamp& other) const {
        return length == other.length && written.tv_sec == other.written.tv_sec &&
               written.tv_nsec == other.written.tv_nsec;
    }
};

FileStamp stamp_of(const struct stat& st) {
    return st.st_size == 0 ? FileStamp() : FileStamp{st.st_size, st.st_mtim};
}

FileStamp stamp_of(const string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? stamp_of(st) : FileStamp();
}

FileStamp stamp_of(const SizeFile& file, const string& path) {
    struct stat st;
    if (::fstat(file.fd(), &st) != 0) throw system_failure(printable(path));
    return stamp_of(st);
}

// The mark that the records are not to be trusted. It exists while they are rewritten, and is
// removed at the end unless another process has set it again, perhaps for a change after the count.
// The mark's time shows that. A mark so young that a new one could have the same time is made older
// first.
class Mark {
  public:
    explicit Mark(const TSMailUserId& id) : path_(dirty_marker(id)) {
        if ((ours_ = time())) make_old();
        found_ = ours_.has_value();
    }
    bool found() const { return found_; }

    // Sets the mark unless it is set. A Failure if that is not possible.
    void set() {
        if (is_set_) return;
        is_set_ = true;
        if (found_) return;
        const Fd fd(retry([&] {
            return ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0666);
        }));
        if (fd) return make_old();
        if (errno != EEXIST) throw system_failure(printable(path_));
    }

    // Removes the mark. False if a mark remains.
    bool remove() {
        const auto now = time();
        if (!now) return true;
        if (!ours_ || now->tv_sec != ours_->tv_sec || now->tv_nsec != ours_->tv_nsec) return false;
        return ::unlink(path_.c_str()) == 0 || errno == ENOENT;
    }

  private:
    std::optional<timespec> time() const {
        struct stat st;
        if (::stat(path_.c_str(), &st) != 0) return std::nullopt;
        return st.st_mtim;
    }
    void make_old() {
        constexpr time_t kOld = 1;  // seconds: more than a tick of any file system's clock
        timespec now;
        ::clock_gettime(CLOCK_REALTIME, &now);
        if (!ours_ || ours_->tv_sec >= now.tv_sec - kOld) {
            const timespec times[] = {{0, UTIME_OMIT}, {now.tv_sec - kOld, now.tv_nsec}};
            ::utimensat(AT_FDCWD, path_.c_str(), times, 0);
            ours_ = time();
        }
    }

    string path_;
    std::optional<timespec> ours_;
    bool found_ = false;
    bool is_set_ = false;
};

Totals count(const LockedFolder& folder) {
    const FolderCount count = count_folder(folder.lock.fd());
    if (count.error != 0) throw system_failure(printable(folder.name), count.error);
    return total_of(count);
}

// A Failure if the file could not be opened and locked.
void demand(const SizeFile& file, const string& path) {
    if (!file) throw system_failure(printable(path));
}

void rewrite(SizeFile& file, const string& path, const Totals& total, Mark& mark) {
    if (file.holds_only(total)) return;
    mark.set();
    if (!file.replace(total)) throw system_failure(printable(path));
}

// A program that appends to the record without the folder's lock adds its message before that, or
// removes it after that. So the count covers all that was appended before the record was locked
// (but for a message that is about to be removed), and later entries add to the count.
Recounted recount_folder(const TSMailUserId& id, const LockedFolder& folder, Mark& mark) {
    const string path = folder_size_file(id.mailfolder(folder.name));
    std::optional<Totals> counted;
    if (!folder.has_record) {
        counted = count(folder);
        // A folder that never had a message needs no record.
        if (counted->count == 0) return {folder.name, {}, {}};
    }
    SizeFile file(path.c_str(), SizeFile::Kind::folder);
    demand(file, path);
    if (!counted || file.length() != 0) counted = count(folder);
    Recounted result = {folder.name, shown(file.totals()), *counted};
    rewrite(file, path, *counted, mark);
    return result;
}

using Done = std::function<void(std::size_t, std::size_t)>;

// Recounts. The caller has locked all folders and the mailbox's record.
MailboxRecount recount_locked(const TSMailUserId& id, const LockedFolders& folders,
                              const string& path, SizeFile& file, const Done& done) {
    Mark mark(id);
    MailboxRecount result;
    result.was_marked = mark.found();
    result.mailbox.before = shown(file.totals());
    for (const LockedFolder& folder : folders) {
        result.folders.push_back(recount_folder(id, folder, mark));
        add(result.mailbox.after, result.folders.back().after);
        if (done) done(result.folders.size(), folders.size());
    }
    rewrite(file, path, result.mailbox.after, mark);
    result.is_marked = !mark.remove();
    return result;
}

// Returns nothing if the mailbox's folders changed meanwhile.
//
// Why the total is right: a delivery adds to the folder's record and to the mailbox's while it
// holds the folder's lock. With all folders locked no delivery is half done, so the mailbox's total
// is the sum of the folders, and later deliveries add to it. Only one folder could be missed: one
// that was made after the listing and got mail before the mailbox's record was locked. That mail
// was added to the mailbox's record. So if the record has not changed since before the listing,
// there is no such folder; if it has changed, the folders are listed again.
std::optional<MailboxRecount> try_recount(const TSMailUserId& id, const Done& done) {
    const string path = mailbox_size_file(id);
    const FileStamp before = stamp_of(path);
    const LockedFolders folders = lock_folders(id);
    SizeFile file(path.c_str(), SizeFile::Kind::mailbox);
    demand(file, path);
    if (!(stamp_of(file, path) == before) && has_other_folders(id, folders)) return std::nullopt;
    return recount_locked(id, folders, path, file, done);
}

Recounted expected(const LockedFolder& folder, const string& path) {
    return {folder.name, shown(stored_totals(path).value_or(Totals())), count(folder)};
}

}  // namespace

MailboxRecount expected_recount(const TSMailUserId& id, const Done& done) {
    const LockedFolders folders = lock_folders(id);
    MailboxRecount result;
    result.was_marked = result.is_marked = is_marked(id);
    result.mailbox.before = shown(stored_totals(mailbox_size_file(id)).value_or(Totals()));
    for (const LockedFolder& folder : folders) {
        result.folders.push_back(expected(folder, folder_size_file(id.mailfolder(folder.name))));
        add(result.mailbox.after, result.folders.back().after);
        if (done) done(result.folders.size(), folders.size());
    }
    return result;
}

MailboxRecount recount(const TSMailUserId& id, const Done& done) {
    for (;;) {
        if (auto result = try_recount(id, done)) return *result;
    }
}

}  // namespace Tessaly::tool
