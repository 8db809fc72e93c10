// Typed pools (hand-out, exhaustion, overrun check, reset, usage report),
// their sizes computed from a configuration and the session that owns them,
// the failure and diagnostic messages, raw files, headless debug windows and
// the drawing primitives of the debug overlays.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Drawing.h"
#include "GenericObjectTracker.h"
#include "IO.h"
#include "Math.h"
#include "PoolSizes.h"
#include "TrackerSession.h"
#include "memory_handling.h"
#include "opencv_display.h"
#include "scene_config.h"
#include "sequence.h"
#include "tool_runner.h"
#include "tracker_scene.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

std::string tempPath(const char* name) {
  return testing::TempDir() + "zot_io_" + std::to_string(getpid()) + "_" + name;
}

void clearGlobalString() {
  memset(m_global_output_string, 0, GLOBAL_OUTPUT_STRING_SIZE);
  m_global_output_string_counter = 0;
}

class Pools : public testing::Test {
 protected:
  void TearDown() override {
    CaptureStdout();
    doBigFree();
    GetCapturedStdout();
  }
};

std::vector<double> parseData(const char* camera, const char* tracker, const char* model) {
  return zot_test::sampleSetupArray(ZOT_DATA_DIR, camera, tracker, model);
}

// Two cameras of different sizes (one distorted, with a mask), a local frame,
// and a flat square, a cylinder and a polyline on the square.
std::vector<double> mixedConfiguration() {
  std::vector<double> a = {2};  // cameras
  const double pose[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  a.insert(a.end(), {320, 200, 50, 1500, 300, 300, 159.5, 99.5, 0, 0, 0, 0, 0, 0});
  a.insert(a.end(), pose, pose + 12);
  a.insert(a.end(), {0, 180, 260, 50, 1500, 250, 250, 89.5, 129.5, 0, -0.2, 0.05, 0, 0, 0});
  a.insert(a.end(), pose, pose + 12);
  a.insert(a.end(), {1, 3, 0, 259, 40, 259, 0, 200});
  const std::vector<double> tracker =
      parseData("camera_mono.txt", "tracker_demo.txt", "model_l_bracket.txt");
  a.insert(a.end(), tracker.begin() + 28, tracker.begin() + 51);
  a.insert(a.end(), {1, 1, 0, 0, 5, 0, 1, 0, 5, 0, 0, 1, 0});  // one local frame
  a.insert(a.end(),
           {3, 0, 1, 0, 4, -50, -50, 0, 50, -50, 0, 50, 50, 0, -50, 50, 0, 1, 4, 1, 2, 3, 4});
  a.insert(a.end(), {2, 10, 0, 0, 0, 0, 0, 30, 0, 0, -1, 0, 0, 1});
  a.insert(a.end(), {1, 1, 1, 3, -20, 0, 0, 0, 20, 0, 20, 0, 0, 2, 1, 2, 2, 3});
  return a;
}

// Sets up in the reserved pools and tracks `frames` frames of a bright block
// on a dark field, the model 400 units in front of camera 0.
int setUpAndTrack(const std::vector<double>& a, int frames) {
  auto t = std::make_unique<GenericObjectTracker>();
  if (t->setupFromGlobalArray((int)a.size(), a.data()) != 0) return -1;
  std::vector<std::vector<unsigned char>> images(t->m_nCameras);
  const unsigned char* ptrs[ZOT_MAX_CAMERAS] = {};
  for (int c = 0; c < t->m_nCameras; c++) {
    const int w = t->m_imageWidth[c], h = t->m_imageHeight[c];
    images[c].assign((size_t)w * h, 30);
    for (int y = h / 3; y < 2 * h / 3; y++)
      for (int x = w / 3; x < 2 * w / 3; x++) images[c][(size_t)y * w + x] = 220;
    ptrs[c] = images[c].data();
  }
  double inCamera[16], start[16], tool[16], pose[16], velocity[6], covariance[36];
  const double zero[6] = {0, 0, 0, 0, 0, 0};
  matrixIdentity(inCamera, 4);
  inCamera[11] = 400.0;
  inverseTransform(t->m_toolToCamera[0], tool);
  matrixProduct444(tool, inCamera, start);
  matrixIdentity(tool, 4);
  for (int f = 0; f < frames; f++)
    t->poseEstimation(ptrs, f / 30.0, tool, start, zero, 0.0, pose, velocity, covariance, nullptr,
                      f == 0, false, false, false);
  return 0;
}

uint64_t used(int pool) {
  const uint64_t current[ZOT_N_POOLS] = {
      m_currentAllocUchar, m_currentAllocUcharPtr, m_currentAllocDouble, m_currentAllocFloat,
      m_currentAllocInt,   m_currentAllocIntPtr,   m_currentAllocShort};
  return current[pool];
}

}  // namespace

// ---------------------------------------------------------------- pools
TEST_F(Pools, ExhaustionEndsTheProcessWithThePoolsName) {
  // Death tests match stderr; the library reports on stdout.
  EXPECT_EXIT((dup2(2, 1), myMallocDouble(0)), testing::ExitedWithCode(255),
              "^EXIT: not enough memory for Double\n$");  // nothing reserved yet
  doBigMalloc(4, 4, 4, 4, 4, 4, 4);
  EXPECT_EQ(myMallocUchar(3), m_bigArrayUchar);
  EXPECT_EQ(myMallocUchar(1), m_bigArrayUchar + 3);  // exactly full
  EXPECT_EQ(myMallocShort(0), m_bigArrayShort);
  EXPECT_EXIT((dup2(2, 1), myMallocUchar(1)), testing::ExitedWithCode(255),
              "^EXIT: not enough memory for Uchar\n$");
  // A request so large that current + n would wrap must not slip through.
  EXPECT_EXIT((dup2(2, 1), myMallocIntPtr(~size_t(0))), testing::ExitedWithCode(255),
              "^EXIT: not enough memory for IntPtr\n$");
}

TEST_F(Pools, ReleaseReportsOneOverrunPerWrittenPoolInPoolOrder) {
  doBigMalloc(16, 3, 20, 6, 8, 4, 8);
  unsigned char* u = myMallocUchar(8);
  double* d = myMallocDouble(10);
  float* f = myMallocFloat(2);
  short* s = myMallocShort(4);
  int* i = myMallocInt(8);  // exactly full: nothing past it to check
  unsigned char** up = myMallocUcharPtr(1);
  static unsigned char byte;
  u[8] = 1;
  u[12] = 7;             // a second write in the same pool: still one message
  d[10] = std::nan("");  // floating-point pools compare with 0.0: NaN counts, -0.0 not
  f[3] = -0.0f;
  s[7] = -1;
  i[7] = 5;
  up[2] = &byte;
  CaptureStdout();
  doBigFree();
  EXPECT_EQ(GetCapturedStdout(),
            "ERROR: memory used after the allocated space (Uchar)!\n"
            "ERROR: memory used after the allocated space (UcharPtr)!\n"
            "ERROR: memory used after the allocated space (Double)!\n"
            "ERROR: memory used after the allocated space (Short)!\n");
  EXPECT_EQ(m_bigArrayDouble, nullptr);
  EXPECT_EQ(m_totalAllocDouble + m_currentAllocDouble, 0u);
}

TEST_F(Pools, FreshPoolsAreZeroAndResetReusesEveryPoolFromTheStart) {
  for (int round = 0; round < 2; round++) {  // the second round gets used memory back
    doBigMalloc(64, 64, 64, 64, 64, 64, 64);
    unsigned char* u = myMallocUchar(64);
    unsigned char** up = myMallocUcharPtr(64);
    double* d = myMallocDouble(64);
    float* f = myMallocFloat(64);
    int* i = myMallocInt(64);
    int** ip = myMallocIntPtr(64);
    short* s = myMallocShort(64);
    for (int k = 0; k < 64; k++) {
      ASSERT_EQ(u[k] + d[k] + f[k] + i[k] + s[k], 0) << round << " " << k;
      ASSERT_TRUE(up[k] == nullptr && ip[k] == nullptr);
      u[k] = 1, d[k] = 1.5, f[k] = 2.5f, i[k] = 3, s[k] = 4, up[k] = u, ip[k] = i;
    }
    CaptureStdout();
    resetMemoryCounters();
    EXPECT_EQ(GetCapturedStdout(), "RESET MEMORY COUNTERS\n");
    EXPECT_TRUE(myMallocUchar(1) == u && myMallocUcharPtr(1) == up && myMallocDouble(1) == d &&
                myMallocFloat(1) == f && myMallocInt(1) == i && myMallocIntPtr(1) == ip &&
                myMallocShort(1) == s);
    EXPECT_EQ(d[0], 1.5);  // old contents stay
    myFree(d);             // blocks stay in place
    EXPECT_EQ(m_currentAllocDouble, 1u);
    CaptureStdout();
    doBigFree();
    GetCapturedStdout();
  }
}

TEST_F(Pools, UsageReportHasItsExactFormIncludingThe32BitByteSums) {
  doBigMalloc(10, 2, 1000, 7, 3, 1, 5);
  myMallocDouble(400);
  myMallocUchar(10);
  myMallocFloat(7);
  myMallocShort(1);
  // Bytes: 10 + 8*2 + 8*1000 + 4*3 + 8*1 + 2*5 = 8056 (Float left out); used 10 + 8*400 + 2.
  CaptureStdout();
  dumpMemoryAlloc();
  m_totalAllocDouble = 300000000;  // 2.4e9 bytes wrap as 32-bit values printed as int
  dumpMemoryAlloc();
  m_totalAllocDouble = 1000;
  const std::string out = GetCapturedStdout();
  EXPECT_EQ(out.rfind("(Uchar): ALLOCATED 10 USED 10 FREE 0\n"
                      "(UcharPtr): ALLOCATED 2 USED 0 FREE 2\n"
                      "(Double): ALLOCATED 1000 USED 400 FREE 600\n"
                      "(Float): ALLOCATED 7 USED 7 FREE 0\n"
                      "(Int): ALLOCATED 3 USED 0 FREE 3\n"
                      "(IntPtr): ALLOCATED 1 USED 0 FREE 1\n"
                      "(Short): ALLOCATED 5 USED 1 FREE 4\n"
                      "(Total bytes): ALLOCATED 8056 USED 3212 FREE 4844\n",
                      0),
            0u);
  EXPECT_NE(out.find("(Total bytes): ALLOCATED -1894967240 USED 3212 FREE -1894970452\n"),
            std::string::npos)
      << out;
}

// ---------------------------------------------------------------- pool sizes and the session
TEST(PoolSizes, ExactForEveryPoolAndOnePercentLessIsRefused) {
  const std::vector<double> configurations[] = {
      parseData("camera_stereo.txt", "tracker_demo.txt", "model_chamfered_box.txt"),
      parseData("camera_mono.txt", "tracker.txt", "model_l_bracket.txt"), mixedConfiguration()};
  for (const std::vector<double>& a : configurations) {
    SCOPED_TRACE(a.size());
    size_t sizes[ZOT_N_POOLS];
    ASSERT_EQ(computePoolSizes((int)a.size(), a.data(), 0.0, sizes), 0);
    reservePools(sizes);
    EXPECT_EQ(setUpAndTrack(a, 10), 0);
    for (int p = 0; p < ZOT_N_POOLS; p++) EXPECT_EQ(used(p), sizes[p]) << ZOT_POOL_NAMES[p];
    doBigFree();

    for (int p = 0; p < ZOT_N_POOLS; p++) {
      if (sizes[p] == 0) continue;
      size_t fewer[ZOT_N_POOLS];
      memcpy(fewer, sizes, sizeof fewer);
      fewer[p] -= sizes[p] / 100 > 0 ? sizes[p] / 100 : 1;
      reservePools(fewer);
      EXPECT_EQ(setUpAndTrack(a, 1), -1) << ZOT_POOL_NAMES[p];
      EXPECT_EQ(used(p), 0u) << ZOT_POOL_NAMES[p];
      doBigFree();
    }
  }
}

TEST(PoolSizes, RefusesArraysTheSetUpRefuses) {
  const std::vector<double> good = mixedConfiguration();
  std::vector<std::vector<double>> bad(4, good);
  bad[0].pop_back();
  bad[1].push_back(0.0);
  bad[2][0] = ZOT_MAX_CAMERAS + 1;
  bad[3][bad[3].size() - 18] = 7;  // the polyline's body type
  size_t sizes[ZOT_N_POOLS] = {1, 2, 3, 4, 5, 6, 7};
  for (const std::vector<double>& a : bad) {
    EXPECT_EQ(computePoolSizes((int)a.size(), a.data(), 0.0, sizes), -1);
    EXPECT_EQ(sizes[6], 7u);  // untouched
  }
  size_t exact[ZOT_N_POOLS], padded[ZOT_N_POOLS];
  ASSERT_EQ(computePoolSizes((int)good.size(), good.data(), 0.0, exact), 0);
  ASSERT_EQ(computePoolSizes((int)good.size(), good.data(), 0.1, padded), 0);
  for (int p = 0; p < ZOT_N_POOLS; p++) {
    EXPECT_GE((double)padded[p], 1.1 * (double)exact[p]) << ZOT_POOL_NAMES[p];
    EXPECT_LE((double)padded[p], 1.1 * (double)exact[p] + 1.0) << ZOT_POOL_NAMES[p];
    EXPECT_GE(padded[p], 1u);
  }
}

TEST(TrackerSession, TracksAsTheDesignedApiDoes) {
  const std::vector<double> a =
      parseData("camera_stereo.txt", "tracker_demo.txt", "model_chamfered_box.txt");
  std::vector<zot_sim::CameraConfig> cameras;
  std::vector<double> parameters;
  zot_sim::ModelConfig model;
  std::string error;
  ASSERT_TRUE(zot_sim::decodeSetupArray(a.data(), (int)a.size(), cameras, parameters, model, error))
      << error;
  zot_sim::SequenceSpec plan;
  plan.clutter = false;
  const zot_sim::SequenceRenderer sequence(cameras, model, plan);
  constexpr int kFrames = 4;
  std::vector<std::vector<unsigned char>> images[kFrames];
  double tools[kFrames][16];
  for (int f = 0; f < kFrames; f++) {
    sequence.render(f, images[f]);
    sequence.poses(f, tools[f], nullptr, nullptr);
  }
  double start[16];
  sequence.poses(0, nullptr, nullptr, start);

  double expected[kFrames][16 + 6 + 36];
  {
    zot_test::TrackerPools pools(640 * 480, 2, 400);
    auto t = std::make_unique<GenericObjectTracker>();
    ASSERT_EQ(t->setupFromGlobalArray((int)a.size(), a.data()), 0);
    const double zero[6] = {0, 0, 0, 0, 0, 0}, dof[6] = {1, 1, 1, 1, 1, 1};
    for (int f = 0; f < kFrames; f++) {
      const unsigned char* ptrs[2] = {images[f][0].data(), images[f][1].data()};
      double* out = expected[f];
      ASSERT_EQ(t->poseEstimation(ptrs, sequence.time(f), tools[f], start, zero, sequence.time(f),
                                  out, out + 16, out + 22, dof, f == 0, false, false, false),
                0);
    }
  }

  TrackerSession session(ZOT_DATA_DIR, "camera_stereo.txt", "tracker_demo.txt",
                         "model_chamfered_box.txt");
  ASSERT_TRUE(session.ok()) << session.message();
  EXPECT_EQ(session.setupArray(), a);
  EXPECT_EQ(session.track(nullptr, 0.0).code, -1);  // no track started yet
  ASSERT_EQ(session.start(start), 0);
  for (int f = 0; f < kFrames; f++) {
    const unsigned char* ptrs[2] = {images[f][0].data(), images[f][1].data()};
    const TrackResult r = session.track(ptrs, sequence.time(f), tools[f]);
    ASSERT_EQ(r.code, 0) << r.message;
    EXPECT_EQ(memcmp(r.pose, expected[f], 16 * sizeof(double)), 0);
    EXPECT_EQ(memcmp(r.velocity, expected[f] + 16, 6 * sizeof(double)), 0);
    EXPECT_EQ(memcmp(r.covariance, expected[f] + 22, 36 * sizeof(double)), 0);
    EXPECT_GT(r.matchedSamples, r.samples / 2);
  }
  std::vector<unsigned char> overlay(3 * 640 * 480, 0);
  EXPECT_EQ(session.draw(overlay.data(), 1, 30.0), 0);
  EXPECT_EQ(*std::max_element(overlay.begin(), overlay.end()), 255);  // the contour in red
  EXPECT_EQ(session.draw(overlay.data(), 2), -1);
}

TEST(TrackerSession, FailuresAreCodesWithMessagesAndLeaveNothingBehind) {
  const std::vector<double> a = mixedConfiguration();
  std::vector<double> wrongCount = a, badTopology = a;
  wrongCount.push_back(1.0);
  badTopology[badTopology.size() - 53] = 0;  // the one-face square is no longer flat: open edges
  struct Case {
    const std::vector<double>* array;  // none: a missing camera file
    int code;
    const char* messagePart;
  };
  const Case cases[] = {{nullptr, -10, "FAILURE: Camera parser"},
                        {&wrongCount, -1, "does not describe a tracker"},
                        {&badTopology, -1, "could not be set up"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.messagePart);
    const std::unique_ptr<TrackerSession> s =
        c.array ? std::make_unique<TrackerSession>((int)c.array->size(), c.array->data())
                : std::make_unique<TrackerSession>(ZOT_DATA_DIR, "no_such_camera.txt",
                                                   "tracker.txt", "model_l_bracket.txt");
    EXPECT_FALSE(s->ok());
    EXPECT_EQ(s->code(), c.code);
    EXPECT_NE(std::string(s->message()).find(c.messagePart), std::string::npos) << s->message();
    EXPECT_EQ(s->track(nullptr, 0.0).code, c.code);
    EXPECT_EQ(s->tracker(), nullptr);
    EXPECT_EQ(m_bigArrayDouble, nullptr);  // the pools went back
  }

  doBigMalloc(10, 10, 10, 10, 10, 10, 10);
  {
    TrackerSession small((int)a.size(), a.data());
    EXPECT_EQ(small.code(), -1);
    EXPECT_NE(std::string(small.message()).find("too small"), std::string::npos);
    EXPECT_EQ(m_currentAllocUchar + m_currentAllocDouble, 0u);
  }
  doBigFree();

  TrackerSession first((int)a.size(), a.data());
  ASSERT_TRUE(first.ok()) << first.message();
  {
    TrackerSession second((int)a.size(), a.data());
    EXPECT_EQ(second.code(), -1);
    EXPECT_NE(std::string(second.message()).find("only one"), std::string::npos);
  }
  EXPECT_TRUE(first.ok());
  EXPECT_NE(m_bigArrayDouble, nullptr);
}

// ---------------------------------------------------------------- messages and files
TEST(Messages, FailureCodesPrintTheirFixedMessages) {
  // The ends of the code table and the codes beyond it on both sides.
  CaptureStdout();
  for (int code : {1, 0, -1, -7, -16, -17}) printError(code);
  EXPECT_EQ(GetCapturedStdout(),
            "UNKNOWN ERROR CODE!\nUNKNOWN ERROR CODE!\nFAILURE: Internal failure\n"
            "FAILURE: SVD failed\nFAILURE: Canny edge detection\nUNKNOWN ERROR CODE!\n");
}

TEST(Messages, DiagnosticStringTakesWholeTextsAndTimingsUpToItsLimit) {
  clearGlobalString();
  CaptureStdout();
  EXPECT_EQ(showElapsed("Undistortion (2x)", 0, 2500000), 2500000.0);
  EXPECT_EQ(GetCapturedStdout(), "");  // nothing goes to stdout
  globalStrcat("defgh", 2);            // only length bytes
  const std::string path = tempPath("dump.txt");
  dumpGlobalStrToFile(path.c_str());
  EXPECT_EQ(zot_test::readText(path), "Undistortion (2x) - elapsed [ms]: 2.500000\nde");
  remove(path.c_str());
  std::string longLabel(5000, 'L');  // cut, never written past the line buffer
  showElapsed(longLabel.c_str(), 0, 1);
  EXPECT_LT(m_global_output_string_counter, 1000u);

  // Filled to the limit: further and partial appends are refused as a whole.
  std::vector<char> block(GLOBAL_OUTPUT_STRING_SIZE, 'x');
  clearGlobalString();
  globalStrcat(block.data(), (int)GLOBAL_OUTPUT_STRING_SIZE - 2);
  CaptureStdout();
  globalStrcat("xyz", 3);
  globalStrcat(nullptr, 1);
  EXPECT_EQ(GetCapturedStdout(), "WARNING: reached maximum length of global output string!\n");
  EXPECT_EQ(m_global_output_string_counter, GLOBAL_OUTPUT_STRING_SIZE - 2);
  CaptureStdout();
  dumpGlobalStrToFile("/nonexistent-dir/zot/out.txt");
  EXPECT_EQ(GetCapturedStdout(), "ERROR: cannot open /nonexistent-dir/zot/out.txt for writing\n");
  clearGlobalString();
}

TEST(Messages, RawFilesRoundTrip) {
  // A 3-channel image read back as grey fills only width x height bytes.
  const int w = 5, h = 3;
  std::vector<unsigned char> colour(w * h * 3), back(w * h * 3, 0xEE);
  for (size_t k = 0; k < colour.size(); k++) colour[k] = (unsigned char)(k * 7 + 1);
  const std::string imagePath = tempPath("image.raw"), matrixPath = tempPath("matrix.raw");
  saveImage(imagePath.c_str(), colour.data(), w, h, 3);
  EXPECT_EQ(zot_test::readText(imagePath).size(), 12u + colour.size());
  EXPECT_EQ(loadImage(imagePath.c_str(), back.data(), w, h), 0);
  EXPECT_TRUE(std::equal(back.begin(), back.begin() + w * h, colour.begin()));
  EXPECT_EQ(back[w * h], 0xEE);
  // Matrices come back bit for bit, NaN and -0.0 included.
  const double m[6] = {1.0 / 3.0, -0.0, std::nan(""), 1e300, -5e-324, 42};
  double mb[6];
  save_matrix(matrixPath.c_str(), m, 2, 3);
  EXPECT_EQ(load_matrix(matrixPath.c_str(), mb, 2, 3), 0);
  EXPECT_EQ(memcmp(m, mb, sizeof(m)), 0);
  // Unopenable files and short reads are reported.
  std::vector<unsigned char> big(w * h * 4, 0);
  CaptureStdout();
  EXPECT_EQ(load_matrix("/nonexistent-dir/none.raw", mb, 2, 3), -1);
  EXPECT_EQ(loadImage(imagePath.c_str(), big.data(), w * 2, h * 2), 0);
  const std::string out = GetCapturedStdout();
  EXPECT_EQ(out.rfind("ERROR: cannot open /nonexistent-dir/none.raw\nWARNING: short read from", 0),
            0u)
      << out;
  remove(imagePath.c_str());
  remove(matrixPath.c_str());
}

TEST(Messages, WithoutADisplayOneLineIsPrintedAndNothingBlocks) {
  unsetenv("DISPLAY");
  unsetenv("QT_QPA_PLATFORM");
  unsigned char image[12] = {0};
  CaptureStdout();
  showImage("bad", image, 2, 2, 4);
  EXPECT_EQ(GetCapturedStdout(), "undefined image type\n");
  CaptureStdout();
  createWindow("tracking0", ZOT_WINDOW_AUTOSIZE);
  showImage("tracking0", image, 2, 2, 3);
  EXPECT_EQ(waitKey(0), -1);  // must not block
  destroyAllWindows();
  const std::string out = GetCapturedStdout();
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
  EXPECT_NE(out.find("debug windows are not shown"), std::string::npos);
  EXPECT_FALSE(opencv_displayAvailable());
}

// ---------------------------------------------------------------- drawing
namespace {

// An image with guard bytes on both sides, to catch writes outside it.
struct Canvas {
  int width, height, pixelSize;
  std::vector<unsigned char> bytes;
  static constexpr int kGuard = 64;
  Canvas(int w, int h, bool colour)
      : width(w), height(h), pixelSize(colour ? 3 : 1), bytes(w * h * pixelSize + 2 * kGuard, 0) {
    std::fill(bytes.begin(), bytes.begin() + kGuard, 0xA5);
    std::fill(bytes.end() - kGuard, bytes.end(), 0xA5);
  }
  unsigned char* data() { return bytes.data() + kGuard; }
  unsigned char* at(int x, int y) { return data() + (y * width + x) * pixelSize; }
  bool guardsIntact() const {
    return std::count(bytes.begin(), bytes.begin() + kGuard, 0xA5) +
               std::count(bytes.end() - kGuard, bytes.end(), 0xA5) ==
           2 * kGuard;
  }
  int countNonZeroPixels() {
    int n = 0;
    for (int k = 0; k < width * height; k++)
      n += std::any_of(data() + k * pixelSize, data() + (k + 1) * pixelSize,
                       [](unsigned char c) { return c != 0; });
    return n;
  }
};

}  // namespace

TEST(Drawing, LinesAndCirclesAreClippedToTheImage) {
  unsigned char white[3] = {255, 255, 255};
  Canvas grey(10, 10, false);
  const int a[2] = {-10, 5}, b[2] = {5, 5}, c[2] = {0, 0}, d[2] = {9, 4};
  drawLine(grey.data(), 10, 10, false, a, b, white);
  EXPECT_EQ(grey.countNonZeroPixels(), 6);
  drawLine(grey.data(), 10, 10, false, c, d, white);  // 8-connected: one pixel per column
  EXPECT_EQ(grey.countNonZeroPixels(), 6 + 10);
  const int e[2] = {roundToPixel(NAN), roundToPixel(1e300)}, f[2] = {3, 3};
  drawLine(grey.data(), 10, 10, false, e, f, white);
  EXPECT_TRUE(grey.guardsIntact());

  // Midpoint discs: radius 2 gives rows of 1, 3, 5, 3, 1 pixels; the outline
  // is symmetric and leaves the centre free.
  Canvas disc(9, 9, false), ring(21, 21, false), corner(6, 6, true);
  const int c4[2] = {4, 4}, c10[2] = {10, 10}, origin[2] = {0, 0};
  drawCircle(disc.data(), 9, 9, false, c4, 2, white, true);
  EXPECT_EQ(disc.countNonZeroPixels(), 13);
  EXPECT_EQ(*disc.at(4, 2) + *disc.at(2, 2), 255);
  drawCircle(ring.data(), 21, 21, false, c10, 7, white, false);
  EXPECT_EQ(*ring.at(10, 10) + *ring.at(17, 10) + *ring.at(3, 10) + *ring.at(10, 3), 3 * 255);
  for (int y = 0; y < 21; y++)
    for (int x = 0; x < 21; x++) ASSERT_EQ(*ring.at(x, y), *ring.at(20 - x, y));
  // Centred on the corner: only the quarter in the image (rows of 3, 2, 1).
  drawCircle(corner.data(), 6, 6, true, origin, 2, white, true);
  EXPECT_EQ(corner.countNonZeroPixels(), 6);
  const int far[2] = {-100, 3}, huge[2] = {2000000000, -2000000000};
  drawCircle(corner.data(), 6, 6, true, far, 50, white, true);
  drawCircle(corner.data(), 6, 6, true, huge, 5, white, true);
  EXPECT_TRUE(corner.guardsIntact());
}

TEST(Drawing, ColourOrderAndTheCartesianFrame) {
  // Lines write (b, g, r) = (colour[2], colour[1], colour[0]); circles swap
  // the caller's array each time they draw.
  Canvas rgb(8, 8, true);
  unsigned char col[3] = {10, 20, 30};
  const int a[2] = {0, 0}, b[2] = {3, 0}, centre[2] = {4, 4};
  drawLine(rgb.data(), 8, 8, true, a, b, col);
  EXPECT_EQ(rgb.at(1, 0)[0] * 10000 + rgb.at(1, 0)[2], 300010);
  drawCircle(rgb.data(), 8, 8, true, centre, 0, col, true);
  EXPECT_EQ(rgb.at(4, 4)[0] * 10000 + col[0], 300030);
  drawCircle(rgb.data(), 8, 8, true, centre, 0, col, true);
  EXPECT_EQ(rgb.at(4, 4)[0], 10);

  // A frame 10 units in front of the camera: x axis red, y axis green, z
  // towards the camera drawn last in blue over the origin.
  Canvas img(64, 64, true);
  const double K[9] = {100, 0, 32, 0, 100, 32, 0, 0, 1};
  double T[16];
  TfromEuler(T, 0, 0, 0, 0, 0, 10);
  drawCartesianFrame(K, T, 2.0, img.data(), 64, 64, true);
  EXPECT_EQ(img.at(45, 32)[2] + img.at(32, 45)[1] + img.at(32, 32)[0], 3 * 255);
  EXPECT_EQ(img.at(45, 32)[1] + img.at(32, 45)[2] + img.at(32, 32)[2], 0);
}
