#include "tools/doctor/survey.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <string_view>
#include <utility>

#include "base/dir_reader.h"
#include "base/store_names.h"
#include "tools/cli/descriptors.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/paths.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

// Reads one directory at a time, and follows no link.
class Walk {
  public:
    explicit Walk(const Patient& patient) : patient_(patient), top_(patient.id.homepath()) {}

    Survey run() {
        home_.reset(
            retry([&] { return ::open(top_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
        struct stat st;
        if (!home_ || ::fstat(home_.get(), &st) != 0) throw system_failure(printable(top_));
        owner_ = st.st_uid;
        for (left_.emplace_back("."); !left_.empty();) {
            const string directory = std::move(left_.back());
            left_.pop_back();
            read(directory);
        }
        for (auto& [folder, names] : survey_.names) names.sort();
        return std::move(survey_);
    }

  private:
    void read(const string& directory) {
        const Fd fd(retry([&] {
            return ::openat(home_.get(), directory.c_str(),
                            O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        }));
        if (!fd && errno == ENOENT) return;
        if (!fd) return cannot_read(directory);
        JudgedNames* names = names_for(directory);
        base::DirReader reader(fd.get());
        while (const dirent64* entry = reader.next_real()) {
            take(fd.get(), directory, entry->d_name, names);
        }
        if (reader.failed()) cannot_read(directory);
    }

    // Where the names of a directory's messages are judged; nullptr if it contains no messages.
    JudgedNames* names_for(const string& directory) {
        const auto slash = directory.rfind('/');
        if (slash == string::npos || !directory.starts_with("mail/")) return nullptr;
        const string_view last = string_view(directory).substr(slash + 1);
        if (last != names::kCur && last != names::kNew) return nullptr;
        return &survey_.names[in(top_, directory.substr(0, slash))];
    }

    // An entry that is gone by now is left out. EACCES is the directory's, and so the same for all
    // its entries.
    void take(int fd, const string& directory, const char* name, JudgedNames* names) {
        struct stat st;
        if (::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == EACCES) return cannot_read(directory);
            if (errno != ENOENT) cannot_read(in(directory, name));
            return;
        }
        const bool is_file = S_ISREG(st.st_mode);
        if (names != nullptr && is_file && *name != '.') {
            names->add(in(top_, directory), name, static_cast<std::uint64_t>(st.st_size));
        }
        if (is_file && st.st_uid == owner_) return;
        const string path = directory == "." ? name : in(directory, name);
        if (S_ISLNK(st.st_mode)) survey_.links.push_back(path);
        if (st.st_uid != owner_) {
            survey_.strangers.push_back({path, st.st_uid, is_file && st.st_nlink == 1});
        }
        if (S_ISDIR(st.st_mode)) left_.push_back(path);
    }

    void cannot_read(const string& path) {
        const int error = errno;
        patient_.cannot_look(system_failure(printable(in(top_, path)), error));
    }

    const Patient& patient_;
    const string top_;
    Fd home_;
    uid_t owner_ = 0;
    std::vector<string> left_;
    Survey survey_;
};

}  // namespace

const Survey& survey_of(const Patient& patient) {
    if (!patient.survey) patient.survey = std::make_shared<const Survey>(Walk(patient).run());
    return *patient.survey;
}

}  // namespace Tessaly::tool
