/* Says what kind of folder each argument, a path below a maildir root, is. */
#include <stdio.h>
#include <tessaly/mailstore.h>

static void describe(const char* path) {
    const int number = tsl_is_system_folder(path), above = tsl_is_system_sub_folder(path);
    printf("%s:", path);
    if (number > 0) printf(" the system's folder %s", tsl_sys_folders[number - 1]);
    if (above > 0) printf(" below %s", tsl_sys_folders[above - 1]);
    if (tsl_is_reserved_folder(path)) printf(" reserved");
    if (tsl_is_mail_folder(path, NULL)) printf(" a maildir folder");
    if (tsl_is_mbox_folder(path) && tsl_is_mbox(path)) printf(" an mbox file");
    printf("\n");
}

int main(int argc, char** argv) {
    const struct tsm_sys_folder* row;
    int i;
    for (i = 1; i < argc; ++i) describe(argv[i]);
    printf("%d system folders, reserved beginnings:", tsl_sys_folders_count);
    for (row = tsm_sys_folders; row->name != NULL; ++row) printf(" %s", row->name);
    printf("\n");
    return tsl_is_maildir_folder("/var/spool"); /* it holds folders and is not one */
}
