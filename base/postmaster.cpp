#include "base/postmaster.h"

#include <unistd.h>

#include <string_view>

#include "base/text.h"

namespace Tessaly::base {

namespace {

std::string_view domain_of(std::string_view host) {
    const auto dot = host.find('.');
    const bool has_more = dot != std::string_view::npos && dot + 1 < host.size();
    return has_more ? host.substr(dot + 1) : host;
}

}  // namespace

const char* default_postmaster(char (&buffer)[kPostmasterRoom]) {
    char host[256];
    const bool known = ::gethostname(host, sizeof host) == 0;
    host[sizeof host - 1] = '\0';
    BoundedText text(buffer, sizeof buffer);
    text << "postmaster@" << (known && *host != '\0' ? domain_of(host) : "localhost");
    return text.c_str();
}

}  // namespace Tessaly::base
