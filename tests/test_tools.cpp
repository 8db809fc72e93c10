// The host programs as a user meets them: exit codes, the files they write,
// the poses zot_track tracks and the first line of an error; not the layout
// of their help. Also the timing lines zot_track reads from the tracker.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "FileParser.h"
#include "IO.h"
#include "scene_config.h"
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
  const std::string base = kTools + "/zot_track --config " + kSeq + " --images " + kSeq +
                           "cam0/%06d.png";
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
  ASSERT_EQ(runCommand(kTools + "/zot_render -q --config " + kData +
                           " --camera camera_mono.txt --background plain --frames 6 --video " +
                           video,
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
// Faces of the cube changed by `edit`.
Faces cubeWith(const std::function<void(Faces&)>& edit) {
  Faces f = kCube;
  edit(f);
  return f;
}
}  // namespace

// zot_mesh2poly's output is read back by the library's parser: face count
// and signed volume (positive when wound outward); a failure writes nothing.
TEST(Mesh2Poly, MeshesBecomeOutwardPolyhedraOrFailWithoutOutput) {
  if (!built("zot_mesh2poly")) GTEST_SKIP() << "zot_mesh2poly not built";
  zot_test::freshDirectory(kDir);
  const std::string cube = writeObj("cube.obj", kCube), stl = writeBinaryStl("cube.stl");
  const std::string open = writeObj("open.obj", cubeWith([](Faces& f) { f.resize(10); }));
  const std::string degenerate =
      writeObj("degenerate.obj", cubeWith([](Faces& f) { f.push_back({1, 1, 2}); }));
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
      {writeObj("inward.obj", cubeWith([](Faces& fs) {
         for (auto& f : fs) std::swap(f[1], f[2]);
       })),
       0, 6, 1.0, ""},
      {writeObj("flipped.obj", cubeWith([](Faces& f) { std::swap(f[0][1], f[0][2]); })), 1, -1,
       0, "inconsistent orientation"},
      {open, 1, -1, 0, "not closed: 4 edge(s)"},
      {"--flat " + open, 0, 5, 0, ""},
      {"--flat " + writeObj("nonmanifold.obj", cubeWith([](Faces& f) { f.push_back({1, 2, 7}); })),
       1, -1, 0, "non-manifold"},
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
        volume += (A[0] * (B[1] * C[2] - B[2] * C[1]) - A[1] * (B[0] * C[2] - B[2] * C[0]) +
                   A[2] * (B[0] * C[1] - B[1] * C[0])) / 6.0;
      }
    }
    EXPECT_EQ(i, count) << c.args;
    EXPECT_EQ(nf, c.nf) << c.args;
    if (c.volume != 0.0) {
      EXPECT_NEAR(volume, c.volume, 1e-3) << c.args;
    }
  }
  EXPECT_EQ(runCommand(kTools + "/zot_mesh2poly only_one.obj", kDir + "/m").status, 2);
}
