#include <tessaly/maillist.h>
#include <tessaly/support.h>

#include "fault/operations.h"
#include "testing/files.h"

using namespace testing_files;

namespace fault {

namespace {

constexpr const char* kList = FAULT_PREF "/ann~fault.test.whitelist";
constexpr const char* kNumbered = FAULT_PREF "/ann~fault.test.numbered";

void prepare_lists() {
    write(kList, "c@x.test\n*@y.test\na@x.test\n");
    write(kNumbered, "1,a\n2,b\n3,c\n");
}

constexpr int kLongList = 60;

// Enough lines for several reads.
void prepare_long_list() {
    std::string lines;
    for (int i = 0; i < kLongList; ++i) lines += std::string(200, 'x') + std::to_string(i) + '\n';
    write(kList, lines);
}

Operation reads(const char* name, const char* variant, void (*prepare)(),
                std::function<long long(Output&)> run, long long good, Answer failure,
                std::vector<Answer> without_memory = {}) {
    return {.names = name,
            .variant = variant,
            .prepare = prepare,
            .run = std::move(run),
            .good = good,
            .others = {failure},
            .without_memory = std::move(without_memory),
            .rule = in_steps};
}

Operation rewrites(const char* name, std::function<long long(Output&)> run) {
    return {.names = name,
            .prepare = prepare_lists,
            .run = std::move(run),
            .others = {{-1}},
            .rule = in_steps,
            .traits = kWrites};
}

long long get_names(bool sorted, Output& out) {
    mail_list_names names;
    const int result = mail_list_get_names(kUser, "whitelist", &names, sorted, MAIL_LIST_USER);
    out = numbers(names.count, 0);
    mail_list_free_names(&names);
    return result;
}

// Adds to a list: the whole entry or nothing. Only a full disk may cut it.
Operation adds(const char* variant, void (*prepare)()) {
    return {.names = "mail_list_add_to",
            .variant = variant,
            .prepare = prepare,
            .run = [](Output&) -> long long {
                return mail_list_add_to(kUser, "whitelist", "new-entry@z.test", MAIL_LIST_USER);
            },
            .others = {{-1}},
            .rule = file_appended(kList),
            .traits = kWrites};
}

long long get_path(Output& out) {
    return mail_list_get_path(kUser, "whitelist", out.text.data(), Output::kRoom, MAIL_LIST_USER);
}

long long get_file_name(Output& out) {
    mail_list_get_file_name(kUser, "whitelist", out.text.data(), Output::kRoom, MAIL_LIST_USER);
    return 0;
}

long long count_lines(Output&) {
    FILE* stream = std::fopen(kList, "re");
    if (stream == nullptr) return -1;
    const int count = maillist_count(stream);
    std::fclose(stream);
    return count;
}

}  // namespace

std::vector<Operation> maillist_operations() {
    const auto find = [](Output&) -> long long {
        return mail_list_find(kUser, "whitelist", "A@x.test", MAIL_LIST_USER);
    };
    const auto match = [](Output&) -> long long {
        return mail_list_match(kUser, "whitelist", "who@y.test", MAIL_LIST_USER);
    };
    const auto names = [](Output& out) { return get_names(false, out); };
    const auto sorted = [](Output& out) { return get_names(true, out); };
    const Answer none = {-1, numbers(0, 0)};
    std::vector<Answer> some;  // a line is left out if there is no memory for it
    for (int count = 0; count < kLongList; ++count) some.push_back({0, numbers(count, 0)});
    return {
        {.names = "mail_list_get_path", .run = get_path, .others = {{-1}}, .traits = kNoCalls},
        {.names = "mail_list_get_file_name",
         .run = get_file_name,
         .others = {{0}},
         .traits = kNoCalls},
        {.names = "is_mail_list_changed",
         .run = [](Output&) -> long long { return is_mail_list_changed(nullptr); },
         .traits = kNoCalls | kAllocatesNothing},
        {.names = "maillist_count",  // the lines up to the error, on the caller's stream
         .prepare = prepare_lists,
         .run = count_lines,
         .good = 3,
         .others = {{-1}, {0}, {1}, {2}},
         .traits = kSeesEintr},
        reads("mail_list_find", "", prepare_lists, find, 1, {0}),
        reads("mail_list_match", "", prepare_lists, match, 1, {0}),
        reads("mail_list_get_names mail_list_free_names", "", prepare_lists, names, 0, none, some),
        reads("mail_list_get_names", "long_sorted", prepare_long_list, sorted, 0, none, some),
        adds("", prepare_lists),
        adds("new", [] { make_dirs(FAULT_PREF); }),
        adds("long", prepare_long_list),
        rewrites("mail_list_delete_from",
                 [](Output&) -> long long {
                     return mail_list_delete_from(kUser, "whitelist", "c@x.test", MAIL_LIST_USER);
                 }),
        rewrites("mail_list_modify_from",
                 [](Output&) -> long long {
                     char entry[] = "b@x.test\n";
                     return mail_list_modify_from(kUser, "whitelist", entry, 1, MAIL_LIST_USER);
                 }),
        rewrites("mail_list_delete_through_id",
                 [](Output&) -> long long {
                     return mail_list_delete_through_id(kUser, "numbered", 2, MAIL_LIST_USER);
                 }),
    };
}

}  // namespace fault
