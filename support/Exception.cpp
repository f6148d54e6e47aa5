#include <tessaly/Exception.h>

namespace Tessaly {

Exception::Exception(const std::string& message, int code, const char* file, int line)
    : message_(message), code_(code), file_(file == nullptr ? "" : file), line_(line) {}
Exception::Exception(const Exception& other) = default;
Exception& Exception::operator=(const Exception& other) = default;
Exception::~Exception() noexcept = default;

const char* Exception::what() const noexcept { return message_.c_str(); }
const std::string& Exception::message() const noexcept { return message_; }
int Exception::code() const noexcept { return code_; }
const char* Exception::file() const noexcept { return file_.c_str(); }
int Exception::line() const noexcept { return line_; }

}  // namespace Tessaly
