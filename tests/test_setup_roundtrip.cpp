// Configuration from end to end: text files into the setup array (line rules,
// error codes and messages, the bounded parser), the array into a tracker
// (total check, capacity checks, refusals of what can never track, reading
// rules, undistortion tables), and the round trips through the header that
// the build compiles in and through the setup array codec.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "FileParser.h"
#include "GenericObjectTracker.h"
#include "IO.h"
#include "Math.h"
#include "SetupArray.h"
#include "memory_handling.h"
#include "tool_runner.h"
#include "tracker_scene.h"

#if __has_include("global_array_declaration.h")
#include "global_array_declaration.h"
#define ZOT_HAVE_COMPILED_SETUP 1
#else
#define ZOT_HAVE_COMPILED_SETUP 0
#endif

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const char* kTrackerText =
    "400\n1.0\n4\n5.0\n20\n50 100\n20.0\n15\n0.05 0.05\n20.0 30.0\n20 30\n4.0\n2.0 2.0\n"
    "100.0 100.0\n0.5 1.0\n1000.0\n";
const double kTrackerValues[23] = {400, 1.0,  4,     5.0,   20,   50,  100,   20.0,
                                   15,  0.05, 0.05,  20.0,  30.0, 20,  30,    4.0,
                                   2.0, 2.0,  100.0, 100.0, 0.5,  1.0, 1000.0};
const char* kCameraText =
    "1\n640 480\n50 1500\n600 601 319.5 239.5 0.5\n-0.2 0.05 0.001 -0.002 0.01\n"
    "1 0 0 10 0 1 0 20 0 0 1 30\n0\n";
const double kCameraValues[28] = {1,    640,  480,   50,     1500, 600, 601, 319.5, 239.5, 0.5,
                                  -0.2, 0.05, 0.001, -0.002, 0.01, 1,   0,   0,     10,    0,
                                  1,    0,    20,    0,      0,    1,   30,  0};
const char* kTetrahedron =
    "nv 4\nv 0 0 0\nv 1 0 0\nv 0 1 0\nv 0 0 1\nnf 4\nf 3 1 3 2\nf 3 1 2 4\nf 3 1 4 3\nf 3 2 3 4\n";
const char* kPolyline = "nv 3\nv 0 0 0\nv 1 0 0\nv 1 1 0\nne 2\ne 1 2\ne 2 3\n";
// Values of the sample configuration: stereo camera file, tracker, model.
constexpr int kStereoValues = 73, kModelValues = 123;
constexpr double kGuard = -12345.5;

// Fixture files in a fresh directory and a large array whose tail is
// watched for stray writes.
class ConfigFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dir = testing::TempDir() + "zot_config_" + std::to_string(getpid()) + "_" +
            testing::UnitTest::GetInstance()->current_test_info()->name();
    zot_test::freshDirectory(m_dir);
    m_array.assign(4096, kGuard);
  }
  void TearDown() override { std::filesystem::remove_all(m_dir); }
  void write(const std::string& name, const std::string& text) {
    std::ofstream(m_dir + "/" + name, std::ios::binary) << text;
  }
  std::string path(const std::string& name) const { return m_dir + "/" + name; }
  bool untouchedFrom(int k) const {
    return std::all_of(m_array.begin() + k, m_array.end(), [](double v) { return v == kGuard; });
  }
  // One parser, chosen by kind, on m_dir/name into m_array.
  int parse(const std::string& kind, const std::string& name) {
    m_count = 0;
    const char* d = m_dir.c_str();
    if (kind == "camera") return m_parser.parseCameraFile(d, name.c_str(), m_count, m_array.data());
    if (kind == "tracker")
      return m_parser.parseTrackerFile(d, name.c_str(), m_count, m_array.data());
    if (kind == "model") return m_parser.parseModelFile(d, name.c_str(), m_count, m_array.data());
    if (kind == "polyhedron")
      return m_parser.parsePolyhedron(path(name).c_str(), m_count, m_array.data());
    return m_parser.parsePolyline(path(name).c_str(), m_count, m_array.data());
  }
  int parseSample(const char* camera, int capacity) {
    return m_parser.parseAllFiles(ZOT_DATA_DIR, camera, "tracker_designed.txt",
                                  "model_chamfered_box.txt", m_count, m_array.data(), capacity);
  }
  std::string m_dir;
  std::vector<double> m_array;
  int m_count = 0;
  FileParser m_parser;
};

// Two 160 x 120 cameras, the first with tangential distortion p2, the
// converging parameters and a box.
std::vector<double> smallArray(double p2 = 0.0) {
  std::vector<zot_test::SetupCamera> cams(2);
  for (zot_test::SetupCamera& c : cams) {
    c.width = 160;
    c.height = 120;
    c.fx = c.fy = 160.0;
    c.cx = 79.5;
    c.cy = 59.5;
  }
  cams[0].dist[3] = p2;
  const double centre[3] = {0, 0, 0}, half[3] = {50, 40, 30};
  return zot_test::oneBodySetup(cams, zot_test::convergingParameters(),
                                zot_sim::boxMesh(centre, half));
}

// Set-up from an exact copy of `a` (so that a read past its end shows under
// the sanitizers); the printed text goes to *out.
int setupWith(GenericObjectTracker& tracker, const std::vector<double>& a, std::string* out) {
  const std::vector<double> exact(a);
  CaptureStdout();
  const int code = tracker.setupFromGlobalArray((int)exact.size(), exact.data());
  *out = GetCapturedStdout();
  return code;
}

// Decodes `array`, checks that it encodes back bit for bit and that one
// value less room is refused, not overrun; returns the decoded set-up.
std::unique_ptr<SetupArray> expectRoundTrip(const std::vector<double>& array) {
  auto setup = std::make_unique<SetupArray>();
  EXPECT_TRUE(decodeSetupArray(array.data(), (int)array.size(), *setup));
  std::vector<double> out(array.size() + 1);
  EXPECT_EQ(encodeSetupArray(*setup, out.data(), (int)out.size()), (int)array.size());
  EXPECT_EQ(memcmp(out.data(), array.data(), array.size() * sizeof(double)), 0);
  EXPECT_EQ(encodeSetupArray(*setup, out.data(), (int)array.size() - 1), -1);
  return setup;
}

class TrackerSetup : public ::testing::Test {
 protected:
  TrackerSetup() : m_pools(640 * 480, 2, 400, 20000, 4) {}
  zot_test::TrackerPools m_pools;
  std::unique_ptr<GenericObjectTracker> m_tracker{new GenericObjectTracker()};
};

}  // namespace

// ---------------------------------------------------------------- files
TEST_F(ConfigFiles, HandWrittenFilesGiveTheirValuesInOrder) {
  // Comment lines before items are skipped, words after the numbers ignored.
  write("camera.txt",
        "# cameras\n1\n# size\n640 480\n#a\n#b\n50 1500 trailing words\n#K\n"
        "600 601 319.5 239.5 0.5\n-0.2 0.05 0.001 -0.002 0.01\n1 0 0 10 0 1 0 20 0 0 1 30\n0\n");
  CaptureStdout();
  int code = parse("camera", "camera.txt");
  GetCapturedStdout();
  ASSERT_EQ(code, 0);
  ASSERT_EQ(m_count, 28);
  EXPECT_TRUE(std::equal(kCameraValues, kCameraValues + 28, m_array.begin()));
  // Comment lines of any length; item lines up to 199 characters.
  write("tracker.txt", "#" + std::string(400, 'c') + "\n" + "400" + std::string(196, ' ') + "\n" +
                           (std::strchr(kTrackerText, '\n') + 1));
  ASSERT_EQ(parse("tracker", "tracker.txt"), 0);
  ASSERT_EQ(m_count, 23);
  EXPECT_TRUE(std::equal(kTrackerValues, kTrackerValues + 23, m_array.begin()));
  // Mask polygons are free format across lines, after a comment token.
  write("masks.txt",
        "1\n640 480\n50 1500\n600 601 319.5 239.5 0\n0 0 0 0 0\n1 0 0 0 0 1 0 0 0 0 1 0\n2\n"
        "# first\n3 1 2\n3 4\n5 6 rest dropped\n   # second\n  2 7 8 9 10\n");
  CaptureStdout();
  code = parse("camera", "masks.txt");
  GetCapturedStdout();
  ASSERT_EQ(code, 0);
  const double masks[] = {2, 3, 1, 2, 3, 4, 5, 6, 2, 7, 8, 9, 10};
  ASSERT_EQ(m_count, 27 + 13);
  EXPECT_TRUE(std::equal(masks, masks + 13, m_array.begin() + 27));
  // All three body kinds; a polyhedron name may hold blanks, a spare line follows it.
  write("my solid.poly", kTetrahedron);
  write("slot.line", kPolyline);
  write("model.txt",
        "0\n3\nP tetrahedron\n1\n25.5\nmy solid.poly\n\nL\n0 0\n  slot.line   more words\n"
        "C boss\n7.5\n1 2 3\n4 5 6\n7 8 9\n10 11 12\n");
  ASSERT_EQ(parse("model", "model.txt"), 0);
  const double head[] = {0, 3, 0, 1, 25.5, 4};
  EXPECT_TRUE(std::equal(head, head + 6, m_array.begin()));
  const int line = 2 + 3 + 1 + 12 + 1 + 16;
  const double polyline[] = {1, 0, 0, 3, 0, 0, 0, 1, 0, 0, 1, 1, 0, 2, 1, 2, 2, 3, 2, 7.5, 1, 2};
  EXPECT_TRUE(std::equal(polyline, polyline + 22, m_array.begin() + line));
  EXPECT_EQ(m_count, line + 18 + 14);
  EXPECT_EQ(m_array[m_count - 1], 12.0);
  // CR-LF lines keep the name intact.
  write("crlf.txt", "0\r\n1\r\nP\r\n0\r\n30\r\nmy solid.poly\r\n\r\n");
  EXPECT_EQ(parse("model", "crlf.txt"), 0);
}

// The designed messages of the parsers, one row each: code, message and
// nothing written past what was read.
TEST_F(ConfigFiles, BadFilesGiveTheirCodeAndMessage) {
  write("solid.poly", kTetrahedron);
  write("slot.line", kPolyline);
  const std::string afterFirst = std::strchr(kTrackerText, '\n') + 1;
  const std::string shortTracker =
      std::string(kTrackerText).substr(0, std::string(kTrackerText).rfind("1000.0"));
  struct Row {
    const char* kind;
    bool exists;
    std::string text;
    int code;
    std::string message;  // "@" stands for the file's path
  };
  const Row rows[] = {
      {"camera", false, "", -10, "ERROR: invalid filename\n"},
      {"tracker", false, "", -11, "ERROR: invalid filename\n"},
      {"model", false, "", -12, "ERROR: invalid filename\n"},
      {"model", true, "101\n", -12, "ERROR: too many local frames\n"},
      {"model", true, "0\n0\n", -12, "ERROR: no bodies given\n"},
      {"model", true, "0\n-2\n", -12, "ERROR: no bodies given\n"},
      {"model", true, "0\n1\nX\n", -12, "ERROR: unrecognized body type\n"},
      // The spare line after a polyhedron swallows the next body line.
      {"model", true, "0\n2\nP\n0\n30\nsolid.poly\nL\n0 0\nslot.line\n", -12,
       "ERROR: unrecognized body type\n"},
      {"model", true, "0\n1\nP\n0\n30\nmissing.poly\n\n", -13, "ERROR: invalid filename\n"},
      {"model", true, "0\n1\nL\n0 0\nmissing.line\n", -14, "ERROR: invalid filename\n"},
      {"model", true, "0\n1\nL\n0 0\nslot .line\n", -14, "ERROR: invalid filename\n"},
      {"polyhedron", true, "n 1\n", -13, "ERROR: n. of vertices not given!\n"},
      {"polyhedron", true, "", -13, "ERROR: n. of vertices not given!\n"},
      {"polyhedron", true, "nv 1\nw 0 0 0\n", -13, "ERROR: vertices not given!\n"},
      {"polyhedron", true, "nv 2\nv 0 0 0\n", -13, "ERROR: vertices not given!\n"},
      {"polyhedron", true, "nv 1\nv 0 0 0\nne 1\n", -13, "ERROR: n. of faces not given!\n"},
      {"polyhedron", true, "nv 1\nv 0 0 0\nnf 2\nf 1 1\ng 1 1\n", -13,
       "ERROR: polygons not given!\n"},
      {"polyhedron", true, "nv 1\nv 0 0 0\nnf 1\nf 4 1 1", -13,
       "ERROR: unexpected end of file @\n"},
      {"polyline", true, "nf 1\n", -14, "ERROR: n. of vertices not given!\n"},
      {"polyline", true, "nv 1\nf 0 0 0\n", -14, "ERROR: vertices not given!\n"},
      {"polyline", true, "nv 1\nv 0 0 0\nnf 1\n", -14, "ERROR: n. of edges not given!\n"},
      {"polyline", true, "nv 2\nv 0 0 0\nv 1 1 1\nne 2\ne 1 2\nf 2 1\n", -14,
       "ERROR: edges not given!\n"},
      {"tracker", true, shortTracker + "# last item missing\n", -11,
       "ERROR: unexpected end of file @\n"},
      {"tracker", true, "400" + std::string(197, ' ') + "\n" + afterFirst, -11,
       "ERROR: line longer than 199 characters in @\n"},
  };
  for (size_t r = 0; r < sizeof(rows) / sizeof(rows[0]); r++) {
    const Row& row = rows[r];
    const std::string name = "in_" + std::to_string(r);
    if (row.exists) write(name, row.text);
    m_array.assign(m_array.size(), kGuard);
    std::string message = row.message;
    const size_t at = message.find('@');
    if (at != std::string::npos) message.replace(at, 1, path(name));
    CaptureStdout();
    const int code = parse(row.kind, name);
    EXPECT_EQ(GetCapturedStdout(), message) << "row " << r;
    EXPECT_EQ(code, row.code) << "row " << r;
    EXPECT_TRUE(untouchedFrom(m_count)) << "row " << r;
  }
  // A missing tracker file stops parseAllFiles after the camera values.
  write("camera.txt", kCameraText);
  CaptureStdout();
  EXPECT_EQ(m_parser.parseAllFiles(m_dir.c_str(), "camera.txt", "none.txt", "model.txt", m_count,
                                   m_array.data()),
            ZOT_ERR_TRACKER_PARSER);
  GetCapturedStdout();
  EXPECT_EQ(m_count, 28);
  EXPECT_TRUE(untouchedFrom(28));
}

TEST_F(ConfigFiles, TheBoundedParserFailsInTheFileWhereTheArrayIsFull) {
  const int total = kStereoValues + 23 + kModelValues;
  CaptureStdout();
  const int code = parseSample("camera_stereo.txt", total);
  GetCapturedStdout();
  ASSERT_EQ(code, 0);
  ASSERT_EQ(m_count, total);
  const std::vector<double> full(m_array.begin(), m_array.begin() + total);
  // Where each file's values start: polyhedron values after the body's code,
  // flat flag and angle, polyline values after its code and support.
  const int trackerStart = kStereoValues, modelStart = trackerStart + 23;
  const int polyStart = modelStart + 26 + 3, lineStart = total - 25 + 3;
  for (int capacity = 0; capacity < total; capacity++) {
    int expected = ZOT_ERR_MODEL_PARSER;
    if (capacity < trackerStart)
      expected = ZOT_ERR_CAMERA_PARSER;
    else if (capacity < modelStart)
      expected = ZOT_ERR_TRACKER_PARSER;
    else if (capacity >= polyStart && capacity < lineStart - 3)
      expected = ZOT_ERR_POLYHEDRON_PARSER;
    else if (capacity >= lineStart)
      expected = ZOT_ERR_POLYLINE_PARSER;
    m_array.assign(m_array.size(), kGuard);
    CaptureStdout();
    const int rc = parseSample("camera_stereo.txt", capacity);
    const std::string out = GetCapturedStdout();
    ASSERT_EQ(rc, expected) << "capacity " << capacity;
    ASSERT_EQ(m_count, capacity);
    ASSERT_TRUE(untouchedFrom(capacity)) << "capacity " << capacity;
    ASSERT_TRUE(std::equal(full.begin(), full.begin() + capacity, m_array.begin()));
    const std::string message =
        "ERROR: setup array full (capacity " + std::to_string(capacity) + " values)\n";
    ASSERT_GE(out.size(), message.size());
    ASSERT_EQ(out.substr(out.size() - message.size()), message);
  }
}

// The header holds one value per line, six decimals; the one the build
// compiled in (written by zot_export_header) gives the sample array again,
// counts and indices exactly.
TEST_F(ConfigFiles, TheHeaderRoundTripKeepsTheSampleConfiguration) {
  const double three[3] = {1.0, 2.5, -0.25};
  m_parser.createGlobalArrayHeaderFile(m_dir.c_str(), 3, three);
  EXPECT_EQ(zot_test::readText(path("global_array_declaration.h")),
            "const int setup_global_array_counter = 3;\n"
            "const double setup_global_array[setup_global_array_counter] = { 1.000000,\n"
            " 2.500000,\n -0.250000 };\n");
  CaptureStdout();
  m_parser.createGlobalArrayHeaderFile(m_dir.c_str(), 0, three);
  m_parser.createGlobalArrayHeaderFile((m_dir + "/no/dir").c_str(), 1, three);
  EXPECT_EQ(GetCapturedStdout(),
            "ERROR: no setup array to write to global_array_declaration.h\n"
            "ERROR: cannot open " +
                m_dir + "/no/dir/global_array_declaration.h for writing\n");
#if ZOT_HAVE_COMPILED_SETUP
  const std::vector<double> sample =
      zot_test::sampleSetupArray(ZOT_DATA_DIR, "camera_stereo.txt", "tracker.txt");
  ASSERT_EQ(setup_global_array_counter, (int)sample.size());
  for (size_t i = 0; i < sample.size(); i++) {
    EXPECT_NEAR(setup_global_array[i], sample[i], 5e-7) << i;
    if (sample[i] == std::trunc(sample[i])) {
      EXPECT_EQ(setup_global_array[i], sample[i]) << i;
    }
  }
#endif
}

// ---------------------------------------------------------------- set-up
TEST_F(TrackerSetup, TheSampleConfigurationSetsUpAndTheTotalIsChecked) {
  std::vector<double> a = zot_test::sampleSetupArray(ZOT_DATA_DIR);
  std::string out;
  ASSERT_EQ(setupWith(*m_tracker, a, &out), 0) << out;
  EXPECT_EQ(out, "");
  const GenericObjectTracker& t = *m_tracker;
  EXPECT_EQ(t.m_nCameras, 2);
  EXPECT_EQ(t.m_undistort[0] + t.m_undistort[1], 2);
  EXPECT_EQ(t.m_multibody.m_nMaskPolygons[1], 1);
  EXPECT_EQ(t.m_multibody.m_nLocalFrames, 2);
  ASSERT_EQ(t.m_multibody.m_nBodies, 2);
  EXPECT_EQ(t.m_multibody.m_polyhedra[0].m_nEdges, 15);
  EXPECT_EQ(t.m_multibody.m_polylineSupportFace[1][1], 5);  // 0-based
  // The tool-to-camera transform inverts the camera's pose in the tool.
  double camInTool[16], product[16];
  matrixIdentity(camInTool, 4);
  std::copy(a.begin() + 1 + 36 + 14, a.begin() + 1 + 36 + 26, camInTool);
  matrixProduct444(t.m_toolToCamera[1], camInTool, product);
  for (int i = 0; i < 16; i++) EXPECT_NEAR(product[i], i % 5 == 0 ? 1.0 : 0.0, 1e-8) << i;
#if ZOT_HAVE_COMPILED_SETUP
  std::unique_ptr<GenericObjectTracker> compiled(new GenericObjectTracker());
  CaptureStdout();
  EXPECT_EQ(compiled->setupFromGlobalArray(setup_global_array_counter, setup_global_array), 0);
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_EQ(compiled->m_multibody.m_maxVisibleEdges, t.m_multibody.m_maxVisibleEdges);
#endif
  // One value more: built, but refused by the total check, and a tracker
  // without a finished set-up does not run.
  a.push_back(0.0);
  EXPECT_EQ(setupWith(*m_tracker, a, &out), -1);
  EXPECT_EQ(out, "ERROR: total numbers read 219 should be: 220\n");
  unsigned char image[1] = {0};
  unsigned char* images[2] = {image, image};
  const double I[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}, zero[6] = {};
  CaptureStdout();
  EXPECT_EQ(m_tracker->poseEstimation(images, 0.0, I, I, zero, 0.0, nullptr, nullptr, nullptr,
                                      nullptr, true, false, false, false),
            -1);
  EXPECT_EQ(GetCapturedStdout(), "ERROR: poseEstimation: the tracker has no camera set up\n");
}

// The designed messages of the set-up: a valid small array with one value
// changed (or cut short); every case fails with -1 and its message.
TEST_F(TrackerSetup, BadArraysAreRefusedWithTheirMessage) {
  const std::vector<double> good = smallArray();
  const size_t camera1 = 1 + 27, tracker = 1 + 2 * 27, model = tracker + 23, body = model + 2;
  const size_t faces = body + 3 + 1 + 24;
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    size_t index;
    double value;
    size_t length;  // of the array handed over; 0: all of it
    const char* message;
  };
  const Case cases[] = {
      {0, 6.0, 0, "ERROR: setup array value 0: 6 cameras, at most 5 are supported\n"},
      {0, 5.0, 60,
       "ERROR: setup array too short (cameras): values 1 to 135 needed, it holds 60\n"
       "ERROR: total numbers read 136 should be: 60\n"},
      {0, nan, 0, "ERROR: setup array value 0 (cameras) is not an integer: nan\n"},
      {camera1, 0.0, 0, "ERROR: camera 1: image of 0 x 120 pixels, each side must be 1 to 16384\n"},
      {camera1 - 1, 51.0, 0,
       "ERROR: setup array value 27: 51 mask polygons, at most 50 are supported\n"},
      {model, 101.0, 0,
       "ERROR: setup array value 78: 101 local frames, at most 100 are supported\n"},
      {model + 1, 51.0, 0, "ERROR: setup array value 79: 51 bodies, at most 50 are supported\n"},
      {body, 3.0, 0,
       "ERROR: body 1 has the unknown type 3 (0 polyhedron, 1 polyline, 2 cylinder)\n"},
      {body + 3, 1e6, 0,
       "ERROR: setup array too short (polyhedron vertices): values 84 to 3000083 needed, it "
       "holds 139\nERROR: total numbers read 3000084 should be: 139\n"},
      {faces, 7.0, 0,
       "ERROR: setup array too short (vertices on a polyhedron face): value 139 needed, it holds "
       "139\nERROR: total numbers read 140 should be: 139\n"},
      {faces + 2, 9.0, 0, "ERROR: polygon 0 refers to vertex 8, but there are only 8 vertices!\n"},
      {good.size() - 1, 0.0, good.size() - 1,
       "ERROR: setup array too short (polyhedron face): values 135 to 138 needed, it holds 138\n"
       "ERROR: total numbers read 139 should be: 138\n"},
  };
  for (const Case& c : cases) {
    std::vector<double> a = good;
    a[c.index] = c.value;
    if (c.length > 0) a.resize(c.length);
    const uint64_t doublesBefore = m_currentAllocDouble;
    std::string out;
    EXPECT_EQ(setupWith(*m_tracker, a, &out), -1) << c.message;
    EXPECT_EQ(out, c.message);
    EXPECT_EQ(m_tracker->m_contourTracker.m_nCams, 0) << c.message;
    if (c.index == 0 && c.length == 0) {
      EXPECT_EQ(m_currentAllocDouble, doublesBefore) << "refused before reserving";
    }
  }
  // A polyline edge to a fourth of three vertices, eleven mask vertices, a
  // cylinder without an axis, no array at all.
  std::vector<zot_test::SetupCamera> cams(1);
  cams[0].masks = {{0, 0, 10, 0, 10, 10}};
  std::vector<double> a;
  zot_test::appendCameraSection(a, cams);
  zot_test::appendTrackerSection(a, zot_test::convergingParameters());
  a.insert(a.end(), {0.0, 1.0});
  zot_test::appendPolylineBody(a, 0, 0, {0, 0, 0, 10, 0, 0, 10, 10, 0}, {1, 2, 2, 4});
  std::string out;
  EXPECT_EQ(setupWith(*m_tracker, a, &out), -1);
  EXPECT_EQ(out, "ERROR: polyline edge 2 refers to vertex 4, but there are 3 vertices\n");
  a[1 + 26 + 1] = 11.0;
  EXPECT_EQ(setupWith(*m_tracker, a, &out), -1);
  EXPECT_EQ(out,
            "ERROR: setup array value 28: 11 vertices in a mask polygon, at most 10 are "
            "supported\n");
  std::vector<double> b = smallArray();
  b[model + 1] = 2.0;
  b.insert(b.end(), {2.0, 7.5, 1, 2, 3, 1, 2, 3, 0, 0, -1, 0, 0, 1});
  EXPECT_EQ(setupWith(*m_tracker, b, &out), -1);
  EXPECT_NE(out.find("zero length"), std::string::npos) << out;
  CaptureStdout();
  EXPECT_EQ(m_tracker->setupFromGlobalArray(5, nullptr), -1);
  EXPECT_EQ(m_tracker->setupFromGlobalArray(-1, good.data()), -1);
  EXPECT_EQ(GetCapturedStdout(),
            "ERROR: invalid setup array (5 values)\nERROR: invalid setup array (-1 values)\n");
}

TEST_F(TrackerSetup, IntegersTruncateFlagsAndCylindersFollowTheirRules) {
  std::vector<double> a = smallArray();
  const size_t model = 1 + 2 * 27 + 23, body = model + 2;
  a[0] = 2.9;          // two cameras
  a[body] = 0.5;       // a polyhedron
  a[model] = -3.0;     // no local frames
  a[model + 1] = 2.0;  // a cylinder follows: radius, then p1, p2, nb, nt
  a.insert(a.end(), {2.0, 7.5, 1, 2, 3, 1, 2, 13, 0, 0, -1, 0, 0.6, 0.8});
  std::string out;
  ASSERT_EQ(setupWith(*m_tracker, a, &out), 0) << out;
  const Multibody& mb = m_tracker->m_multibody;
  EXPECT_EQ(m_tracker->m_nCameras, 2);
  EXPECT_EQ(mb.m_nLocalFrames, 0);
  EXPECT_EQ(mb.m_bodyType[0], ZOT_BODY_POLYHEDRON);
  EXPECT_FALSE(mb.m_polyhedra[0].m_isFlat);
  ASSERT_EQ(mb.m_bodyType[1], ZOT_BODY_CYLINDER);
  const Cylinder& c = mb.m_cylinders[1];
  EXPECT_EQ(c.m_radius, 7.5);
  EXPECT_EQ(c.m_bottomCentre[2], 3.0);
  EXPECT_EQ(c.m_axis[2], 1.0);
  EXPECT_EQ(c.m_bottomPlane[3], 3.0);  // -(nb . p1)
  EXPECT_DOUBLE_EQ(c.m_topPlane[3], -(0.6 * 2 + 0.8 * 13));
  EXPECT_EQ(mb.m_maxVisibleEdges, 12) << "a cylinder adds no edges";
  a[body + 1] = std::numeric_limits<double>::quiet_NaN();  // any flag but 0.0 means flat
  ASSERT_EQ(setupWith(*m_tracker, a, &out), 0) << out;
  EXPECT_TRUE(m_tracker->m_multibody.m_polyhedra[0].m_isFlat);
}

TEST_F(TrackerSetup, OnlyDistortedCamerasGoThroughTheUndistortionTables) {
  std::string out;
  ASSERT_EQ(setupWith(*m_tracker, smallArray(-0.01), &out), 0) << out;
  GenericObjectTracker& t = *m_tracker;
  EXPECT_EQ(t.m_undistort[0], 1);
  EXPECT_EQ(t.m_undistort[1], 0);
  const size_t px = 160 * 120;
  std::vector<unsigned char> a(px), b(px), c(px, 9);
  for (size_t i = 0; i < px; i++) {
    a[i] = (unsigned char)(i * 7 % 251);
    b[i] = (unsigned char)(i * 13 % 253);
  }
  const unsigned char* images[2] = {a.data(), b.data()};
  ASSERT_EQ(t.undistortAllImages(images), 0);
  EXPECT_EQ(std::memcmp(t.m_undistortedImage[1], b.data(), px), 0);
  // Camera 0: the source interpolated bilinearly at its undistortion map,
  // within the rounding of weights in 256ths.
  const double *mapX = t.m_undistMapX[0], *mapY = t.m_undistMapY[0];
  int off = 0, inside = 0;
  for (size_t i = 0; i < px; i++) {
    const double u = mapX[i], v = mapY[i];
    if (!(u >= 0.0 && v >= 0.0 && u < 159.0 && v < 119.0)) continue;
    const int x = (int)u, y = (int)v;
    const double fx = u - x, fy = v - y;
    const unsigned char* s = &a[(size_t)y * 160 + x];
    const double e =
        (1 - fy) * ((1 - fx) * s[0] + fx * s[1]) + fy * ((1 - fx) * s[160] + fx * s[161]);
    off += std::fabs(t.m_undistortedImage[0][i] - e) > 5.0;
    inside++;
  }
  EXPECT_GT(inside, 18000);
  EXPECT_EQ(off, 0);
  EXPECT_NE(std::memcmp(t.m_undistortedImage[0], a.data(), px), 0);
  // A disabled camera keeps its image; a missing image is refused first.
  t.m_contourTracker.m_camEnabled[1] = 0;
  const unsigned char* next[2] = {a.data(), c.data()};
  ASSERT_EQ(t.undistortAllImages(next), 0);
  EXPECT_EQ(std::memcmp(t.m_undistortedImage[1], b.data(), px), 0);
  const unsigned char* missing[2] = {nullptr, c.data()};
  CaptureStdout();
  EXPECT_EQ(t.undistortAllImages(missing), -1);
  EXPECT_EQ(GetCapturedStdout(), "ERROR: undistortAllImages: no image for camera 0\n");
}

// What can never track is refused up front with one line naming the value,
// the same line from the set-up and from the codec.
TEST_F(TrackerSetup, WhatCanNeverTrackIsRefusedWithOneLineNamingTheValue) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const int kCam0 = 1, kCam1 = 37, kTracking = 73, kBodies = 121, kSupport = 195;
  struct Refusal {
    const char* message;
    int at;  // the value written here and at the n - 1 after
    double value;
    int n = 1;
  };
  const std::vector<double> sample = zot_test::sampleSetupArray(ZOT_DATA_DIR);
  ASSERT_EQ(sample.size(), 219u);
  const Refusal cases[] = {
      {"ERROR: setup array value 0: -2 cameras, at least 1 is needed\n", 0, -2},
      {"ERROR: setup array value 121: 0 bodies, at least 1 is needed\n", kBodies, 0},
      {"ERROR: camera 0: fx is nan, must be finite and > 0\n", kCam0 + 4, nan},
      {"ERROR: camera 1: fx is 0, must be finite and > 0\n", kCam1 + 4, 0},
      {"ERROR: camera 1: near depth is 0, must be finite and > 0\n", kCam1 + 2, 0},
      {"ERROR: camera 0: far depth is 1500, must be finite and > the near depth 2000\n", kCam0 + 2,
       2000},
      {"ERROR: camera 0: far depth is nan, must be finite and > the near depth 50\n", kCam0 + 3,
       nan},
      {"ERROR: camera 0: distortion p1 is nan, must be finite\n", kCam0 + 11, nan},
      {"ERROR: camera 1: distortion k1 is nan, must be finite\n", kCam1 + 9, nan, 5},
      {"ERROR: camera 0: pose value 8 (row 2, column 4) is inf, must be finite\n", kCam0 + 21,
       INFINITY},
      {"ERROR: camera 0: pose rotation is not a rotation: |R^T R - I| reaches 3.0076 (at most "
       "1e-05)",
       kCam0 + 14, 2.0},
      {"), det -1 (must be > 0)\n", kCam1 + 19, -1.0},  // a mirror
      {"ERROR: camera 1: mask polygon 1 vertex 2 is not finite\n", kCam1 + 31, nan},
      {"ERROR: tracking parameters: 0 sample points per camera, at least 1 is needed\n", kTracking,
       0},
      {"ERROR: tracking parameters: sampling step 0, must be at least 1 pixel\n", kTracking + 2,
       0.9},
      {"ERROR: setup array value 195 (supporting body) is not an index: -2147483648\n", kSupport,
       INT_MIN},
  };
  for (const Refusal& c : cases) {
    std::vector<double> a = sample;
    std::fill(a.begin() + c.at, a.begin() + c.at + c.n, c.value);
    char kept[512];
    auto decoded = std::make_unique<SetupArray>();
    EXPECT_FALSE(decodeSetupArray(a.data(), (int)a.size(), *decoded, kept, sizeof(kept)));
    resetMemoryCounters();
    std::string printed;
    EXPECT_EQ(setupWith(*m_tracker, a, &printed), -1) << c.message;
    EXPECT_NE(printed.find(c.message), std::string::npos) << printed;
    EXPECT_EQ(printed, kept) << "the codec agrees";
    EXPECT_EQ(m_tracker->m_contourTracker.m_nCams, 0) << c.message;
  }
}

// ---------------------------------------------------------------- codec
TEST(SetupCodec, SampleConfigurationsAndACylinderRoundTripBitForBit) {
  expectRoundTrip(zot_test::sampleSetupArray(ZOT_DATA_DIR, "camera_stereo.txt", "tracker_demo.txt",
                                             "model_chamfered_box.txt"));  // with a polyline
  // The bodies point into the array they were decoded from.
  const std::vector<double> mono = zot_test::sampleSetupArray(ZOT_DATA_DIR, "camera_mono.txt",
                                                              "tracker.txt", "model_l_bracket.txt");
  std::unique_ptr<SetupArray> setup = expectRoundTrip(mono);
  SetupBody& cylinder = setup->bodies[setup->nBodies++];
  cylinder = SetupBody();
  cylinder.type = ZOT_BODY_CYLINDER;
  for (int i = 0; i < 13; i++) cylinder.cylinder[i] = 0.5 + i;
  std::vector<double> withCylinder(100000);
  const int n = encodeSetupArray(*setup, withCylinder.data(), (int)withCylinder.size());
  ASSERT_GT(n, 0);
  withCylinder.resize(n);
  EXPECT_EQ(expectRoundTrip(withCylinder)->bodies[setup->nBodies - 1].type, ZOT_BODY_CYLINDER);
}
