/* tessaly/support.h - what libtsmail imports from the appliance's support library (libtssupport)
 * and its configuration-query library (libkqfquery).
 *
 * On an appliance its own libraries serve these names; elsewhere the bundled libraries do. What is
 * said here is the contract of the bundled ones. The header compiles as C99 and as C++11.
 *
 * Conventions
 *   Paths      NUL-terminated byte strings, at most PATH_MAX - 1 (4095) bytes; a longer one fails
 *              with ENAMETOOLONG. Nothing is normalised.
 *   Results    as stated with each name; a failing call leaves errno set.
 *   NULL       a NULL path or mode fails with EINVAL; nothing is touched.
 *   Threads    every function may be called from several threads at once. Nothing here throws.
 *   fork       descriptors are close-on-exec. A flock lock belongs to the open stream: a child made
 *              by fork shares it, and the lock ends when the last copy is closed.
 */
#ifndef TESSALY_SUPPORT_H
#define TESSALY_SUPPORT_H

#include <stdio.h>
#include <sys/types.h>

#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

/* Opens a file and takes a whole-file lock (flock) on it.
 *
 * mode "r": for reading, the file must exist, shared lock. "w": for writing, created if missing,
 * exclusive lock; the file is emptied only once the lock is held, so that a reader under its lock
 * never sees it emptied beneath it. "a+": for reading anywhere and appending, created if missing,
 * exclusive lock; the first read starts at the beginning. A file is created with mode 0666 less
 * the umask. Any other mode fails with EINVAL.
 *
 * Waits for the lock without a limit, whatever signals come. Fails with EISDIR or EINVAL for what
 * is not a regular file, without waiting, and in a writing mode with EACCES for a symbolic link
 * that neither root nor the effective user owns. Returns a stream for close_and_unlock_file or
 * fclose, or NULL with errno of the failed open, flock or truncation; a file that the call created
 * stays. */
FILE* open_and_lock_file(const char* path, const char* mode);

/* Flushes and closes a stream of open_and_lock_file; the lock is released by the close, after the
 * last byte has left the buffer. Returns 0, or EOF with errno when the flush or the close failed
 * (the stream is closed and the lock released all the same). NULL gives EOF, EINVAL. */
int close_and_unlock_file(FILE* stream);

/* Creates a directory and its missing parents, all with the given mode less the umask. Existing
 * directories (links to directories too) are left as they are. Processes that create the same path
 * at the same time all succeed. Returns 0, or -1 with errno; parents made before the failure stay.
 * A component that exists and is not a directory gives ENOTDIR. An empty path gives ENOENT. */
int create_path(const char* path, mode_t mode);

/* Moves a file over another. On one file system it is a single step: a process that opens `to` sees
 * either the old file or the whole new one. Across file systems the bytes are copied to a temporary
 * file beside `to` (.tsm_movefile.XXXXXX), flushed to the disk with the times, mode and, where
 * permitted, owner of `from`, renamed over `to`, and `from` is removed last; only regular files go
 * that way, others fail with EXDEV. Symbolic links as last components are moved and replaced, not
 * followed. Returns 0, or -1 with errno; after a failure `to` is untouched and `from` still there,
 * unless one of the steps after the renaming of a copy failed: then both hold the bytes. */
int tsm_movefile(const char* from, const char* to);

/* Empties a directory: every entry below it goes, at any depth, the directory itself stays. A
 * symbolic link below `path` is removed, never followed, also when it takes a directory's place
 * while the call runs; `path` may be one that root or the effective user made. flags: callers pass
 * 0. Returns 0, or -1 with errno of the first entry that could not be removed (the others are
 * removed all the same). */
int tsm_clean_dir(const char* path, int flags);

/* Removes white space (isspace in the C locale: blank, \t, \n, \v, \f, \r) from the end of a text,
 * in place, and returns it. NULL gives NULL. */
char* trim_right(char* text);

/* Configuration comes from one TOML file:
 *
 *     timezone = 12                       # 32-bit integer; 0 without an entry
 *     postmaster = "postmaster@site.test" # no line break or control character
 *     [[archive_account]]                 # any number of them
 *     name = "archive1"                   # 1 to 635 bytes, no NUL
 *     quota_gib = 40                      # 0 to 65535
 *
 * A changed file is seen by the next call, without a restart. Without a file the defaults hold; a
 * file with an error anywhere in it (syntax, type, range, a missing name or quota_gib, more than
 * 1 MiB) and one that cannot be read count as none. Unknown keys are ignored. Whoever replaces the
 * file under a running system renames a complete new one over it. What the calls hand out belongs
 * to the calling thread. */

/* The path of the configuration file: the environment variable TSMAIL_CONFIG if set and not empty,
 * which set-user-id and set-group-id programs ignore, else "/etc/tessaly/tsmail.toml". Valid until
 * the environment changes. A support library may lack this function; callers ask for it as a weak
 * symbol. */
const char* cfg_get_file(void);

/* Checks a configuration file (NULL: the one of cfg_get_file) and calls report for each problem, by
 * place: line and column count from 1, columns in characters; message is one line, valid during the
 * call. A message that begins with "warning: " (an unknown key) does not keep the file from being
 * used. After a syntax error nothing else is looked at. report may be NULL, must not throw, and
 * gets arg. Returns the number of problems that are not warnings, so 0 for a good file; -1 with
 * errno if the file cannot be read (ENOENT: there is none). A support library may lack this
 * function; callers ask for it as a weak symbol. */
int cfg_check(const char* path,
              void (*report)(int line, int column, const char* message, void* arg), void* arg);

/* Returns the configured time zone of the system: a number whose meaning belongs to the programs
 * that use it. Never NULL. The integer stays valid for the thread's life and is overwritten by its
 * next call. */
const int* cfg_get_TZ(void);

/* Returns the local postmaster address, never NULL or empty. Unless one is configured, it is
 * "postmaster@" and the domain of this host: the host name without its first label, or the whole
 * host name if it has one label. Without memory it is "postmaster". The text is valid until the
 * thread's next call. A support library may lack this function; callers ask for it as a weak
 * symbol. */
const char* cfg_get_postmaster(void);

/* Asks for a configuration table. Table 670 holds the archive accounts, one row each:
 *     byte 4    char[]    account name, NUL-terminated, at most 635 bytes
 *     byte 640  uint16_t  quota in gibibytes, in the machine's byte order
 * Returns the table's handle for the kqf_ calls below, or NULL for an unknown table. Each thread
 * has one handle for each table. Another call returns the same handle with its place kept, so a
 * caller may ask before each step of a walk. The caller releases nothing. */
void* nCfg_query(int table);

/* The shared configuration block, or NULL. The bundled library maps it once, when it is loaded, if
 * the POSIX shared-memory object "/tessaly-config" exists, is owned by root, can be written by
 * nobody else and is large enough for the field that libtsmail reads, a 32-bit integer at byte
 * 280,944. Read only. A program that defines the variable itself keeps what it put there. */
extern void* nCfg_debug_zone;

/* Starts a walk over a table's rows (libkqfquery). Reads the configuration again if it changed and
 * returns the first row, or NULL for an empty table or a NULL handle. Rows stay valid until the
 * next head call on this handle. */
void* kqf_query_table_head(void* handle);

/* Returns the next row of the walk, or NULL after the last one, before any head call, or for a NULL
 * handle. */
void* kqf_query_get_next(void* handle);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop

#endif
