#include "mailuser/direct.h"

#include <tessaly/Exception.h>

#include <string_view>

#include "base/text.h"

namespace Tessaly {

namespace {
constexpr int kNotImplemented = 4;
constexpr char kSource[] = "MailUserId";
}  // namespace

void throw_not_implemented(const char* what, int line) {
    const std::string_view name = what;
    const char* parentheses = name.ends_with(')') ? "" : "()";
    // Spelt like this since the first release; callers compare the text.
    throw Exception(
        base::concat({" TSDirectMailUserId::", name, parentheses, " - Not Implimented"}),
        kNotImplemented, kSource, line);
}

}  // namespace Tessaly
