// Makes one call of the library, for tests that watch the process. "-" stands
// for NULL; the result goes to standard output.
#include <tessaly/MailUserId.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

namespace {

struct Verb {
    const char* name;
    int arguments;
    std::function<int(char**)> call;
};

const char* text(const char* argument) {
    return std::strcmp(argument, "-") == 0 ? nullptr : argument;
}

const Verb kVerbs[] = {
    {"set-warning", 2,
     [](char** a) {
         tsl_set_quota_warning(text(a[0]), std::atoi(a[1]));
         return 0;
     }},
    {"get-warning", 1, [](char** a) { return tsl_get_quota_warning(text(a[0])); }},
    {"mark-exceeded", 2,
     [](char** a) {
         Tessaly::TSMailUserId(a[0]).quota_exceeded(std::atoi(a[1]) != 0);
         return 0;
     }},
    {"is-exceeded", 1, [](char** a) { return int{Tessaly::TSMailUserId(a[0]).quota_exceeded()}; }},
    {"due", 1, [](char** a) { return int{Tessaly::TSMailUserId(a[0]).alert_notification()}; }},
    {"notice", 4,
     [](char** a) { return tsl_send_quota_msg(text(a[0]), text(a[1]), text(a[2]), text(a[3])); }},
    {"available", 1, [](char** a) { return tsm_archive_avail_quota(text(a[0])); }},
};

}  // namespace

int main(int argc, char** argv) {
    for (const Verb& verb : kVerbs) {
        if (argc == verb.arguments + 2 && std::strcmp(argv[1], verb.name) == 0) {
            std::printf("%d\n", verb.call(argv + 2));
            return 0;
        }
    }
    std::fprintf(stderr, "quota_driver: unknown call\n");
    return 64;
}
