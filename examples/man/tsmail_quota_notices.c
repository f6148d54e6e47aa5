/* Mails a notice from the postmaster, and prints the result. */
#include <stdio.h>
#include <sys/wait.h>
#include <tessaly/mailstore.h>

int main(void) {
    const int status = tsl_send_quota_msg(NULL, "ann@site.test", "Your mailbox is nearly full",
                                          "Please remove what you do not need.");
    if (status == -1) {
        puts("unknown");
    } else if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        puts("handed over");
    } else {
        puts("the submission program refused it, or there is none");
    }
    return 0;
}
