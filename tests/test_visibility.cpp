// Visible-contour sampling through the Z-buffer and the ray-casting cross-check,
// on boxes rendered at known poses.
#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Math.h"
#include "Multibody.h"
#include "box_models.h"
#include "memory_handling.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

constexpr int kW = 640, kH = 480;
constexpr double kNear = 0.1, kFar = 100.0;

struct Sample {
  double X[3];  // object frame
  double D[3];  // tangent, object frame
  int id;
  double u, v;  // projection of X
};

class VisibilityTest : public ::testing::Test {
 protected:
  zot_test::PoolScope m_pools;
  double m_K[9];
  void SetUp() override { zot_test::pinholeK(m_K, 500.0, kW, kH); }

  void initModel(Multibody& mb, int maxSamples = 20000, int nCams = 1) {
    for (int c = 0; c < nCams; c++) zot_test::setCameraFrustum(mb, c, m_K, kW, kH, kNear, kFar);
    ASSERT_EQ(mb.init(nCams, maxSamples, kW, kH), 0);
  }

  // Samples camera 0 at pose T and returns the samples with their ids.
  std::vector<Sample> sample(Multibody& mb, const double* T, int step = 4, double tau = 0.0,
                             unsigned char* sampleImage = nullptr, int cam = 0, int w = kW,
                             int h = kH) {
    std::vector<int> ids(mb.m_maxSamplePointsPerCam + 1, -7);
    mb.resetNSamplePointsPerCam();
    EXPECT_EQ(mb.sampleContour_Zbuffer(cam, T, m_K, w, h, kNear, kFar, tau, 0.01, step, nullptr,
                                       sampleImage, nullptr, ids.data(), true, false, false, false),
              0);
    std::vector<Sample> out;
    const int n = mb.getNSamplePointsPerCam(cam);
    for (int k = 0; k < n; k++) {
      Sample s;
      for (int i = 0; i < 3; i++) {
        s.X[i] = mb.getSamplePointsPerCam(cam)[3 * k + i];
        s.D[i] = mb.getSampleTangentDirPerCam(cam)[3 * k + i];
      }
      s.id = ids[k];
      double uv[2];
      zot_test::projectObjectPoint(T, m_K, s.X, uv);
      s.u = uv[0];
      s.v = uv[1];
      out.push_back(s);
    }
    EXPECT_EQ(ids[n], -7) << "no id written past the sample count";
    return out;
  }
};

const double kOrigin[3] = {0, 0, 0};
const double kUnit[3] = {1, 1, 1};

double facing(const Polyhedron& ph, int f, const double* C) {
  double d[3];
  matrixSub31(ph.m_vertices + 3 * ph.m_faceVertices[f][0], C, d);
  return dotProd3(ph.m_faceNormals + 3 * f, d);
}

// Distance of point p to the segment a-b (any dimension up to 3).
double pointSegmentDistance(const double* p, const double* a, const double* b, int dim) {
  double ab2 = 0, t = 0;
  for (int i = 0; i < dim; i++) {
    ab2 += (b[i] - a[i]) * (b[i] - a[i]);
    t += (p[i] - a[i]) * (b[i] - a[i]);
  }
  t = ab2 > 0 ? std::fmax(0.0, std::fmin(1.0, t / ab2)) : 0.0;
  double d2 = 0;
  for (int i = 0; i < dim; i++) {
    const double q = a[i] + t * (b[i] - a[i]) - p[i];
    d2 += q * q;
  }
  return std::sqrt(d2);
}

}  // namespace

TEST_F(VisibilityTest, CubeSamplesLieOnVisibleEdgesOnly) {
  for (double angle : {30.0, -1.0}) {
    Multibody mb;
    zot_test::addPolyhedronBody(mb, zot_test::boxMesh(kOrigin, kUnit), false, angle);
    initModel(mb);
    double T[16], Tinv[16];
    zot_test::makePose(T, 25, 35, 10, 0.3, -0.2, 8);
    inverseTransform(T, Tinv);
    const double C[3] = {Tinv[3], Tinv[7], Tinv[11]};
    std::vector<unsigned char> sampleImage(kW * kH, 7);
    const std::vector<Sample> samples = sample(mb, T, 4, 0.0, sampleImage.data());
    const Polyhedron& ph = mb.m_polyhedra[0];
    std::vector<int> perEdge(ph.m_nEdges, 0);
    std::vector<std::set<std::pair<int, int>>> pixels(ph.m_nEdges);
    for (const Sample& s : samples) {
      ASSERT_EQ(s.id >> 16, 0);
      const int e = s.id & 0xFFFF;
      ASSERT_LT(e, ph.m_nEdges);
      perEdge[e]++;
      const int* edge = ph.m_edges + 5 * e;
      const bool front0 = facing(ph, edge[2], C) < 0, front1 = facing(ph, edge[3], C) < 0;
      EXPECT_TRUE(front0 || front1) << "sample on a hidden edge " << e;
      if (angle <= 0) {
        EXPECT_NE(front0, front1) << "without features only contour edges";
      }
      // On the 3D edge, and within a pixel of the projected edge.
      const double* a = ph.m_vertices + 3 * edge[0];
      const double* b = ph.m_vertices + 3 * edge[1];
      EXPECT_LT(pointSegmentDistance(s.X, a, b, 3), 1e-9);
      double ua[2], ub[2];
      zot_test::projectObjectPoint(T, m_K, a, ua);
      zot_test::projectObjectPoint(T, m_K, b, ub);
      const double uv[2] = {s.u, s.v};
      EXPECT_LT(pointSegmentDistance(uv, ua, ub, 2), 1e-6);
      // The tangent is the unit edge direction.
      double dir[3], c[3];
      matrixSub31(b, a, dir);
      crossProd(dir, s.D, c);
      EXPECT_NEAR(norm(s.D, 3), 1.0, 1e-12);
      EXPECT_LT(norm(c, 3), 1e-9);
      // The sample pixel is marked in the sample image, and a feature edge
      // shared by two front faces gives each pixel once.
      const int x = (int)std::lround(s.u), y = (int)std::lround(s.v);
      bool marked = false;
      for (int dy = -1; dy <= 1; dy++) {
        for (int dx = -1; dx <= 1; dx++) marked |= sampleImage[(y + dy) * kW + x + dx] == 255;
      }
      EXPECT_TRUE(marked);
      EXPECT_TRUE(pixels[e].insert({x, y}).second) << "edge " << e << " sampled twice at a pixel";
    }
    // Every visible edge is sampled about every 4th pixel of its length;
    // the sample image is zeroed first and holds only samples.
    for (int e = 0; e < ph.m_nEdges; e++) {
      const int* edge = ph.m_edges + 5 * e;
      const bool front0 = facing(ph, edge[2], C) < 0, front1 = facing(ph, edge[3], C) < 0;
      const bool expected = angle > 0 ? (front0 || front1) : (front0 != front1);
      double ua[2], ub[2];
      zot_test::projectObjectPoint(T, m_K, ph.m_vertices + 3 * edge[0], ua);
      zot_test::projectObjectPoint(T, m_K, ph.m_vertices + 3 * edge[1], ub);
      const int len = (int)std::fmax(std::fabs(ub[0] - ua[0]), std::fabs(ub[1] - ua[1]));
      if (expected) {
        EXPECT_GE(perEdge[e], len / 4 - 2) << "edge " << e;
        EXPECT_LE(perEdge[e], len / 4 + 2) << "edge " << e;
      } else {
        EXPECT_EQ(perEdge[e], 0) << "edge " << e;
      }
    }
    int marked = 0;
    for (unsigned char p : sampleImage) {
      EXPECT_TRUE(p == 0 || p == 255);
      marked += p == 255;
    }
    EXPECT_LE(marked, (int)samples.size());
    EXPECT_GE(marked, (int)samples.size() - 12);
    // The Z-buffer holds the front faces only, at their inverse depth.
    const int centre = (int)std::lround(m_K[5]) * kW + (int)std::lround(m_K[2]);
    const int face = mb.m_faceIdMap[centre] - 1;
    ASSERT_GE(face, 0);
    EXPECT_LT(facing(ph, face & 0xFFFF, C), 0.0);
  }
}

TEST_F(VisibilityTest, BoxHalfHiddenBehindAnotherBox) {
  Multibody mb;
  const double backCentre[3] = {0, 0, 10}, backHalf[3] = {1.5, 1, 1};
  const double frontCentre[3] = {-0.75, 0, 5}, frontHalf[3] = {0.8, 1.2, 0.2};
  zot_test::addPolyhedronBody(mb, zot_test::boxMesh(frontCentre, frontHalf), false, 30.0);
  zot_test::addPolyhedronBody(mb, zot_test::boxMesh(backCentre, backHalf), false, 30.0);
  initModel(mb);
  double T[16];
  matrixIdentity(T, 4);
  std::vector<Sample> samples = sample(mb, T, 2);
  // The occluder's silhouette is its front face: x in [-1.55, 0.05] at z = 4.8.
  const double occluderRight = 0.05 / 4.8 * m_K[0] + m_K[2];
  int nBack = 0, nFront = 0;
  std::vector<int> ids;
  for (const Sample& s : samples) {
    ids.push_back(s.id);
    if ((s.id >> 16) == 0) {
      nFront++;
      continue;
    }
    nBack++;
    EXPECT_GT(s.u, occluderRight - 1.0) << "sample of the hidden part at u = " << s.u;
  }
  EXPECT_GT(nFront, 100);
  EXPECT_GT(nBack, 50);
  // The occluder's right contour stays sampled where the back box is behind
  // it: those pixels show the back box, and the pixel across the line shows
  // the occluder's own face.
  int nOverBack = 0;
  for (const Sample& s : samples) {
    if ((s.id >> 16) == 0 && std::fabs(s.u - occluderRight) < 1.0 && std::fabs(s.v - m_K[5]) < 50) {
      nOverBack++;
    }
  }
  EXPECT_GE(nOverBack, 48);
  // The ray-casting check agrees: no conflicts, no ids changed.
  std::vector<double> points;
  for (const Sample& s : samples) points.insert(points.end(), s.X, s.X + 3);
  CaptureStdout();
  mb.cross_check_raytracing(T, (int)samples.size(), points.data(), ids.data());
  EXPECT_EQ(GetCapturedStdout(), "");
  for (size_t k = 0; k < samples.size(); k++) EXPECT_EQ(ids[k], samples[k].id);

  // Samples known to be hidden: on the back box's edge between its front
  // face (z = 9) and its top face (y = 1), left of the occluder's right side.
  const Polyhedron& back = mb.m_polyhedra[1];
  int hiddenEdge = -1;
  for (int e = 0; e < back.m_nEdges; e++) {
    const double* a = back.m_vertices + 3 * back.m_edges[5 * e];
    const double* b = back.m_vertices + 3 * back.m_edges[5 * e + 1];
    if (a[1] == 1 && b[1] == 1 && a[2] == 9 && b[2] == 9) hiddenEdge = e;
  }
  ASSERT_GE(hiddenEdge, 0);
  const double hidden[6] = {-1.0, 1.0, 9.0, -0.5, 1.0, 9.0};
  const double visible[3] = {1.0, 1.0, 9.0};
  double all[9];
  for (int i = 0; i < 6; i++) all[i] = hidden[i];
  for (int i = 0; i < 3; i++) all[6 + i] = visible[i];
  int hiddenIds[3] = {65536 + hiddenEdge, 65536 + hiddenEdge, 65536 + hiddenEdge};
  CaptureStdout();
  mb.cross_check_raytracing(T, 3, all, hiddenIds);
  const std::string out = GetCapturedStdout();
  EXPECT_EQ(hiddenIds[0], -255);
  EXPECT_EQ(hiddenIds[1], -255);
  EXPECT_EQ(hiddenIds[2], 65536 + hiddenEdge);
  EXPECT_EQ(out,
            "depth conflict: Z point 9 polygon 5.2 k 0.577778\n"
            "depth conflict: Z point 9 polygon 5.2 k 0.577778\n");
  // No sample of the Z-buffer lies on the hidden stretch of that edge.
  for (const Sample& s : samples) {
    if (s.id == 65536 + hiddenEdge) {
      EXPECT_GT(s.X[0], 0.05 * 9.0 / 4.8 - 0.05);
    }
  }
}

TEST_F(VisibilityTest, OccluderHidesContourAndFeatureEdges) {
  // A cube showing three faces, its left half behind a plate nearer to the
  // camera: no cube sample (contour or feature edge) lies behind the plate.
  Multibody mb;
  const double plateCentre[3] = {-1.0, 0.0, 0.0};
  zot_test::Mesh plate = zot_test::plateMesh(1.0);
  for (size_t i = 0; i < plate.vertices.size(); i += 3) {
    plate.vertices[i] += plateCentre[0];
    plate.vertices[i + 2] = -4.0;  // z = 4 in front of the cube at z = 8
  }
  zot_test::addPolyhedronBody(mb, zot_test::boxMesh(kOrigin, kUnit), false, 30.0);
  zot_test::addPolyhedronBody(mb, plate, true, -1.0);
  initModel(mb);
  // The plate is given in the cube's frame: pose with the rotation applied
  // to the cube only would move it, so both share a pure translation and the
  // cube itself is turned through its vertices.
  double R[16];
  zot_test::makePose(R, 25, 35, 10, 0, 0, 0);
  Polyhedron& cube = mb.m_polyhedra[0];
  double Rinv[16];
  inverseTransform(R, Rinv);
  cube.changeLocalFrame(Rinv);
  double T[16];
  zot_test::makePose(T, 0, 0, 0, 0, 0, 8);
  const std::vector<Sample> samples = sample(mb, T, 2);
  int nCube = 0, nCrease = 0;
  for (const Sample& s : samples) {
    if ((s.id >> 16) != 0) continue;
    nCube++;
    const int e = s.id & 0xFFFF;
    double C[3] = {0, 0, -8};
    if (facing(cube, cube.edgeFace0(e), C) < 0 && facing(cube, cube.edgeFace1(e), C) < 0) {
      nCrease++;
    }
    EXPECT_GT(s.u, m_K[2] - 1.0) << "cube sample behind the plate";
  }
  EXPECT_GT(nCube, 100);
  EXPECT_GT(nCrease, 20);
}

TEST_F(VisibilityTest, MasksAndPresetDepthRemoveSamples) {
  Multibody plain, masked, preset;
  for (Multibody* mb : {&plain, &masked, &preset}) {
    zot_test::addPolyhedronBody(*mb, zot_test::boxMesh(kOrigin, kUnit), false, 30.0);
  }
  // Mask: the left half of the image (two polygons, one of them inactive
  // and covering everything).
  masked.m_nMaskPolygons[0] = 2;
  masked.m_maskPolygonNVertices[0][0] = 4;
  masked.m_maskPolygonActive[0][0] = 1;
  const double left[8] = {-1, -1, 319.5, -1, 319.5, 480, -1, 480};
  for (int i = 0; i < 8; i++) masked.m_maskPolygonVertices[0][0][i] = left[i];
  masked.m_maskPolygonNVertices[0][1] = 3;
  masked.m_maskPolygonActive[0][1] = 0;
  const double everything[6] = {-1000, -1000, 5000, -1000, 0, 5000};
  for (int i = 0; i < 6; i++) masked.m_maskPolygonVertices[0][1][i] = everything[i];
  initModel(plain);
  initModel(masked);
  initModel(preset);
  double T[16];
  zot_test::makePose(T, 25, 35, 10, 0, 0, 8);
  const std::vector<Sample> all = sample(plain, T);
  const std::vector<Sample> right = sample(masked, T);
  int nRight = 0;
  for (const Sample& s : all) nRight += s.u > 320.5;
  EXPECT_GT(nRight, 20);
  EXPECT_LT(right.size(), all.size());
  for (const Sample& s : right) EXPECT_GT(s.u, 318.5);
  EXPECT_GE((int)right.size(), nRight);

  // A preset depth map: a wall at z = 4 in front of the left half.
  preset.m_usePresetDepthMap = true;
  for (int y = 0; y < kH; y++) {
    for (int x = 0; x < kW; x++)
      preset.m_presetDepthMapPerCam[0][y * kW + x] = x < 320 ? 0.25 : 0.0;
  }
  const std::vector<Sample> unoccluded = sample(preset, T);
  for (const Sample& s : unoccluded) EXPECT_GT(s.u, 318.5);
  EXPECT_GT((int)unoccluded.size(), nRight - 10);
  // Switching the preset off again restores the full result.
  preset.m_usePresetDepthMap = false;
  EXPECT_EQ(sample(preset, T).size(), all.size());
}

TEST_F(VisibilityTest, SampleLimitStopsWithOneWarning) {
  Multibody big, limited;
  zot_test::addPolyhedronBody(big, zot_test::boxMesh(kOrigin, kUnit), false, 30.0);
  zot_test::addPolyhedronBody(limited, zot_test::boxMesh(kOrigin, kUnit), false, 30.0);
  initModel(big);
  initModel(limited, 10);
  double T[16];
  zot_test::makePose(T, 25, 35, 10, 0, 0, 8);
  const std::vector<Sample> all = sample(big, T);
  CaptureStdout();
  const std::vector<Sample> first = sample(limited, T);
  EXPECT_EQ(GetCapturedStdout(),
            "WARNING: reached maximum number of sample points per camera!!!\n");
  ASSERT_EQ(first.size(), 10u);
  ASSERT_GT(all.size(), 10u);
  for (int k = 0; k < 10; k++) {
    EXPECT_EQ(first[k].id, all[k].id);
    for (int i = 0; i < 3; i++) EXPECT_EQ(first[k].X[i], all[k].X[i]);
  }
}

TEST_F(VisibilityTest, StepAlongAContourInFrontOfEmptyBackground) {
  // A plate facing the camera: its top edge is sampled at pixels 0, s, 2s, ...
  // of the walk, with the outermost image rows and columns excluded.
  Multibody mb;
  zot_test::addPolyhedronBody(mb, zot_test::plateMesh(1.0), true, -1.0);
  initModel(mb);
  double T[16];
  zot_test::makePose(T, 180, 0, 0, 0, 0, 5);  // normal towards the camera
  for (int step : {1, 3, 4}) {
    const std::vector<Sample> samples = sample(mb, T, step, 0.1);
    std::vector<int> xs;
    for (const Sample& s : samples) {
      if (std::fabs(s.v - (239.5 - 100.0)) < 0.5) xs.push_back((int)std::lround(s.u));
    }
    ASSERT_GE(xs.size(), 200u / step - 1);
    for (size_t i = 1; i < xs.size(); i++) EXPECT_EQ(std::abs(xs[i] - xs[i - 1]), step);
  }
  // A plate larger than the image: no sample on the outermost rows/columns.
  double Tclose[16];
  zot_test::makePose(Tclose, 180, 0, 0, 0.1, 0.05, 1.2);
  const std::vector<Sample> samples = sample(mb, Tclose, 1, 0.1);
  for (const Sample& s : samples) {
    const int x = (int)std::lround(s.u), y = (int)std::lround(s.v);
    EXPECT_TRUE(x >= 1 && x <= kW - 2 && y >= 1 && y <= kH - 2) << x << "," << y;
  }
}

TEST_F(VisibilityTest, BadPosesNeitherCrashNorSample) {
  Multibody mb;
  zot_test::addPolyhedronBody(mb, zot_test::boxMesh(kOrigin, kUnit), false, 30.0);
  // A polyline segment along the viewing ray: it projects to one pixel.
  zot_test::addPolylineBody(mb, {0, 0, -3, 0, 0, -2}, {0, 1}, -1, -1);
  initModel(mb);
  double T[16];
  zot_test::makePose(T, 10, 20, 30, 0, 0, -8);  // behind the camera
  EXPECT_EQ(sample(mb, T).size(), 0u);
  for (int i = 0; i < kW * kH; i++) ASSERT_EQ(mb.m_depthMap[i], 0.0);
  // Straddling the near plane (and the camera centre).
  for (double z : {0.5, 0.1, 0.0, 1.0}) {
    zot_test::makePose(T, 10, 20, 30, 0.1, 0.2, z);
    for (const Sample& s : sample(mb, T)) {
      ASSERT_TRUE(std::isfinite(s.X[0]) && std::isfinite(s.X[1]) && std::isfinite(s.X[2]));
    }
  }
  // Only the segment pointing at the camera, in front of it: no sample.
  mb.m_bodyActive[0] = 0;
  zot_test::makePose(T, 0, 0, 0, 0, 0, 8);
  EXPECT_EQ(sample(mb, T).size(), 0u);
  mb.m_bodyActive[0] = 1;
  // A pose full of NaN.
  for (int i = 0; i < 12; i++) T[i] = NAN;
  CaptureStdout();
  EXPECT_EQ(sample(mb, T).size(), 0u);
  GetCapturedStdout();
  // Bad camera index or image size: refused with a message.
  zot_test::makePose(T, 0, 0, 0, 0, 0, 8);
  CaptureStdout();
  EXPECT_EQ(mb.sampleContour_Zbuffer(1, T, m_K, kW, kH, kNear, kFar, 0, 0, 4, nullptr, nullptr,
                                     nullptr, nullptr, true, false, false, false),
            -1);
  EXPECT_EQ(mb.sampleContour_Zbuffer(0, T, m_K, kW + 1, kH, kNear, kFar, 0, 0, 4, nullptr, nullptr,
                                     nullptr, nullptr, true, false, false, false),
            -1);
  EXPECT_EQ(GetCapturedStdout(),
            "ERROR: wrong camera ID\n"
            "ERROR: image of 641 x 480 pixels does not fit the sampling buffers of 640 x 480!\n");
}

TEST_F(VisibilityTest, ClearingTheWrittenRegionEqualsAFullClear) {
  // One model sampled at several poses and image sizes, compared after each
  // call with a fresh model that has only ever seen that call.
  Multibody reused;
  zot_test::addPolyhedronBody(reused, zot_test::boxMesh(kOrigin, kUnit), false, 30.0);
  initModel(reused, 20000, 2);
  struct Call {
    int cam, w, h;
    double pose[6];
  };
  const Call calls[] = {{0, kW, kH, {25, 35, 10, 0.3, -0.2, 8}},
                        {0, kW, kH, {5, 5, 5, -1.5, 1.0, 6}},
                        {1, 320, 240, {15, 25, 0, 0.2, 0.1, 7}},
                        {0, kW, kH, {40, 10, 70, 0.5, 0.4, 9}},
                        {1, 320, 240, {0, 0, 0, 0, 0, 50}}};
  for (const Call& c : calls) {
    double T[16];
    zot_test::makePose(T, c.pose[0], c.pose[1], c.pose[2], c.pose[3], c.pose[4], c.pose[5]);
    double K[9];
    zot_test::pinholeK(K, 500.0 * c.w / kW, c.w, c.h);
    std::vector<int> ids1(20000), ids2(20000);
    reused.resetNSamplePointsPerCam();
    reused.sampleContour_Zbuffer(c.cam, T, K, c.w, c.h, kNear, kFar, 0, 0.01, 3, nullptr, nullptr,
                                 nullptr, ids1.data(), true, false, false, false);
    // The fresh model reuses the same pool space every time.
    const uint64_t saved[3] = {m_currentAllocUchar, m_currentAllocDouble, m_currentAllocInt};
    Multibody fresh;
    zot_test::addPolyhedronBody(fresh, zot_test::boxMesh(kOrigin, kUnit), false, 30.0);
    initModel(fresh, 20000, 2);
    // The reference starts from a wholly cleared Z-buffer.
    for (int i = 0; i < kW * kH; i++) {
      fresh.m_depthMap[i] = 0.0;
      fresh.m_faceIdMap[i] = 0;
    }
    fresh.sampleContour_Zbuffer(c.cam, T, K, c.w, c.h, kNear, kFar, 0, 0.01, 3, nullptr, nullptr,
                                nullptr, ids2.data(), true, false, false, false);
    const int n = fresh.getNSamplePointsPerCam(c.cam);
    ASSERT_GT(n, 0);
    ASSERT_EQ(reused.getNSamplePointsPerCam(c.cam), n);
    for (int k = 0; k < 3 * n; k++) {
      ASSERT_EQ(reused.getSamplePointsPerCam(c.cam)[k], fresh.getSamplePointsPerCam(c.cam)[k]);
    }
    for (int k = 0; k < n; k++) ASSERT_EQ(ids1[k], ids2[k]);
    for (int i = 0; i < c.w * c.h; i++) {
      ASSERT_EQ(reused.m_depthMap[i], fresh.m_depthMap[i]) << "pixel " << i;
      ASSERT_EQ(reused.m_faceIdMap[i], fresh.m_faceIdMap[i]) << "pixel " << i;
    }
    m_currentAllocUchar = saved[0];
    m_currentAllocDouble = saved[1];
    m_currentAllocInt = saved[2];
  }
}

TEST_F(VisibilityTest, OptionalOutputsTimingsAndDebugViews) {
  Multibody mb;
  zot_test::addPolyhedronBody(mb, zot_test::boxMesh(kOrigin, kUnit), false, 30.0);
  initModel(mb);
  double T[16];
  zot_test::makePose(T, 25, 35, 10, 0, 0, 8);
  std::vector<unsigned char> faces(kW * kH, 9), samples(kW * kH, 9);
  std::vector<double> normals(2 * kW * kH, 9.0);
  CaptureStdout();
  mb.sampleContour_Zbuffer(0, T, m_K, kW, kH, kNear, kFar, 0, 0.01, 4, faces.data(), samples.data(),
                           normals.data(), nullptr, true, true, true, false);
  const std::string out = GetCapturedStdout();
  // One line per stage, "%s - elapsed [ms]: %f".
  for (const char* label : {"Compute generators", "Z-buffer", "Find visible edges"}) {
    const std::string prefix = std::string(label) + " - elapsed [ms]: ";
    const size_t at = out.find(prefix);
    ASSERT_NE(at, std::string::npos) << out;
    const size_t eol = out.find('\n', at);
    ASSERT_NE(eol, std::string::npos);
    const std::string number = out.substr(at + prefix.size(), eol - at - prefix.size());
    const size_t dot = number.find('.');
    ASSERT_NE(dot, std::string::npos) << number;
    EXPECT_EQ(number.size() - dot - 1, 6u) << number;
    EXPECT_GE(std::stod(number), 0.0);
  }
  const int n = mb.getNSamplePointsPerCam(0);
  ASSERT_GT(n, 0);
  int nSampled = 0, nFace = 0;
  for (int i = 0; i < kW * kH; i++) {
    if (samples[i] == 255) {
      nSampled++;
      // Normal (-dy, dx) of the projected edge, and the edge debug view.
      EXPECT_TRUE(normals[2 * i] != 0.0 || normals[2 * i + 1] != 0.0);
      EXPECT_EQ(mb.m_debugImage[i], 255);
    } else {
      EXPECT_EQ(samples[i], 0);
      EXPECT_EQ(normals[2 * i], 0.0);
    }
    // Shaded faces exactly where the Z-buffer has a surface.
    EXPECT_EQ(faces[i] != 0, mb.m_depthMap[i] > 0.0);
    nFace += faces[i] != 0;
  }
  EXPECT_GT(nSampled, n - 12);
  EXPECT_GT(nFace, 10000);
  // Depth only (sampling off): no samples, the Z-buffer is still made.
  mb.sampleContour_Zbuffer(0, T, m_K, kW, kH, kNear, kFar, 0, 0.01, 4, nullptr, nullptr, nullptr,
                           nullptr, false, false, false, false);
  EXPECT_EQ(mb.getNSamplePointsPerCam(0), 0);
  EXPECT_GT(mb.m_depthMap[240 * kW + 320], 1.0 / 9.0);
}

TEST_F(VisibilityTest, PolylinesOnAndBehindFaces) {
  Multibody mb;
  const double centre[3] = {0, 0, 8};
  zot_test::addPolyhedronBody(mb, zot_test::boxMesh(centre, kUnit), false, 30.0);
  // On the front face (z = 7, face 0) and on the back face (z = 9, face 1).
  zot_test::addPolylineBody(mb, {-0.5, 0.2, 7, 0.5, 0.2, 7}, {0, 1}, 0, 0);
  zot_test::addPolylineBody(mb, {-0.5, 0.2, 9, 0.5, 0.2, 9}, {0, 1}, 0, 1);
  initModel(mb);
  double T[16];
  matrixIdentity(T, 4);
  const std::vector<Sample> samples = sample(mb, T, 2);
  int onFront = 0;
  for (const Sample& s : samples) {
    EXPECT_NE(s.id >> 16, 2) << "polyline behind the box";
    if ((s.id >> 16) == 1) {
      onFront++;
      EXPECT_EQ(s.id & 0xFFFF, 0);
      EXPECT_NEAR(s.X[2], 7.0, 1e-9);
      EXPECT_NEAR(s.X[1], 0.2, 1e-9);
    }
  }
  EXPECT_GE(onFront, 30);
}
