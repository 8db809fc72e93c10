// The host programs as a user meets them: exit codes, the files they write,
// the poses zot_track tracks and the first line of an error; not the layout
// of their help. Also the sequence-file helpers zot_track and zot_render
// share.
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
#include "frame_timing.h"
#include "scene_config.h"
#include "tool_runner.h"

namespace {

using zot_test::CommandResult;
using zot_test::runCommand;
const std::string kTools = ZOT_TOOLS_DIR;
const std::string kData = ZOT_DATA_DIR;
// ctest runs every test in a process of its own, two at a time: each
// process works in a directory of its own, removed when all passed.
const std::string kDir = kTools + "/cli/" + std::to_string(getpid());
const std::string kSeq = kDir + "/seq/";
constexpr int kFrames = 10;

class ScratchCleanup : public testing::Environment {
 public:
  void TearDown() override {
    if (!testing::UnitTest::GetInstance()->Failed()) {
      EXPECT_EQ(std::system(("rm -rf '" + kDir + "'").c_str()), 0);
    }
  }
};
testing::Environment* const kCleanup = testing::AddGlobalTestEnvironment(new ScratchCleanup);

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
  EXPECT_EQ(runCommand(kTools + "/zot_track --help", kDir + "/help").status, 0);
  EXPECT_EQ(runCommand(kTools + "/zot_track", kDir + "/none").status, 2);
  EXPECT_EQ(track("unknown", "--bogus").status, 2);
  EXPECT_EQ(track("format", "--pose-format euler").status, 2);
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
  std::vector<zot_sim::Pose> truth;
  std::string error;
  ASSERT_TRUE(zot_sim::readPoseFile(kSeq + "truth_poses.txt", truth, error));
  for (int i = 0; i < kFrames; i++) {
    EXPECT_EQ(frames[i].status, 0);
    EXPECT_NEAR(frames[i].time, i / 30.0, 1e-9);
    double dt, dr;
    zot_sim::poseError(frames[i].pose, truth[i].data(), &dt, &dr);
    EXPECT_LT(dt, 2.0);
    EXPECT_LT(dr, 1.0);
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

// Colour copies of grey frames (a directory of PPM files) give the same
// track as the grey frames.
TEST_F(ZotTrack, ColourFramesGiveTheGreyTrack) {
  const std::string dir = kDir + "/pgm", colour = kDir + "/ppm";
  ASSERT_EQ(runCommand(kTools + "/zot_render -q --config " + kData +
                           " --camera camera_mono.txt --background plain --frames 4 --format pgm " +
                           dir,
                       kDir + "/pgm_render")
                .status,
            0);
  zot_test::freshDirectory(colour);
  const std::string header = "P5\n640 480\n255\n";
  for (int i = 0; i < 4; i++) {
    char name[32];
    snprintf(name, sizeof name, "/%06d", i);
    const std::string pgm = zot_test::readText(dir + "/cam0" + name + ".pgm");
    ASSERT_EQ(pgm.size(), header.size() + 640 * 480);
    std::string ppm = "P6\n640 480\n255\n";
    for (size_t k = header.size(); k < pgm.size(); k++) ppm.append(3, pgm[k]);
    std::ofstream(colour + name + ".ppm", std::ios::binary) << ppm;
  }
  ASSERT_EQ(track("grey", "-q --frames 4", dir + "/cam0/%06d.pgm").status, 0);
  ASSERT_EQ(track("colour", "-q --frames 4", colour).status, 0);
  const std::vector<zot_test::TrackedFrame> grey = rows("grey"), fromColour = rows("colour");
  ASSERT_EQ(grey.size(), 4u);
  ASSERT_EQ(fromColour.size(), 4u);
  for (size_t i = 0; i < 4; i++)
    for (int k = 0; k < 16; k++) EXPECT_EQ(grey[i].pose[k], fromColour[i].pose[k]) << i;

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
  };
  for (const Case& c : cases) {
    const CommandResult r = track(c.name, c.extra, c.images);
    EXPECT_EQ(r.status, 1) << c.name;
    EXPECT_NE(firstLine(r.err).find(c.firstLine), std::string::npos) << c.name << ": " << r.err;
    EXPECT_EQ(rows(c.name).size(), c.tracked) << c.name;
  }
  EXPECT_NE(summary("gap").find("frames: 6 of 10 processed, 6 tracked, 0 failed\n"),
            std::string::npos);
  // A video that ends early: the frames it held are tracked.
  const std::string video = kDir + "/video";
  ASSERT_EQ(runCommand(kTools + "/zot_render -q --config " + kData +
                           " --camera camera_mono.txt --background plain --frames 6 --video " +
                           video,
                       kDir + "/video_render")
                .status,
            0);
  const CommandResult r = track("video", "-q", video + "/cam0.avi");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(firstLine(r.err).find("cam 0: the video " + video + "/cam0.avi ends after 6 frames"),
            std::string::npos)
      << r.err;
  const std::vector<zot_test::TrackedFrame> frames = rows("video");
  ASSERT_EQ(frames.size(), 6u);
  for (const zot_test::TrackedFrame& f : frames) EXPECT_EQ(f.status, 0) << f.message;
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

// ---------------------------------------------------------------- sequence files
TEST(SequenceFiles, CamerasModelsAndTimingLines) {
  zot_test::freshDirectory(kDir);
  std::string error;
  // Camera and model files written and read back.
  std::vector<zot_sim::CameraConfig> cams, again;
  zot_sim::ModelConfig model, modelAgain;
  ASSERT_EQ(zot_sim::loadCameraFile(kData, "camera_stereo.txt", cams, error), 0) << error;
  ASSERT_EQ(zot_sim::loadModelFile(kData, "model_chamfered_box.txt", model, error), 0) << error;
  EXPECT_EQ(zot_sim::modelSize(model, nullptr), 120.0);
  const std::string dir = kDir + "/roundtrip";
  zot_test::freshDirectory(dir);
  ASSERT_TRUE(zot_sim::writeCameraFile(dir + "/camera.txt", cams, "test", error)) << error;
  ASSERT_TRUE(zot_sim::writeModelFile(dir, "model.txt", model, error)) << error;
  ASSERT_EQ(zot_sim::loadCameraFile(dir, "camera.txt", again, error), 0) << error;
  ASSERT_EQ(zot_sim::loadModelFile(dir, "model.txt", modelAgain, error), 0) << error;
  ASSERT_EQ(again.size(), 2u);
  for (size_t k = 0; k < cams.size(); k++) {
    EXPECT_DOUBLE_EQ(again[k].cy, cams[k].cy);
    EXPECT_DOUBLE_EQ(again[k].dist[2], cams[k].dist[2]);
    EXPECT_EQ(again[k].toolFromCamera, cams[k].toolFromCamera);
    EXPECT_EQ(again[k].masks, cams[k].masks);
  }
  ASSERT_EQ(modelAgain.bodies.size(), model.bodies.size());
  EXPECT_EQ(modelAgain.localFrames, model.localFrames);
  for (size_t k = 0; k < model.bodies.size(); k++) {
    EXPECT_EQ(modelAgain.bodies[k].mesh.vertices, model.bodies[k].mesh.vertices);
    EXPECT_EQ(modelAgain.bodies[k].mesh.faceIndices, model.bodies[k].mesh.faceIndices);
    EXPECT_EQ(modelAgain.bodies[k].segments, model.bodies[k].segments);
  }

  // Timing lines of the diagnostic string; only the bytes counted belong to the frame.
  ZOTtracker::m_global_output_string_counter = 0;
  ZOTtracker::showElapsed("Undistortion (2x)", 0, 1500000);
  ZOTtracker::globalStrcat("iteration 1\n", 12);
  ZOTtracker::showElapsed("Edge detection (2x)", 0, 2250000);
  ZOTtracker::showElapsed("Total Gauss-Newton loop (pose estimation)", 0, 4000000);
  zot_sim::FrameTiming t;
  EXPECT_TRUE(zot_sim::parseFrameTiming(ZOTtracker::m_global_output_string,
                                        ZOTtracker::m_global_output_string_counter, &t));
  EXPECT_DOUBLE_EQ(t.undistortion, 1.5);
  EXPECT_DOUBLE_EQ(t.edges, 2.25);
  EXPECT_DOUBLE_EQ(t.gaussNewton, 4.0);
  EXPECT_FALSE(zot_sim::parseFrameTiming(ZOTtracker::m_global_output_string, 40, &t));
  ZOTtracker::m_global_output_string_counter = 0;
}

// ---------------------------------------------------------------- zot_export_header
TEST(ExportHeader, WritesTheHeaderTheBuildUsesAndFailsCleanly) {
  if (!built("zot_export_header")) GTEST_SKIP() << "zot_export_header not built";
  const std::string out = kDir + "/export", tool = kTools + "/zot_export_header";
  zot_test::freshDirectory(out);
  CommandResult r = runCommand(tool + " --config-dir " + kData + " --out " + out +
                                   " --camera camera_stereo.txt --tracker tracker.txt"
                                   " --model model_chamfered_box.txt",
                               out + "/run");
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string text = zot_test::readText(out + "/global_array_declaration.h");
  EXPECT_EQ(text.rfind("const int setup_global_array_counter = 219;\n", 0), 0u);
  const std::string generated = kTools + "/generated/global_array_declaration.h";
  if (zot_sim::pathExists(generated)) {
    EXPECT_EQ(text, zot_test::readText(generated));
  }
  // The defaults name data/'s stereo configuration.
  ASSERT_EQ(runCommand(tool + " --config-dir " + kData + " --out " + out, out + "/run").status, 0);
  EXPECT_EQ(zot_test::readText(out + "/global_array_declaration.h"), text);
  EXPECT_EQ(runCommand(tool + " --help", out + "/run").status, 0);
  EXPECT_EQ(runCommand(tool + " --frobnicate", out + "/run").status, 2);
  EXPECT_EQ(runCommand(tool + " --out", out + "/run").status, 2);
  r = runCommand(tool + " --config-dir /no/such/dir --out " + out, out + "/run");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(firstLine(r.err + r.out).find("configuration directory '/no/such/dir' not found"),
            std::string::npos)
      << r.err;
  // A missing file: the parser's message and code, and no header.
  std::remove((out + "/global_array_declaration.h").c_str());
  r = runCommand(tool + " --config-dir " + kData + " --out " + out + " --tracker nothere.txt",
                 out + "/run");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE((r.out + r.err).find("(code -11, see the message above)"), std::string::npos);
  EXPECT_FALSE(zot_sim::pathExists(out + "/global_array_declaration.h"));
}

// ---------------------------------------------------------------- zot_mesh2poly
namespace {
const double kCubeV[8][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0},
                             {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}};
// The unit cube as 12 outward triangles (1-based).
std::vector<std::vector<int>> cubeFaces() {
  return {{1, 3, 2}, {1, 4, 3}, {5, 6, 7}, {5, 7, 8}, {1, 2, 6}, {1, 6, 5},
          {2, 3, 7}, {2, 7, 6}, {3, 4, 8}, {3, 8, 7}, {4, 1, 5}, {4, 5, 8}};
}
std::string writeObj(const std::string& name, const std::vector<std::vector<int>>& faces,
                     const std::string& extraVertexLine = "") {
  const std::string path = kDir + "/" + name;
  std::ofstream out(path);
  for (const auto& v : kCubeV) out << "v " << v[0] << " " << v[1] << " " << v[2] << "\n";
  out << extraVertexLine;
  for (const auto& f : faces) {
    out << "f";
    for (int i : f) out << " " << i << "/1/1";
    out << "\n";
  }
  return path;
}
void writeBinaryStl(const std::string& path, long truncateBy = 0) {
  std::string data(80, ' ');
  const uint32_t n = 12;
  data.append((const char*)&n, 4);
  for (const auto& f : cubeFaces()) {
    float rec[12] = {0};
    for (int c = 0; c < 3; c++)
      for (int k = 0; k < 3; k++) rec[3 + 3 * c + k] = (float)kCubeV[f[c] - 1][k];
    data.append((const char*)rec, 48);
    data.append(2, '\0');
  }
  data.resize(data.size() - truncateBy);
  std::ofstream(path, std::ios::binary) << data;
}
// zot_mesh2poly's output read back by the library's parser: the face
// count and the signed volume (positive when wound outward), or -1 faces.
struct Poly {
  int nf = -1;
  double volume = 0.0;
};
Poly convert(const std::string& args, int expectedStatus, const std::string& message = "") {
  const std::string out = kDir + "/poly.txt";
  std::remove(out.c_str());
  const CommandResult r = runCommand(kTools + "/zot_mesh2poly " + args + " " + out, out);
  EXPECT_EQ(r.status, expectedStatus) << args << "\n" << r.out << r.err;
  EXPECT_NE((r.out + r.err).find(message), std::string::npos) << args << "\n" << r.out << r.err;
  Poly p;
  if (r.status != 0) {
    EXPECT_FALSE(zot_sim::pathExists(out)) << args;
    return p;
  }
  std::vector<double> a(10000);
  int count = 0;
  ZOTtracker::FileParser parser;
  EXPECT_EQ(parser.parsePolyhedron(out.c_str(), count, a.data(), (int)a.size()), 0);
  const int nv = (int)a[0];
  const double* v = &a[1];
  int i = 1 + 3 * nv;
  p.nf = (int)a[i++];
  for (int f = 0; f < p.nf; f++) {
    const int n = (int)a[i];
    for (int k = 1; k + 1 < n; k++) {
      const double* A = v + 3 * ((int)a[i + 1] - 1);
      const double* B = v + 3 * ((int)a[i + 1 + k] - 1);
      const double* C = v + 3 * ((int)a[i + 2 + k] - 1);
      p.volume += (A[0] * (B[1] * C[2] - B[2] * C[1]) - A[1] * (B[0] * C[2] - B[2] * C[0]) +
                   A[2] * (B[0] * C[1] - B[1] * C[0])) /
                  6.0;
    }
    i += n + 1;
  }
  EXPECT_EQ(i, count);
  return p;
}
}  // namespace

TEST(Mesh2Poly, MeshesBecomeOutwardPolyhedraOrFailWithoutOutput) {
  if (!built("zot_mesh2poly")) GTEST_SKIP() << "zot_mesh2poly not built";
  zot_test::freshDirectory(kDir);
  const std::string cube = writeObj("cube.obj", cubeFaces());
  Poly p = convert("--units m:mm " + cube, 0);
  EXPECT_EQ(p.nf, 6) << "coplanar triangles merge into quadrilaterals";
  EXPECT_NEAR(p.volume, 1e9, 1e-3);
  EXPECT_EQ(convert("--coplanar-angle 0 " + cube, 0).nf, 12);
  writeBinaryStl(kDir + "/cube.stl");
  EXPECT_EQ(convert(kDir + "/cube.stl", 0).nf, 6);
  EXPECT_NEAR(convert("--scale 25.4 " + kDir + "/cube.stl", 0).volume, 25.4 * 25.4 * 25.4, 1e-3);
  // Orientation and closedness are checked as the set-up will.
  auto faces = cubeFaces();
  for (auto& f : faces) std::swap(f[1], f[2]);
  EXPECT_GT(convert(writeObj("inward.obj", faces), 0).volume, 0.0) << "reversed";
  std::swap(faces[0][1], faces[0][2]);
  convert(writeObj("flipped.obj", faces), 1, "inconsistent orientation");
  faces = cubeFaces();
  faces.resize(10);
  const std::string open = writeObj("open.obj", faces);
  convert(open, 1, "not closed: 4 edge(s)");
  EXPECT_EQ(convert("--flat " + open, 0).nf, 5);
  faces = cubeFaces();
  faces.push_back({1, 2, 7});
  convert("--flat " + writeObj("nonmanifold.obj", faces), 1, "non-manifold");
  // Bad input fails cleanly; degenerate faces can be dropped on request.
  faces = cubeFaces();
  faces.push_back({1, 1, 2});
  const std::string degenerate = writeObj("degenerate.obj", faces);
  convert(degenerate, 1, "face 13 is degenerate");
  EXPECT_EQ(convert("--drop-degenerate " + degenerate, 0).nf, 6);
  convert(writeObj("nan.obj", cubeFaces(), "v nan 0 0\n"), 1, "non-finite coordinate");
  convert(writeObj("badindex.obj", {{1, 2, 9}}), 1, "refers to no vertex");
  writeBinaryStl(kDir + "/truncated.stl", 30);
  convert(kDir + "/truncated.stl", 1, "truncated binary STL");
  std::ofstream(kDir + "/cut.stl") << "solid x\n facet normal 0 0 1\n outer loop\n vertex 0 0 0\n";
  convert(kDir + "/cut.stl", 1, "truncated");
  convert(kDir + "/missing.obj", 1, "cannot open");
  convert(kDir + "/mesh.ply", 1, "unknown input format");
  // Usage errors.
  convert("--scale abc a.obj", 2);
  convert("--units m:furlong a.obj", 2);
  EXPECT_EQ(runCommand(kTools + "/zot_mesh2poly only_one.obj", kDir + "/m").status, 2);
  EXPECT_EQ(runCommand(kTools + "/zot_mesh2poly --help", kDir + "/m").status, 0);
}
