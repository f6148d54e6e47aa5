// binding - what every part of the module is made of: texts, the lock of the interpreter, errors.
#ifndef TSMAIL_PYTHON_BINDING_H
#define TSMAIL_PYTHON_BINDING_H

#include <pybind11/pybind11.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

#include "documented.h"

namespace tsmail_python {

namespace py = pybind11;
using namespace py::literals;

// A path, a name or an address as Python has it: str (in the file system's encoding, bytes that it
// cannot decode as surrogates), bytes or os.PathLike. Without NUL bytes.
struct Text {
    std::string bytes;
    const char* c_str() const { return bytes.c_str(); }
};

// Fills `out`. False, and a Python error if it is not just another type.
bool read_text(PyObject* object, std::string& out);
// The text of bytes that the library gave.
py::str python_text(std::string_view bytes);

// ---- Calls --------------------------------------------------------------------------------------

// Runs a call that touches files while other threads of Python go on. Nothing of Python may be
// touched in it.
template <class Call>
auto without_gil(Call&& call) {
    const py::gil_scoped_release released;
    return call();
}

// A result and the errno that belongs to it: the lock's return may change errno.
template <class Result>
struct Outcome {
    Result result;
    int error;
};

template <class Call>
auto outcome_of(Call&& call) {
    const py::gil_scoped_release released;
    errno = 0;
    auto result = call();
    return Outcome<decltype(result)>{std::move(result), errno};
}

// ---- Errors -------------------------------------------------------------------------------------

// OSError, or the subclass that belongs to the number (FileNotFoundError, ...). Where the library
// does not promise errno and a call left none, it is `otherwise`.
[[noreturn]] void throw_os_error(int error, const Text& path, int otherwise = EIO);
[[noreturn]] void throw_os_error(PyObject* type, int error, const char* what, const Text& path);

// For functions that answer 0 or fail.
template <class Call>
void demand_zero(const Text& path, Call&& call, int otherwise = EIO) {
    const auto outcome = outcome_of(call);
    if (outcome.result != 0) throw_os_error(outcome.error, path, otherwise);
}

// The exceptions of the module, subclasses of OSError: no layout (direct mailboxes), totals that
// are not to be trusted.
PyObject* no_layout_error();
PyObject* unknown_totals_error();
void add_errors(py::module_& module);

// ---- The parts ----------------------------------------------------------------------------------

void add_identity(py::module_& module);
void add_folders(py::module_& module);
void add_walk(py::module_& module);
void add_messages(py::module_& module);
void add_sizes(py::module_& module);
void add_scan(py::module_& module);
void add_deletion(py::module_& module);
void add_quota(py::module_& module);
void add_preferences(py::module_& module);
void add_lists(py::module_& module);

}  // namespace tsmail_python

namespace pybind11::detail {

template <>
struct type_caster<tsmail_python::Text> {
    PYBIND11_TYPE_CASTER(tsmail_python::Text, const_name("str | bytes | os.PathLike"));
    static handle cast(const tsmail_python::Text& text, return_value_policy, handle) {
        return tsmail_python::python_text(text.bytes).release();
    }
    bool load(handle source, bool) {
        const bool read = tsmail_python::read_text(source.ptr(), value.bytes);
        if (!read && PyErr_Occurred() != nullptr) throw error_already_set();
        return read;
    }
};

}  // namespace pybind11::detail

#endif
