#include "tools/spool/target.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "base/dir_reader.h"
#include "base/io.h"
#include "tools/cli/text.h"
#include "tools/spool/named_path.h"
#include "tools/spool/target_formats.h"

namespace Tessaly::tool {

namespace {

using std::string;

constexpr char kMark[] = ".tsmail-export";
constexpr mode_t kPrivate = 0600;

string mark_text(const ExportPlan& plan) {
    return "unfinished export\nmailbox: " + plan.id.address(true) +
           "\nformat: " + (plan.format == ExportFormat::mbox ? "mbox" : "maildir") +
           "\nfolder: " + plan.folder.value_or("") + '\n';
}

bool is_empty(int directory) {
    const Fd fd(
        retry([&] { return ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    base::DirReader reader(fd.get());
    return reader.next_real() == nullptr && !reader.failed();
}

// The mark of an unfinished export like this one; nothing if there is none.
Fd own_mark(int directory, const string& text) {
    Fd fd(retry(
        [&] { return ::openat(directory, kMark, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); }));
    struct stat st;
    string found;
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return Fd();
    const bool ours = st.st_uid == ::geteuid() && base::read_file(fd.get(), found) && found == text;
    return ours ? std::move(fd) : Fd();
}

Fd new_mark(int directory, const string& text, const string& path) {
    Fd fd(retry([&] {
        return ::openat(directory, kMark, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kPrivate);
    }));
    if (!fd || !base::write_all(fd.get(), text)) throw system_failure(printable(path));
    return fd;
}

}  // namespace

Target::Target(const string& path, const ExportPlan& plan)
    : path_(path), format_(plan.format), fd_(make_named_directory(path)) {
    const string text = mark_text(plan);
    mark_ = is_empty(fd_.get()) ? new_mark(fd_.get(), text, path) : own_mark(fd_.get(), text);
    if (!mark_) {
        throw Failure(kExitCannotCreate,
                      printable(path) +
                          ": the directory is not empty, and what is in it is not an "
                          "unfinished export of this mailbox");
    }
    if (retry([&] { return ::flock(mark_.get(), LOCK_EX | LOCK_NB); }) != 0) {
        throw Failure(kExitTryAgain, printable(path) + ": another export works on it");
    }
}

void Target::write(const Channel& channel) const {
    Notes notes;
    std::unique_ptr<FormatWriter> writer = format_writer(format_, fd_.get(), path_, notes);
    for (;;) {
        const auto item = channel.receive();
        if (!item) return;  // the worker is gone: the export stays unfinished
        const auto kind = item->head.at("kind").get<string>();
        if (kind == item::kEnd) break;
        const auto folder = item->head.at("folder").get<std::vector<string>>();
        if (kind == item::kFolder) writer->folder(folder);
        if (kind == item::kMessage) writer->message(*item);
    }
    writer->finish();
    if (::syncfs(fd_.get()) != 0) throw system_failure(printable(path_));
    if (::unlinkat(fd_.get(), kMark, 0) != 0) throw system_failure(printable(path_));
    for (const string& note : notes.shown()) channel.send({{"kind", item::kNote}, {"text", note}});
    channel.send({{"kind", item::kEnd}});
}

}  // namespace Tessaly::tool
