/* A program that defines every imported name itself: a library calls these, and the support library
 * does not write into the program's variable. Exits with the number of the first check that failed.
 */
#include <dlfcn.h>
#include <tessaly/support.h>

#include "importer.h"

static int zone;
static int here;

void* nCfg_debug_zone = &zone;

FILE* open_and_lock_file(const char* path, const char* mode) {
    (void)path;
    (void)mode;
    return stdin;
}
int close_and_unlock_file(FILE* stream) { return stream == stdin ? IMPORTED : 0; }
int create_path(const char* path, mode_t mode) {
    (void)path;
    (void)mode;
    return IMPORTED;
}
int tsm_movefile(const char* from, const char* to) {
    (void)from;
    (void)to;
    return IMPORTED;
}
int tsm_clean_dir(const char* path, int flags) {
    (void)path;
    (void)flags;
    return IMPORTED;
}
char* trim_right(char* text) {
    (void)text;
    return NULL;
}
const int* cfg_get_TZ(void) {
    static const int imported = IMPORTED;
    return &imported;
}
const char* cfg_get_postmaster(void) { return NULL; }
const char* cfg_get_mail_user(void) { return "imported"; }
const char* cfg_get_file(void) { return NULL; }
int cfg_check(const char* path, void (*report)(int, int, const char*, void*), void* arg) {
    (void)path;
    (void)report;
    (void)arg;
    return IMPORTED;
}
void* nCfg_query(int table) {
    (void)table;
    return NULL;
}
void* kqf_query_table_head(void* handle) {
    (void)handle;
    return &here;
}
void* kqf_query_get_next(void* handle) {
    (void)handle;
    return &here;
}

int main(void) {
    void* seen = NULL;
    /* The support library is loaded; the program's names hide it. */
    if (dlopen("libtssupport.so.1", RTLD_NOLOAD | RTLD_LAZY) == NULL) return 1;
    if (nCfg_debug_zone != &zone) return 2;
    if (import_all(&seen) != IMPORTED_FUNCTIONS) return 3;
    if (seen != &zone) return 4;
    return 0;
}
