/* tessaly/userpref.h - the preferences of a mail user: record, description and file.
 *
 * In memory the preferences of a user are one plain record, struct user_pref. On disk they are a
 * text file, <preference directory>/<tilde name>.pref (MUF_PREF_FILE of <tessaly/mailstore.h>),
 * with one line "<key>=<value>\n" for each preference. pref_properties describes both: each row
 * names a key, its type and its place in the record. The header compiles as C99 and as C++11.
 *
 * Conventions
 *   Records    The caller allocates them. They are copied by value and own nothing. The layout is
 *              interface. Texts in a record are NUL-terminated.
 *   Users      A user is the e-mail address of an ordinary user ("ann@site.test"), NUL-terminated.
 *              It goes into paths as it stands. A caller that takes addresses from outside checks
 *              them first.
 *   Arguments  read_user_pref takes the record first. read_user_pref_all and store_user_pref take
 *              the user first.
 *   Results    An int is 0 for success unless a function states something else. After a -1 of a
 *              function that works on the file, errno is that of the failed system call. A NULL
 *              leaves errno alone.
 *   NULL       A function states how it answers NULL. Elsewhere NULL must not be passed.
 *   Errors     Nothing is printed, logged or thrown. A lack of memory gets the failure answer.
 *   Locks      Reading takes the shared lock of the file, storing takes the exclusive one
 *              (open_and_lock_file of <tessaly/support.h>). The lock is waited for without a limit
 *              and held until the function returns, so that a reader never sees a mixture of two
 *              stores.
 *   Threads    Every function may be called from several threads at once for different records.
 *   fork       Nothing is kept between calls. Descriptors are close-on-exec.
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

/* The preferences in the order of the record; the file has an order of its own. Flags hold 0 or 1.
 * The programs that use the codes and units define their meaning; the library only stores them. The
 * default of a field stands behind it; without one it is 0 or the empty text. */
typedef struct user_pref {
    int32_t default_sort; /* = 1 */
    int32_t npage;        /* = 25; messages per page, at most 100 when read from a file */
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

/* Zeroes the whole record, padding included, sets the defaults above and returns p. p must not be
 * NULL. */
user_pref* get_default_user_pref(user_pref* p);

/* Does the same, and sets `timezone` to the configured time zone of the system (cfg_get_TZ). */
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

/* One row for each preference, in the order of the lines of the file, ended by a row of zeros. */
extern const pref_property pref_properties[];

/* Converts the text behind the '=' of a line (line end included) into the field. Returns 0, or -1
 * if field or text is NULL. A field of size 0 is left alone.
 *
 * PREF_TYPE_INT and PREF_TYPE_UINT16: the number is read as by strtoll in base 10. Blanks in front
 * are skipped, what follows the digits is ignored, a text without digits is 0, and a number beyond
 * 64 bits is the nearest that fits. The field keeps the low bytes of the number.
 *
 * PREF_TYPE_BOOL: the number is read as by strtol. The field is 1 if one of the low 8 bits of the
 * number is set, else 0 (so "256" is 0).
 *
 * PREF_TYPE_STRING: the first size - 1 bytes are kept; white space at their end is removed. */
typedef int (*pref_text_to_field)(void* field, unsigned int size, const char* text);

/* Writes the line "<key>=<value>\n" of a field as snprintf(line, capacity, ...) does: cut at
 * capacity - 1 bytes and NUL-terminated. A line that is cut has no line end. A capacity of 0 writes
 * nothing. Returns 0, also for a line that was cut. Returns -1 with nothing written if one of the
 * pointers is NULL. A text field must be NUL-terminated; its size is not known here. */
typedef int (*pref_field_to_text)(char* line, unsigned int capacity, const char* key,
                                  const void* field);

/* The generic element of pref_data_convertor. To call an entry, cast it to the entry's own
 * signature (by way of void (*)(void) if the compiler warns of casts between function types). */
typedef int (*pref_convertor)(void);

/* Two functions for each type: entry 2 * type is its pref_text_to_field, entry 2 * type + 1 its
 * pref_field_to_text. */
extern const pref_convertor pref_data_convertor[8];

/* ---- The file ------------------------------------------------------------------------------- */

/* Applies one line "<key>=<value>" to the record. Blanks and tabs may stand between the key and the
 * '='. A line that does not begin with a known key, or has no '=' behind it, changes nothing. The
 * line ends at its NUL and is not written to. Returns 0 if the line was applied or no key matched.
 * Returns 2 if p or line is NULL. Returns 3 for a line that begins with "\n", and for a known key
 * that is directly followed by "\n", "\r" or NUL. */
int parse_pref_line(user_pref* p, char* line);

/* Applies every line of a stream, from its position to its end. Then it sets an `npage` above 99 to
 * 100. A field without a line keeps its value. Of several lines with one key the last one counts. A
 * NUL byte in a line ends the line for its field. Returns 0, or -1 if stream is NULL. A read error
 * or a lack of memory for a line ends the reading as the end of the stream does; ferror(stream)
 * tells of the former. The stream stays open. If p is NULL, one line is read and nothing else
 * happens. */
int fill_user_pref_struct(user_pref* p, FILE* stream);

/* Applies the user's preference file to *p as fill_user_pref_struct does. What the file does not
 * mention keeps its value. Returns 0, or -1 with *p untouched if the file does not exist or cannot
 * be opened, locked or read. An empty user has a path and so, perhaps, a file. p and user must not
 * be NULL. */
int read_user_pref(user_pref* p, const char* user);

/* Fills *p with the defaults (without the system's time zone), calls read_user_pref and returns its
 * result. On -1 the record holds the defaults. Returns -1 with *p untouched if user is NULL or
 * empty or p is NULL. */
int read_user_pref_all(const char* user, user_pref* p);

/* Writes the whole record to the user's preference file with one write. The file is created (mode
 * 0666 less the umask, its directory with mode 0700) if missing, else emptied first. Returns 0 if
 * every byte was written; the result of closing the file is not looked at, and the data is not
 * flushed to the disk. Returns -1 if p or user is NULL, or if making the directory, opening,
 * locking or writing failed. The file is then as it was (not opened), or holds a beginning of the
 * new text.
 *
 * Some values do not come back as they were. White space at the end of a text is lost on reading. A
 * flag other than 0 becomes 1. An `npage` above 99 becomes 100. A line feed in a text breaks its
 * line in two. A line is cut at 510 bytes and loses its line end, so that the next line becomes
 * part of its value; only `alternate_id` can be as long. A text field without a NUL is written
 * without its last byte. */
int store_user_pref(const char* user, const user_pref* p);

/* Returns the time zone of the user: that of the preference file, or the system's if the file does
 * not name one. 12 if user is NULL or empty, and if the file does not exist or cannot be read. */
int get_user_pref_lite_timezone(const char* user);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop

#endif
