// One attempt at an operation: a fresh spool, a process of its own, a fault, and what came of it.
#ifndef TSMAIL_TESTS_FAULT_ATTEMPT_H
#define TSMAIL_TESTS_FAULT_ATTEMPT_H

#include <string>
#include <vector>

#include "fault/injector.h"
#include "fault/operations.h"

namespace fault {

struct AllocationFault {
    long first = 1;
    long calls = 0;
};

struct Attempt {
    Run run;
    Trace trace;
    long allocations = 0;   // how many were asked for
    std::string complaint;  // died, hung, lost a descriptor; empty if all is well
};

// How an attempt differs from a plain one.
struct Setting {
    AllocationFault allocations = {};
    bool closed = false;    // without the descriptors 0 to 2
    bool foreign = false;   // in locales that write numbers otherwise
    bool as_it_is = false;  // on the spool as the last attempt left it
};

// Makes the C locale that a foreign attempt is run in. False if the machine has nothing to make it
// from; such attempts have a C++ locale with digit grouping then, and no more.
bool make_foreign_locale();

Attempt attempt(const Operation& operation, const Fault& fault = {}, const Setting& setting = {});

std::string text_of(const Answer& answer);

// What is wrong with a run under a fault, compared with a clean one; empty if nothing is.
std::string judge(const Operation& operation, const Attempt& attempt, const Run& clean);

}  // namespace fault

#endif
