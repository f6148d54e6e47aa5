#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "bench/bench.h"

namespace bench {

namespace fs = std::filesystem;

void require(bool condition, const std::string& what) {
    if (condition) return;
    std::fprintf(stderr, "bench: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

std::string fresh_dir(const std::string& name) {
    const std::string path = "/var/spool/bench/" + name;
    fs::remove_all(path);
    fs::create_directories(path);
    return path;
}

void write_file(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    require(!file.fail(), path);
}

std::string make_folder(const std::string& name, long messages, const FolderKind& kind) {
    const std::string folder = fresh_dir(name);
    fill_folder(folder, messages, kind);
    return folder;
}

void fill_folder(const std::string& folder, long messages, const FolderKind& kind) {
    for (const char* sub : {"/cur", "/new", "/tmp"}) fs::create_directories(folder + sub);
    const std::string content(static_cast<std::size_t>(kind.bytes), 'x');
    for (long i = 0; i < messages; ++i) {
        const bool seen = !kind.with_new || i % 4 != 0;  // most messages of a folder have been read
        const long size = 2048 + i % 9000;
        char tag[64] = "";
        if (kind.tagged) {
            std::snprintf(tag, sizeof tag, "%s%ld%s", kind.before_size, size, kind.behind_size);
        }
        char path[512];
        std::snprintf(path, sizeof path,
                      "%s/%s/17632752%02ld.%ld_%06ld_%ld.mx1#Q#6B9Ha0q3%06ld%s%s", folder.c_str(),
                      seen ? "cur" : "new", i % 100, 1000 + i % 7000, i % 1000000, i + 1, i % 32768,
                      tag, seen ? ":2,S" : "");
        const int fd = ::open(path, O_WRONLY | O_CREAT | O_EXCL, 0600);
        require(fd >= 0, path);
        if (kind.sparse) require(::ftruncate(fd, size) == 0, path);
        if (kind.bytes > 0)
            require(::write(fd, content.data(), content.size()) == kind.bytes, path);
        ::close(fd);
    }
}

long long total_of(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    long long sum = 0;
    while (std::getline(file, line)) sum += std::strtoll(line.c_str(), nullptr, 10);
    return sum;
}

}  // namespace bench
