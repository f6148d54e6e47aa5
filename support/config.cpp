// The configuration values and the table of archive accounts. The file is read again when it has
// changed.
//
// Everything that is kept belongs to one thread. So no lock is needed, and a child of fork does not
// find anything half done.
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "base/fd.h"
#include "base/guard.h"
#include "base/io.h"
#include "base/postmaster.h"
#include "base/text.h"
#include "support/config_file.h"
#include "support/config_table.h"

namespace {

using namespace Tessaly::support;
using Tessaly::base::concat;
using Tessaly::base::Fd;
using Tessaly::base::no_throw;
using Tessaly::base::retry;
using ConfigPtr = std::shared_ptr<const Config>;

constexpr char kConfigFile[] = "/etc/tessaly/tsmail.toml";
constexpr char kConfigVariable[] = "TSMAIL_CONFIG";
using Tessaly::base::kArchiveAccounts;
// Longer than the steps in which any file system keeps its times.
constexpr time_t kSettlingSeconds = 3;

// What changes whenever a file's contents do.
using Stamp = std::array<std::int64_t, 7>;

Stamp stamp_of(const struct stat& st) {
    return {static_cast<std::int64_t>(st.st_dev),
            static_cast<std::int64_t>(st.st_ino),
            st.st_size,
            st.st_mtim.tv_sec,
            st.st_mtim.tv_nsec,
            st.st_ctim.tv_sec,
            st.st_ctim.tv_nsec};
}

// Whether a later change is certain to get another time. Until then the stamp proves nothing.
bool is_settled(const struct stat& st) {
    return ::time(nullptr) - st.st_ctim.tv_sec > kSettlingSeconds;
}

const char* file_in_force() {
    const char* path = ::secure_getenv(kConfigVariable);
    return path == nullptr || *path == '\0' ? kConfigFile : path;
}

// The errno for which a file is not read at all, or 0.
int refusal(const struct stat& st) {
    if (S_ISDIR(st.st_mode)) return EISDIR;
    if (!S_ISREG(st.st_mode)) return EINVAL;
    return st.st_size > kLargestFile ? EFBIG : 0;
}

// Reads a configuration file whole. False with errno.
bool read_whole(const char* path, struct stat& st, std::string& text) {
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    const Fd fd(retry([=] { return ::open(path, kFlags); }));
    if (!fd || ::fstat(fd.get(), &st) != 0) return false;
    const int refused = refusal(st);
    if (refused == 0) return Tessaly::base::read_file(fd.get(), text);
    errno = refused;
    return false;
}

const Config kDefaults;

// The file in force as one thread last saw it.
class Cache {
  public:
    // The values in force now. Without memory for them the defaults.
    const ConfigPtr& current() {
        const char* path = file_in_force();
        struct stat st;
        const bool exists = retry([&] { return ::stat(path, &st); }) == 0;
        if (exists && trusted_ && stamp_ == stamp_of(st)) return config_;
        trusted_ = false;
        config_ = {std::shared_ptr<void>(), &kDefaults};  // owns nothing, so costs no memory
        if (exists) no_throw(false, [&] { return load(path); });
        return config_;
    }

  private:
    bool load(const char* path) {
        struct stat st;
        std::string text;
        if (!read_whole(path, st, text)) return false;
        auto config = std::make_shared<Config>();
        std::vector<Problem> problems;
        read_config(text, *config, problems);
        if (count_errors(problems) == 0) config_ = std::move(config);
        stamp_ = stamp_of(st);
        trusted_ = is_settled(st);
        return true;
    }

    ConfigPtr config_;
    Stamp stamp_{};
    bool trusted_ = false;
};

// The handle of the table of archive accounts: its rows as they were at the walk's beginning, and
// the place in them.
class AccountTable : public kqf_table {
  public:
    AccountTable() : kqf_table{&AccountTable::head, &AccountTable::next} {}
    // What callers hold; the walk's functions get it back.
    kqf_table* handle() { return this; }

  private:
    static void* head(kqf_table* table);
    static void* next(kqf_table* table);

    ConfigPtr rows_;
    std::size_t place_ = 0;
};

struct ThreadState {
    Cache cache;
    int timezone = 0;
    ConfigPtr postmaster;  // keeps the text that was returned
    ConfigPtr mail_user;   // so does this
    char default_postmaster[Tessaly::base::kPostmasterRoom];
    AccountTable accounts;
};

// Each thread's state, made when it is first asked for. Not a thread_local: for one with a
// destructor the C library ends the process when memory is short.
class ThreadStates {
  public:
    ThreadStates() : made_(::pthread_key_create(&key_, destroy) == 0) {}
    ThreadStates(const ThreadStates&) = delete;
    ThreadStates& operator=(const ThreadStates&) = delete;
    ~ThreadStates() {
        if (!made_) return;
        destroy(::pthread_getspecific(key_));  // at the process's end nothing else does
        ::pthread_key_delete(key_);
    }

    // The calling thread's; nullptr without memory for it.
    ThreadState* mine() const {
        if (!made_) return nullptr;
        if (void* state = ::pthread_getspecific(key_)) return static_cast<ThreadState*>(state);
        std::unique_ptr<ThreadState> state(new (std::nothrow) ThreadState);
        if (state == nullptr || ::pthread_setspecific(key_, state.get()) != 0) return nullptr;
        return state.release();
    }

  private:
    static void destroy(void* state) { delete static_cast<ThreadState*>(state); }

    pthread_key_t key_{};
    bool made_;
};

const ThreadStates kStates;

void* AccountTable::head(kqf_table* table) {
    auto& self = *static_cast<AccountTable*>(table);
    ThreadState* state = kStates.mine();
    self.rows_ = state == nullptr ? nullptr : state->cache.current();
    self.place_ = 0;
    return next(table);
}

void* AccountTable::next(kqf_table* table) {
    auto& self = *static_cast<AccountTable*>(table);
    if (self.rows_ == nullptr || self.place_ >= self.rows_->archive_accounts.size()) return nullptr;
    // Callers get rows as void*, as the interface has it; they only read.
    return const_cast<ArchiveAccount*>(&self.rows_->archive_accounts[self.place_++]);
}

void report_all(const std::vector<Problem>& problems, void (*report)(int, int, const char*, void*),
                void* arg) {
    for (const Problem& problem : problems) {
        const std::string text = concat({problem.warning ? "warning: " : "", problem.message});
        report(static_cast<int>(problem.line), static_cast<int>(problem.column), text.c_str(), arg);
    }
}

}  // namespace

const char* cfg_get_file(void) { return file_in_force(); }

const int* cfg_get_TZ(void) {
    ThreadState* state = kStates.mine();
    if (state == nullptr) return &kDefaults.timezone;
    state->timezone = state->cache.current()->timezone;
    return &state->timezone;
}

const char* cfg_get_postmaster(void) {
    ThreadState* state = kStates.mine();
    if (state == nullptr) return "postmaster";
    state->postmaster = state->cache.current();
    const std::string& configured = state->postmaster->postmaster;
    if (!configured.empty()) return configured.c_str();
    return Tessaly::base::default_postmaster(state->default_postmaster);
}

const char* cfg_get_mail_user(void) {
    ThreadState* state = kStates.mine();
    if (state == nullptr) return nullptr;
    state->mail_user = state->cache.current();
    const std::string& configured = state->mail_user->mail_user;
    return configured.empty() ? nullptr : configured.c_str();
}

void* nCfg_query(int table) {
    ThreadState* state = table == kArchiveAccounts ? kStates.mine() : nullptr;
    return state == nullptr ? nullptr : state->accounts.handle();
}

int cfg_check(const char* path, void (*report)(int, int, const char*, void*), void* arg) {
    constexpr int kNoMemory = -2;
    const int result = no_throw(kNoMemory, [=] {
        struct stat st;
        std::string text;
        if (!read_whole(path == nullptr ? file_in_force() : path, st, text)) return -1;
        Config config;
        std::vector<Problem> problems;
        read_config(text, config, problems);
        if (report != nullptr) report_all(problems, report, arg);
        return static_cast<int>(count_errors(problems));
    });
    if (result != kNoMemory) return result;
    errno = ENOMEM;
    return -1;
}
