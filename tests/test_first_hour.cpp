// A new user's first hour: a CAD model in another format, the first pose from
// point pairs, the hint when the initial pose is in the wrong unit.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "Math.h"
#include "mesh_formats.h"
#include "render_scene.h"
#include "scene_config.h"
#include "sequence.h"
#include "tool_runner.h"

namespace {

using zot_test::CommandResult;
using zot_test::runCommand;
const std::string kTools = ZOT_TOOLS_DIR;
const std::string kData = ZOT_DATA_DIR;
const std::string kDir = zot_test::processScratchDirectory(kTools, "first_hour");
const std::string kMeshDir = kDir + "/meshes", kSeq = kDir + "/seq";


void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// Every format encodes the same tetrahedron, faces wound outwards.
const std::vector<double> kTetraVertices = {0, 0, 0, 10, 0, 0, 0, 10, 0, 0, 0, 10};
const std::vector<std::vector<int>> kTetraFaces = {{0, 2, 1}, {0, 1, 3}, {0, 3, 2}, {1, 2, 3}};

std::string binaryPly() {
  std::string b =
      "ply\nformat binary_little_endian 1.0\nelement vertex 4\nproperty float x\n"
      "property float y\nproperty float z\nproperty uchar red\nelement face 4\n"
      "property list uchar int vertex_indices\nend_header\n";
  for (size_t k = 0; k < kTetraVertices.size(); k++) {
    const float x = (float)kTetraVertices[k];
    b.append((const char*)&x, 4).append(k % 3 == 2 ? "\x7f" : "");  // x y z red
  }
  for (const auto& f : kTetraFaces) b.append("\x03").append((const char*)f.data(), 12);
  return b;
}

TEST(MeshFormats, EveryFormatGivesTheSameTetrahedron) {
  zot_test::freshDirectory(kMeshDir);
  const struct {
    const char* name;
    std::string text;
  } rows[] = {
      {"points.cao",
       "V1\n# points\n4\n0 0 0\n10 0 0\n0 10 0\n0 0 10\n0\n0\n4\n3 0 2 1\n3 0 1 3\n"
       "3 0 3 2 name=side\n3 1 2 3\n0\n0\n"},
      // The first face from lines given in scrambled order and direction.
      {"lines.cao",
       "V1\n4\n0 0 0\n10 0 0\n0 10 0\n0 0 10\n3\n1 0\n2 1\n0 2\n1\n3 0 2 1\n3\n3 0 1 3\n"
       "3 0 3 2\n3 1 2 3\n0\n0\n"},
      {"tetra.wrl",
       "#VRML V2.0 utf8\nTransform { translation 0 0 0 children [ Shape { geometry DEF T "
       "IndexedFaceSet {\n coord Coordinate { point [ 0 0 0, 10 0 0, 0 10 0, 0 0 10 ] }\n"
       " coordIndex [ 0 2 1 -1, 0 1 3 -1 0 3 2 -1 1 2 3 ] } } ] }\n"},
      {"flipped.wrl",
       "#VRML V2.0 utf8\nShape { geometry IndexedFaceSet { ccw FALSE coord Coordinate {\n"
       " point [ 0 0 0, 10 0 0, 0 10 0, 0 0 10 ] } coordIndex [ 1 2 0 -1 3 1 0 -1 2 3 0 -1 3 2 1 "
       "-1 ] } }\n"},
      {"ascii.ply",
       "ply\nformat ascii 1.0\nelement vertex 4\nproperty double x\nproperty double y\n"
       "property double z\nelement face 4\nproperty list uchar int vertex_index\nend_header\n"
       "0 0 0\n10 0 0\n0 10 0\n0 0 10\n3 0 2 1\n3 0 1 3\n3 0 3 2\n3 1 2 3\n"},
      {"binary.ply", binaryPly()},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string path = kMeshDir + "/" + row.name;
    writeFile(path, row.text);
    zot_sim::MeshImport m;
    std::string error;
    ASSERT_TRUE(zot_sim::readMeshFile(path, m, error)) << error;
    EXPECT_EQ(m.vertices, kTetraVertices);
    ASSERT_EQ(m.faces.size(), kTetraFaces.size());
    for (size_t f = 0; f < kTetraFaces.size(); f++) {
      std::vector<int> g = m.faces[f];
      std::rotate(g.begin(), std::find(g.begin(), g.end(), kTetraFaces[f][0]), g.end());
      EXPECT_EQ(g, kTetraFaces[f]) << "face " << f;
    }
    EXPECT_TRUE(m.segments.empty());
  }
}

TEST(MeshFormats, UnsupportedElementsAreNamedWithTheirLine) {
  zot_test::freshDirectory(kMeshDir);
  const std::string head = "V1\n4\n0 0 0\n10 0 0\n0 10 0\n0 0 10\n";
  zot_sim::MeshImport m;
  std::string error;
  const struct {
    const char* name;
    std::string text, expected;
  } bad[] = {
      {"cylinder.cao", head + "0\n0\n1\n3 0 1 2\n1\n0 3 2.5 # a pin\n0\n", "cylinder on line 12"},
      {"open.cao", head + "3\n0 1\n1 2\n2 3\n1\n3 0 1 2\n0\n0\n0\n",
       "open.cao:12: the lines of this face do not form"},
      {"index.cao", head + "0\n0\n1\n3 0 1 4\n", "index.cao:10: point 4 refers to none"},
      {"box.wrl", "#VRML V2.0 utf8\nShape {\n geometry Box { size 1 1 1 } }\n", "box.wrl:3: Box"},
      {"moved.wrl", "#VRML V2.0 utf8\nTransform {\n translation 5 0 0 }\n",
       "moved.wrl:3: Transform"},
      {"big.ply", "ply\nformat binary_big_endian 1.0\nend_header\n", "big.ply:2: format"},
      {"short.ply",
       "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nproperty float y\n"
       "property float z\nelement face 1\nproperty list uchar int vertex_indices\nend_header\n"
       "0 0 0\n1 0 0\n0 1 0\n2 0 1\n",
       "short.ply:13: face 0 has fewer than 3"},
  };
  for (const auto& row : bad) {
    SCOPED_TRACE(row.name);
    writeFile(kMeshDir + "/" + row.name, row.text);
    EXPECT_FALSE(zot_sim::readMeshFile(kMeshDir + "/" + row.name, m, error));
    EXPECT_NE(error.find(row.expected), std::string::npos) << error;
  }
}

// The line bounding no face becomes a polyline on its face; a refused element
// leaves no file.
TEST(MeshFormats, Mesh2PolyWritesTheWholeModelOrNothing) {
  if (!zot_sim::pathExists(kTools + "/zot_mesh2poly")) GTEST_SKIP() << "not built";
  zot_test::freshDirectory(kMeshDir);
  const std::string cao =
      "V1\n6\n0 0 0\n10 0 0\n0 10 0\n0 0 10\n2 0 2\n4 0 2\n2\n4 5\n0 1\n0\n4\n"
      "3 0 2 1\n3 0 1 3\n3 0 3 2\n3 1 2 3\n";
  writeFile(kMeshDir + "/marked.cao", cao + "0\n0\n");
  writeFile(kMeshDir + "/pin.cao", cao + "1\n0 3 1\n0\n");
  auto convert = [](const std::string& name) {
    const std::string stem = kMeshDir + "/" + name;
    return runCommand(kTools + "/zot_mesh2poly -q " + stem + ".cao " + stem + "_poly.txt --model " +
                          stem + "_model.txt",
                      stem);
  };
  ASSERT_EQ(convert("marked").status, 0);
  zot_sim::ModelConfig model;
  std::string error;
  ASSERT_EQ(zot_sim::loadModelFile(kMeshDir, "marked_model.txt", model, error), 0) << error;
  ASSERT_EQ(model.bodies.size(), 2u);
  EXPECT_EQ(model.bodies[0].mesh.faceSizes.size(), 4u);
  EXPECT_EQ(model.bodies[1].mesh.vertices, std::vector<double>({2, 0, 2, 4, 0, 2}));
  EXPECT_EQ(model.bodies[1].supportFace, 1);  // the face in the plane y = 0
  const CommandResult r = convert("pin");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("pin.cao: cylinder on line 19"), std::string::npos) << r.err;
  EXPECT_FALSE(zot_sim::pathExists(kMeshDir + "/pin_poly.txt") ||
               zot_sim::pathExists(kMeshDir + "/pin_model.txt"));
}

// One frame of the chamfered box over clutter, rendered once.
class FirstPose : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!zot_sim::pathExists(kTools + "/zot_init")) return;
    zot_test::freshDirectory(kDir);
    const CommandResult r = runCommand(kTools + "/zot_render -q --config " + kData +
                                           " --camera camera_mono.txt --frames 1 --jobs 1 " + kSeq,
                                       kDir + "/render");
    ASSERT_EQ(r.status, 0) << r.err;
  }
  void SetUp() override {
    if (!zot_sim::pathExists(kTools + "/zot_init")) GTEST_SKIP() << "built only with OpenCV";
    std::vector<zot_sim::Pose> truth;
    std::string error;
    ASSERT_TRUE(zot_sim::readPoseFile(kSeq + "/truth_poses.txt", truth, error)) << error;
    m_truth = truth[0];
  }
  // "u v X Y Z" lines: the box's corners as rendered, moved up to 3 pixels.
  std::string clickedCorners(int first, int count) const {
    std::vector<zot_sim::CameraConfig> cams;
    std::string error, lines;
    EXPECT_EQ(zot_sim::loadCameraFile(kSeq, "camera.txt", cams, error), 0) << error;
    const zot_sim::RenderCamera cam = zot_sim::renderCameraOf(cams[0]);
    double toCamera[16], T[16];
    ZOTtracker::inverseTransform(cams[0].toolFromCamera.data(), toCamera);
    ZOTtracker::matrixProduct444(toCamera, m_truth.data(), T);
    const double corners[10][3] = {{-60, -40, 0},  {-60, 40, 0}, {-60, 40, 45}, {-60, 25, 60},
                                   {-60, -40, 60}, {60, -40, 0}, {60, 40, 0},   {60, 40, 45},
                                   {60, 25, 60},   {60, -40, 60}};
    for (int i = first; i < first + count; i++) {
      double uv[2];
      zot_sim::projectDistorted(cam, T, corners[i], uv);
      lines += std::to_string(uv[0] + 3.0 * ((i % 3) - 1)) + " " +
               std::to_string(uv[1] - 2.5 * ((i % 2) * 2 - 1)) + " " +
               std::to_string(corners[i][0]) + " " + std::to_string(corners[i][1]) + " " +
               std::to_string(corners[i][2]) + "\n";
    }
    return lines;
  }
  CommandResult init(const std::string& name, const std::string& points) const {
    writeFile(kDir + "/" + name + ".txt", points);
    return runCommand(kTools + "/zot_init -q --config " + kSeq + " --image " + kSeq +
                          "/cam0/000000.png --points " + kDir + "/" + name + ".txt --out " + kDir +
                          "/" + name + "_pose.txt --overlay " + kDir + "/" + name + ".png",
                      kDir + "/" + name);
  }
  zot_sim::Pose m_truth{};
};

TEST_F(FirstPose, PointPairsAndTheEdgesGiveThePose) {
  const CommandResult r = init("corners", clickedCorners(2, 8));
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<zot_sim::Pose> pose;
  std::string error;
  ASSERT_TRUE(zot_sim::readPoseFile(kDir + "/corners_pose.txt", pose, error)) << error;
  double dt = 0, dr = 0;
  zot_sim::poseError(pose[0].data(), m_truth.data(), &dt, &dr);
  EXPECT_LT(dt, 1.0);
  EXPECT_LT(dr, 0.4);  // the points alone: 1.3 mm, 0.57 deg
  EXPECT_TRUE(zot_sim::pathExists(kDir + "/corners.png"));
}

TEST_F(FirstPose, UnusablePointsAreRefusedAndNothingIsWritten) {
  const std::string four = clickedCorners(0, 4);
  const struct {
    const char* name;
    std::string points, expected;
  } rows[] = {
      {"three", clickedCorners(0, 3), "3 point pair(s); at least 4"},
      {"line", "100 100 -60 -40 0\n150 110 -20 -40 0\n200 120 20 -40 0\n250 130 60 -40 0\n",
       "all model points lie on one line"},
      {"twice", four + four.substr(0, four.find('\n') + 1), "twice.txt:1 and"},
      {"outside", four + "700 20 60 40 0\n", "outside.txt:5: image point (700, 20) lies outside"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const CommandResult r = init(row.name, row.points);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(row.expected), std::string::npos) << r.err;
    EXPECT_FALSE(zot_sim::pathExists(kDir + "/" + row.name + "_pose.txt"));
  }
}

// A pose in metres against a model in millimetres.
TEST_F(FirstPose, InitialPoseInTheWrongUnitGivesAHint) {
  if (!zot_sim::pathExists(kTools + "/zot_track")) GTEST_SKIP();
  zot_sim::Pose metres = m_truth;
  for (int k : {3, 7, 11}) metres[k] /= 1000.0;
  std::string error;
  ASSERT_TRUE(zot_sim::writePoseFile(kDir + "/metres.txt", {metres}, "", error));
  const CommandResult r = runCommand(kTools + "/zot_track -q --config " + kSeq + " --images " +
                                         kSeq + "/cam0/%06d.png --initial-pose " + kDir +
                                         "/metres.txt --out " + kDir + "/metres",
                                     kDir + "/metres");
  EXPECT_EQ(r.status, 3);
  EXPECT_NE(r.err.find("outside every camera's view"), std::string::npos) << r.err;
  EXPECT_NE(zot_test::readText(kDir + "/metres/summary.txt").find("HINT: "), std::string::npos);
}

}  // namespace
