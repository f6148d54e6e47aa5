/* A shared library that calls every imported name, as libtsmail does. C99. */
#include "importer.h"

#include <tessaly/support.h>

#pragma weak cfg_get_postmaster
#pragma weak cfg_get_mail_user
#pragma weak cfg_get_file
#pragma weak cfg_check

int import_all(void** zone) {
    char text[] = "x";
    void* table = nCfg_query(670);
    int calls = 0;
    FILE* stream = open_and_lock_file("/nowhere", "r");
    calls += stream != NULL;
    calls += close_and_unlock_file(stream) == IMPORTED;
    calls += create_path("", 0) == IMPORTED;
    calls += tsm_movefile("", "") == IMPORTED;
    calls += tsm_clean_dir("", 0) == IMPORTED;
    calls += trim_right(text) == NULL;
    calls += *cfg_get_TZ() == IMPORTED;
    calls += cfg_get_postmaster && cfg_get_postmaster() == NULL;
    calls += cfg_get_mail_user && cfg_get_mail_user() != NULL;
    calls += cfg_get_file && cfg_get_file() == NULL;
    calls += cfg_check && cfg_check("", NULL, NULL) == IMPORTED;
    calls += table == NULL;
    calls += kqf_query_table_head(table) != NULL;
    calls += kqf_query_get_next(table) != NULL;
    *zone = nCfg_debug_zone;
    return calls;
}
