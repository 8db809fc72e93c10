// Pool sizes computed from a configuration, and the session owning it all.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "GenericObjectTracker.h"
#include "Math.h"
#include "PoolSizes.h"
#include "TrackerSession.h"
#include "memory_handling.h"
#include "scene_config.h"
#include "sequence.h"
#include "tracker_scene.h"

using namespace ZOTtracker;

namespace {

std::vector<double> parseData(const char* camera, const char* tracker, const char* model) {
  return zot_test::sampleSetupArray(ZOT_DATA_DIR, camera, tracker, model);
}

// Two cameras of different sizes (one distorted, with a mask), a local frame,
// and a flat square, a cylinder and a polyline on the square.
std::vector<double> mixedConfiguration() {
  std::vector<double> a = {2};  // cameras
  const double pose[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  a.insert(a.end(), {320, 200, 50, 1500, 300, 300, 159.5, 99.5, 0, 0, 0, 0, 0, 0});
  a.insert(a.end(), pose, pose + 12);
  a.insert(a.end(), {0, 180, 260, 50, 1500, 250, 250, 89.5, 129.5, 0, -0.2, 0.05, 0, 0, 0});
  a.insert(a.end(), pose, pose + 12);
  a.insert(a.end(), {1, 3, 0, 259, 40, 259, 0, 200});
  const std::vector<double> tracker =
      parseData("camera_mono.txt", "tracker_demo.txt", "model_l_bracket.txt");
  a.insert(a.end(), tracker.begin() + 28, tracker.begin() + 51);
  a.insert(a.end(), {1, 1, 0, 0, 5, 0, 1, 0, 5, 0, 0, 1, 0});  // one local frame
  a.insert(a.end(),
           {3, 0, 1, 0, 4, -50, -50, 0, 50, -50, 0, 50, 50, 0, -50, 50, 0, 1, 4, 1, 2, 3, 4});
  a.insert(a.end(), {2, 10, 0, 0, 0, 0, 0, 30, 0, 0, -1, 0, 0, 1});
  a.insert(a.end(), {1, 1, 1, 3, -20, 0, 0, 0, 20, 0, 20, 0, 0, 2, 1, 2, 2, 3});
  return a;
}

// Sets up in the reserved pools and tracks `frames` frames of a bright block
// on a dark field, the model 400 units in front of camera 0.
int setUpAndTrack(const std::vector<double>& a, int frames) {
  auto t = std::make_unique<GenericObjectTracker>();
  if (t->setupFromGlobalArray((int)a.size(), a.data()) != 0) return -1;
  std::vector<std::vector<unsigned char>> images(t->m_nCameras);
  const unsigned char* ptrs[ZOT_MAX_CAMERAS] = {};
  for (int c = 0; c < t->m_nCameras; c++) {
    const int w = t->m_imageWidth[c], h = t->m_imageHeight[c];
    images[c].assign((size_t)w * h, 30);
    for (int y = h / 3; y < 2 * h / 3; y++)
      for (int x = w / 3; x < 2 * w / 3; x++) images[c][(size_t)y * w + x] = 220;
    ptrs[c] = images[c].data();
  }
  double inCamera[16], start[16], tool[16], pose[16], velocity[6], covariance[36];
  const double zero[6] = {0, 0, 0, 0, 0, 0};
  matrixIdentity(inCamera, 4);
  inCamera[11] = 400.0;
  inverseTransform(t->m_toolToCamera[0], tool);
  matrixProduct444(tool, inCamera, start);
  matrixIdentity(tool, 4);
  for (int f = 0; f < frames; f++)
    t->poseEstimation(ptrs, f / 30.0, tool, start, zero, 0.0, pose, velocity, covariance, nullptr,
                      f == 0, false, false, false);
  return 0;
}

uint64_t used(int pool) {
  const uint64_t current[ZOT_N_POOLS] = {
      m_currentAllocUchar, m_currentAllocUcharPtr, m_currentAllocDouble, m_currentAllocFloat,
      m_currentAllocInt,   m_currentAllocIntPtr,   m_currentAllocShort};
  return current[pool];
}

}  // namespace

TEST(PoolSizes, ExactForEveryPoolAndOnePercentLessIsRefused) {
  const std::vector<double> configurations[] = {
      parseData("camera_stereo.txt", "tracker_demo.txt", "model_chamfered_box.txt"),
      parseData("camera_mono.txt", "tracker.txt", "model_l_bracket.txt"), mixedConfiguration()};
  for (const std::vector<double>& a : configurations) {
    SCOPED_TRACE(a.size());
    size_t sizes[ZOT_N_POOLS];
    ASSERT_EQ(computePoolSizes((int)a.size(), a.data(), 0.0, sizes), 0);
    reservePools(sizes);
    EXPECT_EQ(setUpAndTrack(a, 10), 0);
    for (int p = 0; p < ZOT_N_POOLS; p++) EXPECT_EQ(used(p), sizes[p]) << ZOT_POOL_NAMES[p];
    doBigFree();

    for (int p = 0; p < ZOT_N_POOLS; p++) {
      if (sizes[p] == 0) continue;
      size_t fewer[ZOT_N_POOLS];
      memcpy(fewer, sizes, sizeof fewer);
      fewer[p] -= sizes[p] / 100 > 0 ? sizes[p] / 100 : 1;
      reservePools(fewer);
      EXPECT_EQ(setUpAndTrack(a, 1), -1) << ZOT_POOL_NAMES[p];
      EXPECT_EQ(used(p), 0u) << ZOT_POOL_NAMES[p];
      doBigFree();
    }
  }
}

TEST(PoolSizes, RefusesArraysTheSetUpRefuses) {
  const std::vector<double> good = mixedConfiguration();
  std::vector<std::vector<double>> bad(4, good);
  bad[0].pop_back();
  bad[1].push_back(0.0);
  bad[2][0] = ZOT_MAX_CAMERAS + 1;
  bad[3][bad[3].size() - 18] = 7;  // the polyline's body type
  size_t sizes[ZOT_N_POOLS] = {1, 2, 3, 4, 5, 6, 7};
  for (const std::vector<double>& a : bad) {
    EXPECT_EQ(computePoolSizes((int)a.size(), a.data(), 0.0, sizes), -1);
    EXPECT_EQ(sizes[6], 7u);  // untouched
  }
  size_t exact[ZOT_N_POOLS], padded[ZOT_N_POOLS];
  ASSERT_EQ(computePoolSizes((int)good.size(), good.data(), 0.0, exact), 0);
  ASSERT_EQ(computePoolSizes((int)good.size(), good.data(), 0.1, padded), 0);
  for (int p = 0; p < ZOT_N_POOLS; p++) {
    EXPECT_GE((double)padded[p], 1.1 * (double)exact[p]) << ZOT_POOL_NAMES[p];
    EXPECT_LE((double)padded[p], 1.1 * (double)exact[p] + 1.0) << ZOT_POOL_NAMES[p];
    EXPECT_GE(padded[p], 1u);
  }
}

TEST(TrackerSession, TracksAsTheDesignedApiDoes) {
  const std::vector<double> a =
      parseData("camera_stereo.txt", "tracker_demo.txt", "model_chamfered_box.txt");
  std::vector<zot_sim::CameraConfig> cameras;
  std::vector<double> parameters;
  zot_sim::ModelConfig model;
  std::string error;
  ASSERT_TRUE(zot_sim::decodeSetupArray(a.data(), (int)a.size(), cameras, parameters, model, error))
      << error;
  zot_sim::SequenceSpec plan;
  plan.clutter = false;
  const zot_sim::SequenceRenderer sequence(cameras, model, plan);
  constexpr int kFrames = 4;
  std::vector<std::vector<unsigned char>> images[kFrames];
  double tools[kFrames][16];
  for (int f = 0; f < kFrames; f++) {
    sequence.render(f, images[f]);
    sequence.poses(f, tools[f], nullptr, nullptr);
  }
  double start[16];
  sequence.poses(0, nullptr, nullptr, start);

  double expected[kFrames][16 + 6 + 36];
  {
    zot_test::TrackerPools pools(640 * 480, 2, 400);
    auto t = std::make_unique<GenericObjectTracker>();
    ASSERT_EQ(t->setupFromGlobalArray((int)a.size(), a.data()), 0);
    const double zero[6] = {0, 0, 0, 0, 0, 0}, dof[6] = {1, 1, 1, 1, 1, 1};
    for (int f = 0; f < kFrames; f++) {
      const unsigned char* ptrs[2] = {images[f][0].data(), images[f][1].data()};
      double* out = expected[f];
      ASSERT_EQ(t->poseEstimation(ptrs, sequence.time(f), tools[f], start, zero, sequence.time(f),
                                  out, out + 16, out + 22, dof, f == 0, false, false, false),
                0);
    }
  }

  TrackerSession session(ZOT_DATA_DIR, "camera_stereo.txt", "tracker_demo.txt",
                         "model_chamfered_box.txt");
  ASSERT_TRUE(session.ok()) << session.message();
  EXPECT_EQ(session.setupArray(), a);
  EXPECT_EQ(session.track(nullptr, 0.0).code, -1);  // no track started yet
  ASSERT_EQ(session.start(start), 0);
  for (int f = 0; f < kFrames; f++) {
    const unsigned char* ptrs[2] = {images[f][0].data(), images[f][1].data()};
    const TrackResult r = session.track(ptrs, sequence.time(f), tools[f]);
    ASSERT_EQ(r.code, 0) << r.message;
    EXPECT_EQ(memcmp(r.pose, expected[f], 16 * sizeof(double)), 0);
    EXPECT_EQ(memcmp(r.velocity, expected[f] + 16, 6 * sizeof(double)), 0);
    EXPECT_EQ(memcmp(r.covariance, expected[f] + 22, 36 * sizeof(double)), 0);
    EXPECT_GT(r.matchedSamples, r.samples / 2);
  }
  std::vector<unsigned char> overlay(3 * 640 * 480, 0);
  EXPECT_EQ(session.draw(overlay.data(), 1, 30.0), 0);
  EXPECT_EQ(*std::max_element(overlay.begin(), overlay.end()), 255);  // the contour in red
  EXPECT_EQ(session.draw(overlay.data(), 2), -1);
}

TEST(TrackerSession, FailuresAreCodesWithMessagesAndLeaveNothingBehind) {
  const std::vector<double> a = mixedConfiguration();
  std::vector<double> wrongCount = a, badTopology = a;
  wrongCount.push_back(1.0);
  badTopology[badTopology.size() - 53] = 0;  // the one-face square is no longer flat: open edges
  struct Case {
    const std::vector<double>* array;  // none: a missing camera file
    int code;
    const char* messagePart;
  };
  const Case cases[] = {{nullptr, -10, "FAILURE: Camera parser"},
                        {&wrongCount, -1, "does not describe a tracker"},
                        {&badTopology, -1, "could not be set up"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.messagePart);
    const std::unique_ptr<TrackerSession> s =
        c.array ? std::make_unique<TrackerSession>((int)c.array->size(), c.array->data())
                : std::make_unique<TrackerSession>(ZOT_DATA_DIR, "no_such_camera.txt",
                                                   "tracker.txt", "model_l_bracket.txt");
    EXPECT_FALSE(s->ok());
    EXPECT_EQ(s->code(), c.code);
    EXPECT_NE(std::string(s->message()).find(c.messagePart), std::string::npos) << s->message();
    EXPECT_EQ(s->track(nullptr, 0.0).code, c.code);
    EXPECT_EQ(s->tracker(), nullptr);
    EXPECT_EQ(m_bigArrayDouble, nullptr);  // the pools went back
  }

  doBigMalloc(10, 10, 10, 10, 10, 10, 10);
  {
    TrackerSession small((int)a.size(), a.data());
    EXPECT_EQ(small.code(), -1);
    EXPECT_NE(std::string(small.message()).find("too small"), std::string::npos);
    EXPECT_EQ(m_currentAllocUchar + m_currentAllocDouble, 0u);
  }
  doBigFree();

  TrackerSession first((int)a.size(), a.data());
  ASSERT_TRUE(first.ok()) << first.message();
  {
    TrackerSession second((int)a.size(), a.data());
    EXPECT_EQ(second.code(), -1);
    EXPECT_NE(std::string(second.message()).find("only one"), std::string::npos);
  }
  EXPECT_TRUE(first.ok());
  EXPECT_NE(m_bigArrayDouble, nullptr);
}
