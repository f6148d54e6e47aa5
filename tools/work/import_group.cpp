#include "tools/work/import_group.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "base/io.h"
#include "base/store_names.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/folder_lock.h"
#include "tools/work/records.h"
#include "tools/work/uncounted.h"

namespace Tessaly::tool {

namespace {

using std::string;

constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr std::size_t kMostMessages = 512;
constexpr std::uint64_t kMostBytes = 32 << 20;
constexpr std::size_t kBuffer = 131072;

Fd open_directory(int at, const char* name, const string& path) {
    Fd fd(retry([&] { return ::openat(at, name, kDirectory); }));
    if (!fd) throw system_failure(printable(path));
    return fd;
}

}  // namespace

ImportDraft::ImportDraft(int tmp) {
    if (tmp >= 0) file_ = std::make_unique<SpoolFile>(tmp, "");
}

void ImportDraft::write(std::string_view bytes) {
    size_ += bytes.size();
    if (!file_) return;
    buffer_.append(bytes);
    if (buffer_.size() >= kBuffer) flush();
}

void ImportDraft::flush() {
    if (!base::write_all(file_->fd(), buffer_)) throw system_failure("writing below tmp");
    buffer_.clear();
}

void ImportDraft::finish(std::time_t date) {
    if (!file_) return;
    flush();
    buffer_.shrink_to_fit();
    const timespec times[] = {{0, UTIME_OMIT}, {date, 0}};
    if (::futimens(file_->fd(), times) != 0) throw system_failure("setting a message's time");
}

ImportGroup::ImportGroup(const TSMailUserId& id, string folder)
    : id_(id), folder_(std::move(folder)) {
    const string path = id_.mailfolder(folder_);
    fd_ = open_directory(AT_FDCWD, path.c_str(), path);
    tmp_ = open_directory(fd_.get(), names::kTmp.data(), path + "/tmp");
}

bool ImportGroup::is_full() const {
    return members_.size() >= kMostMessages || bytes_ >= kMostBytes;
}

void ImportGroup::add(ImportDraft draft, string name, bool fresh) {
    bytes_ += draft.size();
    members_.push_back({std::move(draft), std::move(name), fresh});
}

// All files are on their way to the disk before the first one is waited for, so that they share the
// file system's commits.
void ImportGroup::flush_files() const {
    for (const Member& member : members_) {
        ::sync_file_range(member.draft.file()->fd(), 0, 0, SYNC_FILE_RANGE_WRITE);
    }
    for (const Member& member : members_) {
        if (retry([&] { return ::fsync(member.draft.file()->fd()); }) != 0) {
            throw system_failure("writing below tmp");
        }
    }
}

void ImportGroup::appear(int folder, ImportCount& count) const {
    const string path = id_.mailfolder(folder_);
    const Fd fresh = open_directory(folder, names::kNew.data(), path + "/new");
    const Fd cur = open_directory(folder, names::kCur.data(), path + "/cur");
    for (const Member& member : members_) {
        const int place = member.fresh ? fresh.get() : cur.get();
        if (!member.draft.file()->appear_as(place, member.name)) {
            ++count.present;
            continue;
        }
        ++count.messages;
        count.bytes += member.draft.size();
    }
    for (const Fd* place : {&fresh, &cur}) {
        count.flushed = retry([&] { return ::fsync(place->get()); }) == 0 && count.flushed;
    }
}

ImportCount ImportGroup::commit(const SignalHold& signals) {
    ImportCount count;
    if (members_.empty()) return count;
    flush_files();
    FolderLock lock;
    const auto pause = [&](int milliseconds) { signals.wait_milliseconds(milliseconds); };
    const bool locked = lock.lock(id_, folder_, LockKind::shared, pause);
    if (!locked || !(identity_of(lock.fd()) == identity_of(fd_.get()))) {
        throw Failure(kExitTryAgain,
                      printable(id_.mailfolder(folder_)) + ": the folder was removed meanwhile");
    }
    signals.check();
    Uncounted uncounted(id_);
    appear(lock.fd(), count);
    const auto bytes = static_cast<long long>(count.bytes);
    const auto messages = static_cast<long long>(count.messages);
    const bool in_folder = add_to_folder_record(id_.mailfolder(folder_), bytes, messages);
    count.counted = add_to_mailbox_record(id_, bytes, messages) && in_folder;
    if (count.counted) uncounted.counted();
    members_.clear();
    bytes_ = 0;
    return count;
}

}  // namespace Tessaly::tool
