/* Says whether an account's archive quota may be raised to 40 GiB. */
#include <stdio.h>
#include <tessaly/mailstore.h>

int main(void) {
    /* Its own quota is left out, because it is the one that changes. */
    const int left = tsm_archive_avail_quota("archive-2026");
    printf("%d GiB left: %s\n", left, left >= 40 ? "yes" : "no");
    return 0;
}
