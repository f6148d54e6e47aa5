#include "literal.h"

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace literal {

namespace {

template <class Pref>
auto field_of(Pref& p, const pref_property& row) {
    return reinterpret_cast<std::conditional_t<std::is_const_v<Pref>, const char, char>*>(&p) +
           row.offset;
}

void trim(char* text) {
    std::size_t n = std::strlen(text);
    while (n > 0 && std::isspace(static_cast<unsigned char>(text[n - 1]))) --n;
    text[n] = '\0';
}

void convert(const pref_property& row, char* field, const char* text) {
    if (row.type == PREF_TYPE_STRING) {
        const std::size_t n = std::min<std::size_t>(std::strlen(text), row.size - 1);
        std::memcpy(field, text, n);
        field[n] = '\0';
        trim(field);
    } else if (row.type == PREF_TYPE_BOOL) {
        *field = static_cast<unsigned char>(std::strtol(text, nullptr, 10)) != 0;
    } else {
        const long long number = std::strtoll(text, nullptr, 10);
        std::memcpy(field, &number, row.size);
    }
}

}  // namespace

int parse_line(user_pref* p, char* line) {
    if (p == nullptr || line == nullptr) return 2;
    if (line[0] == '\n') return 3;
    for (int i = 0; i < 35; ++i) {
        const pref_property& row = pref_properties[i];
        if (std::strncmp(line, row.name, std::strlen(row.name)) != 0) continue;
        const char* rest = line + std::strlen(row.name);
        if (*rest == '\n' || *rest == '\r' || *rest == '\0') return 3;
        while (*rest == ' ' || *rest == '\t') ++rest;
        if (*rest != '=') continue;
        convert(row, field_of(*p, row), rest + 1);
        return 0;
    }
    return 0;
}

int fill(user_pref* p, FILE* stream) {
    if (stream == nullptr) return -1;
    char* line = nullptr;
    size_t room = 0;
    while (::getdelim(&line, &room, '\n', stream) >= 1) {
        const int answer = parse_line(p, line);
        if (answer == 1 || answer == 2) break;
    }
    std::free(line);
    if (p->npage > 99) p->npage = 100;
    return 0;
}

std::string text_of(const user_pref& p) {
    std::string text;
    for (int i = 0; i < 35; ++i) {
        const pref_property& row = pref_properties[i];
        const char* field = field_of(p, row);
        char line[512] = "";
        if (row.type == PREF_TYPE_STRING) {
            std::snprintf(line, 511, "%s=%s\n", row.name, field);
        } else if (row.type == PREF_TYPE_BOOL) {
            std::snprintf(line, 511, "%s=%d\n", row.name, *field != 0);
        } else if (row.type == PREF_TYPE_UINT16) {
            std::uint16_t number;
            std::memcpy(&number, field, sizeof number);
            std::snprintf(line, 511, "%s=%d\n", row.name, number);
        } else {
            std::int32_t number;
            std::memcpy(&number, field, sizeof number);
            std::snprintf(line, 511, "%s=%d\n", row.name, number);
        }
        text += line;
    }
    return text;
}

user_pref normalised(const user_pref& p) {
    user_pref result;
    get_default_user_pref(&result);
    for (int i = 0; i < 35; ++i) {
        const pref_property& row = pref_properties[i];
        char* const to = field_of(result, row);
        const char* const from = field_of(p, row);
        if (row.type == PREF_TYPE_STRING) {
            std::memset(to, 0, row.size);
            std::strcpy(to, from);
            trim(to);
        } else if (row.type == PREF_TYPE_BOOL) {
            *to = *from != 0;
        } else {
            std::memcpy(to, from, row.size);
        }
    }
    if (result.npage > 99) result.npage = 100;
    return result;
}

}  // namespace literal
