/* Counts a message of 1204 bytes that was put into Ann's Inbox, and prints the sums. */
#include <stdio.h>
#include <tessaly/mailstore.h>

int main(void) {
    const char* user = "ann@site.test";
    char root[4096], folder[4096], record[8192];
    unsigned long long size = 0, count = 0;

    mailuser_filename(MUF_MAILPATH, root, sizeof root, user);
    mailuser_filename(MUF_INBOX, folder, sizeof folder, user);
    if (tsl_mkdir_maildir(folder) != 0) return 73;

    snprintf(record, sizeof record, "%s/.ts_folder_size", folder);
    tsl_append_mail_folder_size(record, 1204, 1);
    if (tsl_read_mail_folder_size(record, &size, &count) != 0) return 74;
    printf("Inbox: %llu bytes in %llu messages\n", size, count);

    snprintf(record, sizeof record, "%s/.maildirsize", root);
    tsl_append_maildirsize(record, 1204, 1);
    if (tsl_get_maildirsize(NULL, root, &size, &count) != 0) return 74;
    printf("all: %llu bytes in %llu messages\n", size, count);

    /* After a recount: replaces a folder's record. */
    snprintf(record, sizeof record, "%s/.ts_folder_size", folder);
    tsl_write_mail_folder_size(record, 1204, 1);

    /* In doubt: asks for a recount, in both ways. The sums are unknown from then on. */
    tsl_reset_quota_flag_by_path(root);
    tsl_reset_quota_flag_by_user(user);
    return tsl_get_maildirsize(NULL, root, &size, &count) == -1 ? 0 : 1;
}
