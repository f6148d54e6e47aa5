// The module tsmail._core: the library's functions with Python's types. The package's other modules
// make of them what a Python programmer expects.
#include <sys/random.h>
#include <tessaly/Exception.h>

#include <cstdlib>
#include <utility>

#include "binding.h"

namespace tsmail_python {

namespace {

// Held for the life of the process, as a module's own exceptions are.
PyObject* g_no_layout = nullptr;
PyObject* g_unknown_totals = nullptr;

PyObject* new_error(py::module_& module, const char* name, const char* doc) {
    const std::string full = std::string("tsmail.") + name;
    PyObject* error = PyErr_NewExceptionWithDoc(full.c_str(), doc, PyExc_OSError, nullptr);
    if (error == nullptr) throw py::error_already_set();
    module.add_object(name, error);
    return error;
}

void translate_exception(std::exception_ptr thrown) {
    try {
        if (thrown) std::rethrow_exception(std::move(thrown));
    } catch (const Tessaly::Exception& exception) {
        const auto error =
            py::reinterpret_borrow<py::object>(g_no_layout)(ENOTSUP, exception.what());
        error.attr("code") = exception.code();
        PyErr_SetObject(g_no_layout, error.ptr());
    }
}

// Message names and queue identifiers hold numbers of the C library's generators, which a program
// has to seed, and which Python does not reach.
void seed_random() {
    unsigned seeds[2] = {};
    if (::getrandom(seeds, sizeof seeds, 0) != static_cast<ssize_t>(sizeof seeds)) {
        throw_os_error(errno, Text{"getrandom"});
    }
    std::srand(seeds[0]);
    ::srandom(seeds[1]);
}

}  // namespace

PyObject* no_layout_error() { return g_no_layout; }
PyObject* unknown_totals_error() { return g_unknown_totals; }

void add_errors(py::module_& module) {
    g_no_layout = new_error(module, "NoLayoutError",
                            "A direct mailbox has no paths (errno is ENOTSUP; `code` is the "
                            "library's number).");
    g_unknown_totals = new_error(module, "UnknownTotalsError",
                                 "The size files are not to be trusted until somebody recounts "
                                 "(errno is ESTALE).");
    py::register_exception_translator(translate_exception);
}

}  // namespace tsmail_python

PYBIND11_MODULE(_core, module) {
    using namespace tsmail_python;
    py::options options;
    options.disable_function_signatures();
    module.doc() = "The library's functions with Python's types.";
    seed_random();
    for (auto* add : {add_errors, add_identity, add_folders, add_walk, add_messages, add_sizes,
                      add_scan, add_deletion, add_quota, add_preferences, add_lists}) {
        add(module);
    }
}
