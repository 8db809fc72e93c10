// The host programs as a user meets them: exit codes, the files they write,
// the poses zot_track tracks and the first line of an error, not the layout
// of their help; the strict reading of configuration files; a new user's
// first hour; zot_render's options.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "FileParser.h"
#include "IO.h"
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
const std::string kDir = zot_test::processScratchDirectory(kTools, "cli");
const std::string kSeq = kDir + "/seq/";
constexpr int kFrames = 10;

bool built(const std::string& tool) { return zot_sim::pathExists(kTools + "/" + tool); }

// The first line of a text.
std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// One short mono sequence, rendered once for all zot_track tests.
class ZotTrack : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!built("zot_track") || !built("zot_render")) return;
    zot_test::freshDirectory(kDir);
    const CommandResult r = runCommand(kTools + "/zot_render -q --config " + kData +
                                           " --camera camera_mono.txt --background plain"
                                           " --frames " +
                                           std::to_string(kFrames) + " " + kSeq,
                                       kDir + "/render");
    ASSERT_EQ(r.status, 0) << r.err;
  }
  void SetUp() override {
    if (!built("zot_track") || !built("zot_render"))
      GTEST_SKIP() << "zot_track and zot_render are built only with OpenCV";
  }
  // zot_track on the sequence with the usual inputs, output into out/<name>.
  static CommandResult track(const std::string& name, const std::string& extra,
                             const std::string& images = kSeq + "cam0/%06d.png") {
    return runCommand(kTools + "/zot_track --config " + kSeq + " --images " + images + " --times " +
                          kSeq + "times.txt --tool-poses " + kSeq +
                          "tool_poses.txt --initial-pose " + kSeq + "initial_pose.txt --out " +
                          kDir + "/out/" + name + " " + extra,
                      kDir + "/" + name);
  }
  static std::vector<zot_test::TrackedFrame> rows(const std::string& name) {
    std::vector<zot_test::TrackedFrame> frames;
    std::string error;
    EXPECT_TRUE(zot_test::readPosesCsv(kDir + "/out/" + name + "/poses.csv", frames, error))
        << error;
    return frames;
  }
  static std::string summary(const std::string& name) {
    return zot_test::readText(kDir + "/out/" + name + "/summary.txt");
  }
  // A copy of the sequence's images with frame `index` replaced by `content`
  // (removed when empty).
  static std::string spoiledImages(const std::string& name, int index, const std::string& content) {
    const std::string dir = kDir + "/" + name + "_images";
    zot_test::freshDirectory(dir);
    EXPECT_EQ(std::system(("cp " + kSeq + "cam0/*.png " + dir).c_str()), 0);
    char file[32];
    snprintf(file, sizeof file, "/%06d.png", index);
    std::remove((dir + file).c_str());
    if (!content.empty()) std::ofstream(dir + file, std::ios::binary) << content;
    return dir + "/%06d.png";
  }
};

}  // namespace

// Usage errors exit with 2, input errors with 1 and a first line that names
// what is wrong.
TEST_F(ZotTrack, ExitCodesOfBadArgumentsAndMissingInput) {
  EXPECT_EQ(runCommand(kTools + "/zot_track", kDir + "/none").status, 2);
  EXPECT_EQ(track("unknown", "--bogus").status, 2);
  EXPECT_EQ(track("notruth", "--max-mean-error 1 1").status, 2);
  const std::string base =
      kTools + "/zot_track --config " + kSeq + " --images " + kSeq + "cam0/%06d.png";
  EXPECT_EQ(runCommand(base, kDir + "/nopose").status, 2);
  struct Case {
    CommandResult result;
    std::string firstLine;  // a part of standard error's first line
  };
  const Case cases[] = {
      {track("cameras", "--images " + kSeq + "cam0/%06d.png"),
       "the configuration has 1 camera(s) but --images was given 2 time(s)"},
      {runCommand(kTools + "/zot_track --config " + kDir + "/nowhere --images " + kSeq +
                      "cam0/%06d.png --initial-pose " + kSeq + "initial_pose.txt --out " + kDir +
                      "/out/x",
                  kDir + "/config"),
       "cannot read the configuration in " + kDir + "/nowhere (camera file camera.txt"},
      {track("times", "--times " + kDir + "/missing.txt"), "cannot open " + kDir + "/missing.txt"},
      {track("images", "", kDir + "/noimages/%06d.png"),
       "missing image " + kDir + "/noimages/000000.png"},
      {track("pattern", "", kSeq + "cam0/frame.png"),
       "no such file or directory: " + kSeq + "cam0/frame.png"},
      {runCommand(base + " --initial-pose '1 2 3'", kDir + "/pose"),
       "a pose needs 16, 12 or 6 numbers, found 3"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.result.status, 1) << c.firstLine;
    EXPECT_NE(firstLine(c.result.err).find(c.firstLine), std::string::npos) << c.result.err;
  }
}

TEST_F(ZotTrack, TracksTheSequenceAndWritesCsvSummaryAndOverlays) {
  const CommandResult r = track("good", "-q --truth " + kSeq + "truth_poses.txt --overlays " +
                                            "--overlay-video " + kDir + "/out/good/overlay.avi");
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<zot_test::TrackedFrame> frames = rows("good");
  ASSERT_EQ((int)frames.size(), kFrames);
  std::string error;
  for (int i = 0; i < kFrames; i++) {  // accuracy is the end-to-end tests' business
    EXPECT_EQ(frames[i].status, 0);
    EXPECT_NEAR(frames[i].time, i / 30.0, 1e-9);
    char name[64];
    snprintf(name, sizeof name, "/out/good/overlays/cam0_%06d.png", i);
    EXPECT_FALSE(zot_test::readText(kDir + name).empty()) << name;
  }
  EXPECT_GT(zot_test::readText(kDir + "/out/good/overlay.avi").size(), 10000u);
  EXPECT_NE(summary("good").find("frames: 10 of 10 processed, 10 tracked, 0 failed\n"),
            std::string::npos)
      << summary("good");
  // The rotation-vector format gives the same poses.
  ASSERT_EQ(track("rvec", "-q --frames 3 --pose-format rvec").status, 0);
  std::ifstream in(kDir + "/out/rvec/poses.csv");
  std::string line;
  std::getline(in, line);
  for (int i = 0; i < 3; i++) {
    ASSERT_TRUE(std::getline(in, line));
    const std::vector<std::string> f = zot_test::splitCsvLine(line);
    std::string text;
    for (int k = 0; k < 6; k++) text += f[4 + k] + " ";  // translation, rotation vector (deg)
    zot_sim::Pose T;
    ASSERT_TRUE(zot_sim::parsePose(text, T, error)) << error;
    for (int k = 0; k < 16; k++) EXPECT_NEAR(T[k], frames[i].pose[k], 1e-6) << k;
  }
  // Accuracy limits: exceeded (4) or met (0).
  EXPECT_EQ(track("strict", "-q --truth " + kSeq + "truth_poses.txt --max-mean-error 0.0001 0.0001")
                .status,
            4);
  EXPECT_EQ(track("loose", "-q --truth " + kSeq + "truth_poses.txt --max-mean-error 1% 0.5").status,
            0);
}

// Input that breaks down midway stops the run at that frame with status 1,
// a message, and everything tracked before it written.
TEST_F(ZotTrack, InputBreakingDownMidwayKeepsWhatWasTracked) {
  std::vector<zot_sim::Pose> tool;
  std::vector<double> times;
  std::string error;
  ASSERT_TRUE(zot_sim::readPoseFile(kSeq + "tool_poses.txt", tool, error));
  tool.resize(7);
  ASSERT_TRUE(zot_sim::writePoseFile(kDir + "/short_tool.txt", tool, "", error));
  ASSERT_TRUE(zot_sim::readNumberFile(kSeq + "times.txt", times, error));
  times[5] = times[3];
  ASSERT_TRUE(zot_sim::writeNumberFile(kDir + "/back_times.txt", times, "", error));
  const std::string gap = spoiledImages("gap", 6, "");
  const std::string small = spoiledImages("small", 3, "P5\n12 8\n255\n" + std::string(96, '\x80'));
  const std::string junk = spoiledImages("junk", 4, "not an image\n");
  const std::string video = kDir + "/video";  // a video that ends early
  ASSERT_EQ(
      runCommand(kTools + "/zot_render -q --config " + kData +
                     " --camera camera_mono.txt --background plain --frames 6 --video " + video,
                 kDir + "/video_render")
          .status,
      0);
  struct Case {
    std::string name, extra, images, firstLine;
    size_t tracked;
  };
  const Case cases[] = {
      {"gap", "-q", gap, "cam 0: missing image " + kDir + "/gap_images/000006.png", 6},
      {"small", "-q", small,
       "cam 0: " + kDir + "/small_images/000003.png is 12 x 8, the camera is 640 x 480", 3},
      {"junk", "-q", junk, "cannot read the image " + kDir + "/junk_images/000004.png", 4},
      {"poses", "-q --tool-poses " + kDir + "/short_tool.txt", kSeq + "cam0/%06d.png",
       kDir + "/short_tool.txt has 7 tool poses for 10 frames", 7},
      {"back", "-q --times " + kDir + "/back_times.txt", kSeq + "cam0/%06d.png", "is earlier than",
       5},
      {"video", "-q", video + "/cam0.avi",
       "cam 0: the video " + video + "/cam0.avi ends after 6 frames", 6},
  };
  for (const Case& c : cases) {
    const CommandResult r = track(c.name, c.extra, c.images);
    EXPECT_EQ(r.status, 1) << c.name;
    EXPECT_NE(firstLine(r.err).find(c.firstLine), std::string::npos) << c.name << ": " << r.err;
    const std::vector<zot_test::TrackedFrame> frames = rows(c.name);
    EXPECT_EQ(frames.size(), c.tracked) << c.name;
    for (const zot_test::TrackedFrame& f : frames) EXPECT_EQ(f.status, 0) << c.name << f.message;
  }
}

// A frame without the object fails with its code and message, the next
// frames are tracked from the prediction, and the exit status says so.
TEST_F(ZotTrack, AFailedFrameIsReportedAndTrackingGoesOn) {
  const std::string blank =
      spoiledImages("blank", 4, "P5\n640 480\n255\n" + std::string(640 * 480, '\x40'));
  const CommandResult r = track("blank", "-q", blank);
  EXPECT_EQ(r.status, 3) << r.err;
  const std::vector<zot_test::TrackedFrame> frames = rows("blank");
  ASSERT_EQ((int)frames.size(), kFrames);
  for (int i = 0; i < kFrames; i++) {
    EXPECT_EQ(frames[i].status, i == 4 ? ZOTtracker::ZOT_ERR_TOO_MANY_OUTLIERS : 0) << i;
    EXPECT_EQ(frames[i].hasPose, i != 4) << i;
  }
  EXPECT_EQ(frames[4].message, "FAILURE: Too many outliers");
  EXPECT_NE(summary("blank").find("frames: 10 of 10 processed, 9 tracked, 1 failed\n"),
            std::string::npos);
}

// ---------------------------------------------------------------- zot_export_header
// Its defaults name data/'s stereo configuration, the one the build wrote.
TEST(ExportHeader, WritesTheHeaderTheBuildUsesAndFailsCleanly) {
  if (!built("zot_export_header")) GTEST_SKIP() << "zot_export_header not built";
  const std::string out = kDir + "/export", tool = kTools + "/zot_export_header";
  const std::string header = out + "/global_array_declaration.h";
  zot_test::freshDirectory(out);
  CommandResult r = runCommand(tool + " --config-dir " + kData + " --out " + out, out + "/run");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(zot_test::readText(header).rfind("const int setup_global_array_counter = 237;\n", 0),
            0u);
  const std::string generated = kTools + "/generated/global_array_declaration.h";
  if (zot_sim::pathExists(generated)) {
    EXPECT_EQ(zot_test::readText(header), zot_test::readText(generated));
  }
  EXPECT_EQ(runCommand(tool + " --frobnicate", out + "/run").status, 2);
  r = runCommand(tool + " --config-dir /no/such/dir --out " + out, out + "/run");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(firstLine(r.err + r.out).find("configuration directory '/no/such/dir' not found"),
            std::string::npos)
      << r.err;
  // A missing file: the parser's message and code, and no header.
  std::remove(header.c_str());
  r = runCommand(tool + " --config-dir " + kData + " --out " + out + " --tracker nothere.txt",
                 out + "/run");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE((r.out + r.err).find("(code -11, see the message above)"), std::string::npos);
  EXPECT_FALSE(zot_sim::pathExists(header));
}

// What the host programs read is checked more strictly than the library does.
TEST(SetupRefusals, TheToolsReadConfigurationFilesStrictly) {
  const std::string dir = kDir + "/strict";
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
      std::string text = zot_test::readText(kData + "/" + name);
      if (name == std::string(c.file))
        text.replace(text.find(c.from), std::string(c.from).size(), c.to);
      writeFile(dir + "/" + name, text);
    }
    std::string error;
    EXPECT_FALSE(zot_sim::checkConfigFilesStrictly(dir, "camera_stereo.txt", "tracker.txt",
                                                   "model_chamfered_box.txt", error));
    EXPECT_NE(error.find(c.message), std::string::npos) << error;
  }
  const CommandResult r =
      runCommand(kTools + "/zot_export_header --config-dir " + dir +
                     " --camera camera_stereo.txt --model model_chamfered_box.txt --out " + dir,
                 dir + "/export");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("malformed configuration: " + dir + "/model_chamfered_box.txt:25"),
            std::string::npos)
      << r.err;
}

// ---------------------------------------------------------------- zot_mesh2poly
namespace {
using Faces = std::vector<std::vector<int>>;
const double kCubeV[8][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0},
                             {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}};
// The unit cube as 12 outward triangles (1-based).
const Faces kCube = {{1, 3, 2}, {1, 4, 3}, {5, 6, 7}, {5, 7, 8}, {1, 2, 6}, {1, 6, 5},
                     {2, 3, 7}, {2, 7, 6}, {3, 4, 8}, {3, 8, 7}, {4, 1, 5}, {4, 5, 8}};
std::string writeObj(const std::string& name, const Faces& faces,
                     const std::string& extraVertexLine = "") {
  const std::string path = kDir + "/" + name;
  std::ofstream out(path);
  for (const auto& v : kCubeV) out << "v " << v[0] << " " << v[1] << " " << v[2] << "\n";
  out << extraVertexLine;
  for (const auto& f : faces) out << "f " << f[0] << "/1/1 " << f[1] << "/1/1 " << f[2] << "\n";
  return path;
}
std::string writeBinaryStl(const std::string& name, long truncateBy = 0) {
  std::string data(80, ' ');
  const uint32_t n = 12;
  data.append((const char*)&n, 4);
  for (const auto& f : kCube) {
    float rec[12] = {0};
    for (int c = 0; c < 3; c++)
      for (int k = 0; k < 3; k++) rec[3 + 3 * c + k] = (float)kCubeV[f[c] - 1][k];
    data.append((const char*)rec, 48);
    data.append(2, '\0');
  }
  data.resize(data.size() - truncateBy);
  std::ofstream(kDir + "/" + name, std::ios::binary) << data;
  return kDir + "/" + name;
}
}  // namespace

// zot_mesh2poly's output is read back by the library's parser: face count
// and signed volume (positive when wound outward); a failure writes nothing.
TEST(Mesh2Poly, MeshesBecomeOutwardPolyhedraOrFailWithoutOutput) {
  if (!built("zot_mesh2poly")) GTEST_SKIP() << "zot_mesh2poly not built";
  zot_test::freshDirectory(kDir);
  Faces inward = kCube, flipped = kCube, degenerated = kCube, nonManifold = kCube;
  for (auto& f : inward) std::swap(f[1], f[2]);
  std::swap(flipped[0][1], flipped[0][2]);
  degenerated.push_back({1, 1, 2});
  nonManifold.push_back({1, 2, 7});
  const std::string cube = writeObj("cube.obj", kCube), stl = writeBinaryStl("cube.stl");
  const std::string open = writeObj("open.obj", Faces(kCube.begin(), kCube.begin() + 10));
  const std::string degenerate = writeObj("degenerate.obj", degenerated);
  struct Case {
    std::string args;
    int status, nf;
    double volume;        // checked when not 0
    std::string message;  // part of the output on failure
  };
  const Case cases[] = {
      {"--units m:mm " + cube, 0, 6, 1e9, ""},  // coplanar triangles merge into quadrilaterals
      {"--coplanar-angle 0 " + cube, 0, 12, 1.0, ""},
      {stl, 0, 6, 1.0, ""},
      {writeObj("inward.obj", inward), 0, 6, 1.0, ""},
      {writeObj("flipped.obj", flipped), 1, -1, 0, "inconsistent orientation"},
      {open, 1, -1, 0, "not closed: 4 edge(s)"},
      {"--flat " + open, 0, 5, 0, ""},
      {"--flat " + writeObj("nonmanifold.obj", nonManifold), 1, -1, 0, "non-manifold"},
      {degenerate, 1, -1, 0, "face 13 is degenerate"},
      {"--drop-degenerate " + degenerate, 0, 6, 1.0, ""},
      {writeObj("nan.obj", kCube, "v nan 0 0\n"), 1, -1, 0, "non-finite coordinate"},
      {writeObj("badindex.obj", {{1, 2, 9}}), 1, -1, 0, "refers to no vertex"},
      {writeBinaryStl("truncated.stl", 30), 1, -1, 0, "truncated binary STL"},
      {kDir + "/missing.obj", 1, -1, 0, "cannot open"},
      {kDir + "/mesh.step", 1, -1, 0, "unknown input format"},
      {"--scale abc a.obj", 2, -1, 0, ""},
  };
  const std::string out = kDir + "/poly.txt";
  for (const Case& c : cases) {
    std::remove(out.c_str());
    const CommandResult r = runCommand(kTools + "/zot_mesh2poly " + c.args + " " + out, out);
    EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.out << r.err;
    EXPECT_NE((r.out + r.err).find(c.message), std::string::npos) << c.args << "\n" << r.err;
    if (r.status != 0) {
      EXPECT_FALSE(zot_sim::pathExists(out)) << c.args;
      continue;
    }
    std::vector<double> a(10000);
    int count = 0;
    ZOTtracker::FileParser parser;
    ASSERT_EQ(parser.parsePolyhedron(out.c_str(), count, a.data(), (int)a.size()), 0) << c.args;
    const double* v = &a[1];
    int i = 1 + 3 * (int)a[0];
    const int nf = (int)a[i++];
    double volume = 0.0;
    for (int f = 0; f < nf; f++, i += (int)a[i] + 1) {
      for (int k = 1; k + 1 < (int)a[i]; k++) {  // a fan of triangles from the first vertex
        const double* A = v + 3 * ((int)a[i + 1] - 1);
        const double* B = v + 3 * ((int)a[i + 1 + k] - 1);
        const double* C = v + 3 * ((int)a[i + 2 + k] - 1);
        double BxC[3];
        ZOTtracker::crossProd(B, C, BxC);
        volume += ZOTtracker::dotProd3(A, BxC) / 6.0;
      }
    }
    EXPECT_EQ(i, count) << c.args;
    EXPECT_EQ(nf, c.nf) << c.args;
    if (c.volume != 0.0) {
      EXPECT_NEAR(volume, c.volume, 1e-3) << c.args;
    }
  }
  EXPECT_EQ(runCommand(kTools + "/zot_mesh2poly only_one.obj", kDir + "/m").status, 2);
  // Exact coordinates, and a refusal of what doubles cannot hold: a unit
  // tetrahedron from x = offset on.
  for (const double offset : {1e9, 1e13}) {
    char obj[256];
    snprintf(obj, sizeof obj,
             "v %.17g 0 0\nv %.17g 0 0\nv %.17g 1 0\nv %.17g 0 1\n"
             "f 1 3 2\nf 1 2 4\nf 1 4 3\nf 2 3 4\n",
             offset, offset + 1, offset, offset);
    writeFile(kDir + "/tetra.obj", obj);
    const CommandResult r = runCommand(
        kTools + "/zot_mesh2poly -q --scale 0.1 " + kDir + "/tetra.obj " + kDir + "/tetra.txt",
        kDir + "/run");
    if (offset > 1e10) {
      EXPECT_EQ(r.status, 1);
      EXPECT_NE(r.err.find("below what doubles resolve at its offset"), std::string::npos) << r.err;
      continue;
    }
    ASSERT_EQ(r.status, 0) << r.err << r.out;
    std::vector<double> values(200);
    int count = 0;
    ASSERT_EQ(ZOTtracker::FileParser().parsePolyhedron((kDir + "/tetra.txt").c_str(), count,
                                                       values.data(), 200),
              0);
    // 1000000001 * 0.1 needs 17 digits; nine made both ends one.
    EXPECT_EQ(values[1], offset * 0.1);
    EXPECT_EQ(values[1 + 3], (offset + 1.0) * 0.1);
  }
}

// ---------------------------------------------------------------- first hour
// A new user's first hour: a CAD model in another format, the first pose from
// point pairs, the hint when the initial pose is in the wrong unit.
namespace first_hour {

const std::string kDir = ::kDir + "/first_hour";
const std::string kMeshDir = kDir + "/meshes", kSeq = kDir + "/seq";

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

}  // namespace first_hour

// ---------------------------------------------------------------- zot_render
// Its options each change the images as its help says, compared with the
// same short render without them.
namespace render_options {

const std::string kDir = ::kDir + "/render_options";
constexpr int kFrames = 12;

struct Image {
  int width = 0, height = 0;
  std::string pixels;
  int at(int x, int y) const { return (unsigned char)pixels[(size_t)y * width + x]; }
  bool object(int x, int y) const { return at(x, y) > 55; }
};

void forPixels(const Image& img, int border, const std::function<void(int, int)>& f) {
  for (int y = border; y < img.height - border; y++)
    for (int x = border; x < img.width - border; x++) f(x, y);
}

// The short mono sequence, plain table, no blur or noise, with `options`.
std::vector<Image> render(const std::string& name, const std::string& options) {
  const std::string dir = kDir + "/" + name;
  const CommandResult r = runCommand(kTools + "/zot_render -q --config " + kData +
                                         " --camera camera_mono.txt --scale 0.25 --background "
                                         "plain --noise 0 --blur 0 --format pgm --frames " +
                                         std::to_string(kFrames) + " " + options + " " + dir,
                                     dir + "_log");
  std::vector<Image> frames(kFrames);
  for (int i = 0; i < kFrames; i++) {
    char file[32];
    snprintf(file, sizeof file, "/cam0/%06d.pgm", i);
    const std::string text = zot_test::readText(dir + file);
    int header = 0;
    sscanf(text.c_str(), "P5 %d %d 255%n", &frames[i].width, &frames[i].height, &header);
    frames[i].pixels = text.substr(std::min(text.size(), (size_t)header + 1));
    if (r.status != 0 || frames[i].pixels.size() != (size_t)frames[i].width * frames[i].height) {
      ADD_FAILURE() << dir + file << " " << r.err;
      return {};
    }
  }
  return frames;
}

TEST(RenderOptions, TextureOccluderAndLightingChangeTheImagesAsDocumented) {
  if (!zot_sim::pathExists(kTools + "/zot_render")) GTEST_SKIP() << "zot_render needs OpenCV";
  zot_test::freshDirectory(kDir);
  const std::vector<Image> plain = render("plain", ""), textured = render("texture", "--texture"),
                           occluded = render("occluder", "--occluder 0.4"),
                           lit = render("lighting", "--lighting 0.3");
  for (const auto* frames : {&plain, &textured, &occluded, &lit})
    ASSERT_EQ(frames->size(), (size_t)kFrames);
  // The texture adds edges on the object and changes nothing away from it.
  for (int i = 0; i < kFrames; i += 5) {
    const Image &p = plain[i], &t = textured[i];
    int edges[2] = {0, 0}, changedOffObject = 0;
    forPixels(p, 2, [&](int x, int y) {
      bool inside = true, near = false;
      for (int d = -2; d <= 2; d++) inside = inside && p.object(x + d, y) && p.object(x, y + d);
      for (int d = -1; d <= 1; d++) near = near || p.object(x + d, y) || p.object(x, y + d);
      changedOffObject += !near && t.at(x, y) != p.at(x, y);
      for (int k = 0; k < 2; k++) {
        const Image& img = k ? t : p;
        edges[k] += inside && std::abs(img.at(x + 1, y) - img.at(x - 1, y)) +
                                      std::abs(img.at(x, y + 1) - img.at(x, y - 1)) >
                                  60;
      }
    });
    EXPECT_GT(edges[1], 1.4 * edges[0]) << "frame " << i;
    EXPECT_EQ(changedOffObject, 0) << "frame " << i;
  }

  // The occluder covers the object in a grey of its own and moves.
  double leftmost = 1e9, rightmost = -1e9;
  int framesOverObject = 0;
  for (int i = 0; i < kFrames; i++) {
    const Image &p = plain[i], &o = occluded[i];
    std::vector<int> histogram(256, 0);
    int changed = 0, overObject = 0, nearMode = 0;
    double sumX = 0.0;
    forPixels(p, 0, [&](int x, int y) {
      if (std::abs(o.at(x, y) - p.at(x, y)) < 3) return;
      changed++, overObject += p.object(x, y), histogram[o.at(x, y)]++, sumX += x;
    });
    if (changed == 0) continue;
    framesOverObject += overObject > 20;
    const int mode =
        (int)(std::max_element(histogram.begin(), histogram.end()) - histogram.begin());
    for (int g = std::max(0, mode - 10); g <= std::min(255, mode + 10); g++)
      nearMode += histogram[g];
    EXPECT_GT(nearMode, 0.7 * changed) << "frame " << i;
    leftmost = std::min(leftmost, sumX / changed);
    rightmost = std::max(rightmost, sumX / changed);
  }
  EXPECT_GE(framesOverObject, 2);
  EXPECT_GT(rightmost - leftmost, 10.0);

  // The lighting: the mean grey rises and falls, the highlight moves right.
  double lowest = 1e9, highest = 0.0;
  int brightestColumn[kFrames];
  for (int i = 0; i < kFrames; i++) {
    double sumLit = 0.0, sumPlain = 0.0;
    int best = -256;
    forPixels(lit[i], 0, [&](int x, int y) {
      const int added = lit[i].at(x, y) - plain[i].at(x, y);
      sumLit += lit[i].at(x, y), sumPlain += plain[i].at(x, y);
      if (!plain[i].object(x, y) && added > best) best = added, brightestColumn[i] = x;
    });
    lowest = std::min(lowest, sumLit / sumPlain);
    highest = std::max(highest, sumLit / sumPlain);
  }
  EXPECT_GT(highest, 1.2);
  EXPECT_LT(lowest, 0.95);
  EXPECT_LT(brightestColumn[0], lit[0].width / 3);
  EXPECT_GT(brightestColumn[kFrames - 1], 2 * lit[0].width / 3);
}

}  // namespace render_options
