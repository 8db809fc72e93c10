// Poses a host may pass by mistake or malice that are no rigid transform are
// refused with -1 before anything changes. (The fuzz corpus replay covers the rest.)
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

#include "GenericObjectTracker.h"
#include "Math.h"
#include "tracker_scene.h"

using namespace ZOTtracker;

TEST(HostileInputs, PosesThatAreNoRigidTransformAreRefusedAndChangeNothing) {
  const std::vector<double> a = zot_test::sampleSetupArray(
      ZOT_DATA_DIR, "camera_mono.txt", "tracker.txt", "model_chamfered_box.txt");
  zot_test::TrackerPools pools(640 * 480, 1, 400);
  auto t = std::make_unique<GenericObjectTracker>();
  ASSERT_EQ(t->setupFromGlobalArray((int)a.size(), a.data()), 0);
  std::vector<unsigned char> image((size_t)t->m_imageWidth[0] * t->m_imageHeight[0], 128);
  const unsigned char* images[1] = {image.data()};
  const double zero[6] = {0, 0, 0, 0, 0, 0};
  double identity[16], start[16];
  matrixIdentity(identity, 4);
  matrixIdentity(start, 4);
  start[11] = 400.0;
  // entry: of the tool pose (0..15) or of the initial pose (16..31)
  const struct {
    const char* fault;
    int entry;
    double value;
  } rows[] = {{"NaN in the tool rotation", 5, NAN},
              {"infinite tool translation", 3, INFINITY},
              {"huge tool rotation entry", 0, 5e10},
              {"tool pose with a bad last row", 14, 1.0},
              {"reflection as initial pose", 16 + 10, -1.0},
              {"initial rotation scaled by 1.001", 16 + 0, 1.001},
              {"NaN in the initial translation", 16 + 11, NAN}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.fault);
    double tool[16], init[16], pose[16];
    matrixCopy(identity, tool, 4, 4);
    matrixCopy(start, init, 4, 4);
    (row.entry < 16 ? tool : init)[row.entry % 16] = row.value;
    for (double& p : pose) p = -7.0;
    EXPECT_EQ(t->poseEstimation(images, 0.0, tool, init, zero, 0.0, pose, nullptr, nullptr, nullptr,
                                true, false, false, false),
              -1);
    EXPECT_EQ(pose[0], -7.0);
    // Nothing changed: the filter was never started, so going on fails too.
    EXPECT_EQ(t->poseEstimation(images, 0.1, identity, nullptr, nullptr, 0.0, pose, nullptr,
                                nullptr, nullptr, false, false, false, false),
              -1);
  }
  // A tool rotation rounded to single precision is still taken.
  const double rvec[3] = {0.1, -0.2, 0.3};
  double R[9], tool[16], pose[16];
  matrixRvecToRmat(rvec, R);
  matrixCopy(identity, tool, 4, 4);
  for (int i = 0; i < 9; i++) tool[4 * (i / 3) + i % 3] = (float)R[i];
  EXPECT_NE(t->poseEstimation(images, 0.0, tool, start, zero, 0.0, pose, nullptr, nullptr, nullptr,
                              true, false, false, false),
            -1);
}
