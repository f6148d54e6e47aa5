// userpref_driver - makes one call of a preference function, for tests that watch or disturb the
// process. Prints the result and, after reading, the record.
#include <tessaly/userpref.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

int read_and_show(const char* user) {
    user_pref p;
    get_default_user_pref(&p);
    const int answer = read_user_pref(&p, user);
    std::printf("%d %d %s\n", answer, p.theme, p.lang);
    return 0;
}

int store_theme(const char* user, const char* theme) {
    user_pref p;
    get_default_user_pref(&p);
    p.theme = std::atoi(theme);
    std::printf("%d\n", store_user_pref(user, &p));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "read") == 0) return read_and_show(argv[2]);
    if (argc == 4 && std::strcmp(argv[1], "store") == 0) return store_theme(argv[2], argv[3]);
    if (argc == 3 && std::strcmp(argv[1], "timezone") == 0) {
        return std::printf("%d\n", get_user_pref_lite_timezone(argv[2])) < 0;
    }
    std::fprintf(stderr, "usage: userpref_driver read|timezone USER | store USER THEME\n");
    return 64;
}
