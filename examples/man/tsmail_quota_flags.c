/* Raises and shows a user's quota flags. */
#include <stdio.h>
#include <tessaly/mailstore.h>

int main(void) {
    const char* user = "ann@site.test";
    const char* account = "archive-2026@site.test";
    if (create_mail_dir(user, 1) != 0 || create_mail_dir(account, 1) != 0) return 73;

    tsl_set_quota_warning(user, 2);
    tsl_set_quota_exceeded(user, 1);
    printf("warning %d, exceeded %d\n", tsl_get_quota_warning(user), tsl_get_quota_exceeded(user));

    /* For an archive account only the existence of the flag counts. */
    tsl_set_arch_quota_exceeded(account);
    printf("archive exceeded %d\n", tsl_get_arch_quota_exceeded(account));
    tsl_unset_arch_quota_exceeded(account);
    return tsl_get_arch_quota_exceeded(account);
}
