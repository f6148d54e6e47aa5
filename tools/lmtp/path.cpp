#include "tools/lmtp/path.h"

#include <utf8proc.h>

#include <algorithm>

namespace Tessaly::tool::lmtp {

namespace {

using std::string;
using std::string_view;

constexpr char kNotInAtoms[] = "<>@\"\\ ,;:()";
constexpr char kNotInDomains[] = "<>@\"\\ ,;()";

// "<@one,@two:" before the address; mail takes no such way any more.
bool drop_source_route(string_view& text) {
    if (!text.starts_with('@')) return true;
    const auto end = text.find_first_of(":>");
    if (end == string_view::npos || text[end] != ':') return false;
    text.remove_prefix(end + 1);
    return true;
}

bool read_quoted(string_view& text, string& local) {
    text.remove_prefix(1);
    while (!text.empty() && text.front() != '"') {
        if (text.front() == '\\') text.remove_prefix(1);
        if (text.empty() || text.front() == '@') return false;
        local += text.front();
        text.remove_prefix(1);
    }
    if (text.empty()) return false;
    text.remove_prefix(1);
    return true;
}

bool read_local(string_view& text, string& local) {
    if (text.starts_with('"')) return read_quoted(text, local);
    const auto end = std::min(text.find_first_of(kNotInAtoms), text.size());
    local = text.substr(0, end);
    text.remove_prefix(end);
    return true;
}

bool read_domain(string_view& text, string& address) {
    if (!text.starts_with('@')) return true;
    const auto end = std::min(text.find_first_of(kNotInDomains, 1), text.size());
    if (end == 1) return false;
    address += text.substr(0, end);
    text.remove_prefix(end);
    return true;
}

}  // namespace

std::optional<Path> read_path(string_view& text) {
    string_view rest = text;
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
    if (!rest.starts_with('<')) return std::nullopt;
    rest.remove_prefix(1);
    if (!drop_source_route(rest)) return std::nullopt;
    const string_view begin = rest;
    Path path;
    if (!read_local(rest, path.address) || !read_domain(rest, path.address)) return std::nullopt;
    if (!rest.starts_with('>')) return std::nullopt;
    path.written = begin.substr(0, begin.size() - rest.size());
    if (path.address.empty() != path.written.empty()) return std::nullopt;
    if (path.address.starts_with('@')) return std::nullopt;
    rest.remove_prefix(1);
    text = rest;
    return path;
}

bool is_ascii(string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool is_utf8(string_view text) {
    const auto* rest = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
    for (auto left = static_cast<utf8proc_ssize_t>(text.size()); left > 0;) {
        utf8proc_int32_t point = 0;
        const utf8proc_ssize_t n = utf8proc_iterate(rest, left, &point);
        if (n < 0) return false;
        rest += n;
        left -= n;
    }
    return true;
}

}  // namespace Tessaly::tool::lmtp
