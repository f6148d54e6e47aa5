// Quota notices: the mail, and the stamp that keeps them a day apart.
#include <sys/stat.h>
#include <tessaly/MailUserId.h>
#include <tessaly/support.h>

#include <cstdio>
#include <ctime>
#include <string>

#include "base/fd.h"
#include "base/guard.h"
#include "base/pipe.h"
#include "base/postmaster.h"
#include "base/text.h"
#include "mailuser/direct.h"
#include "quota/flag_file.h"

// The support library of an appliance may not have it.
#pragma weak cfg_get_postmaster

namespace Tessaly {

namespace {

constexpr char kSubmissionCommand[] = "/bin/sendmail -Am -bm -t";
constexpr char kFixedHeaders[] = "X-Tessaly-Quota: 1\nPrecedence: bulk";
constexpr time_t kShortestInterval = 86401;  // more than a day, in seconds
// The line that the exception for the direct type carries. It does not change when the source does.
constexpr int kDueLine = 297;

// The configured address, or the usual one, which is composed in the buffer.
const char* postmaster(char (&buffer)[base::kPostmasterRoom]) {
    const char* address = cfg_get_postmaster == nullptr ? nullptr : cfg_get_postmaster();
    return address == nullptr || *address == '\0' ? base::default_postmaster(buffer) : address;
}

const char* given_or(const char* text, const char* otherwise) {
    return text == nullptr ? otherwise : text;
}

std::string compose(const char* from, const char* to, const char* subject, const char* body) {
    // Asked once: the next answer may overwrite the text of this one.
    char buffer[base::kPostmasterRoom];
    const char* address = from == nullptr || to == nullptr ? postmaster(buffer) : nullptr;
    return base::concat({"From:", given_or(from, address), "\nTo:", given_or(to, address),
                         "\nSubject:", given_or(subject, "(no subject)"), "\n", kFixedHeaders,
                         "\n\n", given_or(body, ""), "\n.\n"});
}

int submit(const std::string& message) {
    std::FILE* program = ::popen(kSubmissionCommand, "we");
    if (program == nullptr) return 0;
    // Not through the stream's buffer, so that the close has nothing left to write. It is not
    // looked at whether the program took everything: its status is the answer.
    base::write_pipe(::fileno(program), message);
    return ::pclose(program);
}

}  // namespace

bool TSMailUserId::alert_notification() const {
    if (type_ == MAILBOX_DIRECT) throw_not_implemented("alert_notification", kDueLine);
    const std::string stamp = fname(MUF_ALERT_NOTIFICATION);
    struct stat st;
    const bool sent_before = base::retry([&] { return ::stat(stamp.c_str(), &st); }) == 0;
    // now - mtime < interval, in the form that cannot overflow.
    if (sent_before && st.st_mtime > std::time(nullptr) - kShortestInterval) return false;
    quota::make_empty(stamp);
    return true;
}

}  // namespace Tessaly

int tsl_send_quota_msg(const char* from, const char* to, const char* subject, const char* body) {
    return Tessaly::base::no_throw(
        0, [&] { return Tessaly::submit(Tessaly::compose(from, to, subject, body)); });
}
