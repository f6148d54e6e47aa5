#include "testing/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

namespace fs = std::filesystem;

namespace testing_files {

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

void make_dirs(const std::string& path, mode_t mode) {
    for (std::size_t end = 1; end != std::string::npos;) {
        end = path.find('/', end + 1);
        const std::string part = path.substr(0, end);
        if (::mkdir(part.c_str(), mode) != 0 && errno != EEXIST) fail("mkdir " + part);
    }
}

void make_maildir(const std::string& path) {
    for (const char* sub : {"/cur", "/new", "/tmp"}) make_dirs(path + sub);
}

void write(const std::string& path, std::string_view content) {
    if (const auto slash = path.rfind('/'); slash != std::string::npos && slash > 0) {
        make_dirs(path.substr(0, slash));
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    if (!file) fail("write " + path);
}

std::string read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) fail("open " + path);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

bool exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

struct stat status(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) fail("stat " + path);
    return st;
}

mode_t mode_of(const std::string& path) { return status(path).st_mode & 07777; }

void set_mtime(const std::string& path, time_t seconds) {
    const struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
    if (::utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) fail("utimensat " + path);
}

std::vector<std::string> list(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

std::size_t open_descriptors() {
    const fs::directory_iterator open("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(fs::begin(open), fs::end(open))) - 1;
}

TempDir::TempDir() : path_("/tmp/test.XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr) fail("mkdtemp");
}

TempDir::~TempDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

}  // namespace testing_files
