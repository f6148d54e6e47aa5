// Stores that do not fit: a full file system (the sandbox gives a small one) and a file size limit.
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <csignal>

#include "helpers.h"
#include "literal.h"
#include "testing/files.h"
#include "testing/processes.h"

namespace fs = testing_files;

namespace {

void fill_the_disk() {
    struct statvfs disk;
    ASSERT_EQ(::statvfs("/var/spool", &disk), 0);
    ASSERT_LT(disk.f_blocks * disk.f_frsize, 1u << 20) << "not the small file system";
    fs::write("/var/spool/filler", "");
    FILE* filler = std::fopen("/var/spool/filler", "a");
    const std::string block(4096, 'x');
    while (::write(::fileno(filler), block.data(), block.size()) > 0) {
    }
    ASSERT_EQ(errno, ENOSPC);
    std::fclose(filler);
}

TEST(FullDisk, AStoreThatDoesNotFitFails) {
    fs::write(prefs::kFile, "");
    fill_the_disk();
    user_pref p = prefs::defaults();
    p.theme = 3;
    const std::size_t open = fs::open_descriptors();
    EXPECT_EQ(store_user_pref(prefs::kUser, &p), -1);
    EXPECT_EQ(fs::open_descriptors(), open);
    EXPECT_TRUE(literal::text_of(p).starts_with(fs::read(prefs::kFile)));
    ASSERT_EQ(::unlink("/var/spool/filler"), 0);
    EXPECT_EQ(store_user_pref(prefs::kUser, &p), 0) << "the lock was released";
    EXPECT_EQ(fs::read(prefs::kFile), literal::text_of(p));
}

// At every limit the file holds exactly the part of the new text that fits, and the call fails.
TEST(FileSizeLimit, ABeginningOfTheStoreStays) {
    user_pref p = prefs::defaults();
    std::strcpy(p.uname, "Ann Lee");
    const std::string text = literal::text_of(p);
    for (const std::size_t limit :
         {std::size_t{0}, std::size_t{1}, std::size_t{14}, std::size_t{15}, std::size_t{100},
          text.size() - 1, text.size(), text.size() + 1}) {
        fs::write(prefs::kFile, "theme=9\n");
        const int answer = testing_processes::Child([&] {
                               std::signal(SIGXFSZ, SIG_IGN);
                               const struct rlimit size = {limit, limit};
                               if (::setrlimit(RLIMIT_FSIZE, &size) != 0) return 2;
                               return store_user_pref(prefs::kUser, &p) == 0 ? 0 : 1;
                           }).wait();
        EXPECT_EQ(answer, limit < text.size() ? 1 : 0) << limit;
        EXPECT_EQ(fs::read(prefs::kFile), text.substr(0, limit)) << limit;
    }
}

}  // namespace
