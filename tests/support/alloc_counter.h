// Counts heap allocations (malloc, calloc, realloc, and operator new through
// them) made between start and stop, so tests can prove that a routine does
// not allocate. Works by interposing the C allocator of the test program;
// under AddressSanitizer the sanitizer owns the allocator and counting is off.
#pragma once

namespace zot_test {

// False where allocations cannot be counted (sanitizer builds).
bool allocationCountingAvailable();
void startCountingAllocations();
// Returns the number of allocations since startCountingAllocations().
long stopCountingAllocations();

}  // namespace zot_test
