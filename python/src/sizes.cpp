// Size record files, scan cache, scan date, notification.
#include <tessaly/mailstore.h>

#include <climits>

#include "binding.h"

namespace tsmail_python {

namespace {

using Count = unsigned long long;
constexpr Count kUntouched = ~Count{0};

// A sum of bytes and messages, or why there is none: where the library leaves the outputs alone,
// what `untouched` says; else the file is damaged.
template <class Read, class Untouched>
py::tuple totals(const Text& path, Read read, Untouched untouched) {
    Count size = kUntouched, count = kUntouched;
    const auto outcome = outcome_of([&] { return read(&size, &count); });
    if (outcome.result == 0) return py::make_tuple(size, count);
    if (size == kUntouched && count == kUntouched) untouched(outcome.error);
    throw_os_error(unknown_totals_error(), ESTALE, "the size file is damaged", path);
}

py::tuple read_folder_size(const Text& path) {
    return totals(
        path,
        [&](Count* size, Count* count) {
            return tsl_read_mail_folder_size(path.c_str(), size, count);
        },
        [&](int) { throw_os_error(ENOENT, path); });
}

py::tuple read_mailbox_size(const Text& maildir) {
    return totals(
        maildir,
        [&](Count* size, Count* count) {
            return tsl_get_maildirsize(nullptr, maildir.c_str(), size, count);
        },
        [&](int) {
            throw_os_error(unknown_totals_error(), ESTALE, "the sizes wait for a recount", maildir);
        });
}

void add_records(py::module_& module) {
    const auto add = [&](const char* name, const char* summary, CName from, auto call) {
        module.def(
            name,
            [call](const Text& path, long long size, long long count) {
                without_gil([&] { return call(path.c_str(), size, count); });
            },
            documented(summary, {from}).c_str(), "path"_a, "size"_a, "count"_a);
    };
    add("append_mailbox_size", "Adds a record to a .maildirsize file.", "tsl_append_maildirsize",
        tsl_append_maildirsize);
    add("append_folder_size", "Adds a record to a .ts_folder_size file.",
        "tsl_append_mail_folder_size", tsl_append_mail_folder_size);
    add("write_folder_size", "Replaces what a .ts_folder_size file holds.",
        "tsl_write_mail_folder_size", tsl_write_mail_folder_size);
    module.def("read_folder_size", read_folder_size,
               documented("A folder's bytes and messages.", {"tsl_read_mail_folder_size"}).c_str(),
               "path"_a);
    module.def("read_mailbox_size", read_mailbox_size,
               documented("A mailbox's bytes and messages.", {"tsl_get_maildirsize"}).c_str(),
               "maildir"_a);
}

void add_marks(py::module_& module) {
    const auto add = [&](const char* name, const char* summary, CName from, auto call) {
        module.def(
            name,
            [call](const Text& text) {
                demand_zero(
                    text, [&] { return call(text.c_str()); }, ENOENT);
            },
            documented(summary, {from}).c_str(), "text"_a);
    };
    add("distrust_sizes_by_path", "Asks for a recount of the mailbox with this maildir root.",
        "tsl_reset_quota_flag_by_path", tsl_reset_quota_flag_by_path);
    add("distrust_sizes_by_user", "Asks for a recount of an ordinary user's mailbox.",
        "tsl_reset_quota_flag_by_user", tsl_reset_quota_flag_by_user);
}

// ---- Scan cache and scan date -------------------------------------------------------------------

py::str cache_file(const Text& dir) {
    char path[PATH_MAX];
    const int length = tsl_get_maildir_cache_file(dir.c_str(), path, sizeof path);
    if (length < 0 || length == static_cast<int>(sizeof path) - 1)
        throw_os_error(ENAMETOOLONG, dir);
    return python_text({path, static_cast<std::size_t>(length)});
}

void write_cache(const Text& path, long mtime, unsigned long size) {
    const auto outcome =
        outcome_of([&] { return tsl_write_maildir_cache_file(path.c_str(), mtime, size); });
    if (outcome.result != 1) throw_os_error(outcome.error, path);
}

py::object read_cache(const Text& path) {
    long mtime = 0;
    unsigned long size = 0;
    const int read =
        without_gil([&] { return tsl_read_maildir_cache_file(path.c_str(), &mtime, &size); });
    if (read == 0) return py::none();
    return py::make_tuple(mtime, size);
}

py::object unread_scan_date(const Text& dir) {
    long date = 0;
    const int read = without_gil([&] { return tsl_get_mail_unread_scandate(dir.c_str(), &date); });
    if (read != 0) return py::none();
    return py::int_(date);
}

void add_caches(py::module_& module) {
    module.def(
        "cache_file", cache_file,
        documented("The path of a folder's scan cache.", {"tsl_get_maildir_cache_file"}).c_str(),
        "dir"_a);
    module.def("write_cache", write_cache,
               documented("Writes a scan cache.", {"tsl_write_maildir_cache_file"}).c_str(),
               "path"_a, "mtime"_a, "size"_a);
    module.def("read_cache", read_cache,
               documented("The time and size in a scan cache, None without one.",
                          {"tsl_read_maildir_cache_file"})
                   .c_str(),
               "path"_a);
    module.def(
        "set_unread_scan_date",
        [](const Text& dir, int date) {
            without_gil([&] { return tsl_set_mail_unread_scandate(dir.c_str(), date); });
        },
        documented("Writes the date of the last scan for unread messages.",
                   {"tsl_set_mail_unread_scandate"})
            .c_str(),
        "dir"_a, "date"_a);
    module.def("unread_scan_date", unread_scan_date,
               documented("The date of the last scan for unread messages, None without one.",
                          {"tsl_get_mail_unread_scandate"})
                   .c_str(),
               "dir"_a);
}

}  // namespace

void add_sizes(py::module_& module) {
    add_records(module);
    add_marks(module);
    add_caches(module);
    module.def(
        "tell_quota_daemon",
        [](const Text& folder, long delta) {
            const auto sent =
                outcome_of([&] { return tsl_update_mail_folder_size(folder.c_str(), delta); });
            if (sent.result < 0) throw_os_error(sent.error, folder);
        },
        documented("Tells the quota daemon that a folder's size changed.",
                   {"tsl_update_mail_folder_size"})
            .c_str(),
        "folder"_a, "delta"_a);
}

}  // namespace tsmail_python
