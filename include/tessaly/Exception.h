/* Tessaly::Exception - the exception of the appliance's support library.
 *
 * Thrown by Tessaly::TSMailUserId for operations that the direct mailbox type does not offer. The
 * class lives in the support library (libtssupport, or the appliance's own), not in libtsmail.
 */
#ifndef TESSALY_EXCEPTION_H
#define TESSALY_EXCEPTION_H

#include <exception>
#include <string>

#pragma GCC visibility push(default)

namespace Tessaly {

/* A message, a code and the place in the source that threw. Copying may throw std::bad_alloc. */
class Exception : public std::exception {
  public:
    /* file: name of the throwing source as the thrower gives it, copied; NULL counts as "". */
    Exception(const std::string& message, int code, const char* file, int line);
    Exception(const Exception& other);
    Exception& operator=(const Exception& other);
    ~Exception() noexcept override;

    /* What the exception was built from, what() being the message as a C string. References and
     * pointers are valid as long as this object lives and is not assigned to. */
    const char* what() const noexcept override;
    const std::string& message() const noexcept;
    int code() const noexcept;
    const char* file() const noexcept;
    int line() const noexcept;

  private:
    std::string message_;
    int code_;
    std::string file_;
    int line_;
};

}  // namespace Tessaly

#pragma GCC visibility pop

#endif
