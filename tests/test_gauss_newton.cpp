// The Gauss-Newton loop on boxes rendered at known poses: convergence from a
// perturbed start, every failure code with the entry pose restored bit for
// bit, bad input, messages, timing labels and no heap allocation.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ContourTracker.h"
#include "IO.h"
#include "Math.h"
#include "alloc_counter.h"
#include "tracking_scene.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using zot_test::LoopParams;
using zot_test::TrackingCamera;
using zot_test::TrackingScene;

namespace {

constexpr int kMaxSamples = 400;

// The object 500 mm in front of camera 0, turned so that three faces show;
// the camera sits a little off the reference (tool) frame.
TrackingCamera monoCamera() {
  TrackingCamera cam;
  TfromEuler(cam.camFromRef, 3.0, -2.0, 1.0, 10.0, -5.0, 20.0);
  return cam;
}

void truePoseRef(const TrackingCamera& cam, double* poseRef) {
  double poseCam[16], refFromCam[16];
  TfromEuler(poseCam, 25.0, -30.0, 15.0, 5.0, -3.0, 500.0);
  inverseTransform(cam.camFromRef, refFromCam);
  matrixProduct444(refFromCam, poseCam, poseRef);
}

// pose * [R(axis, angleDeg) t]: a start off by angleDeg and |t|.
void perturb(const double* pose, const double* axis, double angleDeg, const double* t,
             double* out) {
  const double n = norm(axis, 3);
  const double rvec[3] = {axis[0] / n * angleDeg * ZOT_PI / 180.0,
                          axis[1] / n * angleDeg * ZOT_PI / 180.0,
                          axis[2] / n * angleDeg * ZOT_PI / 180.0};
  double R[9], D[16];
  matrixRvecToRmat(rvec, R);
  TfromRotTransl(R, t, D);
  matrixProduct444(pose, D, out);
}

// A start 2 degrees and 5 mm away from the true pose.
void offStart(const double* truth, double* start) {
  const double axis[3] = {1.0, -1.0, 0.5};
  const double t[3] = {3.0, -4.0, 0.0};  // 5 mm
  perturb(truth, axis, 2.0, t, start);
}

bool sameBits(const double* a, const double* b, int n) {
  return std::memcmp(a, b, n * sizeof(double)) == 0;
}

class GaussNewton : public ::testing::Test {
 protected:
  GaussNewton() : m_scene({monoCamera()}, zot_test::trackingBox(), kMaxSamples) {
    truePoseRef(m_scene.m_cams[0], m_truth);
  }
  void renderTruth() {
    m_scene.render(m_truth, zot_test::trackingBoxGreys(), 25);
    ASSERT_EQ(m_scene.edgeDetect(), 0);
  }
  // Runs the loop from `start` and checks that a failure leaves it untouched.
  int runExpectingRestore(double* start, const LoopParams& p, bool verbose = false) {
    double entry[16];
    std::memcpy(entry, start, sizeof(entry));
    const int code = m_scene.run(start, p, nullptr, false, false, verbose);
    EXPECT_TRUE(sameBits(entry, start, 16)) << "entry pose not restored for code " << code;
    return code;
  }
  TrackingScene m_scene;
  double m_truth[16];
};

TEST_F(GaussNewton, ConvergesFromTwoDegreesAndFiveMillimetresOff) {
  renderTruth();
  double pose[16], start[16], covariance[36];
  offStart(m_truth, start);
  std::memcpy(pose, start, sizeof(pose));
  const double startError = m_scene.meanVertexError(start, m_truth, 0);
  EXPECT_GT(startError, 5.0) << "the start must be visibly wrong";
  for (double& c : covariance) c = 7.0;
  LoopParams p;
  CaptureStdout();
  const int code = m_scene.run(pose, p, covariance, false, false, true);
  const std::string out = GetCapturedStdout();
  ASSERT_EQ(code, 0) << out;
  EXPECT_LT(m_scene.meanVertexError(pose, m_truth, 0), 1.0);
  for (double c : covariance) EXPECT_EQ(c, 0.0);
  EXPECT_NE(out.find("EXIT GN: convergence (small roto-translation update). Iteration n. "),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("Update: rot = "), std::string::npos);
  EXPECT_NE(out.find(" Global error: "), std::string::npos);
}

TEST_F(GaussNewton, FailureCodesRestoreTheEntryPoseBitForBit) {
  renderTruth();
  double start[16];
  offStart(m_truth, start);

  // -6: the iteration limit, with its message.
  LoopParams p;
  p.maxIterations = 1;
  CaptureStdout();
  EXPECT_EQ(runExpectingRestore(start, p, true), ZOT_ERR_MAX_ITERATIONS);
  std::string out = GetCapturedStdout();
  EXPECT_NE(out.find("EXIT GN: max. iteration reached\n"), std::string::npos) << out;
  // Convergence bounds of 0 can never be met either.
  p = LoopParams();
  p.convRotDeg = 0.0;
  p.convTransl = 0.0;
  p.maxIterations = 4;
  EXPECT_EQ(runExpectingRestore(start, p), ZOT_ERR_MAX_ITERATIONS);

  // -4: the first increment moves the pose about 5 mm and 2 degrees.
  p = LoopParams();
  p.maxAbsTransl = 1.0;
  CaptureStdout();
  EXPECT_EQ(runExpectingRestore(start, p, true), ZOT_ERR_DIVERGENCE);
  out = GetCapturedStdout();
  EXPECT_NE(out.find("Too large absolute translation. Trasl = "), std::string::npos) << out;
  EXPECT_EQ(out.find("Too large absolute rotation."), std::string::npos) << out;
  EXPECT_NE(out.find("EXIT GN. Iteration n. 0\n"), std::string::npos) << out;
  p = LoopParams();
  p.maxAbsRotDeg = 0.5;
  CaptureStdout();
  EXPECT_EQ(runExpectingRestore(start, p, true), ZOT_ERR_DIVERGENCE);
  out = GetCapturedStdout();
  EXPECT_NE(out.find("Too large absolute rotation. Rot = "), std::string::npos) << out;
  EXPECT_EQ(out.find("Too large absolute translation."), std::string::npos) << out;

  // -9: the converged cost includes the unmatched points' searchRange^2 / 2.
  p = LoopParams();
  p.maxFinalCost = 1e-3;
  CaptureStdout();
  EXPECT_EQ(runExpectingRestore(start, p, true), ZOT_ERR_FINAL_REPROJECTION);
  out = GetCapturedStdout();
  EXPECT_NE(out.find("EXIT GN: convergence"), std::string::npos) << out;
  EXPECT_NE(out.find("FAILED GN: too high reprojection error at the end \n"), std::string::npos)
      << out;

  // -2 at the end: more matches demanded than there are samples.
  p = LoopParams();
  p.minInliersAtEnd = kMaxSamples + 1;
  CaptureStdout();
  EXPECT_EQ(runExpectingRestore(start, p, true), ZOT_ERR_TOO_MANY_OUTLIERS);
  out = GetCapturedStdout();
  EXPECT_NE(out.find("FAILED GN: too low percentage of matching points (inliers) at the end \n"),
            std::string::npos)
      << out;

  // -2 in an iteration.
  p = LoopParams();
  p.minInliers = kMaxSamples + 1;
  CaptureStdout();
  EXPECT_EQ(runExpectingRestore(start, p, true), ZOT_ERR_TOO_MANY_OUTLIERS);
  out = GetCapturedStdout();
  EXPECT_EQ(out, "EXIT GN: too low percentage of matching points (inliers) 0\n");

  // -5: the object behind the camera leaves no sample point.
  double behind[16];
  std::memcpy(behind, m_truth, sizeof(behind));
  double T[16];
  m_scene.poseInCamera(m_truth, 0, T);
  for (int i = 0; i < 3; i++) T[4 * i + 3] = -T[4 * i + 3];
  double refFromCam[16];
  inverseTransform(m_scene.m_cams[0].camFromRef, refFromCam);
  matrixProduct444(refFromCam, T, behind);
  EXPECT_EQ(runExpectingRestore(behind, LoopParams()), ZOT_ERR_OUT_OF_SCREEN);
  // ... and so does a tracker whose only camera is disabled.
  m_scene.m_tracker.m_camEnabled[0] = 0;
  EXPECT_EQ(runExpectingRestore(start, LoopParams()), ZOT_ERR_OUT_OF_SCREEN);
}

TEST_F(GaussNewton, AnEmptyEdgeMapFailsWithTooFewInliers) {
  m_scene.render(m_truth, {25, 25, 25, 25, 25, 25}, 25);  // nothing to see
  ASSERT_EQ(m_scene.edgeDetect(), 0);
  double start[16];
  offStart(m_truth, start);
  LoopParams p;
  EXPECT_EQ(runExpectingRestore(start, p), ZOT_ERR_TOO_MANY_OUTLIERS);
  // With no minimum at all the empty system gives a zero increment, which
  // converges at once, and the final cost is that of unmatched points.
  p.minInliers = 0.0;
  p.minInliersAtEnd = 0.0;
  p.maxFinalCost = 0.0;
  double pose[16];
  std::memcpy(pose, start, sizeof(pose));
  EXPECT_EQ(m_scene.run(pose, p), 0);
  EXPECT_TRUE(sameBits(pose, start, 16));
  EXPECT_EQ(m_scene.m_tracker.m_cost, 0.5 * p.searchRange * p.searchRange);
}

TEST_F(GaussNewton, BadPosesFailCleanly) {
  renderTruth();
  LoopParams p;
  for (int element : {0, 3, 11}) {
    double pose[16];
    offStart(m_truth, pose);
    pose[element] = std::nan("");
    const int code = runExpectingRestore(pose, p);
    EXPECT_LT(code, 0) << "NaN at element " << element;
    EXPECT_TRUE(std::isnan(pose[element]));
  }
  // The box crossing the near plane 55 mm in front of the camera: only a
  // few contour samples survive the clipping.
  double T[16], straddling[16], refFromCam[16];
  TfromEuler(T, 25.0, -30.0, 15.0, 30.0, 20.0, 55.0);
  inverseTransform(m_scene.m_cams[0].camFromRef, refFromCam);
  matrixProduct444(refFromCam, T, straddling);
  double pose[16];
  std::memcpy(pose, straddling, sizeof(pose));
  const int code = m_scene.run(pose, p);
  if (code != 0) {
    EXPECT_TRUE(sameBits(pose, straddling, 16));
  }
  EXPECT_TRUE(isFiniteArray(pose, 16));
}

TEST_F(GaussNewton, AFrozenRotationKeepsTheAttitudeExactly) {
  renderTruth();
  double start[16], pose[16];
  const double axis[3] = {0.0, 0.0, 1.0}, t[3] = {4.0, 3.0, 0.0};
  perturb(m_truth, axis, 0.0, t, start);  // translation only
  std::memcpy(pose, start, sizeof(pose));
  LoopParams p;
  p.dofMask[0] = p.dofMask[1] = p.dofMask[2] = 0.0;
  ASSERT_EQ(m_scene.run(pose, p), 0);
  for (int i : {0, 1, 2, 4, 5, 6, 8, 9, 10}) EXPECT_EQ(pose[i], start[i]) << i;
  EXPECT_LT(m_scene.meanVertexError(pose, m_truth, 0), 1.0);
}

TEST_F(GaussNewton, ResamplingFollowsTheAccumulatedMotion) {
  renderTruth();
  double pose[16];
  offStart(m_truth, pose);
  LoopParams p;
  p.resampleRotDeg = 0.0;
  p.resampleTransl = 0.0;
  CaptureStdout();
  ASSERT_EQ(m_scene.run(pose, p, nullptr, false, false, true), 0);
  std::string out = GetCapturedStdout();
  EXPECT_EQ(out.find("NO resampling"), std::string::npos) << out;
  EXPECT_NE(out.find("Resampling because of rotation "), std::string::npos) << out;
  EXPECT_LT(m_scene.meanVertexError(pose, m_truth, 0), 1.0);

  // Bounds larger than the whole correction: sampled once, at the start.
  offStart(m_truth, pose);
  p.resampleRotDeg = 10.0;
  p.resampleTransl = 20.0;
  CaptureStdout();
  ASSERT_EQ(m_scene.run(pose, p, nullptr, false, false, true), 0);
  out = GetCapturedStdout();
  EXPECT_EQ(out.find("Resampling because of"), std::string::npos) << out;
  EXPECT_NE(out.find("NO resampling\n"), std::string::npos) << out;
}

TEST_F(GaussNewton, TimingLabelsGoToTheDiagnosticStringInOrder) {
  renderTruth();
  double pose[16];
  offStart(m_truth, pose);
  m_global_output_string_counter = 0;
  LoopParams p;
  p.maxIterations = 2;
  EXPECT_EQ(m_scene.run(pose, p, nullptr, true), ZOT_ERR_MAX_ITERATIONS);
  const std::string log(m_global_output_string, m_global_output_string_counter);
  const char* expected[] = {" ## GAUSS-NEWTON ITERATION 0\n",
                            "VLD+sampling, cam 0 - elapsed [ms]: ",
                            "2D reprojection and Jac, cam 0 - elapsed [ms]: ",
                            "Match along normals, cam 0 - elapsed [ms]: ",
                            "Cost, normal residuals and Jacobians - elapsed [ms]: ",
                            "SVD solution of LSE - elapsed [ms]: ",
                            "Pose update and diagnostics - elapsed [ms]: ",
                            " ## GAUSS-NEWTON ITERATION 1\n",
                            "2D reprojection and Jac, cam 0 - elapsed [ms]: "};
  size_t at = 0;
  for (const char* label : expected) {
    const size_t next = log.find(label, at);
    ASSERT_NE(next, std::string::npos) << "missing or out of order: " << label << "\n" << log;
    at = next + 1;
  }
  m_global_output_string_counter = 0;
}

TEST_F(GaussNewton, DebugWindowsWithoutADisplayCarryOn) {
  unsetenv("DISPLAY");  // never block in waitKey, whatever the environment
  unsetenv("WAYLAND_DISPLAY");
  unsetenv("QT_QPA_PLATFORM");
  renderTruth();
  double pose[16];
  offStart(m_truth, pose);
  LoopParams p;
  p.maxIterations = 2;
  CaptureStdout();
  EXPECT_EQ(m_scene.run(pose, p, nullptr, false, true, false), ZOT_ERR_MAX_ITERATIONS);
  const std::string out = GetCapturedStdout();
  // At most one line about the missing display, however many windows.
  EXPECT_EQ(out.find("WARNING", out.find("WARNING") + 1), std::string::npos) << out;
  size_t count = 0;
  for (size_t at = out.find("Re-projection error: "); at != std::string::npos;
       at = out.find("Re-projection error: ", at + 1)) {
    count++;
  }
  EXPECT_EQ(count, 2u) << out;
  // The display buffer holds camera 0's image with the overlay drawn in.
  const unsigned char* display = m_scene.m_tracker.m_displayImage;
  bool green = false;
  for (int k = 0; k < 320 * 240; k++) {
    green = green || (display[3 * k] == 0 && display[3 * k + 1] == 255 && display[3 * k + 2] == 0);
  }
  EXPECT_TRUE(green);
}

TEST_F(GaussNewton, OneLoopAllocatesNothing) {
  if (!zot_test::allocationCountingAvailable()) GTEST_SKIP() << "allocator owned by the sanitizer";
  renderTruth();
  double pose[16];
  offStart(m_truth, pose);
  LoopParams p;
  printf(" ");  // stdio buffers its output on first use; not ours to count
  fflush(stdout);
  zot_test::startCountingAllocations();
  const int code = m_scene.run(pose, p, nullptr, true);
  const long allocations = zot_test::stopCountingAllocations();
  EXPECT_EQ(code, 0);
  EXPECT_EQ(allocations, 0);
  m_global_output_string_counter = 0;
}

// Two cameras 60 mm apart, both turned towards the box.
std::vector<TrackingCamera> stereoCameras() {
  std::vector<TrackingCamera> cams(2, monoCamera());
  double cam1FromCam0[16];
  TfromEuler(cam1FromCam0, 0.0, -6.0, 0.0, -60.0, 0.0, 0.0);
  matrixProduct444(cam1FromCam0, cams[0].camFromRef, cams[1].camFromRef);
  return cams;
}

TEST(GaussNewtonStereo, BothCamerasConvergeAndADisabledCameraIsLeftOut) {
  TrackingScene scene(stereoCameras(), zot_test::trackingBox(), kMaxSamples);
  double truth[16], pose[16];
  truePoseRef(scene.m_cams[0], truth);
  scene.render(truth, zot_test::trackingBoxGreys(), 25);
  ASSERT_EQ(scene.edgeDetect(), 0);
  offStart(truth, pose);
  LoopParams p;
  ASSERT_EQ(scene.run(pose, p), 0);
  EXPECT_LT(scene.meanVertexError(pose, truth, 0), 1.0);
  EXPECT_LT(scene.meanVertexError(pose, truth, 1), 1.0);
  const int n0 = scene.m_model->getNSamplePointsPerCam(0);
  const int n1 = scene.m_model->getNSamplePointsPerCam(1);
  EXPECT_GT(n1, 0);
  EXPECT_EQ(scene.m_tracker.m_nTotalPoints, n0 + n1);

  // Camera 1 disabled: not sampled, not stacked, edge map not refreshed.
  scene.m_tracker.m_camEnabled[1] = 0;
  const std::vector<unsigned char> edges1(scene.m_tracker.m_edgeMap[1],
                                          scene.m_tracker.m_edgeMap[1] + 320 * 240);
  std::fill(scene.m_images[1].begin(), scene.m_images[1].end(), 0);
  ASSERT_EQ(scene.edgeDetect(), 0);
  EXPECT_TRUE(std::equal(edges1.begin(), edges1.end(), scene.m_tracker.m_edgeMap[1]));
  scene.m_model->m_nSamplePointsPerCam[1] = 0;
  offStart(truth, pose);
  ASSERT_EQ(scene.run(pose, p), 0);
  EXPECT_LT(scene.meanVertexError(pose, truth, 0), 1.0);
  EXPECT_EQ(scene.m_model->getNSamplePointsPerCam(1), 0);
  EXPECT_EQ(scene.m_tracker.m_nTotalPoints, scene.m_model->getNSamplePointsPerCam(0));
}

}  // namespace
