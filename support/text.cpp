#include <tessaly/support.h>

#include <cstring>

namespace {
constexpr bool is_white_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
}  // namespace

char* trim_right(char* text) {
    if (text == nullptr) return nullptr;
    std::size_t length = std::strlen(text);
    while (length > 0 && is_white_space(text[length - 1])) --length;
    text[length] = '\0';
    return text;
}
