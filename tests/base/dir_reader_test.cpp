#include "base/dir_reader.h"

#include <fcntl.h>

#include <gtest/gtest.h>

#include <set>

#include "testing/files.h"

using namespace Tessaly::base;
using testing_files::TempDir;

namespace {

std::multiset<std::string> read_all(DirReader& reader) {
    std::multiset<std::string> names;
    while (const dirent64* entry = reader.next_real()) names.insert(entry->d_name);
    return names;
}

}  // namespace

TEST(DirReader, GivesEachEntryOnceOverManyBuffers) {
    const TempDir dir;
    std::multiset<std::string> made;
    for (int i = 0; i < 3000; ++i) {
        made.insert(std::to_string(i) + std::string(60, 'x'));
        testing_files::write(dir / *made.find(std::to_string(i) + std::string(60, 'x')), "");
    }
    const Fd fd(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY));
    DirReader reader(fd.get());
    EXPECT_EQ(read_all(reader), made);
    EXPECT_FALSE(reader.failed());
    EXPECT_EQ(reader.next(), nullptr);
    reader.rewind();
    EXPECT_EQ(read_all(reader), made);
}

TEST(DirReader, KeepsNamesThatOnlyBeginWithDots) {
    const TempDir dir;
    const std::multiset<std::string> made = {"...", "..x", ".x", "x"};
    for (const auto& name : made) testing_files::write(dir / name, "");
    const Fd fd(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY));
    DirReader reader(fd.get());
    EXPECT_EQ(read_all(reader), made);
}

TEST(DirReader, TellsAnErrorFromTheEnd) {
    const TempDir dir;
    testing_files::write(dir / "file", "");
    const Fd fd(::open((dir / "file").c_str(), O_RDONLY));
    DirReader reader(fd.get());
    EXPECT_EQ(reader.next(), nullptr);
    EXPECT_TRUE(reader.failed());
    EXPECT_EQ(errno, ENOTDIR);
}
