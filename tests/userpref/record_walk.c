/* record_walk - a C program that walks over the preferences by the tables alone. It shows that the
 * header serves C99 and that the tables describe the record. Exits with 0, or with the line of the
 * first check that failed. */
#include <string.h>
#include <tessaly/userpref.h>

#define CHECK(condition)                   \
    do {                                   \
        if (!(condition)) return __LINE__; \
    } while (0)

static pref_text_to_field reader(const pref_property* row) {
    return (pref_text_to_field)(void (*)(void))pref_data_convertor[2 * row->type];
}

static pref_field_to_text writer(const pref_property* row) {
    return (pref_field_to_text)(void (*)(void))pref_data_convertor[2 * row->type + 1];
}

/* Copies a record field by field through its lines; the number of fields, or -1. */
static int copy(user_pref* to, const user_pref* from) {
    int count = 0;
    const pref_property* row;
    for (row = pref_properties; row->name != NULL; ++row, ++count) {
        char line[1500];
        const char* field = (const char*)from + row->offset;
        if (writer(row)(line, sizeof line, row->name, field) != 0) return -1;
        if (reader(row)((char*)to + row->offset, row->size, strchr(line, '=') + 1) != 0) return -1;
    }
    return count;
}

static int check_walk(void) {
    struct user_pref from;
    struct user_pref to;
    CHECK(get_default_user_pref(&from) == &from);
    memset(&to, 0, sizeof to);
    CHECK(copy(&to, &from) == 35);
    CHECK(memcmp(&to, &from, sizeof to) == 0);
    return 0;
}

static int check_file(void) {
    user_pref p;
    char line[] = "web_idle_timeout=70000\n";
    get_default_user_pref(&p);
    CHECK(parse_pref_line(&p, line) == 0);
    CHECK(p.web_idle_timeout == 4464);
    CHECK(store_user_pref("ann@site.test", &p) == 0);
    CHECK(read_user_pref_all("ann@site.test", &p) == 0);
    CHECK(p.web_idle_timeout == 4464);
    CHECK(get_user_pref_lite_timezone("bob@site.test") == 12);
    return 0;
}

int main(void) {
    const int failed = check_walk();
    return failed != 0 ? failed : check_file();
}
