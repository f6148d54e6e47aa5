#include "tools/work/import.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base/store_names.h"
#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/work/folder.h"
#include "tools/work/folder_list.h"
#include "tools/work/holes.h"
#include "tools/work/import_group.h"
#include "tools/work/import_name.h"
#include "tools/work/mbox.h"
#include "tools/work/message_name.h"
#include "tools/work/paths.h"
#include "tools/work/utf7.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;
using Sums = std::unordered_set<string>;

// The sums of all imported messages in the mailbox, wherever a reader has put them.
Sums known_sums(const TSMailUserId& id) {
    Sums sums;
    for (const string& folder : list_folders(id).names) {
        for (const string_view place : {names::kNew, names::kCur}) {
            for (const string& name : names_in(in(id.mailfolder(folder), place))) {
                const string_view sum = sum_in_name(name);
                if (!sum.empty()) sums.emplace(sum);
            }
        }
    }
    return sums;
}

string system_name(const string& name) {
    for (const string& folder : system_folders()) {
        if (::strcasecmp(name.c_str(), folder.c_str()) == 0) return folder;
    }
    return name;
}

// A name of the source in UTF-8: Maildir++ has modified UTF-7, and so may other directories.
string decoded(const string& name) {
    if (name.find('&') == string::npos) return name;
    return from_utf7(name).value_or(name);
}

string only_letters(string_view flags) {
    string letters;
    for (const char c : flags) {
        const bool is_letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        if (!is_letter) break;
        letters += c;
    }
    return letters;
}

class Import {
  public:
    Import(const ImportPlan& plan, const Channel& source, const SignalHold& signals, Report& report)
        : plan_(plan),
          source_(source),
          signals_(signals),
          report_(report),
          maker_(plan.callers_umask),
          known_(known_sums(plan.id)) {}

    void run() {
        for (;;) {
            auto item = source_.receive();
            if (!item) throw Failure(kExitIo, "the process that reads the source has ended");
            report_.fed();
            if (!take(*item)) break;
        }
        commit();
        report_counts();
    }

  private:
    // False at the end.
    bool take(Item& item) {
        const auto kind = item.head.at("kind").get<string>();
        if (kind == item::kEnd) return false;
        if (kind == item::kFailed) {
            commit();
            report_counts();
            throw Failure(static_cast<ExitCode>(item.head.at("code").get<int>()),
                          item.head.at("text").get<string>());
        }
        if (kind == item::kLeftOut) {
            report_.error(Failure(kExitData, item.head.at("text").get<string>()));
        } else if (open_folder(item.head)) {
            if (kind == item::kMessage) take_message(item);
            if (kind == item::kMbox) take_mbox(item);
        }
        return true;
    }

    // ---- folders

    string folder_of(const Json& head) const {
        std::vector<string> names;
        for (const auto& name : head.at("folder")) names.push_back(decoded(name.get<string>()));
        if (plan_.folder) {
            names.insert(names.begin(), *plan_.folder);
        } else if (names.empty()) {
            names.push_back(system_folders().front());
        } else {
            names.front() = system_name(names.front());
        }
        string folder;
        for (const string& name : names) folder += (folder.empty() ? "" : "/") + name;
        return folder;
    }

    // Makes the item's folder the current one. False if no folder may have its name.
    bool open_folder(const Json& head) {
        const string folder = folder_of(head);
        if (folder == folder_) return true;
        if (refused_.count(folder) != 0) return false;
        try {
            check_folder_name(folder);
        } catch (const Failure& failure) {
            refused_.insert(folder);
            report_.error(Failure(kExitData, string(failure.what()) + "; it is left out"));
            return false;
        }
        commit();
        if (!plan_.dry_run) {
            maker_.make_folder(plan_.id, folder);
            group_ = std::make_unique<ImportGroup>(plan_.id, folder);
        }
        folder_ = folder;
        counts_.try_emplace(folder);
        return true;
    }

    // ---- messages

    // A message that is being read.
    struct Reading {
        ImportDraft draft;
        MessageSum sum;
        void add(string_view bytes) {
            sum.add(bytes);
            draft.write(bytes);
        }
    };
    Reading begin() const { return {ImportDraft(group_ ? group_->tmp() : -1), {}}; }

    // `unique` is what the source calls the message.
    void end(Reading reading, const string& unique, std::time_t date, const string& flags,
             bool fresh) {
        MessageSum& sum = reading.sum;
        const string size = std::to_string(reading.draft.size());
        for (const string& part : {folder_, unique, std::to_string(date), size}) {
            sum.add(part + '\0');
        }
        // The same message twice in one source is two messages.
        sum.add(std::to_string(++seen_[sum.text()]));
        report_.progress(++read_, 0);
        const string text = sum.text();
        if (!known_.insert(text).second) {
            ++counts_[folder_].present;
            return;
        }
        const string name =
            name_with_flags({imported_name(date, text, reading.draft.size()), flags});
        store(std::move(reading.draft), name, date, fresh);
    }

    void store(ImportDraft draft, const string& name, std::time_t date, bool fresh) {
        if (!group_) {
            ++counts_[folder_].messages;
            counts_[folder_].bytes += draft.size();
            return;
        }
        draft.finish(date);
        group_->add(std::move(draft), name, fresh);
        if (group_->is_full()) commit();
    }

    void take_message(const Item& item) {
        struct stat st;
        if (::fstat(item.file.get(), &st) != 0) return leave_out(item, error_text(errno));
        if (is_mostly_holes(st)) return leave_out(item, "a file of holes");
        Reading reading = begin();
        buffer_.resize(kBuffer);
        for (;;) {
            const ssize_t n =
                retry([&] { return ::read(item.file.get(), buffer_.data(), buffer_.size()); });
            if (n < 0) return leave_out(item, error_text(errno));
            if (n == 0) break;
            reading.add({buffer_.data(), static_cast<std::size_t>(n)});
            // A file that grows while it is read has an end.
            if (reading.draft.size() > static_cast<std::uint64_t>(st.st_size) + kBuffer) break;
        }
        const NameParts parts = parts_of(item.head.at("name").get<string>());
        end(std::move(reading), parts.unique, std::max<std::time_t>(st.st_mtim.tv_sec, 0),
            only_letters(parts.flags), item.head.at("fresh").get<bool>());
    }

    void take_mbox(const Item& item) {
        struct stat st;
        if (::fstat(item.file.get(), &st) != 0) return leave_out(item, error_text(errno));
        std::optional<Reading> reading;
        std::time_t date = 0;
        MboxVisitor visitor;
        visitor.begin = [&](std::optional<std::time_t> given) {
            date = std::max<std::time_t>(given.value_or(st.st_mtim.tv_sec), 0);
            reading.emplace(begin());
        };
        visitor.text = [&](string_view text) { reading->add(text); };
        visitor.end = [&](const string& flags, bool old) {
            report_.fed();
            end(std::move(*reading), "", date, flags, flags.empty() && !old);
        };
        if (!read_mbox(item.file.get(), visitor)) leave_out(item, "not an mbox file");
    }

    void leave_out(const Item& item, const string& why) {
        report_.error(Failure(
            kExitData, printable(item.head.value("path", string())) + ": left out (" + why + ')'));
    }

    // ---- groups

    void commit() {
        if (!group_) return;
        const ImportCount done = group_->commit(signals_);
        ImportCount& count = counts_[folder_];
        count.messages += done.messages;
        count.bytes += done.bytes;
        count.present += done.present;
        const string path = printable(plan_.id.mailfolder(folder_));
        if (!done.counted)
            report_.warn(path + ": a size record is wrong; the mailbox needs a recount");
        if (!done.flushed) report_.warn(path + ": the messages may not survive a crash yet");
    }

    void report_counts() {
        for (const auto& [folder, count] : counts_) {
            report_.object({{"folder", folder},
                            {"messages", count.messages},
                            {"bytes", count.bytes},
                            {"present", count.present},
                            {"done", !plan_.dry_run}});
        }
    }

    static constexpr std::size_t kBuffer = 131072;
    const ImportPlan& plan_;
    const Channel& source_;
    const SignalHold& signals_;
    Report& report_;
    FolderMaker maker_;
    Sums known_;                                 // of what is in the mailbox or on its way
    std::unordered_map<string, unsigned> seen_;  // how often a message came in this run
    std::string folder_;
    std::unique_ptr<ImportGroup> group_;  // nothing in a dry run
    std::map<string, ImportCount> counts_;
    Sums refused_;
    std::vector<char> buffer_;
    std::size_t read_ = 0;
};

}  // namespace

void import_messages(const ImportPlan& plan, const Channel& source, const SignalHold& signals,
                     Report& report) {
    Import(plan, source, signals, report).run();
}

}  // namespace Tessaly::tool
