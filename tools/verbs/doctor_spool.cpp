#include "tools/verbs/doctor_spool.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <utility>

#include "tools/cli/text.h"
#include "tools/doctor/spool_peer.h"
#include "tools/doctor/spool_traits.h"
#include "tools/spool/mailbox_job.h"

namespace Tessaly::tool {

namespace {

using std::string;

constexpr std::pair<Standing, const char*> kStandings[] = {
    {Standing::holds, "holds"}, {Standing::adapts, "adapts"}, {Standing::fails, "fails"}};

const char* word_of(Standing standing) { return kStandings[static_cast<int>(standing)].second; }

// ---- where to try

// One directory on each file system of the store.
class Places {
  public:
    void add(const Place& place) {
        struct stat st;
        if (::fstat(place.fd.get(), &st) != 0 || !known_.insert(st.st_dev).second) return;
        paths_.push_back(place.path);
    }
    std::vector<string> take() { return std::move(paths_); }

  private:
    std::set<dev_t> known_;
    std::vector<string> paths_;
};

Place store() {
    try {
        return place_at(TSMailUserId::MAIL_PATH_PREFIX);
    } catch (const Failure& failure) {
        if (failure.error() != ENOENT) throw;
        return spool_root();
    }
}

// A home or a domain's directory may be a link to another file system.
std::vector<string> places() {
    Places places;
    places.add(store());
    Homes homes;
    for (const TSMailUserId& id : every_mailbox().ids) {
        try {
            places.add(homes.home(id));
        } catch (const Failure&) {
            continue;  // no verb works there
        }
    }
    return places.take();
}

// ---- the worker's part

void report(Report& report, const string& path, const Trait& trait, const Outcome& outcome) {
    report.object({{"path", path},
                   {"trait", trait.name},
                   {"standing", word_of(outcome.standing)},
                   {"detail", outcome.detail},
                   {"why", trait.why},
                   {"advice", outcome.standing == Standing::fails ? trait.advice : ""}});
}

int try_traits(const string& path, int, Report& to) {
    for (const Trait& trait : spool_traits()) {
        const TryDirectory directory(path, fmt::format(".ts_try.{}", ::getpid()));
        report(to, path, trait, trait.look(directory.fd()));
    }
    return kExitOk;
}

// ---- what is shown

// Shows the traits; the exit code tells whether all hold.
class Shown {
  public:
    explicit Shown(Session& session) : session_(session) {}

    void add(const Json& row) {
        const auto text = [&](const char* field) { return printable(row.at(field).get<string>()); };
        failed_ = failed_ || text("standing") == word_of(Standing::fails);
        if (session_.json) return session_.out.object(row);
        string line = fmt::format("{}: {} {}", text("path"), text("trait"), text("standing"));
        if (!text("detail").empty()) line += " (" + text("detail") + ')';
        if (!text("advice").empty()) line += fmt::format("; {}: {}", text("why"), text("advice"));
        session_.out.line(line);
    }
    int code(const JobResult& result) const {
        if (result.code != kExitOk) return result.code;
        return failed_ ? kExitNo : kExitOk;
    }

  private:
    Session& session_;
    bool failed_ = false;
};

int run_at(Session& session, const std::vector<string>& paths,
           const std::function<int(const string& path, int input, Report&)>& work,
           Fd input = Fd()) {
    Shown shown(session);
    Job job;
    if (input) job.input = [&](std::size_t) { return std::move(input); };
    job.count = paths.size();
    job.owner = [&](std::size_t n) { return owner_of(place_at(paths[n])); };
    job.work = [&](std::size_t n, int in, Report& report) { return work(paths[n], in, report); };
    job.show = [&](std::size_t, const Json& row) { shown.add(row); };
    const JobResult result = run_job(session, job);
    return shown.code(result);
}

// ---- two machines

// The other machine's command, which writes to this one's output.
class Peer {
  public:
    Peer(Session& session, const string& host) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) throw system_failure("a pipe");
        alive_.reset(ends[0]);
        Fd held(::fcntl(ends[1], F_DUPFD, 0));  // which ssh inherits
        ::close(ends[1]);
        session.out.finish();
        std::vector<const char*> words = {"ssh", "--", host.c_str(), "tsmail"};
        if (session.json) words.push_back("--json");
        for (const char* word : {"doctor", "--spool", "--probe"}) words.push_back(word);
        words.push_back(nullptr);
        const int error = ::posix_spawnp(&process_, words[0], nullptr, nullptr,
                                         const_cast<char* const*>(words.data()), environ);
        if (error != 0) throw Failure(kExitUnavailable, "ssh: " + error_text(error), error);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() {
        if (process_ > 0) end();
    }
    int end() {
        int status = 0;
        retry([&] { return ::waitpid(std::exchange(process_, 0), &status, 0); });
        return WIFEXITED(status) ? WEXITSTATUS(status) : int{kExitUnavailable};
    }

    // A pipe that is closed when the process ends.
    Fd take_pipe() { return std::move(alive_); }

  private:
    pid_t process_ = 0;
    Fd alive_;
};

// Less than the parent allows, so that the worker can end by itself and clean up.
std::chrono::milliseconds patience(const Session& session) {
    return std::chrono::milliseconds(session.timeout) * 3 / 4;
}

int wait_here(Session& session, Fd alive = Fd()) {
    const auto wait = [&](const string& path, int pipe, Report&) {
        wait_for_peer(path, patience(session), pipe);
        return kExitOk;
    };
    return run_at(session, {store().path}, wait, std::move(alive));
}

int try_here(Session& session) {
    return run_at(session, {store().path}, [&](const string& path, int, Report& to) {
        try_with_peer(path, patience(session), [&](const Trait& trait, const Outcome& outcome) {
            report(to, path, trait, outcome);
        });
        return kExitOk;
    });
}

int run_with(Session& session, const string& host) {
    Peer peer(session, host);
    const int here = wait_here(session, peer.take_pipe());
    const int there = peer.end();
    return std::max(here, there);
}

}  // namespace

void declare_doctor_spool(Verb& verb, SpoolArguments& arguments) {
    verb.flag("--spool", arguments.spool, "Try what the store needs from its file systems instead")
        .flag("--wait", arguments.wait, "With --spool: wait for another machine's --probe")
        .flag("--probe", arguments.probe, "With --spool: try with the machine that waits")
        .text("--peer", arguments.peer, "With --spool: try with this host over ssh");
}

bool is_about_spool(const SpoolArguments& arguments) {
    if (arguments.spool) return true;
    if (!arguments.wait && !arguments.probe && !arguments.peer) return false;
    throw Failure(kExitUsage, "--wait, --probe and --peer go with --spool");
}

int run_doctor_spool(Session& session, const SpoolArguments& arguments) {
    const int machines =
        (arguments.wait ? 1 : 0) + (arguments.probe ? 1 : 0) + (arguments.peer ? 1 : 0);
    if (machines > 1) throw Failure(kExitUsage, "give one of --wait, --probe and --peer");
    if (arguments.wait) return wait_here(session);
    if (arguments.probe) return try_here(session);
    if (arguments.peer) return run_with(session, *arguments.peer);
    return run_at(session, places(), try_traits);
}

}  // namespace Tessaly::tool
