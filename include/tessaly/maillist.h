/* tessaly/maillist.h - address lists: safe senders, blocked senders and the like, one entry a line.
 *
 * Compiles as C99 and as C++11.
 *
 * Which list
 *   Every function takes the list's name (any text makes a list: "whitelist", "blacklist", ...) and
 *   as its last argument a scope, which says in what directory D the list lies. T is the user's
 *   tilde name (see <tessaly/MailUserId.h>), F the file's name:
 *     MAIL_LIST_USER    D = the user's preference directory     F = T.NAME
 *     MAIL_LIST_HOME    D = /var/spool/home/<user as given>     F = T.NAME
 *     MAIL_LIST_SYSTEM  D = /var/spool/etc/mail, user ignored   F = NAME
 *   Any other scope is MAIL_LIST_USER. The list is D/F; its lock file D/.F.lock is made by every
 *   operation and stays; its temporary file D/.F.tmp exists for the moment of a rewrite. Neither
 *   the user nor the name is checked: a '/' or ".." in them leads elsewhere. Directories are not
 *   created.
 *
 * What a line is
 *   Lines end with "\n" or "\r\n"; the last one may lack its end. At most 255 characters are read
 *   at a time: of a longer line (its end counted), each 255 characters are a line of their own. A
 *   NUL ends the text of its line. Texts are compared with the letter case of the process's locale
 *   ignored, as strcasecmp does. There is no header, no comment and no escaping.
 *
 * Conventions
 *   Results    0 success or "no", 1 "yes", -1 failure, -2 as stated. After a -1 that is due to a
 *              system call errno is that call's; a NULL leaves it alone.
 *   Errors     nothing is printed, logged or thrown; a lack of memory is a failure.
 *   NULL       for a user (which MAIL_LIST_SYSTEM does not need), a list or a text is a failure
 *              without any effect: -1, or 0 where a function has no -1.
 *   Locks      every operation, reading ones too, asks for an exclusive flock on the lock file, but
 *              neither waits for it nor tells that another process has it. So writers can overlap:
 *              of two that rewrite a list at the same time the later one wins, and what was added
 *              meanwhile may be lost. The list is a whole one at any moment; entries of processes
 *              that only add are neither lost nor mixed. The lock ends when the function returns.
 *   Crash      a rewrite that ends half way (killed, disk full) leaves the old list as it was. What
 *              may stay is a temporary file, which the next rewrite replaces; the lock file always
 *              stays. Nothing is flushed to the disk beyond what the system does by itself.
 *   Threads    every function may be called from several threads at once, with 128 KiB of stack;
 *              for the lock two threads are like two processes. Nothing is kept between calls.
 *   fork       descriptors are close-on-exec and closed when a call returns. A child that is forked
 *              by another thread meanwhile keeps the lock until it executes or ends.
 */
#ifndef TESSALY_MAILLIST_H
#define TESSALY_MAILLIST_H

#include <stdint.h>
#include <stdio.h>

#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

/* Where a list lies. The numbers are interface. */
enum mail_list_scope {
    MAIL_LIST_USER = 0,  /* a user's own list, in the preference directory */
    MAIL_LIST_HOME = 1,  /* a list in a directory below /var/spool/home */
    MAIL_LIST_SYSTEM = 2 /* a list of the whole system */
};

/* The entries of a list: filled by mail_list_get_names, released by mail_list_free_names. */
typedef struct mail_list_names {
    uint32_t count; /* how many */
    char** names;   /* the texts, from malloc like the array itself; NULL if there is none */
} mail_list_names;

/* ---- Where a list lies ---------------------------------------------------------------------- */

/* Writes the path of the list file into buf, cut at len - 1 characters; the rest of the buffer is
 * filled with NUL. A NULL user or list and a lack of memory give the empty text. A NULL buf or a
 * len below 1 is not written to. Touches no file. */
void mail_list_get_file_name(const char* user, const char* list, char* buf, int len,
                             unsigned scope);

/* The same. Returns 0 (also for a path that was cut, and for a len below 1), or -1 when buf is NULL
 * or there is no path to write (NULL user or list, lack of memory). */
int mail_list_get_path(const char* user, const char* list, char* buf, int len, unsigned scope);

/* ---- Entries -------------------------------------------------------------------------------- */

/* Adds an entry at the end, unless a line equals it. The list is created if missing (mode 0666 less
 * the umask), its directory must exist. The entry is written as it stands with "\n" behind it, in
 * one piece, and is not checked: one of more than 254 characters or with a line end in it makes
 * several lines. A last line without its end is not repaired, the entry joins it.
 *
 * Returns 0 when added or already present, and also when the writing itself failed; -2 when the
 * list has 2,048 lines or more (nothing is added, present or not); -1 when the lock file or the
 * list could not be opened or the list could not be read to its end. */
int mail_list_add_to(const char* user, const char* list, const char* entry, unsigned scope);

/* Whether a line equals the entry: 1 or 0. 0 also if the list is missing, if it cannot be read, or
 * if its lock file cannot be opened. */
int mail_list_find(const char* user, const char* list, const char* entry, unsigned scope);

/* Whether a line, taken as a shell pattern ("*@site.test"; see fnmatch), matches the address,
 * letter case ignored: 1 or 0. An empty line matches the empty address only. 0 also if the list is
 * missing, if it cannot be read, or if its lock file cannot be opened. */
int mail_list_match(const char* user, const char* list, const char* address, unsigned scope);

/* Lists the non-empty lines: in file order, or, with sorted non-zero, ordered as strcasecmp does.
 * Lines that differ in letter case only keep an order that depends on the file: a line that came
 * when nothing behind it in the order had been read yet stands behind its equals that came before
 * it; any other stands in front of all its equals that came before it.
 *
 * Returns 0, or -1 when the lock file or the list could not be opened, the list could not be read
 * to its end, or the memory did not suffice for sorting; then out holds 0 and NULL. A line for
 * which memory is lacking is left out. What out held before is overwritten, not released. */
int mail_list_get_names(const char* user, const char* list, mail_list_names* out, int sorted,
                        unsigned scope);

/* Releases the texts and the array and sets out to 0 and NULL; fine to call again on the result.
 * Must not be given NULL. */
void mail_list_free_names(mail_list_names* out);

/* ---- Rewriting ------------------------------------------------------------------------------- */

/* The three below write the list anew and put it in the old one's place in one step: a new file of
 * mode 0666 less the umask, every line written back with a single "\n" (so a line end "\r\n" and
 * what stood behind a NUL go, and an overlong line becomes several). They return 0 when the new
 * list was written, also if nothing in it changed, and -1, the list as it was, when the lock file,
 * the list or the temporary file could not be opened, the list not be read to its end, or the new
 * one not be written whole. The last step is a call of tsm_movefile, whose failure is not reported.
 */

/* Replaces line line_no, counted from 1, by the entry. A line_no that the list does not have
 * changes no line. Line ends at the end of the entry are removed in the caller's text, whatever the
 * result. */
int mail_list_modify_from(const char* user, const char* list, char* entry, unsigned line_no,
                          unsigned scope);

/* Leaves out every line that equals the entry. */
int mail_list_delete_from(const char* user, const char* list, const char* entry, unsigned scope);

/* Deletes an entry of a numbered list, whose lines have the form "NUMBER,REST", and closes the gap.
 * The number is read by strtol from the first comma-separated field (commas at the beginning
 * skipped; 0 without digits; saturated at the limits of long). A line whose number is id goes; a
 * greater number is lowered by one, followed by the line from its first comma on; a smaller one
 * stays. A line without any such field (empty or only commas) goes. In a line without a comma,
 * which such a list should not have, what stands behind the number is kept. */
int mail_list_delete_through_id(const char* user, const char* list, int id, unsigned scope);

/* ---- Tests ---------------------------------------------------------------------------------- */

/* Rewinds the stream and returns how many lines can be read from it; it is left at the end of the
 * file or where reading failed. NULL gives -1. */
int maillist_count(FILE* stream);

/* Whether the system's lists have changed: the flag in the shared configuration block that
 * nCfg_debug_zone of the support library points at, as it stands, or 0 without that block. Asked
 * with a NULL or empty user; for any other 0. Never set or reset by this library. */
int is_mail_list_changed(const char* user);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop

#endif
