// The speed modes. The region of interest: the image steps inside a region
// equal those of the whole image, nothing outside it keeps an edge, and a
// tracker that works only there tracks a rendered scene as well as one that
// sees everything. The lens in the projection: samples land where the
// renderer's independent lens model puts them, with exact Jacobians and
// normals, and tracking the raw images is as close as tracking undistorted
// ones.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <vector>

#include "GenericObjectTracker.h"
#include "IO.h"
#include "Imgproc.h"
#include "Math.h"
#include "SetupArray.h"
#include "alloc_counter.h"
#include "lens.h"
#include "support/synthetic_images.h"
#include "support/tracker_scene.h"

using namespace ZOTtracker;

namespace {

constexpr int kW = 640, kH = 480;

bool inside(const int* r, int x, int y, int border) {
  return x >= r[0] + border && x <= r[2] - border && y >= r[1] + border && y <= r[3] - border;
}

}  // namespace

// Undistortion, Sobel and Canny of a distorted, cluttered image: inside the
// region (less the border where the window's own borders decide) every
// byte and derivative equals the whole-image result, outside it nothing is
// written, and a region detection after a whole-image one leaves no stale
// edge outside the region.
TEST(RegionOfInterest, InsideTheRegionTheImageStepsEqualTheWholeImagesOutsideNothingIsLeft) {
  std::vector<unsigned char> raw(kW * kH);
  zot_test::renderShapesScene(raw.data(), kW, kH, 7, 3.0);
  const double K[9] = {612.4, 0, 321.3, 0, 611.9, 238.9, 0, 0, 1};
  const double dist[5] = {-0.28, 0.09, 0.0004, -0.0003, -0.011};
  std::vector<double> mapX(kW * kH), mapY(kW * kH);
  std::vector<int> t1(kW * kH), t2(kW * kH), t3(kW * kH), t4(kW * kH), t5(kW * kH);
  initUndistortRectifyMap(K, dist, nullptr, nullptr, kW, kH, mapX.data(), mapY.data());
  initUndistortionTables(mapX.data(), mapY.data(), t1.data(), t2.data(), t3.data(), t4.data(),
                         t5.data(), kW, kH);
  std::vector<unsigned char> whole(kW * kH), part(kW * kH, 77);
  undistortImageFromTables(raw.data(), whole.data(), t1.data(), t2.data(), t3.data(), t4.data(),
                           t5.data(), kW, kH);
  const int region[4] = {150, 90, 409, 331};
  const int beyond[4] = {600, -20, 700, 40};  // clipped to x 600..639, y 0..40
  undistortImageRegionFromTables(raw.data(), part.data(), t1.data(), t2.data(), t3.data(),
                                 t4.data(), t5.data(), kW, kH, region);
  undistortImageRegionFromTables(raw.data(), part.data(), t1.data(), t2.data(), t3.data(),
                                 t4.data(), t5.data(), kW, kH, beyond);
  const int clippedBeyond[4] = {600, 0, 639, 40};
  for (int y = 0; y < kH; y++)
    for (int x = 0; x < kW; x++) {
      const bool in = inside(region, x, y, 0) || inside(clippedBeyond, x, y, 0);
      ASSERT_EQ(part[y * kW + x], in ? whole[y * kW + x] : 77) << x << " " << y;
    }

  zot_test::TrackerPools pools(kW * kH, 1, 100);
  ContourTracker tracker;
  const double zNear = 50.0, zFar = 1500.0;
  tracker.init(&kW, &kH, &zNear, &zFar, 1, 100);
  const unsigned char* images[1] = {whole.data()};
  ASSERT_EQ(tracker.edgeDetect(images, 20, 60), 0);
  const std::vector<unsigned char> edges(tracker.m_edgeMap[0], tracker.m_edgeMap[0] + kW * kH);
  const std::vector<short> gx(tracker.m_gradX[0], tracker.m_gradX[0] + kW * kH);
  const std::vector<short> gy(tracker.m_gradY[0], tracker.m_gradY[0] + kW * kH);
  int edgesInside = 0;
  for (int y = 0; y < kH; y++)
    for (int x = 0; x < kW; x++) edgesInside += inside(region, x, y, 2) && edges[y * kW + x];
  ASSERT_GT(edgesInside, 500);

  const int* regions[1] = {region};
  ASSERT_EQ(tracker.edgeDetectRegions(images, regions, 20, 60, nullptr), 0);
  for (int i = 0; i < 4; i++) EXPECT_EQ(tracker.m_edgeWindow[0][i], region[i]);
  int missed = 0;
  for (int y = 0; y < kH; y++)
    for (int x = 0; x < kW; x++) {
      const int k = y * kW + x;
      if (inside(region, x, y, 1)) {
        ASSERT_EQ(tracker.m_gradX[0][k], gx[k]) << x << " " << y;
        ASSERT_EQ(tracker.m_gradY[0][k], gy[k]) << x << " " << y;
      }
      // Every edge is one of the whole image; one of the whole image is
      // missing only when it is weak (its strong edge may lie outside).
      const unsigned char e = tracker.m_edgeMap[0][k];
      if (!inside(region, x, y, ZOT_REGION_BORDER) || e != 0) {
        ASSERT_EQ(e, inside(region, x, y, ZOT_REGION_BORDER) ? edges[k] : 0) << x << " " << y;
      } else if (edges[k] != 0) {
        ASSERT_LE(std::abs(gx[k]) + std::abs(gy[k]), 60) << x << " " << y;
      }
      missed += edges[k] != 0 && e == 0 && inside(region, x, y, ZOT_REGION_BORDER);
    }
  EXPECT_LT(missed, edgesInside / 50);

  // Row spans (a hexagon in the region, its top rows empty): derivatives as
  // the whole image's on them, edges only where a pixel's 3 x 3 lies in
  // them, every one an edge of the whole image, a missing one weak.
  std::vector<int> spans(2 * kH);
  for (int y = region[1]; y <= region[3]; y++) {
    const int half = y < 95 ? -1 : 130 - std::abs(y - 210) * 3 / 5;
    spans[2 * y] = 280 - half, spans[2 * y + 1] = 280 + half;
  }
  auto inSpans = [&](int x, int y) {
    return y >= region[1] && y <= region[3] && x >= spans[2 * y] && x <= spans[2 * y + 1];
  };
  const int* spansOf[1] = {spans.data()};
  ASSERT_EQ(tracker.edgeDetectRegions(images, regions, 20, 60, nullptr, spansOf), 0);
  int found = 0;
  for (int y = 1; y < kH - 1; y++)
    for (int x = 1; x < kW - 1; x++) {
      const int k = y * kW + x;
      if (inSpans(x, y) && inside(region, x, y, 1)) {
        ASSERT_EQ(tracker.m_gradX[0][k], gx[k]);
        ASSERT_EQ(tracker.m_gradY[0][k], gy[k]);
      }
      bool classified = inside(region, x, y, ZOT_REGION_BORDER);
      for (int n = 0; n < 9; n++) classified = classified && inSpans(x + n % 3 - 1, y + n / 3 - 1);
      const unsigned char e = tracker.m_edgeMap[0][k];
      ASSERT_EQ(e, classified && e ? edges[k] : 0) << x << " " << y;
      if (classified && edges[k] && !e) {
        ASSERT_LE(std::abs(gx[k]) + std::abs(gy[k]), 60);
      }
      found += e != 0;
    }
  EXPECT_GT(found, edgesInside / 2);

  // A region off the image leaves the camera without edges; one of a few
  // pixels is widened to the least Canny works on.
  const int off[4] = {700, 500, 800, 600}, tiny[4] = {630, 5, 634, 8};
  regions[0] = off;
  ASSERT_EQ(tracker.edgeDetectRegions(images, regions, 20, 60, nullptr), 0);
  EXPECT_LT(tracker.m_edgeWindow[0][2], tracker.m_edgeWindow[0][0]);
  for (int k = 0; k < kW * kH; k++) ASSERT_EQ(tracker.m_edgeMap[0][k], 0);
  regions[0] = tiny;
  ASSERT_EQ(tracker.edgeDetectRegions(images, regions, 20, 60, nullptr), 0);
  const int widened[4] = {608, 0, 639, 31};
  for (int i = 0; i < 4; i++) EXPECT_EQ(tracker.m_edgeWindow[0][i], widened[i]);
}

// The sample tracker file works in the region of interest and with the
// lens in the projection: each tracks a rendered box from a start 2 degrees
// and 5 mm off as closely as the same file on whole undistorted images; the
// region and its row spans hold the object and stay in the image, and an
// object out of view fails with -5, not a read beyond a buffer. No mode
// allocates.
TEST(RegionOfInterest, TracksAsCloselyAsTheWholeImageAndFailsCleanlyOutOfView) {
  const zot_sim::Mesh mesh = zot_test::chamferedBoxMesh();
  std::vector<double> setup =
      zot_test::sampleSetupArray(ZOT_DATA_DIR, "camera_mono.txt", "tracker_demo.txt");
  zot_test::TrackerScene scene(zot_test::camerasOfSetupArray(setup), setup, 2000);
  ASSERT_EQ(scene.m_setupCode, 0);
  GenericObjectTracker& t = *scene.m_tracker;
  RobustSettings& r = t.m_trackingParams.m_robust;
  ASSERT_EQ(r.regionOfInterest, 1);

  double truth[16], tool[16], start[16], pose[16];
  TfromEuler(truth, 150.0, 30.0, 10.0, 10.0, -5.0, 450.0);
  matrixIdentity(tool, 4);
  const double axis[3] = {1.0, -1.0, 0.5}, shift[3] = {3.0, -4.0, 0.0}, zero[6] = {};
  zot_test::perturb(truth, axis, 2.0, shift, start);
  zot_sim::RenderObject o{};
  o.mesh = &mesh;
  o.faceGrey = zot_test::chamferedBoxGreys();
  scene.render(truth, {o}, 30, 2, 1.5);
  double error[3];
  for (int mode = 0; mode < 3; mode++) {  // whole images, region, region and lens
    r.regionOfInterest = mode > 0;
    r.lensInProjection = mode > 1;
    zot_test::startCountingAllocations();
    const int code = t.poseEstimation(scene.m_imagePtrs, 0.0, tool, start, zero, 0.0, pose, nullptr,
                                      nullptr, nullptr, true, false, false, false);
    const long allocations = zot_test::stopCountingAllocations();
    ASSERT_EQ(code, 0) << mode;
    EXPECT_TRUE(allocations == 0 || !zot_test::allocationCountingAvailable()) << mode;
    error[mode] = scene.meanVertexError(mesh, pose, truth, 0);
    EXPECT_LT(error[mode], 0.15) << mode;
    if (mode != 1) continue;
    const int* box = t.m_imageRegion[0];
    double T[16];
    scene.poseInCamera(truth, 0, T);
    EXPECT_TRUE(box[0] >= 0 && box[1] >= 0 && box[2] < kW && box[3] < kH);
    EXPECT_LT((box[2] - box[0]) * (box[3] - box[1]), kW * kH / 2);
    for (size_t v = 0; v < mesh.vertices.size(); v += 3) {
      double Y[3];
      transformPoint3d(T, &mesh.vertices[v], Y);
      const double u = t.m_K[0][0] * Y[0] / Y[2] + t.m_K[0][2];
      const double w = t.m_K[0][4] * Y[1] / Y[2] + t.m_K[0][5];
      EXPECT_TRUE(u > box[0] && u < box[2] && w > box[1] && w < box[3]);
      // Its row's span holds it with room for the fit's moves.
      const int* span = t.m_imageSpans[0] + 2 * (int)std::lround(w);
      EXPECT_TRUE(u - 8 >= span[0] && u + 8 <= span[1]) << u << " " << w;
    }
  }
  EXPECT_LT(error[1], error[0] * 1.05 + 0.01);
  EXPECT_LT(error[2], error[0] * 1.05 + 0.01);

  double away[16];
  const double far[3] = {400.0, 0.0, 0.0};
  zot_test::perturb(truth, axis, 0.0, far, away);
  EXPECT_EQ(t.poseEstimation(scene.m_imagePtrs, 0.0, tool, away, zero, 0.0, pose, nullptr, nullptr,
                             nullptr, true, false, false, false),
            ZOT_ERR_OUT_OF_SCREEN);
  EXPECT_LT(t.m_imageRegion[0][2], t.m_imageRegion[0][0]);
}

// Samples on a box seen through the sample camera's lens: each lands where
// the renderer's lens model puts the pinhole pixel, its Jacobian columns
// match central differences of that projection, and its normal stays
// perpendicular to the distorted edge.
TEST(LensInProjection, SamplesJacobiansAndNormalsFollowTheLens) {
  std::vector<double> setup =
      zot_test::sampleSetupArray(ZOT_DATA_DIR, "camera_mono.txt", "tracker_demo.txt");
  zot_test::TrackerScene scene(zot_test::camerasOfSetupArray(setup), setup, 2000);
  ASSERT_EQ(scene.m_setupCode, 0);
  GenericObjectTracker& g = *scene.m_tracker;
  ContourTracker& t = g.m_contourTracker;
  const double* K = g.m_K[0];
  const double* d = g.m_distCoeffs[0];
  const double points[] = {30, 20, 10, -25, 15, -10, 40, -35, 5, -45, -30, 15};
  const double tangents[] = {1, 0, 0, 0, 1, 0, 0.6, 0.8, 0, 0, 0, 1};
  const int n = 4;
  std::copy(points, points + 3 * n, g.m_multibody.m_samplePointsPerCam[0]);
  std::copy(tangents, tangents + 3 * n, g.m_multibody.m_sampleTangentDirPerCam[0]);
  g.m_multibody.m_nSamplePointsPerCam[0] = n;

  // Far off the axis, where the lens moves pixels by tens of them.
  double pose[16], P[12];
  TfromEuler(pose, 20.0, -15.0, 30.0, 110.0, 70.0, 400.0);
  const double K0[12] = {K[0], K[1], K[2], 0, K[3], K[4], K[5], 0, K[6], K[7], K[8], 0};
  matrixProduct344(K0, g.m_toolToCamera[0], P);
  auto lensPixel = [&](const double* T, const double* X, double* uv) {
    double Y[3], x, y;
    double C[16];
    matrixProduct444(g.m_toolToCamera[0], T, C);
    transformPoint3d(C, X, Y);
    zot_sim::distortNormalized(d, Y[0] / Y[2], Y[1] / Y[2], &x, &y);
    uv[0] = K[0] * x + K[2];
    uv[1] = K[4] * y + K[5];
  };
  auto projected = [&](const double* T, bool jacobian) {
    t.computeReprojectionAndJacobian(g.m_multibody, 0, T, P, jacobian, true);
    t.projectThroughLens(g.m_multibody, 0, K, d, jacobian);
  };
  projected(pose, true);
  const std::vector<double> uv(t.m_projPoints[0], t.m_projPoints[0] + 2 * n);
  const std::vector<double> normals(t.m_normals[0], t.m_normals[0] + 2 * n);
  const std::vector<double> ju(t.m_jacU[0], t.m_jacU[0] + 6 * n),
      jv(t.m_jacV[0], t.m_jacV[0] + 6 * n);
  const double eps = 1e-5;
  for (int k = 0; k < n; k++) {
    double expected[2], along[2], X1[3];
    lensPixel(pose, points + 3 * k, expected);
    EXPECT_NEAR(uv[2 * k], expected[0], 1e-9) << k;
    EXPECT_NEAR(uv[2 * k + 1], expected[1], 1e-9) << k;
    EXPECT_GT(std::hypot(expected[0] - K[2], expected[1] - K[5]), 100.0);
    for (int i = 0; i < 3; i++) X1[i] = points[3 * k + i] + 1e-4 * tangents[3 * k + i];
    lensPixel(pose, X1, along);
    const double tx = along[0] - expected[0], ty = along[1] - expected[1];
    EXPECT_NEAR((normals[2 * k] * tx + normals[2 * k + 1] * ty) / std::hypot(tx, ty), 0.0, 1e-6);
    for (int j = 0; j < 6; j++) {
      double twist[6] = {}, plus[16], minus[16], a[2], b[2];
      twist[j] = eps;
      std::copy(pose, pose + 16, plus);
      updatePoseTwist(plus, twist);
      twist[j] = -eps;
      std::copy(pose, pose + 16, minus);
      updatePoseTwist(minus, twist);
      lensPixel(plus, points + 3 * k, a);
      lensPixel(minus, points + 3 * k, b);
      const double du = (a[0] - b[0]) / (2 * eps), dv = (a[1] - b[1]) / (2 * eps);
      EXPECT_NEAR(ju[6 * k + j], du, 1e-5 * std::fmax(1.0, std::fabs(du))) << k << " " << j;
      EXPECT_NEAR(jv[6 * k + j], dv, 1e-5 * std::fmax(1.0, std::fabs(dv))) << k << " " << j;
    }
  }
}
