#include "fault/operations.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <iterator>
#include <ostream>
#include <sstream>

namespace fault {

namespace {

constexpr std::size_t kModeLength = 7;  // the text before a file's content in a tree

bool same(const Tree& is, const Tree& other, const std::string& path) {
    const auto a = is.find(path), b = other.find(path);
    if (a == is.end() || b == other.end()) return a == is.end() && b == other.end();
    return a->second == b->second;
}

bool is_file(const std::string& description) { return description.starts_with("10"); }

std::string content_of(const Tree& tree, const std::string& path) {
    const auto it = tree.find(path);
    return it == tree.end() ? "" : it->second.substr(kModeLength);
}

// A file of the operation's own, which it removes at the end unless it is kept from doing so.
bool is_temporary(const std::string& path) {
    return path.ends_with(".tmp") || path.find("/.tsm_movefile.") != std::string::npos;
}

bool is_new_and_empty(const Run& run, const std::string& path) {
    const auto it = run.after.find(path);
    return !run.before.contains(path) && it != run.after.end() && is_file(it->second) &&
           it->second.size() == kModeLength;
}

bool may_be_so(const Run& run, const Run& clean, const std::string& path) {
    if (same(run.after, run.before, path) || same(run.after, clean.after, path)) return true;
    if (is_temporary(path)) return !run.returned || run.lasting;
    if (path.ends_with(".lock")) return is_new_and_empty(run, path);
    return clean.after.contains(path) && is_new_and_empty(run, path);
}

// in_steps, with a special rule for one file.
template <class Judge>
Rule in_steps_but(const std::string& path, Judge judge) {
    return [=](const Run& run, const Run& clean) -> std::string {
        if (!judge(run, clean)) return difference(run.after, run.before);
        Run others = run;
        others.after.erase(path);
        if (run.before.contains(path)) others.after[path] = run.before.at(path);
        return in_steps(others, clean);
    };
}

struct Sum {
    long long size = 0, count = 0;
    bool operator==(const Sum&) const = default;
};

// The value of a size file, by its definition: the sum of the lines that begin with two numbers.
Sum sum_of(const std::string& text) {
    Sum sum;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        long long size = 0, count = 0;
        if (std::sscanf(line.c_str(), "%lld %lld", &size, &count) != 2) continue;
        sum.size += size;
        sum.count += count;
    }
    return sum;
}

}  // namespace

std::string in_steps(const Run& run, const Run& clean) {
    Tree all = run.before;
    all.insert(run.after.begin(), run.after.end());
    for (const auto& [path, content] : all) {
        if (!may_be_so(run, clean, path)) return difference(run.after, run.before);
    }
    return "";
}

Rule file_begun(std::string path) {
    return in_steps_but(path, [path](const Run& run, const Run& clean) {
        return same(run.after, run.before, path) ||
               content_of(clean.after, path).starts_with(content_of(run.after, path));
    });
}

Rule file_appended(std::string path) {
    return in_steps_but(path, [path](const Run& run, const Run& clean) {
        if (same(run.after, run.before, path) || same(run.after, clean.after, path)) return true;
        const std::string text = content_of(run.after, path);
        return is_new_and_empty(run, path) ||
               (run.disk_full && text.starts_with(content_of(run.before, path)) &&
                content_of(clean.after, path).starts_with(text));
    });
}

Rule sums_kept(std::string path) {
    return in_steps_but(path, [path](const Run& run, const Run& clean) {
        const std::string text = content_of(run.after, path);
        const Sum sum = sum_of(text);
        if (sum != sum_of(content_of(run.before, path)) &&
            sum != sum_of(content_of(clean.after, path))) {
            return false;
        }
        // The next record must not run into the last one.
        return text.empty() || text.ends_with('\n');
    });
}

Rule with_marker(std::string path, Rule rule) {
    return [=](const Run& run, const Run& clean) {
        Run without = run;
        if (is_new_and_empty(run, path)) without.after.erase(path);
        return rule(without, clean);
    };
}

std::string all_or_nothing(const Run& run, const Run& clean) {
    const bool either = run.after == run.before || run.after == clean.after;
    return either ? "" : difference(run.after, run.before);
}

std::string only_removed(const Run& run, const Run&) {
    for (const auto& [path, content] : run.after) {
        if (!same(run.after, run.before, path)) return difference(run.after, run.before);
    }
    return "";
}

std::string title(const Operation& operation) {
    std::string text = operation.names.substr(0, operation.names.find(' '));
    if (const auto colon = text.rfind(':'); colon != std::string::npos) text.erase(0, colon + 1);
    if (!operation.variant.empty()) text += '_' + operation.variant;
    for (char& c : text) c = std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
    return text;
}

std::ostream& operator<<(std::ostream& out, const Operation& operation) {
    return out << title(operation);
}

constexpr std::vector<Operation> (*kTables[])() = {
    mailuser_operations,  //
    support_operations,   //
    mailsize_operations,  //
    maildir_operations,   //
    deletion_operations,  //
    quota_operations,     //
    maillist_operations,  //
    userpref_operations,  //
};

const std::vector<Operation>& all_operations() {
    static const std::vector<Operation> operations = [] {
        std::vector<Operation> all;
        for (const auto rows : kTables) {
            auto some = rows();
            std::move(some.begin(), some.end(), std::back_inserter(all));
        }
        return all;
    }();
    return operations;
}

}  // namespace fault
