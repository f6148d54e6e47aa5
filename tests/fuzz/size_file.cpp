// Size files. The first line is '*' for a file long enough to be compacted, the next two are the
// record to append, the rest the file's text. The same text is read as a scan date too.
#include <tessaly/mailstore.h>

#include "fuzz/fuzz.h"
#include "mailsize/literal.h"
#include "testing/files.h"

using namespace testing_files;

namespace {

const std::string kMail = fuzz::kDirectory + std::string("/mail");
const std::string kTotal = kMail + "/.maildirsize";
const std::string kDirty = kTotal + ".dirty";
const std::string kFolder = kMail + "/.ts_folder_size";
const std::string kScanDate = kMail + "/.ts_unread_scan_date";
const std::string kTwin = kMail + "/twin";

std::string lengthened(const std::string& text) {
    constexpr std::size_t kCompactAbove = 4096;
    std::string all = text;
    while (!text.empty() && all.size() <= kCompactAbove) all += text;
    return all;
}

void compare_reading(const std::string& text) {
    write(kTotal, text);
    const literal::Read model = literal::read(kTotal);
    literal::Read ours{7, 7, false};
    ours.damaged = tsl_get_maildirsize(nullptr, kMail.c_str(), &ours.size, &ours.count) == -1;
    fuzz::expect_equal(ours.damaged, model.damaged, "damaged");
    fuzz::expect_equal(ours.size, model.size, "size");
    fuzz::expect_equal(ours.count, model.count, "count");
    fuzz::expect_equal(exists(kDirty), model.damaged, "marked dirty");
    if (model.damaged) std::remove(kDirty.c_str());
    fuzz::expect(read(kTotal) == text, "reading changed the file");
}

void compare_appending(const std::string& text, long long size, long long count) {
    for (const bool with_header : {false, true}) {
        const std::string& path = with_header ? kTotal : kFolder;
        write(path, text);
        write(kTwin, text);
        (with_header ? tsl_append_maildirsize : tsl_append_mail_folder_size)(path.c_str(), size,
                                                                             count);
        literal::append(kTwin, size, count, with_header);
        fuzz::expect_equal(read(path), read(kTwin), "after an append");
    }
}

void compare_scan_date(const std::string& text) {
    write(kScanDate, text);
    long ours = 77, model = 77;
    const bool found = tsl_get_mail_unread_scandate(kMail.c_str(), &ours) == 0;
    fuzz::expect_equal(found, literal::read_date(kScanDate, model), "scan date found");
    fuzz::expect_equal(ours, model, "scan date");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const bool is_long = input.line() == "*";
    const long long bytes = input.number(), count = input.number();
    const std::string text = is_long ? lengthened(input.rest()) : input.rest();
    compare_reading(text);
    compare_appending(text, bytes, count);
    compare_scan_date(text);
    return 0;
}
