// What one walk over a home finds for several checks. To list the directories and to ask for the
// status of each message takes most of a doctor's time.
#ifndef TSMAIL_TOOLS_DOCTOR_SURVEY_H
#define TSMAIL_TOOLS_DOCTOR_SURVEY_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "tools/doctor/checks.h"
#include "tools/work/tag.h"

namespace Tessaly::tool {

// A file or directory whose owner is not the home's.
struct Stranger {
    std::string path;  // relative to the home
    uid_t owner;
    bool is_single_file;  // a regular file with one name
};

struct Survey {
    std::vector<std::string> links;  // relative to the home
    std::vector<Stranger> strangers;
    // The messages in cur and new, by the folder's path. A folder behind a link has no entry: the
    // walk follows no link.
    std::map<std::string, JudgedNames> names;
};

// Walks at the first call for a patient. Notes the directories that cannot be read. A Failure if
// the home cannot be read.
const Survey& survey_of(const Patient& patient);

}  // namespace Tessaly::tool

#endif
