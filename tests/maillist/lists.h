// Lists for tests: their paths, and short ways to their contents.
#ifndef TSMAIL_TESTS_MAILLIST_LISTS_H
#define TSMAIL_TESTS_MAILLIST_LISTS_H

#include <tessaly/maillist.h>

#include <random>
#include <string>
#include <vector>

#include "testing/files.h"

namespace lists {

// The system list "test", whose directory needs no user.
constexpr char kDirectory[] = "/var/spool/etc/mail";
constexpr char kName[] = "test";
constexpr char kPath[] = "/var/spool/etc/mail/test";
constexpr char kLock[] = "/var/spool/etc/mail/.test.lock";
constexpr char kTemporary[] = "/var/spool/etc/mail/.test.tmp";

inline int add(const char* entry) {
    return mail_list_add_to(nullptr, kName, entry, MAIL_LIST_SYSTEM);
}
inline int find(const char* entry) {
    return mail_list_find(nullptr, kName, entry, MAIL_LIST_SYSTEM);
}
inline int match(const char* address) {
    return mail_list_match(nullptr, kName, address, MAIL_LIST_SYSTEM);
}
inline int modify(std::string entry, unsigned line_no) {
    return mail_list_modify_from(nullptr, kName, entry.data(), line_no, MAIL_LIST_SYSTEM);
}
inline int drop(const char* entry) {
    return mail_list_delete_from(nullptr, kName, entry, MAIL_LIST_SYSTEM);
}
inline int drop_id(int id) {
    return mail_list_delete_through_id(nullptr, kName, id, MAIL_LIST_SYSTEM);
}

struct Names {
    int result;
    std::vector<std::string> names;
};
inline Names names(bool sorted) {
    mail_list_names out;
    Names listing{mail_list_get_names(nullptr, kName, &out, sorted ? 1 : 0, MAIL_LIST_SYSTEM), {}};
    for (std::uint32_t i = 0; i < out.count; ++i) listing.names.emplace_back(out.names[i]);
    mail_list_free_names(&out);
    return listing;
}

inline void put(std::string_view content) { testing_files::write(kPath, content); }
inline std::string content() { return testing_files::read(kPath); }

// A list of `count` short lines.
inline std::string numbered(int count) {
    std::string text;
    for (int i = 1; i <= count; ++i) text += "user" + std::to_string(i) + "@site.test\n";
    return text;
}

// Random bytes that are hard for line readers: a few texts in both letter cases, both kinds of line
// ends, NULs, patterns, and lengths around the limit of a line.
inline std::string random_content(std::mt19937& random, std::size_t about) {
    static const std::string kPieces[] = {"\n",
                                          "\n",
                                          "\n",
                                          "\r\n",
                                          "\r",
                                          std::string(1, '\0'),
                                          std::string("\0\n", 2),
                                          ",",
                                          "3",
                                          "-1",
                                          "12,",
                                          "a",
                                          "A",
                                          "Ab@c",
                                          "aB@C",
                                          "*",
                                          "?@c",
                                          "[ab]",
                                          "\\a",
                                          "\xe4",
                                          "\xc4",
                                          "\xc3\xa4"};
    std::string text;
    while (text.size() < about) {
        const auto roll = random() % 100;
        if (roll < 96) {
            text += kPieces[random() % std::size(kPieces)];
        } else {
            text += std::string(250 + random() % 10, "xX"[random() % 2]);
        }
    }
    return text;
}

}  // namespace lists

#endif
