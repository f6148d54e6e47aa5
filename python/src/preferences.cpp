#include <tessaly/userpref.h>

#include <cstring>
#include <memory>

#include "binding.h"

namespace tsmail_python {

namespace {

constexpr unsigned kLineRoom = 511;  // a stored line has at most 510 bytes

const pref_property* find(std::string_view key) {
    for (const pref_property* row = pref_properties; row->name != nullptr; ++row) {
        if (key == row->name) return row;
    }
    throw py::key_error(std::string(key));
}

char* field_of(user_pref& record, const pref_property& row) {
    return reinterpret_cast<char*>(&record) + row.offset;
}
const char* field_of(const user_pref& record, const pref_property& row) {
    return reinterpret_cast<const char*>(&record) + row.offset;
}

template <class Function>
Function convertor(std::uint32_t index) {
    return reinterpret_cast<Function>(reinterpret_cast<void (*)()>(pref_data_convertor[index]));
}

template <class Number>
Number number_at(const char* field) {
    Number number;
    std::memcpy(&number, field, sizeof number);
    return number;
}

py::object value_of(const user_pref& record, const pref_property& row) {
    const char* field = field_of(record, row);
    switch (row.type) {
        case PREF_TYPE_INT:
            return py::int_(number_at<std::int32_t>(field));
        case PREF_TYPE_BOOL:
            return py::bool_(*field != 0);
        case PREF_TYPE_UINT16:
            return py::int_(number_at<std::uint16_t>(field));
        default:
            return python_text({field, ::strnlen(field, row.size - 1)});
    }
}

// ---- Setting ------------------------------------------------------------------------------------

[[noreturn]] void refuse(const pref_property& row, const char* why) {
    throw py::value_error(std::string(row.name) + ": " + why);
}

// The line of the file, its line end included.
std::string line_of(const user_pref& record, const pref_property& row) {
    char line[kLineRoom];
    convertor<pref_field_to_text>(2 * row.type + 1)(line, sizeof line, row.name,
                                                    field_of(record, row));
    return line;
}

// Whether a field, once stored, is read as it is.
bool comes_back(const user_pref& record, const pref_property& row) {
    std::string line = line_of(record, row);
    if (!line.ends_with('\n')) return false;
    user_pref read = {};
    using Stream = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
    const Stream stream(::fmemopen(line.data(), line.size(), "r"), std::fclose);
    if (!stream || fill_user_pref_struct(&read, stream.get()) != 0) throw std::bad_alloc();
    if (row.type != PREF_TYPE_STRING)
        return std::memcmp(field_of(record, row), field_of(read, row), row.size) == 0;
    return std::strcmp(field_of(record, row), field_of(read, row)) == 0;
}

void set_number(user_pref& record, const pref_property& row, long long number, long long least,
                long long most) {
    if (number < least || number > most) {
        refuse(row, (std::to_string(number) + " is not between " + std::to_string(least) + " and " +
                     std::to_string(most))
                        .c_str());
    }
    const auto text = std::to_string(number);
    convertor<pref_text_to_field>(2 * row.type)(field_of(record, row), row.size, text.c_str());
}

void set_text(user_pref& record, const pref_property& row, const std::string& text) {
    if (text.size() >= row.size) {
        refuse(row, ("it is longer than " + std::to_string(row.size - 1) + " bytes").c_str());
    }
    std::memset(field_of(record, row), 0, row.size);
    std::memcpy(field_of(record, row), text.data(), text.size());
}

// A number beyond long long is far out of any range.
long long number_of(const pref_property& row, const py::object& value) {
    if (!py::isinstance<py::int_>(value)) {
        throw py::type_error(std::string(row.name) + ": an int is wanted");
    }
    int overflow = 0;
    const long long number = PyLong_AsLongLongAndOverflow(value.ptr(), &overflow);
    if (overflow != 0) refuse(row, "it is far out of range");
    return number;
}

std::string text_of(const pref_property& row, const py::object& value) {
    std::string text;
    const bool is_text = PyUnicode_Check(value.ptr()) || PyBytes_Check(value.ptr());
    if (!is_text) throw py::type_error(std::string(row.name) + ": a str or bytes is wanted");
    if (!read_text(value.ptr(), text)) throw py::error_already_set();
    return text;
}

void assign(user_pref& record, const pref_property& row, const py::object& value) {
    switch (row.type) {
        case PREF_TYPE_INT:
            return set_number(record, row, number_of(row, value), INT32_MIN, INT32_MAX);
        case PREF_TYPE_BOOL:
            return set_number(record, row, number_of(row, value), 0, 1);
        case PREF_TYPE_UINT16:
            return set_number(record, row, number_of(row, value), 0, UINT16_MAX);
        default:
            return set_text(record, row, text_of(row, value));
    }
}

void set_value(user_pref& record, const Text& key, const py::object& value) {
    const pref_property& row = *find(key.bytes);
    user_pref changed = record;
    assign(changed, row, value);
    if (!comes_back(changed, row)) refuse(row, "it would not be read back as it is");
    record = changed;
}

// ---- Files --------------------------------------------------------------------------------------

// The file is read into a copy: other threads of Python may use the record meanwhile.
template <class Read>
void read_into(user_pref& record, const Text& user, Read read) {
    user_pref copy = record;
    demand_zero(
        user, [&] { return read(copy); }, EINVAL);
    record = copy;
}

void store(const user_pref& record, const Text& user) {
    const user_pref copy = record;
    demand_zero(
        user, [&] { return store_user_pref(user.c_str(), &copy); }, EINVAL);
}

// The bytes of a preference file from elsewhere.
void fill(user_pref& record, const py::bytes& content) {
    std::string bytes = content;
    if (bytes.empty()) return;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(
        ::fmemopen(bytes.data(), bytes.size(), "r"), std::fclose);
    if (!stream) throw std::bad_alloc();
    fill_user_pref_struct(&record, stream.get());
}

using Class = py::class_<user_pref>;

void add_making(Class& type) {
    type.def_static(
        "defaults",
        [](bool system_timezone) {
            auto record = std::make_unique<user_pref>();
            if (system_timezone) {
                without_gil([&] { get_default_user_pref_with_tz(record.get()); });
            } else {
                get_default_user_pref(record.get());
            }
            return record;
        },
        documented("The defaults.",
                   {"user_pref", "get_default_user_pref", "get_default_user_pref_with_tz"})
            .c_str(),
        "system_timezone"_a = false);
    type.def(
        "copy", [](const user_pref& record) { return record; }, "The same values.");
    type.def(
        "get",
        [](const user_pref& record, const Text& key) { return value_of(record, *find(key.bytes)); },
        "A value by its key.", "key"_a);
    type.def("set", set_value,
             documented("Sets a value that comes back as it is; ValueError else.",
                        {"pref_properties", "pref_data_convertor", "store_user_pref"})
                 .c_str(),
             "key"_a, "value"_a);
    type.def(
        "line",
        [](const user_pref& record, const Text& key) {
            return python_text(line_of(record, *find(key.bytes)));
        },
        documented("A key's line in the file.", {"pref_field_to_text"}).c_str(), "key"_a);
}

void add_reading(Class& type) {
    type.def(
        "parse_line",
        [](user_pref& record, const Text& line) {
            std::string copy = line.bytes;
            return parse_pref_line(&record, copy.data());
        },
        documented("Applies one line of a file.", {"parse_pref_line"}).c_str(), "line"_a);
    type.def("fill", fill,
             documented("Applies the content of a file.", {"fill_user_pref_struct"}).c_str(),
             "content"_a);
    type.def(
        "read",
        [](user_pref& record, const Text& user) {
            read_into(record, user,
                      [&](user_pref& copy) { return read_user_pref(&copy, user.c_str()); });
        },
        documented("Applies a user's file.", {"read_user_pref"}).c_str(), "user"_a);
    type.def(
        "read_all",
        [](user_pref& record, const Text& user) {
            read_into(record, user,
                      [&](user_pref& copy) { return read_user_pref_all(user.c_str(), &copy); });
        },
        documented("The defaults, with a user's file applied.", {"read_user_pref_all"}).c_str(),
        "user"_a);
    type.def("store", store, documented("Writes a user's file.", {"store_user_pref"}).c_str(),
             "user"_a);
}

// {key: (type, size)}, in the order of the file.
py::dict table() {
    py::dict rows;
    for (const pref_property* row = pref_properties; row->name != nullptr; ++row) {
        rows[row->name] = py::make_tuple(row->type, row->size);
    }
    return rows;
}

}  // namespace

void add_preferences(py::module_& module) {
    Class type(module, "PreferenceRecord", "The preferences of a user in memory.");
    add_making(type);
    add_reading(type);
    module.attr("PREFERENCES") = table();
    module.def(
        "user_timezone",
        [](const Text& user) {
            return without_gil([&] { return get_user_pref_lite_timezone(user.c_str()); });
        },
        documented("The number of a user's time zone.", {"get_user_pref_lite_timezone"}).c_str(),
        "user"_a);
}

}  // namespace tsmail_python
