// The operations that write a list anew.
#include <tessaly/maillist.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "base/fd.h"
#include "base/guard.h"
#include "base/store_file.h"
#include "maillist/lines.h"
#include "maillist/lock.h"
#include "maillist/paths.h"
#include "maillist/replace.h"

namespace Tessaly::maillist {

namespace {

void put_line(std::string& content, std::string_view line) { content.append(line).push_back('\n'); }

// Reads the list and makes its new content: edit(line, content) appends what becomes of a line.
template <class Edit>
bool edit_list(const std::string& path, std::string& content, Edit& edit) {
    const base::Fd file = base::open_for_reading(path.c_str());
    return file && read_lines(file.get(), [&](std::string_view line) {
               edit(line, content);
               return true;
           });
}

// The frame of every rewrite. The list is closed before the new one takes its place. The lock is
// released last.
template <class Edit>
int rewrite(const char* user, const char* list, unsigned scope, Edit edit) {
    return base::no_throw(-1, [&] {
        const base::Fd lock = mail_list_lock(user, list, scope);
        if (!lock) return -1;
        const std::string path = list_path(user, list, scope);
        std::string content;
        if (!edit_list(path, content, edit)) return -1;
        return replace_list(path, temporary_path(user, list, scope), content) ? 0 : -1;
    });
}

// What becomes of a numbered line when the entry with the number id goes.
void put_renumbered(std::string_view line, long id, std::string& content) {
    char text[kLineLimit + 1];
    std::memcpy(text, line.data(), line.size());
    text[line.size()] = '\0';
    const char* field = text + std::strspn(text, ",");
    if (*field == '\0') return;
    char* behind_number;
    const long number = std::strtol(field, &behind_number, 10);
    if (number == id) return;
    if (number < id) return put_line(content, line);
    const char* comma = std::strchr(text, ',');
    char lowered[24];
    const auto end = std::to_chars(lowered, lowered + sizeof lowered, number - 1).ptr;
    content.append(lowered, end);
    // Without a comma everything behind the number is kept.
    put_line(content, comma != nullptr ? comma : behind_number);
}

}  // namespace

}  // namespace Tessaly::maillist

using namespace Tessaly::maillist;

int mail_list_modify_from(const char* user, const char* list, char* entry, unsigned line_no,
                          unsigned scope) {
    if (entry == nullptr) return -1;
    strip_line_end(entry);
    unsigned number = 0;
    return rewrite(user, list, scope, [&](std::string_view line, std::string& content) {
        put_line(content, ++number == line_no ? entry : line);
    });
}

int mail_list_delete_from(const char* user, const char* list, const char* entry, unsigned scope) {
    if (entry == nullptr) return -1;
    const EntryMatcher is_entry(entry);
    return rewrite(user, list, scope, [&](std::string_view line, std::string& content) {
        if (!is_entry(line)) put_line(content, line);
    });
}

int mail_list_delete_through_id(const char* user, const char* list, int id, unsigned scope) {
    return rewrite(user, list, scope, [id](std::string_view line, std::string& content) {
        put_renumbered(line, id, content);
    });
}
