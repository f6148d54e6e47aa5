// The table of operations for fault injection: every exported one, with what it may leave behind if
// something fails in it.
#ifndef TSMAIL_TESTS_FAULT_OPERATIONS_H
#define TSMAIL_TESTS_FAULT_OPERATIONS_H

#include <array>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "fault/spool.h"

namespace fault {

// What an operation gave its caller besides its result. It is filled without an allocation.
struct Output {
    static constexpr unsigned kRoom = 2048;
    std::array<long long, 2> numbers{};
    std::array<char, kRoom> text{};

    void set_text(std::string_view value) {
        std::memcpy(text.data(), value.data(), std::min(value.size(), text.size() - 1));
    }
    bool operator==(const Output&) const = default;
};

// The result of an operation.
struct Answer {
    long long result = 0;
    Output output = {};
    bool operator==(const Answer&) const = default;
};

inline Output numbers(long long first, long long second) { return {{first, second}, {}}; }

// One run, and what is on disk after it.
struct Run {
    bool returned = false;  // false: killed
    bool threw = false;
    Answer answer;
    bool lasting = false;    // the fault was still active when the operation cleaned up
    bool no_memory = false;  // of the fault: an allocation failed
    bool disk_full = false;  // of the fault: a write may have been cut for ever
    Tree before, after;      // the spool without the neighbour, before and after it
};

enum Trait : unsigned {
    kThrows = 1,        // std::bad_alloc may reach the caller
    kWrites = 2,        // changes files, so it must survive a kill, too
    kAcknowledges = 4,  // its good result says that everything is on disk
    kNoCalls = 8,       // makes no system call
    kAllocatesNothing = 16,
    kSeesEintr = 32,  // works on a caller's stream, which an interruption ends
};

// What is wrong on disk after a run; empty if nothing is. `clean` is a run without a fault.
using Rule = std::function<std::string(const Run& run, const Run& clean)>;

struct Operation {
    std::string names;         // the exported names that the row is about
    std::string variant = {};  // the difference from other rows of that name
    std::function<void()> prepare = {};
    std::function<long long(Output&)> run;
    long long good = 0;                       // the result when nothing fails
    std::vector<Answer> others = {};          // the other documented results
    std::vector<Answer> without_memory = {};  // the results that only a lack of memory explains
    Rule rule = {};                           // default: nothing on disk changes
    unsigned traits = 0;
};

// The name of the row's test case.
std::string title(const Operation& operation);
std::ostream& operator<<(std::ostream& out, const Operation& operation);

std::vector<Operation> mailuser_operations();
std::vector<Operation> support_operations();
std::vector<Operation> mailsize_operations();
std::vector<Operation> maildir_operations();
std::vector<Operation> deletion_operations();
std::vector<Operation> quota_operations();
std::vector<Operation> userpref_operations();
std::vector<Operation> maillist_operations();
const std::vector<Operation>& all_operations();

// ---- Rules

// Every path is as it was before or as it should be after. A file that the operation makes may
// still be empty. An empty lock file may stay; a temporary file may stay only if the operation
// could not remove it.
std::string in_steps(const Run& run, const Run& clean);
// As in_steps, but the file may hold a beginning of its new content.
Rule file_begun(std::string path);
// As in_steps, but a full disk may have cut the addition at the file's end.
Rule file_appended(std::string path);
// As in_steps, but the size file may have any text with the old or the new sum.
Rule sums_kept(std::string path);
// As in_steps, but the empty file may be made, too.
Rule with_marker(std::string path, Rule rule);
// Nothing is done, or all of it.
std::string all_or_nothing(const Run& run, const Run& clean);
// Nothing is new or changed: entries may only have been removed.
std::string only_removed(const Run& run, const Run& clean);

}  // namespace fault

#endif
