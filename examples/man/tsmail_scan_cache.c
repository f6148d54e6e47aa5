/* Keeps the result of a scan, and the date of a scan for unread messages. */
#include <stdio.h>
#include <tessaly/mailstore.h>
#include <time.h>

int main(void) {
    const char* folder = "/tmp";
    const time_t now = time(NULL);
    char cache[4096];
    long mtime = 0, date = 0;
    unsigned long size = 0;

    if (tsl_get_maildir_cache_file(folder, cache, sizeof cache) < 0) return 1;
    if (tsl_write_maildir_cache_file(cache, (long)now, 52724) != 1) return 74;
    if (tsl_read_maildir_cache_file(cache, &mtime, &size) != 1) return 74;
    printf("%s: %lu bytes at %ld\n", cache, size, mtime);

    tsl_set_mail_unread_scandate(folder, (int)now);
    if (tsl_get_mail_unread_scandate(folder, &date) != 0) return 74;
    return date == (long)now ? 0 : 1;
}
