// The sample configuration compiled in: the build runs zot_export_header on
// data/ and this program includes the header it wrote. A tracker set up from
// that array must equal one set up from the files, up to the header's six
// decimals. Also the export tool itself: help, its output, and its errors.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "FileParser.h"
#include "GenericObjectTracker.h"
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

[[maybe_unused]] std::vector<double> parsedSample() {
  std::vector<double> a(10000);
  int count = 0;
  FileParser parser;
  CaptureStdout();
  EXPECT_EQ(
      parser.parseAllFiles(zot_test::dataDirectory().c_str(), "camera_stereo.txt", "tracker.txt",
                           "model_chamfered_box.txt", count, a.data(), (int)a.size()),
      0);
  GetCapturedStdout();
  a.resize(count);
  return a;
}

void expectNear(const double* a, const double* b, int n, double tolerance, const char* what) {
  for (int i = 0; i < n; i++) EXPECT_NEAR(a[i], b[i], tolerance) << what << " " << i;
}

template <typename T>
bool sameMemory(const T* a, const T* b, size_t n) {
  return std::memcmp(a, b, n * sizeof(T)) == 0;
}

// Every configured field of the two trackers, with the tolerance the
// six-decimal rounding allows (exact where the sample values are exact).
[[maybe_unused]] void expectSameConfiguration(const GenericObjectTracker& a,
                                              const GenericObjectTracker& b) {
  ASSERT_EQ(a.m_nCameras, b.m_nCameras);
  for (int c = 0; c < a.m_nCameras; c++) {
    const int w = a.m_imageWidth[c], h = a.m_imageHeight[c];
    EXPECT_EQ(w, b.m_imageWidth[c]);
    EXPECT_EQ(h, b.m_imageHeight[c]);
    EXPECT_EQ(a.m_zNear[c], b.m_zNear[c]);
    EXPECT_EQ(a.m_zFar[c], b.m_zFar[c]);
    expectNear(a.m_K[c], b.m_K[c], 9, 5e-7, "K");
    expectNear(a.m_distCoeffs[c], b.m_distCoeffs[c], 5, 5e-7, "distortion");
    // The calibration's rotation has nine decimals in the file; the inverse
    // spreads its rounding over the translation (about 50 mm).
    for (int i = 0; i < 16; i++) {
      EXPECT_NEAR(a.m_toolToCamera[c][i], b.m_toolToCamera[c][i], i % 4 == 3 ? 1e-4 : 1e-6) << i;
    }
    EXPECT_EQ(a.m_undistort[c], b.m_undistort[c]);
    expectNear(a.m_multibody.m_viewingFrustum[c], b.m_multibody.m_viewingFrustum[c], 24, 1e-6,
               "frustum");
    // Intrinsics and distortion of data/ have at most six decimals: the
    // undistortion is the same bit for bit.
    const size_t px = (size_t)w * h;
    EXPECT_TRUE(sameMemory(a.m_undistMapX[c], b.m_undistMapX[c], px));
    EXPECT_TRUE(sameMemory(a.m_undistTable1[c], b.m_undistTable1[c], px));
    EXPECT_TRUE(sameMemory(a.m_undistTable5[c], b.m_undistTable5[c], px));
    ASSERT_EQ(a.m_multibody.m_nMaskPolygons[c], b.m_multibody.m_nMaskPolygons[c]);
    for (int p = 0; p < a.m_multibody.m_nMaskPolygons[c]; p++) {
      ASSERT_EQ(a.m_multibody.m_maskPolygonNVertices[c][p],
                b.m_multibody.m_maskPolygonNVertices[c][p]);
      EXPECT_TRUE(sameMemory(a.m_multibody.m_maskPolygonVertices[c][p],
                             b.m_multibody.m_maskPolygonVertices[c][p],
                             2 * (size_t)a.m_multibody.m_maskPolygonNVertices[c][p]));
    }
  }
  const GenericObjectTracker::TrackingParameters &p = a.m_trackingParams, &q = b.m_trackingParams;
  EXPECT_EQ(p.m_maxNSamplePointsPerCam, q.m_maxNSamplePointsPerCam);
  EXPECT_EQ(p.m_samplingStep, q.m_samplingStep);
  EXPECT_EQ(p.m_searchRange, q.m_searchRange);
  EXPECT_EQ(p.m_cannyLowThreshold, q.m_cannyLowThreshold);
  EXPECT_EQ(p.m_cannyHighThreshold, q.m_cannyHighThreshold);
  EXPECT_EQ(p.m_maxIterations, q.m_maxIterations);
  const double pd[] = {p.m_facingTolerance, p.m_minEdgeLength,     p.m_maxAngleDeg,
                       p.m_convergenceRot,  p.m_convergenceTransl, p.m_maxAbsRot,
                       p.m_maxAbsTransl,    p.m_minInliersLoop,    p.m_minInliersFinal,
                       p.m_maxFinalCost,    p.m_resampleRot,       p.m_resampleTransl,
                       p.m_kfAccNoiseRot,   p.m_kfAccNoiseTransl,  p.m_measStdRot,
                       p.m_measStdTransl,   p.m_kfInitialCov};
  const double qd[] = {q.m_facingTolerance, q.m_minEdgeLength,     q.m_maxAngleDeg,
                       q.m_convergenceRot,  q.m_convergenceTransl, q.m_maxAbsRot,
                       q.m_maxAbsTransl,    q.m_minInliersLoop,    q.m_minInliersFinal,
                       q.m_maxFinalCost,    q.m_resampleRot,       q.m_resampleTransl,
                       q.m_kfAccNoiseRot,   q.m_kfAccNoiseTransl,  q.m_measStdRot,
                       q.m_measStdTransl,   q.m_kfInitialCov};
  expectNear(pd, qd, 17, 5e-7, "tracking parameter");

  const Multibody &ma = a.m_multibody, &mb = b.m_multibody;
  ASSERT_EQ(ma.m_nLocalFrames, mb.m_nLocalFrames);
  for (int f = 0; f < ma.m_nLocalFrames; f++)
    expectNear(ma.m_localFrames[f], mb.m_localFrames[f], 16, 5e-7, "local frame");
  ASSERT_EQ(ma.m_nBodies, mb.m_nBodies);
  for (int i = 0; i < ma.m_nBodies; i++) {
    ASSERT_EQ(ma.m_bodyType[i], mb.m_bodyType[i]);
    EXPECT_EQ(ma.m_bodyActive[i], mb.m_bodyActive[i]);
    if (ma.m_bodyType[i] == ZOT_BODY_POLYHEDRON) {
      const Polyhedron &x = ma.m_polyhedra[i], &y = mb.m_polyhedra[i];
      EXPECT_EQ(x.m_isFlat, y.m_isFlat);
      EXPECT_EQ(x.m_featureAngleDeg, y.m_featureAngleDeg);
      ASSERT_EQ(x.m_nVertices, y.m_nVertices);
      ASSERT_EQ(x.m_nFaces, y.m_nFaces);
      ASSERT_EQ(x.m_nEdges, y.m_nEdges);
      expectNear(x.m_vertices, y.m_vertices, 3 * x.m_nVertices, 5e-7, "vertex");
      EXPECT_TRUE(sameMemory(x.m_edges, y.m_edges, 5 * (size_t)x.m_nEdges));
      for (int f = 0; f < x.m_nFaces; f++) {
        ASSERT_EQ(x.m_nVerticesPerFace[f], y.m_nVerticesPerFace[f]);
        EXPECT_TRUE(
            sameMemory(x.m_faceVertices[f], y.m_faceVertices[f], (size_t)x.m_nVerticesPerFace[f]));
      }
      expectNear(x.m_faceNormals, y.m_faceNormals, 3 * x.m_nFaces, 1e-9, "face normal");
    } else if (ma.m_bodyType[i] == ZOT_BODY_POLYLINE) {
      const Polyline &x = ma.m_polylines[i], &y = mb.m_polylines[i];
      EXPECT_EQ(ma.m_polylineSupportFace[i][0], mb.m_polylineSupportFace[i][0]);
      EXPECT_EQ(ma.m_polylineSupportFace[i][1], mb.m_polylineSupportFace[i][1]);
      ASSERT_EQ(x.m_nPoints, y.m_nPoints);
      ASSERT_EQ(x.m_nSegments, y.m_nSegments);
      expectNear(x.m_points, y.m_points, 3 * x.m_nPoints, 5e-7, "polyline point");
      EXPECT_TRUE(sameMemory(x.m_segments, y.m_segments, 2 * (size_t)x.m_nSegments));
    }
  }
  EXPECT_EQ(a.m_kalmanFilter.m_initialCov, b.m_kalmanFilter.m_initialCov);
  EXPECT_EQ(a.m_contourTracker.m_nCams, b.m_contourTracker.m_nCams);
  EXPECT_EQ(a.m_contourTracker.m_maxSamplePoints, b.m_contourTracker.m_maxSamplePoints);
  EXPECT_EQ(ma.m_maxVisibleEdges, mb.m_maxVisibleEdges);
}

// ---------------------------------------------------------------- the tool
struct ToolRun {
  int status;
  std::string output;  // standard output and error together
};

ToolRun runExport(const std::string& args) {
  const std::string cmd = std::string(ZOT_TOOLS_DIR) + "/zot_export_header " + args + " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  ToolRun r{-1, ""};
  if (p == nullptr) return r;
  char buffer[512];
  while (fgets(buffer, sizeof buffer, p)) r.output += buffer;
  const int raw = pclose(p);
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return r;
}

std::string scratchDir() {
  static const std::string d =
      testing::TempDir() + "export_header_" + std::to_string(getpid()) + "/";
  mkdir(d.c_str(), 0755);
  return d;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool toolBuilt() {
  return access((std::string(ZOT_TOOLS_DIR) + "/zot_export_header").c_str(), X_OK) == 0;
}

}  // namespace

TEST(CompiledInSetup, TheHeaderHoldsTheSampleArrayToSixDecimals) {
  if (!ZOT_HAVE_COMPILED_SETUP) GTEST_SKIP() << "built without zot_export_header";
#if ZOT_HAVE_COMPILED_SETUP
  const std::vector<double> parsed = parsedSample();
  ASSERT_EQ(setup_global_array_counter, (int)parsed.size());
  ASSERT_EQ(setup_global_array_counter, 219);
  for (int i = 0; i < setup_global_array_counter; i++) {
    EXPECT_NEAR(setup_global_array[i], parsed[i], 5e-7) << i;
    if (parsed[i] == std::trunc(parsed[i])) {
      EXPECT_EQ(setup_global_array[i], parsed[i]) << i;
    }
  }
#endif
}

TEST(CompiledInSetup, ConfiguresTheSameTrackerAsTheFiles) {
  if (!ZOT_HAVE_COMPILED_SETUP) GTEST_SKIP() << "built without zot_export_header";
#if ZOT_HAVE_COMPILED_SETUP
  zot_test::TrackerPools pools(640 * 480, 2, 400, 20000, 2);
  const std::vector<double> parsed = parsedSample();
  std::unique_ptr<GenericObjectTracker> fromFiles(new GenericObjectTracker());
  std::unique_ptr<GenericObjectTracker> compiledIn(new GenericObjectTracker());
  CaptureStdout();
  ASSERT_EQ(fromFiles->setupFromGlobalArray((int)parsed.size(), parsed.data()), 0);
  ASSERT_EQ(compiledIn->setupFromGlobalArray(setup_global_array_counter, setup_global_array), 0);
  EXPECT_EQ(GetCapturedStdout(), "");
  expectSameConfiguration(*fromFiles, *compiledIn);
#endif
}

TEST(ExportHeaderTool, WritesTheHeaderTheBuildUses) {
  if (!toolBuilt()) GTEST_SKIP() << "zot_export_header not built";
  const std::string out = scratchDir() + "ok";
  mkdir(out.c_str(), 0755);
  const ToolRun r = runExport(
      "--config-dir " + zot_test::dataDirectory() + " --out " + out +
      " --camera camera_stereo.txt --tracker tracker.txt --model model_chamfered_box.txt");
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("wrote 219 values to " + out + "/global_array_declaration.h\n"),
            std::string::npos)
      << r.output;
  const std::string text = readFile(out + "/global_array_declaration.h");
  EXPECT_EQ(text.rfind("const int setup_global_array_counter = 219;\n", 0), 0u);
  if (ZOT_HAVE_COMPILED_SETUP) {
    EXPECT_EQ(text, readFile(std::string(ZOT_TOOLS_DIR) + "/generated/global_array_declaration.h"));
  }
  // The defaults name data/'s stereo configuration.
  const ToolRun defaults = runExport("--config-dir " + zot_test::dataDirectory() + " --out " + out);
  ASSERT_EQ(defaults.status, 0) << defaults.output;
  EXPECT_EQ(readFile(out + "/global_array_declaration.h"), text);

  const ToolRun help = runExport("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.output.rfind("usage: zot_export_header [options]\n", 0), 0u) << help.output;
  EXPECT_NE(help.output.find("--config-dir DIR"), std::string::npos);
}

TEST(ExportHeaderTool, BadArgumentsAndBadFilesFailWithAClearMessage) {
  if (!toolBuilt()) GTEST_SKIP() << "zot_export_header not built";
  const std::string data = zot_test::dataDirectory();
  const std::string out = scratchDir() + "bad";
  mkdir(out.c_str(), 0755);

  ToolRun r = runExport("--frobnicate");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.output,
            "zot_export_header: unknown argument '--frobnicate'\n(see zot_export_header --help)\n");
  r = runExport("--out");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.output, "zot_export_header: --out needs a value\n(see zot_export_header --help)\n");

  r = runExport("--config-dir /no/such/dir --out " + out);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.output,
            "zot_export_header: error: configuration directory '/no/such/dir' not found\n");
  r = runExport("--config-dir " + data + " --out " + out + "/missing");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.output,
            "zot_export_header: error: output directory '" + out + "/missing' not found\n");

  // A missing file: the parser's message and code, and no header.
  r = runExport("--config-dir " + data + " --out " + out + " --tracker nothere.txt");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("ERROR: invalid filename\n"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("zot_export_header: error: the configuration in '" + data +
                          "' does not parse (code -11, see the message above)\n"),
            std::string::npos)
      << r.output;
  EXPECT_NE(access((out + "/global_array_declaration.h").c_str(), F_OK), 0);

  // A malformed polyhedron file.
  const std::string cfg = scratchDir() + "cfg";
  mkdir(cfg.c_str(), 0755);
  for (const char* name :
       {"camera_mono.txt", "tracker.txt", "model_chamfered_box.txt", "top_slot_polyline.txt"}) {
    std::ofstream(cfg + "/" + name) << readFile(data + "/" + name);
  }
  std::ofstream(cfg + "/chamfered_box_polyhedron.txt") << "nv 3\nv 0 0 0\nw 1 0 0\n";
  r = runExport("--config-dir " + cfg + " --camera camera_mono.txt --out " + out);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("ERROR: vertices not given!\n"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("(code -13, see the message above)"), std::string::npos) << r.output;
}
