/* agent - the smallest delivery agent on the library: one message from standard input into a
 * mailbox's Inbox. It writes the message in tmp, flushes it to the disk, links it into new, counts
 * it, and flushes the directory. It is measured beside `tsmail deliver`, which does more. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tessaly/mailstore.h>
#include <time.h>
#include <unistd.h>

enum { PATH_ROOM = 4096, NAME_ROOM = 256 };

static int copy(int from, int to, unsigned long* size) {
    static char piece[65536];
    ssize_t n;
    while ((n = read(from, piece, sizeof piece)) > 0) {
        if (write(to, piece, (size_t)n) != n) return -1;
        *size += (unsigned long)n;
    }
    return n < 0 ? -1 : fsync(to);
}

static int appear(int folder, unsigned long* size) {
    char id[64], name[NAME_ROOM], from[NAME_ROOM + 8], to[NAME_ROOM + 8];
    int fd, fresh, failed;
    srandom((unsigned)time(NULL) ^ (unsigned)getpid());
    tsl_gen_queue_id(NULL, id, sizeof id);
    tsl_gen_mail_unique_name(0, id, name, sizeof name);
    snprintf(from, sizeof from, "tmp/%s", name);
    fd = openat(folder, from, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0 || copy(0, fd, size) != 0) return -1;
    tsl_gen_mail_unique_name(*size, id, name, sizeof name);
    snprintf(to, sizeof to, "new/%s", name);
    if (linkat(folder, from, folder, to, 0) != 0 || unlinkat(folder, from, 0) != 0) return -1;
    fresh = openat(folder, "new", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    failed = fresh < 0 || fsync(fresh) != 0;
    return failed ? -1 : 0;
}

int main(int argc, char** argv) {
    char mail[PATH_ROOM - 64], inbox[PATH_ROOM], record[PATH_ROOM + 64];
    unsigned long size = 0;
    int folder;
    if (argc != 2) return 64;
    mailuser_filename(MUF_MAILPATH, mail, sizeof mail, argv[1]);
    snprintf(inbox, sizeof inbox, "%s/Inbox", mail);
    folder = open(inbox, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0 || appear(folder, &size) != 0) return 75;
    snprintf(record, sizeof record, "%s/.ts_folder_size", inbox);
    tsl_append_mail_folder_size(record, (long long)size, 1);
    snprintf(record, sizeof record, "%s/.maildirsize", mail);
    tsl_append_maildirsize(record, (long long)size, 1);
    return 0;
}
