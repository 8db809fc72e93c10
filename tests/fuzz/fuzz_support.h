// Helpers shared by the fuzz harnesses: pools reserved exactly for a setup
// array (inputs that would need absurd amounts are skipped), the overrun
// check of the pools before they are released, and the entry-point naming.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "PoolSizes.h"
#include "memory_handling.h"

// libFuzzer calls LLVMFuzzerTestOneInput; the replay program links every
// harness and names each entry differently (-DZOT_FUZZ_ENTRY=...).
#ifndef ZOT_FUZZ_ENTRY
#define ZOT_FUZZ_ENTRY LLVMFuzzerTestOneInput
#endif

namespace zot_fuzz {

// One scratch directory per process for the files the harnesses write,
// removed at exit.
inline const std::string& scratchDirectory() {
  static std::string dir;
  if (dir.empty()) {
    char name[] = "/tmp/zot_fuzz_XXXXXX";
    if (mkdtemp(name) == nullptr) abort();
    dir = name;
    atexit([] { std::filesystem::remove_all(dir); });
  }
  return dir;
}

// Writes size bytes to path; a scratch file that cannot be written ends the run.
inline void writeFile(const std::string& path, const void* data, size_t size) {
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) abort();
  fwrite(data, 1, size, f);
  fclose(f);
}

// Inputs whose pools would exceed this are skipped: they test nothing the
// small ones do not, and they slow the search down.
constexpr size_t kMaxPoolBytes = size_t(64) << 20;

// Reserves pools of exactly the computed sizes for `a`. False, with nothing
// reserved, when the layout is refused or the pools would be too large.
inline bool reservePoolsFor(const std::vector<double>& a) {
  size_t sizes[ZOTtracker::ZOT_N_POOLS];
  if (ZOTtracker::computePoolSizes((int)a.size(), a.data(), 0.0, sizes) != 0) return false;
  const size_t bytesPer[ZOTtracker::ZOT_N_POOLS] = {1, sizeof(void*), 8, 4, 4, sizeof(void*), 2};
  size_t bytes = 0;
  for (int p = 0; p < ZOTtracker::ZOT_N_POOLS; p++) {
    if (sizes[p] > kMaxPoolBytes) return false;
    bytes += sizes[p] * bytesPer[p];
  }
  if (bytes > kMaxPoolBytes) return false;
  ZOTtracker::reservePools(sizes);
  return true;
}

// True when every element past the handed-out part of a pool is still zero.
template <typename T>
bool untouchedTail(const T* base, uint64_t used, uint64_t total) {
  for (uint64_t i = used; i < total; i++)
    if (base[i] != T(0)) return false;
  return true;
}

// Releases the pools; a write past a handed-out block is a finding, so it
// aborts where doBigFree would only print.
inline void releasePools() {
  using namespace ZOTtracker;
  const bool clean =
      untouchedTail(m_bigArrayUchar, m_currentAllocUchar, m_totalAllocUchar) &&
      untouchedTail(m_bigArrayUcharPtr, m_currentAllocUcharPtr, m_totalAllocUcharPtr) &&
      untouchedTail(m_bigArrayDouble, m_currentAllocDouble, m_totalAllocDouble) &&
      untouchedTail(m_bigArrayFloat, m_currentAllocFloat, m_totalAllocFloat) &&
      untouchedTail(m_bigArrayInt, m_currentAllocInt, m_totalAllocInt) &&
      untouchedTail(m_bigArrayIntPtr, m_currentAllocIntPtr, m_totalAllocIntPtr) &&
      untouchedTail(m_bigArrayShort, m_currentAllocShort, m_totalAllocShort);
  if (!clean) abort();
  doBigFree();
}

// The numbers of a text: every token strtod accepts (nan and inf included);
// anything else is skipped. At most `most` values.
inline std::vector<double> numbersOf(const std::string& text, size_t most) {
  std::vector<double> v;
  const char* p = text.c_str();
  while (*p != '\0' && v.size() < most) {
    char* end = nullptr;
    const double x = strtod(p, &end);
    if (end == p) {
      p++;
    } else {
      v.push_back(x);
      p = end;
    }
  }
  return v;
}

// The parts of an input separated by lines "%%%".
inline std::vector<std::string> partsOf(const uint8_t* data, size_t size) {
  const std::string all(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> parts;
  size_t from = 0;
  for (;;) {
    const size_t at = all.find("%%%\n", from);
    if (at == std::string::npos) break;
    parts.push_back(all.substr(from, at - from));
    from = at + 4;
  }
  parts.push_back(all.substr(from));
  return parts;
}

}  // namespace zot_fuzz
