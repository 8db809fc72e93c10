// The tracker's construction and its set-up from the setup array: defaults,
// the sample configuration read field by field, the order of the pool
// requests, the total check, and arrays that claim more than they hold or
// than the capacities allow (each given in a vector of exactly its length,
// so that a read past the end shows under the sanitizers).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "FileParser.h"
#include "GenericObjectTracker.h"
#include "IO.h"
#include "Imgproc.h"
#include "Math.h"
#include "memory_handling.h"
#include "tracker_scene.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using zot_test::SetupCamera;
using zot_test::TrackerPools;

namespace {

bool sameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// The setup array of the sample stereo configuration.
std::vector<double> sampleArray(const char* cameraFile = "camera_stereo.txt") {
  std::vector<double> a(10000);
  int count = 0;
  FileParser parser;
  CaptureStdout();
  const int code =
      parser.parseAllFiles(zot_test::dataDirectory().c_str(), cameraFile, "tracker.txt",
                           "model_chamfered_box.txt", count, a.data(), (int)a.size());
  GetCapturedStdout();
  EXPECT_EQ(code, 0);
  a.resize(count);
  return a;
}

// Two 160 x 120 cameras without distortion.
std::vector<SetupCamera> smallCameras() {
  std::vector<SetupCamera> cams(2);
  for (SetupCamera& c : cams) {
    c.width = 160;
    c.height = 120;
    c.fx = c.fy = 160.0;
    c.cx = 79.5;
    c.cy = 59.5;
  }
  return cams;
}

// A small array: a box body, no local frames.
std::vector<double> smallArray(std::vector<SetupCamera> cams = smallCameras()) {
  std::vector<double> a;
  zot_test::appendCameraSection(a, cams);
  zot_test::appendTrackerSection(a, zot_test::convergingParameters());
  a.insert(a.end(), {0.0, 1.0});  // no local frames, one body
  const double centre[3] = {0, 0, 0}, half[3] = {50, 40, 30};
  zot_test::appendPolyhedronBody(a, zot_sim::boxMesh(centre, half), false, 30.0);
  return a;
}

// Runs the set-up on an exact copy of a's first `count` values; returns the
// code and the printed text.
int setupWith(GenericObjectTracker& tracker, const std::vector<double>& a, std::string* out,
              long count = -1) {
  const std::vector<double> exact(a.begin(), a.begin() + (count < 0 ? (long)a.size() : count));
  CaptureStdout();
  const int code = tracker.setupFromGlobalArray((int)exact.size(), exact.data());
  *out = GetCapturedStdout();
  return code;
}

// Pools for two set-ups of the sample configuration (640 x 480).
class SampleSetup : public ::testing::Test {
 protected:
  SampleSetup() : m_pools(640 * 480, 2, 400, 20000, 2) {}
  TrackerPools m_pools;
  std::unique_ptr<GenericObjectTracker> m_tracker{new GenericObjectTracker()};
};

// Pools for a few dozen set-ups of the small arrays.
class TrackerSetup : public ::testing::Test {
 protected:
  TrackerSetup() : m_pools(320 * 240, 2, 400, 2000, 6) {}
  TrackerPools m_pools;
  std::unique_ptr<GenericObjectTracker> m_tracker{new GenericObjectTracker()};
};

}  // namespace

TEST(TrackerObject, AFreshTrackerHoldsTheDefaultsBitForBit) {
  std::unique_ptr<GenericObjectTracker> t(new GenericObjectTracker());
  const GenericObjectTracker::TrackingParameters& p = t->m_trackingParams;
  EXPECT_EQ(t->m_nCameras, 0);
  EXPECT_TRUE(t->m_doEdgeDetection);
  EXPECT_EQ(p.m_maxNSamplePointsPerCam, 100);
  EXPECT_EQ(p.m_samplingStep, 2);
  EXPECT_EQ(p.m_searchRange, 20);
  EXPECT_EQ(p.m_cannyLowThreshold, 50);
  EXPECT_EQ(p.m_cannyHighThreshold, 100);
  EXPECT_EQ(p.m_maxIterations, 10);
  const double doubles[] = {p.m_facingTolerance, p.m_minEdgeLength,     p.m_maxAngleDeg,
                            p.m_convergenceRot,  p.m_convergenceTransl, p.m_maxAbsRot,
                            p.m_maxAbsTransl,    p.m_minInliersLoop,    p.m_minInliersFinal,
                            p.m_maxFinalCost,    p.m_resampleRot,       p.m_resampleTransl,
                            p.m_kfAccNoiseRot,   p.m_kfAccNoiseTransl,  p.m_measStdRot,
                            p.m_measStdTransl,   p.m_kfInitialCov};
  const double expected[] = {1.0, 1.0, 20.0, 0.0,   0.0,   50.0, 50.0, 0.5,   0.5,
                             1.0, 0.0, 0.0,  100.0, 100.0, 1.0,  1.0,  1000.0};
  for (size_t i = 0; i < sizeof(expected) / sizeof(expected[0]); i++)
    EXPECT_TRUE(sameBits(doubles[i], expected[i])) << "double parameter " << i;
  // The filter and the contour tracker hold nothing yet.
  EXPECT_EQ(t->m_kalmanFilter.m_lastTime, -1.0);
  EXPECT_EQ(t->m_contourTracker.m_nCams, 0);
  EXPECT_EQ(t->m_multibody.m_nBodies, 0);
}

TEST_F(SampleSetup, TheSampleStereoConfigurationIsReadFieldByField) {
  const std::vector<double> a = sampleArray();
  ASSERT_EQ(a.size(), 219u);
  std::string out;
  ASSERT_EQ(setupWith(*m_tracker, a, &out), 0) << out;
  EXPECT_EQ(out.find("ERROR"), std::string::npos) << out;
  const GenericObjectTracker& t = *m_tracker;

  ASSERT_EQ(t.m_nCameras, 2);
  EXPECT_EQ(t.m_imageWidth[1], 640);
  EXPECT_EQ(t.m_imageHeight[1], 480);
  EXPECT_EQ(t.m_zNear[0], 50.0);
  EXPECT_EQ(t.m_zFar[0], 1500.0);
  // fx fy cx cy skew on top of the identity.
  const double K1[9] = {609.95, 0.0, 317.84, 0.0, 610.38, 242.17, 0.0, 0.0, 1.0};
  for (int i = 0; i < 9; i++) EXPECT_EQ(t.m_K[1][i], K1[i]) << i;
  EXPECT_EQ(t.m_distCoeffs[1][0], -0.2764);
  EXPECT_EQ(t.m_distCoeffs[1][4], -0.0094);
  EXPECT_EQ(t.m_undistort[0], 1);
  EXPECT_EQ(t.m_undistort[1], 1);
  // The stored transform maps the tool frame into the camera: times the
  // camera's pose in the tool frame it gives the identity.
  double camInTool[16], product[16];
  matrixIdentity(camInTool, 4);
  for (int i = 0; i < 12; i++) camInTool[i] = a[1 + 36 + 14 + i];  // camera 1
  EXPECT_EQ(camInTool[3], 50.0);
  matrixProduct444(t.m_toolToCamera[1], camInTool, product);
  for (int i = 0; i < 16; i++) EXPECT_NEAR(product[i], i % 5 == 0 ? 1.0 : 0.0, 1e-8) << i;
  double frustum[24];
  computeViewingFrustum(frustum, t.m_K[0], 0.0, 0.0, 639.0, 479.0, 50.0, 1500.0);
  for (int i = 0; i < 24; i++) EXPECT_EQ(t.m_multibody.m_viewingFrustum[0][i], frustum[i]);
  // One mask polygon per camera, marked active.
  EXPECT_EQ(t.m_multibody.m_nMaskPolygons[1], 1);
  EXPECT_EQ(t.m_multibody.m_maskPolygonNVertices[1][0], 4);
  EXPECT_EQ(t.m_multibody.m_maskPolygonActive[1][0], 1);
  EXPECT_EQ(t.m_multibody.m_maskPolygonVertices[1][0][0], 639.0);
  EXPECT_EQ(t.m_multibody.m_maskPolygonVertices[1][0][7], 479.0);

  const GenericObjectTracker::TrackingParameters& p = t.m_trackingParams;
  EXPECT_EQ(p.m_maxNSamplePointsPerCam, 400);
  EXPECT_EQ(p.m_samplingStep, 4);
  EXPECT_EQ(p.m_minEdgeLength, 5.0);
  EXPECT_EQ(p.m_maxIterations, 15);
  EXPECT_EQ(p.m_convergenceTransl, 0.05);
  EXPECT_EQ(p.m_minInliersFinal, 30.0);
  EXPECT_EQ(p.m_maxFinalCost, 4.0);
  EXPECT_EQ(p.m_measStdRot, 0.5);
  EXPECT_EQ(p.m_kfInitialCov, 1000.0);
  EXPECT_EQ(t.m_kalmanFilter.m_accNoiseRot, 100.0);
  EXPECT_EQ(t.m_kalmanFilter.m_initialCov, 1000.0);

  const Multibody& mb = t.m_multibody;
  ASSERT_EQ(mb.m_nLocalFrames, 2);
  EXPECT_EQ(mb.m_localFrames[1][7], 32.5);
  EXPECT_EQ(mb.m_localFrames[1][15], 1.0);
  EXPECT_EQ(mb.m_localFrames[1][12], 0.0);
  ASSERT_EQ(mb.m_nBodies, 2);
  EXPECT_EQ(mb.m_bodyType[0], ZOT_BODY_POLYHEDRON);
  EXPECT_EQ(mb.m_bodyType[1], ZOT_BODY_POLYLINE);
  EXPECT_EQ(mb.m_bodyActive[0], 1);
  EXPECT_EQ(mb.m_bodyActive[1], 1);
  const Polyhedron& ph = mb.m_polyhedra[0];
  EXPECT_FALSE(ph.m_isFlat);
  EXPECT_EQ(ph.m_featureAngleDeg, 30.0);
  ASSERT_EQ(ph.m_nVertices, 10);
  ASSERT_EQ(ph.m_nFaces, 7);
  EXPECT_EQ(ph.m_vertices[3 * 3 + 1], 25.0);
  EXPECT_EQ(ph.m_nVerticesPerFace[0], 5);
  EXPECT_EQ(ph.m_faceVertices[0][0], 5);  // 1-based 6
  EXPECT_EQ(ph.m_faceVertices[6][3], 9);
  EXPECT_EQ(ph.m_nEdges, 15);
  // The polyline lies on face 6 of body 1, stored 0-based.
  EXPECT_EQ(mb.m_polylineSupportFace[1][0], 0);
  EXPECT_EQ(mb.m_polylineSupportFace[1][1], 5);
  const Polyline& pl = mb.m_polylines[1];
  ASSERT_EQ(pl.m_nPoints, 4);
  ASSERT_EQ(pl.m_nSegments, 4);
  const int segments[8] = {0, 1, 1, 2, 2, 3, 3, 0};
  for (int i = 0; i < 8; i++) EXPECT_EQ(pl.m_segments[i], segments[i]);
  EXPECT_EQ(pl.m_points[2], 60.0);

  EXPECT_EQ(t.m_contourTracker.m_nCams, 2);
  EXPECT_EQ(t.m_contourTracker.m_maxSamplePoints, 400);
  EXPECT_EQ(t.m_contourTracker.m_camEnabled[1], 1);
  EXPECT_EQ(mb.m_nCams, 2);
  EXPECT_EQ(mb.m_maxSamplePointsPerCam, 400);
  EXPECT_EQ(mb.m_bufferWidth, 640);
  EXPECT_EQ(mb.m_bufferHeight, 480);
  EXPECT_EQ(mb.m_maxVisibleEdges, 15 + 4);
}

TEST_F(TrackerSetup, UndistortionTablesAreBuiltOnlyForCamerasWithDistortion) {
  std::vector<SetupCamera> cams = smallCameras();
  cams[0].dist[3] = -1e-4;  // one coefficient is enough
  std::string out;
  ASSERT_EQ(setupWith(*m_tracker, smallArray(cams), &out), 0) << out;
  GenericObjectTracker& t = *m_tracker;
  EXPECT_EQ(t.m_undistort[0], 1);
  EXPECT_EQ(t.m_undistort[1], 0);
  const size_t px = 160 * 120;
  std::vector<double> mapX(px), mapY(px);
  initUndistortRectifyMap(t.m_K[0], t.m_distCoeffs[0], nullptr, nullptr, 160, 120, mapX.data(),
                          mapY.data());
  EXPECT_EQ(std::memcmp(mapX.data(), t.m_undistMapX[0], px * sizeof(double)), 0);
  EXPECT_EQ(std::memcmp(mapY.data(), t.m_undistMapY[0], px * sizeof(double)), 0);
  // Nothing built for camera 1: its buffers are still the zeroed pool.
  for (size_t i = 0; i < px; i += 97) {
    ASSERT_EQ(t.m_undistMapX[1][i], 0.0);
    ASSERT_EQ(t.m_undistTable5[1][i], 0);
  }

  // Camera 1's image is copied, camera 0's goes through the tables.
  std::vector<unsigned char> a(px), b(px);
  for (size_t i = 0; i < px; i++) {
    a[i] = (unsigned char)(i * 7 % 251);
    b[i] = (unsigned char)(i * 13 % 253);
  }
  const unsigned char* images[2] = {a.data(), b.data()};
  ASSERT_EQ(t.undistortAllImages(images), 0);
  EXPECT_EQ(std::memcmp(t.m_undistortedImage[1], b.data(), px), 0);
  std::vector<unsigned char> expected(px);
  undistortImageFromTables(a.data(), expected.data(), t.m_undistTable1[0], t.m_undistTable2[0],
                           t.m_undistTable3[0], t.m_undistTable4[0], t.m_undistTable5[0], 160, 120);
  EXPECT_EQ(std::memcmp(t.m_undistortedImage[0], expected.data(), px), 0);
  EXPECT_NE(std::memcmp(t.m_undistortedImage[0], a.data(), px), 0);

  // A disabled camera keeps its previous image.
  t.m_contourTracker.m_camEnabled[1] = 0;
  std::vector<unsigned char> c(px, 9);
  const unsigned char* next[2] = {a.data(), c.data()};
  ASSERT_EQ(t.undistortAllImages(next), 0);
  EXPECT_EQ(std::memcmp(t.m_undistortedImage[1], b.data(), px), 0);
  // A missing image of an enabled camera is refused before anything changes.
  const unsigned char* missing[2] = {nullptr, c.data()};
  CaptureStdout();
  EXPECT_EQ(t.undistortAllImages(missing), -1);
  EXPECT_EQ(GetCapturedStdout(), "ERROR: undistortAllImages: no image for camera 0\n");
  EXPECT_EQ(std::memcmp(t.m_undistortedImage[0], expected.data(), px), 0);
}

// The pools hand out memory in sequence, so the order of the requests fixes
// where every buffer lies: cameras (all K, all distortion vectors, all
// transforms, then per camera its maps, tables and image), the bodies, the
// contour tracker, the model's buffers.
TEST_F(TrackerSetup, PoolRequestsComeInTheirFixedOrder) {
  std::vector<SetupCamera> cams(2);
  cams[1].width = 200;
  cams[1].height = 100;
  const std::vector<double> a = smallArray(cams);
  const double* d0 = m_bigArrayDouble + m_currentAllocDouble;
  const int* i0 = m_bigArrayInt + m_currentAllocInt;
  const unsigned char* u0 = m_bigArrayUchar + m_currentAllocUchar;
  std::string out;
  ASSERT_EQ(setupWith(*m_tracker, a, &out), 0) << out;
  const GenericObjectTracker& t = *m_tracker;
  const long px0 = 320 * 240, px1 = 200 * 100;
  EXPECT_EQ(t.m_K[0], d0);
  EXPECT_EQ(t.m_K[1], d0 + 9);
  EXPECT_EQ(t.m_distCoeffs[0], d0 + 18);
  EXPECT_EQ(t.m_distCoeffs[1], d0 + 23);
  EXPECT_EQ(t.m_toolToCamera[0], d0 + 28);
  EXPECT_EQ(t.m_toolToCamera[1], d0 + 44);
  EXPECT_EQ(t.m_undistMapX[0], d0 + 60);
  EXPECT_EQ(t.m_undistMapY[0], d0 + 60 + px0);
  EXPECT_EQ(t.m_undistMapX[1], d0 + 60 + 2 * px0);
  EXPECT_EQ(t.m_undistMapY[1], d0 + 60 + 2 * px0 + px1);
  const int* const tables0[5] = {t.m_undistTable1[0], t.m_undistTable2[0], t.m_undistTable3[0],
                                 t.m_undistTable4[0], t.m_undistTable5[0]};
  const int* const tables1[5] = {t.m_undistTable1[1], t.m_undistTable2[1], t.m_undistTable3[1],
                                 t.m_undistTable4[1], t.m_undistTable5[1]};
  for (int k = 0; k < 5; k++) {
    EXPECT_EQ(tables0[k], i0 + k * px0) << k;
    EXPECT_EQ(tables1[k], i0 + 5 * px0 + k * px1) << k;
  }
  EXPECT_EQ(t.m_undistortedImage[0], u0);
  EXPECT_EQ(t.m_undistortedImage[1], u0 + px0);
  // Then the box's vertices, and after its topology the contour tracker and
  // the model.
  const double* vertices = t.m_multibody.m_polyhedra[0].m_vertices;
  EXPECT_EQ(vertices, d0 + 60 + 2 * px0 + 2 * px1);
  EXPECT_EQ(t.m_multibody.m_polyhedra[0].m_faceNormals, vertices + 24);
  EXPECT_LT(t.m_multibody.m_polyhedra[0].m_faceFacing, t.m_contourTracker.m_residuals);
  EXPECT_LT(t.m_contourTracker.m_projPoints[1], t.m_multibody.m_samplePointsPerCam[0]);
  EXPECT_EQ(t.m_multibody.m_depthMap + px0 + 2 * px0,
            m_bigArrayDouble + m_currentAllocDouble - 6 * 12)
      << "depth map (320 x 240), two preset depth maps, then 6 doubles per box edge";

  // A second set-up takes the same amount again.
  const uint64_t used = (uint64_t)(m_bigArrayDouble + m_currentAllocDouble - d0);
  ASSERT_EQ(setupWith(*m_tracker, a, &out), 0) << out;
  EXPECT_EQ((uint64_t)(m_bigArrayDouble + m_currentAllocDouble - d0), 2 * used);
}

TEST_F(SampleSetup, OneValueMoreOrLessFailsTheTotalCheck) {
  std::vector<double> a = sampleArray();
  std::string out;
  a.push_back(0.0);
  EXPECT_EQ(setupWith(*m_tracker, a, &out), -1);
  EXPECT_EQ(out, "ERROR: total numbers read 219 should be: 220\n");
  // The whole configuration was built before the check ...
  EXPECT_EQ(m_tracker->m_multibody.m_nBodies, 2);
  // ... but the tracker does not run with it.
  unsigned char image[1] = {0};
  unsigned char* images[2] = {image, image};
  const double I[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  const double zero[6] = {0, 0, 0, 0, 0, 0};
  CaptureStdout();
  EXPECT_EQ(m_tracker->poseEstimation(images, 0.0, I, I, zero, 0.0, nullptr, nullptr, nullptr,
                                      nullptr, true, false, false, false),
            -1);
  EXPECT_EQ(GetCapturedStdout(), "ERROR: poseEstimation: the tracker has no camera set up\n");

  // One value less: the last polyline edge runs past the end. Reading stops
  // there (the copy holds exactly 218 values).
  a.pop_back();
  EXPECT_EQ(setupWith(*m_tracker, a, &out, 218), -1);
  EXPECT_EQ(out,
            "ERROR: setup array too short (polyline edges): values 211 to 218 needed, it holds "
            "218\n"
            "ERROR: total numbers read 219 should be: 218\n");
}

TEST_F(TrackerSetup, IntegersAreTruncatedAndFlagsFollowTheirRules) {
  // 2.9 cameras read as 2; the body code 0.5 reads as a polyhedron.
  std::vector<double> a = smallArray();
  a[0] = 2.9;
  const size_t body = a.size() - (1 + 2 + 1 + 24 + 1 + 6 * 5);
  ASSERT_EQ(a[body], 0.0);
  a[body] = 0.5;
  std::string out;
  ASSERT_EQ(setupWith(*m_tracker, a, &out), 0) << out;
  EXPECT_EQ(m_tracker->m_nCameras, 2);
  EXPECT_EQ(m_tracker->m_multibody.m_bodyType[0], ZOT_BODY_POLYHEDRON);
  EXPECT_FALSE(m_tracker->m_multibody.m_polyhedra[0].m_isFlat);

  // Any flat flag but 0.0 means flat, NaN included. A closed box set up as
  // flat is still consistent.
  for (double flag : {-1.0, std::numeric_limits<double>::quiet_NaN(), 1.0}) {
    a[body + 1] = flag;
    ASSERT_EQ(setupWith(*m_tracker, a, &out), 0) << out;
    EXPECT_TRUE(m_tracker->m_multibody.m_polyhedra[0].m_isFlat) << flag;
  }

  // A negative count reads as an empty group.
  std::vector<double> b = smallArray();
  const size_t frames = b.size() - (6 + 24 + 1 + 6 * 5);
  ASSERT_EQ(b[frames], 0.0);
  b[frames] = -3.0;
  ASSERT_EQ(setupWith(*m_tracker, b, &out), 0) << out;
  EXPECT_EQ(m_tracker->m_multibody.m_nLocalFrames, 0);
}

TEST_F(TrackerSetup, ACylinderTakesItsVectorsInTheFixedPermutation) {
  std::vector<double> a = smallArray();
  a[a.size() - (1 + 2 + 1 + 24 + 1 + 6 * 5) - 1] = 2.0;  // two bodies
  // radius, then p1, p2, nb, nt.
  a.insert(a.end(), {2.0, 7.5, 1, 2, 3, 1, 2, 13, 0, 0, -1, 0, 0.6, 0.8});
  std::string out;
  ASSERT_EQ(setupWith(*m_tracker, a, &out), 0) << out;
  const Multibody& mb = m_tracker->m_multibody;
  ASSERT_EQ(mb.m_nBodies, 2);
  EXPECT_EQ(mb.m_bodyType[1], ZOT_BODY_CYLINDER);
  const Cylinder& c = mb.m_cylinders[1];
  EXPECT_EQ(c.m_radius, 7.5);
  EXPECT_EQ(c.m_bottomCentre[2], 3.0);
  EXPECT_EQ(c.m_axis[2], 1.0);
  EXPECT_EQ(c.m_bottomPlane[2], -1.0);
  EXPECT_EQ(c.m_bottomPlane[3], 3.0);  // -(nb . p1)
  EXPECT_EQ(c.m_topPlane[1], 0.6);
  EXPECT_DOUBLE_EQ(c.m_topPlane[3], -(0.6 * 2 + 0.8 * 13));
  EXPECT_EQ(mb.m_maxVisibleEdges, 12) << "a cylinder adds no edges";

  // Coinciding centres give no axis: the body fails.
  a[a.size() - 9] = 1.0;
  a[a.size() - 8] = 2.0;
  a[a.size() - 7] = 3.0;
  EXPECT_EQ(setupWith(*m_tracker, a, &out), -1);
  EXPECT_NE(out.find("zero length"), std::string::npos) << out;
}

// Each case is a valid small array with one value changed; reading never
// goes past the array and nothing is written past a capacity.
TEST_F(TrackerSetup, ClaimsBeyondTheArrayOrTheCapacitiesAreRefused) {
  const std::vector<double> good = smallArray();
  const size_t camera1 = 1 + 27;           // camera 1's width
  const size_t tracker = 1 + 2 * 27;       // tracker section
  const size_t model = tracker + 23;       // nLocalFrames
  const size_t body = model + 2;           // body code
  const size_t faces = body + 3 + 1 + 24;  // nFaces
  struct Case {
    const char* name;
    size_t index;
    double value;
    const char* message;
    size_t length;  // of the array handed over; 0: all of it
  };
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const Case cases[] = {
      {"six cameras", 0, 6.0, "ERROR: setup array value 0: 6 cameras, at most 5 are supported\n",
       0},
      {"five cameras in 60 values", 0, 5.0,
       "ERROR: setup array too short (cameras): values 1 to 135 needed, it holds 60\n"
       "ERROR: total numbers read 136 should be: 60\n",
       60},
      {"NaN cameras", 0, nan, "ERROR: setup array value 0 (cameras) is not an integer: nan\n", 0},
      {"zero width", camera1, 0.0,
       "ERROR: camera 1: image of 0 x 120 pixels, each side must be 1 to 16384\n", 0},
      {"huge height", camera1 + 1, 1e12,
       "ERROR: setup array value 29 (image height) is not an integer: 1e+12\n", 0},
      {"51 masks", camera1 - 1, 51.0,
       "ERROR: setup array value 27: 51 mask polygons, at most 50 are supported\n", 0},
      {"NaN iterations", tracker + 8, nan,
       "ERROR: setup array value 63 (maximum iterations) is not an integer: nan\n", 0},
      {"101 frames", model, 101.0,
       "ERROR: setup array value 78: 101 local frames, at most 100 are supported\n", 0},
      {"6 frames", model, 6.0,
       "ERROR: setup array too short (local frames): values 79 to 150 needed, it holds 139\n"
       "ERROR: total numbers read 151 should be: 139\n",
       0},
      {"51 bodies", model + 1, 51.0,
       "ERROR: setup array value 79: 51 bodies, at most 50 are supported\n", 0},
      {"type 3", body, 3.0,
       "ERROR: body 1 has the unknown type 3 (0 polyhedron, 1 polyline, 2 cylinder)\n", 0},
      {"million vertices", body + 3, 1e6,
       "ERROR: setup array too short (polyhedron vertices): values 84 to 3000083 needed, it "
       "holds 139\n"
       "ERROR: total numbers read 3000084 should be: 139\n",
       0},
      {"seven faces", faces, 7.0,
       "ERROR: setup array too short (vertices on a polyhedron face): value 139 needed, it holds "
       "139\n"
       "ERROR: total numbers read 140 should be: 139\n",
       0},
      {"101 corners", faces + 1, 101.0,
       "ERROR: setup array value 109: 101 vertices on a polyhedron face, at most 100 are "
       "supported\n",
       0},
      {"vertex 9", faces + 2, 9.0,
       "ERROR: polygon 0 refers to vertex 8, but there are only 8 vertices!\n", 0},
  };
  for (const Case& c : cases) {
    std::vector<double> a = good;
    a[c.index] = c.value;
    if (c.length > 0) a.resize(c.length);
    const uint64_t countersBefore[3] = {m_currentAllocDouble, m_currentAllocInt,
                                        m_currentAllocUchar};
    std::string out;
    EXPECT_EQ(setupWith(*m_tracker, a, &out), -1) << c.name;
    EXPECT_EQ(out, c.message) << c.name;
    EXPECT_EQ(m_tracker->m_contourTracker.m_nCams, 0) << c.name << ": no camera left enabled";
    if (c.index == 0) {
      EXPECT_EQ(m_currentAllocDouble, countersBefore[0]) << c.name << ": refused before reserving";
      EXPECT_EQ(m_currentAllocInt, countersBefore[1]) << c.name;
      EXPECT_EQ(m_currentAllocUchar, countersBefore[2]) << c.name;
    }
  }
}

TEST_F(TrackerSetup, PolylinesAndMasksAreCheckedAgainstTheirCapacities) {
  std::vector<SetupCamera> cams = smallCameras();
  cams.resize(1);
  cams[0].masks = {{0, 0, 10, 0, 10, 10}};
  std::vector<double> a;
  zot_test::appendCameraSection(a, cams);
  zot_test::appendTrackerSection(a, zot_test::convergingParameters());
  a.insert(a.end(), {0.0, 1.0});
  zot_test::appendPolylineBody(a, 0, 0, {0, 0, 0, 10, 0, 0, 10, 10, 0}, {1, 2, 2, 3});
  std::string out;
  ASSERT_EQ(setupWith(*m_tracker, a, &out), 0) << out;
  EXPECT_EQ(m_tracker->m_multibody.m_polylineSupportFace[0][0], -1);
  EXPECT_EQ(m_tracker->m_multibody.m_nMaskPolygons[0], 1);
  EXPECT_EQ(m_tracker->m_multibody.m_maskPolygonVertices[0][0][4], 10.0);

  // An edge to a fourth vertex of three.
  std::vector<double> b = a;
  b[b.size() - 1] = 4.0;
  EXPECT_EQ(setupWith(*m_tracker, b, &out), -1);
  EXPECT_EQ(out, "ERROR: polyline edge 2 refers to vertex 4, but there are 3 vertices\n");
  // Eleven vertices in a mask polygon.
  std::vector<double> c = a;
  const size_t maskCount = 1 + 26 + 1;
  ASSERT_EQ(c[maskCount], 3.0);
  c[maskCount] = 11.0;
  EXPECT_EQ(setupWith(*m_tracker, c, &out), -1);
  EXPECT_EQ(out,
            "ERROR: setup array value 28: 11 vertices in a mask polygon, at most 10 are "
            "supported\n");
  // A null array or a negative count.
  CaptureStdout();
  EXPECT_EQ(m_tracker->setupFromGlobalArray(5, nullptr), -1);
  EXPECT_EQ(m_tracker->setupFromGlobalArray(-1, a.data()), -1);
  EXPECT_EQ(GetCapturedStdout(),
            "ERROR: invalid setup array (5 values)\nERROR: invalid setup array (-1 values)\n");
}

TEST(TrackerObject, TheDestructorLeavesThePoolCountersAlone) {
  TrackerPools pools(160 * 120, 2, 400, 2000);
  const std::vector<double> a = smallArray();
  GenericObjectTracker* t = new GenericObjectTracker();
  ASSERT_EQ(t->setupFromGlobalArray((int)a.size(), a.data()), 0);
  const uint64_t before[7] = {m_currentAllocUchar, m_currentAllocUcharPtr, m_currentAllocDouble,
                              m_currentAllocFloat, m_currentAllocInt,      m_currentAllocIntPtr,
                              m_currentAllocShort};
  delete t;
  const uint64_t after[7] = {m_currentAllocUchar, m_currentAllocUcharPtr, m_currentAllocDouble,
                             m_currentAllocFloat, m_currentAllocInt,      m_currentAllocIntPtr,
                             m_currentAllocShort};
  for (int i = 0; i < 7; i++) EXPECT_EQ(after[i], before[i]) << "pool " << i;
}
