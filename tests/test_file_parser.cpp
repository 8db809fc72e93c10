// Configuration files into the setup array (sample files in data/ and
// fixtures written to a temporary directory), the error table, the bounded
// parser, and the header export with its round trip.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "FileParser.h"
#include "IO.h"
#include "Polyhedron.h"
#include "box_models.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

// data/ sits beside tests/.
std::string dataDir() {
  const std::string self = __FILE__;
  return self.substr(0, self.rfind('/')) + "/../data";
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Positions found by following the counting rule of the setup array.
struct Layout {
  int trackerStart = -1;
  int modelStart = -1;
  std::vector<int> bodyStarts;  // index of each body's type code
  int end = -1;
};

// Walks the array group by group; false when a group runs past `count` or a
// body code is unknown. Integers are read by truncation, as the reader does.
bool walkSetupArray(const double* a, int count, Layout& layout) {
  int i = 0;
  auto take = [&](int n) {
    n = std::max(n, 0);
    if (i + n > count) return false;
    i += n;
    return true;
  };
  auto last = [&]() { return (int)a[i - 1]; };
  if (!take(1)) return false;
  const int nCameras = last();
  for (int c = 0; c < nCameras; c++) {
    if (!take(2 + 2 + 5 + 5 + 12 + 1)) return false;
    const int nMasks = last();
    for (int m = 0; m < nMasks; m++) {
      if (!take(1) || !take(2 * last())) return false;
    }
  }
  layout.trackerStart = i;
  if (!take(23)) return false;
  layout.modelStart = i;
  if (!take(1) || !take(12 * last()) || !take(1)) return false;
  const int nBodies = last();
  for (int b = 0; b < nBodies; b++) {
    layout.bodyStarts.push_back(i);
    if (!take(1)) return false;
    const int code = last();
    if (code == 0 || code == 1) {
      if (!take(2) || !take(1) || !take(3 * last()) || !take(1)) return false;
      const int n = last();
      for (int k = 0; k < n; k++) {
        if (code == 1) {
          if (!take(2)) return false;
        } else if (!take(1) || !take(last())) {
          return false;
        }
      }
    } else if (code == 2) {
      if (!take(13)) return false;
    } else {
      return false;
    }
  }
  layout.end = i;
  return true;
}

// The twelve calibration numbers as the camera parser echoes them.
std::string calibrationEcho(const double* calib) {
  std::string s = " tcp-to-camera calibration \n";
  char buf[64];
  for (int i = 0; i < 12; i++) {
    snprintf(buf, sizeof buf, "%g ", calib[i]);
    s += buf;
  }
  return s + "\n";
}

const double kCalib0[12] = {0.996194698, 0.0, 0.087155743,  -50.0, 0.0,         1.0,
                            0.0,         0.0, -0.087155743, 0.0,   0.996194698, 20.0};
const double kCalib1[12] = {0.996492859, 0.0, -0.083677843, 50.0, 0.0,         1.0,
                            0.0,         1.2, 0.083677843,  0.0,  0.996492859, 20.3};
const double kTrackerValues[23] = {400, 1.0,  4,     5.0,   20,   50,  100,   20.0,
                                   15,  0.05, 0.05,  20.0,  30.0, 20,  30,    4.0,
                                   2.0, 2.0,  100.0, 100.0, 0.5,  1.0, 1000.0};
// Sizes of the sample configuration: stereo camera file, tracker, model.
constexpr int kStereoCameraValues = 73;
constexpr int kMonoCameraValues = 28;
constexpr int kModelValues = 123;

// Fixture files in a fresh temporary directory, and a parser with a large
// array whose tail is watched for stray writes.
class ParserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dir = testing::TempDir() + "zot_parser_" + std::to_string(getpid()) + "_" +
            testing::UnitTest::GetInstance()->current_test_info()->name();
    std::filesystem::remove_all(m_dir);
    std::filesystem::create_directories(m_dir);
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

  static constexpr double kGuard = -12345.5;
  std::string m_dir;
  std::vector<double> m_array;
  int m_count = 0;
  FileParser m_parser;
};

// Tracker file text with one line per item.
const char* kTrackerText =
    "400\n1.0\n4\n5.0\n20\n50 100\n20.0\n15\n0.05 0.05\n20.0 30.0\n20 30\n4.0\n2.0 2.0\n"
    "100.0 100.0\n0.5 1.0\n1000.0\n";
// A one-camera file without comments and the values it yields.
const char* kCameraText =
    "1\n640 480\n50 1500\n600 601 319.5 239.5 0.5\n-0.2 0.05 0.001 -0.002 0.01\n"
    "1 0 0 10 0 1 0 20 0 0 1 30\n0\n";
const double kCameraValues[28] = {1,    640,  480,   50,     1500, 600, 601, 319.5, 239.5, 0.5,
                                  -0.2, 0.05, 0.001, -0.002, 0.01, 1,   0,   0,     10,    0,
                                  1,    0,    20,    0,      0,    1,   30,  0};
const char* kBoxPolyhedron =
    "nv 4\nv 0 0 0\nv 1 0 0\nv 0 1 0\nv 0 0 1\nnf 4\nf 3 1 3 2\nf 3 1 2 4\nf 3 1 4 3\nf 3 2 3 4\n";
const char* kSlotPolyline = "nv 3\nv 0 0 0\nv 1 0 0\nv 1 1 0\nne 2\ne 1 2\ne 2 3\n";

}  // namespace

// ---------------------------------------------------------------- sample configuration
TEST_F(ParserTest, SampleStereoConfigurationFollowsTheArrayLayout) {
  CaptureStdout();
  m_count = 77;  // reset by parseAllFiles
  const int rc = m_parser.parseAllFiles(dataDir().c_str(), "camera_stereo.txt", "tracker.txt",
                                        "model_chamfered_box.txt", m_count, m_array.data());
  EXPECT_EQ(GetCapturedStdout(), calibrationEcho(kCalib0) + calibrationEcho(kCalib1));
  ASSERT_EQ(rc, 0);
  ASSERT_EQ(m_count, kStereoCameraValues + 23 + kModelValues);
  EXPECT_TRUE(untouchedFrom(m_count));
  const double* a = m_array.data();
  Layout layout;
  ASSERT_TRUE(walkSetupArray(a, m_count, layout));
  EXPECT_EQ(layout.end, m_count);
  EXPECT_EQ(layout.trackerStart, kStereoCameraValues);

  // Camera 0: size, depths, fx fy cx cy skew, distortion, calibration, one mask.
  const double cam0[] = {2,      640, 480,     50.0,   1500.0,  612.43,   611.87, 321.26,
                         238.91, 0.0, -0.2817, 0.0923, 0.00041, -0.00027, -0.0112};
  for (int i = 0; i < 15; i++) EXPECT_EQ(a[i], cam0[i]) << i;
  for (int i = 0; i < 12; i++) EXPECT_EQ(a[15 + i], kCalib0[i]) << i;
  const double mask0[] = {1, 4, 0.0, 430.0, 160.0, 400.0, 200.0, 479.0, 0.0, 479.0};
  for (int i = 0; i < 10; i++) EXPECT_EQ(a[27 + i], mask0[i]) << i;
  // Camera 1 starts right after; its mask spans several lines after a comment.
  EXPECT_EQ(a[37], 640);
  EXPECT_EQ(a[41], 609.95);
  EXPECT_EQ(a[46], -0.2764);
  for (int i = 0; i < 12; i++) EXPECT_EQ(a[51 + i], kCalib1[i]) << i;
  const double mask1[] = {1, 4, 639.0, 430.0, 480.0, 400.0, 440.0, 479.0, 639.0, 479.0};
  for (int i = 0; i < 10; i++) EXPECT_EQ(a[63 + i], mask1[i]) << i;

  for (int i = 0; i < 23; i++) EXPECT_EQ(a[layout.trackerStart + i], kTrackerValues[i]) << i;

  // Model: two frames, a closed polyhedron and a polyline on its face 6.
  const int m = layout.modelStart;
  EXPECT_EQ(a[m], 2);
  EXPECT_EQ(a[m + 12], 60.0);
  EXPECT_EQ(a[m + 12 + 8], 32.5);
  EXPECT_EQ(a[m + 25], 2);
  ASSERT_EQ(layout.bodyStarts.size(), 2u);
  const int p = layout.bodyStarts[0];
  const double polyHead[] = {0, 0, 30.0, 10, -60.0, -40.0, 0.0};
  for (int i = 0; i < 7; i++) EXPECT_EQ(a[p + i], polyHead[i]) << i;
  EXPECT_EQ(a[p + 4 + 30], 7);  // faces
  const double face1[] = {5, 6, 7, 8, 9, 10};
  for (int i = 0; i < 6; i++) EXPECT_EQ(a[p + 35 + i], face1[i]) << i;
  const int l = layout.bodyStarts[1];
  const double lineHead[] = {1, 1, 6, 4, -30.0, -20.0, 60.0};
  for (int i = 0; i < 7; i++) EXPECT_EQ(a[l + i], lineHead[i]) << i;
  const double edges[] = {4, 1, 2, 2, 3, 3, 4, 4, 1};
  for (int i = 0; i < 9; i++) EXPECT_EQ(a[l + 16 + i], edges[i]) << i;
}

TEST_F(ParserTest, SampleMonoConfigurationAndBoundedParserAgree) {
  CaptureStdout();
  std::vector<double> unbounded(4096, kGuard);
  int n = 0;
  ASSERT_EQ(m_parser.parseAllFiles(dataDir().c_str(), "camera_mono.txt", "tracker.txt",
                                   "model_chamfered_box.txt", n, unbounded.data()),
            0);
  const int expected = kMonoCameraValues + 23 + kModelValues;
  ASSERT_EQ(n, expected);
  ASSERT_EQ(m_parser.parseAllFiles(dataDir().c_str(), "camera_mono.txt", "tracker.txt",
                                   "model_chamfered_box.txt", m_count, m_array.data(), expected),
            0);
  GetCapturedStdout();
  EXPECT_EQ(m_count, expected);
  EXPECT_TRUE(std::equal(unbounded.begin(), unbounded.end(), m_array.begin()));
  Layout layout;
  ASSERT_TRUE(walkSetupArray(m_array.data(), m_count, layout));
  EXPECT_EQ(layout.end, m_count);
  EXPECT_EQ(m_array[0], 1);
  EXPECT_EQ(m_array[27], 0);  // no mask polygon
}

// The sample polyhedron must be a valid closed, outward-wound mesh.
TEST_F(ParserTest, SamplePolyhedronBuildsAClosedOutwardMesh) {
  ASSERT_EQ(m_parser.parsePolyhedron((dataDir() + "/chamfered_box_polyhedron.txt").c_str(), m_count,
                                     m_array.data()),
            0);
  const double* a = m_array.data();
  zot_test::Mesh mesh;
  int i = 0;
  const int nv = (int)a[i++];
  mesh.vertices.assign(a + i, a + i + 3 * nv);
  i += 3 * nv;
  const int nf = (int)a[i++];
  for (int f = 0; f < nf; f++) {
    const int k = (int)a[i++];
    mesh.faceSizes.push_back(k);
    for (int j = 0; j < k; j++) mesh.faceIndices.push_back((int)a[i++] - 1);
  }
  EXPECT_EQ(i, m_count);
  zot_test::PoolScope pools;
  Polyhedron ph;
  CaptureStdout();
  EXPECT_EQ(zot_test::buildPolyhedron(ph, mesh, false, 30.0), 0);
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_EQ(ph.m_nEdges, 15);
  // Outward: every face normal points away from the box centre (0, 0, 30).
  size_t next = 0;
  for (int f = 0; f < nf; f++) {
    const int k = mesh.faceSizes[f];
    double c[3] = {0.0, 0.0, -30.0};
    for (int j = 0; j < k; j++) {
      for (int d = 0; d < 3; d++) c[d] += mesh.vertices[3 * mesh.faceIndices[next + j] + d] / k;
    }
    next += k;
    const double* n = ph.m_faceNormals + 3 * f;
    EXPECT_GT(n[0] * c[0] + n[1] * c[1] + n[2] * c[2], 0.0) << "face " << f + 1;
  }
}

// ---------------------------------------------------------------- line discipline
TEST_F(ParserTest, CommentLinesBeforeItemsAreSkippedButNotIndentedOnes) {
  write("plain.txt", kCameraText);
  write("commented.txt",
        "# cameras\n#\n1\n# size\n640 480\n#a\n#b\n50 1500 trailing words are ignored\n"
        "#K\n600 601 319.5 239.5 0.5\n# dist\n-0.2 0.05 0.001 -0.002 0.01\n# calib\n"
        "1 0 0 10 0 1 0 20 0 0 1 30\n# masks\n0\n");
  CaptureStdout();
  ASSERT_EQ(m_parser.parseCameraFile(m_dir.c_str(), "commented.txt", m_count, m_array.data()), 0);
  const std::string echo = GetCapturedStdout();
  const double calib[12] = {1, 0, 0, 10, 0, 1, 0, 20, 0, 0, 1, 30};
  EXPECT_EQ(echo, calibrationEcho(calib));
  EXPECT_EQ(echo, " tcp-to-camera calibration \n1 0 0 10 0 1 0 20 0 0 1 30 \n");
  ASSERT_EQ(m_count, 28);
  for (int i = 0; i < 28; i++) EXPECT_EQ(m_array[i], kCameraValues[i]) << i;

  // A blank before '#' makes an item line: its numbers do not scan, the scan
  // variables' previous values (0) are written, and everything shifts by one
  // item (the calibration line becomes the mask count, "0" a mask polygon).
  write("indented.txt", std::string("1\n # size\n") + (kCameraText + 2));
  m_count = 0;
  CaptureStdout();
  EXPECT_EQ(m_parser.parseCameraFile(m_dir.c_str(), "indented.txt", m_count, m_array.data()), 0);
  GetCapturedStdout();
  EXPECT_EQ(m_count, 29);
  EXPECT_EQ(m_array[1], 0);
  EXPECT_EQ(m_array[2], 0);
  EXPECT_EQ(m_array[3], 640);  // the size line was read as the depths
}

TEST_F(ParserTest, MaskPolygonsAreFreeFormatWithCommentTokens) {
  write("masks.txt",
        "1\n640 480\n50 1500\n600 601 319.5 239.5 0\n0 0 0 0 0\n1 0 0 0 0 1 0 0 0 0 1 0\n2\n"
        "# first polygon\n3 1 2\n3 4\n5 6 rest of this line is dropped\n"
        "   # second polygon, after a comment token\n  2 7 8 9 10\n");
  CaptureStdout();
  ASSERT_EQ(m_parser.parseCameraFile(m_dir.c_str(), "masks.txt", m_count, m_array.data()), 0);
  GetCapturedStdout();
  const double expected[] = {2, 3, 1, 2, 3, 4, 5, 6, 2, 7, 8, 9, 10};
  ASSERT_EQ(m_count, 27 + 13);
  for (int i = 0; i < 13; i++) EXPECT_EQ(m_array[27 + i], expected[i]) << i;

  // A polygon cut short by the end of the file is reported, not padded.
  write("short.txt",
        "1\n640 480\n50 1500\n600 601 319.5 239.5 0\n0 0 0 0 0\n1 0 0 0 0 1 0 0 0 0 1 0\n1\n"
        "4 1 2 3 4\n");
  m_count = 0;
  CaptureStdout();
  EXPECT_EQ(m_parser.parseCameraFile(m_dir.c_str(), "short.txt", m_count, m_array.data()),
            ZOT_ERR_CAMERA_PARSER);
  EXPECT_NE(GetCapturedStdout().find("ERROR: unexpected end of file"), std::string::npos);
  EXPECT_EQ(m_count, 27 + 1 + 1 + 4);  // mask count, vertex count, two pairs
}

TEST_F(ParserTest, TrackerFileGivesTheParametersInOrder) {
  write("tracker.txt", std::string("# thresholds\n") + kTrackerText);
  ASSERT_EQ(m_parser.parseTrackerFile(m_dir.c_str(), "tracker.txt", m_count, m_array.data()), 0);
  ASSERT_EQ(m_count, 23);
  for (int i = 0; i < 23; i++) EXPECT_EQ(m_array[i], kTrackerValues[i]) << i;

  // A word where a number belongs is not detected, but the layout holds.
  std::string text = kTrackerText;
  text.replace(text.find("\n20\n") + 1, 2, "abc");
  write("word.txt", text);
  m_count = 0;
  EXPECT_EQ(m_parser.parseTrackerFile(m_dir.c_str(), "word.txt", m_count, m_array.data()), 0);
  EXPECT_EQ(m_count, 23);
  EXPECT_EQ(m_array[5], 50);
  EXPECT_EQ(m_array[22], 1000.0);
}

TEST_F(ParserTest, EndsOfFileAndOverlongLinesAreReportedNeverLoop) {
  // Sixteenth item missing, after a trailing comment line.
  std::string text = kTrackerText;
  text.resize(text.rfind("1000.0"));
  write("short.txt", text + "# last item missing\n");
  CaptureStdout();
  EXPECT_EQ(m_parser.parseTrackerFile(m_dir.c_str(), "short.txt", m_count, m_array.data()),
            ZOT_ERR_TRACKER_PARSER);
  EXPECT_EQ(GetCapturedStdout(), "ERROR: unexpected end of file " + path("short.txt") + "\n");
  EXPECT_EQ(m_count, 22);

  // Comment lines may be of any length; item lines must fit 199 characters.
  const std::string longComment = "#" + std::string(400, 'c') + "\n";
  write("long_comment.txt", longComment + kTrackerText);
  m_count = 0;
  EXPECT_EQ(m_parser.parseTrackerFile(m_dir.c_str(), "long_comment.txt", m_count, m_array.data()),
            0);
  EXPECT_EQ(m_array[0], 400);
  const std::string fits = "400" + std::string(196, ' ') + "\n";  // 199 characters
  write("fits.txt", fits + (std::strchr(kTrackerText, '\n') + 1));
  m_count = 0;
  EXPECT_EQ(m_parser.parseTrackerFile(m_dir.c_str(), "fits.txt", m_count, m_array.data()), 0);
  EXPECT_EQ(m_count, 23);
  write("long_item.txt",
        "400" + std::string(197, ' ') + "\n" + (std::strchr(kTrackerText, '\n') + 1));
  m_count = 0;
  CaptureStdout();
  EXPECT_EQ(m_parser.parseTrackerFile(m_dir.c_str(), "long_item.txt", m_count, m_array.data()),
            ZOT_ERR_TRACKER_PARSER);
  EXPECT_EQ(GetCapturedStdout(),
            "ERROR: line longer than 199 characters in " + path("long_item.txt") + "\n");
  EXPECT_EQ(m_count, 0);

  // A polyhedron cut inside a face.
  write("cut.poly", "nv 1\nv 0 0 0\nnf 1\nf 4 1 1");
  m_count = 0;
  CaptureStdout();
  EXPECT_EQ(m_parser.parsePolyhedron(path("cut.poly").c_str(), m_count, m_array.data()),
            ZOT_ERR_POLYHEDRON_PARSER);
  EXPECT_EQ(GetCapturedStdout(), "ERROR: unexpected end of file " + path("cut.poly") + "\n");
  EXPECT_EQ(m_count, 1 + 3 + 1 + 1 + 2);
}

// ---------------------------------------------------------------- model file
TEST_F(ParserTest, ModelBodiesOfAllThreeKinds) {
  write("solid.poly", kBoxPolyhedron);
  write("slot.line", kSlotPolyline);
  write("model.txt",
        "0\n3\n"
        "P tetrahedron\n1\n25.5\nsolid.poly\n\n"
        "L\n0 0\n  slot.line   more words\n"
        "C boss\n7.5\n1 2 3\n4 5 6\n7 8 9\n10 11 12\n");
  ASSERT_EQ(m_parser.parseModelFile(m_dir.c_str(), "model.txt", m_count, m_array.data()), 0);
  const double* a = m_array.data();
  EXPECT_EQ(a[0], 0);
  EXPECT_EQ(a[1], 3);
  const double polyHead[] = {0, 1, 25.5, 4, 0, 0, 0};
  for (int i = 0; i < 7; i++) EXPECT_EQ(a[2 + i], polyHead[i]) << i;
  const int l = 2 + 3 + 1 + 12 + 1 + 16;
  const double line[] = {1, 0, 0, 3, 0, 0, 0, 1, 0, 0, 1, 1, 0, 2, 1, 2, 2, 3};
  for (int i = 0; i < 18; i++) EXPECT_EQ(a[l + i], line[i]) << i;
  const int c = l + 18;
  EXPECT_EQ(a[c], 2);
  for (int i = 0; i < 13; i++) EXPECT_EQ(a[c + 1 + i], i == 0 ? 7.5 : i) << i;
  EXPECT_EQ(m_count, c + 14);

  // Only a first character '1' makes a flat polyhedron.
  write("flat.txt", "0\n1\nP\n 1\n0\nsolid.poly\n\n");
  m_count = 0;
  ASSERT_EQ(m_parser.parseModelFile(m_dir.c_str(), "flat.txt", m_count, m_array.data()), 0);
  EXPECT_EQ(m_array[3], 0.0);
}

TEST_F(ParserTest, ModelAcceptsAHundredLocalFramesButNotMore) {
  std::string frames;
  for (int i = 0; i < 100; i++) frames += "1 0 0 " + std::to_string(i) + " 0 1 0 0 0 0 1 0\n";
  const std::string cylinder = "1\nC\n2\n0 0 0\n0 0 1\n0 0 1\n0 0 1\n";
  write("hundred.txt", "100\n" + frames + cylinder);
  ASSERT_EQ(m_parser.parseModelFile(m_dir.c_str(), "hundred.txt", m_count, m_array.data()), 0);
  EXPECT_EQ(m_count, 1 + 1200 + 1 + 14);
  EXPECT_EQ(m_array[1 + 99 * 12 + 3], 99);

  write("hundred_one.txt", "101\n" + frames + "1 0 0 0 0 1 0 0 0 0 1 0\n" + cylinder);
  m_count = 0;
  m_array.assign(m_array.size(), kGuard);
  CaptureStdout();
  EXPECT_EQ(m_parser.parseModelFile(m_dir.c_str(), "hundred_one.txt", m_count, m_array.data()),
            ZOT_ERR_MODEL_PARSER);
  EXPECT_EQ(GetCapturedStdout(), "ERROR: too many local frames\n");
  EXPECT_EQ(m_count, 0);
  EXPECT_TRUE(untouchedFrom(0));
}

TEST_F(ParserTest, SpareLineAfterAPolyhedronSwallowsTheNextBodyLine) {
  write("solid.poly", kBoxPolyhedron);
  write("slot.line", kSlotPolyline);
  // The 'L' line stands where the spare line belongs and is lost; "0 0" is
  // then taken as the body type.
  write("model.txt", "0\n2\nP\n0\n30\nsolid.poly\nL\n0 0\nslot.line\n");
  CaptureStdout();
  EXPECT_EQ(m_parser.parseModelFile(m_dir.c_str(), "model.txt", m_count, m_array.data()),
            ZOT_ERR_MODEL_PARSER);
  EXPECT_EQ(GetCapturedStdout(), "ERROR: unrecognized body type\n");
  EXPECT_EQ(m_count, 2 + 3 + 1 + 12 + 1 + 16);
  // With a comment as the spare line the same model parses.
  write("model.txt", "0\n2\nP\n0\n30\nsolid.poly\n# spare\nL\n0 0\nslot.line\n");
  m_count = 0;
  EXPECT_EQ(m_parser.parseModelFile(m_dir.c_str(), "model.txt", m_count, m_array.data()), 0);
  EXPECT_EQ(m_array[2 + 3 + 1 + 12 + 1 + 16], 1);
}

TEST_F(ParserTest, PolyhedronNamesMayHoldBlanksPolylineNamesMayNot) {
  write("my solid.poly", kBoxPolyhedron);
  write("my slot.line", kSlotPolyline);
  write("poly.txt", "0\n1\nP\n0\n30\nmy solid.poly\n\n");
  EXPECT_EQ(m_parser.parseModelFile(m_dir.c_str(), "poly.txt", m_count, m_array.data()), 0);
  EXPECT_EQ(m_count, 2 + 3 + 1 + 12 + 1 + 16);
  write("line.txt", "0\n1\nL\n0 0\nmy slot.line\n");
  m_count = 0;
  CaptureStdout();
  EXPECT_EQ(m_parser.parseModelFile(m_dir.c_str(), "line.txt", m_count, m_array.data()),
            ZOT_ERR_POLYLINE_PARSER);
  EXPECT_EQ(GetCapturedStdout(), "ERROR: invalid filename\n");
  // A CR-LF file keeps the polyhedron name intact.
  write("crlf.txt", "0\r\n1\r\nP\r\n0\r\n30\r\nmy solid.poly\r\n\r\n");
  m_count = 0;
  EXPECT_EQ(m_parser.parseModelFile(m_dir.c_str(), "crlf.txt", m_count, m_array.data()), 0);
}

// ---------------------------------------------------------------- error table
TEST_F(ParserTest, EveryRowOfTheErrorTable) {
  write("solid.poly", kBoxPolyhedron);
  write("slot.line", kSlotPolyline);
  struct Row {
    const char* kind;  // which parser runs on `text`
    const char* text;  // nullptr: the file does not exist
    const char* message;
    int code;
  };
  const Row rows[] = {
      {"camera", nullptr, "ERROR: invalid filename\n", -10},
      {"tracker", nullptr, "ERROR: invalid filename\n", -11},
      {"model", nullptr, "ERROR: invalid filename\n", -12},
      {"model", "101\n", "ERROR: too many local frames\n", -12},
      {"model", "0\n0\n", "ERROR: no bodies given\n", -12},
      {"model", "0\n-2\n", "ERROR: no bodies given\n", -12},
      {"model", "0\n1\nX\n", "ERROR: unrecognized body type\n", -12},
      {"model", "0\n1\n\n", "ERROR: unrecognized body type\n", -12},
      {"model", "0\n1\nP\n0\n30\nmissing.poly\n\n", "ERROR: invalid filename\n", -13},
      {"model", "0\n1\nL\n0 0\nmissing.line\n", "ERROR: invalid filename\n", -14},
      {"polyhedron", "n 1\n", "ERROR: n. of vertices not given!\n", -13},
      {"polyhedron", "nv 1\nw 0 0 0\n", "ERROR: vertices not given!\n", -13},
      {"polyhedron", "nv 1\nv 0 0 0\nne 1\n", "ERROR: n. of faces not given!\n", -13},
      {"polyhedron", "nv 1\nv 0 0 0\nnf 2\nf 1 1\ng 1 1\n", "ERROR: polygons not given!\n", -13},
      {"polyhedron", "", "ERROR: n. of vertices not given!\n", -13},
      {"polyhedron", "nv 2\nv 0 0 0\n", "ERROR: vertices not given!\n", -13},
      {"polyline", "nf 1\n", "ERROR: n. of vertices not given!\n", -14},
      {"polyline", "nv 1\nf 0 0 0\n", "ERROR: vertices not given!\n", -14},
      {"polyline", "nv 1\nv 0 0 0\nnf 1\n", "ERROR: n. of edges not given!\n", -14},
      {"polyline", "nv 2\nv 0 0 0\nv 1 1 1\nne 2\ne 1 2\nf 2 1\n", "ERROR: edges not given!\n",
       -14},
  };
  for (const Row& row : rows) {
    const std::string kind = row.kind;
    const std::string name = row.text ? "input_" + kind : "absent_" + kind;
    if (row.text) write(name, row.text);
    m_count = 0;
    CaptureStdout();
    int rc = 0;
    if (kind == "camera")
      rc = m_parser.parseCameraFile(m_dir.c_str(), name.c_str(), m_count, m_array.data());
    if (kind == "tracker")
      rc = m_parser.parseTrackerFile(m_dir.c_str(), name.c_str(), m_count, m_array.data());
    if (kind == "model")
      rc = m_parser.parseModelFile(m_dir.c_str(), name.c_str(), m_count, m_array.data());
    if (kind == "polyhedron")
      rc = m_parser.parsePolyhedron(path(name).c_str(), m_count, m_array.data());
    if (kind == "polyline")
      rc = m_parser.parsePolyline(path(name).c_str(), m_count, m_array.data());
    EXPECT_EQ(GetCapturedStdout(), row.message) << kind << ": " << (row.text ? row.text : "absent");
    EXPECT_EQ(rc, row.code) << kind << ": " << (row.text ? row.text : "absent");
  }
}

TEST_F(ParserTest, AMissingTrackerFileStopsAfterTheCameraValues) {
  write("camera.txt", kCameraText);
  write("model.txt", "0\n1\nC\n1\n0 0 0\n0 0 1\n0 0 1\n0 0 1\n");
  CaptureStdout();
  EXPECT_EQ(m_parser.parseAllFiles(m_dir.c_str(), "camera.txt", "none.txt", "model.txt", m_count,
                                   m_array.data()),
            ZOT_ERR_TRACKER_PARSER);
  EXPECT_EQ(GetCapturedStdout(),
            " tcp-to-camera calibration \n1 0 0 10 0 1 0 20 0 0 1 30 \nERROR: invalid filename\n");
  EXPECT_EQ(m_count, 28);
  for (int i = 0; i < 28; i++) EXPECT_EQ(m_array[i], kCameraValues[i]) << i;
  EXPECT_TRUE(untouchedFrom(28));

  // A joined path that would not fit the 200-character buffer is refused.
  const std::string longName(200, 'x');
  CaptureStdout();
  EXPECT_EQ(m_parser.parseCameraFile(m_dir.c_str(), longName.c_str(), m_count, m_array.data()),
            ZOT_ERR_CAMERA_PARSER);
  EXPECT_EQ(GetCapturedStdout(), "ERROR: invalid filename\n");
}

// ---------------------------------------------------------------- bounded parser
TEST_F(ParserTest, BoundedParserFailsInTheFileWhereTheArrayIsFull) {
  const int total = kStereoCameraValues + 23 + kModelValues;
  CaptureStdout();
  ASSERT_EQ(m_parser.parseAllFiles(dataDir().c_str(), "camera_stereo.txt", "tracker.txt",
                                   "model_chamfered_box.txt", m_count, m_array.data(), total),
            0);
  GetCapturedStdout();
  const std::vector<double> full(m_array.begin(), m_array.begin() + total);
  Layout layout;
  ASSERT_TRUE(walkSetupArray(full.data(), total, layout));
  const int polyStart = layout.bodyStarts[0] + 3;  // after code, flat flag, angle
  const int polyEnd = layout.bodyStarts[1];
  const int lineStart = layout.bodyStarts[1] + 3;  // after code and support
  for (int capacity = 0; capacity < total; capacity++) {
    int expected = ZOT_ERR_MODEL_PARSER;
    if (capacity < layout.trackerStart)
      expected = ZOT_ERR_CAMERA_PARSER;
    else if (capacity < layout.modelStart)
      expected = ZOT_ERR_TRACKER_PARSER;
    else if (capacity >= polyStart && capacity < polyEnd)
      expected = ZOT_ERR_POLYHEDRON_PARSER;
    else if (capacity >= lineStart)
      expected = ZOT_ERR_POLYLINE_PARSER;
    m_array.assign(m_array.size(), kGuard);
    CaptureStdout();
    const int rc =
        m_parser.parseAllFiles(dataDir().c_str(), "camera_stereo.txt", "tracker.txt",
                               "model_chamfered_box.txt", m_count, m_array.data(), capacity);
    const std::string out = GetCapturedStdout();
    ASSERT_EQ(rc, expected) << "capacity " << capacity;
    ASSERT_EQ(m_count, capacity);
    ASSERT_TRUE(untouchedFrom(capacity)) << "capacity " << capacity;
    ASSERT_TRUE(std::equal(full.begin(), full.begin() + capacity, m_array.begin()));
    const std::string message =
        "ERROR: setup array full (capacity " + std::to_string(capacity) + " values)\n";
    ASSERT_GE(out.size(), message.size());
    ASSERT_EQ(out.substr(out.size() - message.size()), message) << "capacity " << capacity;
  }
  // No array, or a negative capacity.
  CaptureStdout();
  EXPECT_EQ(m_parser.parseTrackerFile(dataDir().c_str(), "tracker.txt", m_count, nullptr),
            ZOT_ERR_TRACKER_PARSER);
  EXPECT_EQ(m_parser.parsePolyline((dataDir() + "/top_slot_polyline.txt").c_str(), m_count,
                                   m_array.data(), -1),
            ZOT_ERR_POLYLINE_PARSER);
  EXPECT_EQ(GetCapturedStdout(), "ERROR: invalid setup array\nERROR: invalid setup array\n");
}

// ---------------------------------------------------------------- header export
TEST_F(ParserTest, HeaderTextForThreeAndForManyValues) {
  const double three[3] = {1.0, 2.5, -0.25};
  m_parser.createGlobalArrayHeaderFile(m_dir.c_str(), 3, three);
  EXPECT_EQ(readFile(path("global_array_declaration.h")),
            "const int setup_global_array_counter = 3;\n"
            "const double setup_global_array[setup_global_array_counter] = { 1.000000,\n"
            " 2.500000,\n -0.250000 };\n");

  // 2500 values: 3 per line, 834 lines, the last holding one value.
  std::vector<double> many(2500);
  for (int i = 0; i < 2500; i++) many[i] = (i - 1250) * 0.125 + (i % 7 == 0 ? 1e-7 : 0.0);
  m_parser.createGlobalArrayHeaderFile(m_dir.c_str(), 2500, many.data());
  std::string expected =
      "const int setup_global_array_counter = 2500;\n"
      "const double setup_global_array[setup_global_array_counter] = {";
  char buf[64];
  for (int line = 0; line < 834; line++) {
    for (int k = 0; k < 3 && 3 * line + k < 2500; k++) {
      const double v = (3 * line + k - 1250) * 0.125;  // 1e-7 vanishes in six decimals
      snprintf(buf, sizeof buf, " %.6f", v);
      expected += buf;
      if (3 * line + k < 2499) expected += ",";
    }
    if (line < 833) expected += "\n";
  }
  expected += " };\n";
  const std::string text = readFile(path("global_array_declaration.h"));
  EXPECT_EQ(text, expected);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1 + 834);

  // Lines never exceed 1000.
  for (int n : {999, 1000, 1999, 2000}) {
    std::vector<double> v(n, 1.0);
    m_parser.createGlobalArrayHeaderFile(m_dir.c_str(), n, v.data());
    const std::string t = readFile(path("global_array_declaration.h"));
    const int lines = (int)std::count(t.begin(), t.end(), '\n') - 1;
    EXPECT_EQ(lines, (n + n / 1000) / (n / 1000 + 1)) << n;
    EXPECT_LE(lines, 1000);
  }
}

TEST_F(ParserTest, HeaderRefusesWhatItCannotWrite) {
  const double one = 1.0;
  CaptureStdout();
  m_parser.createGlobalArrayHeaderFile(m_dir.c_str(), 0, &one);
  m_parser.createGlobalArrayHeaderFile(m_dir.c_str(), 1, nullptr);
  m_parser.createGlobalArrayHeaderFile((m_dir + "/no/such/dir").c_str(), 1, &one);
  EXPECT_EQ(GetCapturedStdout(),
            "ERROR: no setup array to write to global_array_declaration.h\n"
            "ERROR: no setup array to write to global_array_declaration.h\n"
            "ERROR: cannot open " +
                m_dir + "/no/such/dir/global_array_declaration.h for writing\n");
  EXPECT_FALSE(std::filesystem::exists(path("global_array_declaration.h")));
}

// The sample configuration written as a header and read back gives the same
// array up to the six-decimal rounding; counts and indices come back exactly.
TEST_F(ParserTest, HeaderRoundTripOfTheSampleConfiguration) {
  CaptureStdout();
  ASSERT_EQ(m_parser.parseAllFiles(dataDir().c_str(), "camera_stereo.txt", "tracker.txt",
                                   "model_chamfered_box.txt", m_count, m_array.data()),
            0);
  GetCapturedStdout();
  m_parser.createGlobalArrayHeaderFile(m_dir.c_str(), m_count, m_array.data());
  const std::string text = readFile(path("global_array_declaration.h"));

  int counter = -1;
  ASSERT_EQ(sscanf(text.c_str(), "const int setup_global_array_counter = %d;", &counter), 1);
  EXPECT_EQ(counter, m_count);
  const size_t open = text.find("= {");
  const size_t close = text.find(" };\n");
  ASSERT_NE(open, std::string::npos);
  ASSERT_EQ(close, text.size() - 4);
  std::vector<double> back;
  const char* p = text.c_str() + open + 3;
  const char* end = text.c_str() + close;
  while (p < end) {
    char* next = nullptr;
    back.push_back(strtod(p, &next));
    ASSERT_NE(next, p);
    p = next;
    if (p < end) {
      ASSERT_EQ(*p, ',');
      p++;
    }
  }
  ASSERT_EQ((int)back.size(), m_count);
  for (int i = 0; i < m_count; i++) {
    EXPECT_NEAR(back[i], m_array[i], 5e-7) << i;
    if (m_array[i] == std::trunc(m_array[i])) {
      EXPECT_EQ(back[i], m_array[i]) << i;
    }
  }
  Layout layout;
  ASSERT_TRUE(walkSetupArray(back.data(), (int)back.size(), layout));
  EXPECT_EQ(layout.end, m_count);
}
