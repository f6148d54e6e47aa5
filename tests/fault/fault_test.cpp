// Every operation, with each of its system calls and allocations failing.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <set>
#include <sstream>

#include "fault/attempt.h"

namespace fault {

namespace {

constexpr long kOnce = 1;
constexpr long kAFewTimes = 3;  // "from now on" would make a retry endless
constexpr long kAlways = 1L << 40;
constexpr int kMostComplaints = 5;

struct Kind {
    const char* name;
    Effect effect;
    int error;
    long calls;
};

constexpr Kind kKinds[] = {
    {"ENOSPC once", Effect::error, ENOSPC, kOnce},
    {"ENOSPC from then on", Effect::error, ENOSPC, kAlways},
    {"EIO once", Effect::error, EIO, kOnce},
    {"EIO from then on", Effect::error, EIO, kAlways},
    {"EINTR once", Effect::error, EINTR, kOnce},
    {"EINTR three times", Effect::error, EINTR, kAFewTimes},
    {"EMFILE once", Effect::error, EMFILE, kOnce},
    {"EMFILE from then on", Effect::error, EMFILE, kAlways},
    {"ENOMEM once", Effect::error, ENOMEM, kOnce},
    {"ENOMEM from then on", Effect::error, ENOMEM, kAlways},
    {"EACCES once", Effect::error, EACCES, kOnce},
    {"EACCES from then on", Effect::error, EACCES, kAlways},
    {"short count once", Effect::cut, 0, kOnce},
    {"short counts from then on", Effect::cut, 0, kAlways},
    {"the disk full from then on", Effect::disk_full, 0, kAlways},
};

// Whether the fault can change this call at all.
bool applies(const Kind& kind, const Call& call) {
    switch (kind.effect) {
        case Effect::cut:
            return shorter_count(call) != 0;
        case Effect::disk_full:
            return writes(call);
        default:
            return true;
    }
}

// Whether the operation must do all its work in spite of the fault.
bool to_be_borne(const Operation& operation, const Kind& kind, long k, const Trace& trace) {
    if (kind.effect == Effect::cut) return true;
    if (kind.error != EINTR || (operation.traits & kSeesEintr) != 0) return false;
    for (long i = k - 1; i < std::min<long>(k - 1 + kind.calls, std::ssize(trace.calls)); ++i) {
        if (!interruptible(trace.calls[static_cast<std::size_t>(i)])) return false;
    }
    return true;
}

std::string compare(const Run& run, const Run& clean) {
    if (run.answer != clean.answer) return "does not bear it: " + text_of(run.answer);
    if (run.after == clean.after) return "";
    return "does not bear it:\n" + difference(run.after, clean.after);
}

class Operations : public testing::TestWithParam<Operation> {
  protected:
    void SetUp() override {
        make_neighbour();
        neighbour_ = neighbour_tree();
    }

    Attempt clean() {
        Attempt clean = attempt(GetParam());
        EXPECT_EQ(clean.complaint, "");
        EXPECT_EQ(clean.run.answer.result, GetParam().good) << text_of(clean.run.answer);
        EXPECT_FALSE(clean.run.threw);
        return clean;
    }

    // Counts the complaint about one attempt, if any.
    void expect_none(const std::string& complaint, const std::string& point) {
        if (!complaint.empty()) ADD_FAILURE() << point << ": " << complaint;
        const Tree now = neighbour_tree();
        const std::string damage = difference(now, neighbour_);
        if (!damage.empty()) ADD_FAILURE() << point << ": the neighbour's mailbox\n" << damage;
        complaints_ += !complaint.empty() || !damage.empty();
        neighbour_ = now;
    }
    bool enough() const { return complaints_ >= kMostComplaints; }

    // One system call fails. Whether the fault could change it.
    bool try_call(const Kind& kind, long k, const Attempt& clean);
    // One allocation fails. False if the operation has no allocation of that number.
    bool try_allocation(long k, long calls, const fault::Run& clean);

    static void print(const char* what, long points, long fired) {
        std::printf("%s: %ld %s, %ld points fired\n", title(GetParam()).c_str(), points, what,
                    fired);
    }

  private:
    int complaints_ = 0;
    Tree neighbour_;
};

bool Operations::try_call(const Kind& kind, long k, const Attempt& clean) {
    const Attempt attempt = fault::attempt(GetParam(), {kind.effect, kind.error, k, kind.calls});
    std::string complaint = judge(GetParam(), attempt, clean.run);
    if (complaint.empty() && to_be_borne(GetParam(), kind, k, attempt.trace)) {
        complaint = compare(attempt.run, clean.run);
    }
    const Call& call = clean.trace.calls[static_cast<std::size_t>(k - 1)];
    expect_none(complaint,
                std::string(kind.name) + " at call " + std::to_string(k) + " (" + name(call) + ')');
    return attempt.trace.hit.has_value();
}

bool Operations::try_allocation(long k, long calls, const fault::Run& clean) {
    const Attempt attempt = fault::attempt(GetParam(), {}, {.allocations = {k, calls}});
    const char* then = calls == kOnce ? " fails" : " and later ones fail";
    expect_none(judge(GetParam(), attempt, clean), "allocation " + std::to_string(k) + then);
    return attempt.allocations >= k || !attempt.run.returned;
}

TEST_P(Operations, SurvivesFailingCalls) {
    const Attempt clean = this->clean();
    long fired = 0, k = 0;
    for (const Kind& kind : kKinds) {
        k = 0;
        for (const Call& call : clean.trace.calls) {
            if (++k; applies(kind, call) && !enough()) fired += try_call(kind, k, clean);
        }
    }
    print("system calls", k, fired);
    EXPECT_EQ(fired == 0, (GetParam().traits & kNoCalls) != 0);
}

TEST_P(Operations, SurvivesFailingAllocations) {
    const Attempt clean = this->clean();
    long fired = 0;
    for (const long calls : {kOnce, kAlways}) {
        for (long k = 1; !enough() && try_allocation(k, calls, clean.run); ++k) ++fired;
    }
    print("allocations", clean.allocations, fired);
    EXPECT_EQ(fired == 0, (GetParam().traits & kAllocatesNothing) != 0);
}

// Descriptors are closed in programs that are started meanwhile, and the operation works without
// descriptors 0 to 2.
TEST(Table, OperationsKeepTheirDescriptorsToThemselves) {
    for (const Operation& operation : all_operations()) {
        SCOPED_TRACE(title(operation));
        const Attempt clean = attempt(operation);
        for (const Call& call : clean.trace.calls) {
            EXPECT_FALSE(leaks_into_programs(call)) << name(call) << " without close-on-exec";
        }
        const Attempt closed = attempt(operation, {}, {.closed = true});
        EXPECT_EQ(closed.complaint, "");
        EXPECT_EQ(compare(closed.run, clean.run), "");
    }
}

// No operation waits for the disk. (A move to another file system does, but it is not in the
// table.)
TEST(Table, NoOperationWaitsForTheDisk) {
    const std::set<std::string> flushes = {"fsync", "fdatasync", "sync", "syncfs"};
    for (const Operation& operation : all_operations()) {
        for (const Call& call : attempt(operation).trace.calls) {
            EXPECT_FALSE(flushes.contains(name(call))) << title(operation);
        }
    }
}

// A C++ locale with digit grouping and a C locale with a decimal comma do not change results or
// files.
TEST(Table, OperationsWriteTheSameInEveryLocale) {
    const bool made = make_foreign_locale();
    for (const Operation& operation : all_operations()) {
        SCOPED_TRACE(title(operation));
        const Attempt clean = attempt(operation);
        const Attempt foreign = attempt(operation, {}, {.foreign = true});
        EXPECT_EQ(foreign.complaint, "");
        EXPECT_EQ(compare(foreign.run, clean.run), "");
    }
    if (!made) GTEST_SKIP() << "no locale sources: only the C++ locale was tried";
}

// The names of the functions that a library exports, without their arguments.
std::set<std::string> exported_functions() {
    std::set<std::string> names;
    FILE* nm = ::popen("nm -DC --defined-only " TSMAIL_LIBRARIES, "re");
    char line[1024];
    while (std::fgets(line, sizeof line, nm) != nullptr) {
        std::istringstream words(line);
        std::string address, type, name;
        if (!(words >> address >> type >> name) || (type != "T" && type != "W")) continue;
        names.insert(name.substr(0, name.find_first_of("(@[")));
    }
    EXPECT_EQ(::pclose(nm), 0);
    return names;
}

TEST(Table, HasEveryExportedFunction) {
    std::set<std::string> rows;
    for (const Operation& operation : all_operations()) {
        std::istringstream names(operation.names);
        rows.insert(std::istream_iterator<std::string>(names), {});
    }
    const std::set<std::string> functions = exported_functions();
    std::vector<std::string> differences;
    std::set_symmetric_difference(rows.begin(), rows.end(), functions.begin(), functions.end(),
                                  std::back_inserter(differences));
    EXPECT_EQ(differences, std::vector<std::string>()) << "in one of table and libraries only";
}

INSTANTIATE_TEST_SUITE_P(All, Operations, testing::ValuesIn(all_operations()),
                         [](const auto& row) { return title(row.param); });

}  // namespace

}  // namespace fault
