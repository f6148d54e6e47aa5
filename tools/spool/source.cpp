#include "tools/spool/source.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <vector>

#include "base/dir_reader.h"
#include "base/store_names.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/spool/named_path.h"
#include "tools/work/transfer_names.h"

namespace Tessaly::tool {

namespace {

using std::string;
using Names = std::vector<string>;

constexpr int kToRead = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr std::size_t kDeepest = 64;
// The worker is gone: it has reported why.
struct Gone {};

struct Entry {
    string name;
    unsigned char type;
};

bool is_part(const string& name) {
    return std::find(std::begin(names::kSubDirs), std::end(names::kSubDirs), name) !=
           std::end(names::kSubDirs);
}

// A directory of the source.
struct Directory {
    Fd fd;
    string path;   // for messages
    Names folder;  // its names below the source
    bool dotted = false;
};

class Source {
  public:
    Source(string path, const Channel& channel) : path_(std::move(path)), channel_(channel) {}

    void send() {
        Fd fd = open_named(path_, O_RDONLY | O_NONBLOCK | O_NOCTTY);
        struct stat st;
        if (::fstat(fd.get(), &st) != 0) throw system_failure(printable(path_));
        if (S_ISDIR(st.st_mode)) {
            send_directory({std::move(fd), path_, {}});
        } else if (S_ISREG(st.st_mode)) {
            put({{"kind", item::kMbox}, {"folder", Names()}, {"path", path_}}, fd.get());
        } else {
            throw Failure(kExitNoInput, printable(path_) + ": neither a directory nor a file");
        }
        put({{"kind", item::kEnd}});
    }

  private:
    void put(const Json& head, int file = -1) const {
        if (!channel_.send(head, file)) throw Gone();
    }

    void leave_out(const string& path, const string& why) const {
        put({{"kind", item::kLeftOut}, {"text", printable(path) + ": left out (" + why + ')'}});
    }

    // Sorted, so that a second run goes the same way.
    std::vector<Entry> entries_of(const Directory& directory) const {
        std::vector<Entry> entries;
        base::DirReader reader(directory.fd.get());
        while (const dirent64* entry = reader.next_real()) {
            entries.push_back({entry->d_name, type_of(directory.fd.get(), *entry)});
        }
        if (reader.failed()) leave_out(directory.path, error_text(errno));
        std::sort(entries.begin(), entries.end(),
                  [](const Entry& a, const Entry& b) { return a.name < b.name; });
        return entries;
    }

    static unsigned char type_of(int directory, const dirent64& entry) {
        struct stat st;
        if (entry.d_type != DT_UNKNOWN) return entry.d_type;
        if (::fstatat(directory, entry.d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) return DT_UNKNOWN;
        return S_ISDIR(st.st_mode) ? DT_DIR : S_ISREG(st.st_mode) ? DT_REG : DT_UNKNOWN;
    }

    void send_directory(const Directory& directory) {
        const std::vector<Entry> entries = entries_of(directory);
        const bool is_folder = std::any_of(entries.begin(), entries.end(), [](const Entry& e) {
            return e.name == names::kCur || e.name == names::kNew;
        });
        if (is_folder) send_messages(directory);
        for (const Entry& entry : entries) {
            if (entry.type == DT_DIR && !is_part(entry.name)) {
                send_below(directory, entry.name, entries);
            } else if (entry.type == DT_REG && entry.name.ends_with(kMboxSuffix) &&
                       entry.name.front() != '.') {
                send_mbox(directory, entry.name);
            } else if (entry.type == DT_LNK) {
                leave_out(directory.path + '/' + entry.name, "a symbolic link");
            }
        }
    }

    // A directory below another one: a nested folder, a Maildir++ folder, or the folders below that
    // of an mbox file.
    void send_below(const Directory& above, const string& name, const std::vector<Entry>& beside) {
        const string path = above.path + '/' + name;
        const bool dotted = name.front() == '.';
        if (dotted && (!above.folder.empty() || name.size() == 1)) return;
        if (above.folder.size() >= kDeepest) return leave_out(path, "too deep");
        Directory directory = {
            Fd(retry([&] { return ::openat(above.fd.get(), name.c_str(), kToRead); })), path,
            above.folder, dotted};
        if (!directory.fd) return leave_out(path, error_text(errno));
        if (dotted) {
            directory.folder = split(name.substr(1));
        } else {
            directory.folder.push_back(folder_name(name, beside));
        }
        if (dotted && !is_maildir(directory)) return;
        send_directory(directory);
    }

    static bool is_maildir(const Directory& directory) {
        return ::faccessat(directory.fd.get(), names::kCur.data(), F_OK, AT_EACCESS) == 0 ||
               ::faccessat(directory.fd.get(), names::kNew.data(), F_OK, AT_EACCESS) == 0;
    }

    static Names split(const string& dotted) {
        Names names;
        for (std::size_t begin = 0, end = 0; end != string::npos; begin = end + 1) {
            end = dotted.find('.', begin);
            names.push_back(dotted.substr(begin, end - begin));
        }
        return names;
    }

    static string folder_name(const string& directory, const std::vector<Entry>& beside) {
        if (!directory.ends_with(kBelowSuffix)) return directory;
        const string name = directory.substr(0, directory.size() - kBelowSuffix.size());
        const bool is_mbox = std::any_of(beside.begin(), beside.end(), [&](const Entry& e) {
            return e.type == DT_REG && e.name == name + string(kMboxSuffix);
        });
        return is_mbox ? name : directory;
    }

    void send_mbox(const Directory& directory, const string& name) const {
        const string path = directory.path + '/' + name;
        const Fd file = open_regular(directory.fd.get(), name.c_str());
        if (!file) return leave_out(path, reason(errno));
        Names folder = directory.folder;
        folder.push_back(name.substr(0, name.size() - kMboxSuffix.size()));
        put({{"kind", item::kMbox}, {"folder", folder}, {"path", path}}, file.get());
    }

    void send_messages(const Directory& directory) const {
        put({{"kind", item::kFolder}, {"folder", directory.folder}, {"dotted", directory.dotted}});
        for (const bool fresh : {false, true}) {
            const string part(fresh ? names::kNew : names::kCur);
            const Directory place = {
                Fd(retry([&] { return ::openat(directory.fd.get(), part.c_str(), kToRead); })),
                directory.path + '/' + part, directory.folder, directory.dotted};
            if (!place.fd && errno == ENOENT) continue;
            if (!place.fd) {
                leave_out(place.path, error_text(errno));
                continue;
            }
            for (const Entry& entry : entries_of(place)) send_message(place, entry.name, fresh);
        }
    }

    void send_message(const Directory& place, const string& name, bool fresh) const {
        if (name.front() == '.') return;
        const string path = place.path + '/' + name;
        const Fd file = open_regular(place.fd.get(), name.c_str());
        if (!file && errno == ENOENT) return;  // read or removed meanwhile
        if (!file) return leave_out(path, reason(errno));
        put({{"kind", item::kMessage},
             {"folder", place.folder},
             {"dotted", place.dotted},
             {"name", name},
             {"fresh", fresh},
             {"path", path}},
            file.get());
    }

    static string reason(int error) {
        if (error == EINVAL) return "not a regular file";
        if (error == ELOOP) return "a symbolic link";
        if (error == EPERM) return "a second name of another user's file";
        return error_text(error);
    }

    string path_;
    const Channel& channel_;
};

}  // namespace

void send_source(const string& path, const Channel& channel) {
    try {
        Source(path, channel).send();
    } catch (const Gone&) {
        return;
    }
}

}  // namespace Tessaly::tool
