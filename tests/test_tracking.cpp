// The per-frame driver from end to end: the chamfered part of data/ rendered
// by the independent ray caster at known poses and tracked back, from seeded
// random starts, by one, two (with distortion) and three cameras, with the
// failure paths, the overlay and no heap allocation; and zot_render/zot_track
// sequences checked frame by frame against the truth.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "GenericObjectTracker.h"
#include "IO.h"
#include "Math.h"
#include "alloc_counter.h"
#include "memory_handling.h"
#include "scene_config.h"
#include "tool_runner.h"
#include "tracker_scene.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using zot_test::SetupCamera;
using zot_test::TrackerScene;

namespace {

constexpr int kMaxSamples = 1500;  // room for the overlay's dense contour
const double kZero[6] = {0, 0, 0, 0, 0, 0};

GenericObjectTracker::TrackingParameters withRoom() {
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

// One camera on a tool looking at the chamfered part 450 mm away; outputs
// preset to 7 so that a failure that writes them shows.
class PoseEstimation : public ::testing::Test {
 protected:
  PoseEstimation()
      : m_mesh(zot_test::chamferedBoxMesh()),
        m_scene({monoCamera()}, zot_test::oneBodySetup({monoCamera()}, withRoom(), m_mesh),
                kMaxSamples) {
    TfromEuler(m_truth, 150.0, 30.0, 10.0, 10.0, -5.0, 450.0);
    TfromEuler(m_tool, 10.0, 20.0, -30.0, 300.0, -200.0, 800.0);
    const double axis[3] = {1.0, -1.0, 0.5}, t[3] = {3.0, -4.0, 0.0};
    zot_test::perturb(m_truth, axis, 2.0, t, m_start);
    preset();
  }
  void SetUp() override { ASSERT_EQ(m_scene.m_setupCode, 0); }
  void preset() {
    std::fill(m_pose, m_pose + 16, 7.0);
    std::fill(m_velocity, m_velocity + 6, 7.0);
    std::fill(m_covariance, m_covariance + 36, 7.0);
  }
  bool outputsUntouched() const {
    return std::all_of(m_pose, m_pose + 16, [](double v) { return v == 7.0; }) &&
           std::all_of(m_velocity, m_velocity + 6, [](double v) { return v == 7.0; }) &&
           std::all_of(m_covariance, m_covariance + 36, [](double v) { return v == 7.0; });
  }
  void render(const double* objInTool) {
    zot_sim::RenderObject o{};
    o.mesh = &m_mesh;
    o.faceGrey = zot_test::chamferedBoxGreys();
    m_scene.render(objInTool, {o}, 30, 2, 1.5);
  }
  // One frame from m_start (initialise) or from the filter.
  int frame(double time, bool initialise, bool timing = false) {
    return tracker().poseEstimation(m_scene.m_imagePtrs, time, m_tool, m_start, kZero, 0.0, m_pose,
                                    m_velocity, m_covariance, nullptr, initialise, timing, false,
                                    false);
  }
  GenericObjectTracker& tracker() { return *m_scene.m_tracker; }
  zot_sim::Mesh m_mesh;
  TrackerScene m_scene;
  double m_truth[16], m_tool[16], m_start[16];
  double m_pose[16], m_velocity[6], m_covariance[36];
};

}  // namespace

// Starts a few degrees and millimetres off in seeded random directions all
// come back to the truth. A successful frame with no flag set prints
// nothing; the filter keeps its own estimate and hands out its velocity and
// covariance.
TEST_F(PoseEstimation, SeededRandomStartsAreTrackedBackSilently) {
  render(m_truth);
  std::mt19937 rng(20261123);
  std::uniform_real_distribution<double> unit(-1.0, 1.0), angle(1.0, 3.0), shift(1.0, 5.0);
  for (int k = 0; k < 15; k++) {
    double axis[3] = {unit(rng), unit(rng), unit(rng)}, t[3] = {unit(rng), unit(rng), unit(rng)};
    const double tn = shift(rng) / norm(t, 3);
    for (double& v : t) v *= tn;
    zot_test::perturb(m_truth, axis, angle(rng), t, m_start);
    CaptureStdout();
    const int code = frame(k, true);
    EXPECT_EQ(GetCapturedStdout(), "");
    ASSERT_EQ(code, 0) << "start " << k;
    double distance, degrees;
    zot_sim::poseError(m_pose, m_truth, &distance, &degrees);
    EXPECT_LT(degrees, 0.3) << "start " << k;
    EXPECT_LT(distance, 1.0) << "start " << k;
    EXPECT_LT(m_scene.meanVertexError(m_mesh, m_pose, m_truth, 0), 0.5) << "start " << k;
  }
  const KalmanFilter& kf = tracker().m_kalmanFilter;
  double measured[16], velocity[6], covariance[36];
  matrixProduct444(m_tool, m_pose, measured);
  for (int i = 0; i < 16; i++) EXPECT_NEAR(measured[i], kf.m_Test[i], 1.0) << i;
  kf.getVelocity(velocity);
  kf.getPoseCovariance(covariance);
  EXPECT_EQ(std::memcmp(velocity, m_velocity, sizeof velocity), 0);
  EXPECT_EQ(std::memcmp(covariance, m_covariance, sizeof covariance), 0);
  EXPECT_EQ(kf.m_lastTime, 14.0);
}

// Without a track, with time running backwards, with missing input or with
// poses that are no rigid transform the frame is refused before anything
// changes; each says why.
TEST_F(PoseEstimation, RefusedFramesWriteNothing) {
  render(m_truth);
  const zot_test::FilterSnapshot fresh(tracker().m_kalmanFilter);
  GenericObjectTracker& t = tracker();
  unsigned char* noImage[1] = {nullptr};
  // A new track with one input missing or wrong.
  auto start = [&](unsigned char** images, const double* tool, const double* pose, double poseTime,
                   double time = 0.0) {
    return t.poseEstimation(images, time, tool, pose, kZero, poseTime, m_pose, m_velocity,
                            m_covariance, nullptr, true, false, false, false);
  };
  CaptureStdout();
  EXPECT_EQ(frame(0.0, false), -1);
  EXPECT_EQ(start(noImage, m_tool, m_start, 0.0), -1);
  EXPECT_EQ(start(m_scene.m_imagePtrs, nullptr, m_start, 0.0), -1);
  EXPECT_EQ(start(m_scene.m_imagePtrs, m_tool, nullptr, 0.0), -1);
  EXPECT_EQ(start(m_scene.m_imagePtrs, m_tool, m_start, -1.0), -1);
  // Poses that are no rigid transform, by a host's mistake or malice; entry:
  // of the tool pose (0..15) or of the initial pose (16..31).
  const struct {
    const char* fault;
    int entry;
    double value;
  } hostile[] = {{"NaN in the tool rotation", 5, NAN},
                 {"infinite tool translation", 3, INFINITY},
                 {"huge tool rotation entry", 0, 5e10},
                 {"tool pose with a bad last row", 14, 1.0},
                 {"reflection as initial pose", 16 + 10, -1.0},
                 {"initial rotation scaled by 1.001", 16 + 0, 1.001},
                 {"NaN in the initial translation", 16 + 11, NAN}};
  for (const auto& row : hostile) {
    double poses[32];
    matrixIdentity(poses, 4);
    matrixIdentity(poses + 16, 4);
    poses[16 + 11] = 400.0;
    poses[row.entry] = row.value;
    EXPECT_EQ(start(m_scene.m_imagePtrs, poses, poses + 16, 0.0), -1) << row.fault;
  }
  const std::string out = GetCapturedStdout();
  EXPECT_NE(out.find("ERROR: poseEstimation: no image for camera 0\n"
                     "ERROR: poseEstimation: no tool pose\n"
                     "ERROR: poseEstimation: a new track needs the initial pose and velocity\n"
                     "ERROR: poseEstimation: invalid initial pose, velocity or time (-1)\n"),
            std::string::npos)
      << out;
  EXPECT_TRUE(outputsUntouched());
  EXPECT_TRUE(fresh.same(t.m_kalmanFilter)) << "the track must not have started";
  // A tool rotation rounded to single precision is still taken.
  for (int i : {0, 1, 2, 4, 5, 6, 8, 9, 10}) m_tool[i] = (float)m_tool[i];
  ASSERT_EQ(frame(1.0, true), 0);
  preset();
  const zot_test::FilterSnapshot before(t.m_kalmanFilter);
  CaptureStdout();
  EXPECT_EQ(frame(0.5, false), -1);
  GetCapturedStdout();
  EXPECT_TRUE(outputsUntouched());
  EXPECT_TRUE(before.same(t.m_kalmanFilter));
  EXPECT_EQ(frame(1.0, false), 0) << "the same time stamp again is fine";
  // An empty image loses the object; the filter stays.
  std::fill(m_scene.m_images[0].begin(), m_scene.m_images[0].end(), 30);
  preset();
  const zot_test::FilterSnapshot tracked(t.m_kalmanFilter);
  EXPECT_EQ(frame(1.04, false), ZOT_ERR_TOO_MANY_OUTLIERS);
  EXPECT_TRUE(tracked.same(t.m_kalmanFilter));
  EXPECT_TRUE(std::all_of(m_pose, m_pose + 16, [](double v) { return v == 7.0; }));
  // A disabled camera needs no image, but then nothing is seen.
  t.m_contourTracker.m_camEnabled[0] = 0;
  preset();
  EXPECT_EQ(start(noImage, m_tool, m_start, 0.0, 2.0), ZOT_ERR_OUT_OF_SCREEN);
  EXPECT_TRUE(outputsUntouched());
}

// A tracked frame with timing allocates nothing and reports its three steps,
// as lines and as numbers; with edge detection off the next frame tracks on the same edges.
TEST_F(PoseEstimation, AFrameAllocatesNothingAndTimesItsSteps) {
  render(m_truth);
  ASSERT_EQ(frame(0.0, true), 0);
  m_global_output_string_counter = 0;
  zot_test::startCountingAllocations();
  const int code = frame(0.04, false, true);
  const long allocations = zot_test::stopCountingAllocations();
  EXPECT_EQ(code, 0);
  if (zot_test::allocationCountingAvailable()) {
    EXPECT_EQ(allocations, 0);
  }
  const std::string log(m_global_output_string, m_global_output_string_counter);
  m_global_output_string_counter = 0;
  for (const char* step :
       {"Undistortion (2x) - elapsed [ms]: ", "Edge detection (2x) - elapsed [ms]: ",
        "Total Gauss-Newton loop (pose estimation) - elapsed [ms]: "})
    EXPECT_NE(log.find(step), std::string::npos) << log;
  const FrameStageTimes& times = tracker().lastFrameTimes();
  EXPECT_GT(times.poseUpdateMs, 0.0);
  EXPECT_GE(times.totalMs, times.undistortionMs + times.edgesMs + times.poseUpdateMs);
  const size_t px = 320 * 240;
  const std::vector<unsigned char> edges(tracker().m_contourTracker.m_edgeMap[0],
                                         tracker().m_contourTracker.m_edgeMap[0] + px);
  std::fill(m_scene.m_images[0].begin(), m_scene.m_images[0].end(), 30);
  tracker().m_doEdgeDetection = false;
  ASSERT_EQ(frame(0.08, false), 0);
  EXPECT_LT(m_scene.meanVertexError(m_mesh, m_pose, m_truth, 0), 0.5);
  EXPECT_EQ(std::memcmp(edges.data(), tracker().m_contourTracker.m_edgeMap[0], px), 0);
}

TEST_F(PoseEstimation, TheOverlayDrawsContourAndFrameOverTheUndistortedImage) {
  render(m_truth);
  ASSERT_EQ(frame(0.0, true), 0);
  const size_t px = 320 * 240;
  std::vector<unsigned char> image(3 * px, 99);
  GenericObjectTracker& t = tracker();
  CaptureStdout();  // the overlay reports its point count
  t.drawResult(m_pose, image.data(), -1, false, 0.0, nullptr);
  t.drawResult(m_pose, image.data(), 1, false, 0.0, nullptr);
  EXPECT_TRUE(std::all_of(image.begin(), image.end(), [](unsigned char v) { return v == 99; }));
  // Without the frame: the grey image and pure red contour pixels only, on
  // the part's outline.
  t.drawResult(m_pose, image.data(), 0, false, 0.0, nullptr);
  long red = 0;
  for (size_t i = 0; i < px; i++) {
    const unsigned char* p = &image[3 * i];
    const bool grey = p[0] == p[1] && p[1] == p[2] && p[0] == t.m_undistortedImage[0][i];
    const bool pureRed = p[0] == 0 && p[1] == 0 && p[2] == 255;
    ASSERT_TRUE(grey || pureRed) << "pixel " << i;
    red += pureRed;
    if (pureRed) {  // on the part's outline: the image changes within 2 pixels
      const int x = (int)(i % 320), y = (int)(i / 320);
      int lo = 255, hi = 0;
      for (int dy = -2; dy <= 2; dy++)
        for (int dx = -2; dx <= 2; dx++) {
          const int g = t.m_undistortedImage[0][std::clamp(y + dy, 0, 239) * 320 +
                                                std::clamp(x + dx, 0, 319)];
          lo = std::min(lo, g);
          hi = std::max(hi, g);
        }
      EXPECT_GT(hi - lo, 20) << "red pixel off the edges at " << x << ", " << y;
    }
  }
  EXPECT_GT(red, 200);
  // With the frame: green and blue axes appear; a disabled camera gives black.
  t.drawResult(m_pose, image.data(), 0, true, 40.0, nullptr);
  long green = 0, blue = 0;
  for (size_t i = 0; i < px; i++) {
    const unsigned char* p = &image[3 * i];
    green += p[0] == 0 && p[1] == 255 && p[2] == 0;
    blue += p[0] == 255 && p[1] == 0 && p[2] == 0;
  }
  EXPECT_GT(green, 10);
  EXPECT_GT(blue, 10);
  t.m_contourTracker.m_camEnabled[0] = 0;
  t.drawResult(m_pose, image.data(), 0, true, 40.0, nullptr);
  GetCapturedStdout();
  EXPECT_TRUE(std::all_of(image.begin(), image.end(), [](unsigned char v) { return v == 0; }));
}

// ---------------------------------------------------------------- sequences
namespace {
// Tracks `frames` frames of the part (and optionally its slot) moving in
// front of a moving tool; every frame must succeed.
struct SequenceResult {
  double worstDegrees = 0.0, worstDistance = 0.0, worstPixels = 0.0;
};
SequenceResult trackSequence(TrackerScene& scene, int frames, bool withSlot) {
  SequenceResult r;
  GenericObjectTracker& tracker = *scene.m_tracker;
  const zot_sim::Mesh box = zot_test::chamferedBoxMesh(), slot = zot_test::slotPlateMesh();
  std::vector<zot_sim::RenderObject> objects(withSlot ? 2 : 1);
  objects[0].mesh = &box;
  objects[0].faceGrey = zot_test::chamferedBoxGreys();
  if (withSlot) {
    objects[1].mesh = &slot;
    objects[1].faceGrey = {25};
  }
  double tool0[16], part0[16], partInTool[16];
  TfromEuler(tool0, 5.0, -10.0, 20.0, 400.0, -150.0, 600.0);
  TfromEuler(partInTool, 150.0, 30.0, 10.0, 5.0, -5.0, 450.0);
  matrixProduct444(tool0, partInTool, part0);
  double start[16];
  const double axis[3] = {0, 1, 0}, offset[3] = {4.0, 0.0, 0.0};
  zot_test::perturb(partInTool, axis, 1.5, offset, start);
  for (int k = 0; k < frames; k++) {
    const double toolTwist[6] = {0.25 * k, 0.3 * k, -0.15 * k, 2.0 * k, 0.8 * k, -1.2 * k};
    const double partTwist[6] = {0.7 * k, -0.5 * k, 0.6 * k, 1.8 * k, -0.6 * k, -1.5 * k};
    double tool[16], part[16], toolInv[16], truth[16];
    std::memcpy(tool, tool0, sizeof tool);
    updatePoseTwist(tool, toolTwist);
    std::memcpy(part, part0, sizeof part);
    updatePoseTwist(part, partTwist);
    inverseTransform(tool, toolInv);
    matrixProduct444(toolInv, part, truth);
    scene.render(truth, objects, 40, 2, 1.5, (unsigned)k + 1);
    double pose[16], velocity[6], covariance[36];
    const int code =
        tracker.poseEstimation(scene.m_imagePtrs, k * 0.04, tool, start, kZero, 0.0, pose, velocity,
                               covariance, nullptr, k == 0, false, false, false);
    EXPECT_EQ(code, 0) << "frame " << k;
    if (code != 0) return r;
    double distance, degrees;
    zot_sim::poseError(pose, truth, &distance, &degrees);
    r.worstDegrees = std::max(r.worstDegrees, degrees);
    r.worstDistance = std::max(r.worstDistance, distance);
    for (size_t c = 0; c < scene.m_cams.size(); c++)
      r.worstPixels = std::max(r.worstPixels, scene.meanVertexError(box, pose, truth, (int)c));
  }
  return r;
}
}  // namespace

// The sample configuration of data/ (stereo pair with strong distortion and
// masks), with room for the overlay and a final cost bound that allows for
// unmatched samples near corners.
TEST(TrackingSequence, AStereoPairWithDistortionTracksEveryFrame) {
  std::vector<double> a = zot_test::sampleSetupArray(ZOT_DATA_DIR);
  const int trackerStart = 73;
  a[trackerStart] = 2500;
  a[trackerStart + 15] = 15.0;
  TrackerScene scene(zot_test::camerasOfSetupArray(a), a, 2500);
  ASSERT_EQ(scene.m_setupCode, 0);
  const SequenceResult r = trackSequence(scene, 30, true);
  EXPECT_LT(r.worstDegrees, 0.5);
  EXPECT_LT(r.worstDistance, 1.5);
  EXPECT_LT(r.worstPixels, 0.6);
}

// Three 640 x 480 cameras around the part, 40 degrees apart about its centre.
TEST(TrackingSequence, ThreeCamerasAroundThePartTrackEveryFrame) {
  std::vector<SetupCamera> cams(3);
  for (int c = 0; c < 3; c++) {
    cams[c].width = 640;
    cams[c].height = 480;
    cams[c].fx = cams[c].fy = 640.0;
    cams[c].cx = 319.5;
    cams[c].cy = 239.5;
    double R[16], toCentre[16], back[16], tmp[16];
    TfromEuler(R, 0.0, 40.0 * (c - 1), 0.0, 0.0, 0.0, 0.0);
    TfromEuler(toCentre, 0, 0, 0, 0.0, 0.0, 450.0);
    TfromEuler(back, 0, 0, 0, 0.0, 0.0, -450.0);
    matrixProduct444(toCentre, R, tmp);
    matrixProduct444(tmp, back, cams[c].camInTool);
  }
  const std::vector<double> setup =
      zot_test::oneBodySetup(cams, zot_test::convergingParameters(), zot_test::chamferedBoxMesh());
  TrackerScene scene(cams, setup, 400);
  ASSERT_EQ(scene.m_setupCode, 0);
  const SequenceResult r = trackSequence(scene, 10, false);
  EXPECT_LT(r.worstDegrees, 0.5);
  EXPECT_LT(r.worstDistance, 1.5);
  EXPECT_LT(r.worstPixels, 0.6);
  for (int c = 0; c < 3; c++)
    EXPECT_GT(scene.m_tracker->m_multibody.getNSamplePointsPerCam(c), 50) << "camera " << c;
}

// ---------------------------------------------------------------- through the tools
// zot_render sequences (30 frames at double speed) tracked by zot_track and
// checked here against the truth: a Jacobian or matcher fault, or a
// visibility step that keeps hidden edges (bracket) or a matcher that
// ignores the gradient (clutter) each break at least one scenario.
namespace {
struct Scenario {
  const char* name;
  const char* renderOptions;
  int cameras;
  double maxT, maxR, meanT, meanR;  // every frame; the mean
};
void runScenario(const Scenario& s) {
  const std::string tools = ZOT_TOOLS_DIR, data = ZOT_DATA_DIR;
  if (!zot_sim::pathExists(tools + "/zot_track") || !zot_sim::pathExists(tools + "/zot_render"))
    GTEST_SKIP() << "zot_track and zot_render are built only with OpenCV";
  const std::string dir = tools + "/e2e/" + s.name, seq = dir + "/seq/";
  zot_test::freshDirectory(dir);
  const zot_test::CommandResult render =
      zot_test::runCommand(tools + "/zot_render -q --config " + data + " --frames 30 --speed 2 " +
                               s.renderOptions + " " + dir + "/seq",
                           dir + "/render");
  ASSERT_EQ(render.status, 0) << render.err;
  std::string images;
  for (int c = 0; c < s.cameras; c++)
    images += " --images " + seq + "cam" + std::to_string(c) + "/%06d.png";
  const zot_test::CommandResult track = zot_test::runCommand(
      tools + "/zot_track -q --config " + seq + images + " --times " + seq + "times.txt" +
          " --tool-poses " + seq + "tool_poses.txt --initial-pose " + seq +
          "initial_pose.txt --out " + dir + "/out",
      dir + "/track");
  EXPECT_EQ(track.status, 0) << "every frame tracked\n" << track.err;
  std::vector<zot_test::TrackedFrame> frames;
  std::vector<zot_sim::Pose> truth;
  std::string error;
  ASSERT_TRUE(zot_test::readPosesCsv(dir + "/out/poses.csv", frames, error)) << error;
  ASSERT_TRUE(zot_sim::readPoseFile(seq + "truth_poses.txt", truth, error)) << error;
  ASSERT_EQ(frames.size(), 30u);
  ASSERT_EQ(truth.size(), 30u);
  double sumT = 0.0, sumR = 0.0;
  for (size_t i = 0; i < frames.size(); i++) {
    ASSERT_EQ(frames[i].status, 0) << "frame " << i << ": " << frames[i].message;
    double dt, dr;
    zot_sim::poseError(frames[i].pose, truth[i].data(), &dt, &dr);
    EXPECT_LE(dt, s.maxT) << "frame " << i;
    EXPECT_LE(dr, s.maxR) << "frame " << i;
    sumT += dt;
    sumR += dr;
  }
  EXPECT_LE(sumT / frames.size(), s.meanT);
  EXPECT_LE(sumR / frames.size(), s.meanR);
  if (!testing::Test::HasFailure()) zot_test::runCommand("rm -rf '" + seq + "'", dir + "/clean");
}

}  // namespace

TEST(EndToEnd, MonoCameraWithoutDistortion) {
  runScenario(
      {"mono", "--camera camera_mono.txt --no-distortion --background plain", 1, 2, 1, 0.6, 0.3});
}
TEST(EndToEnd, StereoPairWithDistortion) {
  runScenario(
      {"stereo", "--camera camera_stereo.txt --background plain --noise 1", 2, 2, 1, 0.6, 0.3});
}
TEST(EndToEnd, MovingToolAroundAStillObject) {
  runScenario(
      {"tool", "--camera camera_stereo.txt --motion tool --background plain", 2, 2, 1, 0.6, 0.3});
}
// Seen from the upright's side the bracket hides part of its foot.
TEST(EndToEnd, NonConvexBracketHidingPartOfItself) {
  runScenario({"bracket",
               "--camera camera_stereo.txt --model model_l_bracket.txt --azimuth -60 "
               "--background plain",
               2, 2, 1, 0.6, 0.3});
}
TEST(EndToEnd, ClutteredBackgroundWithNoiseAndBlur) {
  runScenario({"clutter", "--camera camera_mono.txt --background clutter --noise 4 --blur 0.8", 1,
               3, 1.5, 1.0, 0.5});
}
