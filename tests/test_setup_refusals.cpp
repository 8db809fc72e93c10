// The host programs read configuration files more strictly than the library,
// and zot_mesh2poly refuses coordinates that doubles cannot hold.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "FileParser.h"
#include "scene_config.h"
#include "tool_runner.h"

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
      {"tracker.txt", "\n400\n", "\n400.5\n", "tracker.txt:3: \"400.5\" is not an integer"},
      {"chamfered_box_polyhedron.txt", "nf 7", "nf 7.0", "polyhedron.txt:12: \"7.0\" is not"},
      {"model_chamfered_box.txt", "\n1 6\n", "\n1 6 7\n",
       "model_chamfered_box.txt:25: unexpected text after 2 values in \"1 6 7\""},
  };
  for (const Case& c : cases) {
    zot_test::freshDirectory(dir);
    for (const char* name : {"camera_stereo.txt", "tracker.txt", "model_chamfered_box.txt",
                             "chamfered_box_polyhedron.txt", "top_slot_polyline.txt"}) {
      std::string text = zot_test::readText(std::string(ZOT_DATA_DIR) + "/" + name);
      if (name == std::string(c.file))
        text.replace(text.find(c.from), std::string(c.from).size(), c.to);
      std::ofstream(dir + "/" + name) << text;
    }
    std::string error;
    EXPECT_FALSE(zot_sim::checkConfigFilesStrictly(dir, "camera_stereo.txt", "tracker.txt",
                                                   "model_chamfered_box.txt", error));
    EXPECT_NE(error.find(c.message), std::string::npos) << error;
  }
  const zot_test::CommandResult r = zot_test::runCommand(
      std::string(ZOT_TOOLS_DIR) + "/zot_export_header --config-dir " + dir +
          " --camera camera_stereo.txt --model model_chamfered_box.txt --out " + dir,
      dir + "/export");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("malformed configuration: " + dir + "/model_chamfered_box.txt:25"),
            std::string::npos)
      << r.err;
}

TEST(SetupRefusals, Mesh2polyWritesExactCoordinatesAndRefusesWhatDoublesCannotHold) {
  const std::string dir = testing::TempDir() + "mesh2poly_precision";
  zot_test::freshDirectory(dir);
  for (const double offset : {1e9, 1e13}) {  // a unit tetrahedron from x = offset on
    char obj[256];
    snprintf(obj, sizeof obj,
             "v %.17g 0 0\nv %.17g 0 0\nv %.17g 1 0\nv %.17g 0 1\n"
             "f 1 3 2\nf 1 2 4\nf 1 4 3\nf 2 3 4\n",
             offset, offset + 1, offset, offset);
    std::ofstream(dir + "/tetra.obj") << obj;
    const zot_test::CommandResult r =
        zot_test::runCommand(std::string(ZOT_TOOLS_DIR) + "/zot_mesh2poly -q --scale 0.1 " + dir +
                                 "/tetra.obj " + dir + "/tetra.txt",
                             dir + "/run");
    if (offset > 1e10) {
      EXPECT_EQ(r.status, 1);
      EXPECT_NE(r.err.find("below what doubles resolve at its offset"), std::string::npos) << r.err;
      continue;
    }
    ASSERT_EQ(r.status, 0) << r.err << r.out;
    std::vector<double> values(200);
    int count = 0;
    ASSERT_EQ(ZOTtracker::FileParser().parsePolyhedron((dir + "/tetra.txt").c_str(), count,
                                                       values.data(), 200),
              0);
    // 1000000001 * 0.1 needs 17 digits; nine made both ends one.
    EXPECT_EQ(values[1], offset * 0.1);
    EXPECT_EQ(values[1 + 3], (offset + 1.0) * 0.1);
  }
}
