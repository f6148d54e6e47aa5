// Names: making one, walking folders, deleting trees.
#include <dirent.h>
#include <fcntl.h>
#include <fts.h>
#include <ftw.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "bench/bench.h"

namespace {

using bench::Item;
using std::string;

constexpr int kNames = 1000;

long long literal_name() {
    struct timeval now;
    char host[256];
    const long counter = ::random() % 1000000 + 1;
    ::gettimeofday(&now, nullptr);
    ::gethostname(host, sizeof host);
    std::stringstream name;
    name << now.tv_sec << '.' << ::getpid() << '_' << now.tv_usec << '_' << counter << '.' << host
         << "#Q#"
         << "6B9Ha0q3004242"
         << ",#F#S#" << 2048 << "#E";
    char text[256];
    std::snprintf(text, sizeof text, "%s", name.str().c_str());
    return text[0] != '\0';
}

Item message_name(long) {
    return {"message_name",
            1,
            {{"limit",
              [] {
                  struct timeval now;
                  ::gettimeofday(&now, nullptr);
                  return static_cast<long long>(now.tv_sec + ::random() > 0);
              }},
             {"literal", literal_name},
             {"library",
              [] {
                  char text[256];
                  tsl_gen_mail_unique_name(2048, "6B9Ha0q3004242", text, sizeof text);
                  return static_cast<long long>(text[0] != '\0');
              }}},
            kNames};
}

// A tree of mail folders, ten below each, of `depth` levels.
void make_tree(const string& dir, int depth, long& left) {
    for (int i = 0; i < 10 && left > 0; ++i) {
        const string folder = dir + "/F" + std::to_string(i);
        --left;
        for (const char* sub : {"/cur", "/new", "/tmp"}) {
            std::filesystem::create_directories(folder + sub);
        }
        bench::write_file(folder + "/.maildirfolder", "");
        if (depth > 1) make_tree(folder, depth - 1, left);
    }
}

int count_visit(const char*, const struct stat*, void*) { return 1; }

// openat, getdents64 until 0, close for the walked directory and each folder below it.
long long bare_walk(int parent, const char* name) {
    alignas(8) char buffer[32768];
    std::vector<string> below;
    const int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (ssize_t n; (n = ::getdents64(fd, buffer, sizeof buffer)) > 0;) {
        for (ssize_t at = 0; at < n;) {
            const auto* entry = reinterpret_cast<const dirent64*>(buffer + at);
            if (entry->d_name[0] == 'F') below.emplace_back(entry->d_name);
            at += entry->d_reclen;
        }
    }
    long long folders = 0;
    for (const string& folder : below) folders += 1 + bare_walk(fd, folder.c_str());
    ::close(fd);
    return folders;
}

int literal_walk(const char* dir) {
    dirent** entries = nullptr;
    const int count = ::scandir(dir, &entries, nullptr, alphasort);
    if (count < 1) return 0;
    char saved[4096];
    char here[4096];
    int sum = 0;
    bench::require(::getcwd(saved, sizeof saved) != nullptr, "getcwd");
    bench::require(::chdir(dir) == 0, dir);
    bench::require(::getcwd(here, sizeof here) != nullptr, "getcwd");
    for (int i = 0; i < count; ++i) {
        const char* name = entries[i]->d_name;
        struct stat st;
        const bool skipped = name[0] == '.' || ::strcasecmp(name, "cur") == 0 ||
                             ::strcasecmp(name, "new") == 0 || ::strcasecmp(name, "tmp") == 0;
        if (!skipped && ::stat(name, &st) == 0 && tsl_is_mail_folder(name, &st) != 0) {
            sum += count_visit(name, &st, nullptr) + literal_walk(name);
        }
        std::free(entries[i]);
    }
    std::free(entries);
    bench::require(::chdir(saved) == 0, saved);
    return sum;
}

bool is_sub_dir(const char* name) {
    return ::strcasecmp(name, "cur") == 0 || ::strcasecmp(name, "new") == 0 ||
           ::strcasecmp(name, "tmp") == 0;
}

long long fts_walk(const string& top) {
    char* const paths[] = {const_cast<char*>(top.c_str()), nullptr};
    long long folders = 0;
    FTS* walk = ::fts_open(paths, FTS_PHYSICAL | FTS_NOCHDIR | FTS_NOSTAT, nullptr);
    bench::require(walk != nullptr, top);
    while (FTSENT* entry = ::fts_read(walk)) {
        if (entry->fts_info != FTS_D || entry->fts_level == 0) continue;
        if (is_sub_dir(entry->fts_name)) {
            ::fts_set(walk, entry, FTS_SKIP);
        } else {
            ++folders;
        }
    }
    ::fts_close(walk);
    return folders;
}

long long nftw_folders;
int count_by_nftw(const char* path, const struct stat*, int type, struct FTW* place) {
    if (type != FTW_D || place->level == 0) return FTW_CONTINUE;
    if (is_sub_dir(path + place->base)) return FTW_SKIP_SUBTREE;
    ++nftw_folders;
    return FTW_CONTINUE;
}
long long nftw_walk(const string& top) {
    nftw_folders = 0;
    ::nftw(top.c_str(), count_by_nftw, 64, FTW_PHYS | FTW_ACTIONRETVAL);
    return nftw_folders;
}

bench::Program find_folders(const string& top) {
    const auto words = [](const string& dir) {
        return std::vector<string>{"find",  dir,     "-mindepth", "1",  "-type",  "d",
                                   "(",     "-name", "cur",       "-o", "-name",  "new",
                                   "-o",    "-name", "tmp",       ")",  "-prune", "-o",
                                   "-type", "d",     "-printf",   "\n"};
    };
    return {words(top),
            words(bench::fresh_dir("empty")),
            "/dev/null",
            {"find", "--version"},
            bench::number_of_lines};
}

Item walk(long folders) {
    const string top = bench::fresh_dir("walk");
    long left = folders;
    make_tree(top, 4, left);
    Item item = {"walk",
                 folders,
                 {{"limit", [=] { return bare_walk(AT_FDCWD, top.c_str()); }},
                  {"literal", [=] { return static_cast<long long>(literal_walk(top.c_str())); }},
                  {"library",
                   [=] {
                       return static_cast<long long>(
                           tsl_visit_folders(top.c_str(), 1, count_visit, nullptr));
                   }},
                  {"fts", [=] { return fts_walk(top); }},
                  {"nftw", [=] { return nftw_walk(top); }}}};
    bench::add_program(item, "find", find_folders(top));
    return item;
}

// getdents64 and unlinkat alone; the type of each entry is known from d_type.
long long bare_delete(int parent, const char* name) {
    alignas(8) char buffer[32768];
    std::vector<string> below;
    const int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (ssize_t n; (n = ::getdents64(fd, buffer, sizeof buffer)) > 0;) {
        for (ssize_t at = 0; at < n;) {
            const auto* entry = reinterpret_cast<const dirent64*>(buffer + at);
            at += entry->d_reclen;
            if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) {
                continue;
            }
            if (entry->d_type == DT_DIR) {
                below.emplace_back(entry->d_name);
            } else {
                ::unlinkat(fd, entry->d_name, 0);
            }
        }
    }
    for (const string& dir : below) bare_delete(fd, dir.c_str());
    ::close(fd);
    return ::unlinkat(parent, name, AT_REMOVEDIR);
}

int literal_delete(const char* path) {
    if (::remove(path) == 0) return 0;
    dirent** entries = nullptr;
    for (int i = ::scandir(path, &entries, nullptr, nullptr); i-- > 0;) {
        const char* name = entries[i]->d_name;
        if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0) {
            char below[4096];
            std::snprintf(below, sizeof below, "%s/%s", path, name);
            literal_delete(below);
        }
        std::free(entries[i]);
    }
    std::free(entries);
    return ::rmdir(path);
}

int remove_by_nftw(const char* path, const struct stat*, int, struct FTW*) {
    return ::remove(path);
}

Item delete_tree(long files) {
    const string tree = "/var/spool/bench/delete_tree";
    const auto prepare = [=] { bench::make_folder("delete_tree", files, {}); };
    const auto check = [=] { return static_cast<long long>(::access(tree.c_str(), F_OK)); };
    const auto column = [&](const char* name, auto work) {
        return bench::Column{name, [=] { return static_cast<long long>(work(tree)); }, prepare,
                             check};
    };
    Item item = {
        "delete_tree",
        files,
        {column("limit", [](const string& path) { return bare_delete(AT_FDCWD, path.c_str()); }),
         column("literal", [](const string& path) { return literal_delete(path.c_str()); }),
         column("library", [](const string& path) { return tsm_delete_path(path.c_str()); }),
         column("nftw", [](const string& path) {
             return ::nftw(path.c_str(), remove_by_nftw, 64, FTW_PHYS | FTW_DEPTH);
         })}};
    bench::add_program(item, "rm -rf",
                       {{"rm", "-rf", tree},
                        {"rm", "-rf", "/var/spool/bench/none"},
                        "/dev/null",
                        {"rm", "--version"}},
                       prepare, check);
    bench::add_program(item, "find",
                       {{"find", tree, "-delete"},
                        {"find", "/var/spool", "-maxdepth", "0"},
                        "/dev/null",
                        {"find", "--version"}},
                       prepare, check);
    return item;
}

const bench::Registration kMessageName({"message_name", {1}, {1}, message_name});
const bench::Registration kWalk({"walk", {110, 1110, 11110}, {110}, walk, 1110});
const bench::Registration kDelete(
    {"delete_tree", {1000, 10000, 100000}, {1000}, delete_tree, 1000});

}  // namespace
