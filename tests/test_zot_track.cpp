// zot_track as a user meets it: options, outputs, and what happens with
// bad input (missing or unreadable files, wrong sizes and counts, a video
// that ends early, a frame that cannot be tracked). Also the file helpers it
// shares with zot_render: pose and time-stamp files, setup headers, timing
// lines.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
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
// ctest runs every test in a process of its own, two at a time: each
// process works in a directory of its own.
const std::string kDir = kTools + "/cli/" + std::to_string(getpid());
const std::string kSeq = kDir + "/seq/";
constexpr int kFrames = 10;

// The scratch directory goes when every test of the process passed; after
// a failure it stays for a look.
class ScratchCleanup : public testing::Environment {
 public:
  void TearDown() override {
    if (!testing::UnitTest::GetInstance()->Failed()) {
      const std::string command = "rm -rf '" + kDir + "'";
      EXPECT_EQ(std::system(command.c_str()), 0);
    }
  }
};
testing::Environment* const kCleanup = testing::AddGlobalTestEnvironment(new ScratchCleanup);

// One short mono sequence, rendered once for all tests of this file.
class ZotTrack : public testing::Test {
 protected:
  static bool toolsBuilt() {
    return zot_sim::pathExists(kTools + "/zot_track") &&
           zot_sim::pathExists(kTools + "/zot_render");
  }
  static void SetUpTestSuite() {
    if (!toolsBuilt()) return;
    zot_test::freshDirectory(kDir);
    const CommandResult r = runCommand(kTools + "/zot_render -q --config " + kData +
                                           " --camera camera_mono.txt --background plain"
                                           " --frames " +
                                           std::to_string(kFrames) + " " + kSeq,
                                       kDir + "/render");
    ASSERT_EQ(r.status, 0) << r.err;
  }

  void SetUp() override {
    if (!toolsBuilt()) GTEST_SKIP() << "zot_track and zot_render are built only with OpenCV";
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

  // A copy of the sequence's images that the test may spoil.
  static std::string copyImages(const std::string& name) {
    const std::string dir = kDir + "/" + name + "_images";
    zot_test::freshDirectory(dir);
    EXPECT_EQ(std::system(("cp " + kSeq + "cam0/*.png " + dir).c_str()), 0);
    return dir;
  }
};

// ---------------------------------------------------------------- options
TEST_F(ZotTrack, HelpAndBadArguments) {
  const CommandResult help = runCommand(kTools + "/zot_track --help", kDir + "/help");
  EXPECT_EQ(help.status, 0);
  for (const char* option :
       {"--config", "--setup-header", "--images", "--times", "--tool-poses", "--initial-pose",
        "--truth", "--out", "--overlays", "--overlay-video", "--pose-format", "Exit status"})
    EXPECT_NE(help.out.find(option), std::string::npos) << option;

  const CommandResult none = runCommand(kTools + "/zot_track", kDir + "/none");
  EXPECT_EQ(none.status, 2);
  EXPECT_NE(none.err.find("zot_track: nothing to do"), std::string::npos) << none.err;

  const CommandResult unknown = track("unknown", "--bogus");
  EXPECT_EQ(unknown.status, 2);
  EXPECT_NE(unknown.err.find("unknown option --bogus"), std::string::npos) << unknown.err;

  const CommandResult noPose =
      runCommand(kTools + "/zot_track --config " + kSeq + " --images " + kSeq + "cam0/%06d.png",
                 kDir + "/nopose");
  EXPECT_EQ(noPose.status, 2);
  EXPECT_NE(noPose.err.find("no initial pose"), std::string::npos) << noPose.err;

  const CommandResult format = track("format", "--pose-format euler");
  EXPECT_EQ(format.status, 2);
  EXPECT_NE(format.err.find("--pose-format takes matrix or rvec"), std::string::npos);

  const CommandResult cameras =
      track("cameras", "--images " + kSeq + "cam0/%06d.png");  // two sources, one camera
  EXPECT_EQ(cameras.status, 1);
  EXPECT_NE(cameras.err.find("the configuration has 1 camera(s) but --images was given 2 time(s)"),
            std::string::npos)
      << cameras.err;
}

// ---------------------------------------------------------------- good runs
TEST_F(ZotTrack, TracksTheSequenceAndWritesCsvSummaryAndOverlays) {
  const CommandResult r = track("good", "--truth " + kSeq +
                                            "truth_poses.txt --overlays "
                                            "--overlay-video " +
                                            kDir + "/out/good/overlay.avi --per-frame");
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  const std::vector<zot_test::TrackedFrame> frames = rows("good");
  ASSERT_EQ((int)frames.size(), kFrames);
  std::vector<zot_sim::Pose> truth;
  std::string error;
  ASSERT_TRUE(zot_sim::readPoseFile(kSeq + "truth_poses.txt", truth, error));
  for (int i = 0; i < kFrames; i++) {
    EXPECT_EQ(frames[i].status, 0);
    EXPECT_EQ(frames[i].message, "OK");
    EXPECT_NEAR(frames[i].time, i / 30.0, 1e-9);
    double dt, dr;
    zot_sim::poseError(frames[i].pose, truth[i].data(), &dt, &dr);
    EXPECT_LT(dt, 2.0);
    EXPECT_LT(dr, 1.0);
    // one line per frame on standard output
    char head[64];
    snprintf(head, sizeof head, "frame %5d  t %8.3f  OK  error ", i, i / 30.0);
    EXPECT_NE(r.out.find(head), std::string::npos) << head;
    char name[64];
    snprintf(name, sizeof name, "/out/good/overlays/cam0_%06d.png", i);
    EXPECT_FALSE(zot_test::readText(kDir + name).empty()) << name;
  }
  EXPECT_GT(zot_test::readText(kDir + "/out/good/overlay.avi").size(), 10000u);
  // The summary on standard output and in summary.txt.
  const std::string summary = zot_test::readText(kDir + "/out/good/summary.txt");
  EXPECT_NE(r.out.find(summary.substr(0, 40)), std::string::npos);
  EXPECT_NE(summary.find("frames: 10 of 10 processed, 10 tracked, 0 failed\n"), std::string::npos)
      << summary;
  EXPECT_NE(summary.find("failures by code: none\n"), std::string::npos);
  for (const char* stage : {"undistortion", "edge detection", "Gauss-Newton", "whole frame"})
    EXPECT_NE(summary.find(stage), std::string::npos) << stage;
  EXPECT_NE(summary.find("error against the truth over 10 tracked frames"), std::string::npos);
}

TEST_F(ZotTrack, RotationVectorFormatAgreesWithTheMatrices) {
  ASSERT_EQ(track("matrix", "-q --frames 3").status, 0);
  ASSERT_EQ(track("rvec", "-q --frames 3 --pose-format rvec").status, 0);
  const std::vector<zot_test::TrackedFrame> matrices = rows("matrix");
  std::ifstream in(kDir + "/out/rvec/poses.csv");
  std::string line;
  std::getline(in, line);
  EXPECT_EQ(line.rfind("frame,time,status,message,tx,ty,tz,rx_deg,ry_deg,rz_deg,wx_deg,", 0), 0u)
      << line;
  for (int i = 0; i < 3; i++) {
    ASSERT_TRUE(std::getline(in, line));
    const std::vector<std::string> f = zot_test::splitCsvLine(line);
    double aa[6];  // translation, rotation vector in degrees
    for (int k = 0; k < 6; k++) aa[k] = std::atof(f[4 + k].c_str());
    zot_sim::Pose T;
    std::string error;
    char text[256];
    snprintf(text, sizeof text, "%.10g %.10g %.10g %.10g %.10g %.10g", aa[0], aa[1], aa[2], aa[3],
             aa[4], aa[5]);
    ASSERT_TRUE(zot_sim::parsePose(text, T, error)) << error;
    for (int k = 0; k < 16; k++) EXPECT_NEAR(T[k], matrices[i].pose[k], 1e-6) << k;
  }
}

// Colour frames go through the library's conversion, which maps a grey
// pixel to itself: colour copies of grey frames give the same track. The
// colour frames come as a directory of PPM files, read in name order.
TEST_F(ZotTrack, ColourFramesFromADirectoryGiveTheGreyTrack) {
  const std::string dir = kDir + "/pgm";
  const CommandResult render = runCommand(kTools + "/zot_render -q --config " + kData +
                                              " --camera camera_mono.txt --background plain"
                                              " --frames 4 --format pgm " +
                                              dir,
                                          kDir + "/pgm_render");
  ASSERT_EQ(render.status, 0) << render.err;
  const std::string colour = kDir + "/ppm";
  zot_test::freshDirectory(colour);
  for (int i = 0; i < 4; i++) {
    char name[32];
    snprintf(name, sizeof name, "/%06d", i);
    const std::string pgm = zot_test::readText(dir + "/cam0" + name + ".pgm");
    const std::string header = "P5\n640 480\n255\n";
    ASSERT_EQ(pgm.compare(0, header.size(), header), 0);
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
  for (size_t i = 0; i < grey.size(); i++) {
    for (int k = 0; k < 16; k++) EXPECT_EQ(grey[i].pose[k], fromColour[i].pose[k]) << i;
  }
}

// The setup array can come from a header as zot_export_header writes it.
TEST_F(ZotTrack, SetupHeaderGivesTheSameTrack) {
  std::vector<double> array(100000);
  int count = 0;
  ZOTtracker::FileParser parser;
  ASSERT_EQ(parser.parseAllFiles(kSeq.c_str(), "camera.txt", "tracker.txt", "model.txt", count,
                                 array.data(), (int)array.size()),
            0);
  const std::string headerDir = kDir + "/header";
  zot_test::freshDirectory(headerDir);
  parser.createGlobalArrayHeaderFile(headerDir.c_str(), count, array.data());
  std::vector<double> values;
  std::string error;
  ASSERT_TRUE(zot_sim::readSetupHeader(headerDir + "/global_array_declaration.h", values, error))
      << error;
  ASSERT_EQ((int)values.size(), count);
  for (int k = 0; k < count; k++) EXPECT_NEAR(values[k], array[k], 5e-7) << k;

  const CommandResult r = runCommand(
      kTools + "/zot_track -q --setup-header " + headerDir + "/global_array_declaration.h" +
          " --images " + kSeq + "cam0/%06d.png --times " + kSeq + "times.txt --tool-poses " + kSeq +
          "tool_poses.txt --initial-pose " + kSeq + "initial_pose.txt --out " + kDir +
          "/out/header",
      kDir + "/header");
  ASSERT_EQ(r.status, 0) << r.err;
  ASSERT_EQ(track("files", "-q").status, 0);
  const std::vector<zot_test::TrackedFrame> a = rows("header"), b = rows("files");
  ASSERT_EQ(a.size(), b.size());
  for (size_t i = 0; i < a.size(); i++) {
    double dt, dr;
    zot_sim::poseError(a[i].pose, b[i].pose, &dt, &dr);
    EXPECT_LT(dt, 0.05) << i;  // the header rounds to six decimals
    EXPECT_LT(dr, 0.05) << i;
  }
}

// ---------------------------------------------------------------- bad input
TEST_F(ZotTrack, MissingConfigurationAndFiles) {
  const CommandResult config = runCommand(
      kTools + "/zot_track --config " + kDir + "/nowhere --images " + kSeq +
          "cam0/%06d.png --initial-pose " + kSeq + "initial_pose.txt --out " + kDir + "/out/x",
      kDir + "/config");
  EXPECT_EQ(config.status, 1);
  EXPECT_NE(config.out.find("ERROR: invalid filename"), std::string::npos) << config.out;
  EXPECT_NE(config.err.find("cannot read the configuration in " + kDir +
                            "/nowhere (camera file "
                            "camera.txt"),
            std::string::npos)
      << config.err;

  const CommandResult times = track("times", "--times " + kDir + "/missing.txt");
  EXPECT_EQ(times.status, 1);
  EXPECT_NE(times.err.find("cannot open " + kDir + "/missing.txt"), std::string::npos);

  const CommandResult images = track("images", "", kDir + "/noimages/%06d.png");
  EXPECT_EQ(images.status, 1);
  EXPECT_NE(images.err.find("missing image " + kDir + "/noimages/000000.png"), std::string::npos)
      << images.err;

  const CommandResult pattern = track("pattern", "", kSeq + "cam0/frame.png");
  EXPECT_EQ(pattern.status, 1);
  EXPECT_NE(pattern.err.find("no such file or directory: " + kSeq + "cam0/frame.png"),
            std::string::npos);

  const CommandResult pose = runCommand(kTools + "/zot_track --config " + kSeq + " --images " +
                                            kSeq + "cam0/%06d.png --initial-pose '1 2 3'",
                                        kDir + "/pose");
  EXPECT_EQ(pose.status, 1);
  EXPECT_NE(pose.err.find("a pose needs 16, 12 or 6 numbers, found 3"), std::string::npos)
      << pose.err;
}

// Input that breaks down in the middle: the run stops at the frame, with a
// message, exit status 1 and everything tracked before it written.
TEST_F(ZotTrack, InputBreakingDownMidwayKeepsWhatWasTracked) {
  // an image missing in the middle
  const std::string gap = copyImages("gap");
  ASSERT_EQ(std::remove((gap + "/000006.png").c_str()), 0);
  const CommandResult missing = track("gap", "-q", gap + "/%06d.png");
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("cam 0: missing image " + gap + "/000006.png"), std::string::npos)
      << missing.err;
  EXPECT_EQ(rows("gap").size(), 6u);
  EXPECT_NE(zot_test::readText(kDir + "/out/gap/summary.txt")
                .find("frames: 6 of 10 processed, 6 tracked, 0 failed\n"),
            std::string::npos);
  EXPECT_NE(zot_test::readText(kDir + "/out/gap/summary.txt").find("INPUT ERROR at frame 6: "),
            std::string::npos);

  // an image of the wrong size (a 12 x 8 grey PGM)
  const std::string small = copyImages("small");
  {
    std::ofstream pgm(small + "/000003.png.pgm", std::ios::binary);
    pgm << "P5\n12 8\n255\n" << std::string(96, '\x80');
  }
  ASSERT_EQ(std::rename((small + "/000003.png.pgm").c_str(), (small + "/000003.png").c_str()), 0);
  const CommandResult size = track("small", "-q", small + "/%06d.png");
  EXPECT_EQ(size.status, 1);
  EXPECT_NE(size.err.find("cam 0: " + small + "/000003.png is 12 x 8, the camera is 640 x 480"),
            std::string::npos)
      << size.err;
  EXPECT_EQ(rows("small").size(), 3u);

  // a file that is not an image
  const std::string junk = copyImages("junk");
  {
    std::ofstream f(junk + "/000004.png");
    f << "not an image\n";
  }
  const CommandResult unreadable = track("junk", "-q", junk + "/%06d.png");
  EXPECT_EQ(unreadable.status, 1);
  EXPECT_NE(unreadable.err.find("cannot read the image " + junk + "/000004.png"), std::string::npos)
      << unreadable.err;
  EXPECT_EQ(rows("junk").size(), 4u);

  // fewer tool poses than time stamps
  std::vector<zot_sim::Pose> tool;
  std::string error;
  ASSERT_TRUE(zot_sim::readPoseFile(kSeq + "tool_poses.txt", tool, error));
  tool.resize(7);
  ASSERT_TRUE(zot_sim::writePoseFile(kDir + "/short_tool.txt", tool, "", error));
  const CommandResult poses = track("poses", "-q --tool-poses " + kDir + "/short_tool.txt");
  EXPECT_EQ(poses.status, 1);
  EXPECT_NE(poses.err.find(kDir + "/short_tool.txt has 7 tool poses for 10 frames (" + kSeq +
                           "times.txt)"),
            std::string::npos)
      << poses.err;
  EXPECT_EQ(rows("poses").size(), 7u);

  // time running backwards
  std::vector<double> times;
  ASSERT_TRUE(zot_sim::readNumberFile(kSeq + "times.txt", times, error));
  times[5] = times[3];
  ASSERT_TRUE(zot_sim::writeNumberFile(kDir + "/back_times.txt", times, "", error));
  const CommandResult back = track("back", "-q --times " + kDir + "/back_times.txt");
  EXPECT_EQ(back.status, 1);
  EXPECT_NE(back.err.find("is earlier than"), std::string::npos) << back.err;
  EXPECT_EQ(rows("back").size(), 5u);
}

TEST_F(ZotTrack, VideoEndingEarly) {
  const std::string dir = kDir + "/video";
  const CommandResult render = runCommand(kTools + "/zot_render -q --config " + kData +
                                              " --camera camera_mono.txt --background plain"
                                              " --frames 6 --video " +
                                              dir,
                                          kDir + "/video_render");
  ASSERT_EQ(render.status, 0) << render.err;
  const CommandResult r = track("video", "-q", dir + "/cam0.avi");  // 10 time stamps
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("cam 0: the video " + dir + "/cam0.avi ends after 6 frames, 10 expected"),
            std::string::npos)
      << r.err;
  const std::vector<zot_test::TrackedFrame> frames = rows("video");
  ASSERT_EQ(frames.size(), 6u);
  for (const zot_test::TrackedFrame& f : frames) EXPECT_EQ(f.status, 0) << f.message;
}

// A frame without the object fails with its code and message; the next
// frames are tracked from the prediction; the exit status says so.
TEST_F(ZotTrack, FailedFrameIsReportedAndTrackingGoesOn) {
  const std::string blank = copyImages("blank");
  {
    std::ofstream pgm(blank + "/000004.png.pgm", std::ios::binary);
    pgm << "P5\n640 480\n255\n" << std::string(640 * 480, '\x40');
  }
  ASSERT_EQ(std::rename((blank + "/000004.png.pgm").c_str(), (blank + "/000004.png").c_str()), 0);
  const CommandResult r =
      track("blank", "--truth " + kSeq + "truth_poses.txt", blank + "/%06d.png");
  EXPECT_EQ(r.status, 3) << r.err;
  const std::vector<zot_test::TrackedFrame> frames = rows("blank");
  ASSERT_EQ((int)frames.size(), kFrames);
  for (int i = 0; i < kFrames; i++) {
    if (i == 4) {
      EXPECT_EQ(frames[i].status, ZOTtracker::ZOT_ERR_TOO_MANY_OUTLIERS);
      EXPECT_EQ(frames[i].message, "FAILURE: Too many outliers");
      EXPECT_FALSE(frames[i].hasPose);
    } else {
      EXPECT_EQ(frames[i].status, 0) << i << " " << frames[i].message;
    }
  }
  const std::string summary = zot_test::readText(kDir + "/out/blank/summary.txt");
  EXPECT_NE(summary.find("frames: 10 of 10 processed, 9 tracked, 1 failed\n"), std::string::npos)
      << summary;
  EXPECT_NE(summary.find("failures by code:\n    -2 FAILURE: Too many outliers"), std::string::npos)
      << summary;
  EXPECT_NE(summary.find("(frames 4)"), std::string::npos);
}

TEST_F(ZotTrack, AccuracyLimits) {
  const CommandResult strict =
      track("strict", "-q --truth " + kSeq + "truth_poses.txt --max-mean-error 0.0001 0.0001");
  EXPECT_EQ(strict.status, 4);
  EXPECT_NE(zot_test::readText(kDir + "/out/strict/summary.txt").find("ACCURACY LIMITS EXCEEDED"),
            std::string::npos);
  const CommandResult loose =
      track("loose", "-q --truth " + kSeq + "truth_poses.txt --max-mean-error 1% 0.5");
  EXPECT_EQ(loose.status, 0);
  EXPECT_NE(zot_test::readText(kDir + "/out/loose/summary.txt")
                .find("accuracy limits met: mean errors within 1.200 and 0.500 deg"),
            std::string::npos);
  const CommandResult noTruth = track("notruth", "--max-mean-error 1 1");
  EXPECT_EQ(noTruth.status, 2);
}

// ---------------------------------------------------------------- file helpers
TEST(SequenceFiles, PoseFormatsAndErrors) {
  zot_test::freshDirectory(kDir);
  zot_sim::Pose a, b, c;
  std::string error;
  // 16 numbers, 12 numbers and translation + rotation vector give one pose
  ASSERT_TRUE(zot_sim::parsePose("0 -1 0 10, 1 0 0 20; 0 0 1 30 0 0 0 1", a, error)) << error;
  ASSERT_TRUE(zot_sim::parsePose("0 -1 0 10 1 0 0 20 0 0 1 30", b, error)) << error;
  ASSERT_TRUE(zot_sim::parsePose("10 20 30 0 0 90", c, error)) << error;
  for (int k = 0; k < 16; k++) {
    EXPECT_EQ(a[k], b[k]) << k;
    EXPECT_NEAR(a[k], c[k], 1e-12) << k;
  }
  EXPECT_FALSE(zot_sim::parsePose("1 2 3", a, error));
  EXPECT_FALSE(zot_sim::parsePose("2 0 0 0 0 1 0 0 0 0 1 0", a, error));
  EXPECT_EQ(error, "the rotation part of the pose is not orthonormal");
  EXPECT_FALSE(zot_sim::parsePose("1 0 0 0 0 1 0 0 0 0 1 0 0 0 0 2", a, error));
  EXPECT_FALSE(zot_sim::parsePose("1 0 0 x", a, error));

  double dt, dr;
  ASSERT_TRUE(zot_sim::parsePose("13 24 30 0 0 90.5", c, error));
  zot_sim::poseError(c.data(), a.data(), &dt, &dr);
  EXPECT_NEAR(dt, 5.0, 1e-12);
  EXPECT_NEAR(dr, 0.5, 1e-9);

  // files: comments and blank lines skipped, line numbers in errors
  const std::string path = kDir + "/poses_test.txt";
  {
    std::ofstream f(path);
    f << "# comment\n\n10 20 30 0 0 90\n  # indented comment\n1 0 0 0 0 1 0 0 0 0 1 0\n";
  }
  std::vector<zot_sim::Pose> poses;
  ASSERT_TRUE(zot_sim::readPoseFile(path, poses, error)) << error;
  ASSERT_EQ(poses.size(), 2u);
  EXPECT_NEAR(poses[0][1], -1.0, 1e-12);
  {
    std::ofstream f(path, std::ios::app);
    f << "1 2\n";
  }
  EXPECT_FALSE(zot_sim::readPoseFile(path, poses, error));
  EXPECT_EQ(error, path + ":6: a pose needs 16, 12 or 6 numbers, found 2");
}

TEST(SequenceFiles, CameraAndModelFilesRoundTrip) {
  std::vector<zot_sim::CameraConfig> cams, again;
  zot_sim::ModelConfig model, modelAgain;
  std::string error;
  ASSERT_EQ(zot_sim::loadCameraFile(kData, "camera_stereo.txt", cams, error), 0) << error;
  ASSERT_EQ(cams.size(), 2u);
  EXPECT_EQ(cams[1].masks.size(), 1u);
  EXPECT_EQ(cams[0].fx, 612.43);
  ASSERT_EQ(zot_sim::loadModelFile(kData, "model_chamfered_box.txt", model, error), 0) << error;
  ASSERT_EQ(model.bodies.size(), 2u);
  EXPECT_EQ(model.bodies[1].supportBody, 0);
  EXPECT_EQ(model.bodies[1].supportFace, 5);
  EXPECT_EQ(zot_sim::modelSize(model, nullptr), 120.0);

  const std::string dir = kDir + "/roundtrip";  // freshDirectory creates the parents
  zot_test::freshDirectory(dir);
  ASSERT_TRUE(zot_sim::writeCameraFile(dir + "/camera.txt", cams, "test", error)) << error;
  ASSERT_TRUE(zot_sim::writeModelFile(dir, "model.txt", model, error)) << error;
  ASSERT_EQ(zot_sim::loadCameraFile(dir, "camera.txt", again, error), 0) << error;
  ASSERT_EQ(zot_sim::loadModelFile(dir, "model.txt", modelAgain, error), 0) << error;
  ASSERT_EQ(again.size(), cams.size());
  for (size_t c = 0; c < cams.size(); c++) {
    EXPECT_EQ(again[c].width, cams[c].width);
    EXPECT_DOUBLE_EQ(again[c].cy, cams[c].cy);
    EXPECT_DOUBLE_EQ(again[c].dist[2], cams[c].dist[2]);
    EXPECT_EQ(again[c].toolFromCamera, cams[c].toolFromCamera);
    EXPECT_EQ(again[c].masks, cams[c].masks);
  }
  ASSERT_EQ(modelAgain.bodies.size(), model.bodies.size());
  EXPECT_EQ(modelAgain.localFrames, model.localFrames);
  for (size_t b = 0; b < model.bodies.size(); b++) {
    EXPECT_EQ(modelAgain.bodies[b].type, model.bodies[b].type);
    EXPECT_EQ(modelAgain.bodies[b].mesh.vertices, model.bodies[b].mesh.vertices);
    EXPECT_EQ(modelAgain.bodies[b].mesh.faceIndices, model.bodies[b].mesh.faceIndices);
    EXPECT_EQ(modelAgain.bodies[b].segments, model.bodies[b].segments);
  }

  // The non-convex bracket passes the tracker's polyhedron checks (closed,
  // consistently wound): zot_render sets a tracker up from what it writes.
  if (!zot_sim::pathExists(kTools + "/zot_render")) return;
  const CommandResult r = runCommand(kTools + "/zot_render -q --config " + kData +
                                         " --model model_l_bracket.txt --frames 1 " + dir + "/b",
                                     dir + "/bracket");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}


}  // namespace
