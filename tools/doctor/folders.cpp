#include "tools/doctor/folders.h"

#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/folder_list.h"

namespace Tessaly::tool {

namespace {

using std::string;

// The folders. Notes those that cannot be read.
std::vector<string> folders_of_patient(const Patient& patient) {
    FolderList list = list_folders(patient.id);
    for (const auto& [path, error] : list.unread) {
        patient.cannot_look(system_failure(printable(path), error));
    }
    return std::move(list.names);
}

}  // namespace

std::size_t look_at_each_folder(const Patient& patient, const LookAtFolder& look) {
    std::size_t failed = 0;
    for (const string& folder : folders_of_patient(patient)) {
        try {
            look(folder, patient.id.mailfolder(folder));
        } catch (const Failure& failure) {
            ++failed;
            patient.cannot_look(failure);
        }
    }
    return failed;
}

}  // namespace Tessaly::tool
