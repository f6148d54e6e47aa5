// The scan cache as the mailbox scan reads and writes it. The flat functions of the one-line form
// stand beside it.
#ifndef TSMAIL_MAILSIZE_CACHE_H
#define TSMAIL_MAILSIZE_CACHE_H

namespace Tessaly::mailsize {

// What a cache says; 0 is "nothing".
struct ScanCache {
    long mtime = 0;
    long size = 0;
    bool operator==(const ScanCache&) const = default;
};

// Where "mtime=" and "size=" may stand in a line. At its start: the two-line form only is
// understood. Anywhere: the one-line form too.
enum class Fields { at_start, anywhere };

// Reads <folder>/.ts_cache up to where both fields are known; nothing if it cannot be read.
ScanCache read_scan_cache(const char* folder, Fields fields);

// Writes the two-line form. A cache that cannot be written is left empty or not made.
void write_scan_cache(const char* folder, long mtime, long long size);

}  // namespace Tessaly::mailsize

#endif
