/* held_lock - loaded before everything else into Python, says which calls the mail libraries and
 * their Python module make of the system while their thread holds the interpreter's lock: writes a
 * line "held CALL" into the file that the environment variable HELD_LOCK_LOG names, and at the end
 * "seen COUNT", the number of all calls. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static unsigned long seen;
static __thread int inside;

static void say(const char* what, const char* name, unsigned long count) {
    const char* path = getenv("HELD_LOCK_LOG");
    FILE* log = path != NULL ? fopen(path, "a") : NULL;
    if (log == NULL) return;
    if (name != NULL)
        fprintf(log, "%s %s\n", what, name);
    else
        fprintf(log, "%s %lu\n", what, count);
    fclose(log);
}

static int is_a_mail_library(const void* code) {
    Dl_info info;
    return dladdr(code, &info) != 0 && (strstr(info.dli_fname, "/libtsmail.so") != NULL ||
                                        strstr(info.dli_fname, "/libtssupport.so") != NULL ||
                                        strstr(info.dli_fname, "/tsmail/_core") != NULL);
}

__attribute__((used)) static void look(const char* name, const void* caller) {
    int (*held)(void);
    *(void**)&held = dlsym(RTLD_DEFAULT, "PyGILState_Check");
    if (inside || held == NULL || !is_a_mail_library(caller)) return;
    inside = 1;
    __atomic_fetch_add(&seen, 1, __ATOMIC_RELAXED);
    if (held()) say("held", name, 0);
    inside = 0;
}

__attribute__((destructor)) static void count(void) { say("seen", NULL, seen); }

/* Hands the call on with the arguments that it came with, whatever they are. A name in _2 is what
 * the compiler makes of a call whose arguments it wants checked. */
#define WATCHED(name)                                                       \
    void* watched_##name(void) __asm__(#name);                              \
    void* watched_##name(void) {                                            \
        void* const arguments = __builtin_apply_args();                     \
        void (*real)(void);                                                 \
        *(void**)&real = dlsym(RTLD_NEXT, #name);                           \
        look(#name, __builtin_return_address(0));                           \
        __builtin_return(__builtin_apply((void (*)())real, arguments, 64)); \
    }

WATCHED(__openat64_2)
WATCHED(access)
WATCHED(chdir)
WATCHED(faccessat)
WATCHED(fchdir)
WATCHED(flock)
WATCHED(fstat64)
WATCHED(fstatat64)
WATCHED(ftruncate64)
WATCHED(getdents64)
WATCHED(linkat)
WATCHED(mkdir)
WATCHED(mkdirat)
WATCHED(open64)
WATCHED(openat64)
WATCHED(pclose)
WATCHED(popen)
WATCHED(pread64)
WATCHED(pwrite64)
WATCHED(read)
WATCHED(rename)
WATCHED(renameat)
WATCHED(renameat2)
WATCHED(sendto)
WATCHED(stat64)
WATCHED(statfs64)
WATCHED(unlink)
WATCHED(unlinkat)
WATCHED(write)
