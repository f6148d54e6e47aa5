// Size record files by their paths: append, read, replace.
#include <tessaly/MailUserId.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "base/locked_stream.h"
#include "base/store_names.h"
#include "base/text.h"
#include "mailsize/dirty.h"
#include "mailsize/folder_path.h"
#include "mailsize/record_text.h"
#include "mailsize/size_file.h"
#include "mailsize/write_whole.h"
#include "mailuser/direct.h"

namespace Tessaly::mailsize {

namespace {

int append_size_record(const char* path, SizeFile::Kind kind, const Record& record) {
    SizeFile file(path, kind);
    if (file) file.append(record);
    return 0;
}

void store(unsigned long long* output, long long total) {
    if (output != nullptr) *output = static_cast<unsigned long long>(std::max(total, 0LL));
}

int read_size_record(const char* path, unsigned long long* size, unsigned long long* count) {
    if (path == nullptr) return 0;
    Totals totals;
    if (base::LockedStream stream(path, "r"); stream) {
        totals = read_totals(stream);
        stream.close_plainly();
    }
    store(size, totals.size);
    store(count, totals.count);
    return totals.damaged && mark_owner_dirty(path) ? -1 : 0;
}

}  // namespace

}  // namespace Tessaly::mailsize

using namespace Tessaly::mailsize;

int tsl_append_maildirsize(const char* path, long long size, long long count) {
    return append_size_record(path, SizeFile::Kind::mailbox, {size, count});
}

int tsl_append_mail_folder_size(const char* path, long long size, long long count) {
    return append_size_record(path, SizeFile::Kind::folder, {size, count});
}

int tsl_read_mail_folder_size(const char* path, unsigned long long* size,
                              unsigned long long* count) {
    if (path == nullptr || ::access(path, F_OK) != 0) return -1;
    return read_size_record(path, size, count);
}

int tsl_get_maildirsize(const void*, const char* maildir, unsigned long long* size,
                        unsigned long long* count) {
    if (maildir == nullptr) return -1;
    if (::access(FolderPath(maildir, Tessaly::names::kDirtyMarker).c_str(), F_OK) == 0) return -1;
    return read_size_record(FolderPath(maildir, Tessaly::names::kMaildirSize).c_str(), size, count);
}

int tsl_write_mail_folder_size(const char* path, long long size, long long count) {
    if (path == nullptr) return 0;
    const Tessaly::base::LockedStream stream(path, "w");
    if (stream) write_whole(stream, RecordText({size, count}).view(), 0);
    return 0;
}

namespace Tessaly {

int TSMailUserId::append_maildirsize(long long size, long long count) const {
    constexpr int kLine = 333;  // part of the exception as callers know it
    if (type_ == MAILBOX_DIRECT) throw_not_implemented("append_maildirsize", kLine);
    const std::string path = base::concat({mailpath(), "/", names::kMaildirSize});
    return tsl_append_maildirsize(path.c_str(), size, count);
}

}  // namespace Tessaly
