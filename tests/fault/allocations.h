// Lets the K-th allocation of a piece of code fail. A program that links this has its own allocator
// in the place of the C library's, for every library in the process.
#ifndef TSMAIL_TESTS_FAULT_ALLOCATIONS_H
#define TSMAIL_TESTS_FAULT_ALLOCATIONS_H

namespace fault {

// From now on `calls` allocations fail, beginning with number `first`, counted from 1. 0 means
// none.
void begin_allocations(long first, long calls);
// Allocations work again. Returns the number of allocations since begin_allocations.
long end_allocations();

}  // namespace fault

#endif
