#include "tools/work/recount.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <list>
#include <optional>
#include <utility>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/folder_list.h"
#include "tools/work/mailbox_lock.h"
#include "tools/work/records.h"
#include "tools/work/scan.h"
#include "tools/work/signals.h"

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

// The mark that the records are not to be trusted. A recount removes it at the end unless another
// process has set it again, perhaps for a change after the count. The mark's time shows that. A
// mark so young that a new one could have the same time is made older first.
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

// A size file that is locked, and the total that is to replace its records.
class Rewrite {
  public:
    Rewrite(string path, SizeFile::Kind kind) : path_(std::move(path)), file_(path_.c_str(), kind) {
        if (!file_) throw system_failure(printable(path_));
    }
    Rewrite(const Rewrite&) = delete;
    Rewrite& operator=(const Rewrite&) = delete;

    const SizeFile& file() const { return file_; }
    // Whether anything has to be written for this total.
    bool changes(const Totals& total) {
        total_ = total;
        return !file_.holds_only(total);
    }
    // Usually leaves the old or the new total, whenever it is stopped. Otherwise the mailbox is
    // marked first.
    void write(Mark& mark) {
        if (!file_.is_replaced_at_once()) mark.set();
        if (!file_.replace(total_)) throw system_failure(printable(path_));
    }

  private:
    string path_;
    SizeFile file_;
    Totals total_;
};

// Whether nobody holds the file's lock, this process included: two records may be one file, by
// links.
bool is_free(const string& path) {
    const Fd fd(
        retry([&] { return ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOCTTY); }));
    return !fd || ::flock(fd.get(), LOCK_EX | LOCK_NB) == 0;
}

// What is to be written. It is written once everything is counted, and each file stays locked until
// then. So a recount that is stopped leaves all records as they were, or the mailbox marked.
class Rewrites {
  public:
    explicit Rewrites(const TSMailUserId& id, Mark& mark) : id_(id), mark_(mark) {}

    Rewrite& open(const string& path, SizeFile::Kind kind) {
        if (rewrites_.size() == kMost || (!rewrites_.empty() && !is_free(path))) write_early();
        return rewrites_.emplace_back(path, kind);
    }
    // Leaves the file that was opened last as it is, and unlocks it.
    void drop() { rewrites_.pop_back(); }

    // Writes them, and `last` unless it is null. Nothing is waited for here, and no signal ends the
    // process in between. If a worker is killed, its parent marks the mailbox.
    void write(Rewrite* last) {
        const SignalBlock block;
        try {
            for (Rewrite& rewrite : rewrites_) rewrite.write(mark_);
            if (last != nullptr) last->write(mark_);
        } catch (const Failure&) {
            mark_for_recount(id_);
            throw;
        }
        rewrites_.clear();
    }

  private:
    // Nobody has to wait for these files while this process waits for another one.
    void write_early() {
        mark_.set();
        write(nullptr);
    }

    static constexpr std::size_t kMost = 64;  // open files beside the folders' own

    const TSMailUserId& id_;
    Mark& mark_;
    std::list<Rewrite> rewrites_;
};

// A program that appends to the record without the folder's lock adds its message before that, or
// removes it after that. So the count covers all that was appended before the record was locked
// (but for a message that is about to be removed), and later entries add to the count.
Recounted recount_folder(const TSMailUserId& id, const LockedFolder& folder, Rewrites& rewrites) {
    std::optional<Totals> counted;
    if (!folder.has_record) {
        counted = count(folder);
        // A folder that never had a message needs no record.
        if (counted->count == 0) return {folder.name, {}, {}};
    }
    Rewrite& record =
        rewrites.open(folder_size_file(id.mailfolder(folder.name)), SizeFile::Kind::folder);
    if (!counted || record.file().length() != 0) counted = count(folder);
    Recounted result = {folder.name, shown(record.file().totals()), *counted};
    if (!record.changes(*counted)) rewrites.drop();
    return result;
}

using Done = std::function<void(std::size_t, std::size_t)>;

// Recounts. The caller has locked all folders and the mailbox's record.
MailboxRecount recount_locked(const TSMailUserId& id, const LockedFolders& folders,
                              Rewrite& mailbox, const Done& done) {
    Mark mark(id);
    MailboxRecount result;
    result.was_marked = mark.found();
    result.mailbox.before = shown(mailbox.file().totals());
    Rewrites rewrites(id, mark);
    for (const LockedFolder& folder : folders) {
        result.folders.push_back(recount_folder(id, folder, rewrites));
        add(result.mailbox.after, result.folders.back().after);
        if (done) done(result.folders.size(), folders.size());
    }
    rewrites.write(mailbox.changes(result.mailbox.after) ? &mailbox : nullptr);
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
    Rewrite record(path, SizeFile::Kind::mailbox);
    if (!(stamp_of(record.file(), path) == before) && has_other_folders(id, folders)) {
        return std::nullopt;
    }
    return recount_locked(id, folders, record, done);
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
