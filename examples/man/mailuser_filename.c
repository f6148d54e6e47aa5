/* Prints where Ann's preferences lie. */
#include <stdio.h>
#include <tessaly/mailstore.h>

int main(void) {
    char path[4096];
    mailuser_filename(MUF_PREF_FILE, path, sizeof path, "ann+work@site.test");
    puts(path);
    return path[0] == '\0';
}
