// where_is - prints the paths of a mailbox.
//
//   where_is ann@site.test
#include <tessaly/MailUserId.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: where_is ADDRESS\n");
        return 64;
    }
    try {
        const Tessaly::TSMailUserId id(argv[1]);
        std::printf("home         %s\n", id.homepath().c_str());
        std::printf("mail         %s\n", id.mailpath().c_str());
        std::printf("preferences  %s\n", id.fname(MUF_PREF_FILE).c_str());
        std::printf("new mail     %s\n", id.maildrop("").c_str());
    } catch (const Tessaly::Exception& e) {
        std::fprintf(stderr, "where_is: %s\n", e.what());
        return 70;
    }
    return 0;
}
