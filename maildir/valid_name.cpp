// The test for folder names given by people.
#include <tessaly/mailstore.h>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include <algorithm>
#include <iterator>
#include <string_view>
#include <vector>

#include "base/store_names.h"

namespace {

using std::string_view;

constexpr string_view kForbidden = "/\\?*:\"<>|";

bool is_sub_dir(string_view name) {
    using Tessaly::names::kSubDirs;
    return std::find(std::begin(kSubDirs), std::end(kSubDirs), name) != std::end(kSubDirs);
}

tsl_name_result judge_component(string_view name, unsigned flags) {
    if (name.empty() || name.front() == '.') return TSL_NAME_MALFORMED;
    if (name.find_first_of(kForbidden) != string_view::npos) return TSL_NAME_MALFORMED;
    return (flags & TSL_NAME_REFUSE_SUB_DIRS) != 0 && is_sub_dir(name) ? TSL_NAME_RESERVED
                                                                       : TSL_NAME_VALID;
}

// The first bad component decides.
tsl_name_result judge(string_view name, unsigned flags) {
    std::vector<string_view> components{name};
    if ((flags & TSL_NAME_IS_PATH) != 0) {
        boost::algorithm::split(components, name, boost::algorithm::is_any_of("/"));
    }
    for (const string_view component : components) {
        if (const tsl_name_result result = judge_component(component, flags);
            result != TSL_NAME_VALID) {
            return result;
        }
    }
    return TSL_NAME_VALID;
}

}  // namespace

int tsl_is_valid_mailbox_name(const char* name, unsigned int flags) {
    if (name == nullptr) return TSL_NAME_MALFORMED;
    try {
        return judge(name, flags);
    } catch (...) {  // a lack of memory; the splitting declares more than base::no_throw answers
        return TSL_NAME_MALFORMED;
    }
}
