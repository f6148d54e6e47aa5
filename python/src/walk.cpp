// The walk over folders. It moves the working directory, which belongs to a whole process; a walk
// that only collects runs in a thread with a working directory of its own.
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <tessaly/mailstore.h>

#include <thread>
#include <vector>

#include "base/fd.h"
#include "binding.h"

namespace tsmail_python {

namespace {

using Tessaly::base::Fd;
using Tessaly::base::retry;

struct Found {
    std::string name;
    struct stat record;
};

double seconds_of(const timespec& time) {
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

long long nanoseconds_of(const timespec& time) { return 1000000000LL * time.tv_sec + time.tv_nsec; }

// os.stat_result, as os.stat makes it.
py::object stat_result(const struct stat& st) {
    const py::tuple fields =
        py::make_tuple(st.st_mode, st.st_ino, st.st_dev, st.st_nlink, st.st_uid, st.st_gid,
                       st.st_size, st.st_atim.tv_sec, st.st_mtim.tv_sec, st.st_ctim.tv_sec,
                       seconds_of(st.st_atim), seconds_of(st.st_mtim), seconds_of(st.st_ctim),
                       nanoseconds_of(st.st_atim), nanoseconds_of(st.st_mtim),
                       nanoseconds_of(st.st_ctim), st.st_blksize, st.st_blocks, st.st_rdev);
    return py::module_::import("os").attr("stat_result")(fields);
}

// The walk itself calls a directory that cannot be listed an empty one.
void demand_directory(const Text& dir) {
    const auto opened = outcome_of([&] {
        return Fd(retry([&] { return ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    });
    if (!opened.result) throw_os_error(opened.error, dir);
}

int collect(const char* name, const struct stat* st, void* found) {
    static_cast<std::vector<Found>*>(found)->push_back({name, *st});
    return 0;
}

// Where the kernel refuses a working directory of one's own, the process's moves during the walk.
std::vector<Found> collected(const Text& dir, int depth) {
    std::vector<Found> found;
    std::exception_ptr failed;
    const auto walk = [&] {
        ::unshare(CLONE_FS);
        try {
            tsl_visit_folders(dir.c_str(), depth, collect, &found);
        } catch (...) {
            failed = std::current_exception();
        }
    };
    std::thread(walk).join();
    if (failed) std::rethrow_exception(failed);
    return found;
}

py::list walk(const Text& dir, int depth) {
    demand_directory(dir);
    py::list result;
    for (const Found& each : without_gil([&] { return collected(dir, depth); })) {
        result.append(py::make_tuple(python_text(each.name), stat_result(each.record)));
    }
    return result;
}

// An exception of the visitor leaves the walk, which puts the working directory back.
int call_visitor(const char* name, const struct stat* st, void* visitor) {
    const py::gil_scoped_acquire acquired;
    const py::object answer =
        (*static_cast<const py::function*>(visitor))(python_text(name), stat_result(*st));
    return answer.is_none() ? 0 : answer.cast<int>();
}

int visit(const Text& dir, const py::function& visitor, int depth) {
    demand_directory(dir);
    return without_gil([&] {
        return tsl_visit_folders(dir.c_str(), depth, call_visitor,
                                 const_cast<py::function*>(&visitor));
    });
}

}  // namespace

void add_walk(py::module_& module) {
    module.def("walk", walk,
               documented("The folders below a directory, as (name, stat record); the process's "
                          "working directory does not move.",
                          {"tsl_visit_folders"})
                   .c_str(),
               "dir"_a, "depth"_a = 1);
    module.def(
        "visit", visit,
        documented("Calls visitor(name, stat record) for each folder below a directory, with "
                   "the folder's parent as working directory; the sum of its results.",
                   {"tsl_visit_folders"})
            .c_str(),
        "dir"_a, "visitor"_a, "depth"_a = 1);
}

}  // namespace tsmail_python
