#include "tools/work/quota.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <iterator>

#include "base/store_names.h"
#include "quota/archive.h"
#include "quota/flag_file.h"
#include "tools/cli/descriptors.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/encoded_word.h"
#include "tools/work/paths.h"

namespace Tessaly::tool {

namespace {

using std::string;

constexpr char kSubmissionProgram[] = "/bin/sendmail";
constexpr std::time_t kNoticeInterval = 86401;  // seconds
constexpr std::size_t kLongestBody = 1 << 20;
// Exit codes that mail programs agree on.
constexpr int kFirstAgreed = 64, kLastAgreed = 78;
constexpr int kNotFoundByShell = 127, kShellsSignals = 128;

struct FlagRow {
    MailUserFileKind file;
    int (*get)(const char* user);
};
constexpr FlagRow kFlags[] = {
    /* kWarningFlag */ {MUF_QUOTA_WARNING_FLAG, tsl_get_quota_warning},
    /* kExceededFlag */ {MUF_QUOTA_EXCEEDED_FLAG, tsl_get_quota_exceeded},
};
static_assert(std::size(kFlags) == kExceededFlag + 1, "a row for each flag");

std::optional<struct stat> status_of(const string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) return st;
    if (errno == ENOENT) return std::nullopt;
    throw system_failure(printable(path));
}

string dirty_marker(const TSMailUserId& id) {
    return in(id.mailpath(), string(names::kDirtyMarker));
}

FlagState flag_state(const TSMailUserId& id, QuotaFlag flag) {
    const FlagRow& row = kFlags[flag];
    return {status_of(id.fname(row.file)).has_value(), row.get(id.address().c_str())};
}

std::optional<QuotaTotals> quota_totals(const TSMailUserId& id) {
    unsigned long long bytes = 0, messages = 0;
    if (tsl_get_maildirsize(nullptr, id.mailpath().c_str(), &bytes, &messages) != 0) return {};
    return QuotaTotals{bytes, messages};
}

// Finds out why a file was not written, as the library does not tell.
Failure not_written(const string& path) {
    const string directory = path.substr(0, path.rfind('/'));
    const bool exists = ::euidaccess(path.c_str(), F_OK) == 0;
    const int refused =
        exists ? ::euidaccess(path.c_str(), W_OK) : ::euidaccess(directory.c_str(), W_OK | X_OK);
    if (refused != 0) return system_failure(printable(path));
    return {kExitIo, printable(path) + " could not be written"};
}

// The library writes what it is given into the header, so the further lines go with the subject.
string subject_lines(const Notice& notice) {
    const bool plain_body = is_ascii(notice.body);
    const bool plain = plain_body && is_ascii(notice.subject + notice.from.value_or(""));
    if (plain) return notice.subject;
    return encoded_words(notice.subject) +
           "\nMIME-Version: 1.0\nContent-Type: text/plain; charset=" +
           (is_utf8(notice.body) ? "UTF-8" : "unknown-8bit") +
           "\nContent-Transfer-Encoding: " + (plain_body ? "7bit" : "8bit");
}

void check_header(std::string_view name, std::string_view text) {
    if (!is_utf8(text)) {
        throw Failure(kExitData,
                      string(name) + " \"" + printable(text) + "\" is refused: it is not UTF-8");
    }
    if (!has_control_character(text)) return;
    throw Failure(kExitData, string(name) + " \"" + printable(text) +
                                 "\" is refused: a line break or other control character in it");
}

// Only a word without characters that are special in headers is surely a single recipient.
void check_recipient(const string& address) {
    if (address.find_first_of(" ,;:<>()[]\\\"") == string::npos) return;
    throw Failure(kExitData, "no notice can be addressed to \"" + printable(address) +
                                 "\": in a message's header it would not be one address");
}

void check_body(std::string_view body) {
    if (body.find('\0') != std::string_view::npos) {
        throw Failure(kExitData, "the notice's text is refused: a NUL byte in it");
    }
    for (std::size_t begin = 0, end = 0; end != std::string_view::npos; begin = end + 1) {
        end = body.find('\n', begin);
        const std::string_view line = body.substr(begin, end - begin);
        if (line != "." && line != ".\r") continue;
        throw Failure(kExitData, "the notice's text is refused: a line \".\" would end it");
    }
}

string read_to_end(int fd, const string& name) {
    string text;
    char piece[8192];
    for (;;) {
        const ssize_t n = retry([&] { return ::read(fd, piece, sizeof piece); });
        if (n < 0) throw Failure(kExitNoInput, printable(name) + ": " + error_text(errno));
        if (n == 0) return text;
        text.append(piece, static_cast<std::size_t>(n));
        if (text.size() > kLongestBody) {
            throw Failure(kExitData, printable(name) + " is too long for a notice");
        }
    }
}

// The signal that ended the program, as the system or the shell in between reports it; 0 if none
// did.
int signal_of(int status) {
    if (WIFSIGNALED(status)) return WTERMSIG(status);
    return std::max(WEXITSTATUS(status) - kShellsSignals, 0);
}

Failure submission_failure(int status) {
    const string program = kSubmissionProgram;
    if (status == -1) return {kExitIo, program + ": its answer was lost: " + error_text(errno)};
    if (const int signal = signal_of(status)) {
        return {kExitTryAgain, program + " was ended by signal " + std::to_string(signal)};
    }
    const int code = WEXITSTATUS(status);
    if (code == kNotFoundByShell) return {kExitUnavailable, program + " could not be started"};
    const bool agreed = code >= kFirstAgreed && code <= kLastAgreed;
    return {agreed ? static_cast<ExitCode>(code) : kExitUnavailable,
            program + " refused the notice with exit code " + std::to_string(code)};
}

// The submission program must not inherit ignored signals. An ignored SIGCHLD would also hide its
// exit code from this process.
class DefaultSignals {
  public:
    DefaultSignals() {
        for (std::size_t n = 0; n < std::size(kSignals); ++n) {
            before_[n] = std::signal(kSignals[n], SIG_DFL);
        }
    }
    ~DefaultSignals() {
        for (std::size_t n = 0; n < std::size(kSignals); ++n) std::signal(kSignals[n], before_[n]);
    }
    DefaultSignals(const DefaultSignals&) = delete;
    DefaultSignals& operator=(const DefaultSignals&) = delete;

  private:
    static constexpr int kSignals[] = {SIGCHLD, SIGPIPE, SIGXFSZ};
    void (*before_[std::size(kSignals)])(int);
};

}  // namespace

bool has_quota_flag(const TSMailUserId& id, QuotaFlag flag) {
    return ::access(id.fname(kFlags[flag].file).c_str(), F_OK) == 0;
}

QuotaState quota_state(const TSMailUserId& id) {
    QuotaState state = {};
    state.warning = flag_state(id, kWarningFlag);
    state.exceeded = flag_state(id, kExceededFlag);
    state.kept = quota_totals(id);
    // Comes after reading the totals, as that marks the mailbox if they are damaged.
    state.dirty = status_of(dirty_marker(id)).has_value();
    const std::optional<struct stat> stamp = status_of(id.fname(MUF_ALERT_NOTIFICATION));
    if (stamp) state.last_notice = stamp->st_mtim.tv_sec;
    state.notice_due = !stamp || std::time(nullptr) - stamp->st_mtim.tv_sec >= kNoticeInterval;
    return state;
}

void set_quota_flag(const TSMailUserId& id, QuotaFlag flag, int value) {
    const string path = id.fname(kFlags[flag].file);
    if (!quota::write_number(path, value)) throw system_failure(printable(path));
}

void clear_quota_flag(const TSMailUserId& id, QuotaFlag flag) {
    const MailUserFileKind file = kFlags[flag].file;
    const string path = id.fname(file);
    if (tsl_delete_user_file(file, id.address().c_str()) != 0) {
        throw system_failure(printable(path));
    }
    status_of(
        path);  // a Failure in a directory that may not be entered, which counts as empty there
}

void mark_totals_untrusted(const TSMailUserId& id) {
    id.quota_reset();
    if (!status_of(dirty_marker(id))) throw not_written(dirty_marker(id));
}

void check_notice(const Notice& notice) {
    check_header("the subject", notice.subject);
    if (notice.from) check_header("the sender", *notice.from);
    check_header("the address", notice.to);
    check_recipient(notice.to);
    check_body(notice.body);
}

string read_notice_body(const string& file) {
    const bool standard_input = file == "-";
    const Fd opened(
        standard_input ? -1 : retry([&] { return ::open(file.c_str(), O_RDONLY | O_CLOEXEC); }));
    if (!standard_input && !opened) {
        throw Failure(kExitNoInput, printable(file) + ": " + error_text(errno));
    }
    string body = read_to_end(standard_input ? STDIN_FILENO : opened.get(), file);
    if (body.ends_with('\n')) body.pop_back();
    return body;
}

Guard pass_notice_guard(const TSMailUserId& id) {
    const bool due = id.alert_notification();
    return {due, !quota_state(id).notice_due};
}

void demand_submission_program() {
    if (::euidaccess(kSubmissionProgram, X_OK) == 0) return;
    throw Failure(kExitUnavailable, string(kSubmissionProgram) + ": " + error_text(errno));
}

void send_notice(const Notice& notice) {
    const DefaultSignals signals;
    const string from = encoded_address(notice.from.value_or(""));
    const string subject = subject_lines(notice);
    const int status = tsl_send_quota_msg(notice.from ? from.c_str() : nullptr, notice.to.c_str(),
                                          subject.c_str(), notice.body.c_str());
    if (status != 0) throw submission_failure(status);
}

ArchiveShare archive_share(const std::optional<string>& exclude) {
    std::int32_t share = 0;
    if (!quota::archive_share(share) && errno != 0) throw system_failure("/var/spool");
    ArchiveShare result = {};
    result.share = share;
    quota::visit_archive_accounts([&](const char* name, unsigned gibibytes) {
        const bool counts = !exclude || *exclude != name;
        result.accounts.push_back({name, gibibytes, counts});
        if (counts) result.given += gibibytes;
    });
    result.free = tsm_archive_avail_quota(exclude ? exclude->c_str() : nullptr);
    return result;
}

}  // namespace Tessaly::tool
