#include "tools/doctor/checks.h"

namespace Tessaly::tool {

std::vector<Check> all_checks() {
    std::vector<Check> all;
    for (const auto checks : {home_checks(), file_checks(), folder_checks(), size_checks()}) {
        all.insert(all.end(), checks.begin(), checks.end());
    }
    return all;
}

}  // namespace Tessaly::tool
