// Reprojection of contour samples with their normals and Jacobians, checked
// against central finite differences of an independent projection, and the
// stacked residuals, Jacobian rows and cost that the solvers consume.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "ContourTracker.h"
#include "IO.h"
#include "Math.h"
#include "tracking_scene.h"

using namespace ZOTtracker;
using zot_test::TrackingCamera;
using zot_test::TrackingScene;

namespace {

constexpr double kEps = 1e-5;  // degrees or model units

TrackingCamera offsetCamera() {
  TrackingCamera cam;
  TfromEuler(cam.camFromRef, 3.0, -2.0, 1.0, 10.0, -5.0, 20.0);
  return cam;
}

// Object in the reference frame, turned about all three axes, ~500 in front.
void objectPose(const TrackingCamera& cam, double* pose) {
  double poseCam[16], refFromCam[16];
  TfromEuler(poseCam, 25.0, -30.0, 15.0, 5.0, -3.0, 500.0);
  inverseTransform(cam.camFromRef, refFromCam);
  matrixProduct444(refFromCam, poseCam, pose);
}

// P = [K | 0] * camFromRef, written out.
void projectionMatrix(const TrackingCamera& cam, double* P) {
  for (int i = 0; i < 3; i++) {
    for (int j = 0; j < 4; j++) {
      P[4 * i + j] = 0.0;
      for (int k = 0; k < 3; k++) P[4 * i + j] += cam.K[3 * i + k] * cam.camFromRef[4 * k + j];
    }
  }
}

// Puts samples (3 doubles each) with their tangents into camera cam's buffers.
void injectSamples(ZOTtracker::Multibody& model, int cam, const std::vector<double>& points,
                   const std::vector<double>& tangents) {
  const int n = (int)points.size() / 3;
  for (int i = 0; i < 3 * n; i++) {
    model.m_samplePointsPerCam[cam][i] = points[i];
    model.m_sampleTangentDirPerCam[cam][i] = tangents[i];
  }
  model.m_nSamplePointsPerCam[cam] = n;
}

// Pixel of object point X under the pose (object in the reference frame).
void projectRef(const TrackingScene& scene, const double* pose, const double* X, double* uv) {
  double T[16];
  scene.poseInCamera(pose, 0, T);
  zot_test::projectObjectPoint(T, scene.m_cams[0].K, X, uv);
}

// Rotation of angleDeg about axis j, as a 4 x 4 transform.
void axisRotation(int j, double angleDeg, double* D) {
  matrixIdentity(D, 4);
  const double c = std::cos(angleDeg * ZOT_PI / 180.0), s = std::sin(angleDeg * ZOT_PI / 180.0);
  const int a = (j + 1) % 3, b = (j + 2) % 3;
  D[4 * a + a] = c;
  D[4 * a + b] = -s;
  D[4 * b + a] = s;
  D[4 * b + b] = c;
}

// The pose moved by +/- eps along parameter j: rotation about the object's
// own axes, translation in the object frame or in the reference frame.
void movedPose(const double* pose, int j, double eps, bool objectFrame, double* out) {
  double D[16];
  matrixIdentity(D, 4);
  if (j < 3) {
    axisRotation(j, eps, D);
    matrixProduct444(pose, D, out);
    return;
  }
  D[4 * (j - 3) + 3] = eps;
  if (objectFrame) {
    matrixProduct444(pose, D, out);
  } else {
    matrixProduct444(D, pose, out);
  }
}

const std::vector<double> kPoints = {50, 40, 0, 0, -40, 30, -50, 10, -30, 20, 40, 30, -50, -40, 30};
const std::vector<double> kTangents = {0, 0, 1, 1, 0, 0, 0, 1, 0, 0.6, 0, 0.8, 0, -1, 0};

class Reprojection : public ::testing::Test {
 protected:
  Reprojection() : m_scene({offsetCamera()}, zot_test::trackingBox(), 100) {
    objectPose(m_scene.m_cams[0], m_pose);
    projectionMatrix(m_scene.m_cams[0], m_P);
    injectSamples(*m_scene.m_model, 0, kPoints, kTangents);
  }
  ContourTracker& tracker() { return m_scene.m_tracker; }
  TrackingScene m_scene;
  double m_pose[16], m_P[12];
};

TEST_F(Reprojection, EveryJacobianColumnMatchesCentralDifferences) {
  const int n = (int)kPoints.size() / 3;
  for (bool objectFrame : {true, false}) {
    ASSERT_EQ(tracker().computeReprojectionAndJacobian(*m_scene.m_model, 0, m_pose, m_P, true,
                                                       objectFrame),
              0);
    for (int k = 0; k < n; k++) {
      const double* X = &kPoints[3 * k];
      double uv[2];
      projectRef(m_scene, m_pose, X, uv);
      EXPECT_NEAR(tracker().m_projPoints[0][2 * k], uv[0], 1e-9);
      EXPECT_NEAR(tracker().m_projPoints[0][2 * k + 1], uv[1], 1e-9);
      for (int j = 0; j < 6; j++) {
        double plus[16], minus[16], uvPlus[2], uvMinus[2];
        movedPose(m_pose, j, kEps, objectFrame, plus);
        movedPose(m_pose, j, -kEps, objectFrame, minus);
        projectRef(m_scene, plus, X, uvPlus);
        projectRef(m_scene, minus, X, uvMinus);
        const double du = (uvPlus[0] - uvMinus[0]) / (2 * kEps);
        const double dv = (uvPlus[1] - uvMinus[1]) / (2 * kEps);
        const double ju = tracker().m_jacU[0][6 * k + j], jv = tracker().m_jacV[0][6 * k + j];
        EXPECT_NEAR(ju, du, 1e-6 * std::fmax(1.0, std::fabs(du)))
            << "point " << k << " column " << j << " object frame " << objectFrame;
        EXPECT_NEAR(jv, dv, 1e-6 * std::fmax(1.0, std::fabs(dv)))
            << "point " << k << " column " << j << " object frame " << objectFrame;
      }
    }
  }
}

TEST_F(Reprojection, OnlyTheTranslationColumnsDependOnTheFrameSwitch) {
  const int n = (int)kPoints.size() / 3;
  tracker().computeReprojectionAndJacobian(*m_scene.m_model, 0, m_pose, m_P, true, true);
  const std::vector<double> objectU(tracker().m_jacU[0], tracker().m_jacU[0] + 6 * n);
  tracker().computeReprojectionAndJacobian(*m_scene.m_model, 0, m_pose, m_P, true, false);
  for (int k = 0; k < n; k++) {
    for (int j = 0; j < 3; j++) EXPECT_EQ(tracker().m_jacU[0][6 * k + j], objectU[6 * k + j]);
    double difference = 0.0;
    for (int j = 3; j < 6; j++)
      difference += std::fabs(tracker().m_jacU[0][6 * k + j] - objectU[6 * k + j]);
    EXPECT_GT(difference, 1e-3) << "the object is rotated, so the frames differ";
  }
  // With the object's attitude equal to the reference frame's the two agree.
  double aligned[16];
  matrixIdentity(aligned, 4);
  aligned[11] = 500.0;
  tracker().computeReprojectionAndJacobian(*m_scene.m_model, 0, aligned, m_P, true, true);
  const std::vector<double> alignedU(tracker().m_jacU[0], tracker().m_jacU[0] + 6 * n);
  tracker().computeReprojectionAndJacobian(*m_scene.m_model, 0, aligned, m_P, true, false);
  for (int i = 0; i < 6 * n; i++) EXPECT_NEAR(tracker().m_jacU[0][i], alignedU[i], 1e-12);
}

TEST_F(Reprojection, NormalsAreUnitAndAcrossTheProjectedTangent) {
  const int n = (int)kPoints.size() / 3;
  // Without the Jacobian its arrays are not touched.
  for (int i = 0; i < 6 * n; i++) tracker().m_jacU[0][i] = tracker().m_jacV[0][i] = -3.25;
  tracker().computeReprojectionAndJacobian(*m_scene.m_model, 0, m_pose, m_P, false, true);
  for (int i = 0; i < 6 * n; i++) {
    ASSERT_EQ(tracker().m_jacU[0][i], -3.25);
    ASSERT_EQ(tracker().m_jacV[0][i], -3.25);
  }
  for (int k = 0; k < n; k++) {
    const double* X = &kPoints[3 * k];
    const double* D = &kTangents[3 * k];
    double a[2], b[2];
    const double Xb[3] = {X[0] + 1e-3 * D[0], X[1] + 1e-3 * D[1], X[2] + 1e-3 * D[2]};
    projectRef(m_scene, m_pose, X, a);
    projectRef(m_scene, m_pose, Xb, b);
    const double t[2] = {b[0] - a[0], b[1] - a[1]};
    const double* nrm = tracker().m_normals[0] + 2 * k;
    EXPECT_NEAR(std::hypot(nrm[0], nrm[1]), 1.0, 1e-12);
    EXPECT_NEAR((nrm[0] * t[0] + nrm[1] * t[1]) / std::hypot(t[0], t[1]), 0.0, 1e-6);
    // (dv, -du): a quarter turn of the tangent.
    EXPECT_GT(nrm[0] * t[1] - nrm[1] * t[0], 0.0);
  }

  // A tangent along the viewing ray projects to nothing: the normal is (1, 0).
  double T[16], Tinv[16];
  m_scene.poseInCamera(m_pose, 0, T);
  inverseTransform(T, Tinv);
  const double X[3] = {10.0, -5.0, 20.0};
  double Xc[3], ray[3];
  transformPoint3d(T, X, Xc);
  normalize(Xc, 3, 1);
  const double R[9] = {Tinv[0], Tinv[1], Tinv[2], Tinv[4], Tinv[5],
                       Tinv[6], Tinv[8], Tinv[9], Tinv[10]};
  matrixProduct331(R, Xc, ray);
  injectSamples(*m_scene.m_model, 0, {X[0], X[1], X[2]}, {ray[0], ray[1], ray[2]});
  tracker().computeReprojectionAndJacobian(*m_scene.m_model, 0, m_pose, m_P, false, true);
  EXPECT_EQ(tracker().m_normals[0][0], 1.0);
  EXPECT_EQ(tracker().m_normals[0][1], 0.0);
}

// ---------------------------------------------------------------- stacked cost
// A model edge parallel to the object's y axis, seen head-on: with the
// object's attitude equal to the camera's, it projects onto a vertical line.
class StackedCost : public ::testing::Test {
 protected:
  StackedCost() : m_scene({TrackingCamera()}, zot_test::trackingBox(), 100) {
    matrixIdentity(m_pose, 4);
    m_pose[11] = 500.0;
    std::vector<double> points, tangents;
    for (int i = 0; i < 10; i++) {
      points.insert(points.end(), {20.0, -30.0 + 6.0 * i, 0.0});
      tangents.insert(tangents.end(), {0.0, 1.0, 0.0});
    }
    injectSamples(*m_scene.m_model, 0, points, tangents);
    const int w = m_scene.m_cams[0].width, h = m_scene.m_cams[0].height;
    std::memset(m_scene.m_tracker.m_edgeMap[0], 0, (size_t)w * h);
    std::memset(m_scene.m_tracker.m_gradX[0], 0, (size_t)w * h * sizeof(short));
    std::memset(m_scene.m_tracker.m_gradY[0], 0, (size_t)w * h * sizeof(short));
  }
  // An image edge along column x with a horizontal gradient.
  void verticalEdge(int x) {
    const int w = m_scene.m_cams[0].width, h = m_scene.m_cams[0].height;
    for (int y = 0; y < h; y++) {
      m_scene.m_tracker.m_edgeMap[0][y * w + x] = 255;
      m_scene.m_tracker.m_gradX[0][y * w + x] = -400;
    }
  }
  int evaluate(double searchRange, bool resample = false, bool match = true) {
    return m_scene.m_tracker.computeOverallCostAndJacobian(
        *m_scene.m_model, m_cost, m_pose, m_scene.m_camFromRef, m_scene.m_K, 1.0, 1.0, 4,
        searchRange, 20.0, true, true, resample, match, false, false, false);
  }
  TrackingScene m_scene;
  double m_pose[16];
  double m_cost = -1.0;
};

TEST_F(StackedCost, ResidualsPointFromTheProjectionToTheEdgeAlongTheNormal) {
  // The samples project to u = 159.5 + 600 * 20 / 500 = 183.5; the edge sits
  // 3.5 pixels to the right.
  verticalEdge(187);
  ContourTracker& t = m_scene.m_tracker;
  ASSERT_EQ(evaluate(10.0), 0);
  ASSERT_EQ(t.m_nTotalPoints, 10);
  double expectedCost = 0.0;
  for (int i = 0; i < 10; i++) {
    const double u = t.m_projPoints[0][2 * i], nx = t.m_normals[0][2 * i];
    ASSERT_NEAR(u, 183.5, 1e-9);
    ASSERT_EQ(std::fabs(nx), 1.0);
    ASSERT_EQ(t.m_inlierWeights[i], 1.0);
    EXPECT_EQ(t.m_matchedPoints[0][2 * i], 187.0);
    EXPECT_NEAR(t.m_residuals[i], (187.0 - u) * nx, 1e-9);
    // The Jacobian row is d r / d increment = n . d(u, v): its x-translation
    // entry carries the normal's sign, so J dx = r moves u towards the edge.
    EXPECT_NEAR(t.m_normalJacobian[6 * i + 3], nx * 600.0 / 500.0, 1e-9);
    expectedCost += 0.5 * t.m_residuals[i] * t.m_residuals[i];
  }
  EXPECT_NEAR(m_cost, expectedCost / 10, 1e-12);

  // One Gauss-Newton step in x alone lands the projection on the edge.
  double dx[6];
  const double mask[6] = {0, 0, 0, 1, 0, 0};
  ASSERT_EQ(t.computePoseUpdate_squareLSE(dx, mask, false, nullptr), 0);
  updatePoseTwist(m_pose, dx);
  ASSERT_EQ(evaluate(10.0), 0);
  for (int i = 0; i < 10; i++) EXPECT_NEAR(t.m_projPoints[0][2 * i], 187.0, 1e-6);
}

TEST_F(StackedCost, UnmatchedPointsCostHalfTheSearchRangeSquared) {
  verticalEdge(187);
  // The edge is out of reach of a 2-pixel search from pixel 184.
  ASSERT_EQ(evaluate(2.0), 0);
  ContourTracker& t = m_scene.m_tracker;
  for (int i = 0; i < 10; i++) {
    EXPECT_EQ(t.m_inlierWeights[i], 0.0);
    EXPECT_EQ(t.m_residuals[i], 2.0);
    EXPECT_EQ(t.m_matchedPoints[0][2 * i], 0.0);
    EXPECT_NE(t.m_normalJacobian[6 * i + 3], 0.0) << "rows are filled for unmatched points too";
  }
  EXPECT_EQ(m_cost, 2.0);

  // Without matching the old (empty) matches stay, at a new pose.
  verticalEdge(184);
  m_pose[3] = 1.0;
  ASSERT_EQ(evaluate(2.0, false, false), 0);
  for (int i = 0; i < 10; i++) EXPECT_EQ(t.m_inlierWeights[i], 0.0);
  EXPECT_NEAR(t.m_projPoints[0][0], 183.5 + 1.2, 1e-9);
}

TEST_F(StackedCost, SamplesAtOrBehindTheCameraPlaneNeverMatchOrCrash) {
  // Every pixel an edge with a gradient along x: any finite projection inside
  // the image matches at once.
  const int w = m_scene.m_cams[0].width, h = m_scene.m_cams[0].height;
  std::memset(m_scene.m_tracker.m_edgeMap[0], 255, (size_t)w * h);
  for (int k = 0; k < w * h; k++) m_scene.m_tracker.m_gradX[0][k] = 300;
  // Depth 500 + z: a regular point, one exactly on the camera plane, one
  // behind the camera, one just in front of the plane (projects far away).
  injectSamples(*m_scene.m_model, 0, {0, 0, 0, 10, 5, -500, 10, 5, -700, 10, 5, -500 + 1e-12},
                {0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0});
  ASSERT_EQ(evaluate(10.0), 0);
  ContourTracker& t = m_scene.m_tracker;
  EXPECT_EQ(t.m_inlierWeights[0], 1.0);
  EXPECT_EQ(t.m_inlierWeights[1], 0.0);
  EXPECT_EQ(t.m_residuals[1], 10.0);
  EXPECT_EQ(t.m_inlierWeights[3], 0.0);
  double dx[6], covariance[36];
  const double mask[6] = {1, 1, 1, 1, 1, 1};
  EXPECT_EQ(t.computePoseUpdate_squareLSE(dx, mask, true, covariance), 0);
  EXPECT_TRUE(isFiniteArray(dx, 6));
}

TEST_F(StackedCost, NoSamplePointAnywhereIsOutOfScreen) {
  m_scene.m_model->m_nSamplePointsPerCam[0] = 0;
  m_cost = 123.0;
  EXPECT_EQ(evaluate(10.0), ZOT_ERR_OUT_OF_SCREEN);
  EXPECT_EQ(m_cost, 123.0);
  // Re-sampling behind the camera finds nothing either.
  m_pose[11] = -500.0;
  EXPECT_EQ(evaluate(10.0, true), ZOT_ERR_OUT_OF_SCREEN);
  EXPECT_EQ(m_cost, 123.0);
}

}  // namespace
