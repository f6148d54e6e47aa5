#include "tools/work/size_file.h"

#include <cerrno>

#include "base/locked_stream.h"
#include "base/number.h"
#include "base/store_names.h"
#include "tools/work/paths.h"

namespace Tessaly::tool {

using std::string;

string folder_size_file(const string& folder) { return in(folder, names::kFolderSize); }

string mailbox_size_file(const TSMailUserId& id) { return in(id.mailpath(), names::kMaildirSize); }

string dirty_marker(const TSMailUserId& id) { return in(id.mailpath(), names::kDirtyMarker); }

void add(Totals& sum, const Totals& more) {
    base::add_up(sum.size, more.size);
    base::add_up(sum.count, more.count);
}

Totals shown(const Totals& totals) { return totals.damaged ? Totals{{}, true} : totals; }

std::optional<Totals> stored_totals(const string& path) {
    const base::LockedStream stream(path.c_str(), "r");
    if (stream) return shown(mailsize::read_totals(stream));
    return errno == ENOENT ? std::nullopt : std::optional(Totals{{}, true});
}

}  // namespace Tessaly::tool
