/* file_note - files one short note as a message of a mailbox, as a small delivery agent would: it
 * writes the message in tmp, flushes it to the disk, links it into new under a name that did not
 * exist, and counts it.
 *
 *   file_note ann+work@site.test "Do not forget the milk"
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <tessaly/mailstore.h>

enum { PATH_ROOM = 4096, NAME_ROOM = 256, MESSAGE_ROOM = 8192 };

/* Joins a directory and up to two names; 0, or -1 if it does not fit. */
static int join(char* dst, const char* dir, const char* sub, const char* name) {
    const int n = snprintf(dst, PATH_ROOM, "%s/%s%s%s", dir, sub, *name ? "/" : "", name);
    return n < 0 || n >= PATH_ROOM ? -1 : 0;
}

static int write_synced(const char* path, const char* text, size_t size) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL, 0600);
    if (fd < 0) return -1;
    if (write(fd, text, size) != (ssize_t)size || fsync(fd) != 0) {
        close(fd);
        unlink(path);
        return -1;
    }
    return close(fd);
}

/* Writes the message and makes it appear in new; its path is left in `path`. */
static int file_message(const char* folder, const char* text, size_t size, char* path) {
    char temporary[PATH_ROOM], name[NAME_ROOM], queue_id[32];
    tsl_gen_queue_id(NULL, queue_id, sizeof queue_id);
    do {
        tsl_gen_mail_unique_name(size, queue_id, name, sizeof name);
        if (join(temporary, folder, "tmp", name) != 0 || join(path, folder, "new", name) != 0) {
            return -1;
        }
        if (write_synced(temporary, text, size) != 0) continue;
        if (link(temporary, path) == 0) errno = 0;
        unlink(temporary);
    } while (errno == EEXIST);
    return errno == 0 ? 0 : -1;
}

int main(int argc, char** argv) {
    char mail[PATH_ROOM], folder[PATH_ROOM], message[PATH_ROOM], record[PATH_ROOM];
    char text[MESSAGE_ROOM];
    int size;
    if (argc != 3) {
        fprintf(stderr, "usage: file_note ADDRESS TEXT\n");
        return 64;
    }
    size = snprintf(text, sizeof text, "Subject: note\n\n%s\n", argv[2]);
    if (size < 0 || size >= (int)sizeof text) return 65;

    mailuser_filename(MUF_MAILPATH, mail, sizeof mail, argv[1]);
    mailuser_filename(MUF_MAILDROP, folder, sizeof folder, argv[1]);
    if (create_mail_dir(argv[1], 1) != 0 || tsl_mkdir_maildir(folder) != 0) {
        perror(folder);
        return 73;
    }
    errno = 0;
    if (file_message(folder, text, (size_t)size, message) != 0) {
        perror(folder);
        return 75;
    }
    if (join(record, folder, ".ts_folder_size", "") == 0)
        tsl_append_mail_folder_size(record, size, 1);
    if (join(record, mail, ".maildirsize", "") == 0) tsl_append_maildirsize(record, size, 1);
    puts(message);
    return 0;
}
