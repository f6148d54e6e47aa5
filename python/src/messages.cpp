// Names of messages, and a folder's messages by their names.
#include <dirent.h>
#include <fcntl.h>
#include <pybind11/stl.h>
#include <sys/stat.h>
#include <tessaly/mailstore.h>

#include <climits>
#include <cstring>
#include <ctime>
#include <optional>

#include "base/dir_reader.h"
#include "base/fd.h"
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

using Tessaly::base::DirReader;
using Tessaly::base::Fd;
using Tessaly::base::retry;

constexpr std::size_t kPiece = 1 << 17;  // bytes of names that are turned into Python's at a time

// Whether an entry is not a message: hidden, or a directory.
bool is_other(int dir, const dirent64& entry) {
    if (entry.d_name[0] == '.') return true;
    if (entry.d_type != DT_UNKNOWN && entry.d_type != DT_LNK) return entry.d_type == DT_DIR;
    struct stat st;
    return ::fstatat(dir, entry.d_name, &st, 0) == 0 && S_ISDIR(st.st_mode);
}

// The names of the next messages of a directory, each ended by NUL. False at the end.
bool next_names(int dir, DirReader& reader, std::string& names) {
    names.clear();
    const dirent64* entry = nullptr;
    while (names.size() < kPiece && (entry = reader.next_real()) != nullptr) {
        if (!is_other(dir, *entry)) names.append(entry->d_name, std::strlen(entry->d_name) + 1);
    }
    return entry != nullptr;
}

void add_entries(py::dict& table, const std::string& names, std::string_view sub) {
    std::string path(sub);
    for (std::size_t begin = 0; begin < names.size();) {
        const std::string_view name = names.data() + begin;
        path.resize(sub.size());
        path.append(name);
        const py::str key = python_text(key_of(name)), place = python_text(path);
        if (PyDict_SetItem(table.ptr(), key.ptr(), place.ptr()) != 0) throw py::error_already_set();
        begin += name.size() + 1;
    }
}

void add_directory(py::dict& table, const Text& path, std::string_view sub) {
    const auto dir = outcome_of([&] {
        return Fd(retry([&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    });
    if (!dir.result) throw_os_error(dir.error, path);
    DirReader reader(dir.result.get());
    std::string names;
    for (bool more = true; more;) {
        const auto read = outcome_of([&] { return next_names(dir.result.get(), reader, names); });
        if (reader.failed()) throw_os_error(read.error, path);
        add_entries(table, names, sub);
        more = read.result;
    }
}

// {key: "cur/NAME" or "new/NAME"}
py::dict messages_in(const Text& folder) {
    py::dict table;
    for (const char* sub : {"cur/", "new/"}) add_directory(table, {folder.bytes + '/' + sub}, sub);
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
