#include <tessaly/mailstore.h>

#include <cstring>

#include "fault/operations.h"
#include "testing/files.h"

using namespace testing_files;

namespace fault {

namespace {

constexpr const char* kWorkFolder = FAULT_MAIL "/Work";
constexpr long long kCreated = 1763275200, kReceived = 1796837760;
constexpr const char* kMessageName = "1763275200.4242_1_2.mx1#Q#6B9Ha0q3004242,#F#S#2048#E";

void prepare_mailbox() {
    make_maildir(FAULT_INBOX);
    make_maildir(kWorkFolder);
    make_maildir(FAULT_MAIL "/Work/2024");
    write(FAULT_INBOX "/cur/1.h,#F#S#3#E:2,S", "one");
    write(FAULT_INBOX "/new/2.h,#F#S#3#E", "two");
    write(FAULT_INBOX "/.ts_cache", "mtime=1,size=6");
}

template <class Function>
Operation test_of_text(const char* name, Function function, long long good) {
    return {.names = name,
            .run = [function](Output&) -> long long { return function("Inbox/Work"); },
            .good = good,
            .traits = kNoCalls | kAllocatesNothing};
}

template <class Function>
Operation test_of_folder(const char* name, Function function) {
    return {.names = name,
            .prepare = prepare_mailbox,
            .run = [function](Output&) -> long long { return function(kWorkFolder); },
            .good = 1,
            .others = {{0}},
            .traits = kAllocatesNothing};
}

template <class Function>
Operation makes_directories(const char* name, Function function, std::vector<Answer> failures,
                            unsigned traits) {
    return {.names = name,
            .run = [function](Output&) -> long long { return function(); },
            .others = std::move(failures),
            .rule = in_steps,
            .traits = traits | kWrites | kAcknowledges};
}

// If the time zone's file, or memory for it, is missing, a date is read as UTC or not at all.
Operation name_date(const char* name, time_t (*date)(const char*), long long good) {
    return {.names = name,
            .run = [date](Output&) -> long long { return date(kMessageName); },
            .good = good,
            .others = {{-1}, {kCreated}}};
}

int visit(const char* name, const struct stat*, void* out) {
    auto& text = static_cast<Output*>(out)->text;
    std::strncat(text.data(), name, text.size() - std::strlen(text.data()) - 1);
    return 1;
}

// The folders that can be found when some of them cannot be looked at or entered.
const std::vector<Answer> kSomeFolders = [] {
    std::vector<Answer> answers;
    for (const auto& [count, text] : std::initializer_list<std::pair<long long, const char*>>{
             {0, ""}, {1, "Inbox"}, {1, "Work"}, {2, "InboxWork"}, {2, "WorkWork/2024"}}) {
        Answer answer{count};
        answer.output.set_text(text);
        answers.push_back(answer);
    }
    return answers;
}();

// The part of a generated name from the queue marker on. The part before it differs each time.
long long make_unique_name(Output& out) {
    char name[256];
    if (tsl_gen_mail_unique_name(2048, "abc-6B9Ha0", name, sizeof name) == nullptr) return -1;
    const char* queue = std::strstr(name, "#Q#");
    if (queue != nullptr) out.set_text(queue);
    return 0;
}

std::vector<Operation> tests_and_names() {
    return {
        test_of_text("tsl_is_system_folder", tsl_is_system_folder, 0),
        test_of_text("tsl_is_system_sub_folder", tsl_is_system_sub_folder, 1),
        test_of_text("tsl_is_reserved_folder", tsl_is_reserved_folder, 0),
        test_of_text("tsl_is_mbox_folder", tsl_is_mbox_folder, 1),
        {.names = "tsl_is_valid_mailbox_name",
         .run = [](Output&) -> long long { return tsl_is_valid_mailbox_name("Inbox/Work", 1); },
         .without_memory = {{1}},
         .traits = kNoCalls},
        {.names = "tsl_is_mbox",
         .prepare =
             [] {
                 write(FAULT_WORK "/mbox",
                       "From user Wed Dec  2 05:53:22 1992\nSubject: one\n\ntext\n");
             },
         .run = [](Output&) -> long long { return tsl_is_mbox(FAULT_WORK "/mbox") != 0; },
         .good = 1,
         .others = {{0}},
         .traits = kAllocatesNothing},
        test_of_folder("tsl_is_maildir_folder", tsl_is_maildir_folder),
        test_of_folder("tsl_is_mail_folder",
                       [](const char* path) { return tsl_is_mail_folder(path, nullptr); }),
        {.names = "tsl_gen_mail_unique_name", .run = make_unique_name, .traits = kAllocatesNothing},
        {.names = "tsl_gen_queue_id",
         .run = [](Output&) -> long long {
             char id[40];
             return tsl_gen_queue_id(nullptr, id, sizeof id) == id;
         },
         .good = 1},
        name_date("tsl_get_mail_creation_date", tsl_get_mail_creation_date, kCreated),
        name_date("tsl_get_mail_received_date", tsl_get_mail_received_date, kReceived),
    };
}

std::vector<Operation> making_and_walking() {
    return {
        makes_directories(
            "tsl_mkdir_maildir", [] { return tsl_mkdir_maildir(kWorkFolder); }, {{-1}},
            kAllocatesNothing),
        makes_directories(
            "create_mail_dir", [] { return create_mail_dir(kUser, 1); }, {{-1}, {-2}}, 0),
        makes_directories(
            "create_pref_dir", [] { return create_pref_dir(kUser, 1); }, {{-1}, {-2}}, 0),
        {.names = "tsl_visit_folders",
         .prepare = prepare_mailbox,
         .run = [](Output& out) -> long long {
             return tsl_visit_folders(FAULT_MAIL, 1, visit, &out);
         },
         .good = 3,
         .others = kSomeFolders},
    };
}

}  // namespace

std::vector<Operation> maildir_operations() {
    std::vector<Operation> rows = tests_and_names();
    const std::vector<Operation> more = making_and_walking();
    rows.insert(rows.end(), more.begin(), more.end());
    return rows;
}

}  // namespace fault
