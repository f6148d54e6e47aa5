#include <sys/vfs.h>
#include <tessaly/mailstore.h>

#include <cstdint>

#include "binding.h"

namespace tsmail_python {

namespace {

void add_tables(py::module_& module) {
    py::list system;
    for (int i = 0; i < tsl_sys_folders_count; ++i) system.append(python_text(tsl_sys_folders[i]));
    py::list reserved;
    for (const tsm_sys_folder* row = tsm_sys_folders; row->name != nullptr; ++row) {
        reserved.append(python_text({row->name, row->length}));
    }
    module.attr("SYSTEM_FOLDERS") = py::tuple(system);
    module.attr("RESERVED_NAMES") = py::tuple(reserved);
}

void add_name_tests(py::module_& module) {
    module.def(
        "system_folder_number", [](const Text& name) { return tsl_is_system_folder(name.c_str()); },
        documented("The number of a system folder, 0 for any other.",
                   {"tsl_is_system_folder", "tsl_sys_folders", "tsl_sys_folders_count"})
            .c_str(),
        "name"_a);
    module.def(
        "system_parent_number",
        [](const Text& name) { return tsl_is_system_sub_folder(name.c_str()); },
        documented("The number of the system folder that a folder lies below, or 0.",
                   {"tsl_is_system_sub_folder"})
            .c_str(),
        "name"_a);
    module.def(
        "is_reserved_name",
        [](const Text& path) { return tsl_is_reserved_folder(path.c_str()) != 0; },
        documented("Whether a path's last component begins with a reserved name.",
                   {"tsl_is_reserved_folder", "tsm_sys_folders"})
            .c_str(),
        "path"_a);
    module.def(
        "may_be_mbox", [](const Text& path) { return tsl_is_mbox_folder(path.c_str()) != 0; },
        documented("Whether a path's name is not reserved.", {"tsl_is_mbox_folder"}).c_str(),
        "path"_a);
    module.def(
        "name_verdict",
        [](const Text& name, unsigned flags) {
            return tsl_is_valid_mailbox_name(name.c_str(), flags);
        },
        documented("What is wrong with a folder name: 0 nothing, 1 malformed, 2 refused.",
                   {"tsl_is_valid_mailbox_name"})
            .c_str(),
        "name"_a, "flags"_a = 0);
}

void add_file_tests(py::module_& module) {
    const auto test = [&](const char* name, const char* summary, CName from, auto call) {
        module.def(
            name,
            [call](const Text& path) {
                return without_gil([&] { return call(path.c_str()) != 0; });
            },
            documented(summary, {from}).c_str(), "path"_a);
    };
    test("is_mbox", "Whether a file begins with an mbox separator line.", "tsl_is_mbox",
         tsl_is_mbox);
    test("is_maildir_folder", "Whether a directory is a maildir folder.", "tsl_is_maildir_folder",
         tsl_is_maildir_folder);
    test("is_mail_folder", "Whether a path is a directory that is a maildir folder.",
         "tsl_is_mail_folder", [](const char* path) { return tsl_is_mail_folder(path, nullptr); });
}

// A user's directory: false if it is not there and was not to be made.
template <class Make>
bool make_user_directory(Make make, const Text& address, bool create) {
    const auto outcome = outcome_of([&] { return make(address.c_str(), create ? 1 : 0); });
    if (outcome.result == 0) return true;
    if (outcome.result == -1 && !create) return false;
    throw_os_error(outcome.error, address, ENOMEM);
}

void add_making(py::module_& module) {
    module.def(
        "make_folder",
        [](const Text& path) {
            demand_zero(path, [&] { return tsl_mkdir_maildir(path.c_str()); });
        },
        documented("Makes a maildir folder.", {"tsl_mkdir_maildir"}).c_str(), "path"_a);
    const auto add = [&](const char* name, const char* summary, CName from, auto make) {
        module.def(
            name,
            [make](const Text& address, bool create) {
                return make_user_directory(make, address, create);
            },
            documented(summary, {from}).c_str(), "address"_a, "create"_a = true);
    };
    add("make_mail_directory", "Makes a user's maildir root; whether it is there.",
        "create_mail_dir", create_mail_dir);
    add("make_pref_directory", "Makes a user's preference directory; whether it is there.",
        "create_pref_dir", create_pref_dir);
}

// What tells the file systems of several machines from others. 0 if it cannot be learned.
std::uint32_t file_system_type(int fd) {
    struct statfs fs = {};
    const int got = without_gil([&] { return ::fstatfs(fd, &fs); });
    return got == 0 ? static_cast<std::uint32_t>(fs.f_type) : 0;
}

}  // namespace

void add_folders(py::module_& module) {
    add_tables(module);
    add_name_tests(module);
    add_file_tests(module);
    add_making(module);
    module.def("file_system_type", file_system_type,
               "The type of the file system in which an open file lies, as statfs(2) numbers them.",
               "fd"_a);
}

}  // namespace tsmail_python
