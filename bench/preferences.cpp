// Preferences: reading the file, parsing its lines, storing it.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <tessaly/mailstore.h>
#include <tessaly/support.h>
#include <tessaly/userpref.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/bench.h"

namespace {

using bench::Item;
using std::string;

constexpr char kUser[] = "ann@site.test";
constexpr char kFile[] = "/var/spool/home/site.test/ann~site.test/pref/ann~site.test.pref";

void store_defaults() {
    user_pref record;
    get_default_user_pref(&record);
    bench::require(store_user_pref(kUser, &record) == 0, kFile);
}

// The elements of the converter table have a common type. A cast through void (*)() tells the
// compiler that it is intended.
template <class Function>
Function convertor(uint32_t index) {
    return reinterpret_cast<Function>(reinterpret_cast<void (*)()>(pref_data_convertor[index]));
}

// The value of every column: the bytes of the file were read and the page size is the default.
long long page_size_of(const user_pref& record) { return record.page_size; }

// One line, tried against every key in turn.
void literal_parse(user_pref* record, const char* line) {
    for (const pref_property* row = pref_properties; row->name != nullptr; ++row) {
        const std::size_t length = std::strlen(row->name);
        if (std::strncmp(line, row->name, length) != 0) continue;
        const char* at = line + length;
        if (*at == '\n' || *at == '\r' || *at == '\0') return;
        while (*at == ' ' || *at == '\t') ++at;
        if (*at != '=') continue;
        const auto convert = convertor<pref_text_to_field>(2 * row->type);
        convert(reinterpret_cast<char*>(record) + row->offset, row->size, at + 1);
        return;
    }
}

long long literal_read() {
    user_pref record;
    get_default_user_pref(&record);
    if (::access(kFile, F_OK) != 0) return -1;
    std::FILE* stream = open_and_lock_file(kFile, "r");
    char* line = nullptr;
    std::size_t room = 0;
    while (::getdelim(&line, &room, '\n', stream) > 0) literal_parse(&record, line);
    std::free(line);
    close_and_unlock_file(stream);
    return page_size_of(record);
}

Item pref_read(long) {
    store_defaults();
    return {"pref_read",
            1,
            {{"limit",
              [] {
                  char text[8192];
                  std::FILE* stream = open_and_lock_file(kFile, "r");
                  bench::require(::read(::fileno(stream), text, sizeof text) > 0, kFile);
                  close_and_unlock_file(stream);
                  return 25LL;
              }},
             {"literal", literal_read},
             {"library",
              [] {
                  user_pref record;
                  read_user_pref_all(kUser, &record);
                  return page_size_of(record);
              }}},
            100};
}

string whole_file() {
    char text[8192];
    const int fd = ::open(kFile, O_RDONLY | O_CLOEXEC);
    const ssize_t n = ::read(fd, text, sizeof text);
    ::close(fd);
    bench::require(n > 0, kFile);
    return {text, static_cast<std::size_t>(n)};
}

// The lines of the text, each as a C string of its own.
std::vector<string> lines_of(const string& text) {
    std::vector<string> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at) + 1;
        lines.push_back(text.substr(at, end - at));
        at = end;
    }
    return lines;
}

Item pref_parse(long) {
    store_defaults();
    static const string text = whole_file();
    // Parsing must not change them, as every round uses them again.
    static std::vector<string> lines = lines_of(text);
    user_pref unused;
    get_default_user_pref(&unused);
    for (string& line : lines) parse_pref_line(&unused, line.data());
    bench::require(lines == lines_of(text), "lines changed by parsing");
    return {"pref_parse",
            1,
            {{"limit",
              [] {
                  // One pass over the bytes; the order of the lines is known.
                  const char* at = text.data();
                  const char* end = at + text.size();
                  long long sum = 0;
                  while (at < end) {
                      const auto rest = static_cast<std::size_t>(end - at);
                      const auto* equals = static_cast<const char*>(std::memchr(at, '=', rest));
                      sum += *equals;
                      at = static_cast<const char*>(
                               std::memchr(equals, '\n', static_cast<std::size_t>(end - equals))) +
                           1;
                  }
                  return sum > 0 ? 25LL : 0LL;
              }},
             {"literal",
              [] {
                  user_pref record;
                  get_default_user_pref(&record);
                  for (const string& line : lines) literal_parse(&record, line.c_str());
                  return page_size_of(record);
              }},
             {"library",
              [] {
                  user_pref record;
                  get_default_user_pref(&record);
                  for (string& line : lines) parse_pref_line(&record, line.data());
                  return page_size_of(record);
              }}},
            100};
}

Item pref_store(long) {
    store_defaults();
    static const string text = whole_file();
    static user_pref record;
    get_default_user_pref(&record);
    return {"pref_store",
            1,
            {{"limit",
              [] {
                  if (::access("/var/spool/home/site.test/ann~site.test/pref", F_OK) != 0)
                      return -1LL;
                  std::FILE* stream = open_and_lock_file(kFile, "w");
                  const auto size = static_cast<ssize_t>(text.size());
                  bench::require(::write(::fileno(stream), text.data(), text.size()) == size,
                                 kFile);
                  close_and_unlock_file(stream);
                  return 0LL;
              }},
             {"literal",
              [] {
                  create_pref_dir(kUser, 1);
                  std::FILE* stream = open_and_lock_file(kFile, "w");
                  for (const pref_property* row = pref_properties; row->name != nullptr; ++row) {
                      char line[512] = "";
                      const auto convert = convertor<pref_field_to_text>(2 * row->type + 1);
                      convert(line, 511, row->name, reinterpret_cast<char*>(&record) + row->offset);
                      std::fputs(line, stream);
                  }
                  close_and_unlock_file(stream);
                  return 0LL;
              }},
             {"library", [] { return static_cast<long long>(store_user_pref(kUser, &record)); }}},
            20};
}

const bench::Registration kRead({"pref_read", {1}, {1}, pref_read});
const bench::Registration kParse({"pref_parse", {1}, {1}, pref_parse});
const bench::Registration kStore({"pref_store", {1}, {1}, pref_store});

}  // namespace
