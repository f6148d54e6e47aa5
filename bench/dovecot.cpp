#include "bench/dovecot.h"

#include <filesystem>

namespace bench {

namespace {

namespace fs = std::filesystem;
using std::string;

constexpr char kConf[] = "/var/spool/bench/dovecot.conf";
constexpr char kUser[] = "ann@site.test";
constexpr char kDoveadm[] = "/usr/bin/doveadm";

constexpr char kRecalcEach[] =
    "i=0; while [ $i -lt $2 ]; do HOME=$1/u$i doveadm -c $3 quota recalc; i=$((i + 1)); done";

std::vector<string> recalc_each(const string& homes, long mailboxes) {
    return {"/usr/bin/sh", "-c", kRecalcEach, "sh", homes, std::to_string(mailboxes), kConf};
}

string maildir(const string& homes, long number) {
    return homes + "/u" + std::to_string(number) + "/Maildir";
}

string size_file(const string& homes, long number) {
    return maildir(homes, number) + "/maildirsize";
}

string make_homes(const string& name, long mailboxes, long messages) {
    const string homes = fresh_dir(name);
    for (long i = 0; i < mailboxes; ++i) {
        fill_folder(maildir(homes, i), messages, {.before_size = ",S=", .behind_size = ""});
    }
    return homes;
}

}  // namespace

// Its own layout, set up for speed: no index files.
string dovecot_conf() {
    write_file(kConf,
               "mail_location = maildir:~/Maildir:INDEX=MEMORY\n"
               "mail_plugins = quota\n"
               "plugin {\n  quota = maildir:User quota\n  quota_rule = *:storage=100G\n}\n"
               "postmaster_address = ann@site.test\n"
               "log_path = /tmp/dovecot.log\n"
               "stats_writer_socket_path =\n"
               "base_dir = /tmp/dovecot-run\n");
    return kConf;
}

std::vector<string> dovecot_version() { return {"/usr/sbin/dovecot", "--version"}; }

std::vector<string> home_is(const string& home) {
    return {"HOME=" + home, string("USER=") + kUser, string("LOGNAME=") + kUser};
}

void add_doveadm(Item& item, long mailboxes, long messages) {
    if (find_program(kDoveadm).empty()) return;
    dovecot_conf();
    const string homes = make_homes("recalc", mailboxes, messages);
    const string empty = make_homes("recalc_empty", mailboxes, 0);
    const auto prepare = [=] {
        for (long i = 0; i < mailboxes; ++i) {
            fs::remove(size_file(homes, i));
            fs::remove(size_file(empty, i));
        }
    };
    const auto check = [=] {
        long long sum = 0;
        for (long i = 0; i < mailboxes; ++i) sum += total_of(size_file(homes, i));
        return sum;
    };
    add_program(item, "doveadm",
                {recalc_each(homes, mailboxes),
                 recalc_each(empty, mailboxes),
                 "/dev/null",
                 dovecot_version(),
                 {},
                 home_is(homes)},
                prepare, check);
}

}  // namespace bench
