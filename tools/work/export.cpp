#include "tools/work/export.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <tuple>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base/dir_reader.h"
#include "base/store_names.h"
#include "tools/cli/text.h"
#include "tools/work/folder.h"
#include "tools/work/folder_list.h"
#include "tools/work/holes.h"
#include "tools/work/message_name.h"
#include "tools/work/transfer_names.h"

namespace Tessaly::tool {

namespace {

using std::string;
using Names = std::vector<string>;

constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr int kToRead = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

Names split(const string& folder) {
    Names names;
    for (std::size_t begin = 0, end = 0; end != string::npos; begin = end + 1) {
        end = folder.find('/', begin);
        names.push_back(folder.substr(begin, end - begin));
    }
    return names;
}

// A message by its name, which may change before it is opened.
struct Listed {
    std::time_t date;
    string name;
    bool fresh;
};

class Export {
  public:
    Export(const ExportPlan& plan, const Channel* target, Report& report)
        : plan_(plan), target_(target), report_(report) {}

    void run() {
        const FolderList folders = list_folders(plan_.id);
        for (const auto& [path, error] : folders.unread) {
            report_.error(system_failure(printable(path), error));
        }
        if (plan_.folder) existing_folder(plan_.id, *plan_.folder);
        for (const string& folder : folders.names) {
            if (is_above(folder)) put_folder(folder);
            if (is_wanted(folder)) export_folder(folder);
        }
        finish();
    }

  private:
    bool is_wanted(const string& folder) const {
        return !plan_.folder || folder == *plan_.folder || folder.starts_with(*plan_.folder + '/');
    }
    bool is_above(const string& folder) const {
        return plan_.folder && plan_.folder->starts_with(folder + '/');
    }

    void put(const Json& head, int file = -1) {
        if (target_ != nullptr && !target_->send(head, file)) wait_for_end();
        report_.fed();
    }

    // False if the format cannot carry the folder.
    bool put_folder(const string& folder) {
        const Names names = split(folder);
        const bool maildir = plan_.format == ExportFormat::maildir;
        if (maildir ? maildir_name(names) : mbox_name(names)) {
            put({{"kind", item::kFolder}, {"folder", names}});
            return true;
        }
        report_.error(Failure(kExitData, "folder \"" + printable(folder) +
                                             "\": left out (the format cannot carry its name)"));
        return false;
    }

    void export_folder(const string& folder) {
        if (!put_folder(folder)) return;
        const string path = plan_.id.mailfolder(folder);
        std::unordered_set<string> sent;
        messages_ = bytes_ = 0;
        // A message that has another name by now is found in the next pass.
        constexpr int kPasses = 5;
        for (int pass = 0; pass < kPasses && !send_all(folder, path, sent); ++pass) {
        }
        report_.object({{"folder", folder},
                        {"messages", messages_},
                        {"bytes", bytes_},
                        {"done", target_ != nullptr}});
    }

    // False if a message had another name by the time it was opened.
    bool send_all(const string& folder, const string& path, std::unordered_set<string>& sent) {
        const Fd fd(retry([&] { return ::open(path.c_str(), kDirectory); }));
        if (!fd) {
            report_.error(system_failure(printable(path)));
            return true;
        }
        Fd places[2];
        std::vector<Listed> messages;
        for (const bool fresh : {false, true}) {
            const auto& part = fresh ? names::kNew : names::kCur;
            places[fresh].reset(retry([&] { return ::openat(fd.get(), part.data(), kDirectory); }));
            list(places[fresh].get(), path + '/' + string(part), fresh, messages);
        }
        std::sort(messages.begin(), messages.end(), [](const Listed& a, const Listed& b) {
            return std::tie(a.date, a.name) < std::tie(b.date, b.name);
        });
        const Names names = split(folder);
        bool all = true;
        for (const Listed& message : messages) {
            if (sent.count(parts_of(message.name).unique) != 0) continue;
            all = send_one(names, path, places[message.fresh].get(), message, sent) && all;
        }
        return all;
    }

    void list(int place, const string& path, bool fresh, std::vector<Listed>& messages) {
        if (place < 0) return;
        base::DirReader reader(place);
        while (const dirent64* entry = reader.next_real()) {
            if (entry->d_name[0] == '.') continue;
            messages.push_back({tsl_get_mail_received_date(entry->d_name), entry->d_name, fresh});
        }
        if (reader.failed()) report_.error(system_failure(printable(path)));
    }

    bool send_one(const Names& folder, const string& path, int place, const Listed& message,
                  std::unordered_set<string>& sent) {
        const Fd file(retry([&] { return ::openat(place, message.name.c_str(), kToRead); }));
        if (!file && errno == ENOENT) return false;
        const string shown = path + (message.fresh ? "/new/" : "/cur/") + message.name;
        struct stat st;
        const NameParts parts = parts_of(message.name);
        sent.insert(parts.unique);
        if (!file || ::fstat(file.get(), &st) != 0) {
            report_.error(system_failure(printable(shown)));
            return true;
        }
        if (!S_ISREG(st.st_mode)) return true;  // not a message
        if (is_mostly_holes(st)) {
            report_.error(Failure(kExitData, printable(shown) + ": left out (a file of holes)"));
            return true;
        }
        put({{"kind", item::kMessage},
             {"folder", folder},
             {"name", message.name},
             {"fresh", message.fresh},
             {"flags", parts.flags},
             {"date", message.date >= 0 ? message.date : st.st_mtim.tv_sec},
             {"path", shown}},
            file.get());
        ++messages_;
        bytes_ += static_cast<std::uint64_t>(st.st_size);
        report_.progress(++total_, 0);
        return true;
    }

    void finish() {
        if (target_ == nullptr) return;
        put({{"kind", item::kEnd}});
        wait_for_end();
    }

    // Takes what the other process says at the end. A Failure if it gave up.
    void wait_for_end() {
        while (auto item = target_->receive()) {
            const auto kind = item->head.at("kind").get<string>();
            if (kind == item::kEnd) return;
            const auto text = item->head.at("text").get<string>();
            if (kind == item::kFailed) {
                throw Failure(static_cast<ExitCode>(item->head.at("code").get<int>()), text);
            }
            report_.warn(text);
        }
        throw Failure(kExitIo, "the process that writes the messages has ended");
    }

    const ExportPlan& plan_;
    const Channel* target_;
    Report& report_;
    std::uint64_t messages_ = 0, bytes_ = 0;
    std::size_t total_ = 0;
};

}  // namespace

void export_messages(const ExportPlan& plan, const Channel* target, Report& report) {
    Export(plan, target, report).run();
}

}  // namespace Tessaly::tool
