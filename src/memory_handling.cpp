// Typed memory pools: reservation, bump hand-out, usage report and the
// release with its overrun check.
#include "memory_handling.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ZOTtracker {

unsigned char* m_bigArrayUchar = nullptr;
uint64_t m_currentAllocUchar = 0;
uint64_t m_totalAllocUchar = 0;
unsigned char** m_bigArrayUcharPtr = nullptr;
uint64_t m_currentAllocUcharPtr = 0;
uint64_t m_totalAllocUcharPtr = 0;
double* m_bigArrayDouble = nullptr;
uint64_t m_currentAllocDouble = 0;
uint64_t m_totalAllocDouble = 0;
float* m_bigArrayFloat = nullptr;
uint64_t m_currentAllocFloat = 0;
uint64_t m_totalAllocFloat = 0;
int* m_bigArrayInt = nullptr;
uint64_t m_currentAllocInt = 0;
uint64_t m_totalAllocInt = 0;
int** m_bigArrayIntPtr = nullptr;
uint64_t m_currentAllocIntPtr = 0;
uint64_t m_totalAllocIntPtr = 0;
short* m_bigArrayShort = nullptr;
uint64_t m_currentAllocShort = 0;
uint64_t m_totalAllocShort = 0;

namespace {

// One pool seen generically: its name and references to its three globals.
template <typename T>
struct Pool {
  const char* name;
  T*& base;
  uint64_t& current;
  uint64_t& total;
};

Pool<unsigned char> poolUchar() {
  return {"Uchar", m_bigArrayUchar, m_currentAllocUchar, m_totalAllocUchar};
}
Pool<unsigned char*> poolUcharPtr() {
  return {"UcharPtr", m_bigArrayUcharPtr, m_currentAllocUcharPtr, m_totalAllocUcharPtr};
}
Pool<double> poolDouble() {
  return {"Double", m_bigArrayDouble, m_currentAllocDouble, m_totalAllocDouble};
}
Pool<float> poolFloat() {
  return {"Float", m_bigArrayFloat, m_currentAllocFloat, m_totalAllocFloat};
}
Pool<int> poolInt() { return {"Int", m_bigArrayInt, m_currentAllocInt, m_totalAllocInt}; }
Pool<int*> poolIntPtr() {
  return {"IntPtr", m_bigArrayIntPtr, m_currentAllocIntPtr, m_totalAllocIntPtr};
}
Pool<short> poolShort() {
  return {"Short", m_bigArrayShort, m_currentAllocShort, m_totalAllocShort};
}

template <typename T>
void reserve(Pool<T> pool, size_t n) {
  pool.total = n;
  pool.base = static_cast<T*>(malloc(n * sizeof(T)));
  if (pool.base == nullptr && n > 0) {
    printf("ERROR: doBigMalloc could not reserve %zu elements for %s\n", n, pool.name);
    pool.total = 0;
  }
}

template <typename T>
void zeroFill(Pool<T> pool) {
  if (pool.base != nullptr) memset(static_cast<void*>(pool.base), 0, pool.total * sizeof(T));
}

template <typename T>
T* handOut(Pool<T> pool, size_t n) {
  T* result = nullptr;
  if (pool.base != nullptr && n <= pool.total - pool.current) {
    result = pool.base + pool.current;
    pool.current += n;
  }
  if (result == nullptr) {
    printf("EXIT: not enough memory for %s\n", pool.name);
    exit(-1);
  }
  return result;
}

// Zero test of the overrun check; floating-point elements compare with 0.0,
// so a NaN counts as written.
template <typename T>
bool isWritten(const T& v) {
  return v != T(0);
}
template <>
bool isWritten<double>(const double& v) {
  return !(v == 0.0);
}
template <>
bool isWritten<float>(const float& v) {
  return !(v == 0.0f);
}

template <typename T>
void checkAndRelease(Pool<T> pool) {
  if (pool.base != nullptr) {
    for (uint64_t i = pool.current; i < pool.total; i++) {
      if (isWritten(pool.base[i])) {
        printf("ERROR: memory used after the allocated space (%s)!\n", pool.name);
        break;
      }
    }
  }
  free(pool.base);
  pool.base = nullptr;
  pool.current = 0;
  pool.total = 0;
}

template <typename T>
void reportLine(Pool<T> pool) {
  printf("(%s): ALLOCATED %llu USED %llu FREE %llu\n", pool.name, (unsigned long long)pool.total,
         (unsigned long long)pool.current, (unsigned long long)(pool.total - pool.current));
}

}  // namespace

void doBigMalloc(size_t nUchar, size_t nUcharPtr, size_t nDouble, size_t nFloat, size_t nInt,
                 size_t nIntPtr, size_t nShort) {
  reserve(poolUchar(), nUchar);
  reserve(poolUcharPtr(), nUcharPtr);
  reserve(poolDouble(), nDouble);
  reserve(poolFloat(), nFloat);
  reserve(poolInt(), nInt);
  reserve(poolIntPtr(), nIntPtr);
  reserve(poolShort(), nShort);
  zeroFill(poolUchar());
  zeroFill(poolUcharPtr());
  zeroFill(poolDouble());
  zeroFill(poolFloat());
  zeroFill(poolInt());
  zeroFill(poolIntPtr());
  zeroFill(poolShort());
}

void doBigFree() {
  checkAndRelease(poolUchar());
  checkAndRelease(poolUcharPtr());
  checkAndRelease(poolDouble());
  checkAndRelease(poolFloat());
  checkAndRelease(poolInt());
  checkAndRelease(poolIntPtr());
  checkAndRelease(poolShort());
}

void resetMemoryCounters() {
  printf("RESET MEMORY COUNTERS\n");
  m_currentAllocUchar = 0;
  m_currentAllocUcharPtr = 0;
  m_currentAllocDouble = 0;
  m_currentAllocFloat = 0;
  m_currentAllocInt = 0;
  m_currentAllocIntPtr = 0;
  m_currentAllocShort = 0;
}

void dumpMemoryAlloc() {
  reportLine(poolUchar());
  reportLine(poolUcharPtr());
  reportLine(poolDouble());
  reportLine(poolFloat());
  reportLine(poolInt());
  reportLine(poolIntPtr());
  reportLine(poolShort());
  // Byte totals in 32-bit unsigned arithmetic without the Float pool, printed
  // as int: hosts parse this line in exactly this form.
  const uint32_t total = (uint32_t)m_totalAllocUchar + 8u * (uint32_t)m_totalAllocUcharPtr +
                         8u * (uint32_t)m_totalAllocDouble + 4u * (uint32_t)m_totalAllocInt +
                         8u * (uint32_t)m_totalAllocIntPtr + 2u * (uint32_t)m_totalAllocShort;
  const uint32_t used = (uint32_t)m_currentAllocUchar + 8u * (uint32_t)m_currentAllocUcharPtr +
                        8u * (uint32_t)m_currentAllocDouble + 4u * (uint32_t)m_currentAllocInt +
                        8u * (uint32_t)m_currentAllocIntPtr + 2u * (uint32_t)m_currentAllocShort;
  printf("(Total bytes): ALLOCATED %d USED %d FREE %d\n", (int)total, (int)used,
         (int)(uint32_t)(total - used));
}

unsigned char* myMallocUchar(size_t n) { return handOut(poolUchar(), n); }
unsigned char** myMallocUcharPtr(size_t n) { return handOut(poolUcharPtr(), n); }
double* myMallocDouble(size_t n) { return handOut(poolDouble(), n); }
float* myMallocFloat(size_t n) { return handOut(poolFloat(), n); }
int* myMallocInt(size_t n) { return handOut(poolInt(), n); }
int** myMallocIntPtr(size_t n) { return handOut(poolIntPtr(), n); }
short* myMallocShort(size_t n) { return handOut(poolShort(), n); }

void myFree(void*) {}

}  // namespace ZOTtracker
