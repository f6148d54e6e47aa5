/* The functions of a support library: locked files, paths, moves, configuration. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <tessaly/support.h>

/* An appliance's own library may lack these. */
#pragma weak cfg_get_file
#pragma weak cfg_check
#pragma weak cfg_get_postmaster
#pragma weak cfg_get_mail_user

static void print_problem(int line, int column, const char* message, void* file) {
    printf("%s:%d:%d: %s\n", (const char*)file, line, column, message);
}

static void print_accounts(void) {
    const char* row = kqf_query_table_head(nCfg_query(670));
    for (; row != NULL; row = kqf_query_get_next(nCfg_query(670))) {
        uint16_t quota;
        memcpy(&quota, row + 640, sizeof quota);
        printf("%s: %u GiB\n", row + 4, (unsigned)quota);
    }
}

int main(void) {
    char text[] = "locked  \n";
    FILE* stream;
    if (create_path("/tmp/a/b", 0700) != 0) return 73;
    if ((stream = open_and_lock_file("/tmp/a/b/old", "w")) == NULL) return 73;
    fputs(trim_right(text), stream);
    if (close_and_unlock_file(stream) != 0) return 74;
    if (tsm_movefile("/tmp/a/b/old", "/tmp/a/b/new") != 0) return 74;
    if (tsm_clean_dir("/tmp/a", 0) != 0) return 74;

    printf("zone %d, shared block %s\n", *cfg_get_TZ(), nCfg_debug_zone ? "there" : "missing");
    if (cfg_get_postmaster) puts(cfg_get_postmaster());
    if (cfg_get_mail_user && cfg_get_mail_user()) puts(cfg_get_mail_user());
    if (cfg_get_file && cfg_check) cfg_check(NULL, print_problem, (void*)cfg_get_file());
    print_accounts();
    return 0;
}
