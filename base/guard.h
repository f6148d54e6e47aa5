// The border between the library's C++ and its C callers.
#ifndef TSMAIL_BASE_GUARD_H
#define TSMAIL_BASE_GUARD_H

#include <new>
#include <stdexcept>

namespace Tessaly::base {

// Runs the body of a flat function. A lack of memory gives the function's failure answer, so that
// no exception passes through C callers. (std::string throws std::length_error for an impossible
// size.)
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
