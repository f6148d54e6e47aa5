#include <sys/statfs.h>
#include <tessaly/MailUserId.h>
#include <tessaly/mailstore.h>

#include <cstdlib>

#include "fault/operations.h"
#include "testing/files.h"

using namespace testing_files;
using Tessaly::TSMailUserId;

namespace fault {

namespace {

constexpr const char* kWarning = FAULT_HOME "/quota_warning_flag";
constexpr const char* kExceeded = FAULT_HOME "/quota_exceeded_flag";
constexpr const char* kStamp = FAULT_HOME "/.alert_notification";
constexpr const char* kOutbox = "/var/spool/outbox";  // where the submission program puts mail
constexpr int kNoProgram = 127 << 8;  // the wait status of a program that was not started

void prepare_flags() {
    write(kWarning, "80");
    write(kExceeded, "95");
}

template <class Function>
Operation reads_flag(const char* name, Function function, long long good) {
    return {.names = name,
            .prepare = prepare_flags,
            .run = [function](Output&) -> long long { return function(); },
            .good = good,
            .others = {{0}},
            .traits = kThrows};
}

template <class Function>
Operation sets_flag(const char* name, const char* variant, const char* path, Function function) {
    return {.names = name,
            .variant = variant,
            .prepare = prepare_flags,
            .run = [function](Output&) -> long long {
                function();
                return 0;
            },
            .rule = file_begun(path),
            .traits = kThrows | kWrites};
}

// The accounts take 12 gibibytes of the share; the numbers below are what is left without them.
void prepare_accounts() {
    write(FAULT_WORK "/tsmail.toml",
          "[[archive_account]]\nname = \"a\"\nquota_gib = 5\n"
          "[[archive_account]]\nname = \"b\"\nquota_gib = 7\n");
    ::setenv("TSMAIL_CONFIG", FAULT_WORK "/tsmail.toml", 1);
}

long long archive_share() {
    struct statfs spool;
    if (::statfs("/var/spool", &spool) != 0) return 0;
    const auto bytes = static_cast<long long>(spool.f_blocks) * spool.f_bsize;
    return static_cast<int>(bytes >> 30) / 5;
}

std::vector<Answer> statuses() {
    std::vector<Answer> answers;
    for (const int status : {-1, kNoProgram, 126 << 8, 2 << 8, 1 << 8}) answers.push_back({status});
    return answers;
}

}  // namespace

std::vector<Operation> quota_operations() {
    return {
        reads_flag(
            "tsl_get_quota_exceeded", [] { return tsl_get_quota_exceeded(kUser); }, 95),
        reads_flag(
            "tsl_get_quota_warning", [] { return tsl_get_quota_warning(kUser); }, 80),
        reads_flag(
            "tsl_get_arch_quota_exceeded", [] { return tsl_get_arch_quota_exceeded(kUser); }, 1),
        reads_flag(
            "Tessaly::TSMailUserId::quota_exceeded",
            [] { return TSMailUserId(kUser).quota_exceeded(); }, 1),
        sets_flag("tsl_set_quota_exceeded", "", kExceeded,
                  [] { tsl_set_quota_exceeded(kUser, 100); }),
        sets_flag("tsl_set_quota_warning", "", kWarning, [] { tsl_set_quota_warning(kUser, 90); }),
        sets_flag("tsl_set_arch_quota_exceeded", "", kExceeded,
                  [] { tsl_set_arch_quota_exceeded(kUser); }),
        sets_flag("tsl_unset_arch_quota_exceeded", "", kExceeded,
                  [] { tsl_unset_arch_quota_exceeded(kUser); }),
        sets_flag("Tessaly::TSMailUserId::quota_exceeded", "set", kExceeded,
                  [] { TSMailUserId(kUser).quota_exceeded(true); }),
        sets_flag("Tessaly::TSMailUserId::quota_exceeded", "unset", kExceeded,
                  [] { TSMailUserId(kUser).quota_exceeded(false); }),
        {.names = "Tessaly::TSMailUserId::alert_notification",
         .prepare = [] { make_dirs(FAULT_HOME); },
         .run = [](Output&) -> long long { return TSMailUserId(kUser).alert_notification(); },
         .good = 1,
         .rule = in_steps,
         .traits = kThrows | kWrites},
        {.names = "Tessaly::TSMailUserId::alert_notification",
         .variant = "too_early",
         .prepare = [] { write(kStamp, ""); },
         .run = [](Output&) -> long long { return TSMailUserId(kUser).alert_notification(); },
         .good = 0,
         .others = {{1}},
         .traits = kThrows},
        {.names = "tsl_send_quota_msg",
         .prepare = [] { make_dirs(kOutbox); },
         .run = [](Output&) -> long long {
             return tsl_send_quota_msg("a@fault.test", kUser, "Quota", "80 % are used.");
         },
         .others = statuses(),
         .rule = file_begun(std::string(kOutbox) + "/mail"),
         .traits = kWrites},
        {.names = "tsm_archive_avail_quota",
         .prepare = prepare_accounts,
         .run = [](Output&) -> long long { return tsm_archive_avail_quota(nullptr); },
         .good = archive_share() - 12,
         .others = {{0}, {archive_share()}, {archive_share() - 5}}},
    };
}

}  // namespace fault
