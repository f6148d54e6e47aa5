/* tessaly/userpref.h - the preferences of a mail user: record, description and file.
 *
 * A user's preferences live in memory in one plain record, struct user_pref, and on disk in a text
 * file, <preference directory>/<tilde name>.pref (MUF_PREF_FILE of <tessaly/mailstore.h>), one line
 * "<key>=<value>\n" a preference. pref_properties describes both: each row names a key, its type
 * and its place in the record. Compiles as C99 and as C++11.
 *
 * Conventions
 *   Records    are allocated by the caller, copied by value, own nothing. The layout is interface.
 *              Texts in a record are NUL-terminated.
 *   Users      e-mail addresses ("ann@site.test") of ordinary users, NUL-terminated, composed into
 *              paths as they stand; a caller that takes addresses from outside checks them first.
 *   Arguments  read_user_pref takes the record first, read_user_pref_all and store_user_pref take
 *              the user first.
 *   Results    int, 0 for success unless stated. After a -1 of a function that works on the file
 *              errno is that of the failed system call; a NULL leaves it alone.
 *   NULL       is answered where a function says so; elsewhere it must not be passed.
 *   Errors     nothing is printed, logged or thrown; a lack of memory gets the failure answer.
 *   Locks      reading takes the file's shared, storing its exclusive lock (open_and_lock_file of
 *              <tessaly/support.h>), waited for without a limit and held until the function
 *              returns: a reader never sees two stores mixed.
 *   Threads    every function may be called from several threads at once for different records.
 *   fork       nothing is kept between calls; descriptors are close-on-exec.
 */
#ifndef TESSALY_USERPREF_H
#define TESSALY_USERPREF_H

#include <stdint.h>
#include <stdio.h>

#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

/* ---- The record ----------------------------------------------------------------------------- */

/* The preferences, in the record's order; the file has an order of its own. Flags hold 0 or 1. What
 * the codes and units mean is the business of the programs that use them; the library stores them.
 * Defaults stand behind the fields; where none is given it is 0 or the empty text. */
typedef struct user_pref {
    int32_t default_sort; /* = 1 */
    int32_t npage;        /* = 25; messages a page, a file's is read as at most 100 */
    uint8_t dspam;        /* = 1 */
    uint8_t autotrain;    /* = 1 */
    uint8_t autoreply;
    uint8_t ar_to_me_only; /* = 1 */
    char ar_start_date[256];
    char ar_end_date[256];
    char ar_subject[256]; /* = "[Auto Reply]" */
    int32_t ar_action;    /* = 1 */
    int32_t ar_level;     /* = 1 */
    int32_t ar_interval;  /* = 7 */
    uint8_t autoforward;
    uint8_t signature;
    uint8_t whitelist;
    uint8_t keepcopy;
    uint8_t date;
    uint8_t size;
    uint8_t spamreport; /* = 1 */
    int32_t timezone;   /* a time zone's number in the system's configuration */
    char uname[256];
    char remail[256];
    uint16_t web_idle_timeout; /* = 1 */
    char lang[256];            /* = "en" */
    int32_t theme;
    int32_t forward_option;  /* = 1 */
    uint8_t message_preview; /* = 1 */
    int32_t calendar_time_format;
    int32_t calendar_default_view; /* = 1 */
    char alternate_id[1276];
    char default_id[256];
    int32_t message_check_interval; /* = 5 */
    uint8_t show_remote_content;    /* = 1 */
    int32_t page_size;              /* = 25 */
    uint8_t notification;
} user_pref;

/* Zeroes the whole record, padding included, sets the defaults above and returns p. */
user_pref* get_default_user_pref(user_pref* p);

/* The same, with `timezone` set to the system's configured time zone (cfg_get_TZ). */
user_pref* get_default_user_pref_with_tz(user_pref* p);

/* ---- The description ------------------------------------------------------------------------ */

/* Type codes; they index pref_data_convertor. */
enum pref_type {
    PREF_TYPE_INT = 0,    /* int32_t, decimal */
    PREF_TYPE_BOOL = 1,   /* uint8_t, written as 0 or 1 */
    PREF_TYPE_STRING = 2, /* text of at most size - 1 bytes and its NUL */
    PREF_TYPE_UINT16 = 3  /* uint16_t, decimal */
};

typedef struct pref_property {
    const char* name; /* the key */
    uint32_t type;    /* enum pref_type */
    uint32_t offset;  /* of the field in struct user_pref */
    uint32_t size;    /* of the field, in bytes */
} pref_property;

/* One row a preference, in the order of the file's lines, ended by a row of zeros. */
extern const pref_property pref_properties[];

/* Turns the text behind a line's '=' (line end included) into the field. 0, or -1 if field or text
 * is NULL. A field of size 0 is left alone.
 *   PREF_TYPE_INT, PREF_TYPE_UINT16  as strtoll in base 10 reads it (blanks in front skipped,
 *       whatever follows the digits ignored, no digits: 0, saturated at 64 bits); the low bytes of
 *       the number that fit the field are kept.
 *   PREF_TYPE_BOOL  as strtol reads it; 1 if one of the number's low 8 bits is set, else 0 (so
 *       "256" is 0).
 *   PREF_TYPE_STRING  the first size - 1 bytes; white space at their end is removed. */
typedef int (*pref_text_to_field)(void* field, unsigned int size, const char* text);

/* Writes the line "<key>=<value>\n" of a field as snprintf(line, capacity, ...) does: cut at
 * capacity - 1 bytes and NUL-terminated, so a line that is cut has no line end; a capacity of 0
 * writes nothing. 0, also for a line that was cut; -1, nothing written, if one of the pointers is
 * NULL. A text field must be NUL-terminated: its size is not asked for. */
typedef int (*pref_field_to_text)(char* line, unsigned int capacity, const char* key,
                                  const void* field);

/* The generic element of pref_data_convertor; cast it to the entry's own signature to call it
 * (through void (*)(void) where the compiler minds casts between function types). */
typedef int (*pref_convertor)(void);

/* Two functions a type: entry 2 * type is its pref_text_to_field, entry 2 * type + 1 its
 * pref_field_to_text. */
extern const pref_convertor pref_data_convertor[8];

/* ---- The file ------------------------------------------------------------------------------- */

/* Applies one line "<key>=<value>" to the record; blanks and tabs may stand between key and '='. A
 * line that begins with no known key, or has no '=' there, changes nothing. The line ends at its
 * NUL; it is not written to.
 * 0: done, whether a key matched or not. 2: p or line is NULL. 3: an empty line ("\n..."), or a
 * known key directly followed by the line's end ("\n", "\r" or NUL). */
int parse_pref_line(user_pref* p, char* line);

/* Applies every line of a stream, from its position to its end, then sets an `npage` above 99 to
 * 100. Fields without a line keep their values; of several lines with one key the last counts; a
 * line ends for its field at a NUL byte in it. 0, or -1 if stream is NULL. A read error (or a lack
 * of memory for a line) ends the reading like the end of the stream; ferror(stream) tells of the
 * former. The stream is not closed. With p NULL one line is read and nothing else happens. */
int fill_user_pref_struct(user_pref* p, FILE* stream);

/* Applies the user's preference file to *p as fill_user_pref_struct does; what the file does not
 * mention keeps its value. 0, or -1, *p untouched, if the file does not exist or cannot be opened,
 * locked or read. */
int read_user_pref(user_pref* p, const char* user);

/* Fills *p with the defaults (without the system's time zone), then read_user_pref. Its result: on
 * -1 the record holds the defaults; -1 too, *p untouched, if user is NULL or empty or p is NULL. */
int read_user_pref_all(const char* user, user_pref* p);

/* Writes the whole record to the user's preference file, which is created (mode 0666 less the
 * umask, its directory with mode 0700) or emptied and written anew, with one write.
 * 0: every byte was accepted and the file was closed without an error. -1: p or user is NULL, or a
 * directory, open, lock, write or close failed; the file then is as it was (not opened), or holds a
 * beginning of the new text. The data is not forced to the disk.
 *
 * What does not come back as it was: white space at the end of a text is lost on reading; a flag
 * other than 0 becomes 1; an `npage` above 99 becomes 100; a line feed in a text breaks its line in
 * two; a line is cut at 510 bytes and loses its line end, so that the next line becomes part of its
 * value (only `alternate_id` can be as long). A text field without NUL is written without its last
 * byte. */
int store_user_pref(const char* user, const user_pref* p);

/* The user's time zone: that of the preference file; the system's if the file does not name one.
 * 12 if user is NULL or empty, and if the file does not exist or cannot be read. */
int get_user_pref_lite_timezone(const char* user);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop

#endif
