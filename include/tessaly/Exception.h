/* Tessaly::Exception - the exception of the appliance's support library.
 *
 * Tessaly::TSMailUserId throws it for operations that the direct mailbox type does not offer. The
 * support library (libtssupport, or the appliance's own) defines the class; libtsmail imports it.
 */
#ifndef TESSALY_EXCEPTION_H
#define TESSALY_EXCEPTION_H

#include <exception>
#include <string>

#pragma GCC visibility push(default)

namespace Tessaly {

/* Holds a message, a code, and the place in the source that threw. Construction and copying may
 * throw std::bad_alloc. */
class Exception : public std::exception {
  public:
    /* Copies the message and the name of the throwing source file; a NULL file stands for "". */
    Exception(const std::string& message, int code, const char* file, int line);
    Exception(const Exception& other);
    Exception& operator=(const Exception& other);
    ~Exception() noexcept override;

    /* Return what the exception was built from; what() is the message as a C string. References and
     * pointers are valid as long as the object lives and is not assigned to. */
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
