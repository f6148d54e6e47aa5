#include <tessaly/Exception.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fault/operations.h"
#include "testing/files.h"

using namespace testing_files;

namespace fault {

namespace {

constexpr const char* kFile = FAULT_WORK "/file";
constexpr int kArchiveTable = 670;
constexpr std::size_t kQuotaOffset = 640;  // in a row of that table

void prepare_file() { write(kFile, "old\n"); }

void prepare_configuration() {
    write(FAULT_WORK "/tsmail.toml",
          "timezone = 7\npostmaster = \"pm@fault.test\"\nmail_user = \"vmail\"\n"
          "[[archive_account]]\nname = \"a\"\nquota_gib = 5\n"
          "[[archive_account]]\nname = \"b\"\nquota_gib = 7\n");
    ::setenv("TSMAIL_CONFIG", FAULT_WORK "/tsmail.toml", 1);
}

Operation lock_row(const char* mode, Rule rule, unsigned traits) {
    return {.names = "open_and_lock_file close_and_unlock_file",
            .variant = mode[0] == 'r'   ? "read"
                       : mode[0] == 'w' ? "write"
                                        : "append",
            .prepare = prepare_file,
            .run = [mode](Output&) -> long long {
                FILE* stream = open_and_lock_file(kFile, mode);
                return stream == nullptr ? -1 : close_and_unlock_file(stream);
            },
            .others = {{-1}},
            .rule = std::move(rule),
            .traits = traits};
}

template <class Function>
Operation configuration_row(const char* names, Function function, long long good, Output none) {
    return {.names = names,
            .prepare = prepare_configuration,
            .run = [function](Output& out) -> long long { return function(out); },
            .good = good,
            .others = {{0, none}}};
}

Output text(const char* value) {
    Output out;
    out.set_text(value);
    return out;
}

long long sum_of_quotas() {
    long long sum = 0;
    for (const void* row = kqf_query_table_head(nCfg_query(kArchiveTable)); row != nullptr;
         row = kqf_query_get_next(nCfg_query(kArchiveTable))) {
        std::uint16_t quota;
        std::memcpy(&quota, static_cast<const char*>(row) + kQuotaOffset, sizeof quota);
        sum += quota;
    }
    return sum;
}

// The moved file exists under one of the two names, and is whole.
std::string one_of_both(const Run& run, const Run& clean) {
    const bool kept =
        run.after.contains(FAULT_WORK "/from") || run.after.at(FAULT_WORK "/to").ends_with("new\n");
    return kept ? in_steps(run, clean) : difference(run.after, run.before);
}

std::string exception_names() {
    std::string names = "Tessaly::Exception::Exception";
    for (const char* member :
         {"~Exception", "what", "operator=", "message", "code", "file", "line"}) {
        names += std::string(" Tessaly::Exception::") + member;
    }
    return names;
}

long long throw_one(Output& out) {
    try {
        throw Tessaly::Exception("a message long enough to be allocated", 4, "file", 1);
    } catch (const Tessaly::Exception& e) {
        out = numbers(e.code(), e.line());
        out.set_text(e.message());
    }
    return 0;
}

}  // namespace

std::vector<Operation> support_operations() {
    return {
        lock_row("r", {}, 0),
        lock_row("w", in_steps, kWrites | kAcknowledges),
        lock_row("a+", {}, 0),
        {.names = "create_path",
         .prepare = [] { make_dirs(FAULT_WORK); },
         .run = [](Output&) -> long long { return create_path(FAULT_WORK "/a/b/c", 0700); },
         .others = {{-1}},
         .rule = in_steps,
         .traits = kWrites | kAcknowledges | kAllocatesNothing},
        {.names = "tsm_movefile",
         .prepare =
             [] {
                 write(FAULT_WORK "/from", "new\n");
                 write(FAULT_WORK "/to", "old\n");
             },
         .run = [](Output&) -> long long {
             return tsm_movefile(FAULT_WORK "/from", FAULT_WORK "/to");
         },
         .others = {{-1}},
         .rule = one_of_both,
         .traits = kWrites | kAcknowledges | kAllocatesNothing},
        {.names = "tsm_clean_dir",
         .prepare =
             [] {
                 write(FAULT_WORK "/tree/a/b/file", "1");
                 write(FAULT_WORK "/tree/file", "2");
                 write(FAULT_WORK "/outside", "stays");
             },
         .run = [](Output&) -> long long { return tsm_clean_dir(FAULT_WORK "/tree", 0); },
         .others = {{-1}},
         .rule = only_removed,
         .traits = kWrites | kAcknowledges},
        configuration_row("cfg_get_TZ", [](Output&) { return *cfg_get_TZ(); }, 7, {}),
        // Without the file it is that of the host's domain, without the host's name that of
        // "localhost".
        {.names = "cfg_get_postmaster",
         .prepare = prepare_configuration,
         .run = [](Output& out) -> long long {
             out.set_text(cfg_get_postmaster());
             return 0;
         },
         .others = {{0, text("postmaster@sandbox")},
                    {0, text("postmaster@localhost")},
                    {0, text("postmaster")}}},
        {.names = "cfg_get_mail_user",
         .prepare = prepare_configuration,
         .run = [](Output& out) -> long long {
             const char* user = cfg_get_mail_user();
             out.set_text(user == nullptr ? "" : user);
             return 0;
         },
         .others = {{0, text("")}}},
        configuration_row("nCfg_query kqf_query_table_head kqf_query_get_next",
                          [](Output&) { return sum_of_quotas(); }, 12, {}),
        {.names = "cfg_check",
         .prepare = prepare_configuration,
         .run = [](Output&) -> long long { return cfg_check(nullptr, nullptr, nullptr); },
         .others = {{-1}}},
        {.names = "cfg_get_file",
         .prepare = prepare_configuration,
         .run = [](Output& out) -> long long {
             out.set_text(cfg_get_file());
             return 0;
         },
         .traits = kNoCalls | kAllocatesNothing},
        {.names = "trim_right",
         .run = [](Output& out) -> long long {
             char line[] = "text \n";
             out.set_text(trim_right(line));
             return 0;
         },
         .traits = kNoCalls | kAllocatesNothing},
        {.names = exception_names(), .run = throw_one, .traits = kNoCalls | kThrows},
    };
}

}  // namespace fault
