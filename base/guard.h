// Where the library's C++ meets its C callers.
#ifndef TSMAIL_BASE_GUARD_H
#define TSMAIL_BASE_GUARD_H

#include <new>
#include <stdexcept>

namespace Tessaly::base {

// Runs the body of a flat function; a lack of memory gets the function's failure answer instead of
// passing through C callers. (std::length_error is how std::string puts an impossible size.)
template <class Result, class Body>
Result no_throw(Result failure, Body&& body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return failure;
    } catch (const std::length_error&) {
        return failure;
    }
}

}  // namespace Tessaly::base

#endif
