// The contour tracker's pieces and its Gauss-Newton loop, driven on the model
// and camera arrays of a tracker set up for a box: reprojection and Jacobians
// against central differences, the stacked residuals, matching along normals
// on hand-made edge maps, the two least-squares solvers, the loop on the box
// rendered at a known pose and the edge-correlation analysis.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "ContourTracker.h"
#include "IO.h"
#include "Math.h"
#include "memory_handling.h"
#include "synthetic_images.h"
#include "tracker_scene.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using zot_test::SetupCamera;

namespace {

constexpr int kMaxSamples = 400;
const double kAllFree[6] = {1, 1, 1, 1, 1, 1};

bool sameBits(const double* a, const double* b, int n) {
  return std::memcmp(a, b, n * sizeof(double)) == 0;
}

// Tracking parameters in the order the loop takes them.
struct LoopParams {
  int maxIterations = 30;
  double convRotDeg = 0.01, convTransl = 0.01;
  double maxAbsRotDeg = 20.0, maxAbsTransl = 50.0;
  double facingTolerance = 1.0;
  int samplingStep = 4;
  double minEdgeLength = 1.0;
  double searchRange = 15.0, maxAngleDeg = 30.0;
  double minInliers = 10.0, minInliersAtEnd = 10.0, maxFinalCost = 0.0;
  double resampleRotDeg = 0.5, resampleTransl = 1.0;
  double dofMask[6] = {1, 1, 1, 1, 1, 1};
};

// 320 x 240, focal length 600, at the tool frame unless moved.
SetupCamera camera(int width = 320, int height = 240) {
  SetupCamera cam;
  cam.width = width;
  cam.height = height;
  cam.fx = cam.fy = 600.0;
  cam.zNear = 10.0;
  cam.zFar = 5000.0;
  return cam;
}

// A camera a little off the tool frame.
SetupCamera offsetCamera() {
  SetupCamera cam = camera();
  TfromEuler(cam.camInTool, 3.0, -2.0, 1.0, 10.0, -5.0, 20.0);
  return cam;
}

// A tracker set up for one camera and a box of 100 x 80 x 60 centred on the
// object origin; the tests drive its contour tracker on its own model and
// camera arrays. Poses are the object's in the tool frame.
class Rig : public ::testing::Test {
 protected:
  explicit Rig(const SetupCamera& cam = camera(), int maxSamples = kMaxSamples)
      : m_box(zot_sim::boxMesh(kCentre, kHalf)),
        m_scene({cam}, zot_test::oneBodySetup({cam}, samples(maxSamples), m_box), maxSamples) {}
  void SetUp() override { ASSERT_EQ(m_scene.m_setupCode, 0); }
  static GenericObjectTracker::TrackingParameters samples(int maxSamples) {
    GenericObjectTracker::TrackingParameters p = zot_test::convergingParameters();
    p.m_maxNSamplePointsPerCam = maxSamples;
    return p;
  }
  ContourTracker& t() { return m_scene.m_tracker->m_contourTracker; }
  Multibody& model() { return m_scene.m_tracker->m_multibody; }
  double* const* K() const { return m_scene.m_tracker->m_K; }
  double* const* camFromTool() const { return m_scene.m_tracker->m_toolToCamera; }
  // The box at pose with six clearly different face greys, then the edges.
  void render(const double* pose) {
    zot_sim::RenderObject o{};
    o.mesh = &m_box;
    o.faceGrey = {70, 120, 170, 215, 95, 145};
    m_scene.render(pose, {o}, 25, 3);
    ASSERT_EQ(t().edgeDetect(m_scene.m_imagePtrs, 50, 100), 0);
  }
  int run(double* pose, const LoopParams& p, double* covariance = nullptr, bool verbose = false) {
    return t().poseUpdateLoop(model(), m_scene.m_imagePtrs, pose, covariance, camFromTool(), K(),
                              p.maxIterations, p.convRotDeg, p.convTransl, p.maxAbsRotDeg,
                              p.maxAbsTransl, p.facingTolerance, p.samplingStep, p.minEdgeLength,
                              p.searchRange, p.maxAngleDeg, p.minInliers, p.minInliersAtEnd,
                              p.maxFinalCost, p.resampleRotDeg, p.resampleTransl, p.dofMask, false,
                              false, verbose);
  }
  // Stacked cost (and Jacobian) at m_pose, no resampling of injected samples.
  int evaluate(double searchRange, bool match = true) {
    return t().computeOverallCostAndJacobian(model(), m_cost, m_pose, camFromTool(), K(), 1.0, 1.0,
                                             4, searchRange, 20.0, true, true, false, match, false,
                                             false, false);
  }
  // Puts samples (3 doubles each) with their tangents into camera 0's buffers.
  void inject(const std::vector<double>& points, const std::vector<double>& tangents) {
    std::copy(points.begin(), points.end(), model().m_samplePointsPerCam[0]);
    std::copy(tangents.begin(), tangents.end(), model().m_sampleTangentDirPerCam[0]);
    model().m_nSamplePointsPerCam[0] = (int)points.size() / 3;
  }
  // Clears camera 0's edge map and gradients.
  void clearEdges() {
    const size_t px = (size_t)m_scene.m_cams[0].width * m_scene.m_cams[0].height;
    std::memset(t().m_edgeMap[0], 0, px);
    std::memset(t().m_gradX[0], 0, px * sizeof(short));
    std::memset(t().m_gradY[0], 0, px * sizeof(short));
  }
  // The object 500 in front of the camera, turned so that three faces show.
  void truePose(double* pose) const {
    double poseCam[16];
    TfromEuler(poseCam, 25.0, -30.0, 15.0, 5.0, -3.0, 500.0);
    matrixProduct444(m_scene.m_cams[0].camInTool, poseCam, pose);
  }
  static constexpr double kCentre[3] = {0.0, 0.0, 0.0}, kHalf[3] = {50.0, 40.0, 30.0};
  zot_sim::Mesh m_box;
  zot_test::TrackerScene m_scene;
  double m_pose[16];
  double m_cost = -1.0;
};

const std::vector<double> kPoints = {50, 40, 0, 0, -40, 30, -50, 10, -30, 20, 40, 30, -50, -40, 30};
const std::vector<double> kTangents = {0, 0, 1, 1, 0, 0, 0, 1, 0, 0.6, 0, 0.8, 0, -1, 0};

// Injected samples on the box at a general pose, seen by the offset camera.
class Reprojection : public Rig {
 protected:
  Reprojection() : Rig(offsetCamera()) {
    truePose(m_pose);
    for (int i = 0; i < 3; i++)  // P = [K | 0] * camFromTool
      for (int j = 0; j < 4; j++) {
        m_P[4 * i + j] = 0.0;
        for (int k = 0; k < 3; k++)
          m_P[4 * i + j] += K()[0][3 * i + k] * camFromTool()[0][4 * k + j];
      }
    inject(kPoints, kTangents);
  }
  // Pixel of object point X at pose, by the independent projection.
  void project(const double* pose, const double* X, double* uv) const {
    double T[16];
    m_scene.poseInCamera(pose, 0, T);
    zot_test::projectObjectPoint(T, K()[0], X, uv);
  }
  // The pose moved by eps along increment parameter j (rotations in degrees
  // about the object's axes, translation in the object or tool frame).
  static void moved(const double* pose, int j, double eps, bool objectFrame, double* out) {
    double twist[6] = {0, 0, 0, 0, 0, 0}, D[16];
    twist[j] = eps;
    std::memcpy(out, pose, 16 * sizeof(double));
    if (objectFrame || j < 3) {
      updatePoseTwist(out, twist);
    } else {
      TfromTwist(twist, D);
      matrixProduct444(D, pose, out);
    }
  }
  double m_P[12];
};

}  // namespace

// ---------------------------------------------------------------- reprojection
// Every column of the image Jacobian (translation in the object or the tool
// frame) and of the stacked normal-residual rows (matched or not) against
// central differences of the independent projection.
TEST_F(Reprojection, EveryJacobianColumnMatchesCentralDifferences) {
  const int n = (int)kPoints.size() / 3;
  clearEdges();
  ASSERT_EQ(evaluate(10.0, false), 0);
  ASSERT_EQ(t().m_nTotalPoints, n);
  EXPECT_EQ(m_cost, 50.0) << "every point unmatched costs searchRange^2 / 2";
  const std::vector<double> rows(t().m_normalJacobian, t().m_normalJacobian + 6 * n);
  const std::vector<double> normals(t().m_normals[0], t().m_normals[0] + 2 * n);
  const double eps = 1e-5;
  for (bool objectFrame : {true, false}) {
    ASSERT_EQ(t().computeReprojectionAndJacobian(model(), 0, m_pose, m_P, true, objectFrame), 0);
    for (int k = 0; k < n; k++) {
      const double* X = &kPoints[3 * k];
      double uv[2];
      project(m_pose, X, uv);
      EXPECT_NEAR(t().m_projPoints[0][2 * k], uv[0], 1e-9);
      EXPECT_NEAR(t().m_projPoints[0][2 * k + 1], uv[1], 1e-9);
      for (int j = 0; j < 6; j++) {
        double plus[16], minus[16], a[2], b[2];
        moved(m_pose, j, eps, objectFrame, plus);
        moved(m_pose, j, -eps, objectFrame, minus);
        project(plus, X, a);
        project(minus, X, b);
        const double du = (a[0] - b[0]) / (2 * eps), dv = (a[1] - b[1]) / (2 * eps);
        const double dr = normals[2 * k] * du + normals[2 * k + 1] * dv;
        EXPECT_NEAR(t().m_jacU[0][6 * k + j], du, 1e-6 * std::fmax(1.0, std::fabs(du)))
            << "point " << k << " column " << j << " object frame " << objectFrame;
        EXPECT_NEAR(t().m_jacV[0][6 * k + j], dv, 1e-6 * std::fmax(1.0, std::fabs(dv)))
            << "point " << k << " column " << j << " object frame " << objectFrame;
        if (objectFrame) {
          EXPECT_NEAR(rows[6 * k + j], dr, 1e-6 * std::fmax(1.0, std::fabs(dr)))
              << "normal row " << k << " column " << j;
        }
      }
    }
  }
}

// ---------------------------------------------------------------- stacked cost
// A model edge along the object's y axis seen head-on projects onto the
// column u = 159.5 + 600 * 20 / 500 = 183.5; the edge is at 187.
using StackedCost = Rig;
TEST_F(StackedCost, ResidualsReachTheEdgeAndOneStepLandsOnIt) {
  matrixIdentity(m_pose, 4);
  m_pose[11] = 500.0;
  std::vector<double> points, tangents;
  for (int i = 0; i < 10; i++) {
    points.insert(points.end(), {20.0, -30.0 + 6.0 * i, 0.0});
    tangents.insert(tangents.end(), {0.0, 1.0, 0.0});
  }
  inject(points, tangents);
  clearEdges();
  for (int y = 0; y < 240; y++) {
    t().m_edgeMap[0][y * 320 + 187] = 255;
    t().m_gradX[0][y * 320 + 187] = -400;
  }
  ASSERT_EQ(evaluate(10.0), 0);
  ASSERT_EQ(t().m_nTotalPoints, 10);
  double expectedCost = 0.0;
  for (int i = 0; i < 10; i++) {
    const double u = t().m_projPoints[0][2 * i], nx = t().m_normals[0][2 * i];
    ASSERT_NEAR(u, 183.5, 1e-9);
    ASSERT_EQ(t().m_inlierWeights[i], 1.0);
    EXPECT_EQ(t().m_matchedPoints[0][2 * i], 187.0);
    EXPECT_NEAR(t().m_residuals[i], (187.0 - u) * nx, 1e-9);
    expectedCost += 0.5 * t().m_residuals[i] * t().m_residuals[i];
  }
  EXPECT_NEAR(m_cost, expectedCost / 10, 1e-12);
  double dx[6];
  const double xOnly[6] = {0, 0, 0, 1, 0, 0};
  ASSERT_EQ(t().computePoseUpdate_squareLSE(dx, xOnly, false, nullptr), 0);
  updatePoseTwist(m_pose, dx);
  ASSERT_EQ(evaluate(10.0), 0);
  for (int i = 0; i < 10; i++) EXPECT_NEAR(t().m_projPoints[0][2 * i], 187.0, 1e-6);
}

// ---------------------------------------------------------------- matching
namespace {
constexpr int kW = 128, kH = 96;
class Matching : public Rig {
 protected:
  Matching() : Rig(camera(kW, kH), 16) {}
  void SetUp() override {
    Rig::SetUp();
    clearEdges();
  }
  // An edge pixel (or with edge false only a gradient) with gradient (gx, gy).
  void edge(int x, int y, short gx, short gy, bool isEdge = true) {
    if (isEdge) t().m_edgeMap[0][y * kW + x] = 255;
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
};
}  // namespace

TEST_F(Matching, TheNearestEdgeWinsTheMinusSideFirstAndTheLineIsClipped) {
  int found[2] = {-1, -1};
  edge(17, 10, 100, 0);
  edge(23, 10, 100, 0);
  ASSERT_TRUE(canny(20, 10, 1.0, 0.0, 10.0, 20.0, found));
  EXPECT_EQ(found[0], 17);
  EXPECT_EQ(found[1], 10);
  ASSERT_TRUE(canny(20, 10, -1.0, 0.0, 10.0, 20.0, found));
  EXPECT_EQ(found[0], 23);
  edge(22, 10, -100, 0);  // nearer, either gradient sign
  ASSERT_TRUE(canny(20, 10, 1.0, 0.0, 10.0, 20.0, found));
  EXPECT_EQ(found[0], 22);
  found[0] = found[1] = -5;
  EXPECT_FALSE(canny(20, 10, 1.0, 0.0, 1.0, 20.0, found));
  EXPECT_EQ(found[0], -5);
  edge(20, 10, 100, 0);
  ASSERT_TRUE(canny(20, 10, 1.0, 0.0, 0.0, 20.0, found));
  EXPECT_EQ(found[0], 20);
  EXPECT_FALSE(canny(21, 10, 1.0, 0.0, 0.0, 20.0, found));
  // Clipped at the left and bottom borders, the other side goes on.
  edge(6, 30, 100, 0);
  ASSERT_TRUE(canny(1, 30, 1.0, 0.0, 8.0, 20.0, found));
  EXPECT_EQ(found[0], 6);
  edge(70, kH - 8, 0, 100);
  ASSERT_TRUE(canny(70, kH - 2, 0.0, -1.0, 10.0, 20.0, found));
  EXPECT_EQ(found[1], kH - 8);
  EXPECT_FALSE(canny(0, 0, -1.0, 0.0, 50.0, 20.0, found));
}

TEST_F(Matching, DirectionalDerivativeTakesTheNearestPeak) {
  int found[2] = {-1, -1};
  // Peaks at x = 16 (4 away) and x = 23 (3 away) on row 40.
  const short row[] = {0, 0, 0, 100, 800, 100, 0, 0, 0, 0, 100, 900, 100, 0, 0};
  for (int i = 0; i < 15; i++) edge(12 + i, 40, row[i], 0, false);
  ASSERT_TRUE(dirDer(20, 40, 1.0, 0.0, 8.0, 0.1, found));
  EXPECT_EQ(found[0], 23);
  EXPECT_EQ(found[1], 40);
  // At equal distance the minus end wins.
  const short shifted[] = {100, 900, 100};
  for (int i = 0; i < 3; i++) edge(23 + i, 40, shifted[i], 0, false);
  edge(22, 40, 0, 0, false);
  ASSERT_TRUE(dirDer(20, 40, 1.0, 0.0, 8.0, 0.1, found));
  EXPECT_EQ(found[0], 16);
  EXPECT_FALSE(dirDer(20, 40, 1.0, 0.0, 8.0, 0.5, found)) << "below relThreshold * 8 * 255";
  // A plateau of two equal values: the nearer is taken; across the normal
  // the derivative is nothing.
  const short plateau[] = {100, 700, 700, 100};
  for (int i = 0; i < 4; i++) edge(21 + i, 50, plateau[i], 0, false);
  ASSERT_TRUE(dirDer(20, 50, 1.0, 0.0, 8.0, 0.1, found));
  EXPECT_EQ(found[0], 22);
  EXPECT_FALSE(dirDer(20, 50, 0.0, 1.0, 8.0, 0.1, found));
  // Lines too short for the window, or longer than it can hold.
  EXPECT_FALSE(dirDer(0, 0, 1.0, 0.0, 0.0, 0.0, found));
  CaptureStdout();
  EXPECT_FALSE(dirDer(60, 48, std::sqrt(0.5), std::sqrt(0.5), 40.0, 0.0, found));
  GetCapturedStdout();
}

// ---------------------------------------------------------------- solvers
namespace {
class PoseUpdate : public ::testing::Test {
 protected:
  void SetUp() override {
    doBigMalloc(100000, 10000, 100000, 10, 100000, 10, 100000);
    const int w = 32, h = 32;
    const double zNear = 1.0, zFar = 10.0;
    m_tracker.init(&w, &h, &zNear, &zFar, 1, 200);
  }
  void TearDown() override { doBigFree(); }
  // n rows of a seeded random Jacobian, residuals J * dx, weight 1.
  void randomSystem(int n, const double* dx) {
    zot_test::Lcg rng(7);
    m_tracker.m_nTotalPoints = n;
    for (int i = 0; i < n; i++) {
      double r = 0.0;
      for (int j = 0; j < 6; j++) {
        const double v = 20.0 * (rng.uniform() - 0.5);
        m_tracker.m_normalJacobian[6 * i + j] = v;
        r += v * dx[j];
      }
      m_tracker.m_residuals[i] = r;
      m_tracker.m_inlierWeights[i] = 1.0;
    }
  }
  int rectangular(double* dx, const double* mask, bool covariance, double* cov) {
    CaptureStdout();  // the solver prints its condition number
    const int code = m_tracker.computePoseUpdate_rectangularLSE(dx, mask, covariance, cov);
    GetCapturedStdout();
    return code;
  }
  ContourTracker m_tracker;
};
}  // namespace

TEST_F(PoseUpdate, BothSolversRecoverAKnownIncrementWithWeightsAsSwitches) {
  const double truth[6] = {0.8, -1.5, 0.3, 2.0, -0.7, 4.0};
  double dx[6], reference[6];
  randomSystem(40, truth);
  // Weight 3 is the same switch as 1; rows switched off do not count.
  for (int i = 0; i < 40; i += 3) m_tracker.m_inlierWeights[i] = 3.0;
  m_tracker.m_nTotalPoints = 45;
  for (int i = 40; i < 45; i++) {
    for (int j = 0; j < 6; j++) m_tracker.m_normalJacobian[6 * i + j] = 1e3 * (j + 1);
    m_tracker.m_residuals[i] = 1e6;
    m_tracker.m_inlierWeights[i] = 0.0;
  }
  ASSERT_EQ(m_tracker.computePoseUpdate_squareLSE(reference, kAllFree, false, nullptr), 0);
  for (int j = 0; j < 6; j++) EXPECT_NEAR(reference[j], truth[j], 1e-9) << j;
  ASSERT_EQ(rectangular(dx, kAllFree, false, nullptr), 0);
  for (int j = 0; j < 6; j++) EXPECT_NEAR(dx[j], truth[j], 1e-9) << j;
  // A mask value other than 0 frees the parameter, whatever it is.
  const double odd[6] = {0.5, -2, 1, 1, 1, 3};
  randomSystem(40, truth);
  ASSERT_EQ(m_tracker.computePoseUpdate_squareLSE(dx, odd, false, nullptr), 0);
  for (int j = 0; j < 6; j++) EXPECT_NEAR(dx[j], truth[j], 1e-9) << j;
}

// Row i observes parameter i % 6 alone with gain sigma: the covariance
// carries the cumulative scaling of its designed form in both solvers.
TEST_F(PoseUpdate, TheCovarianceCarriesTheCumulativeScaling) {
  const double sigma[6] = {2.0, 0.5, 4.0, 1.0, 3.0, 0.25};
  const int k = 5;
  zot_test::Lcg rng(3);
  double rss = 0.0;
  m_tracker.m_nTotalPoints = 6 * k;
  for (int i = 0; i < 6 * k; i++) {
    for (int j = 0; j < 6; j++) m_tracker.m_normalJacobian[6 * i + j] = j == i % 6 ? sigma[j] : 0.0;
    m_tracker.m_residuals[i] = rng.uniform() - 0.5;
    m_tracker.m_inlierWeights[i] = 1.0;
    rss += m_tracker.m_residuals[i] * m_tracker.m_residuals[i];
  }
  double dx[6], cov[36];
  for (double& c : cov) c = 7.0;
  ASSERT_EQ(m_tracker.computePoseUpdate_squareLSE(dx, kAllFree, false, cov), 0);
  for (double c : cov) EXPECT_EQ(c, 0.0) << "zero-filled without a request";
  ASSERT_EQ(m_tracker.computePoseUpdate_squareLSE(dx, kAllFree, true, cov), 0);
  double product = 1.0;
  for (int a = 0; a < 6; a++) {  // in parameter order
    product /= sigma[a] * sigma[a] * k;
    const double expected = product * rss / (6 * k);
    EXPECT_NEAR(cov[7 * a], expected, 1e-12 * expected) << a;
    for (int b = 0; b < 6; b++) {
      if (b != a) {
        EXPECT_NEAR(cov[6 * a + b], 0.0, 1e-15);
      }
    }
  }
  ASSERT_EQ(rectangular(dx, kAllFree, true, cov), 0);
  std::vector<int> order = {0, 1, 2, 3, 4, 5};  // by decreasing singular value
  std::sort(order.begin(), order.end(), [&](int a, int b) { return sigma[a] > sigma[b]; });
  product = 1.0;
  for (int a : order) {
    product /= sigma[a] * sigma[a] * k;
    const double expected = product * rss / (6 * k - 6);
    EXPECT_NEAR(cov[7 * a], expected, 1e-12 * expected) << a;
  }
}

// ---------------------------------------------------------------- the loop
namespace {
class GaussNewton : public Rig {
 protected:
  GaussNewton() : Rig(offsetCamera()) {
    truePose(m_truth);
    const double axis[3] = {1.0, -1.0, 0.5}, shift[3] = {3.0, -4.0, 0.0};
    zot_test::perturb(m_truth, axis, 2.0, shift, m_start);  // 2 degrees and 5 mm off
  }
  void SetUp() override {
    Rig::SetUp();
    render(m_truth);
  }
  double m_truth[16], m_start[16];
};
}  // namespace

TEST_F(GaussNewton, ConvergesFromTwoDegreesAndFiveMillimetresOff) {
  double pose[16], covariance[36];
  std::memcpy(pose, m_start, sizeof pose);
  EXPECT_GT(m_scene.meanVertexError(m_box, m_start, m_truth, 0), 5.0) << "visibly wrong";
  for (double& c : covariance) c = 7.0;
  ASSERT_EQ(run(pose, LoopParams(), covariance), 0);
  EXPECT_LT(m_scene.meanVertexError(m_box, pose, m_truth, 0), 1.0);
  for (double c : covariance) EXPECT_EQ(c, 0.0);
  // A frozen rotation keeps the attitude exactly.
  std::memcpy(pose, m_truth, sizeof pose);
  pose[3] += 4.0;
  pose[7] += 3.0;
  LoopParams p;
  p.dofMask[0] = p.dofMask[1] = p.dofMask[2] = 0.0;
  ASSERT_EQ(run(pose, p), 0);
  for (int i : {0, 1, 2, 4, 5, 6, 8, 9, 10}) EXPECT_EQ(pose[i], m_truth[i]) << i;
  EXPECT_LT(m_scene.meanVertexError(m_box, pose, m_truth, 0), 1.0);
}

// Every failure restores the entry pose bit for bit.
TEST_F(GaussNewton, FailureCodesRestoreTheEntryPose) {
  struct Case {
    const char* name;
    std::function<void(LoopParams&)> change;
    int code;
  };
  const Case cases[] = {
      {"one iteration", [](LoopParams& p) { p.maxIterations = 1; }, ZOT_ERR_MAX_ITERATIONS},
      {"zero bounds",
       [](LoopParams& p) {
         p.convRotDeg = p.convTransl = 0.0;
         p.maxIterations = 4;
       },
       ZOT_ERR_MAX_ITERATIONS},
      {"translation limit", [](LoopParams& p) { p.maxAbsTransl = 1.0; }, ZOT_ERR_DIVERGENCE},
      {"rotation limit", [](LoopParams& p) { p.maxAbsRotDeg = 0.5; }, ZOT_ERR_DIVERGENCE},
      {"final cost", [](LoopParams& p) { p.maxFinalCost = 1e-3; }, ZOT_ERR_FINAL_REPROJECTION},
      {"inliers at the end", [](LoopParams& p) { p.minInliersAtEnd = kMaxSamples + 1; },
       ZOT_ERR_TOO_MANY_OUTLIERS},
      {"inliers in a loop", [](LoopParams& p) { p.minInliers = kMaxSamples + 1; },
       ZOT_ERR_TOO_MANY_OUTLIERS},
  };
  for (const Case& c : cases) {
    LoopParams p;
    c.change(p);
    double pose[16];
    std::memcpy(pose, m_start, sizeof pose);
    EXPECT_EQ(run(pose, p), c.code) << c.name;
    EXPECT_TRUE(sameBits(pose, m_start, 16)) << c.name;
  }
  // NaN in the pose, the object behind the camera, the only camera disabled.
  for (int element : {0, 3, 11}) {
    double pose[16];
    std::memcpy(pose, m_start, sizeof pose);
    pose[element] = std::nan("");
    EXPECT_LT(run(pose, LoopParams()), 0) << element;
    EXPECT_TRUE(std::isnan(pose[element]));
  }
  double T[16], behind[16];
  m_scene.poseInCamera(m_truth, 0, T);
  for (int i = 0; i < 3; i++) T[4 * i + 3] = -T[4 * i + 3];
  matrixProduct444(m_scene.m_cams[0].camInTool, T, behind);
  std::memcpy(T, behind, sizeof T);
  EXPECT_EQ(run(behind, LoopParams()), ZOT_ERR_OUT_OF_SCREEN);
  EXPECT_TRUE(sameBits(behind, T, 16));
  t().m_camEnabled[0] = 0;
  std::memcpy(T, m_start, sizeof T);
  EXPECT_EQ(run(T, LoopParams()), ZOT_ERR_OUT_OF_SCREEN);
}

// The loop's designed messages (verbose) tell why it ended and whether it
// re-sampled the contour.
TEST_F(GaussNewton, VerboseMessagesFollowTheResampling) {
  double pose[16];
  std::memcpy(pose, m_start, sizeof pose);
  LoopParams p;
  p.resampleRotDeg = p.resampleTransl = 0.0;
  CaptureStdout();
  ASSERT_EQ(run(pose, p, nullptr, true), 0);
  std::string out = GetCapturedStdout();
  EXPECT_NE(out.find("EXIT GN: convergence (small roto-translation update). Iteration n. "),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("Resampling because of rotation "), std::string::npos) << out;
  EXPECT_EQ(out.find("NO resampling"), std::string::npos) << out;
  std::memcpy(pose, m_start, sizeof pose);
  p.resampleRotDeg = 10.0;
  p.resampleTransl = 20.0;
  p.maxIterations = 3;
  CaptureStdout();
  EXPECT_EQ(run(pose, p, nullptr, true), ZOT_ERR_MAX_ITERATIONS);
  out = GetCapturedStdout();
  EXPECT_EQ(out.find("Resampling because of"), std::string::npos) << out;
  EXPECT_NE(out.find("NO resampling\n"), std::string::npos) << out;
  EXPECT_NE(out.find("EXIT GN: max. iteration reached\n"), std::string::npos) << out;
}

// ---------------------------------------------------------------- edge correlation
// One test, since every call writes the same file: test programs that run
// side by side must not race on it.
using EdgeCorrelation = Rig;
TEST_F(EdgeCorrelation, CandidatesFollowTheImageAndAFileFailureIsReported) {
  unsetenv("DISPLAY");  // the "corr" window must never wait for a key here
  unsetenv("WAYLAND_DISPLAY");
  unsetenv("QT_QPA_PLATFORM");
  TfromEuler(m_pose, 25.0, -30.0, 15.0, 5.0, -3.0, 500.0);
  render(m_pose);
  const std::vector<unsigned char> reference = m_scene.m_images[0];
  const char* path = correlateEdgesOutputPath();
  // Runs the analysis of `current` against the reference; for each line of
  // its file, whether a candidate lies within 1 pixel of the point's pixel
  // moved by shift (only points with a normal along x when shift != 0).
  auto correlate = [&](const std::vector<unsigned char>& current, int shift, int* checked) {
    const unsigned char* ref[1] = {reference.data()};
    const unsigned char* cur[1] = {current.data()};
    CaptureStdout();
    t().correlateEdges(model(), ref, cur, m_pose, K(), camFromTool());
    const std::string out = GetCapturedStdout();
    std::ifstream in(path);
    std::string text;
    int followed = 0;
    *checked = 0;
    while (std::getline(in, text)) {
      std::istringstream fields(text);
      int cam, count;
      double X[3], n[2], uv[2];
      fields >> cam >> X[0] >> X[1] >> X[2] >> n[0] >> n[1] >> count;
      EXPECT_TRUE(fields && cam == 0 && count >= 0) << text;
      EXPECT_NEAR(std::hypot(n[0], n[1]), 1.0, 1e-5);
      if (shift != 0 && std::fabs(n[0]) < 0.95) continue;
      zot_test::projectObjectPoint(m_pose, K()[0], X, uv);
      bool near = false;
      for (int j = 0; j < count; j++) {
        double x, y;
        fields >> x >> y;
        near = near || (std::fabs(x - std::round(uv[0]) - shift) <= 1.0 &&
                        std::fabs(y - std::round(uv[1])) <= 1.0);
      }
      EXPECT_TRUE(fields) << text;
      followed += near;
      ++*checked;
    }
    return std::make_pair(followed, out);
  };
  int checked = 0;
  auto [same, out] = correlate(reference, 0, &checked);
  EXPECT_GT(checked, 20) << out;
  EXPECT_EQ(same, checked) << "a candidate at every point itself";
  // The current image is the reference moved 3 pixels to the right.
  std::vector<unsigned char> shifted(reference.size(), 25);
  for (int y = 0; y < 240; y++)
    for (int x = 3; x < 320; x++) shifted[y * 320 + x] = reference[y * 320 + x - 3];
  auto [moved, out2] = correlate(shifted, 3, &checked);
  EXPECT_GT(checked, 5);
  EXPECT_EQ(moved, checked) << out2;
  // A file that cannot be opened is reported and the analysis goes on.
  std::remove(path);
  ASSERT_EQ(mkdir(path, 0700), 0) << path;
  auto [none, out3] = correlate(reference, 0, &checked);
  rmdir(path);
  EXPECT_NE(out3.find(std::string("ERROR: cannot open ") + path + " for writing\n"),
            std::string::npos)
      << out3;
  std::remove(path);
}
