// The preference file: its lines into a record, a record into its lines.
#include <sys/types.h>
#include <tessaly/MailUserId.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "base/fd.h"
#include "base/guard.h"
#include "base/io.h"
#include "base/locked_stream.h"
#include "userpref/properties.h"

namespace Tessaly::userpref {

namespace {

using base::LockedStream;

// Answers of parse_pref_line.
enum { kApplied = 0, kNoArgument = 2, kNoValue = 3 };

constexpr std::int32_t kMostPerPage = 100;
constexpr int kUnknownTimezone = 12;

void apply(user_pref& p, const Setting& setting) {
    if (setting.text == nullptr) return;
    const pref_property& row = *setting.row;
    const pref_text_to_field convert = text_to_field(row);
    convert(field_of(p, row), row.size, setting.text);
}

void clamp_page(user_pref& p) {
    if (p.npage > kMostPerPage - 1) p.npage = kMostPerPage;
}

// The number of zero bytes that can be read behind a text in memory.
constexpr std::size_t kBehind = LineReader::kLookAhead;

// The byte behind a line's end, or `end`.
char* behind_line(char* line, char* end) {
    // Most values are numbers of one or two digits.
    for (char* at = line; at < line + 3; ++at) {
        if (*at == '\n') return at + 1;
    }
    void* const feed = std::memchr(line, '\n', static_cast<std::size_t>(end - line));
    return feed == nullptr ? end : static_cast<char*>(feed) + 1;
}

// Applies all lines of a text of `length` bytes that has kBehind zeros behind it. The conversions
// need a NUL behind the line. It takes the place of the next line's first byte meanwhile. The key
// of that next line is looked up before, because a load right behind the store would have to wait.
void apply_text(user_pref& p, char* text, std::size_t length) {
    char* const end = text + length;
    LineReader reader;
    Setting setting = reader.read(text);
    for (char* line = text; line < end;) {
        const std::ptrdiff_t known = setting.text == nullptr ? 0 : setting.text - line;
        line = behind_line(line + known, end);
        const Setting next = reader.read(line);
        const char first = std::exchange(*line, '\0');
        apply(p, setting);
        *line = first;
        setting = next;
    }
    clamp_page(p);
}

// Applies a whole file; false, p untouched, on a read error. What store_user_pref writes fits the
// buffer; a longer file of another program is read into memory on the heap.
bool apply_file(user_pref& p, int fd) {
    char buffer[kLongestText + 1 + kBehind];  // one byte shows that there is more
    const ssize_t length = base::pread_full(fd, buffer, kLongestText + 1, 0);
    if (length < 0) return false;
    if (length <= static_cast<ssize_t>(kLongestText)) {
        std::memset(buffer + length, 0, kBehind);
        apply_text(p, buffer, static_cast<std::size_t>(length));
        return true;
    }
    std::string text;
    if (!base::read_file(fd, text)) return false;
    text.append(kBehind, '\0');
    apply_text(p, text.data(), text.size() - kBehind);
    return true;
}

std::string path_of(const char* user) { return TSMailUserId(user).fname(MUF_PREF_FILE); }

// Cuts a text that fills its field without a NUL, so that the writer does not read beyond the
// field.
void end_texts(user_pref& p) {
    for (const pref_property* row = pref_properties; row->name != nullptr; ++row) {
        if (row->type != PREF_TYPE_STRING) continue;
        static_cast<char*>(field_of(p, *row))[row->size - 1] = '\0';
    }
}

// The file's text of a record.
class Text {
  public:
    explicit Text(user_pref record) {
        end_texts(record);
        for (const pref_property* row = pref_properties; row->name != nullptr; ++row) {
            char* const line = text_ + length_;
            *line = '\0';
            const pref_field_to_text convert = field_to_text(*row);
            convert(line, kLineCapacity, row->name, field_of(record, *row));
            length_ += std::strlen(line);
        }
    }
    std::string_view view() const { return {text_, length_}; }

  private:
    std::size_t length_ = 0;
    char text_[kLongestText + kLineCapacity];  // the last line may ask for a whole one's room
};

bool store(const user_pref& p, const std::string& path) {
    const Text text(p);
    LockedStream stream(path.c_str(), "w");
    if (!stream) return false;
    const bool written = stream.write(text.view());
    const int error = errno;
    stream.close_and_unlock();  // its result has no meaning that is known
    errno = error;
    return written;
}

struct LineBuffer {
    LineBuffer() = default;
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;
    ~LineBuffer() { std::free(text); }

    bool read(FILE* stream) { return ::getdelim(&text, &room, '\n', stream) > 0; }

    char* text = nullptr;
    std::size_t room = 0;
};

void apply_stream(user_pref& p, FILE* stream) {
    for (LineBuffer line; line.read(stream);) apply(p, setting_of(line.text));
    clamp_page(p);
}

// Applies a locked file; false, p untouched, on a read error.
bool apply_locked(user_pref& p, const LockedStream& stream) {
    if (stream.fd() >= 0) return apply_file(p, stream.fd());
    user_pref read = p;
    apply_stream(read, stream.get());
    if (std::ferror(stream.get()) != 0) return false;
    p = read;
    return true;
}

}  // namespace

}  // namespace Tessaly::userpref

namespace userpref = Tessaly::userpref;
using Tessaly::base::no_throw;
using Tessaly::base::retry;

int parse_pref_line(user_pref* p, char* line) {
    if (p == nullptr || line == nullptr) return userpref::kNoArgument;
    const userpref::Setting setting = userpref::setting_of(line);
    userpref::apply(*p, setting);
    const bool bare_key = setting.row != nullptr && setting.text == nullptr;
    return bare_key || *line == '\n' ? userpref::kNoValue : userpref::kApplied;
}

int fill_user_pref_struct(user_pref* p, FILE* stream) {
    if (stream == nullptr) return -1;
    if (p == nullptr) {
        userpref::LineBuffer().read(stream);
    } else {
        userpref::apply_stream(*p, stream);
    }
    return 0;
}

int read_user_pref(user_pref* p, const char* user) {
    return no_throw(-1, [&] {
        const std::string path = userpref::path_of(user);
        if (retry([&] { return ::access(path.c_str(), F_OK); }) != 0) return -1;
        const Tessaly::base::LockedStream stream(path.c_str(), "r");
        return stream && userpref::apply_locked(*p, stream) ? 0 : -1;
    });
}

int read_user_pref_all(const char* user, user_pref* p) {
    if (p == nullptr || user == nullptr || *user == '\0') return -1;
    return ::read_user_pref(get_default_user_pref(p), user);
}

int store_user_pref(const char* user, const user_pref* p) {
    if (p == nullptr || ::create_pref_dir(user, 1) < 0) return -1;
    return no_throw(-1, [&] { return userpref::store(*p, userpref::path_of(user)) ? 0 : -1; });
}

int get_user_pref_lite_timezone(const char* user) {
    if (user == nullptr || *user == '\0') return userpref::kUnknownTimezone;
    user_pref p;
    get_default_user_pref_with_tz(&p);
    return ::read_user_pref(&p, user) == 0 ? p.timezone : userpref::kUnknownTimezone;
}
