// Matching along the normals on hand-made edge maps: which side wins, the
// strict angle test, rounding of the projected point, clipped search lines,
// and the directional-derivative measurement.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "ContourTracker.h"
#include "Math.h"
#include "tracking_scene.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

constexpr int kW = 128, kH = 96;

zot_test::TrackingCamera smallCamera() {
  zot_test::TrackingCamera cam;
  cam.width = kW;
  cam.height = kH;
  return cam;
}

class Matching : public ::testing::Test {
 protected:
  Matching() : m_scene({smallCamera()}, zot_test::trackingBox(), 16) {
    std::memset(t().m_edgeMap[0], 0, kW * kH);
    std::memset(t().m_gradX[0], 0, kW * kH * sizeof(short));
    std::memset(t().m_gradY[0], 0, kW * kH * sizeof(short));
  }
  ContourTracker& t() { return m_scene.m_tracker; }
  // An edge pixel with gradient (gx, gy).
  void edge(int x, int y, short gx, short gy) {
    t().m_edgeMap[0][y * kW + x] = 255;
    t().m_gradX[0][y * kW + x] = gx;
    t().m_gradY[0][y * kW + x] = gy;
  }
  // A gradient without an edge pixel (for the directional derivative).
  void gradient(int x, int y, short gx, short gy) {
    t().m_gradX[0][y * kW + x] = gx;
    t().m_gradY[0][y * kW + x] = gy;
  }
  bool canny(int x, int y, double nx, double ny, double range, double angle, int* found) {
    const int start[2] = {x, y};
    const double normal[2] = {nx, ny};
    return t().measurement_single_line_nn_Canny(0, start, normal, range, angle, found);
  }
  bool dirDer(int x, int y, double nx, double ny, double range, double rel, int* found) {
    const int start[2] = {x, y};
    const double normal[2] = {nx, ny};
    return t().measurement_single_line_nn_dir_der(0, start, normal, range, rel, 20.0, found);
  }
  // Projected points (u, v) with normal (1, 0) for matchAlongNormals.
  void projected(const std::vector<double>& uv) {
    const int n = (int)uv.size() / 2;
    m_scene.m_model->m_nSamplePointsPerCam[0] = n;
    for (int k = 0; k < n; k++) {
      t().m_projPoints[0][2 * k] = uv[2 * k];
      t().m_projPoints[0][2 * k + 1] = uv[2 * k + 1];
      t().m_normals[0][2 * k] = 1.0;
      t().m_normals[0][2 * k + 1] = 0.0;
      t().m_matchedPoints[0][2 * k] = t().m_matchedPoints[0][2 * k + 1] = -9.0;
      t().m_matchFlags[0][k] = -9.0;
    }
  }
  zot_test::TrackingScene m_scene;
};

TEST_F(Matching, TheNearestEdgeWinsAndTheMinusSideFirstAtEqualDistance) {
  int found[2] = {-1, -1};
  edge(17, 10, 100, 0);
  edge(23, 10, 100, 0);
  ASSERT_TRUE(canny(20, 10, 1.0, 0.0, 10.0, 20.0, found));
  EXPECT_EQ(found[0], 17);
  EXPECT_EQ(found[1], 10);
  // Against the reversed normal the other one is on the minus side.
  ASSERT_TRUE(canny(20, 10, -1.0, 0.0, 10.0, 20.0, found));
  EXPECT_EQ(found[0], 23);
  // A nearer edge on the plus side wins over the minus side.
  edge(22, 10, -100, 0);  // either gradient sign
  ASSERT_TRUE(canny(20, 10, 1.0, 0.0, 10.0, 20.0, found));
  EXPECT_EQ(found[0], 22);
  // Out of range: nothing, and found is left alone.
  found[0] = found[1] = -5;
  EXPECT_FALSE(canny(20, 10, 1.0, 0.0, 1.0, 20.0, found));
  EXPECT_EQ(found[0], -5);
  EXPECT_EQ(found[1], -5);
  // The start pixel itself comes first; with searchRange 0 it is all there is.
  edge(20, 10, 100, 0);
  ASSERT_TRUE(canny(20, 10, 1.0, 0.0, 0.0, 20.0, found));
  EXPECT_EQ(found[0], 20);
  EXPECT_FALSE(canny(21, 10, 1.0, 0.0, 0.0, 20.0, found));
}

TEST_F(Matching, TheAngleTestIsStrict) {
  // Normal (0.6, 0.8) against gradient (0, 5): cosine 0.8 exactly.
  edge(30, 30, 0, 5);
  const double nx = 0.6, ny = 0.8;
  const double score = std::fabs(nx * 0.0 + ny * 5.0) / 5.0;
  ASSERT_EQ(score, 0.8);
  // The largest angle whose cosine is still exactly 0.8.
  double angle = std::acos(0.8) * 180.0 / ZOT_PI;
  for (int i = 0; i < 1000 && std::cos(angle * ZOT_PI / 180.0) != 0.8; i++) {
    angle = std::nextafter(angle, std::cos(angle * ZOT_PI / 180.0) > 0.8 ? 90.0 : 0.0);
  }
  ASSERT_EQ(std::cos(angle * ZOT_PI / 180.0), 0.8);
  int found[2];
  EXPECT_FALSE(canny(30, 30, nx, ny, 0.0, angle, found)) << "exactly the limit is rejected";
  EXPECT_TRUE(canny(30, 30, nx, ny, 0.0, angle + 1e-9, found));
  EXPECT_FALSE(canny(30, 30, nx, ny, 0.0, angle - 1e-9, found));

  // A gradient across the normal, or none at all, never matches.
  edge(40, 40, 0, 300);
  edge(41, 40, 0, 0);
  for (double maxAngle : {-5.0, 0.0, 89.0, 90.0}) {
    EXPECT_FALSE(canny(40, 40, 1.0, 0.0, 0.0, maxAngle, found)) << maxAngle;
    EXPECT_FALSE(canny(41, 40, 1.0, 0.0, 0.0, maxAngle, found)) << maxAngle;
  }
  // Without an angle limit any other direction passes.
  edge(50, 40, 1, 300);
  EXPECT_TRUE(canny(50, 40, 1.0, 0.0, 0.0, 0.0, found));
}

TEST_F(Matching, ProjectedPointsRoundHalfAwayFromZeroAndOutsidePointsAreUnmatched) {
  edge(0, 10, 100, 0);
  edge(kW - 1, 20, 100, 0);
  projected({-0.4, 10.0, -0.6, 10.0, kW - 0.6, 20.0, kW - 0.5, 20.0, 5.0, std::nan(""), 5.0, 1e300,
             60.0, 60.0});
  ASSERT_EQ(t().matchAlongNormals(*m_scene.m_model, 0, 3.0, 20.0, false, false), 0);
  const double expected[7][3] = {{0, 10, 1}, {0, 0, 0}, {kW - 1, 20, 1}, {0, 0, 0},
                                 {0, 0, 0},  {0, 0, 0}, {0, 0, 0}};
  for (int k = 0; k < 7; k++) {
    EXPECT_EQ(t().m_matchedPoints[0][2 * k], expected[k][0]) << k;
    EXPECT_EQ(t().m_matchedPoints[0][2 * k + 1], expected[k][1]) << k;
    EXPECT_EQ(t().m_matchFlags[0][k], expected[k][2]) << k;
  }
}

TEST_F(Matching, ASearchLineLeavingTheImageIsClippedAndTheOtherSideGoesOn) {
  int found[2];
  edge(6, 10, 100, 0);
  // The minus side ends at the border after two pixels.
  ASSERT_TRUE(canny(1, 10, 1.0, 0.0, 8.0, 20.0, found));
  EXPECT_EQ(found[0], 6);
  EXPECT_EQ(found[1], 10);
  // The same towards the bottom border with the plus side clipped.
  edge(70, kH - 8, 0, 100);
  ASSERT_TRUE(canny(70, kH - 2, 0.0, -1.0, 10.0, 20.0, found));
  EXPECT_EQ(found[1], kH - 8);
  // An edge beyond a corner stays out of reach however far the search goes.
  EXPECT_FALSE(canny(0, 0, -1.0, 0.0, 50.0, 20.0, found));
}

TEST_F(Matching, DiagonalNormalsWalkFourConnectedLines) {
  // From (20, 20) along (1, 1)/sqrt(2) for 3 pixels each way the lines end
  // at (22, 22) and (18, 18). Walked 4-connected, each holds 5 pixels (an
  // 8-connected walk would hold 3): 9 pixels in all with the shared start,
  // every one a 4-neighbour step from the last.
  const double h = std::sqrt(0.5);
  int hits = 0;
  for (int y = 15; y <= 25; y++) {
    for (int x = 15; x <= 25; x++) {
      std::memset(t().m_edgeMap[0], 0, kW * kH);
      edge(x, y, 100, 100);
      int found[2] = {-1, -1};
      if (!canny(20, 20, h, h, 3.0, 20.0, found)) continue;
      hits++;
      EXPECT_EQ(found[0], x);
      EXPECT_EQ(found[1], y);
      const int dx = x - 20, dy = y - 20;
      EXPECT_TRUE(dx * dy >= 0 && std::abs(dx) <= 2 && std::abs(dy) <= 2 &&
                  std::abs(std::abs(dx) - std::abs(dy)) <= 1)
          << x << "," << y;
    }
  }
  EXPECT_EQ(hits, 9);
}

TEST_F(Matching, DirectionalDerivativeTakesTheNearestPeak) {
  int found[2] = {-1, -1};
  // Peaks at x = 16 (4 away) and x = 23 (3 away) on row 40.
  const short row[] = {0, 0, 0, 100, 800, 100, 0, 0, 0, 0, 100, 900, 100, 0, 0};
  for (int i = 0; i < 15; i++) gradient(12 + i, 40, row[i], 0);
  ASSERT_TRUE(dirDer(20, 40, 1.0, 0.0, 8.0, 0.1, found));
  EXPECT_EQ(found[0], 23);
  EXPECT_EQ(found[1], 40);
  // At equal distance the minus end wins.
  gradient(23, 40, 100, 0);
  gradient(24, 40, 900, 0);
  gradient(25, 40, 100, 0);
  gradient(22, 40, 0, 0);
  gradient(16, 40, 800, 0);
  ASSERT_TRUE(dirDer(20, 40, 1.0, 0.0, 8.0, 0.1, found));
  EXPECT_EQ(found[0], 16);
  // Too weak for the threshold (relThreshold * 8 * 255).
  EXPECT_FALSE(dirDer(20, 40, 1.0, 0.0, 8.0, 0.5, found));
  // A plateau of two equal values: both are peaks, the nearer is taken.
  for (int i = 0; i < 15; i++) gradient(12 + i, 50, 0, 0);
  gradient(21, 50, 100, 0);
  gradient(22, 50, 700, 0);
  gradient(23, 50, 700, 0);
  gradient(24, 50, 100, 0);
  ASSERT_TRUE(dirDer(20, 50, 1.0, 0.0, 8.0, 0.1, found));
  EXPECT_EQ(found[0], 22);
  // The derivative is taken along the normal: a gradient across it is nothing.
  ASSERT_FALSE(dirDer(20, 50, 0.0, 1.0, 8.0, 0.1, found));
}

TEST_F(Matching, DirectionalDerivativeRefusesLinesItCannotHold) {
  int found[2];
  // Clipped at the corner to 3 pixels: too short for a 5-pixel window.
  EXPECT_FALSE(dirDer(0, 0, 1.0, 0.0, 0.0, 0.0, found));
  // A diagonal line of 2 * 42 * 2 * 0.707 + 1 > 100 pixels.
  const double h = std::sqrt(0.5);
  CaptureStdout();
  EXPECT_FALSE(dirDer(60, 48, h, h, 40.0, 0.0, found));
  const std::string out = GetCapturedStdout();
  EXPECT_NE(out.find("ERROR: search line of"), std::string::npos) << out;
}

}  // namespace
