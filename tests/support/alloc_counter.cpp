#include "alloc_counter.h"

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define ZOT_COUNT_ALLOCATIONS 0
#else
#define ZOT_COUNT_ALLOCATIONS 1
#endif

namespace {
volatile bool g_counting = false;
volatile long g_allocations = 0;
}  // namespace

#if ZOT_COUNT_ALLOCATIONS
// glibc's own entry points; the definitions below take precedence over the C
// library's for every caller in the process, the tracker library included.
extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);

extern "C" void* malloc(size_t size) {
  if (g_counting) g_allocations = g_allocations + 1;
  return __libc_malloc(size);
}
extern "C" void* calloc(size_t count, size_t size) {
  if (g_counting) g_allocations = g_allocations + 1;
  return __libc_calloc(count, size);
}
extern "C" void* realloc(void* p, size_t size) {
  if (g_counting) g_allocations = g_allocations + 1;
  return __libc_realloc(p, size);
}
#endif

namespace zot_test {

bool allocationCountingAvailable() { return ZOT_COUNT_ALLOCATIONS != 0; }

void startCountingAllocations() {
  g_allocations = 0;
  g_counting = true;
}

long stopCountingAllocations() {
  g_counting = false;
  return g_allocations;
}

}  // namespace zot_test
