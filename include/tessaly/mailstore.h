/* tessaly/mailstore.h - the mail storage functions of libtsmail.
 *
 * Compiles as C99 and as C++11.
 *
 * Conventions
 *   Texts      paths, names and addresses are NUL-terminated byte strings; nothing is normalised.
 *              Paths hold at most 4095 bytes; a longer one gets the function's failure answer.
 *   Addresses  e-mail addresses ("ann+work@site.test") of ordinary users, composed into paths as
 *              they stand; a caller that takes addresses from outside checks them first.
 *   Results    int: 0 success or "no", -1 a bad argument or a failed system call, 1 or a 1-based
 *              position "yes"; departures are stated with the function.
 *   Buffers    belong to the caller; sizes are in bytes and count the final NUL.
 *   NULL       is answered where a function says so; elsewhere it must not be passed.
 *   Errors     nothing is printed or logged. Unless stated, nothing is thrown; a lack of memory
 *              gets the function's failure answer. errno says why where a function promises it and
 *              means nothing elsewhere. A system call that a signal interrupts is made again.
 *   Threads    every function may be called from several threads at once, but for
 *              tsl_visit_folders, which moves the process's working directory.
 *   fork       nothing is kept that a child may not use; descriptors are close-on-exec, and none
 *              is left open by a call that returns.
 *   Files      are made with mode 0666, directories as stated, less the umask. Nothing is flushed
 *              to the disk: what a crash of the machine leaves is up to the file system.
 *   Locks      "locks" means open_and_lock_file of <tessaly/support.h>: a lock between processes,
 *              waited for without a limit and held until the function returns.
 */
#ifndef TESSALY_MAILSTORE_H
#define TESSALY_MAILSTORE_H

#include <stddef.h>
#include <sys/stat.h>
#include <time.h>

#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Files of a user ------------------------------------------------------------------------ */

/* File kinds. The numbers are interface; 3, 9 and 16 are not used. H is the home directory of the
 * mailbox, M its maildir root, P its preference directory, T its tilde name, D its domain (see
 * <tessaly/MailUserId.h>). Kinds with the same path are different roles. */
enum MailUserFileKind {
    MUF_WHITELIST = 0,              /* P/T.whitelist */
    MUF_BLACKLIST = 1,              /* P/T.blacklist */
    MUF_BLOCKLIST = 2,              /* P/T.blocklist */
    MUF_MAILPATH = 4,               /* M */
    MUF_PREFPATH = 5,               /* P */
    MUF_MAILDROP = 6,               /* M/<tag>, without a tag M/Inbox */
    MUF_QUOTA_WARNING_FLAG = 7,     /* H/quota_warning_flag */
    MUF_QUOTA_EXCEEDED_FLAG = 8,    /* H/quota_exceeded_flag */
    MUF_BULK = 10,                  /* M/Bulk */
    MUF_HOMEPATH = 11,              /* H */
    MUF_HOME_PARENT = 12,           /* the directory that holds H, as POSIX dirname has it */
    MUF_PRIMARY_ADDR = 13,          /* P/T.primaryaddr */
    MUF_SECONDARY_ADDR = 14,        /* P/T.secondaryaddr */
    MUF_PREF_FILE = 15,             /* P/T.pref */
    MUF_INBOX_ARCHIVE = 17,         /* M/Inbox_archive */
    MUF_INBOX = 18,                 /* M/Inbox */
    MUF_INBOX_INDEX = 19,           /* H/index/Inbox */
    MUF_BULK_ARCHIVE = 20,          /* M/Bulk_archive */
    MUF_BULK_FOLDER = 21,           /* M/Bulk */
    MUF_BULK_INDEX = 22,            /* H/index/Bulk */
    MUF_QUOTA_EXCEEDED_FLAG_2 = 23, /* H/quota_exceeded_flag */
    MUF_EMAILTAG = 24,              /* P/T.emailtag */
    MUF_CALENDARTAG = 25,           /* P/T.calendartag */
    MUF_TRASH = 26,                 /* M/Trash */
    MUF_CALENDAR = 27,              /* P/calendar.ics */
    MUF_ALERT_NOTIFICATION = 28,    /* H/.alert_notification */
    MUF_WEBDAV = 29,                /* /var/spool/home/sys_dav/webdav/D/T */
    MUF_LOCAL_HOMEPATH = 30,        /* H; through mailuser_filename /var/spool/home.local/D/T */
    MUF_FAVORLIST = 31              /* P/T.favorlist */
};

/* Writes the path of a file kind of the ordinary user `address` into dst (for MUF_LOCAL_HOMEPATH
 * that of the local user), cut at len - 1 bytes; the rest of the buffer is filled with NUL. An
 * unknown kind, a NULL address and a lack of memory give the empty text. Returns 0 always; a NULL
 * dst or a len of 0 is not written to. Touches no file. */
int mailuser_filename(int kind, char* dst, unsigned int len, const char* address);

/* ---- Folder tables -------------------------------------------------------------------------- */

/* The system folders in the order of their numbers (1 is "Inbox"), ended by NULL. */
extern const char* const tsl_sys_folders[];
/* How many names tsl_sys_folders holds, without the NULL. */
extern const int tsl_sys_folders_count;

/* A name that the mail system and the programs around it keep for their own files in a store. */
struct tsm_sys_folder {
    const char* name;
    size_t length; /* strlen(name) */
};
/* The reserved names, ended by { NULL, 0 }. */
extern const struct tsm_sys_folder tsm_sys_folders[];

/* ---- Folder tests --------------------------------------------------------------------------- */

/* The number (1 to tsl_sys_folders_count) of the system folder with exactly this name, letter case
 * included; 0 for any other name and for NULL. */
int tsl_is_system_folder(const char* name);

/* The number of the system folder below which `name` lies: "Inbox/Work" and "INBOX/Work" give 1,
 * "Inbox" and "INBOX" 0. The part before '/' is compared ignoring letter case (of the process's
 * locale). 0 for any other name and for NULL. */
int tsl_is_system_sub_folder(const char* name);

/* 1 if the path's last component (slashes at the end ignored) begins with a reserved name of
 * tsm_sys_folders, else 0. Looks at the text only. NULL gives 0. */
int tsl_is_reserved_folder(const char* path);

/* 1 if tsl_is_reserved_folder gives 0, and 0 if it gives 1. Looks at the text only: whether there
 * is an mbox file is not asked. */
int tsl_is_mbox_folder(const char* path);

/* Whether a file begins with an mbox separator line, "From sender weekday month day time year" in
 * the forms of the mbox format (RFC 4155 and its predecessors: with or without seconds and zone,
 * with or without " remote from host"). Reads at most the first 1023 bytes; line ends, blanks and
 * tabs before the line are skipped if the last of them is a line feed. A line that does not end
 * within those bytes is none. Nonzero if so (negative: where the time of day begins, counted from
 * the end of the date); 0 if not, for an empty file, for NULL and if the file cannot be read. Does
 * not wait for the writer of a FIFO; a lease on the file (fcntl F_SETLEASE) is waited for. No lock.
 */
int tsl_is_mbox(const char* file);

/* 1 if `dir` holds an entry ".maildirfolder", or else all of "cur", "new" and "tmp", whatever these
 * are (links are followed); else 0, as for NULL, for what may not be looked at and for a path of
 * more than 4080 bytes, behind which the longest of these has no room. */
int tsl_is_maildir_folder(const char* dir);

/* 1 if `path` is a directory that is a maildir folder, else 0, as for NULL. `st` is the path's stat
 * record if the caller has it (saves the system call, and is believed), or NULL. */
int tsl_is_mail_folder(const char* path, const struct stat* st);

/* ---- Making folders ------------------------------------------------------------------------- */

/* Makes `dir` with its missing parents (create_path) and in it "cur", "new" and "tmp" (Maildir),
 * each with mode 0777 less the umask; what exists stays as it is. 0 on success, also when nothing
 * was missing and when other processes make the same folder at the same time. -1 with errno on
 * failure; what was made before stays. For a path of more than 4091 bytes nothing is made. */
int tsl_mkdir_maildir(const char* dir);

/* Make a user's maildir root or preference directory with its missing parents (create_path), all of
 * them with mode 0700 less the umask. 0 if it exists, whatever it is, or was made; -1 if it does
 * not exist and the low byte of `create` is 0 (nothing is made), for NULL and for a lack of memory;
 * -2 with errno of create_path if it could not be made: parents made before that stay. */
int create_mail_dir(const char* address, int create);
int create_pref_dir(const char* address, int create);

/* Tests a folder name given by a person before a folder is made by it. flags: 1 the name is a path
 * of folders separated by '/'; 2 refuse components that are exactly "new", "cur" or "tmp".
 * 0 valid; 1 malformed: NULL or empty, an empty component, one that begins with '.', or one of the
 * characters / \ ? * : " < > | in a component; 2 a component is refused by flag 2. The first bad
 * component decides. Neither length nor letter case nor control characters are checked. A lack of
 * memory gives 1. */
int tsl_is_valid_mailbox_name(const char* name, unsigned int flags);

/* Walks the mail folders below `dir` depth first, a folder before those below it, siblings in
 * alphasort order, and calls visit(name, st, arg) for each. Returns the sum of the visitor's
 * results (wrapping as int), 0 if `dir` cannot be listed, for NULL, and if the working directory
 * has no path of at most 4095 bytes.
 *
 * depth: 1. A larger depth d says that the d - 1 last components of dir's real path belong in front
 * of the names. name: relative to the top ("Work", "Work/2024"), below a link to a directory that
 * many components of its real path; st: the folder's stat record; both are valid during the call.
 * Entries named cur, new or tmp in any letter case are left out, as is everything below a directory
 * that is no mail folder. Links to directories are followed, but a directory that the walk is
 * already inside of is visited and not entered again.
 *
 * While the visitor runs, the process's working directory is the one that holds the visited folder;
 * the visitor leaves it so. After the walk it is what it was. So no other walk and no use of
 * relative paths elsewhere in the process meanwhile. A visitor may change the tree: a folder is
 * entered, by its name, after its visit, and the entries of a directory are those that it had when
 * it was entered. A folder that cannot be entered (a lack of memory included), or whose path is
 * longer than 4095 bytes, is visited only; one whose name would be, is left out. The number of open
 * descriptors and the stack do not grow with the depth. A visitor may throw; the working directory
 * is put back. */
int tsl_visit_folders(const char* dir, int depth,
                      int (*visit)(const char* name, const struct stat* st, void* arg), void* arg);

/* ---- Message file names --------------------------------------------------------------------- */

/* The name of a message file has the form
 *     <seconds>.<pid>_<microseconds>_<counter>.<host>#Q#<queue part>,#F#S#<size>#E
 * after the Maildir convention (unique part, no '/' and no ':'); mail readers append ":2," and flag
 * letters. In <host> '/' is written \057 and ':' \072; <counter> is 1 to 1000000. */

/* Makes a name for a message of `size` bytes received under `queue_id` (of which the part after the
 * first '-' is used if there is one), writes it into dst, cut at dst_len - 1 characters and always
 * NUL-terminated, and returns dst. queue_id may lie in dst. NULL, nothing written, if dst or
 * queue_id is NULL or dst_len is 0. 255 bytes (NAME_MAX) plus NUL are room enough for any name that
 * a file can have. The host name is asked for once in a process; without one it is "localhost".
 *
 * Names of one process in one microsecond differ only by a random counter (random(), seeded by the
 * caller if at all); whoever creates a file by the name creates it exclusively and draws again if
 * it exists. The process id is asked for at each call, so names made after fork are the child's. */
char* tsl_gen_mail_unique_name(size_t size, const char* queue_id, char* dst, size_t dst_len);

/* Makes a queue identifier: eight characters of 0-9A-Za-z that code the time (`when` in UTC, NULL
 * for now) and a random number (rand()), and the process id with at least six digits. Zero-fills
 * all buf_len bytes first; returns buf, or NULL, nothing written, if buf is NULL or buf_len is
 * below 32. */
char* tsl_gen_queue_id(const struct tm* when, char* buf, size_t buf_len);

/* The time in the first field of a message file name, or -1 if the digits at the beginning are not
 * followed by '.'. It is taken through local time and back, so it may be off by the change's amount
 * around a daylight-saving change. NULL gives -1. */
time_t tsl_get_mail_creation_date(const char* name);

/* The time (UTC) coded in the queue part of a message file name; the year is placed in the 60-year
 * period of today. Where none can be read, the creation date. NULL gives -1. */
time_t tsl_get_mail_received_date(const char* name);

/* ---- Size record files ---------------------------------------------------------------------- */

/* <mail path>/.maildirsize holds a mailbox's size, <folder>/.ts_folder_size a folder's: text lines
 * "<bytes> <messages>\n" of signed 64-bit decimal numbers whose sum counts. Lines that are not two
 * numbers are ignored, so the header "0S, 0C" of a compacted .maildirsize is (Maildir++: no quota
 * kept in the file); of a line longer than 254 bytes each further 254 count as a line. A file that
 * has grown past 4096 bytes is compacted to its sum by the next append.
 * <mail path>/.maildirsize.dirty, an empty file, says that the sums are not to be trusted until
 * somebody recounts, rewrites the files and removes the marker. Paths that these functions compose
 * from a directory and a name are cut at 4095 bytes. */

/* Append a record to a .maildirsize or a .ts_folder_size file, which is created (mode 0666 less the
 * umask) if missing, under its lock. 0 always, also when nothing could be written; a record is
 * there whole or not at all. A compaction saturates numbers beyond 64 bits and wraps sums. Where it
 * fails, the record is appended to the file as it was. A process killed within it leaves a file
 * that sums to the value before or after: at worst the new text, then line ends, then a line that
 * begins with '#', all of which the next append clears away. */
int tsl_append_maildirsize(const char* path, long long size, long long count);
int tsl_append_mail_folder_size(const char* path, long long size, long long count);

/* Reads a folder's sum under the file's lock into *size and *count (each may be NULL).
 * 0: read; a file that cannot be opened counts as 0. -1: no such file (outputs untouched), or the
 * file is damaged: a number or a sum beyond 64 bits or a read error (both stored as 0), or a
 * negative sum (that one stored as 0). Damage in a path with "/mail/" in it also creates
 * .maildirsize.dirty in the directory up to and including the first such; without "/mail/", or with
 * a file of another name, the result of a damaged file is 0. A NULL path gives -1. The file itself
 * stays as it is. */
int tsl_read_mail_folder_size(const char* path, unsigned long long* size,
                              unsigned long long* count);

/* Reads a mailbox's sum from <maildir>/.maildirsize under its lock; `ignored` is not looked at.
 * -1: <maildir>/.maildirsize.dirty exists or maildir is NULL (outputs untouched), or damage,
 * handled as above; "unknown, recount". 0: read; a missing file counts as 0. */
int tsl_get_maildirsize(const void* ignored, const char* maildir, unsigned long long* size,
                        unsigned long long* count);

/* Replaces the contents of a .ts_folder_size file (created if missing) by one record, under its
 * lock. 0 always; a record that could not be written, and a process killed in between, leave the
 * file empty, which reads as 0. A NULL path is ignored. */
int tsl_write_mail_folder_size(const char* path, long long size, long long count);

/* Mark a mailbox's sums as untrusted: create <maildir>/.maildirsize.dirty, given the maildir root
 * (locks the marker; -1 if it is NULL, empty or missing) or the user's address (no lock; -1 if it
 * is NULL or empty). Else 0, also when the marker could not be created; no directory is made for
 * it, and one that exists stays, emptied. By user std::bad_alloc passes to the caller. No function
 * here removes a marker. */
int tsl_reset_quota_flag_by_path(const char* maildir);
int tsl_reset_quota_flag_by_user(const char* user);

/* ---- Scan cache and scan date --------------------------------------------------------------- */

/* Writes the path of a folder's scan cache, <dir>/.ts_cache (one slash if dir ends with '/'), into
 * buf, cut at bufsize - 1 bytes, and returns the length of what is there. -1 if buf or dir is NULL
 * or bufsize is less than 1. */
int tsl_get_maildir_cache_file(const char* dir, char* buf, int bufsize);

/* Writes a scan cache, the text "mtime=<seconds>,size=<bytes>" (seconds since the epoch), into the
 * emptied file, which is created if missing. No lock: the last writer wins, and a reader in between
 * may see an empty file. 1 written; 0 the file could not be opened (a NULL path too), or the text
 * not be written whole: the file is empty then. */
int tsl_write_maildir_cache_file(const char* path, long mtime, unsigned long size);

/* Reads a scan cache of that form (the two-line form that the mailbox scan writes is not one), with
 * numbers as scanf's "%ld" and "%lu" take them. 1 and both outputs set (each may be NULL), else 0
 * and both untouched. No lock: the file is read until two readings agree, so that the numbers are
 * those of one writer; 0 if 100 readings differ. */
int tsl_read_maildir_cache_file(const char* path, long* mtime, unsigned long* size);

/* Writes the date of the last scan for unread messages (seconds since the epoch) as the one line of
 * <dir>/.ts_unread_scan_date, created if missing, under its lock. 0 always, also when nothing could
 * be written: the file is empty then, or as it was if it could not be opened. A NULL dir is
 * ignored. */
int tsl_set_mail_unread_scandate(const char* dir, int date);

/* Reads that date, under the file's lock, from its last line that begins with a number (of which
 * the low 32 bits count). 0 and *date (which may be NULL) set, or -1 and *date untouched if there
 * is none, the file cannot be read, or dir is NULL. */
int tsl_get_mail_unread_scandate(const char* dir, long* date);

/* ---- Size scan ------------------------------------------------------------------------------ */

/* These count what lies in the directories of a folder, each message with the size that its name
 * carries (",#F#S#<bytes>#E") or else with that of its file. Flags, which may be combined:
 *   2  take the file's size of every message, whatever its name says
 *   4  first give every entry without a size field one: before the first ",U" in the name, else
 *      before the first ":2", else at the end. In a directory "cur" this goes by way of ../tmp, so
 *      that a reader of cur does not find a message twice. What would get a name of more than 255
 *      bytes or one that is taken stays as it is, as does what cannot be renamed. A process killed
 *      in between leaves at most one message in tmp, under the name that it had.
 * Other bits mean nothing. No locks; the cache's last writer wins. A message that another process
 * tags while the scan runs is not counted twice. Sums stop at LLONG_MAX. */

/* The size in a message file name, -1 if there is none (NULL too): the number behind the last "#S"
 * (and one more '#') that follows the first ",#F", if "#E" follows that as well. Read as strtoll
 * does: ",#F#S##E" gives 0, a negative number stays one. */
long long get_maildir_msg_len_from_name(const char* name);

/* The sum of the sizes of the entries of dir/sub, or of `dir` if sub is NULL or empty; other
 * directories in it count with their own st_size, what is in them does not. 0 if the directory
 * cannot be opened or its path has more than 4095 bytes; entries that vanish or cannot be looked at
 * are left out, as is the rest of a directory that cannot be read to its end. */
long long tsl_get_dir_size(const char* dir, const char* sub, int flags);

/* The size of a folder as its cache <path>/.ts_cache (either form) has it, whatever its age; 0 if
 * there is none or it cannot be read. The file's size if `path` is no directory. st: the path's
 * stat record, or NULL. 0 if the path does not exist. */
long long tsl_get_mailbox_size(const char* path, const struct stat* st);

/* The size of a folder: what its cache says if that has the two-line form "mtime=<seconds>\n"
 * "size=<bytes>\n" with a size other than 0, and neither the folder nor its cur nor its new was
 * modified after that time; else the sum of cur, new and tmp, which is put into the cache with the
 * newest of these times (created if missing; a reader meanwhile may see it empty). What happens in
 * tmp makes no cache old. A cache that cannot be written is no failure: it is empty then, or as it
 * was. A sum from which something had to be left out is returned, but not kept. Other paths and st
 * as with tsl_get_mailbox_size. */
long long tsl_get_mailbox_size_actual(const char* path, const struct stat* st, int flags);

/* Removes a message file and takes it out of its folder's total: first appends the record
 * "-<size> -1" to <folder>/.ts_folder_size (see tsl_append_mail_folder_size; under its lock), if
 * the message lies in the folder's cur or new and its name or else its file says a size of at least
 * 1; then unlinks. The record stays when the unlink fails; a process killed in between leaves the
 * message, and a total without it. Returns what unlink returns, 0 or -1, with its errno (EINVAL for
 * NULL). */
int tsl_maildir_unlink_mail(const char* path);

/* ---- Size-change notification --------------------------------------------------------------- */

/* Tells the quota daemon that a folder's size changed by `delta` bytes: sends the datagram
 * "S<delta>,F(<folder>)" to the Unix socket /tmp/quotad.socket. Nothing is awaited in return.
 *
 * Returns the number of bytes sent, or -1 with errno: nobody listens (ENOENT, ECONNREFUSED), the
 * daemon's queue stayed full for 3 seconds (EAGAIN), the text is longer than 575 bytes (EMSGSIZE,
 * nothing is sent). The notification is lost then; the size files stay right. Only a failure to
 * create a socket is printed (perror, "socket"). A NULL folder gives -1, EINVAL. */
int tsl_update_mail_folder_size(const char* folder, long delta);

/* ---- Deletion -------------------------------------------------------------------------------- */

/* Data goes at once, or it is scheduled: renamed to a hidden name ".deleted.<...>", which frees its
 * own name at once, and removed by a later sweep. Nothing below a removed directory is reached
 * through a symbolic link, also when one takes a directory's place meanwhile; depth is bounded by
 * memory alone. What a failed call removed is not restored. */

/* Renames `path` to <dir>/.deleted.<tag>.<base>.<n>, where <base> is what stands behind the last
 * '/' of path and n counts 1, 2, ... 9, a, ... (hexadecimal, without an end) until the name is
 * free; without a tag (NULL or "") two dots are in a row. A name is taken if rename says so: an
 * empty directory is replaced by a directory, a file by a file. Both lie on one file system. 0, or
 * -1 with errno of rename; -1, nothing done, if path or dir is NULL or empty or the new name would
 * be longer than 4095 bytes. */
int tsm_schedule_for_deletion(const char* path, const char* dir, const char* tag);

/* Writes the first free name of the form <directory of path>/.deleted.<base>.<n> into out (no tag
 * here; n as above), a buffer of out_len bytes. Renames nothing, so another process may take the
 * name. 0, or -1, nothing written, if path is NULL or empty, out is NULL, or out_len is less than
 * strlen(path) + 20. What may not be looked at counts as free. */
int tsm_get_deleted_path(const char* path, char* out, int out_len);

/* 1 if a file name (not a path) begins with ".deleted.", else 0, as for NULL. */
int tsm_is_deleted_user_path(const char* name);

/* Removes a file, a symbolic link (not its target) or a directory with all that is below it.
 * Returns 0 or a positive errno, of the removal of `path` itself: ENOENT if there is none,
 * ENOTEMPTY if something below could not be removed (a directory that may not go keeps its
 * contents; all else below is gone), EINVAL for NULL. */
int tsm_delete_path(const char* path);

/* Removes a maildir folder: first the files in its "cur", "new" and "tmp", then these, then the
 * rest as tsm_delete_path does; that is also all for what is no directory. A link to a folder is
 * followed for the first step and removed itself, the folder stays; a link in the place of "cur",
 * "new" or "tmp" leads to the files that are removed. Returns as tsm_delete_path does, or -1 if
 * path is NULL or empty or there is nothing there. */
int tsm_delete_maildir(const char* path);

/* Removes the messages of a maildir folder, the files in "cur", "new" and "tmp", and its scan
 * cache; the three directories and any directory in them stay. Links to the folder and in the place
 * of the three are followed. 0, whatever could not be removed; -1 if path is NULL, empty or no
 * directory. */
int tsm_clean_maildir(const char* path);

/* Removes what a file kind names (enum MailUserFileKind) for the user `address`, of the local user
 * for MUF_LOCAL_HOMEPATH:
 *   WHITELIST, BLACKLIST, BLOCKLIST, the two quota flags 7 and 8, BULK, PREF_FILE: the file. -1 if
 *     it exists and cannot be unlinked; so for BULK, which names a folder.
 *   PRIMARY_ADDR, SECONDARY_ADDR: the list, after the user's address (tag included) was taken out
 *     of the opposite list of every address in it.
 *   PREFPATH, HOMEPATH: both lists are left in that way, then the directory is emptied
 *     (tsm_clean_dir). -1 if that fails.
 *   MAILPATH, LOCAL_HOMEPATH: the directory is emptied. -1 if that fails.
 * 0 otherwise, also for what is not there and for any other kind, for which nothing is done; -1 if
 * address is NULL or empty and for a lack of memory. A partner's list that cannot be rewritten is
 * passed over. The lists' locks are those of <tessaly/maillist.h>. */
int tsl_delete_user_file(int kind, const char* address);

/* ---- Quota flags ---------------------------------------------------------------------------- */

/* The quota process's word on a user, kept in the user's home directory H and cheap to ask for:
 *     H/quota_warning_flag   a decimal int without a line end
 *     H/quota_exceeded_flag  the same; empty if set by TSMailUserId::quota_exceeded(true) or for an
 *                            archive account
 * What the numbers mean is between the process that sets them and those that ask. The archive flag
 * is the exceeded flag's file, in the archive account's home: only the user asked about tells the
 * two apart, and only the file's existence counts for it.
 *
 * For all seven: `user` is an e-mail address (see the top); NULL gives 0 or does nothing. No locks:
 * of setters that run at once the last one's value stays; a getter between them may see 0 or a
 * number made of two. Failures are not reported: what cannot be opened, written or removed stays as
 * it is (after a full disk a value may be gone, the file then is empty) and reads accordingly.
 * Nothing but std::bad_alloc is thrown; it passes to the caller, no file touched. A C caller that
 * may run out of memory links for exceptions or ends there. */

/* The value in the flag file: blanks (isspace in the C locale) are skipped, then a sign and digits
 * taken as far as they go ("12abc" is 12, "0x10" 0, "1,000" 1), whatever the process's locale. 0 if
 * the file is missing, empty, cannot be read or does not begin with a number; INT_MAX or INT_MIN
 * for a number beyond int. */
int tsl_get_quota_exceeded(const char* user);
int tsl_get_quota_warning(const char* user);

/* Put a value into the flag file, which is created (mode 0666 less the umask) if missing, else
 * emptied first. Its home directory is not made. */
void tsl_set_quota_exceeded(const char* user, int value);
void tsl_set_quota_warning(const char* user, int value);

/* 1 if the archive account's flag file exists, whatever is in it, else 0. */
int tsl_get_arch_quota_exceeded(const char* user);
/* Creates or empties it. */
void tsl_set_arch_quota_exceeded(const char* user);
/* Removes it. */
void tsl_unset_arch_quota_exceeded(const char* user);

/* ---- Quota notices -------------------------------------------------------------------------- */

/* Mails a quota notice: starts "/bin/sendmail -Am -bm -t" (through the shell, as popen does) and
 * writes to it
 *     From:<from>
 *     To:<to>
 *     Subject:<subject>
 *     X-Tessaly-Quota: 1
 *     Precedence: bulk
 *
 *     <body>
 *     .
 * The texts go out as they stand, so a line break in one of the first three makes a header line of
 * its own, and a body line "." ends the message for a submission program that goes by it; a caller
 * that takes them from outside checks them first. NULL: for from and to the local postmaster
 * address (cfg_get_postmaster of <tessaly/support.h> if the support library offers it, else
 * "postmaster"), for subject "(no subject)", for body the empty text.
 *
 * Waits for the program's end and returns its status as pclose does: a wait status, 0 for exit
 * code 0, 127 * 256 if there is no such program, -1 if the caller ignores SIGCHLD or reaps the
 * program itself. 0 also if nothing could be started (no shell, no memory, no descriptor, no
 * process). Whether the program read all of the message is not looked at; one that does not raises
 * no SIGPIPE in the caller. The caller's signal handlers, its signal mask and its other children
 * are left alone. */
int tsl_send_quota_msg(const char* from, const char* to, const char* subject, const char* body);

/* ---- Archive quota -------------------------------------------------------------------------- */

/* The gibibytes that may still be given to archive accounts: a fifth of the file system that holds
 * /var/spool (its size in whole gibibytes, divided by 5 without remainder) less the quotas of all
 * rows of configuration table 670 but those named exactly `exclude` (NULL: but none). Negative if
 * more was given than there is. 0 also if the file system's size cannot be had or is 0. */
int tsm_archive_avail_quota(const char* exclude);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop

#endif
