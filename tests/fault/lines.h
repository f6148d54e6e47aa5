// System calls as lines: name(argument, ...), with paths and the beginnings of what is written.
#ifndef TSMAIL_TESTS_FAULT_LINES_H
#define TSMAIL_TESTS_FAULT_LINES_H

#include <sys/types.h>

#include <string>

#include "fault/calls.h"

namespace fault {

// The call that the process, which is stopped, is about to make.
std::string line(pid_t pid, const Call& call);

}  // namespace fault

#endif
