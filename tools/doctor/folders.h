// What the checks of folders and of sizes share.
#ifndef TSMAIL_TOOLS_DOCTOR_FOLDERS_H
#define TSMAIL_TOOLS_DOCTOR_FOLDERS_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "tools/doctor/checks.h"

namespace Tessaly::tool {

// Looks at a folder of the patient, given by its name and its path.
using LookAtFolder = std::function<void(const std::string& folder, const std::string& path)>;
// Calls look for each folder. Notes those at which it fails, and returns their number.
std::size_t look_at_each_folder(const Patient& patient, const LookAtFolder& look);

}  // namespace Tessaly::tool

#endif
