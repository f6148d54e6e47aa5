/* Tessaly::TSMailUserId - the value that names one mailbox and knows where everything of it lies.
 *
 * A plain value of five strings and numbers: copyable, assignable, no virtual operations. It only
 * composes texts; unless a member says that it reads or writes files, nothing touches the file
 * system. Compiles as C++11.
 *
 * Conventions
 *   Paths      absolute, built as written below; nothing is normalised or checked (a '/' or ".." in
 *              an address or a folder name goes into the path as it stands).
 *   Errors     for the type MAILBOX_DIRECT, which has no layout, the operations marked [direct
 *              throws] throw Tessaly::Exception with code 4, source file "MailUserId" and a message
 *              of the form " TSDirectMailUserId::NAME() - Not Implimented" (so spelt). Apart from
 *              std::bad_alloc nothing else is thrown.
 *   Threads    const operations on one object may run at the same time; a changing one may not run
 *              beside any other. Different objects are independent.
 */
#ifndef TESSALY_MAILUSERID_H
#define TESSALY_MAILUSERID_H

#include <tessaly/Exception.h>
#include <tessaly/mailstore.h>

#include <cstdint>
#include <string>

#pragma GCC visibility push(default)

namespace Tessaly {

/* The kinds of mailbox. The numbers are interface. H is the home directory, D the domain, T the
 * tilde name. A value from 13 up behaves as MAILBOX_NONE and equals nothing under ==. */
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
    MAILBOX_DIRECT = 9,         /* no layout: path operations throw */
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

    /* Type MAILBOX_NONE, all texts empty. */
    TSMailUserId();
    /* Type MAILBOX_USER, then init(text). */
    TSMailUserId(const std::string& text);
    /* The given type, then init(text). MAILBOX_DIRECT keeps the text as its tilde name. */
    TSMailUserId(MailBoxType type, const std::string& text);
    ~TSMailUserId();
    TSMailUserId(const TSMailUserId&) = default;
    TSMailUserId(TSMailUserId&&) = default;
    TSMailUserId& operator=(const TSMailUserId&) = default;
    TSMailUserId& operator=(TSMailUserId&&) = default;

    /* Fills the fields from the text by the type that the object has now. Types 1, 3 to 7 and 12
     * parse an e-mail address; types 2, 8 and 11 keep the text as tilde name and set the domain
     * "system"; type 10 keeps the text and leaves the domain; types 0, 9 and from 13 up: nothing
     * changes. */
    void init(const std::string& text);

    /* Splits an address, whatever the type (MAILBOX_DIRECT: only tilde_name := text).
     *
     * The first '@' separates local part and domain; without one the last '~' does. A '+' in the
     * local part starts the tag, which is cut out and keeps its letter case; all else is
     * lower-cased byte by byte as in the C locale. A text without a domain leaves the domain that
     * the object had, one without a tag leaves the tag. "Ann.Lee+Work@Site.Test" gives the tilde
     * name "ann.lee~site.test", local "ann.lee", tag "Work", domain "site.test". */
    void parse(const std::string& text);

    MailBoxType type() const;
    /* Sets the type only; the other fields stay, so the object gets the new type's paths. */
    void type(MailBoxType type);
    /* 1 for MAILBOX_USER, 2 for MAILBOX_SYSTEM_ARCHIVE, 3 for MAILBOX_QUARANTINE, else 0. */
    int userType() const;

    /* References to the fields, valid as long as the object lives unchanged. */
    const std::string& tilde_name() const;
    const std::string& tag() const;
    /* [direct throws] with the message of homepath(). */
    const std::string& domain() const;

    /* The local part, followed by '+' and the tag unless that is empty or without_tag is true. */
    std::string local(bool without_tag = false) const;
    /* local(without_tag), followed by '@' and the domain unless that is empty. */
    std::string address(bool without_tag = false) const;

    /* Equal types needed, and: types 0, 2, 9 and 12 nothing more (any two local ids are equal);
     * types 8, 10, 11 the same tilde name; types 1 and 3 to 7 the same address with tag. */
    bool operator==(const TSMailUserId& other) const;
    bool operator!=(const TSMailUserId& other) const;
    /* Order of address() as byte strings; the type takes no part, so it does not agree with ==. */
    bool operator<(const TSMailUserId& other) const;

    /* The home directory, see MailBoxType. [direct throws] */
    std::string homepath() const;
    /* The maildir root: the home itself for types 2, 5, 8, 10 and 11, else the home followed by
     * "/mail" (so "/mail" for MAILBOX_NONE). [direct throws] */
    std::string mailpath() const;
    /* The preference directory, home + "/pref". [direct throws, naming "perfpath"] */
    std::string prefpath() const;
    /* An index folder, home + "/index/" + name. [direct throws] */
    std::string indexfolder(const std::string& name) const;
    /* "/var/spool/home/sys_arch/.Trash", one for all mailboxes. [direct throws] */
    std::string trashfolder() const;
    /* A mail folder, mailpath() + '/' + name; for MAILBOX_DIRECT the name itself, for
     * MAILBOX_SECURE_STORE mailpath() whatever the name. Never throws for a type. */
    std::string mailfolder(const std::string& name) const;
    /* The folder, relative to mailpath(), into which a delivery goes: name if non-empty, else the
     * tag if non-empty, else "Inbox"; for MAILBOX_QUARANTINE name or tag followed by "/current",
     * else "Content/current". [direct throws] */
    std::string local_maildrop(const std::string& name) const;
    /* mailfolder(local_maildrop(name)). [direct throws] */
    std::string maildrop(const std::string& name) const;
    /* The path of a file kind (enum MailUserFileKind), "" for an unknown one. [direct throws, for
     * any kind] */
    std::string fname(int kind) const;

    /* Appends the record (size bytes, count messages; negative for a removal) to
     * mailpath()/.maildirsize as tsl_append_maildirsize does, lock included. 0 always.
     * [direct throws] */
    int append_maildirsize(long long size, long long count) const;
    /* Marks the mailbox's totals as untrusted: creates or empties mailpath()/.maildirsize.dirty.
     * Takes no lock; a failure is ignored. [direct throws] */
    void quota_reset() const;
    /* The size in kilobytes of the folder mailfolder(folder) and the folders below it: the sums of
     * their .ts_folder_size files (read as by tsl_read_mail_folder_size, with its lock and its mark
     * for damage; a missing file counts 0), each rounded up on its own. Folders below are the
     * entries that tsl_is_maildir_folder accepts, but for names that begin with '.' and cur, new
     * and tmp in any letter case. Links are followed, but a folder that the walk is inside of does
     * not count again; nor does what has a path of more than 4095 bytes. 0 for an empty name and
     * for what is no folder. One directory is open at a time. [direct throws] */
    unsigned long long getFolderSize(const std::string& folder) const;

    /* Whether fname(MUF_QUOTA_EXCEEDED_FLAG) exists, whatever is in it; tsl_get_quota_exceeded asks
     * for the number there instead. [direct throws] */
    bool quota_exceeded() const;
    /* True creates or empties that file, false removes it; nothing is written into it. No lock; a
     * failure is ignored. [direct throws, naming "quota_exceeded(flag)"] */
    void quota_exceeded(bool flag) const;
    /* Whether a quota notice is due: true if the time stamp fname(MUF_ALERT_NOTIFICATION), a file
     * that counts by its modification time only, is missing or at least 86401 seconds old. The
     * stamp is then created or renewed, so the next true is a day away whether a notice is sent or
     * not. A stamp from the future counts as fresh. If the stamp cannot be made, the answer is true
     * each time. No lock: two who ask at the same moment may both get true. [direct throws] */
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
