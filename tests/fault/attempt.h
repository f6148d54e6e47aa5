// One attempt at an operation: a fresh spool, a process of its own, a fault, and the result.
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
    long allocations = 0;   // the number of allocations
    std::string complaint;  // it died, hung or lost a descriptor; empty if it did not
};

// Differences between an attempt and a plain one.
struct Setting {
    AllocationFault allocations = {};
    bool closed = false;    // without the descriptors 0 to 2
    bool foreign = false;   // in locales that write numbers in another way
    bool as_it_is = false;  // on the spool of the last attempt, as it is
};

// Makes the C locale in which a foreign attempt runs. False if the machine does not have its
// source; such attempts then have only a C++ locale with digit grouping.
bool make_foreign_locale();

Attempt attempt(const Operation& operation, const Fault& fault = {}, const Setting& setting = {});

std::string text_of(const Answer& answer);

// What is wrong with a run under a fault, compared with a clean one; empty if nothing is.
std::string judge(const Operation& operation, const Attempt& attempt, const Run& clean);

}  // namespace fault

#endif
