// The numeric and image routines run on caller memory only: no heap
// allocation once the pools are reserved.
#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "IO.h"
#include "Imgproc.h"
#include "Math.h"
#include "SVD_NR.h"
#include "alloc_counter.h"
#include "memory_handling.h"

using namespace ZOTtracker;

TEST(NoAllocation, FoundationRoutinesUseOnlyCallerMemory) {
  if (!zot_test::allocationCountingAvailable()) GTEST_SKIP() << "allocator owned by the sanitizer";
  // The counter must see allocations at all, or the zero below proves nothing.
  zot_test::startCountingAllocations();
  std::vector<double>* probe = new std::vector<double>(10);
  EXPECT_GT(zot_test::stopCountingAllocations(), 0);
  delete probe;

  doBigMalloc(1000, 10, 1000, 10, 100, 10, 100);
  double* A = myMallocDouble(36);
  double* W = myMallocDouble(6);
  double* U = myMallocDouble(36);
  double* V = myMallocDouble(36);
  double* work = myMallocDouble(42);
  int* index = myMallocInt(6);
  unsigned char* grey = myMallocUchar(64);
  unsigned char* colour = myMallocUchar(192);
  for (int i = 0; i < 36; i++) A[i] = (i * 37 % 11) - 5.0 + (i % 7 == 0 ? 3.0 : 0.0);
  printf(" ");  // stdio buffers its output on first use; not ours to count
  fflush(stdout);

  zot_test::startCountingAllocations();
  double T[16], Tinv[16], twist[6] = {10, -20, 30, 1, 2, 3}, back[6], uv[2], R[9], r[3];
  TfromTwist(twist, T);
  TwistFromT(T, back);
  updatePoseTwist(T, twist);
  inverseTransform(T, Tinv);
  double P[16];
  matrixProduct444(T, Tinv, P);
  const double K[9] = {600, 0, 320, 0, 600, 240, 0, 0, 1}, X[3] = {1, 2, 500};
  transformAndProjectPoint(K, T, X, uv);
  matrixRvecToRmat(twist, R);
  matrixRmatToRvec(R, r);
  matrixSVD(A, 6, 6, W, U, V, 1, 0, work, index);
  double values[50];
  int idx[50];
  for (int i = 0; i < 50; i++) values[i] = (i * 13) % 50;
  myQuickSort(values, idx, 50);
  convertGrayToColor(grey, colour, 8, 8);
  convertColorToGray(colour, grey, 8, 8);
  globalStrcat("x", 1);
  showElapsed("timing", 0, 100);
  const long allocations = zot_test::stopCountingAllocations();
  EXPECT_EQ(allocations, 0);

  testing::internal::CaptureStdout();
  doBigFree();
  testing::internal::GetCapturedStdout();
}
