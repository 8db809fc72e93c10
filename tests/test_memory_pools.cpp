// Typed pools: hand-out, exhaustion, overrun check, reset and usage report.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <string>

#include "memory_handling.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

// Death tests match stderr; the library reports on stdout.
void stdoutToStderr() { dup2(2, 1); }

class Pools : public testing::Test {
 protected:
  void TearDown() override {
    CaptureStdout();
    doBigFree();
    GetCapturedStdout();
  }
};

}  // namespace

TEST_F(Pools, ExactFillSucceedsAndOneMoreEndsTheProcessWithThePoolsMessage) {
  doBigMalloc(4, 4, 4, 4, 4, 4, 4);
  unsigned char* u = myMallocUchar(3);
  EXPECT_EQ(u, m_bigArrayUchar);
  EXPECT_EQ(myMallocUchar(1), m_bigArrayUchar + 3);  // exactly full
  EXPECT_EQ(m_currentAllocUchar, 4u);
  EXPECT_EQ(myMallocDouble(4), m_bigArrayDouble);
  EXPECT_EQ(myMallocShort(0), m_bigArrayShort);  // n = 0 from a reserved pool is fine

  EXPECT_EXIT(
      {
        stdoutToStderr();
        myMallocUchar(1);
      },
      testing::ExitedWithCode(255), "^EXIT: not enough memory for Uchar\n$");
  EXPECT_EXIT(
      {
        stdoutToStderr();
        myMallocUcharPtr(5);
      },
      testing::ExitedWithCode(255), "^EXIT: not enough memory for UcharPtr\n$");
  EXPECT_EXIT(
      {
        stdoutToStderr();
        myMallocDouble(1);
      },
      testing::ExitedWithCode(255), "^EXIT: not enough memory for Double\n$");
  EXPECT_EXIT(
      {
        stdoutToStderr();
        myMallocFloat(5);
      },
      testing::ExitedWithCode(255), "^EXIT: not enough memory for Float\n$");
  EXPECT_EXIT(
      {
        stdoutToStderr();
        myMallocInt(5);
      },
      testing::ExitedWithCode(255), "^EXIT: not enough memory for Int\n$");
  EXPECT_EXIT(
      {
        stdoutToStderr();
        myMallocIntPtr(5);
      },
      testing::ExitedWithCode(255), "^EXIT: not enough memory for IntPtr\n$");
  EXPECT_EXIT(
      {
        stdoutToStderr();
        myMallocShort(5);
      },
      testing::ExitedWithCode(255), "^EXIT: not enough memory for Short\n$");
  // A request so large that current + n would wrap must not slip through.
  EXPECT_EXIT(
      {
        stdoutToStderr();
        myMallocInt(~size_t(0));
      },
      testing::ExitedWithCode(255), "^EXIT: not enough memory for Int\n$");
}

TEST_F(Pools, AnyHandOutBeforeReservationEndsTheProcessEvenForZero) {
  ASSERT_EQ(m_bigArrayDouble, nullptr);
  EXPECT_EXIT(
      {
        stdoutToStderr();
        myMallocDouble(0);
      },
      testing::ExitedWithCode(255), "^EXIT: not enough memory for Double\n$");
  EXPECT_EXIT(
      {
        stdoutToStderr();
        myMallocUchar(0);
      },
      testing::ExitedWithCode(255), "^EXIT: not enough memory for Uchar\n$");
}

TEST_F(Pools, ReleaseReportsOneOverrunPerWrittenPoolInPoolOrder) {
  doBigMalloc(16, 4, 20, 8, 8, 4, 8);
  unsigned char* u = myMallocUchar(8);
  double* d = myMallocDouble(10);
  short* s = myMallocShort(4);
  int* i = myMallocInt(8);  // the Int pool is exactly full: nothing past it to check
  u[8] = 1;                 // one past the block
  u[12] = 7;                // a second write in the same pool: still one message
  d[10] = 3.0;
  s[7] = -1;
  i[7] = 5;  // inside its block: no message
  CaptureStdout();
  doBigFree();
  EXPECT_EQ(GetCapturedStdout(),
            "ERROR: memory used after the allocated space (Uchar)!\n"
            "ERROR: memory used after the allocated space (Double)!\n"
            "ERROR: memory used after the allocated space (Short)!\n");
  EXPECT_EQ(m_bigArrayUchar, nullptr);
  EXPECT_EQ(m_bigArrayDouble, nullptr);
  EXPECT_EQ(m_totalAllocDouble, 0u);
  EXPECT_EQ(m_currentAllocDouble, 0u);

  // Floating-point pools compare with 0.0: a NaN counts as written, -0.0 not.
  doBigMalloc(0, 0, 6, 6, 0, 0, 0);
  double* d2 = myMallocDouble(2);
  float* f2 = myMallocFloat(2);
  d2[4] = std::nan("");
  f2[3] = -0.0f;
  CaptureStdout();
  doBigFree();
  EXPECT_EQ(GetCapturedStdout(), "ERROR: memory used after the allocated space (Double)!\n");

  // Pointer pools: a non-null pointer past the block is an overrun.
  doBigMalloc(0, 3, 0, 0, 0, 3, 0);
  unsigned char** up = myMallocUcharPtr(1);
  int** ip = myMallocIntPtr(1);
  static unsigned char byte;
  static int word;
  up[2] = &byte;
  ip[1] = &word;
  CaptureStdout();
  doBigFree();
  EXPECT_EQ(GetCapturedStdout(),
            "ERROR: memory used after the allocated space (UcharPtr)!\n"
            "ERROR: memory used after the allocated space (IntPtr)!\n");
}

TEST_F(Pools, ResetReusesThePoolsFromTheStartWithOldContents) {
  doBigMalloc(8, 0, 8, 0, 0, 0, 0);
  double* first = myMallocDouble(3);
  first[0] = 42.0;
  myMallocUchar(5);
  CaptureStdout();
  resetMemoryCounters();
  EXPECT_EQ(GetCapturedStdout(), "RESET MEMORY COUNTERS\n");
  EXPECT_EQ(m_currentAllocUchar, 0u);
  EXPECT_EQ(m_totalAllocDouble, 8u);
  double* again = myMallocDouble(1);
  EXPECT_EQ(again, first);
  EXPECT_EQ(again[0], 42.0);
}

TEST_F(Pools, UsageReportHasItsExactFormIncludingThe32BitByteSums) {
  doBigMalloc(10, 2, 1000, 7, 3, 1, 5);
  myMallocDouble(400);
  myMallocUchar(10);
  myMallocFloat(7);
  myMallocShort(1);
  CaptureStdout();
  dumpMemoryAlloc();
  // Bytes: 10 + 8*2 + 8*1000 + 4*3 + 8*1 + 2*5 = 8056 (Float left out);
  // used: 10 + 8*400 + 2*1 = 3212.
  EXPECT_EQ(GetCapturedStdout(),
            "(Uchar): ALLOCATED 10 USED 10 FREE 0\n"
            "(UcharPtr): ALLOCATED 2 USED 0 FREE 2\n"
            "(Double): ALLOCATED 1000 USED 400 FREE 600\n"
            "(Float): ALLOCATED 7 USED 7 FREE 0\n"
            "(Int): ALLOCATED 3 USED 0 FREE 3\n"
            "(IntPtr): ALLOCATED 1 USED 0 FREE 1\n"
            "(Short): ALLOCATED 5 USED 1 FREE 4\n"
            "(Total bytes): ALLOCATED 8056 USED 3212 FREE 4844\n");

  CaptureStdout();
  doBigFree();
  dumpMemoryAlloc();
  const std::string afterFree = GetCapturedStdout();
  EXPECT_NE(afterFree.find("(Double): ALLOCATED 0 USED 0 FREE 0\n"), std::string::npos);
  EXPECT_NE(afterFree.find("(Total bytes): ALLOCATED 0 USED 0 FREE 0\n"), std::string::npos);

  // Only the Float pool reserved: the byte line leaves it out.
  doBigMalloc(0, 0, 0, 100, 0, 0, 0);
  CaptureStdout();
  dumpMemoryAlloc();
  EXPECT_NE(GetCapturedStdout().find("(Total bytes): ALLOCATED 0 USED 0 FREE 0\n"),
            std::string::npos);

  // Above 2^31 bytes the sums wrap as 32-bit values printed as int. The
  // counters are public, so the report can be checked without reserving 2.4 GB.
  const uint64_t savedTotal = m_totalAllocDouble;
  m_totalAllocDouble = 300000000;  // 2,400,000,000 bytes
  CaptureStdout();
  dumpMemoryAlloc();
  const std::string wrapped = GetCapturedStdout();
  m_totalAllocDouble = savedTotal;
  EXPECT_NE(wrapped.find("(Double): ALLOCATED 300000000 USED 0 FREE 300000000\n"),
            std::string::npos);
  EXPECT_NE(wrapped.find("(Total bytes): ALLOCATED -1894967296 USED 0 FREE -1894967296\n"),
            std::string::npos);
}

TEST_F(Pools, FreshPoolsAreZeroAndMyFreeKeepsBlocksInPlace) {
  doBigMalloc(64, 0, 64, 0, 64, 0, 0);
  double* d = myMallocDouble(64);
  for (int k = 0; k < 64; k++) ASSERT_EQ(d[k], 0.0);
  d[5] = 1.5;
  myFree(d);
  EXPECT_EQ(m_currentAllocDouble, 64u);
  EXPECT_EQ(d[5], 1.5);
}
