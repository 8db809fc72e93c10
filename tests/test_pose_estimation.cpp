// The per-frame driver on one camera looking at the chamfered part: a first
// frame that converges from an offset start, the failure paths (no track,
// time running backwards, missing input, defaults that cannot converge) with
// outputs and filter untouched, reuse of the previous edges, timing labels,
// no heap allocation, and the result overlay's edge cases.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "GenericObjectTracker.h"
#include "IO.h"
#include "Math.h"
#include "alloc_counter.h"
#include "tracker_scene.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using zot_test::SetupCamera;
using zot_test::TrackerScene;

namespace {

// Room for the overlay's dense contour (one sample per pixel).
constexpr int kMaxSamples = 1500;

GenericObjectTracker::TrackingParameters trackingParameters() {
  GenericObjectTracker::TrackingParameters p = zot_test::convergingParameters();
  p.m_maxNSamplePointsPerCam = kMaxSamples;
  return p;
}

SetupCamera monoCamera() {
  SetupCamera cam;
  cam.fx = cam.fy = 400.0;
  TfromEuler(cam.camInTool, 2.0, -3.0, 1.0, 20.0, -10.0, 5.0);
  return cam;
}

std::vector<double> monoSetup(const GenericObjectTracker::TrackingParameters& p) {
  std::vector<double> a;
  zot_test::appendCameraSection(a, {monoCamera()});
  zot_test::appendTrackerSection(a, p);
  a.insert(a.end(), {0.0, 1.0});  // no local frames, one body
  zot_test::appendPolyhedronBody(a, zot_test::chamferedBoxMesh(), false, 30.0);
  return a;
}

// pose * [R(axis, angleDeg) t].
void perturb(const double* pose, double angleDeg, const double* t, double* out) {
  const double axis[3] = {1.0, -1.0, 0.5};
  const double k = angleDeg * ZOT_PI / 180.0 / norm(axis, 3);
  const double rvec[3] = {axis[0] * k, axis[1] * k, axis[2] * k};
  double R[9], D[16];
  matrixRvecToRmat(rvec, R);
  TfromRotTransl(R, t, D);
  matrixProduct444(pose, D, out);
}

// White pixels within two pixels of (u, v) in a 320 x 240 colour image.
int whiteAround(const std::vector<unsigned char>& image, int u, int v) {
  int n = 0;
  for (int y = v - 2; y <= v + 2; y++)
    for (int x = u - 2; x <= u + 2; x++) {
      if (x < 0 || x >= 320 || y < 0 || y >= 240) continue;
      const unsigned char* p = &image[3 * (y * 320 + x)];
      n += p[0] == 255 && p[1] == 255 && p[2] == 255;
    }
  return n;
}

// "<label> - elapsed [ms]: <number>".
bool isElapsedLine(const std::string& line, const std::string& label) {
  const std::string head = label + " - elapsed [ms]: ";
  if (line.rfind(head, 0) != 0 || line.size() == head.size()) return false;
  char* end = nullptr;
  std::strtod(line.c_str() + head.size(), &end);
  return *end == '\0';
}

bool sameBits(const double* a, const double* b, int n) {
  return std::memcmp(a, b, n * sizeof(double)) == 0;
}

// Filter state that a failing frame must leave alone.
struct FilterSnapshot {
  explicit FilterSnapshot(const KalmanFilter& kf) : lastTime(kf.m_lastTime) {
    std::memcpy(pose, kf.m_Test, sizeof pose);
    std::memcpy(state, kf.m_stateEst, sizeof state);
    std::memcpy(cov, kf.m_covEst, sizeof cov);
  }
  bool same(const KalmanFilter& kf) const {
    return kf.m_lastTime == lastTime && sameBits(pose, kf.m_Test, 16) &&
           sameBits(state, kf.m_stateEst, 12) && sameBits(cov, kf.m_covEst, 144);
  }
  double lastTime, pose[16], state[12], cov[144];
};

class PoseEstimation : public ::testing::Test {
 protected:
  explicit PoseEstimation(const GenericObjectTracker::TrackingParameters& p = trackingParameters())
      : m_mesh(zot_test::chamferedBoxMesh()), m_scene({monoCamera()}, monoSetup(p), kMaxSamples) {
    TfromEuler(m_truth, 150.0, 30.0, 10.0, 10.0, -5.0, 450.0);
    TfromEuler(m_tool, 10.0, 20.0, -30.0, 300.0, -200.0, 800.0);
    const double t[3] = {3.0, -4.0, 0.0};  // 5 mm
    perturb(m_truth, 2.0, t, m_start);
    for (double& v : m_pose) v = 7.0;
    for (double& v : m_velocity) v = 7.0;
    for (double& v : m_covariance) v = 7.0;
  }
  void SetUp() override { ASSERT_EQ(m_scene.m_setupCode, 0); }

  void render(const double* objInTool) {
    zot_sim::RenderObject o{};
    o.mesh = &m_mesh;
    o.faceGrey = zot_test::chamferedBoxGreys();
    m_scene.render(objInTool, {o}, 30, 2, 1.5);
  }
  // One frame from m_start (with initialise) or from the filter.
  int frame(double time, bool initialise, bool timing = false, bool verbose = false) {
    const double zero[6] = {0, 0, 0, 0, 0, 0};
    return m_scene.m_tracker->poseEstimation(m_scene.m_imagePtrs, time, m_tool, m_start, zero, 0.0,
                                             m_pose, m_velocity, m_covariance, nullptr, initialise,
                                             timing, false, verbose);
  }
  bool outputsUntouched() const {
    for (double v : m_pose)
      if (v != 7.0) return false;
    for (double v : m_velocity)
      if (v != 7.0) return false;
    for (double v : m_covariance)
      if (v != 7.0) return false;
    return true;
  }
  GenericObjectTracker& tracker() { return *m_scene.m_tracker; }

  zot_sim::Mesh m_mesh;
  TrackerScene m_scene;
  double m_truth[16], m_tool[16], m_start[16];
  double m_pose[16], m_velocity[6], m_covariance[36];
};

}  // namespace

TEST_F(PoseEstimation, AFirstFrameConvergesFromAnOffsetStart) {
  render(m_truth);
  EXPECT_GT(m_scene.meanVertexError(m_mesh, m_start, m_truth, 0), 5.0);
  CaptureStdout();
  const int code = frame(0.0, true);
  const std::string out = GetCapturedStdout();
  ASSERT_EQ(code, 0) << out;
  EXPECT_EQ(out, "");
  EXPECT_LT(m_scene.meanVertexError(m_mesh, m_pose, m_truth, 0), 0.5);

  // The Gauss-Newton pose goes out, the filter keeps its own estimate.
  const KalmanFilter& kf = tracker().m_kalmanFilter;
  double measured[16];
  matrixProduct444(m_tool, m_pose, measured);
  EXPECT_FALSE(sameBits(measured, kf.m_Test, 16));
  for (int i = 0; i < 16; i++) EXPECT_NEAR(measured[i], kf.m_Test[i], 1.0) << i;
  double velocity[6], covariance[36];
  kf.getVelocity(velocity);
  kf.getPoseCovariance(covariance);
  EXPECT_TRUE(sameBits(velocity, m_velocity, 6));
  EXPECT_TRUE(sameBits(covariance, m_covariance, 36));
  EXPECT_EQ(m_covariance[6], kf.m_covEst[12]);  // row 1 of the 12 x 12 block
  EXPECT_EQ(kf.m_lastTime, 0.0);
}

TEST_F(PoseEstimation, WithoutATrackOrWithTimeRunningBackwardsNothingIsWritten) {
  render(m_truth);
  EXPECT_EQ(frame(0.0, false), -1);
  EXPECT_TRUE(outputsUntouched());

  ASSERT_EQ(frame(1.0, true), 0);
  for (double& v : m_pose) v = 7.0;
  for (double& v : m_velocity) v = 7.0;
  for (double& v : m_covariance) v = 7.0;
  const FilterSnapshot before(tracker().m_kalmanFilter);
  EXPECT_EQ(frame(0.5, false), -1);
  EXPECT_TRUE(outputsUntouched());
  EXPECT_TRUE(before.same(tracker().m_kalmanFilter));
  // The same time stamp again is fine.
  EXPECT_EQ(frame(1.0, false), 0);
}

TEST_F(PoseEstimation, MissingInputIsRefusedBeforeAnythingChanges) {
  render(m_truth);
  const FilterSnapshot fresh(tracker().m_kalmanFilter);
  const double zero[6] = {0, 0, 0, 0, 0, 0};
  unsigned char* noImage[1] = {nullptr};
  GenericObjectTracker& t = tracker();
  CaptureStdout();
  EXPECT_EQ(t.poseEstimation(noImage, 0.0, m_tool, m_start, zero, 0.0, m_pose, m_velocity,
                             m_covariance, nullptr, true, false, false, false),
            -1);
  EXPECT_EQ(t.poseEstimation(nullptr, 0.0, m_tool, m_start, zero, 0.0, m_pose, m_velocity,
                             m_covariance, nullptr, true, false, false, false),
            -1);
  EXPECT_EQ(t.poseEstimation(m_scene.m_imagePtrs, 0.0, nullptr, m_start, zero, 0.0, m_pose,
                             m_velocity, m_covariance, nullptr, true, false, false, false),
            -1);
  EXPECT_EQ(t.poseEstimation(m_scene.m_imagePtrs, 0.0, m_tool, nullptr, zero, 0.0, m_pose,
                             m_velocity, m_covariance, nullptr, true, false, false, false),
            -1);
  EXPECT_EQ(t.poseEstimation(m_scene.m_imagePtrs, 0.0, m_tool, m_start, zero, -1.0, m_pose,
                             m_velocity, m_covariance, nullptr, true, false, false, false),
            -1);
  EXPECT_EQ(GetCapturedStdout(),
            "ERROR: poseEstimation: no image for camera 0\n"
            "ERROR: poseEstimation: no image for camera 0\n"
            "ERROR: poseEstimation: no tool pose\n"
            "ERROR: poseEstimation: a new track needs the initial pose and velocity\n"
            "ERROR: poseEstimation: invalid initial pose, velocity or time (-1)\n");
  EXPECT_TRUE(outputsUntouched());
  EXPECT_TRUE(fresh.same(t.m_kalmanFilter)) << "the track must not have started";

  // A disabled camera needs no image, but then nothing is seen.
  t.m_contourTracker.m_camEnabled[0] = 0;
  EXPECT_EQ(t.poseEstimation(noImage, 0.0, m_tool, m_start, zero, 0.0, m_pose, m_velocity,
                             m_covariance, nullptr, true, false, false, false),
            ZOT_ERR_OUT_OF_SCREEN);
  EXPECT_TRUE(outputsUntouched());
}

TEST_F(PoseEstimation, WithEdgeDetectionOffThePreviousEdgesAreUsed) {
  render(m_truth);
  ASSERT_EQ(frame(0.0, true), 0);
  const size_t px = 320 * 240;
  const std::vector<unsigned char> edges(tracker().m_contourTracker.m_edgeMap[0],
                                         tracker().m_contourTracker.m_edgeMap[0] + px);
  // An empty image: with edge detection the object is lost ...
  std::fill(m_scene.m_images[0].begin(), m_scene.m_images[0].end(), 30);
  for (double& v : m_pose) v = 7.0;
  const FilterSnapshot before(tracker().m_kalmanFilter);
  EXPECT_EQ(frame(0.04, false), ZOT_ERR_TOO_MANY_OUTLIERS);
  EXPECT_TRUE(before.same(tracker().m_kalmanFilter));
  for (double v : m_pose) ASSERT_EQ(v, 7.0);
  // ... without it the old edge maps still hold it.
  render(m_truth);
  ASSERT_EQ(frame(0.04, false), 0);
  std::fill(m_scene.m_images[0].begin(), m_scene.m_images[0].end(), 30);
  tracker().m_doEdgeDetection = false;
  ASSERT_EQ(frame(0.08, false), 0);
  EXPECT_LT(m_scene.meanVertexError(m_mesh, m_pose, m_truth, 0), 0.5);
  EXPECT_EQ(std::memcmp(edges.data(), tracker().m_contourTracker.m_edgeMap[0], px), 0);
}

TEST_F(PoseEstimation, TimingLabelsFollowTheStepsInOrder) {
  render(m_truth);
  m_global_output_string_counter = 0;
  std::memset(m_global_output_string, 0, 100000);
  ASSERT_EQ(frame(0.0, true, true), 0);
  const std::string log(m_global_output_string, m_global_output_string_counter);
  std::vector<std::string> lines;
  for (size_t start = 0, end; (end = log.find('\n', start)) != std::string::npos; start = end + 1)
    lines.push_back(log.substr(start, end - start));
  ASSERT_GE(lines.size(), 4u) << log;
  EXPECT_EQ(log.back(), '\n');
  EXPECT_TRUE(isElapsedLine(lines[0], "Undistortion (2x)")) << log;
  EXPECT_TRUE(isElapsedLine(lines[1], "Edge detection (2x)")) << log;
  EXPECT_EQ(lines[2], " ## GAUSS-NEWTON ITERATION 0") << log;
  EXPECT_TRUE(isElapsedLine(lines.back(), "Total Gauss-Newton loop (pose estimation)")) << log;
  EXPECT_EQ(log.find("Total Gauss-Newton"), log.rfind("Total Gauss-Newton"));
  m_global_output_string_counter = 0;
}

TEST_F(PoseEstimation, AFrameAllocatesNothing) {
  if (!zot_test::allocationCountingAvailable()) GTEST_SKIP() << "allocator owned by the sanitizer";
  render(m_truth);
  ASSERT_EQ(frame(0.0, true), 0);
  zot_test::startCountingAllocations();
  const int code = frame(0.04, false, true);
  const long allocations = zot_test::stopCountingAllocations();
  m_global_output_string_counter = 0;
  EXPECT_EQ(code, 0);
  EXPECT_EQ(allocations, 0);
}

TEST_F(PoseEstimation, UndistortingForAnUnknownCameraChangesNothing) {
  std::vector<unsigned char> dst(320 * 240, 42);
  CaptureStdout();
  tracker().undistortCameraImage(m_scene.m_images[0].data(), dst.data(), -1);
  tracker().undistortCameraImage(m_scene.m_images[0].data(), dst.data(), 1);
  EXPECT_EQ(GetCapturedStdout(),
            "undistortImage: INCORRECT CAMERA NUMBER!\nundistortImage: INCORRECT CAMERA NUMBER!\n");
  for (unsigned char v : dst) ASSERT_EQ(v, 42);
}

TEST_F(PoseEstimation, TheOverlayDrawsContourAndFrameOverTheUndistortedImage) {
  render(m_truth);
  ASSERT_EQ(frame(0.0, true), 0);
  const size_t px = 320 * 240;
  std::vector<unsigned char> image(3 * px, 99);
  GenericObjectTracker& t = tracker();

  CaptureStdout();
  t.drawResult(m_pose, image.data(), -1, false, 0.0, nullptr);
  t.drawResult(m_pose, image.data(), 1, false, 0.0, nullptr);
  EXPECT_EQ(GetCapturedStdout(), "ERROR: invalid camera index!\nERROR: invalid camera index!\n");
  for (unsigned char v : image) ASSERT_EQ(v, 99);

  // Without the frame: grey background and pure red contour pixels only.
  CaptureStdout();
  t.drawResult(m_pose, image.data(), 0, false, 0.0, nullptr);
  const std::string out = GetCapturedStdout();
  ASSERT_EQ(out.rfind("--np points--", 0), 0u) << out;
  char* end = nullptr;
  const long np = std::strtol(out.c_str() + 13, &end, 10);
  EXPECT_STREQ(end, " \n") << out;
  long red = 0;
  for (size_t i = 0; i < px; i++) {
    const unsigned char* p = &image[3 * i];
    const bool grey = p[0] == p[1] && p[1] == p[2] && p[0] == t.m_undistortedImage[0][i];
    const bool pureRed = p[0] == 0 && p[1] == 0 && p[2] == 255;
    ASSERT_TRUE(grey || pureRed) << "pixel " << i;
    red += pureRed;
  }
  EXPECT_GT(red, 200);
  EXPECT_LE(red, np);

  // With the frame at the object's origin: a white disc there, and the axes.
  double T[16], origin[3] = {0, 0, 0}, uv[2];
  matrixProduct444(t.m_toolToCamera[0], m_pose, T);
  ASSERT_EQ(transformAndProjectPoint(t.m_K[0], T, origin, uv), 0);
  const int u = (int)std::lround(uv[0]), v = (int)std::lround(uv[1]);
  ASSERT_TRUE(u > 2 && u < 317 && v > 2 && v < 237);
  CaptureStdout();
  t.drawResult(m_pose, image.data(), 0, true, 40.0, nullptr);
  GetCapturedStdout();
  EXPECT_GE(whiteAround(image, u, v), 5) << "origin disc";
  long green = 0, blue = 0;
  for (size_t i = 0; i < px; i++) {
    const unsigned char* p = &image[3 * i];
    green += p[0] == 0 && p[1] == 255 && p[2] == 0;
    blue += p[0] == 255 && p[1] == 0 && p[2] == 0;
  }
  EXPECT_GT(green, 10);
  EXPECT_GT(blue, 10);
  // A frame given relative to the object: the top face's centre.
  const double top[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 60, 0, 0, 0, 1};
  const double topCentre[3] = {0, 0, 60};
  ASSERT_EQ(transformAndProjectPoint(t.m_K[0], T, topCentre, uv), 0);
  CaptureStdout();
  t.drawResult(m_pose, image.data(), 0, true, 40.0, top);
  GetCapturedStdout();
  EXPECT_GE(whiteAround(image, (int)std::lround(uv[0]), (int)std::lround(uv[1])), 5);

  // A disabled camera gives black and prints nothing.
  t.m_contourTracker.m_camEnabled[0] = 0;
  CaptureStdout();
  t.drawResult(m_pose, image.data(), 0, true, 40.0, nullptr);
  EXPECT_EQ(GetCapturedStdout(), "");
  for (unsigned char b : image) ASSERT_EQ(b, 0);
}

namespace {

// The defaults (with room for the whole contour): convergence bounds of 0
// can never be met.
GenericObjectTracker::TrackingParameters defaultsWithRoom() {
  GenericObjectTracker::TrackingParameters p;
  p.m_maxNSamplePointsPerCam = kMaxSamples;
  return p;
}

class DefaultParameters : public PoseEstimation {
 protected:
  DefaultParameters() : PoseEstimation(defaultsWithRoom()) {}
};

}  // namespace

TEST_F(DefaultParameters, EveryFrameRunsIntoTheIterationLimit) {
  render(m_truth);
  std::memcpy(m_start, m_truth, sizeof m_start);
  CaptureStdout();
  EXPECT_EQ(frame(0.0, true, false, true), ZOT_ERR_MAX_ITERATIONS);
  const std::string out = GetCapturedStdout();
  EXPECT_NE(out.find("EXIT GN: max. iteration reached"), std::string::npos) << out;
  EXPECT_EQ(out.find("convergence"), std::string::npos) << out;
  EXPECT_TRUE(outputsUntouched());
}
