// Dovecot as a peer, set up for speed, on its own mailboxes.
#ifndef TSMAIL_BENCH_DOVECOT_H
#define TSMAIL_BENCH_DOVECOT_H

#include <string>
#include <vector>

#include "bench/bench.h"

namespace bench {

// The configuration file that Dovecot's programs are started with. Made anew.
std::string dovecot_conf();
// The program's version.
std::vector<std::string> dovecot_version();
// The environment of a program that works for a user with this home.
std::vector<std::string> home_is(const std::string& home);

// Adds the column "doveadm", if this machine has it: `doveadm quota recalc` for each of so many
// mailboxes of so many messages, with the sizes in the names as Dovecot writes them. Its value is
// the sum that it counted.
void add_doveadm(Item& item, long mailboxes, long messages);

}  // namespace bench

#endif
