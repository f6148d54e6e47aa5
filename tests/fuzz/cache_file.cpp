// The scan cache, in both its forms, by each of its three readers.
#include <tessaly/mailstore.h>

#include "fuzz/fuzz.h"
#include "mailsize/literal.h"
#include "testing/files.h"

using namespace testing_files;

namespace {

constexpr time_t kNewest = 2000;      // the time of the folder's newest directory
constexpr long long kScanned = 1234;  // the result of a scan of the folder
const std::string kFolder = fuzz::kDirectory + std::string("/Inbox");
const std::string kCache = kFolder + "/.ts_cache";

bool make_folder() {
    make_maildir(kFolder);
    write(kFolder + "/cur/1.2_3_4.h,#F#S#1234#E:2,S", "");
    write(kCache, "");  // stays, so that the folder's time does not change
    set_mtime(kFolder, 1000);
    set_mtime(kFolder + "/cur", kNewest);
    set_mtime(kFolder + "/new", 1500);
    return true;
}

void compare_one_line() {
    long mtime = 77, model_mtime = 77;
    unsigned long size = 77, model_size = 77;
    const int ours = tsl_read_maildir_cache_file(kCache.c_str(), &mtime, &size);
    const bool model = literal::read_cache(kCache, model_mtime, model_size);
    fuzz::expect_equal(ours == 1, model, "one line read");
    fuzz::expect_equal(mtime, model_mtime, "its time");
    fuzz::expect_equal(size, model_size, "its size");
}

void compare_scan(const std::string& text) {
    const auto any = literal::read_scan_cache(kCache, true);
    fuzz::expect_equal<long long>(tsl_get_mailbox_size(kFolder.c_str(), nullptr), any.size,
                                  "cached size");
    const auto own = literal::read_scan_cache(kCache, false);
    const bool fresh = own.size != 0 && kNewest <= own.mtime;
    fuzz::expect_equal(tsl_get_mailbox_size_actual(kFolder.c_str(), nullptr, 0),
                       fresh ? own.size : kScanned, "actual size");
    fuzz::expect_equal(read(kCache), fresh ? text : "mtime=2000\nsize=1234\n", "cache kept");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    [[maybe_unused]] static const bool folder_made = make_folder();
    const std::string text = fuzz::Input(data, size).rest();
    write(kCache, text);
    compare_one_line();
    compare_scan(text);
    return 0;
}
