// Folder names given by people, with all flags, and the tests for names of the system.
#include <strings.h>
#include <tessaly/mailstore.h>

#include "fuzz/fuzz.h"
#include "maildir/literal.h"

namespace {

int system_folder(const std::string& name) {
    for (int i = 0; i < tsl_sys_folders_count; ++i) {
        if (name == tsl_sys_folders[i]) return i + 1;
    }
    return 0;
}

int system_sub_folder(const std::string& name) {
    for (int i = 0; i < tsl_sys_folders_count; ++i) {
        const std::string folder = tsl_sys_folders[i];
        if (name == folder || name.size() <= folder.size()) continue;
        const std::string begin = name.substr(0, folder.size());
        if (::strcasecmp(begin.c_str(), folder.c_str()) == 0 && name[folder.size()] == '/') {
            return i + 1;
        }
    }
    return 0;
}

bool is_reserved(std::string path) {
    while (path.ends_with('/')) path.pop_back();
    const std::string last = path.substr(path.rfind('/') + 1);
    for (const tsm_sys_folder* row = tsm_sys_folders; row->name != nullptr; ++row) {
        if (last.starts_with(row->name)) return true;
    }
    return false;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string name = fuzz::Input(data, size).rest().c_str();
    for (const unsigned flags : {0u, 1u, 2u, 3u}) {
        fuzz::expect_equal(tsl_is_valid_mailbox_name(name.c_str(), flags),
                           literal::judge_name(name, flags), "valid name");
    }
    fuzz::expect_equal(tsl_is_system_folder(name.c_str()), system_folder(name), "system folder");
    fuzz::expect_equal(tsl_is_system_sub_folder(name.c_str()), system_sub_folder(name),
                       "system sub-folder");
    fuzz::expect_equal(tsl_is_reserved_folder(name.c_str()), int{is_reserved(name)}, "reserved");
    fuzz::expect_equal(tsm_is_deleted_user_path(name.c_str()), int{name.starts_with(".deleted.")},
                       "deleted");
    return 0;
}
