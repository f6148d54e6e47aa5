// Real files for tests: short ways to make, read and look at them. Failures abort the test case by
// an exception, so that a set-up that did not work is never taken for a result.
#ifndef TSMAIL_TESTS_TESTING_FILES_H
#define TSMAIL_TESTS_TESTING_FILES_H

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

namespace testing_files {

// Makes a directory with its parents; fine if it exists.
void make_dirs(const std::string& path, mode_t mode = 0777);
// Makes a folder with cur, new and tmp.
void make_maildir(const std::string& path);
// Writes a file with exactly this content; its directory is made if missing.
void write(const std::string& path, std::string_view content);
// The whole content.
std::string read(const std::string& path);
bool exists(const std::string& path);  // of the name itself: a dangling link exists
struct stat status(const std::string& path);
// The permission bits of a file or directory.
mode_t mode_of(const std::string& path);
void set_mtime(const std::string& path, time_t seconds);
// The names in a directory but for "." and "..", sorted.
std::vector<std::string> list(const std::string& dir);
// How many descriptors this process has open.
std::size_t open_descriptors();

// A new empty directory below /tmp, of its own for each object; removed with it.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(std::string_view name) const { return path_ + '/' + std::string(name); }

  private:
    std::string path_;
};

}  // namespace testing_files

#endif
