// The edge-correlation analysis on a rendered box: the candidates it writes
// to its file, where they lie for an unchanged and for a shifted image, what
// it draws, and a file that cannot be opened.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ContourTracker.h"
#include "Math.h"
#include "tracking_scene.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

struct FileLine {
  int cam, count;
  double X[3], n[2];
  std::vector<double> candidates;  // x, y per candidate
};

// Parses the whole file; every line must be well formed.
std::vector<FileLine> readMatchingPoints() {
  std::vector<FileLine> lines;
  std::ifstream in(correlateEdgesOutputPath());
  std::string text;
  while (std::getline(in, text)) {
    std::istringstream fields(text);
    FileLine line;
    fields >> line.cam >> line.X[0] >> line.X[1] >> line.X[2] >> line.n[0] >> line.n[1] >>
        line.count;
    EXPECT_TRUE(fields) << text;
    double v;
    while (fields >> v) line.candidates.push_back(v);
    EXPECT_EQ((int)line.candidates.size(), 2 * line.count) << text;
    lines.push_back(line);
  }
  return lines;
}

class EdgeCorrelation : public ::testing::Test {
 protected:
  EdgeCorrelation() : m_scene({zot_test::TrackingCamera()}, zot_test::trackingBox(), 400) {
    unsetenv("DISPLAY");  // the "corr" window must never wait for a key here
    unsetenv("WAYLAND_DISPLAY");
    unsetenv("QT_QPA_PLATFORM");
    TfromEuler(m_pose, 25.0, -30.0, 15.0, 5.0, -3.0, 500.0);
    m_scene.render(m_pose, zot_test::trackingBoxGreys(), 25);
    m_reference = m_scene.m_images[0];
    EXPECT_EQ(m_scene.edgeDetect(), 0);
  }
  ~EdgeCorrelation() override { std::remove(correlateEdgesOutputPath()); }
  void correlate(const std::vector<unsigned char>& current) {
    const unsigned char* ref[1] = {m_reference.data()};
    const unsigned char* cur[1] = {current.data()};
    CaptureStdout();
    m_scene.m_tracker.correlateEdges(*m_scene.m_model, ref, cur, m_pose, m_scene.m_K,
                                     m_scene.m_camFromRef);
    m_out = GetCapturedStdout();
  }
  // Pixel of an object point at the pose.
  void project(const double* X, double* uv) {
    zot_test::projectObjectPoint(m_pose, m_scene.m_cams[0].K, X, uv);
  }
  bool displayHas(unsigned char b, unsigned char g, unsigned char r) {
    const unsigned char* d = m_scene.m_tracker.m_displayImage;
    for (int k = 0; k < 320 * 240; k++) {
      if (d[3 * k] == b && d[3 * k + 1] == g && d[3 * k + 2] == r) return true;
    }
    return false;
  }
  zot_test::TrackingScene m_scene;
  double m_pose[16];
  std::vector<unsigned char> m_reference;
  std::string m_out;
};

// One test, since every call writes the same file: test programs that run
// side by side must not race on it.
TEST_F(EdgeCorrelation, CandidatesFollowTheImageAndAFileFailureIsReported) {
  SCOPED_TRACE("unchanged image: a candidate on every point");
  correlate(m_reference);
  const std::vector<FileLine> lines = readMatchingPoints();
  ASSERT_GT(lines.size(), 20u) << m_out;
  int exact = 0;
  for (const FileLine& line : lines) {
    EXPECT_EQ(line.cam, 0);
    EXPECT_GE(line.count, 1);
    EXPECT_NEAR(std::hypot(line.n[0], line.n[1]), 1.0, 1e-5);
    double uv[2];
    project(line.X, uv);
    const double x = std::round(uv[0]), y = std::round(uv[1]);
    double nearest = 1e9;
    for (int j = 0; j < line.count; j++) {
      nearest = std::fmin(nearest,
                          std::hypot(line.candidates[2 * j] - x, line.candidates[2 * j + 1] - y));
    }
    EXPECT_LE(nearest, 1.5) << "a candidate at the point itself";
    exact += nearest == 0.0;
  }
  EXPECT_GT(exact, (int)lines.size() / 2);
  // Every candidate is drawn in blue over the point's green disc.
  EXPECT_TRUE(displayHas(255, 0, 0));

  SCOPED_TRACE("shifted image: the candidates move with it");
  // The current image is the reference moved 3 pixels to the right.
  std::vector<unsigned char> shifted(m_reference.size(), 25);
  for (int y = 0; y < 240; y++) {
    for (int x = 3; x < 320; x++) shifted[y * 320 + x] = m_reference[y * 320 + x - 3];
  }
  correlate(shifted);
  const std::vector<FileLine> moved = readMatchingPoints();
  int checked = 0;
  for (const FileLine& line : moved) {
    if (std::fabs(line.n[0]) < 0.95) continue;  // contours across x only
    double uv[2];
    project(line.X, uv);
    const double x = std::round(uv[0]) + 3.0, y = std::round(uv[1]);
    bool follows = false;
    for (int j = 0; j < line.count; j++) {
      follows = follows || (std::fabs(line.candidates[2 * j] - x) <= 1.0 &&
                            std::fabs(line.candidates[2 * j + 1] - y) <= 1.0);
    }
    EXPECT_TRUE(follows) << "point at " << uv[0] << ", " << uv[1];
    checked++;
  }
  EXPECT_GT(checked, 5);
  // Points and candidates no longer coincide: green and blue both show.
  EXPECT_TRUE(displayHas(0, 255, 0));
  EXPECT_TRUE(displayHas(255, 0, 0));

  SCOPED_TRACE("a file that cannot be opened is reported and the analysis goes on");
  const char* path = correlateEdgesOutputPath();
  std::remove(path);
  ASSERT_EQ(mkdir(path, 0700), 0) << path;  // a directory cannot be opened as a file
  correlate(m_reference);
  rmdir(path);
  EXPECT_NE(m_out.find(std::string("ERROR: cannot open ") + path + " for writing\n"),
            std::string::npos)
      << m_out;
  EXPECT_TRUE(displayHas(255, 0, 0));
}

}  // namespace
