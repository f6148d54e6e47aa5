// The documents about folders and message names are true.
#include "testing/documents.h"

#include <tessaly/MailUserId.h>
#include <tessaly/mailstore.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "testing/files.h"

namespace {

using Tessaly::TSMailUserId;
using testing_documents::table;

void replace_all(std::string& text, const std::string& from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

// A path of the document for one mailbox.
std::string path_for(const TSMailUserId& id, const std::string& given, std::string path) {
    const std::pair<const char*, std::string> places[] = {
        {"<home>", id.homepath()},
        {"<domain>", id.domain()},
        {"<tilde name>", id.tilde_name()},
        {"<first byte of domain>", "s"},
        {"<text>", given},
        {"none", ""},
    };
    for (const auto& [place, value] : places) replace_all(path, place, value);
    return path;
}

TEST(FolderDocument, HomesOfEveryType) {
    const std::string given = "Ann+Work@Site.Test";
    const auto rows = table(testing_documents::format("folders.md"),
                            "| type | home directory `<home>` | maildir root `<mail>` |");
    ASSERT_EQ(rows.size(), 13U);
    for (unsigned type = 0; type < 13; ++type) {
        SCOPED_TRACE(type);
        EXPECT_EQ(std::atoi(rows[type][0].c_str()), static_cast<int>(type));
        if (type == Tessaly::MAILBOX_DIRECT) continue;
        const TSMailUserId id(static_cast<Tessaly::MailBoxType>(type), given);
        EXPECT_EQ(id.homepath(), path_for(id, given, rows[type][1]));
        EXPECT_EQ(id.mailpath(), path_for(id, given, rows[type][2]));
    }
}

TEST(FolderDocument, NamesOfFolders) {
    const std::string text = testing_documents::format("folders.md");
    const auto system = table(text, "| number | name |");
    ASSERT_EQ(system.size(), static_cast<size_t>(tsl_sys_folders_count));
    for (const auto& row : system) {
        EXPECT_EQ(tsl_is_system_folder(row[1].c_str()), std::atoi(row[0].c_str())) << row[1];
    }
    const auto reserved = table(text, "| name |");
    for (size_t i = 0; tsm_sys_folders[i].name != nullptr; ++i) {
        ASSERT_LT(i, reserved.size());
        EXPECT_EQ(reserved[i][0], tsm_sys_folders[i].name);
    }
    EXPECT_EQ(tsm_sys_folders[reserved.size()].name, nullptr);
}

TEST(FolderDocument, ScheduledNames) {
    const testing_files::TempDir dir;
    const std::string inbox = dir / "mail/Inbox", target = dir / "target";
    testing_files::make_dirs(target);
    for (const char* tag : {"x", "x", ""}) {
        testing_files::write(inbox + "/file", "x");
        ASSERT_EQ(tsm_schedule_for_deletion(inbox.c_str(), target.c_str(), tag), 0);
    }
    std::string names;
    for (const auto& name : testing_files::list(target)) names += name + "\n";
    EXPECT_EQ(testing_documents::blocks(testing_documents::format("folders.md")),
              std::vector<std::string>{names});
}

TEST(NameDocument, ItsExampleReadsAsItSays) {
    const std::string text = testing_documents::format("message-names.md");
    const auto blocks = testing_documents::blocks(text);
    ASSERT_EQ(blocks.size(), 1U);
    const std::string name = blocks[0].substr(0, blocks[0].size() - 1);
    EXPECT_EQ(get_maildir_msg_len_from_name(name.c_str()), 2048);
    EXPECT_EQ(tsl_get_mail_creation_date(name.c_str()), 1763275200);
    EXPECT_NE(text.find("made at 1763275200 (2025-11-16 06:40:00 UTC)"), text.npos);
    // True for a reader in those 60 years.
    EXPECT_EQ(tsl_get_mail_received_date(name.c_str()), 1796837760);
    EXPECT_NE(text.find("17:36:00 UTC, 1796837760:"), text.npos);
}

TEST(NameDocument, TheDigitsAreThose) {
    const std::string text = testing_documents::format("message-names.md");
    const auto at = text.find("    0123456789ABC");
    ASSERT_NE(at, text.npos);
    const std::string digits = text.substr(at + 4, 62);
    for (int value = 0; value < 62; ++value) {
        struct tm when = {};
        when.tm_min = value;
        char id[32];
        ASSERT_EQ(tsl_gen_queue_id(&when, id, sizeof id), id);
        EXPECT_EQ(id[4], digits[static_cast<size_t>(value)]);
    }
}

}  // namespace
