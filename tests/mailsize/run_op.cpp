// run_op OPERATION PATH [SIZE COUNT] - does one operation in a process of its own. Prints the
// result, the totals, and the number of descriptors that were left open.
#include <dirent.h>
#include <tessaly/mailstore.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

struct Call {
    const char* path;
    long long size, count;
    unsigned long long total_size, total_count;
};

struct Operation {
    const char* name;
    int (*run)(Call&);
};

std::string parent_of(const std::string& path) { return path.substr(0, path.rfind('/')); }

const Operation kOperations[] = {
    {"append-mailbox", [](Call& c) { return tsl_append_maildirsize(c.path, c.size, c.count); }},
    {"append-folder", [](Call& c) { return tsl_append_mail_folder_size(c.path, c.size, c.count); }},
    {"write", [](Call& c) { return tsl_write_mail_folder_size(c.path, c.size, c.count); }},
    {"read",
     [](Call& c) { return tsl_read_mail_folder_size(c.path, &c.total_size, &c.total_count); }},
    {"scan-cur",  // of the folder that it lies in; the flags come as the size
     [](Call& c) {
         return static_cast<int>(
             tsl_get_dir_size(parent_of(c.path).c_str(), "cur", static_cast<int>(c.size)));
     }},
    {"scan-folder-of",
     [](Call& c) {
         return static_cast<int>(
             tsl_get_mailbox_size_actual(parent_of(c.path).c_str(), nullptr, 0));
     }},
    {"cached-size-of",
     [](Call& c) {
         return static_cast<int>(tsl_get_mailbox_size(parent_of(c.path).c_str(), nullptr));
     }},
    {"notify",
     [](Call& c) { return tsl_update_mail_folder_size(c.path, static_cast<long>(c.size)); }},
    {"write-cache",
     [](Call& c) {
         return tsl_write_maildir_cache_file(c.path, c.size, static_cast<unsigned long>(c.count));
     }},
    {"read-cache", [](Call& c) { return tsl_read_maildir_cache_file(c.path, nullptr, nullptr); }},
    {"read-cache-numbers",
     [](Call& c) {
         long mtime = 0;
         unsigned long size = 0;
         const int result = tsl_read_maildir_cache_file(c.path, &mtime, &size);
         c.total_size = static_cast<unsigned long long>(mtime);
         c.total_count = size;
         return result;
     }},
    {"get-date",
     [](Call& c) { return tsl_get_mail_unread_scandate(parent_of(c.path).c_str(), nullptr); }},
};

int open_descriptors() {
    DIR* const open = ::opendir("/proc/self/fd");
    int n = 0;
    while (::readdir(open) != nullptr) ++n;
    ::closedir(open);
    return n;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 64;
    Call call{argv[2], 0, 0, 77, 77};
    if (argc > 3) call.size = std::strtoll(argv[3], nullptr, 10);
    if (argc > 4) call.count = std::strtoll(argv[4], nullptr, 10);
    for (const Operation& operation : kOperations) {
        if (std::strcmp(operation.name, argv[1]) != 0) continue;
        const int before = open_descriptors();
        const int result = operation.run(call);
        std::printf("%d %llu %llu, descriptors %+d\n", result, call.total_size, call.total_count,
                    open_descriptors() - before);
        return 0;
    }
    return 64;
}
