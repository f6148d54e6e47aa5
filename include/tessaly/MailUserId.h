/* Tessaly::TSMailUserId - the value that names one mailbox and composes the paths of its files.
 *
 * A plain value of a type and four strings: copyable, assignable, without virtual operations. It
 * composes texts. Only the members that say so read or write files. The header compiles as C++11.
 *
 * Conventions
 *   Paths      are composed as written below. They are absolute, except that a mailbox given by
 *              path (types 8 and 11) begins with the text that was given. Nothing is normalised or
 *              checked: a '/' or ".." in an address or a folder name goes into the path as it
 *              stands.
 *   Errors     The type MAILBOX_DIRECT has no layout. For it, the operations marked [direct throws]
 *              throw Tessaly::Exception with code 4, source file "MailUserId" and a message of the
 *              form " TSDirectMailUserId::NAME() - Not Implimented" (so spelt). Apart from that,
 *              only std::bad_alloc is thrown.
 *   Threads    Const operations on one object may run at the same time. An operation that changes
 *              the object may not run beside any other. Different objects are independent.
 */
#ifndef TESSALY_MAILUSERID_H
#define TESSALY_MAILUSERID_H

#include <tessaly/Exception.h>
#include <tessaly/mailstore.h>

#include <cstdint>
#include <string>

#pragma GCC visibility push(default)

namespace Tessaly {

/* The types of mailbox. The numbers are interface. H is the home directory, D the domain, T the
 * tilde name. A value of 13 or more behaves as MAILBOX_NONE, but equals nothing under ==. */
enum MailBoxType : std::uint32_t {
    MAILBOX_NONE = 0,           /* no home: H is empty */
    MAILBOX_USER = 1,           /* H = /var/spool/home/D/T */
    MAILBOX_DEAD_LETTER = 2,    /* H = /var/spool/dead */
    MAILBOX_SYSTEM_ARCHIVE = 3, /* H = /var/spool/home/sys_arch/T */
    MAILBOX_QUARANTINE = 4,     /* H = /var/spool/home/sys_quar/T */
    MAILBOX_SECURE_STORE = 5,   /* H = /var/spool/ibe_tmp/store/T */
    MAILBOX_USER_UNTYPED = 6,   /* H as for MAILBOX_USER */
    MAILBOX_EXTERNAL = 7,       /* H = /var/spool/home/external/<first byte of D>/D/T */
    MAILBOX_GIVEN_PATH = 8,     /* H = the text given to the constructor */
    MAILBOX_DIRECT = 9,         /* without a layout: path operations throw */
    MAILBOX_DEFERRED = 10,      /* H = /var/spool/deferd/T */
    MAILBOX_GIVEN_PATH_2 = 11,  /* H = the text given to the constructor */
    MAILBOX_LOCAL = 12          /* H = /var/spool/home.local/D/T */
};

class TSMailUserId {
  public:
    static const std::string SYSTEM_DOMAIN;               /* "system" */
    static const std::string MAIL_PATH_PREFIX;            /* "/var/spool/home" */
    static const std::string MAIL_PATH_SUFFIX;            /* "/mail" */
    static const std::string SYSTEM_DEAD_LETTER_PATH;     /* "/var/spool/dead" */
    static const std::string SYSTEM_QUARANTINE_HOME_PATH; /* "/var/spool/home/sys_quar" */
    static const std::string AdminUser;                   /* "admin" */
    static const std::string MAIL_LOCAL_PATH_PREFIX;      /* "/var/spool/home.local" */

    /* Makes an object of type MAILBOX_NONE with empty texts. */
    TSMailUserId();
    /* Sets the type MAILBOX_USER, then calls init(text). */
    TSMailUserId(const std::string& text);
    /* Sets the given type, then calls init(text). For MAILBOX_DIRECT it keeps the text as the tilde
     * name instead. */
    TSMailUserId(MailBoxType type, const std::string& text);
    ~TSMailUserId();
    TSMailUserId(const TSMailUserId&) = default;
    TSMailUserId(TSMailUserId&&) = default;
    TSMailUserId& operator=(const TSMailUserId&) = default;
    TSMailUserId& operator=(TSMailUserId&&) = default;

    /* Fills the fields from the text, by the object's type. For types 1, 3 to 7 and 12 it parses
     * the text as an e-mail address. For types 2, 8 and 11 it keeps the text as the tilde name and
     * sets the domain "system". For type 10 it keeps the text and leaves the domain as it is. For
     * types 0, 9 and from 13 up it changes nothing. */
    void init(const std::string& text);

    /* Splits an address, whatever the type. (For MAILBOX_DIRECT it only keeps the text as the tilde
     * name.) "Ann.Lee+Work@Site.Test" gives the tilde name "ann.lee~site.test", local "ann.lee",
     * tag "Work", domain "site.test".
     *
     * The first '@' becomes '~', and the domain is the text behind it. Without '@' the domain is
     * the text behind the last '~'. The tag goes from the first '+' to the last '~' and is cut out;
     * a '+' behind the last '~' starts none. The local part is the text before the last '~'. So in
     * a domain with a '~' the local part and a tag may reach into it: "a@b~c" gives domain "b~c"
     * and local "a~b". The tag keeps its letter case; all else is lower-cased byte by byte as in
     * the C locale. A text without a domain leaves the domain of the object as it is, and a text
     * without a tag leaves the tag. */
    void parse(const std::string& text);

    MailBoxType type() const;
    /* Sets the type only. The other fields stay, so the object gets the paths of the new type. */
    void type(MailBoxType type);
    /* Returns 1 for MAILBOX_USER, 2 for MAILBOX_SYSTEM_ARCHIVE, 3 for MAILBOX_QUARANTINE, else 0.
     */
    int userType() const;

    /* Return references to the fields, valid as long as the object lives unchanged. */
    const std::string& tilde_name() const;
    const std::string& tag() const;
    /* Returns a reference to the field. [direct throws, with the message of homepath()] */
    const std::string& domain() const;

    /* Returns the local part, followed by '+' and the tag unless the tag is empty or without_tag is
     * true. */
    std::string local(bool without_tag = false) const;
    /* Returns local(without_tag), followed by '@' and the domain unless the domain is empty. */
    std::string address(bool without_tag = false) const;

    /* Objects of different types are not equal. Of one type, any two are equal for types 0, 2, 9
     * and 12; for types 8, 10 and 11 their tilde names must be equal, for types 1 and 3 to 7 their
     * addresses with tag. */
    bool operator==(const TSMailUserId& other) const;
    bool operator!=(const TSMailUserId& other) const;
    /* Compares address() of both as byte strings. The type takes no part, so the order does not
     * agree with ==. */
    bool operator<(const TSMailUserId& other) const;

    /* Returns the home directory, see MailBoxType. [direct throws] */
    std::string homepath() const;
    /* Returns the maildir root: the home itself for types 2, 5, 8, 10 and 11, else the home
     * followed by "/mail" (so "/mail" for MAILBOX_NONE). [direct throws] */
    std::string mailpath() const;
    /* Returns the preference directory, home + "/pref". [direct throws, naming "perfpath"] */
    std::string prefpath() const;
    /* Returns an index folder, home + "/index/" + name. [direct throws] */
    std::string indexfolder(const std::string& name) const;
    /* Returns "/var/spool/home/sys_arch/.Trash", one folder for all mailboxes. [direct throws] */
    std::string trashfolder() const;
    /* Returns a mail folder, mailpath() + '/' + name. For MAILBOX_DIRECT it is the name itself, for
     * MAILBOX_SECURE_STORE it is mailpath() whatever the name. Throws for no type. */
    std::string mailfolder(const std::string& name) const;
    /* Returns the folder, relative to mailpath(), into which a delivery goes: the name if it is not
     * empty, else the tag if it is not empty, else "Inbox". For MAILBOX_QUARANTINE it is the name
     * or the tag followed by "/current", else "Content/current". [direct throws] */
    std::string local_maildrop(const std::string& name) const;
    /* Returns mailfolder(local_maildrop(name)). [direct throws] */
    std::string maildrop(const std::string& name) const;
    /* Returns the path of a file kind (enum MailUserFileKind), or "" for an unknown kind. [direct
     * throws, for any kind] */
    std::string fname(int kind) const;

    /* Appends the record (size bytes, count messages; negative for a removal) to
     * mailpath()/.maildirsize as tsl_append_maildirsize does, under its lock. Returns 0 always.
     * [direct throws] */
    int append_maildirsize(long long size, long long count) const;
    /* Marks the totals of the mailbox as not to be trusted: creates or empties
     * mailpath()/.maildirsize.dirty. Takes no lock. A failure is ignored. [direct throws] */
    void quota_reset() const;
    /* Returns the size in kilobytes of the folder mailfolder(folder) and the folders below it: the
     * sums of their .ts_folder_size files, each rounded up. The files are read as by
     * tsl_read_mail_folder_size, under its lock and with its mark for damage. A missing file counts
     * 0. Folders below are the entries that tsl_is_maildir_folder accepts, except names that begin
     * with '.' and cur, new and tmp in any letter case. Links are followed, but a folder that the
     * walk is inside of does not count again. A folder whose path has more than 4079 bytes does not
     * count. Returns 0 for an empty name and for what is not a folder. One directory is open at a
     * time. [direct throws] */
    unsigned long long getFolderSize(const std::string& folder) const;

    /* Returns whether fname(MUF_QUOTA_EXCEEDED_FLAG) exists, whatever is in it. (The function
     * tsl_get_quota_exceeded returns the number in it.) [direct throws] */
    bool quota_exceeded() const;
    /* True creates or empties that file, false removes it. Nothing is written into it. Takes no
     * lock. A failure is ignored. [direct throws, naming "quota_exceeded(flag)"] */
    void quota_exceeded(bool flag) const;
    /* Returns whether a quota notice is due. The stamp fname(MUF_ALERT_NOTIFICATION) is a file of
     * which only the modification time counts. A notice is due if the stamp is missing, cannot be
     * looked at, or is at least 86401 seconds old. The stamp is then created or renewed, so that
     * the next notice is due a day later, whether this one is sent or not. A stamp from the future
     * counts as fresh. If the stamp cannot be made, a notice is due at every call. Takes no lock:
     * two callers at the same moment may both get true. [direct throws] */
    bool alert_notification() const;

  private:
    MailBoxType type_;
    std::string domain_;
    std::string local_;
    std::string tag_;
    std::string tilde_name_;
};

}  // namespace Tessaly

#pragma GCC visibility pop

#endif
