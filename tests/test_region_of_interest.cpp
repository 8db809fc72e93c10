// The region of interest: the image steps inside a region equal those of the
// whole image, nothing outside it keeps an edge, and a tracker that works
// only there tracks a rendered scene as well as one that sees everything.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "GenericObjectTracker.h"
#include "IO.h"
#include "Imgproc.h"
#include "Math.h"
#include "SetupArray.h"
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

// The sample tracker file works in the region of interest: it tracks a
// rendered box from a start 2 degrees and 5 mm off as closely as the same
// file on whole images, its region holds the object and stays in the
// image, and an object out of view fails with -5, not a read beyond a
// buffer.
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
  double error[2];
  for (int region = 1; region >= 0; region--) {
    r.regionOfInterest = region;
    ASSERT_EQ(t.poseEstimation(scene.m_imagePtrs, 0.0, tool, start, zero, 0.0, pose, nullptr,
                               nullptr, nullptr, true, false, false, false),
              0);
    error[region] = scene.meanVertexError(mesh, pose, truth, 0);
    if (region == 0) continue;
    const int* box = t.m_imageRegion[0];
    double T[16], uv[2];
    scene.poseInCamera(truth, 0, T);
    EXPECT_TRUE(box[0] >= 0 && box[1] >= 0 && box[2] < kW && box[3] < kH);
    EXPECT_LT((box[2] - box[0]) * (box[3] - box[1]), kW * kH / 2);
    for (size_t v = 0; v < mesh.vertices.size(); v += 3) {
      const double X[3] = {mesh.vertices[v], mesh.vertices[v + 1], mesh.vertices[v + 2]};
      double Y[3];
      transformPoint3d(T, X, Y);
      uv[0] = t.m_K[0][0] * Y[0] / Y[2] + t.m_K[0][2];
      uv[1] = t.m_K[0][4] * Y[1] / Y[2] + t.m_K[0][5];
      EXPECT_TRUE(uv[0] > box[0] && uv[0] < box[2] && uv[1] > box[1] && uv[1] < box[3]);
    }
  }
  EXPECT_LT(error[1], 0.15);
  EXPECT_LT(error[1], error[0] * 1.05 + 0.01);

  r.regionOfInterest = 1;
  double away[16];
  const double far[3] = {400.0, 0.0, 0.0};
  zot_test::perturb(truth, axis, 0.0, far, away);
  EXPECT_EQ(t.poseEstimation(scene.m_imagePtrs, 0.0, tool, away, zero, 0.0, pose, nullptr, nullptr,
                             nullptr, true, false, false, false),
            ZOT_ERR_OUT_OF_SCREEN);
  EXPECT_LT(t.m_imageRegion[0][2], t.m_imageRegion[0][0]);
}
