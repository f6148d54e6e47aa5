/* The header as a C program sees it: every name, called through its documented type. */
#include <tessaly/maillist.h>

#include <string.h>

int list_face_from_c(void) {
    enum mail_list_scope scope = MAIL_LIST_SYSTEM;
    struct mail_list_names names = {0, NULL};
    mail_list_names* const same = &names;
    char path[64], entry[] = "c@site.test\n";
    FILE* file;

    mail_list_get_file_name(NULL, "c", path, (int)sizeof path, scope);
    if (strcmp(path, "/var/spool/etc/mail/c") != 0) return 1;
    if (mail_list_get_path(NULL, "c", path, (int)sizeof path, scope) != 0) return 2;
    if (mail_list_add_to(NULL, "c", "b@site.test", scope) != 0) return 3;
    if (mail_list_modify_from(NULL, "c", entry, 1, scope) != 0) return 4;
    if (mail_list_find(NULL, "c", "C@SITE.TEST", scope) != 1) return 5;
    if (mail_list_match(NULL, "c", "c@site.test", scope) != 1) return 6;
    if (mail_list_get_names(NULL, "c", same, 1, scope) != 0 || names.count != 1) return 7;
    if (strcmp(names.names[0], entry) != 0) return 8;
    mail_list_free_names(same);
    file = fopen(path, "r");
    if (file == NULL || maillist_count(file) != 1) return 9;
    fclose(file);
    if (mail_list_delete_through_id(NULL, "c", 7, scope) != 0) return 10;
    if (mail_list_delete_from(NULL, "c", entry, scope) != 0) return 11;
    return is_mail_list_changed("ann@site.test");
}
