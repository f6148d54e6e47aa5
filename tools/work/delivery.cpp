#include "tools/work/delivery.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <strings.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "base/store_names.h"
#include "tools/cli/address.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/quota.h"
#include "tools/work/records.h"
#include "tools/work/spool_file.h"

namespace Tessaly::tool {

namespace {

using std::string;

constexpr std::size_t kPiece = 65536;
constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

void write_all(int fd, std::string_view rest) {
    while (!rest.empty()) {
        const ssize_t n = retry([&] { return ::write(fd, rest.data(), rest.size()); });
        if (n < 0) throw system_failure("writing below tmp");
        rest.remove_prefix(static_cast<std::size_t>(n));
    }
}

// The next piece of the input; 0 at its end. A sender may take any time between two pieces.
std::size_t read_piece(const Input& input, char* piece, const SignalHold& signals, Report& report) {
    constexpr int kSign = 500;  // milliseconds until the parent gets a sign of life
    for (;;) {
        while (!signals.wait_readable(input.fd, kSign)) report.fed();
        const ssize_t n = read_some(input, piece, kPiece);
        if (n >= 0) return static_cast<std::size_t>(n);
    }
}

unsigned long long copy(const Input& input, int to, const SignalHold& signals, Report& report) {
    char piece[kPiece];
    unsigned long long size = 0;
    while (const std::size_t n = read_piece(input, piece, signals, report)) {
        write_all(to, {piece, n});
        size += n;
        report.fed();
    }
    return size;
}

string folder_of_tag(const string& tag, const string& inbox) {
    for (const string& folder : system_folders()) {
        if (::strcasecmp(tag.c_str(), folder.c_str()) == 0) return folder;
    }
    return is_folder_name(tag) ? tag : inbox;
}

// Whether or not it exists.
string wanted_folder(const TSMailUserId& id, const std::optional<string>& option) {
    return option.value_or(folder_of_tag(id.tag(), system_folders().front()));
}

// The first of the directories on the way that this process may not enter; the last one if it may
// enter all of them.
string refusing_directory(const string& path) {
    for (std::size_t end = 0; end != string::npos;) {
        end = path.find('/', end + 1);
        string directory = path.substr(0, end);
        if (::euidaccess(directory.c_str(), X_OK) != 0) return directory;
    }
    return path;
}

// "user 5000 works in /var/spool/x, which belongs to user 0 and group 0 and has the mode 0755".
string permissions_text(const string& path) {
    const string directory = refusing_directory(path);
    struct stat st;
    if (::stat(directory.c_str(), &st) != 0) {
        return fmt::format("user {} works in {}", ::geteuid(), printable(directory));
    }
    return fmt::format(
        "user {} works in {}, which belongs to user {} and group {} and has the mode {:04o}",
        ::geteuid(), printable(directory), st.st_uid, st.st_gid, st.st_mode & 07777);
}

}  // namespace

string choose_folder(const TSMailUserId& id, const std::optional<string>& option, bool may_make) {
    const string inbox = system_folders().front();
    string wanted = wanted_folder(id, option);
    if (may_make || wanted == inbox) return wanted;
    return tsl_is_mail_folder(id.mailfolder(wanted).c_str(), nullptr) != 0 ? wanted : inbox;
}

void demand_room(const TSMailUserId& id, ExitCode code) {
    if (!has_quota_flag(id, kExceededFlag)) return;
    throw Failure(code, printable(id.address(true)) + ": the mailbox is full", 0,
                  code == kExitTryAgain ? "4.2.2" : "5.2.2");
}

Failure explained(const Failure& failure, const string& directory) {
    const int error = failure.error();
    if (error == 0 || failure.code() == kExitNoUser) return failure;
    string text = failure.what();
    if (text.find(printable(directory)) == string::npos) {
        text.insert(0, printable(directory) + ": ");
    }
    if (error == EACCES || error == EPERM) text += " (" + permissions_text(directory) + ')';
    return {failure.code(), text, error, failure.status()};
}

// A message on its way, in the folder where it was written.
class Delivery::Draft {
  public:
    Draft(Place place, const string& queue_id)
        : place_(std::move(place)), file_(place_.tmp.get(), queue_id) {}

    const Place& place() const { return place_; }
    SpoolFile& file() { return file_; }
    unsigned long long size() const { return size_; }

    void write(const Input& input, const SignalHold& signals, Report& report) {
        size_ = copy(input, file_.fd(), signals, report);
        if (retry([&] { return ::fsync(file_.fd()); }) != 0) {
            throw system_failure("writing below tmp");
        }
    }
    // The written message, to read it again.
    Input written() const {
        if (::lseek(file_.fd(), 0, SEEK_SET) != 0) throw system_failure("reading below tmp");
        return {Fd(), file_.fd(), "the message below tmp"};
    }

  private:
    Place place_;
    SpoolFile file_;
    unsigned long long size_ = 0;
};

bool Delivery::find_place(Place& place) const {
    const string path = id_.mailfolder(folder_);
    place.folder.reset(retry([&] { return ::open(path.c_str(), kDirectory); }));
    const int folder = place.folder.get();
    // A folder needs all three directories; otherwise mail readers would not find the message.
    for (const auto part : {names::kCur, names::kNew}) {
        if (folder < 0 || ::faccessat(folder, part.data(), F_OK, 0) != 0) return false;
    }
    place.tmp.reset(retry([&] { return ::openat(folder, names::kTmp.data(), kDirectory); }));
    return static_cast<bool>(place.tmp);
}

Delivery::Place Delivery::open_place() {
    constexpr int kAttempts = 10;  // another process may remove what was just made
    Place place;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (find_place(place)) return place;
        if (errno != ENOENT) break;
        demand_mailbox(id_);
        if (!plan_.may_make_folder) folder_ = system_folders().front();
        maker_.make_folder(id_, folder_);  // or finds that another process just did
        errno = ENOENT;
    }
    throw system_failure(printable(id_.mailfolder(folder_)));
}

// False if the path no longer leads to the folder that was opened. A folder that was removed
// meanwhile has another name, so mail readers would not find the message there.
bool Delivery::lock_place(const Place& place, const SignalHold& signals, FolderLock& lock) const {
    const auto pause = [&](int milliseconds) { signals.wait_milliseconds(milliseconds); };
    if (lock.lock(id_, folder_, LockKind::shared, pause)) {
        return identity_of(lock.fd()) == identity_of(place.folder.get());
    }
    if (errno == ENOENT) return false;
    throw system_failure(printable(id_.mailfolder(folder_)));
}

Delivered Delivery::deliver(const Input& input, const SignalHold& signals, Report& report) {
    auto draft = std::make_unique<Draft>(open_place(), plan_.queue_id);
    draft->write(input, signals, report);
    FolderLock lock;
    while (!lock_place(draft->place(), signals, lock)) {
        lock.unlock();
        auto next = std::make_unique<Draft>(open_place(), plan_.queue_id);
        next->write(draft->written(), signals, report);
        draft = std::move(next);
    }
    signals.check();
    appear(*draft, lock, report);
    return {folder_, draft->size()};
}

void Delivery::appear(Draft& draft, const FolderLock& lock, Report& report) const {
    string path = id_.mailfolder(folder_).append("/new/");
    path.reserve(path.size() + NAME_MAX);  // memory must not be short when the message stands
    const Fd fresh(retry([&] { return ::openat(lock.fd(), names::kNew.data(), kDirectory); }));
    if (!fresh) throw system_failure(printable(path));
    const string name = draft.file().appear(fresh.get(), draft.size());
    const bool flushed = flush(fresh.get(), name, report);
    path += name;
    settle(path, draft.size(), flushed, report);
}

// Whether the new entry is on the disk. If the plan demands that, one that is not is taken back.
bool Delivery::flush(int fresh, const string& name, Report& report) const {
    if (!plan_.demand_flush) report.passed();
    const bool flushed = retry([&] { return ::fsync(fresh); }) == 0;
    const int error = errno;
    if (!plan_.demand_flush) return flushed;
    if (!flushed) {
        ::unlinkat(fresh, name.c_str(), 0);
        throw system_failure("flushing new", error);
    }
    report.passed();
    return true;
}

// Reports the message before it is counted, as a record may stay locked for a very long time.
void Delivery::settle(const string& path, unsigned long long size, bool flushed,
                      Report& report) const {
    report.object({{"path", path}, {"folder", folder_}, {"size", size}});
    if (!flushed) {
        report.warn(printable(path) + ": delivered, but it may not survive a crash yet");
    }
    report.send();
    const auto bytes = static_cast<long long>(size);
    const bool in_folder = add_to_folder_record(id_.mailfolder(folder_), bytes, 1);
    const bool in_mailbox = add_to_mailbox_record(id_, bytes, 1);
    if (!in_folder) report.warn(printable(path) + ": missing in its folder's size record");
    if (!in_mailbox) report.warn(printable(path) + ": missing in the mailbox's size record");
    if (!in_folder || !in_mailbox) mark_for_recount(id_);
}

namespace {

string folder_of(const DeliveryPlan& plan) {
    const FolderMaker maker(plan.callers_umask);
    if (!mailbox_exists(plan.id)) {
        if (!plan.may_make_mailbox) demand_mailbox(plan.id);
        maker.make_mailbox(plan.id);
    }
    if (plan.over_quota) demand_room(plan.id, *plan.over_quota);
    return choose_folder(plan.id, plan.folder, plan.may_make_folder);
}

}  // namespace

string planned_folder(const DeliveryPlan& plan) {
    try {
        demand_mailbox(plan.id);
        if (plan.over_quota) demand_room(plan.id, *plan.over_quota);
        return choose_folder(plan.id, plan.folder, plan.may_make_folder);
    } catch (const Failure& failure) {
        throw for_queue(explained(failure, plan.id.mailpath()));
    }
}

string planned_folder_of_new_mailbox(const DeliveryPlan& plan) {
    const std::vector<string> made = system_folders();
    const string wanted = wanted_folder(plan.id, plan.folder);
    const bool usable = plan.may_make_folder || std::ranges::find(made, wanted) != made.end();
    return usable ? wanted : made.front();
}

std::optional<Delivered> deliver(const DeliveryPlan& plan, const Input& input,
                                 const SignalHold& signals, Report& report) {
    string directory = plan.id.mailpath();
    try {
        const string folder = folder_of(plan);
        directory = plan.id.mailfolder(folder);
        return Delivery(plan, folder).deliver(input, signals, report);
    } catch (const Failure& failure) {
        report.error(for_queue(explained(failure, directory)));
        return std::nullopt;
    }
}

void seed_random() {
    unsigned seeds[2] = {};
    if (::getrandom(seeds, sizeof seeds, 0) != static_cast<ssize_t>(sizeof seeds)) {
        throw system_failure("getrandom");
    }
    std::srand(seeds[0]);
    ::srandom(seeds[1]);
}

string own_queue_id() {
    char id[64];
    if (tsl_gen_queue_id(nullptr, id, sizeof id) == nullptr) {
        throw Failure(kExitSoftware, "no queue identifier");
    }
    return id;
}

std::optional<ExitCode> answer_over_quota(bool refuse, bool defer) {
    if (refuse && defer) {
        throw Failure(kExitUsage, "give --refuse-exceeded or --defer-exceeded, not both");
    }
    if (refuse) return kExitUnavailable;
    return defer ? std::optional(kExitTryAgain) : std::nullopt;
}

}  // namespace Tessaly::tool
