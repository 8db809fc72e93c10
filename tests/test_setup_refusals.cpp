// Configurations that can never track are refused up front: by the tracker's
// set-up (and the codec, with the same line), by the tools' strict reading of
// the configuration files, and by zot_mesh2poly when doubles cannot hold the
// mesh; zot_mesh2poly's coordinates read back exactly.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "FileParser.h"
#include "SetupArray.h"
#include "memory_handling.h"
#include "scene_config.h"
#include "tool_runner.h"
#include "tracker_scene.h"

using ZOTtracker::SetupArray;

namespace {

const double kNaN = std::nan("");

std::vector<double> sampleArray() {
  std::vector<double> a(10000);
  int count = 0;
  testing::internal::CaptureStdout();  // the parser echoes the calibrations
  ZOTtracker::FileParser().parseAllFiles(ZOT_DATA_DIR, "camera_stereo.txt", "tracker.txt",
                                         "model_chamfered_box.txt", count, a.data(), 10000);
  testing::internal::GetCapturedStdout();
  a.resize(count);
  return a;
}

struct Refusal {
  const char* message;  // the one line printed, without its line end
  std::function<void(SetupArray&)> edit;
  std::function<void(std::vector<double>&, const SetupArray&)> patch;  // on the encoded array
};

}  // namespace

TEST(SetupRefusals, WhatCanNeverTrackIsRefusedWithOneLineNamingTheValue) {
  const std::vector<double> sample = sampleArray();
  auto setup = std::make_unique<SetupArray>();
  ASSERT_TRUE(ZOTtracker::decodeSetupArray(sample.data(), (int)sample.size(), *setup));
  // The support index of the polyline, the last body.
  auto supportAt = [](const std::vector<double>& a, const SetupArray& s) {
    const ZOTtracker::SetupBody& b = s.bodies[s.nBodies - 1];
    return a.size() - 2 * b.nItems - 1 - 3 * b.nVertices - 1 - 2;
  };
  const Refusal cases[] = {
      {"ERROR: setup array value 0: -2 cameras, at least 1 is needed", nullptr,
       [](std::vector<double>& a, const SetupArray&) { a[0] = -2; }},
      {"0 bodies, at least 1 is needed", [](SetupArray& s) { s.nBodies = 0; }, nullptr},
      {"ERROR: camera 0: fx is nan, must be finite and > 0",
       [](SetupArray& s) { s.cameras[0].fx = kNaN; }, nullptr},
      {"ERROR: camera 1: fy is 0, must be finite and > 0",
       [](SetupArray& s) { s.cameras[1].fy = 0.0; }, nullptr},
      {"ERROR: camera 1: cx is inf, must be finite",
       [](SetupArray& s) { s.cameras[1].cx = INFINITY; }, nullptr},
      {"ERROR: camera 1: near depth is 0, must be finite and > 0",
       [](SetupArray& s) { s.cameras[1].zNear = 0.0; }, nullptr},
      {"ERROR: camera 0: far depth is 1500, must be finite and > the near depth 2000",
       [](SetupArray& s) { s.cameras[0].zNear = 2000.0; }, nullptr},
      {"ERROR: camera 0: far depth is nan, must be finite and > the near depth 50",
       [](SetupArray& s) { s.cameras[0].zFar = kNaN; }, nullptr},
      {"ERROR: camera 0: distortion p1 is nan, must be finite",
       [](SetupArray& s) { s.cameras[0].dist[2] = kNaN; }, nullptr},
      {"ERROR: camera 1: distortion k1 is nan, must be finite",
       [](SetupArray& s) {
         for (double& d : s.cameras[1].dist) d = kNaN;
       },
       nullptr},
      {"ERROR: camera 0: pose value 8 (row 2, column 4) is inf, must be finite",
       [](SetupArray& s) { s.cameras[0].toolFromCamera[7] = INFINITY; }, nullptr},
      // Stretched by 1 %: the kind of pose that sent the sampler's byte conversion astray.
      {"ERROR: camera 0: pose rotation is not a rotation: |R^T R - I| reaches 0.0201 (at most "
       "1e-05), det 1.01 (must be > 0)",
       [](SetupArray& s) {
         for (int i = 0; i < 3; i++) s.cameras[0].toolFromCamera[4 * i] *= 1.01;
       },
       nullptr},
      {"ERROR: camera 1: pose rotation is not a rotation: |R^T R - I| reaches 0 (at most 1e-05), "
       "det -1 (must be > 0)",
       [](SetupArray& s) {  // a mirror
         double* T = s.cameras[1].toolFromCamera;
         T[0] = -1.0;
         T[2] = T[8] = 0.0;
         T[10] = 1.0;
       },
       nullptr},
      {"ERROR: camera 1: mask polygon 1 vertex 2 is not finite",
       [](SetupArray& s) { s.cameras[1].maskVertices[0][3] = kNaN; }, nullptr},
      {"ERROR: tracking parameters: 0 sample points per camera, at least 1 is needed",
       [](SetupArray& s) { s.tracking[0] = 0.0; }, nullptr},
      {"ERROR: tracking parameters: sampling step 0, must be at least 1 pixel",
       [](SetupArray& s) { s.tracking[2] = 0.9; }, nullptr},
      {"(supporting body) is not an index: -2147483648", nullptr,
       [&](std::vector<double>& a, const SetupArray& s) { a[supportAt(a, s)] = INT_MIN; }},
  };
  zot_test::TrackerPools pools(640 * 480, 2, 400);
  for (const Refusal& c : cases) {
    auto mutated = std::make_unique<SetupArray>(*setup);
    if (c.edit) c.edit(*mutated);
    std::vector<double> a(sample.size() + 100);
    a.resize(ZOTtracker::encodeSetupArray(*mutated, a.data(), (int)a.size()));
    if (c.patch) c.patch(a, *mutated);
    char kept[512];
    auto decoded = std::make_unique<SetupArray>();
    EXPECT_FALSE(
        ZOTtracker::decodeSetupArray(a.data(), (int)a.size(), *decoded, kept, sizeof(kept)));
    ZOTtracker::resetMemoryCounters();
    auto tracker = std::make_unique<ZOTtracker::GenericObjectTracker>();
    testing::internal::CaptureStdout();
    EXPECT_EQ(tracker->setupFromGlobalArray((int)a.size(), a.data()), -1) << c.message;
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_NE(printed.find(std::string(c.message) + "\n"), std::string::npos) << printed;
    EXPECT_EQ(printed, kept) << "the codec and the set-up agree";
    EXPECT_EQ(tracker->m_contourTracker.m_nCams, 0) << c.message;
  }
  // The sample itself, bit for bit through the codec, still sets up.
  ZOTtracker::resetMemoryCounters();
  auto tracker = std::make_unique<ZOTtracker::GenericObjectTracker>();
  testing::internal::CaptureStdout();
  EXPECT_EQ(tracker->setupFromGlobalArray((int)sample.size(), sample.data()), 0);
  testing::internal::GetCapturedStdout();
}

TEST(SetupRefusals, TheToolsReadConfigurationFilesStrictly) {
  const std::string dir = testing::TempDir() + "strict_config";
  struct Case {
    const char *file, *from, *to, *message;
  } cases[] = {
      {"camera_stereo.txt", "612.43", "6l2.43",
       "camera_stereo.txt:12: \"6l2.43\" is not a number in \"6l2.43 611.87"},
      {"camera_stereo.txt", "\n2\n", "\n4294967297\n",
       "camera_stereo.txt:4: \"4294967297\" is outside the int range in \"4294967297\""},
      {"camera_stereo.txt", "\n50.0 1500.0\n", "\n50.0\n",
       "camera_stereo.txt:10: expected 2 values, found 1 in \"50.0\""},
      {"camera_stereo.txt", "639.0 430.0", "639.0 43O.0",
       "camera_stereo.txt:31: \"43O.0\" is not a number"},
      {"tracker.txt", "\n400\n", "\n400.5\n", "tracker.txt:3: \"400.5\" is not an integer"},
      {"chamfered_box_polyhedron.txt", "nf 7", "nf 7.0",
       "polyhedron.txt:12: \"7.0\" is not an integer"},
      {"model_chamfered_box.txt", "\n1 6\n", "\n1 6 7\n",
       "model_chamfered_box.txt:25: unexpected text after 2 values in \"1 6 7\""},
  };
  for (const Case& c : cases) {
    zot_test::freshDirectory(dir);
    for (const char* name : {"camera_stereo.txt", "tracker.txt", "model_chamfered_box.txt",
                             "chamfered_box_polyhedron.txt", "top_slot_polyline.txt"}) {
      std::string text = zot_test::readText(std::string(ZOT_DATA_DIR) + "/" + name);
      if (name == std::string(c.file)) text.replace(text.find(c.from), strlen(c.from), c.to);
      std::ofstream(dir + "/" + name) << text;
    }
    std::string error;
    EXPECT_FALSE(zot_sim::checkConfigFilesStrictly(dir, "camera_stereo.txt", "tracker.txt",
                                                   "model_chamfered_box.txt", error));
    EXPECT_NE(error.find(c.message), std::string::npos) << error;
  }
  std::string error;
  EXPECT_TRUE(zot_sim::checkConfigFilesStrictly(ZOT_DATA_DIR, "camera_mono.txt", "tracker_demo.txt",
                                                "model_l_bracket.txt", error))
      << error;
  // The last case, through a tool: nothing is written, exit status 1.
  const zot_test::CommandResult r = zot_test::runCommand(
      std::string(ZOT_TOOLS_DIR) + "/zot_export_header --config-dir " + dir + " --out " + dir,
      dir + "/export");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("malformed configuration: " + dir + "/model_chamfered_box.txt:25"),
            std::string::npos)
      << r.err;
}

TEST(SetupRefusals, Mesh2polyWritesExactCoordinatesAndRefusesWhatDoublesCannotHold) {
  const std::string dir = testing::TempDir() + "mesh2poly_precision";
  zot_test::freshDirectory(dir);
  const int faces[12][3] = {{1, 3, 2}, {1, 4, 3}, {5, 6, 7}, {5, 7, 8}, {1, 2, 6}, {1, 6, 5},
                            {2, 3, 7}, {2, 7, 6}, {3, 4, 8}, {3, 8, 7}, {4, 1, 5}, {4, 5, 8}};
  for (const double offset : {1e9, 1e13}) {
    std::ofstream obj(dir + "/cube.obj");
    obj.precision(17);
    for (int i = 0; i < 8; i++)  // the unit cube, moved along x
      obj << "v " << offset + (i == 1 || i == 2 || i == 5 || i == 6) << " " << (i % 4 >= 2) << " "
          << (i >= 4) << "\n";
    for (const auto& f : faces) obj << "f " << f[0] << " " << f[1] << " " << f[2] << "\n";
    obj.close();
    const zot_test::CommandResult r =
        zot_test::runCommand(std::string(ZOT_TOOLS_DIR) + "/zot_mesh2poly -q --scale 0.1 " + dir +
                                 "/cube.obj " + dir + "/cube.txt",
                             dir + "/run");
    if (offset > 1e10) {
      EXPECT_EQ(r.status, 1);
      EXPECT_NE(r.err.find("below what doubles resolve at its offset"), std::string::npos) << r.err;
      continue;
    }
    ASSERT_EQ(r.status, 0) << r.err << r.out;
    std::vector<double> values(200);
    int count = 0;
    ASSERT_EQ(ZOTtracker::FileParser().parsePolyhedron((dir + "/cube.txt").c_str(), count,
                                                       values.data(), 200),
              0);
    // 1000000001 * 0.1 needs 17 digits; nine made both sides of the cube one.
    EXPECT_EQ(values[1 + 3], (offset + 1.0) * 0.1);
    EXPECT_EQ(values[1], offset * 0.1);
  }
}
