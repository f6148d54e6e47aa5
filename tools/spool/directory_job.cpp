#include "tools/spool/directory_job.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <optional>

#include "tools/cli/text.h"
#include "tools/spool/job.h"

namespace Tessaly::tool {

namespace {

using std::string;

constexpr char kFailed[] = "failed";  // the field in which the worker reports its Failure

}  // namespace

void run_in(Session& session, const Place& directory, const std::function<void(int, Report&)>& work,
            const std::function<void(const Json&)>& show) {
    std::optional<Failure> failed;
    Job job;
    job.owner = [&](std::size_t) { return owner_of(directory); };
    job.input = [&](std::size_t) { return Fd(::fcntl(directory.fd.get(), F_DUPFD_CLOEXEC, 0)); };
    job.work = [&](std::size_t, int input, Report& report) {
        try {
            work(input, report);
        } catch (const Failure& failure) {
            report.object({{kFailed, failure.what()},
                           {"code", int{failure.code()}},
                           {"errno", failure.error()}});
        }
        return kExitOk;
    };
    job.show = [&](std::size_t, const Json& object) {
        if (!object.contains(kFailed)) return show(object);
        failed = Failure(static_cast<ExitCode>(object.at("code").get<int>()),
                         object.at(kFailed).get<string>(), object.at("errno").get<int>());
    };
    const int code = run_job(session, job).code;
    if (failed) throw *failed;
    if (code != kExitOk) {
        throw Failure(static_cast<ExitCode>(code), printable(directory.path) + ": not changed");
    }
}

void flush_directory(int directory, const string& path) {
    const Fd fd(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd && ::fsync(fd.get()) != 0 && errno != EINVAL) throw system_failure(printable(path));
}

bool move_between(int from_directory, const string& from, int to_directory, const string& to) {
    if (rename_new(from_directory, from.c_str(), to_directory, to.c_str())) return true;
    if (errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP) {
        return ::renameat(from_directory, from.c_str(), to_directory, to.c_str()) == 0;
    }
    if (errno == ENOTEMPTY) errno = EEXIST;
    return false;
}

bool move_within(int directory, const string& from, const string& to) {
    return move_between(directory, from, directory, to);
}

void demand_free(const Place& directory, const string& name) {
    struct stat st;
    const string path = directory.path + '/' + name;
    if (::fstatat(directory.fd.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        throw name_taken(path);
    }
    if (errno != ENOENT) throw system_failure(printable(path));
}

Failure name_taken(const string& path) {
    return {kExitCannotCreate, printable(path) + ": this name is taken", EEXIST};
}

}  // namespace Tessaly::tool
