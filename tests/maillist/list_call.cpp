// list_call VERB [ARGUMENT] - makes one call on the system list "test", for tests that trace the
// process. Prints the result.
#include <tessaly/maillist.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "lists.h"

namespace {

int call(const std::string& verb, const char* argument) {
    if (verb == "add") return lists::add(argument);
    if (verb == "find") return lists::find(argument);
    if (verb == "match") return lists::match(argument);
    if (verb == "names") return lists::names(true).result;
    if (verb == "modify") return lists::modify(argument, 2);
    if (verb == "drop") return lists::drop(argument);
    if (verb == "drop-id") return lists::drop_id(std::atoi(argument));
    if (verb == "changed") return is_mail_list_changed(argument);
    std::exit(64);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 64;
    std::printf("%d\n", call(argv[1], argc > 2 ? argv[2] : ""));
    return 0;
}
