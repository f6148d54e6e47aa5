/* tessaly/mailstore.h - the mail storage functions of libtsmail.
 *
 * The header compiles as C99 and as C++11.
 *
 * Conventions
 *   Texts      Paths, names and addresses are NUL-terminated byte strings. Nothing is normalised.
 *              A path holds at most 4095 bytes. A longer path gets the function's failure answer,
 *              unless the function states something else.
 *   Addresses  An address is the e-mail address of an ordinary user ("ann+work@site.test"). It goes
 *              into paths as it stands. A caller that takes addresses from outside checks them
 *              first.
 *   Results    An int is 0 for success or "no", -1 for a bad argument or a failed system call, and
 *              1 or a position counted from 1 for "yes". Each function states where it departs from
 *              this.
 *   Buffers    The caller owns them. Sizes are in bytes and include the final NUL.
 *   NULL       A function states how it answers NULL. Elsewhere NULL must not be passed.
 *   Errors     Nothing is printed or logged. Unless a function states something else, nothing is
 *              thrown, and a lack of memory gets the function's failure answer. errno gives the
 *              reason where a function promises it; elsewhere it means nothing. A system call that
 *              a signal interrupts is made again.
 *   Threads    Every function may be called from several threads at once, except tsl_visit_folders,
 *              which moves the process's working directory.
 *   fork       Nothing is kept that a child may not use. Descriptors are close-on-exec, and no call
 *              leaves a descriptor open.
 *   Files      New files get mode 0666, directories the mode that is stated, both less the umask.
 *              Nothing is flushed to the disk. What a crash of the machine leaves depends on the
 *              file system. A file of the store that is read must be a regular one of at most
 *              64 MiB; any other counts as one that cannot be read. Nothing is created, emptied or
 *              appended to through a symbolic link as last component, unless root or the effective
 *              user owns the link. A file on which another process holds a lease (fcntl F_SETLEASE)
 *              is waited for, for one second; if the lease stays, the file cannot be opened.
 *   Locks      "Under its lock" means open_and_lock_file of <tessaly/support.h>: a lock between
 *              processes that is waited for without a limit and held until the function returns.
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
 * <tessaly/MailUserId.h>). Kinds with the same path are different roles. The paths are those of an
 * ordinary user. Two types of mailbox differ: in a quarantine MUF_MAILDROP is M/<tag>/current, or
 * M/Content/current without a tag; in a secure store every folder below M is M itself. */
enum MailUserFileKind {
    MUF_WHITELIST = 0,              /* P/T.whitelist */
    MUF_BLACKLIST = 1,              /* P/T.blacklist */
    MUF_BLOCKLIST = 2,              /* P/T.blocklist */
    MUF_MAILPATH = 4,               /* M */
    MUF_PREFPATH = 5,               /* P */
    MUF_MAILDROP = 6,               /* M/<tag>, or M/Inbox without a tag */
    MUF_QUOTA_WARNING_FLAG = 7,     /* H/quota_warning_flag */
    MUF_QUOTA_EXCEEDED_FLAG = 8,    /* H/quota_exceeded_flag */
    MUF_BULK = 10,                  /* M/Bulk */
    MUF_HOMEPATH = 11,              /* H */
    MUF_HOME_PARENT = 12,           /* the directory part of H, as POSIX dirname gives it */
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

/* Writes the path of a file kind of the ordinary user `address` into dst. For MUF_LOCAL_HOMEPATH it
 * is the path of the local user. The path is cut at len - 1 bytes, and the rest of the buffer is
 * filled with NUL. An unknown kind, a NULL address and a lack of memory give the empty text.
 * Returns 0 always. A NULL dst or a len of 0 is not written to. Touches no file. */
int mailuser_filename(int kind, char* dst, unsigned int len, const char* address);

/* ---- Folder tables -------------------------------------------------------------------------- */

/* The names of the system folders in the order of their numbers (1 is "Inbox"), ended by NULL. */
extern const char* const tsl_sys_folders[];
/* The number of names in tsl_sys_folders, without the NULL. */
extern const int tsl_sys_folders_count;

/* A name that the mail system and the programs around it keep for their own files in a store. */
struct tsm_sys_folder {
    const char* name;
    size_t length; /* strlen(name) */
};
/* The reserved names, ended by { NULL, 0 }. */
extern const struct tsm_sys_folder tsm_sys_folders[];

/* ---- Folder tests --------------------------------------------------------------------------- */

/* Returns the number (1 to tsl_sys_folders_count) of the system folder with exactly this name,
 * letter case included. 0 for any other name and for NULL. */
int tsl_is_system_folder(const char* name);

/* Returns the number of the system folder below which `name` lies: "Inbox/Work" and "INBOX/Work"
 * give 1, "Inbox" and "INBOX" give 0. The part before '/' is compared without regard to letter case
 * (that of the process's locale). 0 for any other name and for NULL. */
int tsl_is_system_sub_folder(const char* name);

/* Returns 1 if the last component of the path begins with a name of tsm_sys_folders, else 0.
 * Slashes at the end of the path are ignored. Looks at the text only. NULL gives 0. */
int tsl_is_reserved_folder(const char* path);

/* Returns 1 if tsl_is_reserved_folder returns 0, and 0 if it returns 1. Looks at the text only; it
 * does not test whether there is an mbox file. */
int tsl_is_mbox_folder(const char* path);

/* Tests whether a file begins with an mbox separator line, "From sender weekday month day time
 * year". The date may have the forms of the mbox format (RFC 4155 and its predecessors): with or
 * without seconds and zone, with or without " remote from host". Only the first 1023 bytes of the
 * file are read. Line ends, blanks and tabs before the line are skipped if the last of them is a
 * line feed. The line must end, without a NUL byte in it, within those bytes.
 *
 * Returns a nonzero number if so. It is negative: the offset of the blank before the time of day
 * from the end of the date. Returns 0 if not, for an empty file, for NULL, and if the file cannot
 * be read. The file may be of any size. Does not wait for the writer of a FIFO. Takes no lock. */
int tsl_is_mbox(const char* file);

/* Returns 1 if `dir` holds an entry ".maildirfolder", or else all of "cur", "new" and "tmp". The
 * entries may be of any type; links are followed. Returns 0 otherwise, for NULL, for a directory
 * that may not be searched, and for a path of more than 4080 bytes, which leaves no room for the
 * longest of these names. */
int tsl_is_maildir_folder(const char* dir);

/* Returns 1 if `path` is a directory that is a maildir folder, else 0. NULL gives 0. `st` is the
 * stat record of the path if the caller has it, which saves the system call; the record is
 * believed. Otherwise `st` is NULL. */
int tsl_is_mail_folder(const char* path, const struct stat* st);

/* ---- Making folders ------------------------------------------------------------------------- */

/* Makes `dir` with its missing parents (create_path) and in it "cur", "new" and "tmp" (Maildir),
 * each with mode 0777 less the umask. What exists stays as it is. Returns 0 on success, also when
 * nothing was missing and when other processes make the same folder at the same time. Returns -1
 * with errno on failure; what was made before stays. For a path of more than 4091 bytes nothing is
 * made. */
int tsl_mkdir_maildir(const char* dir);

/* Make a user's maildir root or preference directory with its missing parents (create_path), all of
 * them with mode 0700 less the umask. Return 0 if the path exists, whatever it is, or was made.
 * Return -1 if it does not exist and the low byte of `create` is 0 (nothing is made), for NULL, and
 * for a lack of memory. Return -2 with errno of create_path if it could not be made; parents that
 * were made before stay. */
int create_mail_dir(const char* address, int create);
int create_pref_dir(const char* address, int create);

/* Flags of tsl_is_valid_mailbox_name, which may be combined. */
enum tsl_name_flag {
    TSL_NAME_IS_PATH = 1,        /* the name is a path of folders separated by '/' */
    TSL_NAME_REFUSE_SUB_DIRS = 2 /* refuse components that are exactly "new", "cur" or "tmp" */
};

/* Results of tsl_is_valid_mailbox_name. */
enum tsl_name_result {
    TSL_NAME_VALID = 0,
    TSL_NAME_MALFORMED = 1,
    TSL_NAME_RESERVED = 2 /* by TSL_NAME_REFUSE_SUB_DIRS */
};

/* Tests a folder name that a person gave, before a folder is made by it. flags may combine: 1 the
 * name is a path of folders separated by '/'; 2 refuse components that are exactly "new", "cur" or
 * "tmp". Returns 0 if the name is valid. Returns 1 if it is malformed: NULL, empty, an empty
 * component, a component that begins with '.' or holds one of the characters / \ ? * : " < > |.
 * Also for a lack of memory. Returns 2 if flag 2 refuses a component. The first bad component
 * decides. Length, letter case and control characters are not checked. */
int tsl_is_valid_mailbox_name(const char* name, unsigned int flags);

/* Walks the mail folders below `dir`, depth first, a folder before the folders below it, siblings
 * in alphasort order. Calls visit(name, st, arg) for each folder and returns the sum of the results
 * (which wraps as an int). Returns 0 without a visit if `dir` cannot be listed or entered, if dir
 * or visit is NULL, for a lack of memory, and if the working directory or `dir` has no real path of
 * at most 4095 bytes.
 *
 * depth: 1 in general. A larger depth d puts the last d - 1 components of the real path of `dir` in
 * front of the names. name: relative to the top ("Work", "Work/2024"). Below a link to a directory
 * it consists of as many components of the real path there. st: the stat record of the folder. Name
 * and record are valid during the call.
 *
 * Entries named cur, new or tmp in any letter case are left out. So is a directory that is not a
 * mail folder, with everything below it. Links to directories are followed. A directory that the
 * walk is already inside of is visited, but not entered again.
 *
 * While the visitor runs, the process's working directory is the directory that holds the visited
 * folder. The visitor must leave it so. After the walk the working directory is what it was before;
 * a process that may not search that directory cannot return to it and is left in `dir`. During the
 * walk the process must not make another walk, and no other thread may use relative paths.
 *
 * A visitor may change the tree. A folder is entered, by its name, after its visit. The entries of
 * a directory are those that it had when it was entered. A folder is visited and not entered if it
 * cannot be opened, for a lack of memory, and if its path is longer than 4095 bytes. A folder whose
 * name would be longer is left out. The number of open descriptors and the stack do not grow with
 * the depth. A visitor may throw; the working directory is put back. */
int tsl_visit_folders(const char* dir, int depth,
                      int (*visit)(const char* name, const struct stat* st, void* arg), void* arg);

/* ---- Message file names --------------------------------------------------------------------- */

/* The name of a message file has the form
 *     <seconds>.<pid>_<microseconds>_<counter>.<host>#Q#<queue part>,#F#S#<size>#E
 * It follows the Maildir convention: a unique part, no '/' and no ':'. Mail readers append ":2,"
 * and flag letters. In <host>, '/' is written \057 and ':' is written \072. <counter> is 1 to
 * 1000000. */

/* Makes a name for a message of `size` bytes that was received under `queue_id`. If queue_id holds
 * a '-', only the part after the first '-' is used. The name is cut at dst_len - 1 bytes. It is
 * NUL-terminated, and the last byte of dst is NUL too. queue_id may lie in dst. Returns dst, or
 * NULL with nothing written if dst or queue_id is NULL or dst_len is 0. 255 bytes (NAME_MAX) and a
 * NUL are enough for any name that a file can have.
 *
 * The host name is asked for until the process has got a name that is not empty, and is kept then.
 * If the system cannot give it, it is "localhost". An empty host name stays empty.
 *
 * Names that one process makes in one microsecond differ only in a random counter (random(), which
 * the caller may seed). Who creates a file by the name creates it exclusively, and makes another
 * name if the file exists. The process id is asked for at each call, so a child makes names of its
 * own after fork. */
char* tsl_gen_mail_unique_name(size_t size, const char* queue_id, char* dst, size_t dst_len);

/* Makes a queue identifier: eight characters of 0-9A-Za-z that code the time (`when` in UTC, or now
 * if it is NULL) and a random number (rand()), then the process id with at least six digits.
 * Zero-fills all buf_len bytes first. Returns buf, or NULL with nothing written if buf is NULL or
 * buf_len is less than 32. */
char* tsl_gen_queue_id(const struct tm* when, char* buf, size_t buf_len);

/* Returns the time in the first field of a message file name, or -1 if the digits at the beginning
 * are not followed by '.'. A name that begins with '.' gives 0. The time is converted to local time
 * and back, so around a daylight-saving change it may be off by the amount of the change. NULL
 * gives -1. */
time_t tsl_get_mail_creation_date(const char* name);

/* Returns the time (UTC) that is coded in the queue part of a message file name. The year is placed
 * in the present period of 60 years. A letter 'q' in front of the coded time is skipped, unless a
 * month follows it. If no time can be read, the creation date is returned. NULL gives -1. */
time_t tsl_get_mail_received_date(const char* name);

/* ---- Size record files ---------------------------------------------------------------------- */

/* <mail path>/.maildirsize holds the size of a mailbox, <folder>/.ts_folder_size that of a folder.
 * They are text files of lines "<bytes> <messages>\n", two signed 64-bit decimal numbers, whose sum
 * is the size. A line that does not begin with two numbers is ignored, such as the header "0S, 0C"
 * of a compacted .maildirsize (Maildir++: no quota is kept in the file). Of a line longer than 254
 * bytes, every 254 bytes count as a line. When a file has grown past 4096 bytes, the next append
 * compacts it to its sum.
 * <mail path>/.maildirsize.dirty is an empty file. It says that the sums are not to be trusted
 * until a process recounts, rewrites the files and removes the marker. A path that these functions
 * compose from a directory and a name is cut at 4095 bytes. */

/* Append a record to a .maildirsize or a .ts_folder_size file under its lock. The file is created
 * (mode 0666 less the umask) if missing. Return 0 always, also if nothing could be written. A
 * record is in the file whole or not at all. A NULL path is ignored.
 *
 * A compaction takes a number beyond 64 bits as the nearest that fits, and lets sums wrap; no later
 * reader can tell. If it fails, the record is appended to the file as it was. A process that is
 * killed within it leaves a file with the sum before or after, if the last line begins within the
 * first 4096 bytes, as it does where every compaction succeeded: at worst the new text, line ends,
 * and a line that begins with '#', which the next append clears away. In a longer file a kill may
 * leave another sum, which a recount mends. */
int tsl_append_maildirsize(const char* path, long long size, long long count);
int tsl_append_mail_folder_size(const char* path, long long size, long long count);

/* Reads the sum of a folder's file under its lock into *size and *count (each may be NULL).
 *
 * Returns 0 if the file was read. A file that cannot be opened counts as 0. Returns -1 with the
 * outputs untouched if there is no such file or path is NULL. A file is damaged if a number or a
 * sum does not fit 64 bits, if it cannot be read to its end, or if a sum is negative. A negative
 * sum is stored as 0; in the other cases both outputs are 0. If the path holds "/mail/", damage
 * creates .maildirsize.dirty in the directory that ends with the first "/mail/", and the result is
 * -1. It is 0 if the path does not hold "/mail/" or the file has another name than the two above.
 * The damaged file stays as it is. */
int tsl_read_mail_folder_size(const char* path, unsigned long long* size,
                              unsigned long long* count);

/* Reads the sum of <maildir>/.maildirsize under its lock. `ignored` is not looked at. Returns 0 if
 * the file was read; a missing file counts as 0. Returns -1, "unknown, recount", with the outputs
 * untouched if <maildir>/.maildirsize.dirty exists or maildir is NULL. Damage is handled as above.
 */
int tsl_get_maildirsize(const void* ignored, const char* maildir, unsigned long long* size,
                        unsigned long long* count);

/* Replaces the content of a .ts_folder_size file by one record, under its lock. The file is created
 * if missing. Returns 0 always. If the record could not be written, or the process is killed in
 * between, the file is empty, which reads as 0. A NULL path is ignored. */
int tsl_write_mail_folder_size(const char* path, long long size, long long count);

/* Mark the sums of a mailbox as not to be trusted: create <maildir>/.maildirsize.dirty. By path,
 * the marker is locked, and the result is -1 if maildir is NULL, empty or missing. By user (an
 * address), no lock is taken, and the result is -1 if user is NULL or empty. Otherwise the result
 * is 0, also if the marker could not be created. No directory is made. A marker that exists stays
 * and is empty. By user, std::bad_alloc passes to the caller. No function here removes a marker. */
int tsl_reset_quota_flag_by_path(const char* maildir);
int tsl_reset_quota_flag_by_user(const char* user);

/* ---- Scan cache and scan date --------------------------------------------------------------- */

/* Writes the path of a folder's scan cache into buf: <dir>/.ts_cache, with one slash if dir ends
 * with '/'. The path is cut at bufsize - 1 bytes and NUL-terminated, and the last byte of buf is
 * NUL too. Returns the length of the path in buf, or -1 if buf or dir is NULL or bufsize is less
 * than 1. */
int tsl_get_maildir_cache_file(const char* dir, char* buf, int bufsize);

/* Writes a scan cache, the text "mtime=<seconds>,size=<bytes>" (seconds since the epoch). The file
 * is created if missing, else emptied first. Takes no lock: of two writers at the same time the
 * last one's text stays, whole, and a reader may find the file empty. Returns 1 if the text was
 * written. Returns 0 if the file could not be opened or path is NULL, and if the text could not be
 * written whole; the file is empty then. */
int tsl_write_maildir_cache_file(const char* path, long mtime, unsigned long size);

/* Reads a scan cache of that form, with numbers as "%ld" and "%lu" of scanf take them. The form of
 * two lines that the mailbox scan writes is not understood. Returns 1 and sets both outputs (each
 * may be NULL), or returns 0 and leaves both untouched. Takes no lock: the file is read until four
 * readings in a row agree, so that both numbers come from one writer. If 100 readings do not come
 * to rest, the result is 0. */
int tsl_read_maildir_cache_file(const char* path, long* mtime, unsigned long* size);

/* Writes the date of the last scan for unread messages (seconds since the epoch) as the only line
 * of <dir>/.ts_unread_scan_date, under its lock. The file is created if missing; its path is cut at
 * 4095 bytes. Returns 0 always. If the date could not be written, the file is empty; if the file
 * could not be opened, it is as it was. A NULL dir is ignored. */
int tsl_set_mail_unread_scandate(const char* dir, int date);

/* Reads that date under the file's lock. The last line that begins with a number counts, and of
 * that number the low 32 bits. Returns 0 and sets *date (date may be NULL). Returns -1 and leaves
 * *date untouched if there is no date, if the file cannot be read, and if dir is NULL. */
int tsl_get_mail_unread_scandate(const char* dir, long* date);

/* ---- Size scan ------------------------------------------------------------------------------ */

/* Flags of the scans, which may be combined. Other bits mean nothing. */
enum tsl_scan_flag {
    TSL_SCAN_STAT_ONLY = 2, /* take the file's size of every message, whatever its name says */
    TSL_SCAN_TAG_FIRST = 4  /* first give every entry without a size field one */
};

/* These functions count what lies in the directories of a folder: each message with the size that
 * its name carries (",#F#S#<bytes>#E"), or else with the size of its file. Flags may be combined:
 *   2  take the size of the file for every message, whatever its name says
 *   4  first give every entry without a size field one: before the first ",U" in the name, else
 *      before the first ":2", else at the end. In a directory "cur" the entry goes by way of
 *      ../tmp, so that a reader of cur does not find a message twice. An entry that cannot be
 *      renamed, or whose new name would be taken or have more than 255 bytes, stays as it is. A
 *      process that is killed in between leaves at most one message in tmp, under its old name.
 * Other bits mean nothing. No lock is taken. Of two writers of a cache at the same time the last
 * one wins. A message that another process tags during the scan is not counted twice. A directory
 * that stands in the place of two, as a link, counts twice. Sums stop at LLONG_MAX. */

/* Returns the size in a message file name, or -1 if there is none or name is NULL. The size is the
 * number behind the last "#S" (and one more '#') that follows the first ",#F", if "#E" follows that
 * ",#F" as well. It is read as strtoll reads it: ",#F#S##E" gives 0, and a negative number stays
 * one. */
long long get_maildir_msg_len_from_name(const char* name);

/* Returns the sum of the sizes of the entries of dir/sub, or of `dir` if sub is NULL or empty. A
 * directory among the entries counts with its own st_size; what is in it does not count. Returns 0
 * if the directory cannot be opened or its path has more than 4095 bytes. An entry that vanishes or
 * cannot be looked at is left out. So is the rest of a directory that cannot be read to its end. */
long long tsl_get_dir_size(const char* dir, const char* sub, int flags);

/* Returns the size of a folder as its cache <path>/.ts_cache gives it, in either form and of any
 * age. 0 if there is no cache or it cannot be read. If `path` is not a directory, returns its file
 * size; 0 if it does not exist. st is the stat record of the path if the caller has it, or NULL. */
long long tsl_get_mailbox_size(const char* path, const struct stat* st);

/* Returns the size of a folder. The cache is believed if it has the form of two lines,
 * "mtime=<seconds>\n" and "size=<bytes>\n", with a size other than 0, and if neither the folder nor
 * its cur nor its new was modified after that time. Otherwise the result is the sum of cur, new and
 * tmp. It is written into the cache with the newest of these times; the cache is created if
 * missing, and a reader may find it empty meanwhile. A change in tmp does not make a cache old. If
 * the cache cannot be opened, it stays as it was; if it cannot be written whole, it is empty. A sum
 * from which something had to be left out is returned, but not kept. Other paths and st as with
 * tsl_get_mailbox_size. */
long long tsl_get_mailbox_size_actual(const char* path, const struct stat* st, int flags);

/* Removes a message file and takes it out of its folder's total. If the message lies in the
 * folder's cur or new, and its name, or else its file, gives a size of at least 1, the record
 * "-<size> -1" is first appended to <folder>/.ts_folder_size (as by tsl_append_mail_folder_size,
 * under its lock). Then the file is unlinked. The record stays if that fails; a process that is
 * killed in between leaves the message, and a total without it. Returns the result of unlink, 0 or
 * -1, with its errno (EINVAL for NULL). */
int tsl_maildir_unlink_mail(const char* path);

/* ---- Size-change notification --------------------------------------------------------------- */

/* Tells the quota daemon that the size of a folder changed by `delta` bytes: sends the datagram
 * "S<delta>,F(<folder>)" to the Unix socket /tmp/quotad.socket. The daemon does not answer.
 *
 * Returns the number of bytes sent, or -1 with errno: nobody listens (ENOENT, ECONNREFUSED), the
 * daemon's queue stayed full for 3 seconds (EAGAIN), the text is longer than 575 bytes (EMSGSIZE,
 * nothing is sent), or folder is NULL (EINVAL). The notification is lost then; the size files stay
 * right. Only a failure to create a socket is printed (perror, "socket"). */
int tsl_update_mail_folder_size(const char* folder, long delta);

/* ---- Deletion -------------------------------------------------------------------------------- */

/* Data is removed at once, or it is scheduled: renamed to a hidden name ".deleted.<...>", so that
 * its own name is free at once, and removed by a later sweep. Below a removed directory, nothing is
 * reached through a symbolic link, even if a link takes the place of a directory meanwhile. The
 * depth is limited by memory only. What a failed call has removed is not restored. */

/* Renames `path` to <dir>/.deleted.<tag>.<base>.<n>. <base> is the text behind the last '/' of
 * path. n counts 1, 2, ... 9, a, ... in hexadecimal until the name is free; rename says whether it
 * is (an empty directory is replaced by a directory, a file by a file). Without a tag (NULL or "")
 * the name has two dots in a row. Both paths lie on one file system.
 *
 * Returns 0, or -1 with errno of rename. Returns -1 with nothing done if path or dir is NULL or
 * empty, and (ENAMETOOLONG) if the new name has more than 4095 bytes without its counter. A name
 * that leaves no room for a counter is tried once, without one. */
int tsm_schedule_for_deletion(const char* path, const char* dir, const char* tag);

/* Writes the first free name of the form <directory of path>/.deleted.<base>.<n> (without a tag; n
 * as above) into out, a buffer of out_len bytes. Renames nothing, so another process may take the
 * name. Returns 0, or -1 with nothing written if path is NULL or empty, out is NULL, or out_len is
 * less than strlen(path) + 20. A name that cannot be looked at counts as free, also one that is too
 * long for a path. */
int tsm_get_deleted_path(const char* path, char* out, int out_len);

/* Returns 1 if a file name (not a path) begins with ".deleted.", else 0. NULL gives 0. */
int tsm_is_deleted_user_path(const char* name);

/* Removes a file, a symbolic link (not its target), or a directory with everything below it.
 * Returns 0 or a positive errno, that of the removal of `path` itself: ENOENT if it does not exist,
 * ENOTEMPTY if something below it could not be removed, EINVAL for NULL. A directory that cannot be
 * removed keeps its contents; everything else below `path` is gone. */
int tsm_delete_path(const char* path);

/* Removes a maildir folder: first the files in its "cur", "new" and "tmp", then these directories,
 * then the rest as tsm_delete_path does. Of these directories, one that cannot be opened is left to
 * the last step. What is not a directory is removed as by tsm_delete_path. If `path` is a link to a
 * folder, the first step works in that folder, and then the link is removed; the folder stays. If
 * "cur", "new" or "tmp" is a link, it is removed; what it leads to stays. Returns as
 * tsm_delete_path does, or -1 if path is NULL or empty or stat of it fails. So a link to nowhere
 * gives -1 and stays. */
int tsm_delete_maildir(const char* path);

/* Removes the messages of a maildir folder, which are the files in "cur", "new" and "tmp", and its
 * scan cache. The three directories stay, and so does any directory in them. If one of the three is
 * a link, it is left out. If `path` is a link to a folder, that folder is cleaned. Returns 0,
 * whatever could not be removed. Returns -1 if path is NULL or empty, if stat of it fails, and if
 * it is not a directory. */
int tsm_clean_maildir(const char* path);

/* Removes what a file kind names (enum MailUserFileKind) for the user `address`. For
 * MUF_LOCAL_HOMEPATH it is the local user.
 *   WHITELIST, BLACKLIST, BLOCKLIST, PREF_FILE, BULK, the quota flags 7 and 8: the file. -1 if it
 *     exists and cannot be unlinked. BULK names a folder, which never can.
 *   PRIMARY_ADDR, SECONDARY_ADDR: the user's address (tag included) is taken out of the opposite
 *     list of every address in this list. Then the list is removed.
 *   PREFPATH, HOMEPATH: the same for both lists. Then the directory is emptied (tsm_clean_dir) and
 *     stays. -1 if that fails. If the path is a link to a directory, the address is taken out for
 *     PRIMARY_ADDR only, and the link is removed; the directory keeps its contents.
 *   MAILPATH, LOCAL_HOMEPATH: the directory is emptied and stays, also where the path is a link to
 *     it. -1 if that fails.
 * Returns 0 otherwise, also for what does not exist and for any other kind, for which nothing is
 * done. Returns -1 if address is NULL or empty and for a lack of memory. A partner's list that
 * cannot be rewritten is passed over. The locks of the lists are those of <tessaly/maillist.h>. */
int tsl_delete_user_file(int kind, const char* address);

/* ---- Quota flags ---------------------------------------------------------------------------- */

/* The quota process keeps the state of a user in files in the user's home directory H, where other
 * programs can read it cheaply:
 *     H/quota_warning_flag   a decimal int without a line end
 *     H/quota_exceeded_flag  the same. Empty if it was set by TSMailUserId::quota_exceeded(true) or
 *                            for an archive account.
 * The meaning of the numbers is between the processes that set and read them. The archive flag is
 * the exceeded flag's file in the home of the archive account. For it, only the existence of the
 * file counts.
 *
 * All seven functions: `user` is an e-mail address (see the top). NULL gives 0 or does nothing. No
 * lock is taken: of setters that run at the same time the last one's value stays; a getter beside
 * them may read 0 or a number made of two. Failures are not reported. A file that cannot be opened
 * or removed stays as it is; one that cannot be written (a full disk) is empty. Only std::bad_alloc
 * is thrown. It passes to the caller, and no file was touched; a C caller that may run out of
 * memory is linked for exceptions, or ends there. */

/* Return the number in the flag file. Blanks (isspace in the C locale) are skipped, then a sign and
 * digits are taken as far as they go ("12abc" is 12, "0x10" is 0, "1,000" is 1), whatever the
 * process's locale. 0 if the file is missing or cannot be read, if it does not begin with a number,
 * and if the number does not fit an int. */
int tsl_get_quota_exceeded(const char* user);
int tsl_get_quota_warning(const char* user);

/* Write a number into the flag file. The file is created (mode 0666 less the umask) if missing,
 * else emptied first. The home directory is not made. */
void tsl_set_quota_exceeded(const char* user, int value);
void tsl_set_quota_warning(const char* user, int value);

/* Returns 1 if the flag file of the archive account exists, whatever is in it, else 0. */
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
 * The texts are written as they stand. A line break in one of the first three therefore makes a
 * header line of its own, and a body line "." ends the message for a submission program that goes
 * by it. A caller that takes the texts from outside checks them first. A NULL from or to stands for
 * the local postmaster: cfg_get_postmaster of <tessaly/support.h>, or, if the support library does
 * not have it or it gives nothing, "postmaster@" and the domain of this host. That is the host name
 * without its first label, or the whole host name if it has one label. A NULL subject stands for
 * "(no subject)", a NULL body for the empty text.
 *
 * Waits for the program's end and returns its status as pclose does: a wait status, 0 for exit code
 * 0, 127 * 256 if there is no such program, -1 if the caller ignores SIGCHLD or reaps the program
 * itself. Returns 0 also if nothing could be started (no shell, no memory, no descriptor, no
 * process). It is not looked at whether the program read the whole message; a program that does not
 * read it raises no SIGPIPE in the caller. The caller's signal handlers, its signal mask and its
 * other children are left alone. */
int tsl_send_quota_msg(const char* from, const char* to, const char* subject, const char* body);

/* ---- Archive quota -------------------------------------------------------------------------- */

/* Returns the gibibytes that may still be given to archive accounts: one fifth of the file system
 * that holds /var/spool (its size in whole gibibytes, divided by 5 without remainder), less the
 * quotas of the rows of configuration table 670. Rows with exactly the name `exclude` do not count;
 * NULL excludes none. The result is negative if more was given than there is. It is also 0 if the
 * size of the file system is 0 or cannot be had. */
int tsm_archive_avail_quota(const char* exclude);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop

#endif
