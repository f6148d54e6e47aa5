/* tessaly/maillist.h - address lists: safe senders, blocked senders and the like, one entry a line.
 *
 * The header compiles as C99 and as C++11.
 *
 * Which list
 *   Every function takes the name of a list (any text makes a list: "whitelist", "blacklist", ...)
 *   and, as its last argument, a scope. The scope says in which directory D the list lies. T is the
 *   user's tilde name (see <tessaly/MailUserId.h>), F the name of the file:
 *     MAIL_LIST_USER    D = the user's preference directory     F = T.NAME
 *     MAIL_LIST_HOME    D = /var/spool/home/<user as given>     F = T.NAME
 *     MAIL_LIST_SYSTEM  D = /var/spool/etc/mail, user ignored   F = NAME
 *   Any other scope means MAIL_LIST_USER. The list is D/F. Every operation makes its lock file
 *   D/.F.lock, which stays. Its temporary file D/.F.tmp exists for the moment of a rewrite. The
 *   user and the name are not checked: a '/' or ".." in them leads elsewhere. Directories are not
 *   made.
 *
 * What a line is
 *   Lines end with "\n" or "\r\n". The last line may lack its end. At most 255 characters are read
 *   at a time: of a longer line (its end included), every 255 characters are a line of their own. A
 *   NUL ends the text of its line. Texts are compared as strcasecmp does, without regard to the
 *   letter case of the process's locale. There is no header, no comment and no escaping.
 *
 * Conventions
 *   Results    0 means success or "no", 1 "yes", -1 failure, -2 what the function states. After a
 *              -1 that is due to a system call, errno is that of the call.
 *   Errors     Nothing is printed, logged or thrown. A lack of memory is a failure.
 *   NULL       A NULL user (unless the scope is MAIL_LIST_SYSTEM), list or text is a failure: -1,
 *              or 0 where a function has no -1. No file is touched, and errno means nothing. The
 *              caller's texts are treated as on any failure: mail_list_modify_from strips its
 *              entry, and mail_list_get_names clears its result.
 *   Locks      Every operation, a reading one too, asks for an exclusive flock on the lock file. It
 *              does not wait for the lock and does not tell that another process has it. So writers
 *              can overlap: of two that rewrite a list at the same time the later one wins, and
 *              entries that were added meanwhile may be lost. The list is whole at any moment.
 *              Entries of processes that only add are neither lost nor mixed. The lock ends when
 *              the function returns.
 *   Crash      A rewrite that ends half way (killed, disk full) leaves the old list. A temporary
 *              file may stay, which the next rewrite replaces. The lock file always stays. Nothing
 *              is flushed to the disk.
 *   Threads    Every function may be called from several threads at once, with 128 KiB of stack.
 *              For the lock, two threads are like two processes. Nothing is kept between calls.
 *   fork       Descriptors are close-on-exec and closed when a call returns. A child that another
 *              thread forks meanwhile keeps the lock until it executes a program or ends.
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

/* The entries of a list. mail_list_get_names fills it, mail_list_free_names releases it. */
typedef struct mail_list_names {
    uint32_t count; /* the number of entries */
    char** names;   /* the texts, allocated with malloc like the array; NULL if there are none */
} mail_list_names;

/* ---- Where a list lies ---------------------------------------------------------------------- */

/* Writes the path of the list file into buf. The path is cut at len - 1 characters, and the rest of
 * the buffer is filled with NUL. user and list may lie in buf. A NULL user or list and a lack of
 * memory give the empty text. A NULL buf or a len below 1 is not written to. Touches no file. */
void mail_list_get_file_name(const char* user, const char* list, char* buf, int len,
                             unsigned scope);

/* Does the same. Returns 0, also for a path that was cut and for a len below 1. Returns -1 if buf
 * is NULL or there is no path to write (NULL user or list, lack of memory). */
int mail_list_get_path(const char* user, const char* list, char* buf, int len, unsigned scope);

/* ---- Entries -------------------------------------------------------------------------------- */

/* Adds an entry at the end of the list, unless a line equals it. The list is created (mode 0666
 * less the umask) if missing; its directory must exist. The entry is written as it stands, with
 * "\n" behind it, in one write. It is not checked: an entry of more than 254 characters, or with a
 * line end in it, makes several lines. If the last line has no end, the entry joins it.
 *
 * Returns 0 if the entry was added or is present, and also if the write failed. Returns -2 if the
 * list has 2,048 lines or more; nothing is added then, whether the entry is present or not. Returns
 * -1 if the lock file or the list cannot be opened or the list cannot be read to its end. */
int mail_list_add_to(const char* user, const char* list, const char* entry, unsigned scope);

/* Returns 1 if a line equals the entry, else 0. Returns 0 also if the list is missing or cannot be
 * read, and if its lock file cannot be opened. */
int mail_list_find(const char* user, const char* list, const char* entry, unsigned scope);

/* Returns 1 if a line, taken as a shell pattern ("*@site.test"; see fnmatch), matches the address
 * without regard to letter case, else 0. An empty line matches the empty address only. Returns 0
 * also if the list is missing or cannot be read, and if its lock file cannot be opened. */
int mail_list_match(const char* user, const char* list, const char* address, unsigned scope);

/* Lists the lines that are not empty: in the order of the file, or, if sorted is not 0, in the
 * order of strcasecmp. Lines that differ only in letter case keep an order that depends on the
 * file: a line that has no greater line before it in the file comes behind its equals before it,
 * any other line comes in front of them.
 *
 * Returns 0, or -1 if the lock file or the list cannot be opened, the list cannot be read to its
 * end, or there is no memory for sorting; *out is then 0 and NULL. A line for which there is no
 * memory is left out. What *out held before is overwritten, not released. */
int mail_list_get_names(const char* user, const char* list, mail_list_names* out, int sorted,
                        unsigned scope);

/* Releases the texts and the array and sets *out to 0 and NULL. May be called again on the result.
 * out must not be NULL. */
void mail_list_free_names(mail_list_names* out);

/* ---- Rewriting ------------------------------------------------------------------------------- */

/* The three functions below write the list anew and put it in the place of the old one in one step.
 * It is a new file of mode 0666 less the umask. Every line is written back with a single "\n", so
 * that the "\r" of a line end and what stood behind a NUL are lost, and an overlong line becomes
 * several; a piece of 255 characters with its line end behind it also gains an empty line. They
 * return 0 if the new list was written, also if nothing in it changed. They return -1 and leave the
 * list as it was if the lock file, the list or the temporary file cannot be opened, the list cannot
 * be read to its end, or the new one cannot be written whole. The last step is a call of
 * tsm_movefile; its failure is not reported. */

/* Replaces line line_no, counted from 1, by the entry. If the list does not have that line, no line
 * changes. Line ends at the end of the entry are removed in the caller's text, whatever the result.
 * An entry without a line end is not written to. */
int mail_list_modify_from(const char* user, const char* list, char* entry, unsigned line_no,
                          unsigned scope);

/* Leaves out every line that equals the entry. */
int mail_list_delete_from(const char* user, const char* list, const char* entry, unsigned scope);

/* Deletes an entry of a numbered list, whose lines have the form "NUMBER,REST", and closes the gap.
 * strtol reads the number from the first field between commas (commas at the beginning are skipped;
 * a field without digits is 0; a number beyond long is its limit). A line whose number is id is
 * left out. A line with a greater number is written as the number less one and the line from its
 * first comma on. A line with a smaller number stays. A line without a field (empty, or only
 * commas) is left out. In a line without a comma, which such a list should not have, what stands
 * behind the number is kept. */
int mail_list_delete_through_id(const char* user, const char* list, int id, unsigned scope);

/* ---- Tests ---------------------------------------------------------------------------------- */

/* Rewinds the stream and returns the number of lines that can be read from it. The stream is left
 * at its end, or where reading failed. NULL gives -1. */
int maillist_count(FILE* stream);

/* Returns the flag that says whether the lists of the system have changed, for a NULL or empty
 * user; 0 for any other user. The flag stands in the shared configuration block that
 * nCfg_debug_zone of the support library points at; it is returned as it stands, or 0 without that
 * block. This library never sets or resets it. */
int is_mail_list_changed(const char* user);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop

#endif
