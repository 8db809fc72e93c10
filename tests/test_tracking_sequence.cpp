// End to end: the chamfered part of data/ with its slot marking, seen by a
// stereo pair with strong lens distortion on a moving tool while the part
// moves as well. Images are rendered through the forward lens model by the
// independent ray caster; the tracker is set up from the sample configuration
// files of data/ (two 640 x 480 cameras with distortion and masks).
// Every frame must succeed and stay close to the true pose, and the overlay's
// red contour must lie on the edges of the part rendered without distortion.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "FileParser.h"
#include "GenericObjectTracker.h"
#include "IO.h"
#include "Math.h"
#include "tracker_scene.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using zot_test::SetupCamera;
using zot_test::TrackerScene;

namespace {

constexpr int kFrames = 30;
constexpr double kFrameTime = 0.04;
constexpr int kMaxSamples = 2500;  // room for the overlay's dense contour

// The sample configuration of data/ (stereo pair with distortion and masks,
// tracker and model files), with room for the overlay's samples and a final
// cost bound that allows for the samples left unmatched near corners: each
// counts searchRange^2 / 2 = 200 in the mean, and a few per cent of them
// exceed data/'s bound of 4.
std::vector<double> sequenceSetup() {
  std::vector<double> a(10000);
  int count = 0;
  FileParser parser;
  const std::string dir = zot_test::dataDirectory();
  CaptureStdout();
  EXPECT_EQ(parser.parseCameraFile(dir.c_str(), "camera_stereo.txt", count, a.data(), 10000), 0);
  const int trackerStart = count;
  EXPECT_EQ(parser.parseTrackerFile(dir.c_str(), "tracker.txt", count, a.data(), 10000), 0);
  EXPECT_EQ(parser.parseModelFile(dir.c_str(), "model_chamfered_box.txt", count, a.data(), 10000),
            0);
  GetCapturedStdout();
  a.resize(count);
  a[trackerStart] = kMaxSamples;
  a[trackerStart + 15] = 15.0;
  return a;
}

// The true motion: the part and the tool each turn and shift a little every
// frame (in their own frames); the part starts about 450 mm in front of the
// tool with three sides, the chamfer and the slot in view.
struct Motion {
  Motion() {
    TfromEuler(tool0, 5.0, -10.0, 20.0, 400.0, -150.0, 600.0);
    double partInTool[16];
    TfromEuler(partInTool, 150.0, 30.0, 10.0, 5.0, -5.0, 450.0);
    matrixProduct444(tool0, partInTool, part0);
  }
  void toolAt(int k, double* T) const {
    const double twist[6] = {0.25 * k, 0.3 * k, -0.15 * k, 2.0 * k, 0.8 * k, -1.2 * k};
    matrixCopy(tool0, T, 4, 4);
    updatePoseTwist(T, twist);
  }
  void partInToolAt(int k, double* T) const {
    const double twist[6] = {0.7 * k, -0.5 * k, 0.6 * k, 1.8 * k, -0.6 * k, -1.5 * k};
    double part[16], tool[16], toolInv[16];
    matrixCopy(part0, part, 4, 4);
    updatePoseTwist(part, twist);
    toolAt(k, tool);
    inverseTransform(tool, toolInv);
    matrixProduct444(toolInv, part, T);
  }
  double tool0[16], part0[16];
};

class TrackingSequence : public ::testing::Test {
 protected:
  TrackingSequence()
      : m_box(zot_test::chamferedBoxMesh()),
        m_slot(zot_test::slotPlateMesh()),
        m_setup(sequenceSetup()),
        m_scene(zot_test::camerasOfSetupArray(m_setup), m_setup, kMaxSamples) {}
  void SetUp() override { ASSERT_EQ(m_scene.m_setupCode, 0); }

  // The part and its slot with the given greys.
  std::vector<zot_sim::RenderObject> objects(const std::vector<unsigned char>& boxGreys,
                                             unsigned char slotGrey) const {
    zot_sim::RenderObject box{}, slot{};
    box.mesh = &m_box;
    box.faceGrey = boxGreys;
    slot.mesh = &m_slot;
    slot.faceGrey = {slotGrey};
    return {box, slot};
  }

  zot_sim::Mesh m_box, m_slot;
  std::vector<double> m_setup;
  TrackerScene m_scene;
  Motion m_motion;
};

// Pixels of an image rendered without anti-aliasing whose 3 x 3
// neighbourhood holds another value: the edges between faces and at the
// silhouette.
std::vector<char> edgePixels(const std::vector<unsigned char>& img, int w, int h) {
  std::vector<char> edge(img.size(), 0);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) {
      const unsigned char v = img[y * w + x];
      for (int dy = -1; dy <= 1; dy++)
        for (int dx = -1; dx <= 1; dx++) {
          const int xx = x + dx, yy = y + dy;
          if (xx >= 0 && xx < w && yy >= 0 && yy < h && img[yy * w + xx] != v) edge[y * w + x] = 1;
        }
    }
  return edge;
}

// True when a marked pixel lies within `radius` (chessboard distance) of (x, y).
bool near(const std::vector<char>& mark, int w, int h, int x, int y, int radius) {
  for (int dy = -radius; dy <= radius; dy++)
    for (int dx = -radius; dx <= radius; dx++) {
      const int xx = x + dx, yy = y + dy;
      if (xx >= 0 && xx < w && yy >= 0 && yy < h && mark[yy * w + xx]) return true;
    }
  return false;
}

}  // namespace

TEST_F(TrackingSequence, AStereoSequenceWithDistortionIsTrackedFrameByFrame) {
  GenericObjectTracker& tracker = *m_scene.m_tracker;
  ASSERT_EQ(tracker.m_undistort[0], 1);
  ASSERT_EQ(tracker.m_undistort[1], 1);
  const std::vector<unsigned char> greys = zot_test::chamferedBoxGreys();

  double truth[16], start[16], tool[16];
  m_motion.partInToolAt(0, truth);
  // The first frame starts 1.5 degrees and 4 mm off, with no velocity known.
  const double rvec[3] = {0.0, 1.5 * ZOT_PI / 180.0, 0.0};
  const double offset[3] = {4.0, 0.0, 0.0};
  double R[9], D[16];
  matrixRvecToRmat(rvec, R);
  TfromRotTransl(R, offset, D);
  matrixProduct444(truth, D, start);
  const double zero[6] = {0, 0, 0, 0, 0, 0};

  double worstAngle = 0.0, worstDistance = 0.0, worstPixels = 0.0;
  long redOnEdges = 0, redNearEdges = 0, red = 0;
  for (int k = 0; k < kFrames; k++) {
    m_motion.partInToolAt(k, truth);
    m_motion.toolAt(k, tool);
    m_scene.render(truth, objects(greys, 25), 40, 2, 1.5, (unsigned)k + 1);
    double pose[16], velocity[6], covariance[36];
    CaptureStdout();
    const int code =
        tracker.poseEstimation(m_scene.m_imagePtrs, k * kFrameTime, tool, start, zero, 0.0, pose,
                               velocity, covariance, nullptr, k == 0, false, false, true);
    const std::string out = GetCapturedStdout();
    ASSERT_EQ(code, 0) << "frame " << k << "\n" << out;
    double angle, distance;
    zot_test::poseDifference(pose, truth, &angle, &distance);
    worstAngle = std::max(worstAngle, angle);
    worstDistance = std::max(worstDistance, distance);
    for (int c = 0; c < 2; c++)
      worstPixels = std::max(worstPixels, m_scene.meanVertexError(m_box, pose, truth, c));
    for (int i = 0; i < 6; i++) ASSERT_TRUE(std::isfinite(velocity[i]));

    // Every sixth frame: the overlay against the part rendered without
    // distortion (no anti-aliasing, a grey per face) at the true pose.
    if (k % 6 != 5) continue;
    for (int c = 0; c < 2; c++) {
      const SetupCamera& cam = m_scene.m_cams[c];
      const int w = cam.width, h = cam.height;
      std::vector<unsigned char> overlay(3 * (size_t)w * h);
      CaptureStdout();
      tracker.drawResult(pose, overlay.data(), c, false, 0.0, nullptr);
      GetCapturedStdout();

      zot_sim::RenderCamera rc;
      rc.width = w;
      rc.height = h;
      const double K[9] = {cam.fx, 0.0, cam.cx, 0.0, cam.fy, cam.cy, 0.0, 0.0, 1.0};
      std::copy(K, K + 9, rc.K);
      std::vector<zot_sim::RenderObject> placed = objects({20, 50, 80, 110, 140, 170, 200}, 230);
      for (zot_sim::RenderObject& o : placed) m_scene.poseInCamera(truth, c, o.pose);
      std::vector<unsigned char> reference((size_t)w * h, 0);
      zot_sim::renderScene(reference.data(), rc, placed, 1);
      const std::vector<char> edges = edgePixels(reference, w, h);

      long redHere = 0, silhouette = 0, silhouetteCovered = 0;
      std::vector<char> isRed((size_t)w * h, 0);
      for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
          const unsigned char* p = &overlay[3 * ((size_t)y * w + x)];
          if (!(p[0] == 0 && p[1] == 0 && p[2] == 255)) continue;
          isRed[y * w + x] = 1;
          redHere++;
          redOnEdges += near(edges, w, h, x, y, 1);
          redNearEdges += near(edges, w, h, x, y, 2);
        }
      red += redHere;
      EXPECT_GT(redHere, 300) << "frame " << k << " camera " << c;
      // The whole outline is drawn: silhouette pixels (part against the
      // background) have a red pixel nearby.
      for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
          if (reference[y * w + x] == 0 || !edges[y * w + x]) continue;
          if (x > 0 && x < w - 1 && y > 0 && y < h - 1) {
            bool background = false;
            for (int d = 0; d < 4; d++) {
              const int xx = x + (d == 0) - (d == 1), yy = y + (d == 2) - (d == 3);
              background |= reference[yy * w + xx] == 0;
            }
            if (!background) continue;
            silhouette++;
            silhouetteCovered += near(isRed, w, h, x, y, 2);
          }
        }
      EXPECT_GT(silhouetteCovered, 0.95 * silhouette) << "frame " << k << " camera " << c;
    }
  }
  printf(
      "worst over %d frames: %.3f degrees, %.3f mm, %.3f pixels; red pixels on the edges: "
      "%.1f %% within 1 pixel, %.1f %% within 2\n",
      kFrames, worstAngle, worstDistance, worstPixels, 100.0 * redOnEdges / red,
      100.0 * redNearEdges / red);
  EXPECT_LT(worstAngle, 0.5);
  EXPECT_LT(worstDistance, 1.5);
  EXPECT_LT(worstPixels, 0.6);
  EXPECT_GT(redOnEdges, 0.97 * red);
  EXPECT_EQ(redNearEdges, red);
}
