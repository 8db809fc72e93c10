// One Gauss-Newton pose update (ContourTracker::poseUpdateLoop) on a box of
// about 200 x 150 pixels in 640 x 480 images, with the edge maps prepared
// beforehand: at most 100 sample points per camera, 10 iterations (the
// convergence bounds are 0, so every call runs all of them and ends with the
// iteration limit, the pose restored), mono and stereo. The contour is
// re-sampled in every iteration, as with the default tracking parameters;
// a second variant re-samples only when the pose moved by 1 degree or 2 mm.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <vector>

#include "../tests/support/synthetic_images.h"
#include "ContourTracker.h"
#include "IO.h"
#include "Imgproc.h"
#include "Math.h"
#include "Multibody.h"
#include "memory_handling.h"

using namespace ZOTtracker;

namespace {

constexpr int kWidth = 640, kHeight = 480;
constexpr int kMaxSamples = 100;
constexpr double kNear = 10.0, kFar = 5000.0;
constexpr double kHalf[3] = {75.0, 38.0, 30.0};  // mm
const int kFaces[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4},
                          {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
const unsigned char kFaceGrey[6] = {70, 120, 170, 215, 95, 145};

void boxVertex(int i, double* X) {
  for (int a = 0; a < 3; a++) X[a] = ((i >> a) & 1) ? kHalf[a] : -kHalf[a];
}

// The box laid out in pool buffers the way the set-up does it.
void loadBox(Polyhedron& ph) {
  ph.m_nVertices = 8;
  ph.m_vertices = myMallocDouble(24);
  for (int i = 0; i < 8; i++) boxVertex(i, ph.m_vertices + 3 * i);
  ph.m_nFaces = 6;
  ph.m_faceNormals = myMallocDouble(18);
  ph.m_faceFacing = myMallocDouble(6);
  ph.m_nVerticesPerFace = myMallocInt(6);
  ph.m_faceVertices = myMallocIntPtr(6);
  ph.m_faceEdges = myMallocIntPtr(6);
  for (int f = 0; f < 6; f++) {
    ph.m_nVerticesPerFace[f] = 4;
    ph.m_faceVertices[f] = myMallocInt(4);
    ph.m_faceEdges[f] = myMallocInt(4);
    for (int j = 0; j < 4; j++) ph.m_faceVertices[f][j] = kFaces[f][j];
  }
}

void project(const double* K, const double* T, const double* X, double* uv) {
  double Y[3];
  transformPoint3d(T, X, Y);
  uv[0] = Y[0] / Y[2] * K[0] + K[2];
  uv[1] = Y[1] / Y[2] * K[4] + K[5];
}

// Renders the faces that face the camera (a convex box: they do not overlap)
// over a noisy background.
void renderBox(unsigned char* img, const double* K, const double* T, double* extent) {
  zot_test::fillUniform(img, kWidth, kHeight, 25);
  double uv[8][2], Xc[8][3];
  extent[0] = extent[1] = 1e9;
  extent[2] = extent[3] = -1e9;
  for (int i = 0; i < 8; i++) {
    double X[3];
    boxVertex(i, X);
    transformPoint3d(T, X, Xc[i]);
    project(K, T, X, uv[i]);
    extent[0] = std::fmin(extent[0], uv[i][0]);
    extent[1] = std::fmin(extent[1], uv[i][1]);
    extent[2] = std::fmax(extent[2], uv[i][0]);
    extent[3] = std::fmax(extent[3], uv[i][1]);
  }
  for (int f = 0; f < 6; f++) {
    const int* v = kFaces[f];
    double e1[3], e2[3], n[3];
    matrixSub31(Xc[v[1]], Xc[v[0]], e1);
    matrixSub31(Xc[v[2]], Xc[v[0]], e2);
    crossProd(e1, e2, n);
    if (dotProd3(n, Xc[v[0]]) >= 0.0) continue;  // seen from behind
    zot_test::renderShape(img, kWidth, kHeight, kFaceGrey[f], 3, [&](double x, double y) {
      int sign = 0;
      for (int j = 0; j < 4; j++) {
        const double* a = uv[v[j]];
        const double* b = uv[v[(j + 1) % 4]];
        const double c = (b[0] - a[0]) * (y - a[1]) - (b[1] - a[1]) * (x - a[0]);
        const int s = c > 0 ? 1 : (c < 0 ? -1 : 0);
        if (s != 0 && sign != 0 && s != sign) return false;
        if (s != 0) sign = s;
      }
      return true;
    });
  }
  zot_test::addNoise(img, kWidth, kHeight, 2.0, 11);
}

struct Bench {
  int nCams;
  double K[2][9];
  double camFromRef[2][16];
  const double* Kp[2];
  const double* Tp[2];
  Multibody model;
  ContourTracker tracker;
  std::vector<unsigned char> images[2];
  const unsigned char* imagePtrs[2];
  double truth[16], start[16], extent[4];
  // Every 10th contour pixel: about 90 samples per camera along the way,
  // below the 100 the buffers hold.
  int samplingStep = 10;

  explicit Bench(int cams) : nCams(cams) {
    const size_t px = (size_t)kWidth * kHeight;
    doBigMalloc(px * 12, px + 100, px * 4 + 100000, 10, px * 3, 1000, px * 6);
    for (int c = 0; c < nCams; c++) {
      const double k[9] = {600.0, 0, (kWidth - 1) / 2.0, 0, 600.0, (kHeight - 1) / 2.0, 0, 0, 1};
      for (int i = 0; i < 9; i++) K[c][i] = k[i];
      Kp[c] = K[c];
      Tp[c] = camFromRef[c];
      computeViewingFrustum(model.m_viewingFrustum[c], K[c], 0, 0, kWidth - 1, kHeight - 1, kNear,
                            kFar);
    }
    TfromEuler(camFromRef[0], 3.0, -2.0, 1.0, 10.0, -5.0, 20.0);
    if (nCams > 1) {
      double cam1FromCam0[16];
      TfromEuler(cam1FromCam0, 0.0, -8.0, 0.0, -80.0, 0.0, 0.0);
      matrixProduct444(cam1FromCam0, camFromRef[0], camFromRef[1]);
    }
    loadBox(model.m_polyhedra[0]);
    if (model.m_polyhedra[0].init(false, 30.0) != 0) printf("box set-up failed\n");
    model.m_bodyType[0] = ZOT_BODY_POLYHEDRON;
    model.m_bodyActive[0] = 1;
    model.m_nBodies = 1;
    int widths[2] = {kWidth, kWidth}, heights[2] = {kHeight, kHeight};
    double zNear[2] = {kNear, kNear}, zFar[2] = {kFar, kFar};
    tracker.init(widths, heights, zNear, zFar, nCams, kMaxSamples);
    model.init(nCams, kMaxSamples, kWidth, kHeight);

    // The object 500 mm in front of camera 0.
    double poseCam[16], refFromCam[16];
    TfromEuler(poseCam, 20.0, -25.0, 10.0, 5.0, -3.0, 500.0);
    inverseTransform(camFromRef[0], refFromCam);
    matrixProduct444(refFromCam, poseCam, truth);
    for (int c = 0; c < nCams; c++) {
      double T[16], e[4];
      matrixProduct444(camFromRef[c], truth, T);
      images[c].resize((size_t)kWidth * kHeight);
      renderBox(images[c].data(), K[c], T, c == 0 ? extent : e);
      imagePtrs[c] = images[c].data();
    }
    if (tracker.edgeDetect(imagePtrs, 50, 100) != 0) printf("edge detection failed\n");

    // 2 degrees and 5 mm off.
    const double angle = 2.0 * ZOT_PI / 180.0;  // about (1, -1, 0.5) / 1.5
    const double rvec[3] = {angle / 1.5, -angle / 1.5, 0.5 * angle / 1.5};
    const double t[3] = {3.0, -4.0, 0.0};
    double R[9], D[16];
    matrixRvecToRmat(rvec, R);
    TfromRotTransl(R, t, D);
    matrixProduct444(truth, D, start);
  }
  ~Bench() { doBigFree(); }

  int run(double* pose, double resampleRot, double resampleTransl) {
    double covariance[36];
    const double mask[6] = {1, 1, 1, 1, 1, 1};
    return tracker.poseUpdateLoop(model, imagePtrs, pose, covariance, Tp, Kp, 10, 0.0, 0.0, 50.0,
                                  50.0, 1.0, samplingStep, 1.0, 20.0, 20.0, 0.5, 0.5, 0.0,
                                  resampleRot, resampleTransl, mask, false, false, false);
  }
};

void runBench(benchmark::State& state, int nCams, double resampleRot, double resampleTransl) {
  Bench bench(nCams);
  double pose[16];
  int code = 0;
  for (auto _ : state) {
    matrixCopy(bench.start, pose, 4, 4);
    code = bench.run(pose, resampleRot, resampleTransl);
    benchmark::DoNotOptimize(pose);
  }
  if (code != ZOT_ERR_MAX_ITERATIONS) state.SkipWithError("the loop did not run 10 iterations");
  state.counters["box_w_px"] = bench.extent[2] - bench.extent[0];
  state.counters["box_h_px"] = bench.extent[3] - bench.extent[1];
  state.counters["samples"] = bench.tracker.m_nTotalPoints;
  state.counters["step_px"] = bench.samplingStep;
  state.counters["matched"] = [&] {
    double n = 0;
    for (int i = 0; i < bench.tracker.m_nTotalPoints; i++) n += bench.tracker.m_inlierWeights[i];
    return n;
  }();
}

void BM_PoseUpdateLoopMono(benchmark::State& state) { runBench(state, 1, 0.0, 0.0); }
void BM_PoseUpdateLoopStereo(benchmark::State& state) { runBench(state, 2, 0.0, 0.0); }
void BM_PoseUpdateLoopMonoLazyResampling(benchmark::State& state) { runBench(state, 1, 1.0, 2.0); }
void BM_PoseUpdateLoopStereoLazyResampling(benchmark::State& state) {
  runBench(state, 2, 1.0, 2.0);
}
BENCHMARK(BM_PoseUpdateLoopMono)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PoseUpdateLoopStereo)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PoseUpdateLoopMonoLazyResampling)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PoseUpdateLoopStereoLazyResampling)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
