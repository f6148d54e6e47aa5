// The library against the literal version on random files. The seeds are the cases' parameters.
#include <gtest/gtest.h>
#include <tessaly/mailstore.h>

#include "mailsize/garbage.h"
#include "mailsize/literal.h"
#include "testing/files.h"

using namespace testing_garbage;
namespace files = testing_files;

namespace {

// Lengths from empty to a few pages, half of them around the length that is compacted.
std::size_t random_length(Random& random) {
    switch (below(random, 4)) {
        case 0:
            return below(random, 300);
        case 1:
            return below(random, 30000);
        default:
            return 4070 + below(random, 60);
    }
}

class Literal : public testing::TestWithParam<unsigned> {
  protected:
    std::string random_file() { return size_file(random, random_length(random), random() % 2); }

    Random random{GetParam()};
    files::TempDir dir;
};

TEST_P(Literal, AppendAgrees) {
    const std::string ours = dir / "ours", theirs = dir / "theirs";
    for (int i = 0; i < 400; ++i) {
        const std::string text = random_file();
        const bool with_header = random() % 2;
        const auto size = static_cast<long long>(random() >> below(random, 64));
        const auto count = static_cast<long long>(random() >> below(random, 64));
        files::write(ours, text);
        files::write(theirs, text);
        (with_header ? tsl_append_maildirsize : tsl_append_mail_folder_size)(ours.c_str(), size,
                                                                             count);
        literal::append(theirs, size, count, with_header);
        ASSERT_EQ(files::read(ours), files::read(theirs)) << "round " << i << ":\n" << text;
    }
}

TEST_P(Literal, ReadAgrees) {
    const std::string path = dir / "mail/.ts_folder_size";
    for (int i = 0; i < 400; ++i) {
        const std::string text = random_file();
        files::write(path, text);
        literal::Read ours{7, 7, false};
        ours.damaged = tsl_read_mail_folder_size(path.c_str(), &ours.size, &ours.count) == -1;
        ASSERT_EQ(ours, literal::read(path)) << "round " << i << ":\n" << text;
    }
}

TEST_P(Literal, ScanDateAgrees) {
    const std::string path = dir / ".ts_unread_scan_date";
    for (int i = 0; i < 200; ++i) {
        const std::string text = random_file();
        files::write(path, text);
        long ours = 77, theirs = 77;
        const int found = tsl_get_mail_unread_scandate(dir.path().c_str(), &ours);
        ASSERT_EQ(found == 0, literal::read_date(path, theirs)) << "round " << i << ":\n" << text;
        ASSERT_EQ(ours, theirs) << "round " << i << ":\n" << text;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, Literal, testing::Range(1U, 5U));

}  // namespace
