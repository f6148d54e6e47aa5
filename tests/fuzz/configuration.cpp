// The configuration file. The TOML itself is left to the parser library: the model walks over the
// result of the same parser and counts the problems.
#include <tessaly/support.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/fuzz.h"
#include "support/toml.h"
#include "testing/files.h"

namespace {

constexpr int kArchiveTable = 670;
constexpr std::size_t kNameOffset = 4, kQuotaOffset = 640;
constexpr std::string_view kTooDeep = "a key of too many levels";
constexpr int kDeep = 34;  // the least number of levels of such a key

struct Account {
    std::string name;
    std::int64_t quota = 0;
    bool operator==(const Account&) const = default;
};

std::string default_postmaster() {
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    const char* dot = std::strchr(host, '.');
    return std::string("postmaster@") + (dot != nullptr && dot[1] != '\0' ? dot + 1 : host);
}

struct Model {
    std::int64_t timezone = 0;
    std::string postmaster = default_postmaster();
    std::string mail_user;
    std::vector<Account> accounts;
    int errors = 0, warnings = 0;
};

bool has_control(const std::string& text) {
    for (const char c : text) {
        if ((c >= 0 && c < 32) || c == 127) return true;
    }
    return false;
}

bool is_integer_within(const toml::node* node, std::int64_t least, std::int64_t most) {
    if (!node->is_integer()) return false;
    const std::int64_t value = node->as_integer()->get();
    return value >= least && value <= most;
}

void read_account(const toml::node& row, Model& model) {
    if (!row.is_table()) {
        ++model.errors;
        return;
    }
    Account account;
    bool has_name = false, has_quota = false;
    for (const auto& [key, node] : *row.as_table()) {
        if (key == "name") {
            has_name = true;
            if (node.is_string()) account.name = node.as_string()->get();
            const bool good = !account.name.empty() && account.name.size() <= 635 &&
                              account.name.find('\0') == std::string::npos;
            model.errors += !good;
        } else if (key == "quota_gib") {
            has_quota = true;
            const bool good = is_integer_within(&node, 0, 65535);
            if (good) account.quota = node.as_integer()->get();
            model.errors += !good;
        } else {
            ++model.warnings;
        }
    }
    model.errors += !has_name + !has_quota;
    model.accounts.push_back(account);
}

void read_key(std::string_view key, const toml::node& node, Model& model) {
    if (key == "timezone") {
        const bool good = is_integer_within(&node, INT32_MIN, INT32_MAX);
        if (good) model.timezone = node.as_integer()->get();
        model.errors += !good;
    } else if (key == "postmaster" || key == "mail_user") {
        const bool good = node.is_string() && !node.as_string()->get().empty() &&
                          !has_control(node.as_string()->get());
        std::string& text = key == "postmaster" ? model.postmaster : model.mail_user;
        if (good) text = node.as_string()->get();
        model.errors += !good;
    } else if (key == "archive_account") {
        if (!node.is_array()) {
            ++model.errors;
            return;
        }
        for (const toml::node& row : *node.as_array()) read_account(row, model);
    } else {
        ++model.warnings;
    }
}

Model read_model(const toml::parse_result& file) {
    Model model;
    if (file) {
        for (const auto& [key, node] : file.table()) read_key(key.str(), node, model);
    } else {
        model.errors = 1;
    }
    if (model.errors == 0) return model;
    Model defaults;
    defaults.errors = model.errors;
    defaults.warnings = model.warnings;
    return defaults;
}

int depth_of(const toml::node& node) {
    int deepest = 0;
    if (const toml::table* table = node.as_table()) {
        for (const auto& [key, value] : *table) deepest = std::max(deepest, 1 + depth_of(value));
    } else if (const toml::array* array = node.as_array()) {
        for (const toml::node& value : *array) deepest = std::max(deepest, depth_of(value));
    }
    return deepest;
}

struct Report {
    int errors = 0, warnings = 0;
    int line = 1, column = 0;
    bool too_deep = false;
};

void take_problem(int line, int column, const char* message, void* arg) {
    Report& report = *static_cast<Report*>(arg);
    const bool is_warning = std::strncmp(message, "warning: ", 9) == 0;
    ++(is_warning ? report.warnings : report.errors);
    report.too_deep |= message == kTooDeep;
    const bool in_order =
        line > report.line || (line == report.line && column >= report.column && column > 0);
    fuzz::expect(in_order, "problems out of order");
    report.line = line;
    report.column = column;
}

std::vector<Account> accounts_in_force() {
    std::vector<Account> accounts;
    for (const void* row = kqf_query_table_head(nCfg_query(kArchiveTable)); row != nullptr;
         row = kqf_query_get_next(nCfg_query(kArchiveTable))) {
        const char* const bytes = static_cast<const char*>(row);
        std::uint16_t quota;
        std::memcpy(&quota, bytes + kQuotaOffset, sizeof quota);
        accounts.push_back({bytes + kNameOffset, quota});
    }
    return accounts;
}

// A text that is refused before it is parsed must hold such a key, if it is TOML at all.
void judge_refusal(const toml::parse_result& file, const Report& report) {
    fuzz::expect_equal(report.errors, 1, "errors of a refused file");
    fuzz::expect(!file || depth_of(file.table()) >= kDeep, "refused for nothing");
    fuzz::expect_equal(*cfg_get_TZ(), 0, "time zone of a refused file");
}

void compare(const toml::parse_result& file, const Report& report) {
    const Model model = read_model(file);
    fuzz::expect_equal(report.errors, model.errors, "errors");
    fuzz::expect_equal(report.warnings, model.warnings, "warnings");
    fuzz::expect_equal<std::int64_t>(*cfg_get_TZ(), model.timezone, "time zone");
    fuzz::expect_equal<std::string>(cfg_get_postmaster(), model.postmaster, "postmaster");
    const char* mail_user = cfg_get_mail_user();
    fuzz::expect_equal<std::string>(mail_user ? mail_user : "", model.mail_user, "mail user");
    fuzz::expect(accounts_in_force() == model.accounts, "accounts");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = fuzz::kDirectory + std::string("/tsmail.toml");
    const std::string text = fuzz::Input(data, size).rest();
    testing_files::write(path, text);
    ::setenv("TSMAIL_CONFIG", path.c_str(), 1);
    Report report;
    fuzz::expect_equal(cfg_check(nullptr, take_problem, &report), report.errors, "cfg_check");
    const toml::parse_result file = toml::parse(text);
    if (report.too_deep) {
        judge_refusal(file, report);
    } else {
        compare(file, report);
    }
    return 0;
}
