#include <fcntl.h>
#include <tessaly/maillist.h>

#include <climits>
#include <memory>

#include "binding.h"

namespace tsmail_python {

namespace {

// Which list: every function of the library takes these three.
struct List {
    Text user;
    Text name;
    unsigned scope;

    Text path() const {
        char path[PATH_MAX];
        if (mail_list_get_path(user.c_str(), name.c_str(), path, sizeof path, scope) != 0) {
            throw std::bad_alloc();
        }
        Text text{path};
        if (text.bytes.size() == sizeof path - 1) throw_os_error(ENAMETOOLONG, text);
        return text;
    }
    // The older function for the same.
    std::string file_name() const {
        char path[PATH_MAX];
        mail_list_get_file_name(user.c_str(), name.c_str(), path, sizeof path, scope);
        return path;
    }
};

constexpr int kFull = -2;

void add(const List& list, const Text& entry) {
    const auto added = outcome_of([&] {
        return mail_list_add_to(list.user.c_str(), list.name.c_str(), entry.c_str(), list.scope);
    });
    if (added.result == kFull) {
        throw_os_error(PyExc_OSError, ENOSPC, "the list is full", list.path());
    }
    if (added.result != 0) throw_os_error(added.error, list.path());
}

bool contains(const List& list, const Text& entry) {
    return without_gil([&] {
        return mail_list_find(list.user.c_str(), list.name.c_str(), entry.c_str(), list.scope) == 1;
    });
}

bool matches(const List& list, const Text& address) {
    return without_gil([&] {
        return mail_list_match(list.user.c_str(), list.name.c_str(), address.c_str(), list.scope) ==
               1;
    });
}

py::list entries(const List& list, bool sorted) {
    mail_list_names names = {};
    const std::unique_ptr<mail_list_names, void (*)(mail_list_names*)> owner(&names,
                                                                             mail_list_free_names);
    const auto read = outcome_of([&] {
        return mail_list_get_names(list.user.c_str(), list.name.c_str(), &names, sorted ? 1 : 0,
                                   list.scope);
    });
    if (read.result != 0) throw_os_error(read.error, list.path());
    py::list result(names.count);
    for (std::uint32_t i = 0; i < names.count; ++i) result[i] = python_text(names.names[i]);
    return result;
}

template <class Rewrite>
void rewrite(const List& list, Rewrite call) {
    const auto outcome = outcome_of([&] { return call(list.user.c_str(), list.name.c_str()); });
    if (outcome.result != 0) throw_os_error(outcome.error, list.path());
}

void remove(const List& list, const Text& entry) {
    rewrite(list, [&](const char* user, const char* name) {
        return mail_list_delete_from(user, name, entry.c_str(), list.scope);
    });
}

void replace(const List& list, unsigned line, Text entry) {
    rewrite(list, [&](const char* user, const char* name) {
        return mail_list_modify_from(user, name, entry.bytes.data(), line, list.scope);
    });
}

void remove_numbered(const List& list, int number) {
    rewrite(list, [&](const char* user, const char* name) {
        return mail_list_delete_through_id(user, name, number, list.scope);
    });
}

// How many lines the library reads from the list, without its lock. Not held up by a FIFO.
int line_count(const List& list) {
    const Text path = list.path();
    const auto counted = outcome_of([&]() -> int {
        const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        using Stream = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
        const Stream stream(fd < 0 ? nullptr : ::fdopen(fd, "r"), std::fclose);
        return stream ? maillist_count(stream.get()) : -1;
    });
    if (counted.result < 0) throw_os_error(counted.error, path);
    return counted.result;
}

using Class = py::class_<List>;

void add_entries(Class& type) {
    type.def("add", add, documented("Adds an entry.", {"mail_list_add_to"}).c_str(), "entry"_a);
    type.def("contains", contains,
             documented("Whether a line equals the entry.", {"mail_list_find"}).c_str(), "entry"_a);
    type.def(
        "matches", matches,
        documented("Whether a line, taken as a pattern, matches the address.", {"mail_list_match"})
            .c_str(),
        "address"_a);
    type.def(
        "entries", entries,
        documented("The non-empty lines.", {"mail_list_get_names", "mail_list_free_names"}).c_str(),
        "sorted"_a = false);
    type.def("line_count", line_count,
             documented("How many lines the list has.", {"maillist_count"}).c_str());
}

void add_rewriting(Class& type) {
    type.def("remove", remove,
             documented("Leaves out every line that equals the entry.", {"mail_list_delete_from"})
                 .c_str(),
             "entry"_a);
    type.def("replace", replace,
             documented("Replaces a line, counted from 1.", {"mail_list_modify_from"}).c_str(),
             "line"_a, "entry"_a);
    type.def("remove_numbered", remove_numbered,
             documented("Removes an entry of a numbered list and closes the gap.",
                        {"mail_list_delete_through_id"})
                 .c_str(),
             "number"_a);
}

}  // namespace

void add_lists(py::module_& module) {
    Class type(module, "List", "An address list by user, name and scope.");
    type.def(py::init([](const Text& user, const Text& name, unsigned scope) {
                 return List{user, name, scope};
             }),
             "user"_a, "name"_a, "scope"_a = unsigned{MAIL_LIST_USER});
    type.def(
        "path", [](const List& list) { return python_text(list.path().bytes); },
        documented("Where the list lies.", {"mail_list_get_path"}).c_str());
    type.def(
        "file_name", [](const List& list) { return python_text(list.file_name()); },
        documented("Where the list lies, cut at 4095 bytes.", {"mail_list_get_file_name"}).c_str());
    add_entries(type);
    add_rewriting(type);
    module.def(
        "system_lists_changed", [](const Text& user) { return is_mail_list_changed(user.c_str()); },
        documented("The flag of changed system lists; 0 for any user but the empty one.",
                   {"is_mail_list_changed"})
            .c_str(),
        "user"_a = Text{});
}

}  // namespace tsmail_python
