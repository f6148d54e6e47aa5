#include "tools/work/expiry.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "base/dir_reader.h"
#include "base/number.h"
#include "base/store_names.h"
#include "tools/cli/descriptors.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/folder_lock.h"
#include "tools/work/message_size.h"
#include "tools/work/paths.h"
#include "tools/work/records.h"
#include "tools/work/removal.h"
#include "tools/work/uncounted.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

// So many entries are read before messages are removed. They are removed in the order of their
// inodes, which spares a disk many steps.
constexpr std::size_t kBatch = 10000;

struct Entry {
    ino64_t inode;
    string name;
    bool is_file;  // false if the directory does not tell
};

bool is_flagged(string_view name) {
    constexpr string_view kInfo = ":2,";
    const auto at = name.rfind(kInfo);
    return at != string_view::npos && name.find('F', at + kInfo.size()) != string_view::npos;
}

// Reading a date from a name asks for the time zone each time. If the environment does not name the
// zone, the C library looks at the zone's file each time.
void name_time_zone() { ::setenv("TZ", ":/etc/localtime", 0); }

// The messages of a folder, whose lock the caller holds.
class Expiry {
  public:
    using LookedAt = std::function<void(std::size_t)>;
    Expiry(const TSMailUserId& id, const string& folder, const ExpiryRule& rule,
           const LookedAt& looked_at)
        : id_(id), folder_(id.mailfolder(folder)), rule_(rule), looked_at_(looked_at) {}

    // `folder` is the folder's open directory.
    void expire_in(int folder, string_view sub) {
        const string path = in(folder_, sub);
        constexpr int kToRead = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
        const Fd dir(retry([&] { return ::openat(folder, sub.data(), kToRead); }));
        if (!dir && errno == ENOENT) return;
        if (!dir) throw system_failure(printable(path));
        base::DirReader reader(dir.get());
        while (const dirent64* entry = reader.next_real()) {
            take(*entry);
            if (batch_.size() == kBatch) remove_batch(dir.get());
        }
        const int error = reader.failed() ? errno : 0;
        remove_batch(dir.get());
        if (error != 0) throw system_failure(printable(path), error);
    }

    // Corrects the records by all that was removed.
    Expired settle() {
        if (!uncounted_) return expired_;
        constexpr std::uint64_t kMost = LLONG_MAX;
        const auto bytes = static_cast<long long>(std::min(expired_.bytes, kMost));
        const auto messages = static_cast<long long>(expired_.messages);
        const bool in_folder = messages == 0 || add_to_folder_record(folder_, -bytes, -messages);
        const bool in_mailbox = messages == 0 || add_to_mailbox_record(id_, -bytes, -messages);
        expired_.counted = in_folder && in_mailbox;
        if (expired_.counted) uncounted_->counted();
        return expired_;
    }

  private:
    void take(const dirent64& entry) {
        if (entry.d_name[0] == '.' || (entry.d_type != DT_REG && entry.d_type != DT_UNKNOWN)) {
            return;
        }
        ++looked_at_so_far_;
        if (!rule_.flagged && is_flagged(entry.d_name)) return;
        batch_.push_back({entry.d_ino, entry.d_name, entry.d_type == DT_REG});
    }

    void remove_batch(int dir) {
        std::sort(batch_.begin(), batch_.end(),
                  [](const Entry& a, const Entry& b) { return a.inode < b.inode; });
        for (const Entry& entry : batch_) remove_if_old(dir, entry);
        batch_.clear();
        looked_at_(looked_at_so_far_);
    }

    void remove_if_old(int dir, const Entry& entry) {
        const char* name = entry.name.c_str();
        const long long named = get_maildir_msg_len_from_name(name);
        const time_t in_name = rule_.by == AgeBy::saved ? tsl_get_mail_creation_date(name)
                                                        : tsl_get_mail_received_date(name);
        if (in_name != -1 && !is_old(in_name)) return;
        const bool needs_no_file =
            rule_.by == AgeBy::received && in_name != -1 && named >= 0 && entry.is_file;
        struct stat st = {};
        if (!needs_no_file) {
            if (::fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return failed(errno);
            if (!S_ISREG(st.st_mode) || !is_old(st, in_name)) return;
        }
        remove(dir, name, counted_size(named, st));
    }

    bool is_old(time_t time) const { return now_ - time > rule_.older.count(); }
    bool is_old(const struct stat& st, time_t in_name) const {
        if (rule_.by == AgeBy::saved) return is_old(st.st_ctim.tv_sec);
        return in_name != -1 || is_old(st.st_mtim.tv_sec);
    }

    void remove(int dir, const char* name, std::uint64_t size) {
        if (!rule_.dry_run) {
            if (!uncounted_) uncounted_.emplace(id_);
            if (::unlinkat(dir, name, 0) != 0) return failed(errno);
        }
        ++expired_.messages;
        base::add_up(expired_.bytes, size);
    }

    void failed(int error) {
        if (error == ENOENT) return;  // removed or renamed by another program
        if (expired_.left++ == 0) expired_.error = error;
    }

    const TSMailUserId& id_;
    const string folder_;
    const ExpiryRule& rule_;
    const LookedAt& looked_at_;
    const time_t now_ = std::time(nullptr);
    std::vector<Entry> batch_;
    std::size_t looked_at_so_far_ = 0;
    std::optional<Uncounted> uncounted_;
    Expired expired_;
};

}  // namespace

Expired expire(const TSMailUserId& id, const string& folder, const ExpiryRule& rule,
               const std::function<void(std::size_t)>& looked_at) {
    name_time_zone();
    const FolderLock lock = locked_folder(id, folder, LockKind::shared);
    present_folder(id, folder);
    Expiry expiry(id, folder, rule, looked_at);
    try {
        for (const string_view sub : {names::kNew, names::kCur}) expiry.expire_in(lock.fd(), sub);
    } catch (const Failure&) {
        expiry.settle();
        throw;
    }
    return expiry.settle();
}

}  // namespace Tessaly::tool
