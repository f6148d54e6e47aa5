#include "support/config_file.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <optional>
#include <tuple>

#include "base/text.h"
#include "support/toml.h"

namespace Tessaly::support {

namespace {

using base::concat;
using std::string;
using std::string_view;

constexpr unsigned kDeepestKey = 32;

class Problems {
  public:
    explicit Problems(std::vector<Problem>& list) : list_(list) {}
    void error(const toml::source_region& where, std::initializer_list<string_view> message) {
        add(where, false, message);
    }
    void warning(const toml::source_region& where, std::initializer_list<string_view> message) {
        add(where, true, message);
    }

  private:
    void add(const toml::source_region& where, bool warning,
             std::initializer_list<string_view> message) {
        list_.push_back({where.begin.line, where.begin.column, warning, concat(message)});
    }
    std::vector<Problem>& list_;
};

bool is_control(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

// An integer of the file within the limits of its field's type.
template <class Number>
void read_integer(const toml::node& node, string_view key, Number& number, Problems& problems) {
    using Limits = std::numeric_limits<Number>;
    const auto value = node.value_exact<std::int64_t>();
    if (!value) {
        problems.error(node.source(), {key, " is not an integer"});
    } else if (*value < Limits::min() || *value > Limits::max()) {
        problems.error(node.source(), {key, " is not between ", std::to_string(Limits::min()),
                                       " and ", std::to_string(Limits::max())});
    } else {
        number = static_cast<Number>(*value);
    }
}

// A text that is not empty.
std::optional<string_view> read_text(const toml::node& node, string_view key, Problems& problems) {
    const auto* text = node.as_string();
    if (text == nullptr) {
        problems.error(node.source(), {key, " is not a string"});
    } else if (text->get().empty()) {
        problems.error(node.source(), {key, " is empty"});
    } else {
        return text->get();
    }
    return {};
}

// What reads the value of a key into a record.
template <class Record>
struct Key {
    string_view name;
    bool required;
    void (*read)(const toml::node& node, string_view key, Record& record, Problems& problems);
};

template <class Record, std::size_t N>
void read_table(const toml::table& table, const Key<Record> (&keys)[N], Record& record,
                Problems& problems) {
    for (const auto& [name, node] : table) {
        const auto* key = std::ranges::find(keys, name.str(), &Key<Record>::name);
        if (key != std::end(keys)) {
            key->read(node, key->name, record, problems);
        } else {
            problems.warning(name.source(), {"unknown key ", name.str()});
        }
    }
    for (const auto& key : keys) {
        if (key.required && !table.contains(key.name)) {
            problems.error(table.source(), {key.name, " is missing"});
        }
    }
}

void read_name(const toml::node& node, string_view key, ArchiveAccount& account,
               Problems& problems) {
    const auto text = read_text(node, key, problems);
    if (!text) return;
    if (text->size() >= ArchiveAccount::kNameRoom) {
        problems.error(node.source(), {key, " is longer than ",
                                       std::to_string(ArchiveAccount::kNameRoom - 1), " bytes"});
    } else if (text->find('\0') != string_view::npos) {
        problems.error(node.source(), {key, " has a NUL in it"});
    } else {
        std::memcpy(account.name, text->data(), text->size());
    }
}

void read_quota(const toml::node& node, string_view key, ArchiveAccount& account,
                Problems& problems) {
    read_integer(node, key, account.quota_gib, problems);
}

constexpr Key<ArchiveAccount> kAccountKeys[] = {
    {"name", true, read_name},
    {"quota_gib", true, read_quota},
};

void read_timezone(const toml::node& node, string_view key, Config& config, Problems& problems) {
    read_integer(node, key, config.timezone, problems);
}

// One line of text.
template <string Config::*field>
void read_line(const toml::node& node, string_view key, Config& config, Problems& problems) {
    const auto text = read_text(node, key, problems);
    if (!text) return;
    if (std::ranges::any_of(*text, is_control)) {
        problems.error(node.source(), {key, " has a line break or control character in it"});
    } else {
        config.*field = *text;
    }
}

void read_accounts(const toml::node& node, string_view key, Config& config, Problems& problems) {
    const toml::array* rows = node.as_array();
    if (rows == nullptr) {
        problems.error(node.source(), {key, " is not an array of tables ([[", key, "]])"});
        return;
    }
    for (const toml::node& row : *rows) {
        if (const toml::table* table = row.as_table()) {
            read_table(*table, kAccountKeys, config.archive_accounts.emplace_back(), problems);
        } else {
            problems.error(row.source(), {key, " holds something that is not a table"});
        }
    }
}

constexpr Key<Config> kKeys[] = {
    {"timezone", false, read_timezone},
    {"postmaster", false, read_line<&Config::postmaster>},
    {"mail_user", false, read_line<&Config::mail_user>},
    {"archive_account", false, read_accounts},
};

// The position after a string of the file that begins at `at`.
std::size_t skip_string(string_view text, std::size_t at) {
    const char quote = text[at];
    const string_view triple = quote == '"' ? R"(""")" : "'''";
    const bool multi_line = text.substr(at, 3) == triple;
    const string_view end = triple.substr(0, multi_line ? 3 : 1);
    for (at += end.size(); at < text.size(); ++at) {
        if (text.substr(at, end.size()) == end) break;
        if (quote == '"' && text[at] == '\\') ++at;
    }
    at = std::min(text.size(), at + end.size());
    while (multi_line && at < text.size() && text[at] == quote) ++at;  // up to two belong to it
    return at;
}

// The place at which a dotted key goes beyond the limit of levels, npos if there is none. The
// parser has no such limit and would recurse until the stack ends.
std::size_t find_deep_key(string_view text) {
    unsigned dots = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char c = text[at];
        if (c == '.' && ++dots > kDeepestKey) return at;
        if (string_view("=,[{\n#").find(c) != string_view::npos) dots = 0;
        if (c == '#') at = std::min(text.find('\n', at), text.size());
        if (c == '"' || c == '\'') at = skip_string(text, at) - 1;
    }
    return string_view::npos;
}

toml::source_region place_of(string_view text, std::size_t at) {
    const string_view before = text.substr(0, at);
    const string_view line = before.substr(before.rfind('\n') + 1);
    const auto first_bytes = std::ranges::count_if(line, [](char c) { return (c & 0xc0) != 0x80; });
    toml::source_region place;
    place.begin.line = static_cast<unsigned>(std::ranges::count(before, '\n')) + 1;
    place.begin.column = static_cast<unsigned>(first_bytes) + 1;
    return place;
}

void read_checked(string_view text, Config& config, Problems& problems) {
    if (const auto at = find_deep_key(text); at != string_view::npos) {
        problems.error(place_of(text, at), {"a key of too many levels"});
        return;
    }
    const toml::parse_result file = toml::parse(text);
    if (file) {
        read_table(file.table(), kKeys, config, problems);
    } else {
        problems.error(file.error().source(), {file.error().description()});
    }
}

}  // namespace

void read_config(string_view text, Config& config, std::vector<Problem>& problems) {
    Problems list(problems);
    read_checked(text, config, list);
    std::ranges::sort(problems, {}, [](const Problem& problem) {
        return std::tie(problem.line, problem.column, problem.message);
    });
}

std::size_t count_errors(const std::vector<Problem>& problems) {
    return static_cast<std::size_t>(std::ranges::count(problems, false, &Problem::warning));
}

}  // namespace Tessaly::support
