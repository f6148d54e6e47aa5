/* tessaly/support.h - what libtsmail imports from the appliance's support library (libtssupport)
 * and its configuration-query library (libkqfquery).
 *
 * On an appliance its own libraries define these names; elsewhere the bundled libraries do. This
 * header describes the bundled ones. It compiles as C99 and as C++11.
 *
 * Conventions
 *   Paths      Paths are NUL-terminated byte strings of at most PATH_MAX - 1 (4095) bytes. A longer
 *              path fails with ENAMETOOLONG. Nothing is normalised.
 *   Results    Each function states its result. A call that fails sets errno.
 *   NULL       A NULL path or mode fails with EINVAL, and nothing is touched.
 *   Errors     Nothing is printed, logged or thrown.
 *   Threads    Every function may be called from several threads at once.
 *   fork       Descriptors are close-on-exec. A lock belongs to the open stream: a child made by
 *              fork shares it, and it ends when the last copy of the stream is closed.
 */
#ifndef TESSALY_SUPPORT_H
#define TESSALY_SUPPORT_H

#include <stdio.h>
#include <sys/types.h>

#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

/* Opens a file and locks the whole of it (flock).
 *
 * Mode "r" opens for reading, with a shared lock; the file must exist. Mode "w" opens for writing,
 * with an exclusive lock. It empties the file only when it has the lock, so that a reader that has
 * the lock does not lose the text. Mode "a+" opens for reading and appending, with an exclusive
 * lock; the first read starts at the beginning. "w" and "a+" create a missing file with mode 0666
 * less the umask. Any other mode fails with EINVAL.
 *
 * Waits for the lock without a limit; a signal does not end the wait. What is not a regular file
 * fails at once: a directory with EISDIR, anything else with EINVAL or ENXIO. In the modes "w" and
 * "a+", a symbolic link as last component fails with EACCES unless root or the effective user owns
 * it. A file on which another process holds a lease (fcntl F_SETLEASE) is waited for, for one
 * second, and fails with EWOULDBLOCK then.
 *
 * Returns a stream for close_and_unlock_file or fclose. Returns NULL with errno of the open, flock
 * or truncation that failed; a file that the call created stays. */
FILE* open_and_lock_file(const char* path, const char* mode);

/* Flushes and closes a stream of open_and_lock_file. The close releases the lock, after the last
 * byte has left the buffer. Returns 0, or EOF with errno if the flush or the close failed; the
 * stream is closed and the lock released even then. NULL gives EOF with EINVAL. */
int close_and_unlock_file(FILE* stream);

/* Creates a directory and its missing parents, all with the given mode less the umask. Existing
 * directories, and links to directories, stay as they are. Processes that create the same path at
 * the same time all succeed. Returns 0, or -1 with errno; parents that were made before the failure
 * stay. A component that exists and is not a directory gives ENOTDIR, an empty path ENOENT. */
int create_path(const char* path, mode_t mode);

/* Moves a file to the place of another. On one file system this is a single step: a process that
 * opens `to` finds either the old file or the whole new one.
 *
 * Across file systems the bytes are copied to a temporary file beside `to` (.tsm_movefile.XXXXXX).
 * The copy gets the times and the mode of `from` and, where that is permitted, its owner. It is
 * flushed to the disk and renamed to `to`; then `from` is removed. Only regular files are moved in
 * this way; anything else fails with EXDEV.
 *
 * A symbolic link as last component is moved or replaced, not followed. Returns 0, or -1 with
 * errno. After a failure `to` is as it was and `from` still exists, unless a step after the
 * renaming of the copy failed: both names then have the bytes. */
int tsm_movefile(const char* from, const char* to);

/* Empties a directory: removes every entry below it, at any depth. The directory itself stays. A
 * symbolic link below `path` is removed and never followed, even if it takes the place of a
 * directory while the call runs. `path` itself may be a link if root or the effective user owns it.
 * flags is not looked at; callers pass 0. Returns 0. Returns -1 with errno if the directory cannot
 * be opened, and with errno of the first entry that could not be removed; the others are removed
 * even then. */
int tsm_clean_dir(const char* path, int flags);

/* Removes white space (isspace in the C locale: blank, \t, \n, \v, \f, \r) from the end of a text,
 * in place, and returns it. NULL gives NULL. */
char* trim_right(char* text);

/* Configuration comes from one TOML file:
 *
 *     timezone = 12                       # 32-bit integer; 0 without an entry
 *     postmaster = "postmaster@site.test" # no line break or control character
 *     mail_user = "vmail"                 # no line break or control character
 *     [[archive_account]]                 # any number of them
 *     name = "archive1"                   # 1 to 635 bytes, no NUL
 *     quota_gib = 40                      # 0 to 65535
 *
 * The next call sees a changed file; no restart is needed. Without a file the defaults hold. So
 * they do if the file cannot be read, is longer than 1 MiB, or has an error anywhere in it (syntax,
 * type, range, a missing name or quota_gib). Unknown keys are ignored. To replace the file under a
 * running system, rename a complete new one to its name. What the calls return belongs to the
 * calling thread. */

/* Returns the path of the configuration file: the value of the environment variable TSMAIL_CONFIG
 * if it is set and not empty, else "/etc/tessaly/tsmail.toml". Set-user-id and set-group-id
 * programs ignore the variable. The text is valid until the environment changes. A support library
 * may lack this function; callers ask for it as a weak symbol. */
const char* cfg_get_file(void);

/* Checks a configuration file (the one of cfg_get_file for NULL) and calls report for each problem,
 * in the order of their places. line and column count from 1, columns in characters. message is one
 * line and valid during the call. A message that begins with "warning: " (an unknown key) does not
 * keep the file from being used. After a syntax error nothing else is looked at. report may be
 * NULL; it must not throw; it gets arg.
 *
 * Returns the number of problems that are not warnings, so 0 for a good file. Returns -1 with errno
 * if the file cannot be read (ENOENT if it does not exist). A support library may lack this
 * function; callers ask for it as a weak symbol. */
int cfg_check(const char* path,
              void (*report)(int line, int column, const char* message, void* arg), void* arg);

/* Returns the address of the configured time zone, never NULL. The programs that use the number
 * define its meaning. The integer stays valid for the life of the thread, and the thread's next
 * call overwrites it. */
const int* cfg_get_TZ(void);

/* Returns the local postmaster address, never NULL or empty. Unless one is configured, it is
 * "postmaster@" and the domain of this host: the host name without its first label, or the whole
 * host name if it has one label. Without memory it is "postmaster". The text is valid until the
 * thread's next call. A support library may lack this function; callers ask for it as a weak
 * symbol. */
const char* cfg_get_postmaster(void);

/* Returns the configured name of the user who gets new mailboxes where the store names no owner.
 * Returns NULL if none is configured, and for a lack of memory. The text is valid until the
 * thread's next call. A support library may lack this function; callers ask for it as a weak
 * symbol. */
const char* cfg_get_mail_user(void);

/* Returns the handle of a configuration table, for the kqf_ functions below. Returns NULL for an
 * unknown table and for a lack of memory. Each thread has one handle for each table. Another call
 * returns the same handle and leaves its place in the table as it is, so that a caller may ask
 * before each step of a walk. The caller releases nothing.
 *
 * Table 670 holds the archive accounts. Each row has
 *     byte 4    char[]    account name, NUL-terminated, at most 635 bytes
 *     byte 640  uint16_t  quota in gibibytes, in the machine's byte order */
void* nCfg_query(int table);

/* The address of the shared configuration block, or NULL. The bundled library maps the block once,
 * when it is loaded, for reading only. The block is the POSIX shared-memory object
 * "/tessaly-config". It must be owned by root, writable by root alone, and large enough for the
 * field that libtsmail reads, a 32-bit integer at byte 280,944. A program that defines the variable
 * itself keeps its own value. */
extern void* nCfg_debug_zone;

/* Starts a walk over the rows of a table (libkqfquery). Reads the configuration again if it
 * changed. Returns the first row, or NULL for an empty table or a NULL handle. Rows stay valid
 * until the thread's next call of this function for the handle. */
void* kqf_query_table_head(void* handle);

/* Returns the next row of the walk. Returns NULL after the last row, before a walk was started, and
 * for a NULL handle. */
void* kqf_query_get_next(void* handle);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop

#endif
