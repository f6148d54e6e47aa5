#include "tools/doctor/spool_peer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "base/io.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/folder_lock.h"

namespace Tessaly::tool {

namespace {

using std::string;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kPause{2};
constexpr int kRounds = 5;

// The files of the meeting place.
constexpr char kLocked[] = "locked", kReady[] = "ready", kPing[] = "ping", kPong[] = "pong",
               kDone[] = "done";

// Calls `true_now` until it returns true. False if it did not within the time.
bool wait_until(Clock::time_point end, const std::function<bool()>& true_now) {
    while (!true_now()) {
        if (Clock::now() >= end) return false;
        std::this_thread::sleep_for(kPause);
    }
    return true;
}

bool exists(int directory, const char* name) {
    struct stat st;
    return ::fstatat(directory, name, &st, 0) == 0;
}

Fd opened(int directory, const char* name, int flags) {
    Fd fd(retry([&] { return ::openat(directory, name, flags | O_CLOEXEC, 0600); }));
    if (!fd) throw system_failure(name);
    return fd;
}

void write_text(int directory, const char* name, const string& text) {
    const Fd fd = opened(directory, name, O_WRONLY | O_CREAT | O_TRUNC);
    if (!base::write_all(fd.get(), text) || ::fsync(fd.get()) != 0) throw system_failure(name);
}

// "" if there is no such file yet.
string text_of(int directory, const char* name) {
    const Fd fd(::openat(directory, name, O_RDONLY | O_CLOEXEC));
    char text[16];
    const ssize_t n = fd ? base::pread_full(fd.get(), text, sizeof text, 0) : 0;
    return {text, static_cast<std::size_t>(std::max<ssize_t>(n, 0))};
}

// Whether nobody has the pipe's other end any more.
bool is_closed(int pipe) {
    pollfd polled = {pipe, 0, 0};
    return ::poll(&polled, 1, 0) > 0 && (polled.revents & (POLLHUP | POLLERR)) != 0;
}

// ---- the machine that tries

bool is_free(const Fd& fd) { return ::flock(fd.get(), LOCK_EX | LOCK_NB) == 0; }

Outcome look_at_file_locks(int place) {
    if (!is_free(opened(place, kLocked, O_RDWR))) return {Standing::holds, ""};
    return {Standing::fails, "both machines get the same lock"};
}

Outcome look_at_directory_locks(int place) {
    if (!is_free(opened(place, ".", O_RDONLY | O_DIRECTORY))) return {Standing::holds, ""};
    if (may_be_shared(place)) {
        return {Standing::adapts, "both machines get it: folders are locked by files"};
    }
    return {Standing::fails, "both machines get it, and the file system looks like a local one"};
}

Outcome look_at_new_names(int place) {
    const Fd fd(::openat(place, kReady, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (fd) return {Standing::fails, "both machines make the same file"};
    return errno == EEXIST ? Outcome{Standing::holds, ""}
                           : Outcome{Standing::fails, error_text(errno)};
}

// A round trip takes two views of a changed file. No clock of the other machine is needed.
Outcome look_at_lag(int place) {
    constexpr std::chrono::seconds kLongest{120};
    constexpr milliseconds kPrompt{100};
    milliseconds worst{0};
    for (int round = 1; round <= kRounds; ++round) {
        const string text = std::to_string(round);
        const auto begin = Clock::now();
        write_text(place, kPing, text);
        if (!wait_until(begin + kLongest, [&] { return text_of(place, kPong) == text; })) {
            return {Standing::fails, "a change on the other machine was never seen"};
        }
        const auto trip = std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
        worst = std::max(worst, trip);
    }
    const string detail = fmt::format("there and back in {} ms at most", worst.count());
    return {worst <= kPrompt ? Standing::holds : Standing::fails, detail};
}

constexpr Trait kPeerTraits[] = {
    {"file-locks-between-machines", "size files, preferences and lists are changed under a lock",
     "mount so that flock reaches the server, for NFS without nolock and local_lock",
     look_at_file_locks},
    {"directory-locks-between-machines", "a folder is recounted while no delivery is half done",
     "let one machine at a time work on a mailbox", look_at_directory_locks},
    {"new-names-between-machines", "a message appears under a name that nobody else has",
     "do not share this file system", look_at_new_names},
    {"lag-between-machines", "whoever has a lock sees what was written before it",
     "turn off the caches of the client and the volume, as attribute-timeout=0", look_at_lag},
};

}  // namespace

void wait_for_peer(const string& parent, milliseconds time, int alive) {
    const auto end = Clock::now() + time;
    const TryDirectory place(parent, kMeetingPlace);
    const Fd file = opened(place.fd(), kLocked, O_RDWR | O_CREAT);
    if (::flock(file.get(), LOCK_EX) != 0) throw system_failure(kLocked);
    ::flock(place.fd(), LOCK_EX);  // where that is not possible, the other machine finds it free
    write_text(place.fd(), kReady, "");
    string answered;
    const bool done = wait_until(end, [&] {
        const string asked = text_of(place.fd(), kPing);
        if (!asked.empty() && asked != answered) write_text(place.fd(), kPong, answered = asked);
        // Asked first: whoever finishes writes the file and ends then.
        const bool ended = is_closed(alive);
        if (exists(place.fd(), kDone)) return true;
        if (ended) throw Failure(kExitUnavailable, "the other machine's command has failed");
        return false;
    });
    if (!done) throw Failure(kExitTryAgain, "no other machine has finished its tries in time");
}

void try_with_peer(const string& parent, milliseconds time,
                   const std::function<void(const Trait&, const Outcome&)>& take) {
    const string path = parent + '/' + kMeetingPlace;
    Fd place;
    const bool met = wait_until(Clock::now() + time, [&] {
        place.reset(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        return place && exists(place.get(), kReady);
    });
    if (!met) throw Failure(kExitTryAgain, "no other machine waits (tsmail doctor --spool --wait)");
    for (const Trait& trait : kPeerTraits) take(trait, trait.look(place.get()));
    write_text(place.get(), kDone, "");
}

}  // namespace Tessaly::tool
