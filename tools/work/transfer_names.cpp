#include "tools/work/transfer_names.h"

#include <climits>

#include "tools/work/folder.h"
#include "tools/work/utf7.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

bool is_component(string_view name) {
    return !name.empty() && name.front() != '.' && name.find('/') == string_view::npos &&
           name.find('\0') == string_view::npos;
}

// As it stands, unless import would take it for modified UTF-7.
std::optional<string> mbox_component(const string& name, string_view suffix) {
    const auto written =
        name.find('&') == string::npos ? std::optional<string>(name) : to_utf7(name);
    if (!is_component(name) || !written ||
        written->size() + suffix.size() + kPartSuffix.size() > NAME_MAX) {
        return std::nullopt;
    }
    return *written + string(suffix);
}

}  // namespace

std::optional<string> maildir_name(const std::vector<string>& folder) {
    if (folder.size() == 1 && folder.front() == system_folders().front()) return ".";
    string text;
    for (const string& name : folder) {
        const auto encoded = to_utf7(name);
        if (!is_component(name) || !encoded) return std::nullopt;
        text += '.' + *encoded;
    }
    return text.empty() || text.size() > NAME_MAX ? std::nullopt : std::optional(text);
}

std::optional<string> mbox_name(const std::vector<string>& folder) {
    string path;
    for (std::size_t i = 0; i < folder.size(); ++i) {
        const bool last = i + 1 == folder.size();
        const auto component = mbox_component(folder[i], last ? kMboxSuffix : kBelowSuffix);
        if (!component) return std::nullopt;
        path += *component + (last ? "" : "/");
    }
    return path.empty() || path.size() >= PATH_MAX ? std::nullopt : std::optional(path);
}

}  // namespace Tessaly::tool
