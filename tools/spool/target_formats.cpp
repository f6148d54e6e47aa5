#include "tools/spool/target_formats.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "base/dir_reader.h"
#include "base/io.h"
#include "base/rename.h"
#include "base/store_names.h"
#include "tools/cli/text.h"
#include "tools/work/mbox.h"
#include "tools/work/message_name.h"
#include "tools/work/transfer_names.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;
using Names = std::vector<string>;

constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kNewFile = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t kPrivateFile = 0600, kPrivateDirectory = 0700;

// Makes the directory if it is missing, and opens it. It must be the caller's own: otherwise its
// owner could lead the export elsewhere.
Fd own_directory(int at, const string& name, const string& path) {
    if (::mkdirat(at, name.c_str(), kPrivateDirectory) != 0 && errno != EEXIST) {
        throw system_failure(printable(path));
    }
    Fd fd(retry([&] { return ::openat(at, name.c_str(), kDirectory); }));
    struct stat st;
    if (!fd || ::fstat(fd.get(), &st) != 0) throw system_failure(printable(path));
    if (name != "." && st.st_uid != ::geteuid()) {
        throw Failure(kExitCannotCreate, printable(path) + ": it belongs to another user");
    }
    return fd;
}

string message_name(const Item& item) {
    auto name = item.head.at("name").get<string>();
    if (name.empty() || name.front() == '.' || name.find('/') != string::npos ||
        name.find('\0') != string::npos) {
        throw Failure(kExitSoftware, "a message has the name \"" + printable(name) + '"');
    }
    return name;
}

struct stat status_of(const Item& item) {
    struct stat st;
    if (!item.file || ::fstat(item.file.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        throw Failure(kExitSoftware, "a message came without its file");
    }
    return st;
}

void set_date(int fd, const Item& item) {
    const timespec times[] = {{0, UTIME_OMIT}, {item.head.at("date").get<std::time_t>(), 0}};
    ::futimens(fd, times);
}

// ---- Maildir++

// A folder, which is there in a part if the export was stopped before.
class MaildirFolder {
  public:
    MaildirFolder(int directory, const string& name, string path)
        : path_(std::move(path)), fd_(own_directory(directory, name, path_)) {
        for (const char* part : names::kSubDirs) {
            parts_.push_back(own_directory(fd_.get(), part, path_ + '/' + part));
        }
        for (const int place : {kCur, kNew}) add_present(place);
    }

    void put(const Item& item) {
        const string name = message_name(item);
        const int place = item.head.at("fresh").get<bool>() ? kNew : kCur;
        const auto found = present_.find(parts_of(name).unique);
        if (found != present_.end() && keep(found->second, place, name, item)) return;
        write(item, name, place);
    }

  private:
    enum Part { kCur, kNew, kTmp };
    struct Present {
        int place;
        string name;
    };

    void add_present(int place) {
        base::DirReader reader(parts_[static_cast<std::size_t>(place)].get());
        while (const dirent64* entry = reader.next_real()) {
            present_[parts_of(entry->d_name).unique] = {place, entry->d_name};
        }
    }

    int fd(int part) const { return parts_[static_cast<std::size_t>(part)].get(); }

    // Gives a whole message of the first run its present name. False if it is not whole.
    bool keep(const Present& present, int place, const string& name, const Item& item) const {
        struct stat st;
        const bool whole =
            ::fstatat(fd(present.place), present.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            st.st_size == status_of(item).st_size;
        if (!whole) ::unlinkat(fd(present.place), present.name.c_str(), 0);
        if (!whole || (present.place == place && present.name == name)) return whole;
        return base::move_new(fd(present.place), present.name.c_str(), fd(place), name.c_str());
    }

    void write(const Item& item, const string& name, int place) const {
        const string path = path_ + "/tmp/" + name;
        ::unlinkat(fd(kTmp), name.c_str(), 0);
        const Fd file(
            retry([&] { return ::openat(fd(kTmp), name.c_str(), kNewFile, kPrivateFile); }));
        if (!file) throw system_failure(printable(path));
        copy(item, file.get(), path);
        set_date(file.get(), item);
        if (!base::move_new(fd(kTmp), name.c_str(), fd(place), name.c_str())) {
            throw system_failure(printable(path));
        }
    }

    // At most the size that the message had at first: its file may grow without an end.
    static void copy(const Item& item, int to, const string& path) {
        char piece[65536];
        for (off_t left = status_of(item).st_size; left > 0;) {
            const auto room = std::min<std::size_t>(sizeof piece, static_cast<std::size_t>(left));
            const ssize_t n = retry([&] { return ::read(item.file.get(), piece, room); });
            if (n < 0) throw system_failure(printable(item.head.value("path", string())));
            if (n == 0) return;
            if (!base::write_all(to, {piece, static_cast<std::size_t>(n)})) {
                throw system_failure(printable(path));
            }
            left -= n;
        }
    }

    string path_;
    Fd fd_;
    std::vector<Fd> parts_;
    std::unordered_map<string, Present> present_;
};

class MaildirWriter : public FormatWriter {
  public:
    MaildirWriter(int directory, string path) : directory_(directory), path_(std::move(path)) {
        open(".");
    }

    void folder(const Names& names) override {
        const auto name = maildir_name(names);
        if (!name) throw Failure(kExitSoftware, "a folder has a name that Maildir++ cannot carry");
        open(*name);
    }
    void message(const Item& item) override { folder_->put(item); }
    void finish() override {}

  private:
    void open(const string& name) {
        folder_ = std::make_unique<MaildirFolder>(directory_, name,
                                                  name == "." ? path_ : path_ + '/' + name);
    }

    int directory_;
    string path_;
    std::unique_ptr<MaildirFolder> folder_;
};

// ---- mbox

// The letters of Status and X-Status for a message's flags.
struct StatusLetter {
    char flag, letter;
};
constexpr StatusLetter kStatusLetters[] = {{'S', 'R'}};
constexpr StatusLetter kXStatusLetters[] = {{'R', 'A'}, {'F', 'F'}, {'T', 'D'}, {'D', 'T'}};

template <std::size_t n>
string letters_for(const string& flags, const StatusLetter (&table)[n]) {
    string letters;
    for (const auto& [flag, letter] : table) {
        if (flags.find(flag) != string::npos) letters += letter;
    }
    return letters;
}

string status_lines(const string& flags, bool fresh) {
    const string status = letters_for(flags, kStatusLetters) + (fresh ? "" : "O");
    const string x_status = letters_for(flags, kXStatusLetters);
    return (status.empty() ? "" : "Status: " + status + '\n') +
           (x_status.empty() ? "" : "X-Status: " + x_status + '\n');
}

string from_line(std::time_t date) {
    std::tm utc = {};
    char text[64];
    if (::gmtime_r(&date, &utc) == nullptr) utc = {};
    const std::size_t n = std::strftime(text, sizeof text, "%a %b %e %H:%M:%S %Y", &utc);
    return "From MAILER-DAEMON " + string(text, n) + '\n';
}

class MboxFile {
  public:
    // Nothing is written if the file is there: the first run finished it.
    MboxFile(Fd directory, string name, string path)
        : directory_(std::move(directory)), name_(std::move(name)), path_(std::move(path)) {
        if (::faccessat(directory_.get(), name_.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) return;
        const string unfinished = name_ + string(kPartSuffix);
        ::unlinkat(directory_.get(), unfinished.c_str(), 0);
        fd_.reset(retry([&] {
            return ::openat(directory_.get(), unfinished.c_str(), kNewFile, kPrivateFile);
        }));
        if (!fd_) throw system_failure(printable(path_));
    }

    void put(const Item& item, Notes& notes) {
        if (!fd_) return;
        const string shown = printable(item.head.value("path", string()));
        const auto flags = item.head.at("flags").get<string>();
        note_flags(flags, shown, notes);
        add(from_line(item.head.at("date").get<std::time_t>()));
        add(status_lines(flags, item.head.at("fresh").get<bool>()));
        copy(item, shown, notes);
        add("\n");
    }

    void finish() {
        if (!fd_) return;
        flush();
        const string unfinished = name_ + string(kPartSuffix);
        const bool done =
            ::fsync(fd_.get()) == 0 &&
            base::move_new(directory_.get(), unfinished.c_str(), directory_.get(), name_.c_str());
        if (!done) throw system_failure(printable(path_));
        fd_.reset();
    }

  private:
    static void note_flags(const string& flags, const string& shown, Notes& notes) {
        const auto other = flags.find_first_not_of("SRFTD");
        if (other == string::npos) return;
        notes.add(fmt::format("{}: mbox does not carry the flag {}", shown,
                              printable(string_view(flags).substr(other, 1))));
    }

    void copy(const Item& item, const string& shown, Notes& notes) {
        bool in_header = true, own_status = false;
        char last = '\n';
        const off_t size = status_of(item).st_size;
        for (FileLines lines(item.file.get()); lines.next() && lines.bytes() <= size;) {
            const string_view text = lines.text();
            if (lines.begins()) {
                in_header = in_header && text != "\n" && text != "\r\n";
                own_status = own_status || (in_header && flags_of_status(text).has_value());
                if (needs_quote(text)) add(">");
            }
            add(text);
            last = text.back();
        }
        if (own_status) notes.add(shown + ": mbox does not carry its own lines Status or X-Status");
        if (last == '\n') return;
        notes.add(shown + ": its last line has no end, and has one in the mbox");
        add("\n");
    }

    void add(string_view text) {
        buffer_.append(text);
        constexpr std::size_t kFull = 262144;
        if (buffer_.size() >= kFull) flush();
    }

    void flush() {
        if (!base::write_all(fd_.get(), buffer_)) throw system_failure(printable(path_));
        buffer_.clear();
    }

    Fd directory_;
    string name_, path_;
    Fd fd_;
    string buffer_;
};

class MboxWriter : public FormatWriter {
  public:
    MboxWriter(int directory, string path, Notes& notes)
        : directory_(directory), path_(std::move(path)), notes_(notes) {}

    void folder(const Names& names) override {
        finish();
        const auto file = mbox_name(names);
        if (!file) throw Failure(kExitSoftware, "a folder has a name that a file cannot have");
        string path = path_;
        Fd above = own_directory(directory_, ".", path);
        string rest = *file;
        for (auto slash = rest.find('/'); slash != string::npos; slash = rest.find('/')) {
            path += '/' + rest.substr(0, slash);
            above = own_directory(above.get(), rest.substr(0, slash), path);
            rest.erase(0, slash + 1);
        }
        file_ = std::make_unique<MboxFile>(std::move(above), rest, path + '/' + rest);
    }
    void message(const Item& item) override {
        if (!file_) throw Failure(kExitSoftware, "a message came without a folder");
        file_->put(item, notes_);
    }
    void finish() override {
        if (file_) file_->finish();
        file_.reset();
    }

  private:
    int directory_;
    string path_;
    Notes& notes_;
    std::unique_ptr<MboxFile> file_;
};

}  // namespace

void Notes::add(string text) {
    constexpr std::size_t kMost = 1000;
    if (texts_.size() < kMost) {
        texts_.push_back(std::move(text));
    } else {
        ++more_;
    }
}

std::vector<string> Notes::shown() const {
    std::vector<string> texts = texts_;
    if (more_ > 0) texts.push_back(fmt::format("{} more such messages", more_));
    return texts;
}

std::unique_ptr<FormatWriter> format_writer(ExportFormat format, int directory, string path,
                                            Notes& notes) {
    if (format == ExportFormat::mbox) {
        return std::make_unique<MboxWriter>(directory, std::move(path), notes);
    }
    return std::make_unique<MaildirWriter>(directory, std::move(path));
}

}  // namespace Tessaly::tool
