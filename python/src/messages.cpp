// Names of messages, and a folder's messages by their names.
#include <dirent.h>
#include <fcntl.h>
#include <pybind11/stl.h>
#include <sys/stat.h>
#include <tessaly/mailstore.h>

#include <climits>
#include <ctime>
#include <memory>
#include <optional>

#include "binding.h"

namespace tsmail_python {

namespace {

py::str unique_name(std::size_t size, const Text& queue_id) {
    char name[NAME_MAX + 1];
    tsl_gen_mail_unique_name(size, queue_id.c_str(), name, sizeof name);
    return python_text(name);
}

py::str queue_id(std::optional<std::time_t> when) {
    std::tm fields = {};
    if (when && ::gmtime_r(&*when, &fields) == nullptr) throw_os_error(EOVERFLOW, Text{"queue_id"});
    char id[64];
    tsl_gen_queue_id(when ? &fields : nullptr, id, sizeof id);
    return python_text(id);
}

// What the library answers with -1 is None.
template <class Number>
std::optional<Number> known(Number number) {
    return number == -1 ? std::nullopt : std::optional<Number>(number);
}

// ---- A folder's messages ------------------------------------------------------------------------

constexpr std::string_view kSizeField = ",#F#S#";

// What a message is known by: its name without flags and without a size field behind the first,
// which it got when its content was replaced.
std::string_view key_of(std::string_view name) {
    name = name.substr(0, name.find(':'));
    const std::size_t first = name.find(kSizeField);
    if (first == std::string_view::npos) return name;
    return name.substr(0, name.find(kSizeField, first + kSizeField.size()));
}

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

bool is_directory(DIR* dir, const dirent& entry) {
    if (entry.d_type != DT_UNKNOWN && entry.d_type != DT_LNK) return entry.d_type == DT_DIR;
    struct stat st;
    return ::fstatat(::dirfd(dir), entry.d_name, &st, 0) == 0 && S_ISDIR(st.st_mode);
}

// The names in a directory that are no directories, each ended by NUL.
std::string names_in(const std::string& path) {
    std::string names;
    const Directory dir(::opendir(path.c_str()), ::closedir);
    if (!dir) return names;
    for (errno = 0; const dirent* entry = ::readdir(dir.get()); errno = 0) {
        if (!is_directory(dir.get(), *entry)) names.append(entry->d_name).push_back('\0');
    }
    return names;
}

void add_entries(py::dict& table, const std::string& names, std::string_view sub) {
    std::string path(sub);
    for (std::size_t begin = 0; begin < names.size();) {
        const std::string_view name = names.data() + begin;
        path.resize(sub.size());
        path.append(name);
        table[python_text(key_of(name))] = python_text(path);
        begin += name.size() + 1;
    }
}

// {key: "cur/NAME" or "new/NAME"}
py::dict messages_in(const Text& folder) {
    py::dict table;
    for (const std::string sub : {"cur/", "new/"}) {
        const auto listed = outcome_of([&] { return names_in(folder.bytes + '/' + sub); });
        if (listed.error != 0) throw_os_error(listed.error, Text{folder.bytes + '/' + sub});
        add_entries(table, listed.result, sub);
    }
    return table;
}

}  // namespace

void add_messages(py::module_& module) {
    module.def("unique_name", unique_name,
               documented("A name for a message.", {"tsl_gen_mail_unique_name"}).c_str(), "size"_a,
               "queue_id"_a);
    module.def("queue_id", queue_id,
               documented("A queue identifier for a time in seconds since the epoch, or for now.",
                          {"tsl_gen_queue_id"})
                   .c_str(),
               "when"_a = py::none());
    module.def(
        "creation_time",
        [](const Text& name) { return known(tsl_get_mail_creation_date(name.c_str())); },
        documented("The time in the first field of a name, in seconds since the epoch.",
                   {"tsl_get_mail_creation_date"})
            .c_str(),
        "name"_a);
    module.def(
        "received_time",
        [](const Text& name) { return known(tsl_get_mail_received_date(name.c_str())); },
        documented("The time in the queue part of a name, in seconds since the epoch.",
                   {"tsl_get_mail_received_date"})
            .c_str(),
        "name"_a);
    module.def(
        "size_in_name",
        [](const Text& name) { return known(get_maildir_msg_len_from_name(name.c_str())); },
        documented("The size in a name.", {"get_maildir_msg_len_from_name"}).c_str(), "name"_a);
    module.def(
        "key_of_name", [](const Text& name) { return python_text(key_of(name.bytes)); },
        "What a message is known by: its name without flags and later size fields.", "name"_a);
    module.def("messages_in", messages_in,
               "The messages of a folder: {key: name with cur/ or new/ in front}.", "folder"_a);
}

}  // namespace tsmail_python
