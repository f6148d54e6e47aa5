// The names of the store's files and directories. Each stands here and nowhere else.
#ifndef TSMAIL_BASE_STORE_NAMES_H
#define TSMAIL_BASE_STORE_NAMES_H

#include <string_view>

// Every name is a literal, so that data() is NUL-terminated.
namespace Tessaly::names {

using std::string_view;

// In a maildir root.
inline constexpr string_view kMaildirSize = ".maildirsize";
inline constexpr string_view kDirtyMarker = ".maildirsize.dirty";
static_assert(kDirtyMarker.starts_with(kMaildirSize));

// In a folder.
inline constexpr string_view kCur = "cur", kNew = "new", kTmp = "tmp";
// In the order in which a folder is tested, made and emptied: a process that sees tmp, the last
// one, sees a whole folder.
inline constexpr const char* kSubDirs[] = {kCur.data(), kNew.data(), kTmp.data()};
inline constexpr string_view kFolderMarker = ".maildirfolder";
inline constexpr string_view kFolderSize = ".ts_folder_size";
inline constexpr string_view kScanCache = ".ts_cache";
inline constexpr string_view kScanDate = ".ts_unread_scan_date";
// Where a folder was that `tsmail rm` has scheduled for deletion.
inline constexpr string_view kRemovedFrom = ".ts_removed_from";
// What `tsmail` locks in a folder where a lock on a directory does not reach other machines.
inline constexpr string_view kFolderLock = ".ts_folder_lock";
inline constexpr string_view kFolderGate = ".ts_folder_gate";

// In a home.
inline constexpr string_view kQuotaWarning = "quota_warning_flag";
inline constexpr string_view kQuotaExceeded = "quota_exceeded_flag";
inline constexpr string_view kNoticeStamp = ".alert_notification";

// In a preference directory, behind the tilde name and a dot.
inline constexpr string_view kPreferences = "pref";
inline constexpr string_view kPrimaryAddresses = "primaryaddr";
inline constexpr string_view kSecondaryAddresses = "secondaryaddr";

// Behind the hidden name of a list.
inline constexpr string_view kListLock = ".lock";
inline constexpr string_view kListTemporary = ".tmp";

// In front of the name of a directory or file that is scheduled for deletion.
inline constexpr string_view kDeletedPrefix = ".deleted.";

}  // namespace Tessaly::names

#endif
