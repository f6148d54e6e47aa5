#include "fault/spool.h"

#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <stdexcept>

#include "testing/files.h"

namespace fs = std::filesystem;
using namespace testing_files;

namespace fault {

namespace {

constexpr const char* kSpool = "/var/spool";
constexpr const char* kNeighbour = FAULT_DOMAIN "/bob~fault.test";

// A scan cache holds the time of the directories, which may be the time of the test.
std::string without_times(std::string content) {
    constexpr std::string_view kTime = "mtime=";
    if (!content.starts_with(kTime)) return content;
    char* end = nullptr;
    const long time = std::strtol(content.c_str() + kTime.size(), &end, 10);
    if (std::labs(time - std::time(nullptr)) > 3600) return content;
    return std::string(kTime) + "NOW" + end;
}

std::string describe(const fs::directory_entry& entry) {
    const std::string path = entry.path();
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) throw std::runtime_error("lost " + path);
    char mode[8];
    std::snprintf(mode, sizeof mode, "%06o", st.st_mode & 0177777u);
    if (S_ISLNK(st.st_mode)) return mode + (' ' + fs::read_symlink(entry.path()).string());
    if (S_ISREG(st.st_mode)) return mode + (' ' + without_times(read(path)));
    return mode;
}

void add_tree(Tree& tree, const fs::path& top) {
    if (!fs::exists(top)) return;
    for (fs::recursive_directory_iterator it(top), end; it != end; ++it) {
        if (it->path() == kNeighbour) {
            it.disable_recursion_pending();
        } else {
            tree[it->path()] = describe(*it);
        }
    }
}

// Removes everything below a directory, except for the neighbour and the directories above it.
void clear(const fs::path& top) {
    for (const auto& entry : fs::directory_iterator(top)) {
        if (entry.path() == kNeighbour) continue;
        if (std::string_view(kNeighbour).starts_with(entry.path().string() + '/')) {
            clear(entry.path());
        } else {
            fs::remove_all(entry.path());
        }
    }
}

}  // namespace

void make_neighbour() {
    const std::string home = kNeighbour;
    make_maildir(home + "/mail/Inbox");
    write(home + "/mail/Inbox/cur/1.2_3_4.h,#F#S#5#E:2,S", "bob's");
    write(home + "/mail/Inbox/.ts_folder_size", "5 1\n");
    write(home + "/mail/.maildirsize", "0S, 0C\n5 1\n");
    write(home + "/pref/bob~fault.test.pref", "npage=30\n");
    write(home + "/pref/bob~fault.test.whitelist", "ann@fault.test\n");
    write(home + "/quota_warning_flag", "1");
}

void clear_spool() { clear(kSpool); }

Tree spool_tree() {
    Tree tree;
    add_tree(tree, kSpool);
    return tree;
}

Tree neighbour_tree() {
    Tree tree;
    for (const auto& entry : fs::recursive_directory_iterator(kNeighbour)) {
        tree[entry.path()] = describe(entry);
    }
    return tree;
}

std::string difference(const Tree& is, const Tree& should_be) {
    constexpr std::size_t kShown = 100;
    const auto quoted = [](const std::string& text) { return '[' + text.substr(0, kShown) + ']'; };
    std::string text;
    for (const auto& [path, content] : is) {
        const auto other = should_be.find(path);
        if (other == should_be.end()) {
            text += "  new: " + path + ' ' + quoted(content) + '\n';
        } else if (other->second != content) {
            text += "  " + path + " is " + quoted(content) + " instead of " +
                    quoted(other->second) + '\n';
        }
    }
    for (const auto& [path, content] : should_be) {
        if (!is.contains(path)) text += "  gone: " + path + ' ' + quoted(content) + '\n';
    }
    return text;
}

}  // namespace fault
