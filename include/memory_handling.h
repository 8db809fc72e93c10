/// @file
/// Typed memory pools. A host reserves seven pools once with doBigMalloc();
/// set-up code then takes every buffer it needs from them by bump allocation,
/// so the per-frame path never touches the heap. Memory is returned only as a
/// whole with doBigFree(), which also checks for writes past the handed-out part.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ZOTtracker {

// ---------------------------------------------------------------- pool state
/// Base pointer, elements handed out and elements reserved, per element type.
/// Counters are element counts, not bytes. Invariant: current <= total, and the
/// elements from current to total are zero unless somebody wrote past a block.
extern unsigned char* m_bigArrayUchar;
extern uint64_t m_currentAllocUchar;
extern uint64_t m_totalAllocUchar;
extern unsigned char** m_bigArrayUcharPtr;
extern uint64_t m_currentAllocUcharPtr;
extern uint64_t m_totalAllocUcharPtr;
extern double* m_bigArrayDouble;
extern uint64_t m_currentAllocDouble;
extern uint64_t m_totalAllocDouble;
extern float* m_bigArrayFloat;
extern uint64_t m_currentAllocFloat;
extern uint64_t m_totalAllocFloat;
extern int* m_bigArrayInt;
extern uint64_t m_currentAllocInt;
extern uint64_t m_totalAllocInt;
extern int** m_bigArrayIntPtr;
extern uint64_t m_currentAllocIntPtr;
extern uint64_t m_totalAllocIntPtr;
extern short* m_bigArrayShort;
extern uint64_t m_currentAllocShort;
extern uint64_t m_totalAllocShort;

// ---------------------------------------------------------------- set-up and release
/// Reserves the seven pools (sizes in elements, in the order Uchar, UcharPtr,
/// Double, Float, Int, IntPtr, Short) and zero-fills them. Handed-out counters
/// are left as they are. A reservation that malloc refuses prints
/// "ERROR: doBigMalloc could not reserve <n> elements for <pool>" and leaves
/// that pool empty (reserved 0), so its first hand-out ends the process with
/// the usual exhaustion message instead of writing through a null pointer.
/// Calling it again without doBigFree() leaks the earlier blocks.
void doBigMalloc(size_t nUchar, size_t nUcharPtr, size_t nDouble, size_t nFloat, size_t nInt,
                 size_t nIntPtr, size_t nShort);

/// Checks each pool for non-zero elements past the handed-out part (one
/// "ERROR: memory used after the allocated space (<pool>)!" line per pool,
/// a NaN counts as written), then frees all pools and zeroes every counter.
void doBigFree();

/// Prints "RESET MEMORY COUNTERS" and sets the handed-out counters to 0; pool
/// contents stay, so the next hand-outs return old data.
void resetMemoryCounters();

/// Prints one "(<pool>): ALLOCATED r USED u FREE f" line per pool and a
/// "(Total bytes): ..." line. The byte totals leave out the Float pool and are
/// summed in 32-bit unsigned arithmetic printed as int (they wrap above 2^31).
void dumpMemoryAlloc();

// ---------------------------------------------------------------- hand-out
/// Each returns n consecutive elements of its pool. When the pool cannot serve
/// the request (or was never reserved, even for n = 0) it prints
/// "EXIT: not enough memory for <pool>" and ends the process with exit(-1):
/// set-up has no way to continue without the buffer.
unsigned char* myMallocUchar(size_t n);
unsigned char** myMallocUcharPtr(size_t n);
double* myMallocDouble(size_t n);
float* myMallocFloat(size_t n);
int* myMallocInt(size_t n);
int** myMallocIntPtr(size_t n);
short* myMallocShort(size_t n);

/// Does nothing: pool memory is only released as a whole by doBigFree().
void myFree(void* p);

}  // namespace ZOTtracker
