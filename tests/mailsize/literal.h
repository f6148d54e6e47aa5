// The operations done in the plainest way, with stdio and readdir. The library must agree with
// them.
#ifndef TSMAIL_TESTS_MAILSIZE_LITERAL_H
#define TSMAIL_TESTS_MAILSIZE_LITERAL_H

#include <string>
#include <string_view>

namespace literal {

struct Read {
    unsigned long long size = 0, count = 0;
    bool damaged = false;
    bool operator==(const Read&) const = default;
};

// Appends one record; a file of more than 4096 bytes is compacted to its sum.
void append(const std::string& path, long long size, long long count, bool with_header);
// Sums a file; numbers and sums beyond 64 bits and negative sums are damage.
Read read(const std::string& path);
// The last number of a scan date file. False if there is none.
bool read_date(const std::string& path, long& date);

// The one-line form of a scan cache, as scanf reads it. False, with nothing set, for another form.
bool read_cache(const std::string& path, long& mtime, unsigned long& size);
struct ScanCache {
    long mtime = 0, size = 0;
};
// The numbers that a scan takes from a cache, line by line: `anywhere` in a line, or only at its
// beginning.
ScanCache read_scan_cache(const std::string& path, bool anywhere);

// The size in a message name, -1 if there is none.
long long size_in_name(const char* name);
// The sum of a directory's entries, by name or (flag 2) by stat alone.
long long dir_size(const std::string& dir, int flags);
// A name with its size field.
std::string tagged(const std::string& name, long long size);

}  // namespace literal

#endif
