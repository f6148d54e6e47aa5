/* Makes a mailbox with the folder that somebody typed, and prints its folders. */
#include <stdio.h>
#include <tessaly/mailstore.h>

static int print_folder(const char* name, const struct stat* st, void* mode) {
    printf("%s (%o)\n", name, (unsigned)(st->st_mode & *(mode_t*)mode));
    return 1;
}

int main(int argc, char** argv) {
    const char* user = "ann@site.test";
    const char* typed = argc > 1 ? argv[1] : "Work";
    char root[4096], folder[8192];
    mode_t mode = 0777;
    if (tsl_is_valid_mailbox_name(typed, 1 | 2) != 0) {
        fprintf(stderr, "\"%s\" is not a name for a folder\n", typed);
        return 65;
    }
    mailuser_filename(MUF_MAILPATH, root, sizeof root, user);
    if (create_mail_dir(user, 1) != 0 || create_pref_dir(user, 1) != 0) {
        perror(root);
        return 73;
    }
    snprintf(folder, sizeof folder, "%s/%s", root, typed);
    if (tsl_mkdir_maildir(folder) != 0) {
        perror(folder);
        return 73;
    }
    /* The walk moves the working directory and moves back at its end. */
    printf("%d folders\n", tsl_visit_folders(root, 1, print_folder, &mode));
    return 0;
}
