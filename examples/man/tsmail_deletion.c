/* Removes folders and a user's files, at once and for a later sweep. */
#include <stdio.h>
#include <tessaly/mailstore.h>

int main(void) {
    const char* user = "ann@site.test";
    char free_name[4096];
    int error;
    if (create_pref_dir(user, 1) != 0) return 73;
    if (tsl_mkdir_maildir("/tmp/Work") != 0 || tsl_mkdir_maildir("/tmp/Old") != 0) return 73;

    /* The name is free at once. The sweep looks for names that begin with ".deleted.". */
    if (tsm_schedule_for_deletion("/tmp/Work", "/tmp", "ann") != 0) return 74;
    if (!tsm_is_deleted_user_path(".deleted.ann.Work.1")) return 1;
    if ((error = tsm_delete_path("/tmp/.deleted.ann.Work.1")) != 0) return error;

    /* A program that renames the folder itself asks for a free name. */
    if (tsm_get_deleted_path("/tmp/Old", free_name, sizeof free_name) != 0) return 1;
    puts(free_name);

    if (tsm_clean_maildir("/tmp/Old") != 0) return 74;  /* its messages */
    if (tsm_delete_maildir("/tmp/Old") != 0) return 74; /* the folder itself */
    return tsl_delete_user_file(MUF_WHITELIST, user);   /* 0 also if there is none */
}
