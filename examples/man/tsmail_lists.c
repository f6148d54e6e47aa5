/* Keeps Ann's list of safe senders, and asks it. */
#include <stdio.h>
#include <tessaly/maillist.h>
#include <tessaly/mailstore.h>

#define USER "ann@site.test"
#define LIST "whitelist"

static int print_list(void) {
    mail_list_names names;
    uint32_t i;
    if (mail_list_get_names(USER, LIST, &names, 1, MAIL_LIST_USER) != 0) return -1;
    for (i = 0; i < names.count; ++i) puts(names.names[i]);
    mail_list_free_names(&names);
    return 0;
}

static int count_lines(void) {
    char path[4096];
    FILE* file;
    int lines;
    if (mail_list_get_path(USER, LIST, path, sizeof path, MAIL_LIST_USER) != 0) return -1;
    mail_list_get_file_name(USER, LIST, path, sizeof path, MAIL_LIST_USER); /* the same */
    if ((file = fopen(path, "r")) == NULL) return -1;
    lines = maillist_count(file);
    fclose(file);
    return lines;
}

int main(void) {
    char changed[] = "*@garden.example";
    if (create_pref_dir(USER, 1) != 0) return 73;
    if (mail_list_add_to(USER, LIST, "bert@example.org", MAIL_LIST_USER) != 0 ||
        mail_list_add_to(USER, LIST, "*@gardn.example", MAIL_LIST_USER) != 0) {
        return 74;
    }
    if (mail_list_modify_from(USER, LIST, changed, 2, MAIL_LIST_USER) != 0) return 74;
    printf("%d lines, system's lists changed: %d\n", count_lines(), is_mail_list_changed(NULL));
    if (!mail_list_find(USER, LIST, "BERT@example.org", MAIL_LIST_USER)) return 1;
    if (!mail_list_match(USER, LIST, "news@garden.example", MAIL_LIST_USER)) return 1;
    if (mail_list_delete_from(USER, LIST, "bert@example.org", MAIL_LIST_USER) != 0) return 74;

    /* A numbered list closes its gaps. */
    mail_list_add_to(USER, "filters", "1,spam", MAIL_LIST_USER);
    mail_list_add_to(USER, "filters", "2,news", MAIL_LIST_USER);
    if (mail_list_delete_through_id(USER, "filters", 1, MAIL_LIST_USER) != 0) return 74;
    if (!mail_list_find(USER, "filters", "1,news", MAIL_LIST_USER)) return 1;
    return print_list() == 0 ? 0 : 74;
}
