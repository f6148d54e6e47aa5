// doctor - a table of checks of a mailbox: what is wrong, why it matters, and how to repair it
// without losing mail.
#ifndef TSMAIL_TOOLS_DOCTOR_CHECKS_H
#define TSMAIL_TOOLS_DOCTOR_CHECKS_H

#include <sys/types.h>
#include <tessaly/MailUserId.h>

#include <ctime>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "tools/cli/failure.h"
#include "tools/work/folder.h"

namespace Tessaly::tool {

struct Survey;

struct Patient {
    TSMailUserId id;
    FolderMaker maker;
    bool can_give;  // whether the parent process may change the owner of a file
    // Notes a part that a check cannot look at. The check goes on with the others.
    std::function<void(const Failure&)> cannot_look;
    // For survey_of(). A repair makes it obsolete.
    mutable std::shared_ptr<const Survey> survey = {};
};

struct Finding {
    std::string path;
    std::string what;
    std::string repair;  // what a repair does; empty if a person has to act
    // Does the repair. A Failure if that is not possible.
    std::function<void()> mend = {};
    // Instead of mend: a file, relative to the home, that the parent process gives to the owner.
    std::string give = {};
};

// A file that was not written to for this long (in seconds) is a leftover.
constexpr std::time_t kLeftBehind = std::time_t{36} * 60 * 60;

struct Check {
    const char* name;
    const char* why;  // why a finding matters
    // Only reads. A Failure if the check cannot be made.
    std::vector<Finding> (*look)(const Patient& patient);
};

// The checks in the order to make them, repairs included: sizes come last.
std::vector<Check> all_checks();

// The parts of the table: the whole home, folders and their contents, sizes, and the user's other
// files.
std::span<const Check> home_checks();
std::span<const Check> folder_checks();
std::span<const Check> size_checks();
std::span<const Check> file_checks();

}  // namespace Tessaly::tool

#endif
