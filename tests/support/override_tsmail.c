/* A program that defines every name that libtsmail imports, and calls functions that need them: the
 * library calls the program's. Prints the names that were not called. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <tessaly/maillist.h>
#include <tessaly/mailstore.h>
#include <tessaly/support.h>
#include <tessaly/userpref.h>

enum { OPEN, CLOSE, CREATE, MOVE, CLEAN, TRIM, ZONE, POSTMASTER, QUERY, HEAD, NEXT, IMPORTED };
static const char* const names[IMPORTED] = {
    "open_and_lock_file",   "close_and_unlock_file", "create_path",
    "tsm_movefile",         "tsm_clean_dir",         "trim_right",
    "cfg_get_TZ",           "cfg_get_postmaster",    "nCfg_query",
    "kqf_query_table_head", "kqf_query_get_next"};
static int calls[IMPORTED];

#define FLAG_OFFSET 280944
#define FLAG 4711
static char block[FLAG_OFFSET + 4];
void* nCfg_debug_zone = block;

FILE* open_and_lock_file(const char* path, const char* mode) {
    ++calls[OPEN];
    return fopen(path, mode);
}
int close_and_unlock_file(FILE* stream) {
    ++calls[CLOSE];
    return fclose(stream);
}
int create_path(const char* path, mode_t mode) {
    ++calls[CREATE];
    return mkdir(path, mode);
}
int tsm_movefile(const char* from, const char* to) {
    ++calls[MOVE];
    return rename(from, to);
}
int tsm_clean_dir(const char* path, int flags) {
    ++calls[CLEAN];
    return path == NULL || flags != 0;
}
char* trim_right(char* text) {
    ++calls[TRIM];
    return text;
}
const int* cfg_get_TZ(void) {
    static const int zone = FLAG;
    ++calls[ZONE];
    return &zone;
}
const char* cfg_get_postmaster(void) {
    ++calls[POSTMASTER];
    return "somebody";
}
void* nCfg_query(int table) {
    ++calls[QUERY];
    return table == 670 ? block : NULL;
}
void* kqf_query_table_head(void* handle) {
    ++calls[HEAD];
    return handle; /* a row of zeros */
}
void* kqf_query_get_next(void* handle) {
    ++calls[NEXT];
    return handle == block ? NULL : handle;
}

static void make_directories(void) {
    static const char* const path[] = {"/var/spool/home", "/var/spool/home/d",
                                       "/var/spool/home/d/a~d", "/var/spool/home/d/a~d/pref",
                                       "/var/spool/home/d/a~d/mail"};
    size_t i;
    for (i = 0; i < sizeof path / sizeof *path; ++i) mkdir(path[i], 0777);
}

/* A line for the first text preference. */
static void parse_a_text(user_pref* pref) {
    char line[256];
    const pref_property* property = pref_properties;
    while (property->name != NULL && property->type != PREF_TYPE_STRING) ++property;
    snprintf(line, sizeof line, "%s=text\n", property->name);
    parse_pref_line(pref, line);
}

int main(void) {
    static user_pref pref;
    const int flag = FLAG;
    int failed = 0;
    int i;

    memcpy(block + FLAG_OFFSET, &flag, sizeof flag);
    make_directories();
    tsl_set_mail_unread_scandate("/tmp", 1);
    create_mail_dir("other@d", 1);
    mail_list_add_to("a@d", "whitelist", "x@y", 0);
    mail_list_delete_from("a@d", "whitelist", "x@y", 0);
    tsl_delete_user_file(MUF_MAILPATH, "a@d");
    parse_a_text(&pref);
    get_default_user_pref_with_tz(&pref);
    tsl_send_quota_msg(NULL, NULL, NULL, NULL);
    tsm_archive_avail_quota(NULL);

    for (i = 0; i < IMPORTED; ++i) {
        if (calls[i] > 0) continue;
        printf("%s was not called\n", names[i]);
        failed = 1;
    }
    if (pref.timezone != FLAG) failed = 2;
    if (is_mail_list_changed(NULL) != FLAG) failed = 3;
    return failed;
}
