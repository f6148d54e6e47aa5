// The documents about size files and caches show what the library writes.
#include "testing/documents.h"

#include <gtest/gtest.h>
#include <tessaly/mailstore.h>

#include "testing/files.h"

namespace files = testing_files;

namespace {

std::vector<std::string> examples(const char* document) {
    return testing_documents::blocks(testing_documents::format(document));
}

TEST(RecordDocument, ShowsAFileAndItsCompaction) {
    const files::TempDir dir;
    const std::string folder = dir / ".ts_folder_size", mailbox = dir / ".maildirsize";
    for (const long long size : {2048, 300, -2048}) {
        tsl_append_mail_folder_size(folder.c_str(), size, size < 0 ? -1 : 1);
    }
    files::write(mailbox, files::read(folder) + std::string(4096, '\n'));
    tsl_append_maildirsize(mailbox.c_str(), 0, 0);
    EXPECT_EQ(examples("size-records.md"),
              (std::vector<std::string>{files::read(folder), files::read(mailbox)}));
}

TEST(CacheDocument, ShowsBothFormsAndADate) {
    const files::TempDir dir;
    const std::string folder = dir / "Inbox", cache = folder + "/.ts_cache";
    files::make_maildir(folder);
    files::write(folder + "/cur/1,#F#S#2048#E", "");
    files::write(folder + "/new/2,#F#S#300#E", "");
    for (const char* sub : {"/cur", "/new", ""}) files::set_mtime(folder + sub, 1763275200);
    EXPECT_EQ(tsl_get_mailbox_size_actual(folder.c_str(), nullptr, 0), 2348);
    const std::string two_lines = files::read(cache);
    tsl_write_maildir_cache_file(cache.c_str(), 1763275200, 2348);
    tsl_set_mail_unread_scandate(folder.c_str(), 1763275200);
    EXPECT_EQ(examples("size-cache.md"),
              (std::vector<std::string>{two_lines, files::read(cache) + "\n",
                                        files::read(folder + "/.ts_unread_scan_date")}));
}

}  // namespace
