// Real files for tests: short ways to make, read and look at them. A failure throws and so ends the
// test case: a set-up that failed is never taken for a result.
#ifndef TSMAIL_TESTS_TESTING_FILES_H
#define TSMAIL_TESTS_TESTING_FILES_H

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

namespace testing_files {

// Makes a directory with its parents, unless it exists.
void make_dirs(const std::string& path, mode_t mode = 0777);
// Makes a folder with cur, new and tmp.
void make_maildir(const std::string& path);
// Writes a file with exactly this content; its directory is made if missing.
void write(const std::string& path, std::string_view content);
// The whole content.
std::string read(const std::string& path);
bool exists(const std::string& path);  // looks at the name itself: a dangling link exists
struct stat status(const std::string& path);
// The permission bits of a file or directory.
mode_t mode_of(const std::string& path);
void set_mtime(const std::string& path, time_t seconds);
// The sorted names in a directory, without "." and "..".
std::vector<std::string> list(const std::string& dir);
// The number of descriptors that this process has open.
std::size_t open_descriptors();

// A new empty directory below /tmp for each object. It is removed with the object.
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
