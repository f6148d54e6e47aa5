/* Tells the quota daemon of a delivery. Nobody may be listening: the size files stay right. */
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <tessaly/mailstore.h>

int main(void) {
    const char* folder = "/var/spool/home/site.test/ann~site.test/mail/Inbox";
    if (tsl_update_mail_folder_size(folder, 1204) < 0) {
        printf("not told: %s\n", strerror(errno));
    }
    return 0;
}
