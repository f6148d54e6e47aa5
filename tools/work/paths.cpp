#include "tools/work/paths.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

using std::string;

string in(const string& directory, std::string_view name) {
    string path = directory;
    return path.append("/").append(name);
}

std::vector<string> names_in(const string& directory) {
    std::vector<string> names;
    std::error_code error;
    std::filesystem::directory_iterator entry(directory, error);
    for (; !error && entry != end(entry); entry.increment(error)) {
        names.push_back(entry->path().filename());
    }
    if (error && error.value() != ENOENT && error.value() != ENOTDIR) {
        throw system_failure(printable(directory), error.value());
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace Tessaly::tool
