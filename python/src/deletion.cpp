#include <tessaly/mailstore.h>

#include "binding.h"

namespace tsmail_python {

namespace {

// For functions whose answer is an errno; a negative one says that there is nothing.
template <class Call>
void demand_no_errno(const Text& path, Call&& call) {
    const int error = without_gil(call);
    if (error != 0) throw_os_error(error > 0 ? error : ENOENT, path);
}

py::str free_deleted_path(const Text& path) {
    std::string out(path.bytes.size() + 64, '\0');
    demand_zero(
        path,
        [&] {
            return tsm_get_deleted_path(path.c_str(), out.data(), static_cast<int>(out.size()));
        },
        EINVAL);
    return python_text(out.c_str());
}

}  // namespace

void add_deletion(py::module_& module) {
    module.def(
        "schedule_deletion",
        [](const Text& path, const Text& dir, const Text& tag) {
            demand_zero(path, [&] {
                return tsm_schedule_for_deletion(path.c_str(), dir.c_str(), tag.c_str());
            });
        },
        documented("Renames what is to be removed by a later sweep.", {"tsm_schedule_for_deletion"})
            .c_str(),
        "path"_a, "dir"_a, "tag"_a = Text{});
    module.def(
        "free_deleted_path", free_deleted_path,
        documented("A free name for what is to be removed.", {"tsm_get_deleted_path"}).c_str(),
        "path"_a);
    module.def(
        "is_deleted_name",
        [](const Text& name) { return tsm_is_deleted_user_path(name.c_str()) != 0; },
        documented("Whether a name is that of something scheduled for deletion.",
                   {"tsm_is_deleted_user_path"})
            .c_str(),
        "name"_a);
    module.def(
        "delete_path",
        [](const Text& path) {
            demand_no_errno(path, [&] { return tsm_delete_path(path.c_str()); });
        },
        documented("Removes a file or a directory with all below it.", {"tsm_delete_path"}).c_str(),
        "path"_a);
    module.def(
        "delete_folder",
        [](const Text& path) {
            demand_no_errno(path, [&] { return tsm_delete_maildir(path.c_str()); });
        },
        documented("Removes a maildir folder.", {"tsm_delete_maildir"}).c_str(), "path"_a);
    module.def(
        "empty_folder",
        [](const Text& path) {
            demand_zero(
                path, [&] { return tsm_clean_maildir(path.c_str()); }, ENOTDIR);
        },
        documented("Removes the messages of a maildir folder.", {"tsm_clean_maildir"}).c_str(),
        "path"_a);
    module.def(
        "delete_user_file",
        [](int kind, const Text& address) {
            demand_zero(address, [&] { return tsl_delete_user_file(kind, address.c_str()); });
        },
        documented("Removes what a file kind names for a user.", {"tsl_delete_user_file"}).c_str(),
        "kind"_a, "address"_a);
}

}  // namespace tsmail_python
