/* Changes one of Ann's preferences, and reads them in all ways. */
#include <stdio.h>
#include <string.h>
#include <tessaly/userpref.h>

static void print_text_preferences(const user_pref* pref) {
    const pref_property* row;
    for (row = pref_properties; row->name != NULL; ++row) {
        char line[2048];
        pref_field_to_text write;
        const pref_convertor entry = pref_data_convertor[2 * row->type + 1];
        if (row->type != PREF_TYPE_STRING) continue;
        memcpy(&write, &entry, sizeof write);
        write(line, sizeof line, row->name, (const char*)pref + row->offset);
        fputs(line, stdout);
    }
}

int main(void) {
    const char* user = "ann@site.test";
    user_pref pref, again;
    char line[] = "npage=50\n";
    FILE* other;

    get_default_user_pref_with_tz(&pref); /* what a new user has */
    if (parse_pref_line(&pref, line) != 0) return 65;
    strcpy(pref.uname, "Ann Lee");
    if (store_user_pref(user, &pref) != 0) return 74;

    if (read_user_pref_all(user, &again) != 0) return 74; /* defaults, then the file */
    printf("%s, %d messages a page, zone %d\n", again.uname, (int)again.npage,
           get_user_pref_lite_timezone(user));
    print_text_preferences(&again);

    get_default_user_pref(&again);
    if (read_user_pref(&again, user) != 0) return 74; /* the file over the present values */
    other = tmpfile();                                /* the same from any stream */
    if (other == NULL || fill_user_pref_struct(&again, other) != 0) return 74;
    return fclose(other);
}
