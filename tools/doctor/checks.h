// doctor - a table of checks of a mailbox: what is wrong, why it matters, and how to mend it
// without losing mail.
#ifndef TSMAIL_TOOLS_DOCTOR_CHECKS_H
#define TSMAIL_TOOLS_DOCTOR_CHECKS_H

#include <sys/types.h>
#include <tessaly/MailUserId.h>

#include <ctime>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "tools/work/folder.h"

namespace Tessaly::tool {

struct Patient {
    TSMailUserId id;
    FolderMaker maker;
};

struct Finding {
    std::string path;
    std::string what;
    std::string repair;  // what a repair does; empty if a person has to look
    // Does it. A Failure if it cannot.
    std::function<void()> mend = {};
};

// What nobody has written to for so long is nobody's any more.
constexpr std::time_t kLeftBehind = std::time_t{36} * 60 * 60;

struct Check {
    const char* name;
    const char* why;  // what is found matters
    // Reads only. A Failure if it cannot look.
    std::vector<Finding> (*look)(const Patient& patient);
};

// In the order in which they are to be made if things are mended between them: sizes come last.
std::vector<Check> all_checks();

// The two halves of the table: what is in and of the folders, and the user's other files.
std::span<const Check> folder_checks();
std::span<const Check> size_checks();
std::span<const Check> file_checks();

}  // namespace Tessaly::tool

#endif
