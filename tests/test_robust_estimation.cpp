// The robust estimator: its sub-pixel edges, its weighted solve, its
// extension block and its recovery when the object is not where the filter
// predicts it.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "ContourTracker.h"
#include "IO.h"
#include "Imgproc.h"
#include "Math.h"
#include "SetupArray.h"
#include "alloc_counter.h"
#include "tracker_scene.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

// A dark-to-bright step whose pixels hold the bright share of their area is
// found at its true fractional position, along x, along y and where the
// step lies exactly between two pixels.
TEST(RobustEstimation, SubpixelEdgesOfRenderedStepsLieAtTheirTruePositions) {
  const int w = 40, h = 40;
  for (double edge : {19.0, 19.25, 19.5, 19.8}) {
    for (bool vertical : {true, false}) {
      std::vector<unsigned char> img(w * h);
      for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
          const double along = vertical ? x : y;
          const double bright = std::min(1.0, std::max(0.0, along + 0.5 - edge));
          img[y * w + x] = (unsigned char)std::lround(40 + 160 * bright);
        }
      std::vector<short> dx(w * h), dy(w * h), tmp(2 * w * h);
      mySobel(img.data(), dx.data(), dy.data(), tmp.data(), w, h);
      // The strongest response on the middle line, first one on ties.
      int best = 1;
      for (int i = 1; i < w - 1; i++) {
        const long at = vertical ? 20L * w + i : (long)i * w + 20;
        const long was = vertical ? 20L * w + best : (long)best * w + 20;
        if (std::abs(dx[at]) + std::abs(dy[at]) > std::abs(dx[was]) + std::abs(dy[was])) best = i;
      }
      double refined[2];
      ASSERT_TRUE(refineEdgeSubpixel(dx.data(), dy.data(), w, h, vertical ? best : 20,
                                     vertical ? 20 : best, refined));
      EXPECT_NEAR(refined[vertical ? 0 : 1], edge, 0.02) << edge << (vertical ? " x" : " y");
      EXPECT_EQ(refined[vertical ? 1 : 0], 20.0);
    }
  }
  // The border has no neighbours to fit.
  std::vector<short> flat(w * h, 0);
  double at[2];
  EXPECT_FALSE(refineEdgeSubpixel(flat.data(), flat.data(), w, h, 0, 5, at));
  EXPECT_FALSE(refineEdgeSubpixel(flat.data(), flat.data(), w, h, 5, 5, at));
}

// Tukey weights from the residuals' own scale, then the update: the weighted
// cost has zero gradient there (central differences) and grows every way.
TEST(RobustEstimation, TheUpdateMinimisesTheWeightedCostOfTheTukeyWeights) {
  const int n = 200;
  std::vector<double> residuals(n), jacobian(6 * n), weights(n, 1.0);
  std::mt19937 rng(7);
  std::normal_distribution<double> noise(0.0, 0.4);
  for (int i = 0; i < n; i++) {
    for (int j = 0; j < 6; j++) jacobian[6 * i + j] = noise(rng) * 3.0;
    residuals[i] = i % 10 == 0 ? 6.0 + i % 7 : noise(rng);  // every tenth an outlier
  }
  weights[3] = 0.0;  // an unmatched sample stays out
  ContourTracker t;
  t.m_residuals = residuals.data();
  t.m_normalJacobian = jacobian.data();
  t.m_inlierWeights = weights.data();
  t.m_nTotalPoints = n;
  RobustSettings r;
  r.scaleFloorPx = 0.05;
  const double inliers = t.reweight(r, 20.0);

  std::vector<double> abs;
  for (int i = 0; i < n; i++)
    if (i != 3) abs.push_back(std::fabs(residuals[i]));
  std::nth_element(abs.begin(), abs.begin() + abs.size() / 2, abs.end());
  const double scale = 1.4826 * abs[abs.size() / 2];
  EXPECT_NEAR(t.m_quality.scalePx, scale, 0.01);
  int expectedInliers = 0;
  for (int i = 0; i < n; i++) {
    const double u = residuals[i] / (4.685 * t.m_quality.scalePx);
    const double expected = i == 3 || std::fabs(u) >= 1.0 ? 0.0 : (1 - u * u) * (1 - u * u);
    EXPECT_NEAR(weights[i], expected, 1e-12) << i;
    expectedInliers += expected > r.inlierWeight;
  }
  EXPECT_EQ(inliers, expectedInliers);
  EXPECT_EQ(weights[10], 0.0);  // the outliers weigh nothing

  double dx[6];
  ASSERT_EQ(t.computePoseUpdate_squareLSE(dx, nullptr, false, nullptr), 0);
  auto cost = [&](const double* x) {
    double c = 0.0;
    for (int i = 0; i < n; i++) {
      double e = residuals[i];
      for (int j = 0; j < 6; j++) e -= jacobian[6 * i + j] * x[j];
      c += 0.5 * weights[i] * e * e;
    }
    return c;
  };
  const double h = 1e-5;
  for (int j = 0; j < 6; j++) {
    double plus[6], minus[6];
    std::copy(dx, dx + 6, plus);
    std::copy(dx, dx + 6, minus);
    plus[j] += h;
    minus[j] -= h;
    EXPECT_NEAR((cost(plus) - cost(minus)) / (2 * h), 0.0, 1e-6) << j;
    plus[j] += 1e-3 - h;
    EXPECT_GT(cost(plus), cost(dx));
  }
}

namespace {

// The extension block of data/tracker_demo.txt's items.
std::vector<double> demoExtensions() {
  std::vector<double> block = {1,    0,  0,    0.3, 0.1, 1, 0.3, 0.5, 10, 0.05,
                               0.01, 60, 0.55, 1.2, 0.2, 1, 8,   1,   0};
  block.insert(block.begin(), {ZOT_EXTENSION_MARKER, 1, 19});
  return block;
}

}  // namespace

// The tracker file's extension items travel at the end of the array and
// configure the robust estimator; a bad block is refused with one line and
// leaves no camera working.
TEST(RobustEstimation, TheExtensionBlockConfiguresTheEstimatorOrIsRefused) {
  std::vector<double> array =
      zot_test::sampleSetupArray(ZOT_DATA_DIR, "camera_mono.txt", "tracker_demo.txt");
  const int count = (int)array.size();
  const std::vector<double> block = demoExtensions();
  ASSERT_GT(count, (int)block.size());
  EXPECT_TRUE(std::equal(block.begin(), block.end(), array.end() - block.size()));

  zot_test::TrackerPools pools(640 * 480, 1, 2000, 20000, 10);
  GenericObjectTracker tracker;
  ASSERT_EQ(tracker.setupFromGlobalArray(count, array.data()), 0);
  const RobustSettings& r = tracker.m_trackingParams.m_robust;
  EXPECT_EQ(r.enabled, 1);
  EXPECT_EQ(r.recoveryRangePx, 60.0);
  EXPECT_EQ(r.maxResidualPx, 1.2);
  EXPECT_EQ(r.maxDisagreementPx, 0.2);
  EXPECT_NE(tracker.m_contourTracker.m_sampleIds[0], nullptr);

  const int at = count - (int)block.size();
  struct Bad {
    int index;  // in the block; -1 cuts the last value off
    double value;
    const char* message;
  };
  const Bad bad[] = {
      {1, 2, "ERROR: extension block of format version 2; this library reads version 1\n"},
      {2, 20, "ERROR: extension block of 20 values; version 1 has 0 to 19\n"},
      {3, std::nan(""),
       "ERROR: extension item 1 (robust mode (0 or 1)) is nan, out of its range\n"},
      {6, 0, "ERROR: extension item 4 (scale floor [px]) is 0, out of its range\n"},
      {14, -5, "ERROR: extension item 12 (recovery search range [px]) is -5, out of its range\n"},
      {-1, 0,
       "ERROR: setup array too short (extension block): values 177 to 195 needed, it holds "
       "195\nERROR: total numbers read 196 should be: 195\n"},
  };
  for (const Bad& b : bad) {
    std::vector<double> a = array;
    if (b.index < 0)
      a.pop_back();
    else
      a[at + b.index] = b.value;
    CaptureStdout();
    EXPECT_EQ(tracker.setupFromGlobalArray((int)a.size(), a.data()), -1);
    EXPECT_EQ(GetCapturedStdout(), b.message);
    EXPECT_EQ(tracker.m_contourTracker.m_camEnabled[0], 0);
  }
  // Without the block: the designed estimator again.
  array.resize(at);
  ASSERT_EQ(tracker.setupFromGlobalArray(at, array.data()), 0);
  EXPECT_EQ(tracker.m_trackingParams.m_robust.enabled, 0);
  EXPECT_EQ(tracker.m_contourTracker.m_sampleIds[0], nullptr);
}

// After a stall the object is 10 degrees and some 40 pixels away from where
// the filter expects it: the frames fail (never a wrong fit) until the
// coarse-to-fine recovery finds it, within three frames, without allocating.
TEST(RobustEstimation, AfterAStallTheObjectIsFoundAgainWithinThreeFrames) {
  const zot_sim::Mesh mesh = zot_test::chamferedBoxMesh();
  const std::vector<double> setup =
      zot_test::sampleSetupArray(ZOT_DATA_DIR, "camera_mono.txt", "tracker_demo.txt");
  zot_test::TrackerScene scene(zot_test::camerasOfSetupArray(setup), setup, 2000);
  ASSERT_EQ(scene.m_setupCode, 0);
  GenericObjectTracker& t = *scene.m_tracker;

  double truth[16], tool[16], start[16], pose[16];
  TfromEuler(truth, 150.0, 30.0, 10.0, 10.0, -5.0, 450.0);
  matrixIdentity(tool, 4);
  const double axis[3] = {1.0, -1.0, 0.5}, shift[3] = {3.0, -4.0, 0.0};
  zot_test::perturb(truth, axis, 2.0, shift, start);
  zot_sim::RenderObject o{};
  o.mesh = &mesh;
  o.faceGrey = zot_test::chamferedBoxGreys();
  const double zero[6] = {0, 0, 0, 0, 0, 0};
  scene.render(truth, {o}, 30, 2, 1.5);
  ASSERT_EQ(t.poseEstimation(scene.m_imagePtrs, 0.0, tool, start, zero, 0.0, pose, nullptr, nullptr,
                             nullptr, true, false, false, false),
            0);
  EXPECT_LT(scene.meanVertexError(mesh, pose, truth, 0), 0.15);
  EXPECT_GT(t.lastFitQuality().inlierFraction, 0.8);
  EXPECT_LT(t.lastFitQuality().residualPx, 0.3);

  // The object jumps while the camera stalls.
  double moved[16];
  const double turn[3] = {0.3, 1.0, -0.2}, jump[3] = {25.0, 10.0, 0.0};
  zot_test::perturb(truth, turn, 10.0, jump, moved);
  scene.render(moved, {o}, 30, 2, 1.5, 2);
  int back = -1;
  zot_test::startCountingAllocations();
  for (int f = 1; f <= 3 && back < 0; f++) {
    const int code = t.poseEstimation(scene.m_imagePtrs, 0.04 * f, tool, nullptr, nullptr, 0.0,
                                      pose, nullptr, nullptr, nullptr, false, false, false, false);
    if (code == 0) {
      back = f;
      EXPECT_LT(scene.meanVertexError(mesh, pose, moved, 0), 0.3);
    }
  }
  const long allocations = zot_test::stopCountingAllocations();
  EXPECT_GT(back, 0);
  if (zot_test::allocationCountingAvailable()) {
    EXPECT_EQ(allocations, 0);
  }
}

// A model 3 % too large fits each of two cameras alone, but not both: the
// fit is refused (-9) for the cameras' disagreement, while the right model
// at the same pose passes with the cameras in agreement.
TEST(RobustEstimation, AModelOfTheWrongSizeIsRefusedForTheCamerasDisagreement) {
  const std::vector<double> a =
      zot_test::sampleSetupArray(ZOT_DATA_DIR, "camera_stereo.txt", "tracker_demo.txt");
  zot_test::TrackerScene scene(zot_test::camerasOfSetupArray(a), a, 2000);
  ASSERT_EQ(scene.m_setupCode, 0);
  GenericObjectTracker& t = *scene.m_tracker;
  double tool[16], truth[16], start[16], pose[16];
  matrixIdentity(tool, 4);
  TfromEuler(truth, 150.0, 30.0, 10.0, 5.0, -5.0, 450.0);
  const double axis[3] = {0, 1, 0}, offset[3] = {2.0, 0.0, 0.0}, zero[6] = {0, 0, 0, 0, 0, 0};
  zot_test::perturb(truth, axis, 1.0, offset, start);
  zot_sim::Mesh mesh = zot_test::chamferedBoxMesh();
  for (double scale : {1.0, 1.03}) {
    zot_sim::Mesh shown = mesh;
    for (double& v : shown.vertices) v *= scale;
    zot_sim::RenderObject o{};
    o.mesh = &shown;
    o.faceGrey = zot_test::chamferedBoxGreys();
    scene.render(truth, {o}, 30, 2, 1.5);
    const int code = t.poseEstimation(scene.m_imagePtrs, 0.0, tool, start, zero, 0.0, pose, nullptr,
                                      nullptr, nullptr, true, false, false, false);
    const double disagreement = t.lastFitQuality().disagreementPx;
    if (scale == 1.0) {
      EXPECT_EQ(code, 0);
      EXPECT_LT(disagreement, 0.1);
    } else {
      EXPECT_EQ(code, ZOT_ERR_FINAL_REPROJECTION);
      EXPECT_GT(disagreement, 0.25);
    }
  }
}
