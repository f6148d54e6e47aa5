#include <tessaly/userpref.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fault/operations.h"
#include "testing/files.h"

using namespace testing_files;

namespace fault {

namespace {

constexpr const char* kPrefFile = FAULT_PREF "/ann~fault.test.pref";
constexpr const char* kText = "npage=30\nlang=de\ntimezone=7\nuname=Ann\n";
constexpr int kUnknownTimezone = 12;

void prepare_preferences() { write(kPrefFile, kText); }

// A record's fields that the file sets, so that a half-read file shows.
void put(const user_pref& p, Output& out) {
    out.numbers = {p.npage, p.timezone};
    out.set_text(p.uname);
}

long long read_with_defaults(Output& out) {
    user_pref p;
    const int result = read_user_pref_all(kUser, &p);
    put(p, out);
    return result;
}

long long read_into(Output& out) {
    user_pref p;
    get_default_user_pref(&p);
    const int result = read_user_pref(&p, kUser);
    put(p, out);
    return result;
}

long long fill_from_stream(Output& out) {
    user_pref p;
    put(*get_default_user_pref(&p), out);
    FILE* stream = std::fopen(kPrefFile, "re");
    if (stream == nullptr) return -1;
    const int result = fill_user_pref_struct(&p, stream);
    std::fclose(stream);
    put(p, out);
    return result;
}

// Stores texts long enough that several pages are written.
long long store(Output&) {
    user_pref p;
    get_default_user_pref(&p);
    for (auto* text : {&p.uname, &p.remail, &p.default_id, &p.ar_subject}) {
        std::memset(*text, 'x', sizeof *text - 1);
    }
    return store_user_pref(kUser, &p);
}

const Answer kDefaults = {-1, numbers(25, 0)};

}  // namespace

std::vector<Operation> userpref_operations() {
    return {
        {.names = "get_default_user_pref",
         .run = [](Output& out) -> long long {
             user_pref p;
             put(*get_default_user_pref(&p), out);
             return 0;
         },
         .traits = kNoCalls | kAllocatesNothing},
        {.names = "get_default_user_pref_with_tz",
         .run = [](Output& out) -> long long {
             user_pref p;
             put(*get_default_user_pref_with_tz(&p), out);
             return 0;
         }},
        {.names = "fill_user_pref_struct",  // the lines up to the error, on the caller's stream
         .prepare = prepare_preferences,
         .run = fill_from_stream,
         .others = {kDefaults, {0, kDefaults.output}},
         .traits = kSeesEintr},
        {.names = "parse_pref_line",
         .run = [](Output& out) -> long long {
             user_pref p{};
             char line[] = "npage=30\n";
             const int result = parse_pref_line(&p, line);
             put(p, out);
             return result;
         },
         .traits = kNoCalls | kAllocatesNothing},
        {.names = "read_user_pref",
         .prepare = prepare_preferences,
         .run = read_into,
         .others = {kDefaults}},
        {.names = "read_user_pref_all",
         .prepare = prepare_preferences,
         .run = read_with_defaults,
         .others = {kDefaults}},
        {.names = "read_user_pref_all",
         .variant = "long",
         .prepare = [] { write(kPrefFile, std::string(30000, '#') + '\n' + kText); },
         .run = read_with_defaults,
         .others = {kDefaults}},
        {.names = "store_user_pref",
         .prepare = prepare_preferences,
         .run = store,
         .others = {{-1}},
         .rule = file_begun(kPrefFile),
         .traits = kWrites | kAcknowledges},
        {.names = "store_user_pref",
         .variant = "new",
         .run = store,
         .others = {{-1}},
         .rule = file_begun(kPrefFile),
         .traits = kWrites | kAcknowledges},
        {.names = "get_user_pref_lite_timezone",
         .prepare = prepare_preferences,
         .run = [](Output&) -> long long { return get_user_pref_lite_timezone(kUser); },
         .good = 7,
         .others = {{kUnknownTimezone}}},
    };
}

}  // namespace fault
