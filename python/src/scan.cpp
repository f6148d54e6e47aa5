// Sizes as a scan of the directories finds them.
#include <tessaly/mailstore.h>

#include "binding.h"

namespace tsmail_python {

void add_scan(py::module_& module) {
    module.def(
        "directory_size",
        [](const Text& dir, const Text& sub, int flags) {
            return without_gil([&] { return tsl_get_dir_size(dir.c_str(), sub.c_str(), flags); });
        },
        documented("The bytes of the entries of a directory.", {"tsl_get_dir_size"}).c_str(),
        "dir"_a, "sub"_a = Text{}, "flags"_a = 0);
    module.def(
        "cached_size",
        [](const Text& path) {
            return without_gil([&] { return tsl_get_mailbox_size(path.c_str(), nullptr); });
        },
        documented("A folder's bytes as its cache has them.", {"tsl_get_mailbox_size"}).c_str(),
        "path"_a);
    module.def(
        "scanned_size",
        [](const Text& path, int flags) {
            return without_gil(
                [&] { return tsl_get_mailbox_size_actual(path.c_str(), nullptr, flags); });
        },
        documented("A folder's bytes, counted unless its cache is fresh.",
                   {"tsl_get_mailbox_size_actual"})
            .c_str(),
        "path"_a, "flags"_a = 0);
    module.def(
        "unlink_message",
        [](const Text& path) {
            demand_zero(path, [&] { return tsl_maildir_unlink_mail(path.c_str()); });
        },
        documented("Removes a message and takes it out of its folder's total.",
                   {"tsl_maildir_unlink_mail"})
            .c_str(),
        "path"_a);
}

}  // namespace tsmail_python
