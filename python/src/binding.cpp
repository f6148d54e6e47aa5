#include "binding.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace tsmail_python {

namespace {

bool without_nul(std::string_view text) {
    if (text.find('\0') == std::string_view::npos) return true;
    PyErr_SetString(PyExc_ValueError, "embedded null byte");
    return false;
}

bool read_bytes(PyObject* bytes, std::string& out) {
    out.assign(PyBytes_AS_STRING(bytes), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes)));
    return without_nul(out);
}

bool read_str(PyObject* text, std::string& out) {
    if (PyUnicode_IS_COMPACT_ASCII(text)) {
        out.assign(reinterpret_cast<const char*>(PyUnicode_1BYTE_DATA(text)),
                   static_cast<std::size_t>(PyUnicode_GET_LENGTH(text)));
        return without_nul(out);
    }
    const auto bytes = py::reinterpret_steal<py::object>(PyUnicode_EncodeFSDefault(text));
    return bytes && read_bytes(bytes.ptr(), out);
}

bool is_ascii(std::string_view text) {
    constexpr std::uint64_t kHighBits = 0x8080808080808080;
    std::size_t at = 0;
    for (; at + sizeof kHighBits <= text.size(); at += sizeof kHighBits) {
        std::uint64_t bytes;
        std::memcpy(&bytes, text.data() + at, sizeof bytes);
        if ((bytes & kHighBits) != 0) return false;
    }
    return std::all_of(text.begin() + static_cast<std::ptrdiff_t>(at), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// Nearly all texts are ASCII, which is ASCII in every encoding of a file system.
PyObject* new_text(std::string_view bytes) {
    const auto size = static_cast<Py_ssize_t>(bytes.size());
    if (!is_ascii(bytes)) return PyUnicode_DecodeFSDefaultAndSize(bytes.data(), size);
    PyObject* text = PyUnicode_New(size, 0x7f);
    if (text != nullptr) std::memcpy(PyUnicode_1BYTE_DATA(text), bytes.data(), bytes.size());
    return text;
}

}  // namespace

bool read_text(PyObject* object, std::string& out) {
    if (PyUnicode_Check(object)) return read_str(object, out);
    if (PyBytes_Check(object)) return read_bytes(object, out);
    if (!PyObject_HasAttrString(reinterpret_cast<PyObject*>(Py_TYPE(object)), "__fspath__")) {
        return false;
    }
    const auto path = py::reinterpret_steal<py::object>(PyOS_FSPath(object));
    return path && read_text(path.ptr(), out);
}

py::str python_text(std::string_view bytes) {
    PyObject* text = new_text(bytes);
    if (text == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::str>(text);
}

void throw_os_error(int error, const Text& path, int otherwise) {
    const int number = error != 0 ? error : otherwise;
    throw_os_error(PyExc_OSError, number, std::strerror(number), path);
}

void throw_os_error(PyObject* type, int error, const char* what, const Text& path) {
    // OSError chooses its subclass by the number.
    const py::object exception =
        py::reinterpret_borrow<py::object>(type)(error, what, python_text(path.bytes));
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exception.ptr())), exception.ptr());
    throw py::error_already_set();
}

}  // namespace tsmail_python
