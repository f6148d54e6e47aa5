// Lets the K-th allocation of a piece of code fail. The program that links this has an allocator of
// its own in front of the C library's, which serves every library in the process.
#ifndef TSMAIL_TESTS_FAULT_ALLOCATIONS_H
#define TSMAIL_TESTS_FAULT_ALLOCATIONS_H

namespace fault {

// From now on `calls` allocations fail, beginning with number `first`, counted from 1; 0: none.
void begin_allocations(long first, long calls);
// Allocations work again. Returns how many were asked for since begin_allocations.
long end_allocations();

}  // namespace fault

#endif
