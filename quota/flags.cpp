// Quota flags. The flat functions set and read a number; the members and the archive's functions go
// by the existence of the file.
#include <tessaly/MailUserId.h>

#include <string>

#include "mailuser/direct.h"
#include "quota/flag_file.h"

using Tessaly::TSMailUserId;
namespace quota = Tessaly::quota;

namespace {

// The lines that the exceptions for the direct type carry. They do not change when the source does.
constexpr int kSetLine = 275;
constexpr int kGetLine = 288;

int number_of(const char* user, MailUserFileKind kind) {
    return user == nullptr ? 0 : quota::read_number(TSMailUserId(user).fname(kind));
}

void set_number(const char* user, MailUserFileKind kind, int value) {
    if (user != nullptr) quota::write_number(TSMailUserId(user).fname(kind), value);
}

}  // namespace

namespace Tessaly {

bool TSMailUserId::quota_exceeded() const {
    if (type_ == MAILBOX_DIRECT) throw_not_implemented("quota_exceeded", kGetLine);
    return quota::exists(fname(MUF_QUOTA_EXCEEDED_FLAG));
}

void TSMailUserId::quota_exceeded(bool flag) const {
    if (type_ == MAILBOX_DIRECT) throw_not_implemented("quota_exceeded(flag)", kSetLine);
    const std::string path = fname(MUF_QUOTA_EXCEEDED_FLAG);
    if (flag) {
        quota::make_empty(path);
    } else {
        quota::remove(path);
    }
}

}  // namespace Tessaly

int tsl_get_quota_exceeded(const char* user) { return number_of(user, MUF_QUOTA_EXCEEDED_FLAG); }

int tsl_get_quota_warning(const char* user) { return number_of(user, MUF_QUOTA_WARNING_FLAG); }

void tsl_set_quota_exceeded(const char* user, int value) {
    set_number(user, MUF_QUOTA_EXCEEDED_FLAG, value);
}

void tsl_set_quota_warning(const char* user, int value) {
    set_number(user, MUF_QUOTA_WARNING_FLAG, value);
}

int tsl_get_arch_quota_exceeded(const char* user) {
    return user != nullptr && quota::exists(TSMailUserId(user).fname(MUF_QUOTA_EXCEEDED_FLAG_2));
}

void tsl_set_arch_quota_exceeded(const char* user) {
    if (user != nullptr) quota::make_empty(TSMailUserId(user).fname(MUF_QUOTA_EXCEEDED_FLAG_2));
}

void tsl_unset_arch_quota_exceeded(const char* user) {
    if (user != nullptr) quota::remove(TSMailUserId(user).fname(MUF_QUOTA_EXCEEDED_FLAG_2));
}
