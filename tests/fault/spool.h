// The spool that operations run on: one mailbox to work on, a neighbour that must stay as it is.
#ifndef TSMAIL_TESTS_FAULT_SPOOL_H
#define TSMAIL_TESTS_FAULT_SPOOL_H

#include <map>
#include <string>

namespace fault {

// The content of a directory: path -> type, mode and content. Times are not part of it.
using Tree = std::map<std::string, std::string>;

#define FAULT_DOMAIN "/var/spool/home/fault.test"
#define FAULT_HOME FAULT_DOMAIN "/ann~fault.test"
#define FAULT_MAIL FAULT_HOME "/mail"
#define FAULT_INBOX FAULT_MAIL "/Inbox"
#define FAULT_PREF FAULT_HOME "/pref"
#define FAULT_WORK "/var/spool/work"        // for operations on bare paths
#define FAULT_SYSTEM "/var/spool/etc/mail"  // the system-wide lists

constexpr const char* kUser = "ann@fault.test";
constexpr const char* kPartner = "cid@fault.test";

// Makes the neighbour's mailbox (bob@fault.test).
void make_neighbour();
// Removes everything but the neighbour.
void clear_spool();
// Everything in the spool except for the neighbour, and the neighbour alone.
Tree spool_tree();
Tree neighbour_tree();

// The differences of the two trees, one path on each line.
std::string difference(const Tree& is, const Tree& should_be);

}  // namespace fault

#endif
