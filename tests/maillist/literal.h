// The list operations done in the plainest way, with stdio line by line and a literal insertion.
// The library is compared with them. They work on paths and take no lock.
#ifndef TSMAIL_TESTS_MAILLIST_LITERAL_H
#define TSMAIL_TESTS_MAILLIST_LITERAL_H

#include <fnmatch.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace literal {

constexpr std::size_t kBuffer = 256;

inline char* strip(char* s) {
    std::size_t n = std::strlen(s);
    if (n == 0 || s[n - 1] != '\n') return s;
    do {
        s[--n] = '\0';
        if (n > 0 && s[n - 1] == '\r') s[--n] = '\0';
    } while (n > 0 && s[n - 1] == '\n');
    return s;
}

// strcasecmp as a plain loop: a sanitizer replaces the C library's by one that knows only ASCII.
inline int compare(const char* a, const char* b) {
    const auto fold = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
    while (*a != '\0' && fold(*a) == fold(*b)) ++a, ++b;
    return fold(*a) - fold(*b);
}

struct File {
    File(const std::string& path, const char* mode) : stream(std::fopen(path.c_str(), mode)) {}
    ~File() {
        if (stream != nullptr) std::fclose(stream);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    bool next(char* buffer) { return std::fgets(buffer, kBuffer, stream) != nullptr; }
    void put(const char* line) {
        std::fseek(stream, 0, SEEK_END);
        std::fputs(line, stream);
        std::fputs("\n", stream);
    }
    FILE* stream;
};

// Every line in the form in which it is compared: stripped, up to its first NUL.
inline std::vector<std::string> lines(const std::string& path) {
    std::vector<std::string> all;
    File file(path, "r");
    char buffer[kBuffer];
    while (file.next(buffer)) all.emplace_back(strip(buffer));
    return all;
}

inline int find(const std::string& path, const char* entry) {
    for (const std::string& line : lines(path)) {
        if (compare(line.c_str(), entry) == 0) return 1;
    }
    return 0;
}

inline int match(const std::string& path, const char* address) {
    for (const std::string& line : lines(path)) {
        if (fnmatch(line.c_str(), address, FNM_CASEFOLD) == 0) return 1;
    }
    return 0;
}

inline int add(const std::string& path, const char* entry) {
    if (lines(path).size() >= 2048) return -2;
    if (find(path, entry) == 0) File(path, "a+").put(entry);
    return 0;
}

// The insertion that fixes the order of a sorted listing.
inline void insert(std::vector<std::string>& names, const std::string& text) {
    const auto against = [&](const std::string& other) {
        return compare(text.c_str(), other.c_str());
    };
    if (names.empty() || against(names.back()) >= 0) {
        names.push_back(text);
    } else if (against(names.front()) <= 0) {
        names.insert(names.begin(), text);
    } else {
        std::size_t i = 1;
        while (against(names[i]) > 0) ++i;
        names.insert(names.begin() + static_cast<std::ptrdiff_t>(i), text);
    }
}

inline std::vector<std::string> names(const std::string& path, bool sorted) {
    std::vector<std::string> result;
    for (const std::string& line : lines(path)) {
        if (line.empty()) continue;
        if (sorted) {
            insert(result, line);
        } else {
            result.push_back(line);
        }
    }
    return result;
}

// Rewrites a list: edit(line, output) writes what becomes of a line.
template <class Edit>
void rewrite(const std::string& path, Edit edit) {
    const std::string temporary = path + ".literal";
    {
        File output(temporary, "w");
        for (const std::string& line : lines(path)) edit(line, output);
    }
    std::rename(temporary.c_str(), path.c_str());
}

inline void modify(const std::string& path, char* entry, unsigned line_no) {
    unsigned number = 0;
    rewrite(path, [&](const std::string& line, File& output) {
        output.put(++number == line_no ? strip(entry) : line.c_str());
    });
}

inline void remove(const std::string& path, const char* entry) {
    rewrite(path, [&](const std::string& line, File& output) {
        if (compare(line.c_str(), entry) != 0) output.put(line.c_str());
    });
}

inline void remove_id(const std::string& path, int id) {
    rewrite(path, [&](const std::string& line, File& output) {
        char copy[kBuffer];
        std::strcpy(copy, line.c_str());
        const char* token = std::strtok(copy, ",");
        if (token == nullptr) return;
        char* behind = nullptr;
        const long n = std::strtol(token, &behind, 10);
        if (n == id) return;
        if (n < id) {
            output.put(line.c_str());
            return;
        }
        const char* comma = std::strchr(line.c_str(), ',');
        char text[2 * kBuffer];
        std::snprintf(text, sizeof text, "%ld%s", n - 1, comma != nullptr ? comma : behind);
        output.put(text);
    });
}

}  // namespace literal

#endif
