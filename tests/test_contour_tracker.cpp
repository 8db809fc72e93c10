// Contour tracker state: the layout init() takes from the pools, and the
// per-camera edge detection.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "ContourTracker.h"
#include "IO.h"
#include "Imgproc.h"
#include "memory_handling.h"
#include "synthetic_images.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

struct Pools {
  Pools() { doBigMalloc(3000000, 700000, 100000, 10, 700000, 10, 2600000); }
  ~Pools() { doBigFree(); }
};

TEST(ContourTrackerInit, TakesItsBuffersFromThePoolsInOrder) {
  Pools pools;
  ContourTracker tracker;
  EXPECT_EQ(tracker.m_nCams, 0);
  EXPECT_EQ(tracker.m_residuals, nullptr);
  // Different sizes: the shared buffers take the largest width (640) and the
  // largest height (960) separately.
  const int widths[2] = {640, 320}, heights[2] = {480, 960};
  const double zNear[2] = {1.0, 2.0}, zFar[2] = {100.0, 200.0};
  const int nMax = 50;
  const long N = 2 * nMax;
  double* const d0 = m_bigArrayDouble + m_currentAllocDouble;
  unsigned char* const u0 = m_bigArrayUchar + m_currentAllocUchar;
  short* const s0 = m_bigArrayShort + m_currentAllocShort;
  int* const i0 = m_bigArrayInt + m_currentAllocInt;
  unsigned char** const p0 = m_bigArrayUcharPtr + m_currentAllocUcharPtr;
  tracker.init(widths, heights, zNear, zFar, 2, nMax);

  EXPECT_EQ(tracker.m_nCams, 2);
  EXPECT_EQ(tracker.m_maxSamplePoints, nMax);
  EXPECT_EQ(tracker.m_residuals, d0);
  EXPECT_EQ(tracker.m_normalJacobian, d0 + N);
  EXPECT_EQ(tracker.m_inlierWeights, d0 + 7 * N);
  EXPECT_EQ(tracker.m_rectJacobian, d0 + 8 * N);
  EXPECT_EQ(tracker.m_rectWork, d0 + 14 * N);
  double* d = d0 + 14 * N + (N + 1) * 6;
  unsigned char* u = u0;
  short* s = s0;
  for (int c = 0; c < 2; c++) {
    const long pixels = (long)widths[c] * heights[c];
    EXPECT_EQ(tracker.m_projPoints[c], d);
    EXPECT_EQ(tracker.m_normals[c], d + 2 * nMax);
    EXPECT_EQ(tracker.m_jacU[c], d + 4 * nMax);
    EXPECT_EQ(tracker.m_jacV[c], d + 10 * nMax);
    EXPECT_EQ(tracker.m_matchedPoints[c], d + 16 * nMax);
    EXPECT_EQ(tracker.m_matchFlags[c], d + 18 * nMax);
    d += 19 * nMax;
    EXPECT_EQ(tracker.m_edgeMap[c], u);
    u += pixels;
    EXPECT_EQ(tracker.m_gradX[c], s);
    EXPECT_EQ(tracker.m_gradY[c], s + pixels);
    s += 2 * pixels;
    EXPECT_EQ(tracker.m_imageWidth[c], widths[c]);
    EXPECT_EQ(tracker.m_imageHeight[c], heights[c]);
    EXPECT_EQ(tracker.m_zNear[c], zNear[c]);
    EXPECT_EQ(tracker.m_zFar[c], zFar[c]);
    EXPECT_EQ(tracker.m_camEnabled[c], 1);
  }
  EXPECT_EQ(m_bigArrayDouble + m_currentAllocDouble, d);
  EXPECT_EQ(tracker.m_displayImage, u);
  EXPECT_EQ(m_bigArrayUchar + m_currentAllocUchar, u + 640 * 3 * 960);
  EXPECT_EQ(tracker.m_cannyIntWork, i0);
  EXPECT_EQ(m_bigArrayInt + m_currentAllocInt, i0 + 642 * 965);
  EXPECT_EQ(tracker.m_cannyStack, p0);
  EXPECT_EQ(m_bigArrayUcharPtr + m_currentAllocUcharPtr, p0 + 640 * 960);
  EXPECT_EQ(tracker.m_cannyShortWork, s);
  EXPECT_EQ(m_bigArrayShort + m_currentAllocShort, s + 640 * 2 * 960);
}

TEST(ContourTrackerInit, RefusesWhatTheSlotsCannotHold) {
  Pools pools;
  const uint64_t before = m_currentAllocDouble;
  const int widths[6] = {64, 64, 64, 64, 64, 64}, heights[6] = {48, 48, 48, 48, 48, 48};
  const double zNear[6] = {1, 1, 1, 1, 1, 1}, zFar[6] = {9, 9, 9, 9, 9, 9};
  ContourTracker tracker;
  CaptureStdout();
  tracker.init(widths, heights, zNear, zFar, 6, 10);
  tracker.init(widths, heights, zNear, zFar, 1, -1);
  const int badHeights[1] = {0};
  tracker.init(widths, badHeights, zNear, zFar, 1, 10);
  const std::string out = GetCapturedStdout();
  EXPECT_EQ(out,
            "ERROR: contour tracker needs 0 to 5 cameras and a non-negative sample capacity, "
            "not 6 cameras and 10 samples\n"
            "ERROR: contour tracker needs 0 to 5 cameras and a non-negative sample capacity, "
            "not 1 cameras and -1 samples\n"
            "ERROR: camera 0 has an image of 64 x 0 pixels\n");
  EXPECT_EQ(m_currentAllocDouble, before);
  EXPECT_EQ(tracker.m_nCams, 0);
  // Without cameras there is nothing to sample, and edge detection does nothing.
  EXPECT_EQ(tracker.edgeDetect(nullptr, 50, 100), 0);
}

class EdgeDetection : public ::testing::Test {
 protected:
  void SetUp() override {
    const int widths[2] = {64, 48}, heights[2] = {48, 40};
    const double zNear[2] = {1, 1}, zFar[2] = {9, 9};
    m_tracker.init(widths, heights, zNear, zFar, 2, 10);
    for (int c = 0; c < 2; c++) {
      m_images[c].assign((size_t)widths[c] * heights[c], 30);
      zot_test::renderDisc(m_images[c].data(), widths[c], heights[c], 20.0 + 3 * c, 20.0, 10.0,
                           200.0);
      m_ptrs[c] = m_images[c].data();
    }
  }
  Pools m_pools;
  ContourTracker m_tracker;
  std::vector<unsigned char> m_images[2];
  const unsigned char* m_ptrs[2];
};

TEST_F(EdgeDetection, EachEnabledCameraGetsItsOwnSobelAndCanny) {
  ASSERT_EQ(m_tracker.edgeDetect(m_ptrs, 50, 100), 0);
  for (int c = 0; c < 2; c++) {
    const int w = m_tracker.m_imageWidth[c], h = m_tracker.m_imageHeight[c];
    std::vector<short> dx(w * h), dy(w * h), tmp(2 * w * h);
    std::vector<unsigned char> edges(w * h);
    std::vector<int> buffer((w + 2) * (h + 5));
    std::vector<unsigned char*> stack(w * h);
    ASSERT_EQ(CannyAndSobel(m_ptrs[c], dx.data(), dy.data(), edges.data(), buffer.data(),
                            stack.data(), tmp.data(), w, h, 50, 100),
              0);
    EXPECT_EQ(std::memcmp(edges.data(), m_tracker.m_edgeMap[c], w * h), 0) << c;
    EXPECT_EQ(std::memcmp(dx.data(), m_tracker.m_gradX[c], w * h * sizeof(short)), 0) << c;
    EXPECT_EQ(std::memcmp(dy.data(), m_tracker.m_gradY[c], w * h * sizeof(short)), 0) << c;
    long nEdges = 0;
    for (int k = 0; k < w * h; k++) nEdges += edges[k] != 0;
    EXPECT_GT(nEdges, 30) << "the disc outline is an edge";
  }
}

TEST_F(EdgeDetection, DisabledCamerasKeepTheirMapsAndAFailureStopsAtOnce) {
  const long pixels1 = 48 * 40;
  std::memset(m_tracker.m_edgeMap[1], 7, pixels1);
  m_tracker.m_camEnabled[1] = 0;
  ASSERT_EQ(m_tracker.edgeDetect(m_ptrs, 50, 100), 0);
  for (long k = 0; k < pixels1; k++) ASSERT_EQ(m_tracker.m_edgeMap[1][k], 7);

  // Camera 0 too small for the edge detector: its code comes back and
  // camera 1 is not processed.
  m_tracker.m_camEnabled[1] = 1;
  m_tracker.m_imageWidth[0] = 20;
  m_tracker.m_imageHeight[0] = 20;
  CaptureStdout();
  EXPECT_EQ(m_tracker.edgeDetect(m_ptrs, 50, 100), ZOT_ERR_CANNY);
  EXPECT_EQ(GetCapturedStdout(), "Canny failed: insufficient stack memory!\n");
  for (long k = 0; k < pixels1; k++) ASSERT_EQ(m_tracker.m_edgeMap[1][k], 7);
}

}  // namespace
