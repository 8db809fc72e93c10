// Visible-contour sampling and polyhedron set-up costs.
//
// - A 12-edge box covering about 200 x 150 pixels, sampling step 4, in a
//   640 x 480 and a 1920 x 1440 image with the same focal length: the call
//   should cost the same in both (it must scale with the model, not the image).
// - The set-up of a closed torus of 20,000 triangles from its setup-array
//   values (reading and Polyhedron::init), and one sampling call on it.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <vector>

#include "GenericObjectTracker.h"
#include "Imgproc.h"
#include "Math.h"
#include "Multibody.h"
#include "memory_handling.h"
#include "sim_mesh.h"

using namespace ZOTtracker;

namespace {

constexpr double kFocal = 500.0;
constexpr double kNear = 0.1, kFar = 100.0;

using zot_sim::Mesh;

Mesh box(double hx, double hy, double hz) {
  const double centre[3] = {0.0, 0.0, 0.0}, half[3] = {hx, hy, hz};
  return zot_sim::boxMesh(centre, half);
}

// The mesh as the polyhedron part of a setup array.
std::vector<double> polyhedronValues(const Mesh& mesh) {
  std::vector<double> values;
  zot_sim::appendPolyhedronValues(mesh, values);
  return values;
}

// Sets the polyhedron up from its setup-array values, as the tracker does.
int setupMesh(Polyhedron& ph, const std::vector<double>& values) {
  int cursor = 0;
  return GenericObjectTracker::setupPolyhedron(cursor, values.data(), ph, false, 30.0,
                                               (int)values.size());
}

struct Scene {
  Multibody mb;
  double K[9];
  int width, height;
  Scene(const Mesh& mesh, int w, int h) : width(w), height(h) {
    const double k[9] = {kFocal, 0, (w - 1) / 2.0, 0, kFocal, (h - 1) / 2.0, 0, 0, 1};
    for (int i = 0; i < 9; i++) K[i] = k[i];
    if (setupMesh(mb.m_polyhedra[0], polyhedronValues(mesh)) != 0) printf("mesh set-up failed\n");
    mb.m_bodyType[0] = ZOT_BODY_POLYHEDRON;
    mb.m_bodyActive[0] = 1;
    mb.m_nBodies = 1;
    computeViewingFrustum(mb.m_viewingFrustum[0], K, 0, 0, w - 1, h - 1, kNear, kFar);
    mb.init(1, 100000, w, h);
  }
  int sample(const double* T) {
    mb.resetNSamplePointsPerCam();
    mb.sampleContour_Zbuffer(0, T, K, width, height, kNear, kFar, 0.0, 0.01, 4, nullptr, nullptr,
                             nullptr, nullptr, true, false, false, false);
    return mb.getNSamplePointsPerCam(0);
  }
};

struct Pools {
  Pools() { doBigMalloc(40000000, 1000, 20000000, 1000, 10000000, 200000, 1000); }
  ~Pools() { doBigFree(); }
};

// The box covers about 200 x 150 pixels at depth 10.
void BM_SampleBox(benchmark::State& state) {
  Pools pools;
  const int w = (int)state.range(0), h = w * 3 / 4;
  Scene scene(box(1.8, 1.3, 0.8), w, h);
  double T[16];
  TfromEuler(T, 10, 15, 5, 0, 0, 10);
  int n = scene.sample(T);  // the first call clears the whole image
  for (auto _ : state) {
    n = scene.sample(T);
    benchmark::DoNotOptimize(n);
  }
  state.counters["samples"] = n;
}
BENCHMARK(BM_SampleBox)->Arg(640)->Arg(1920)->Unit(benchmark::kMicrosecond);

void BM_PolyhedronSetupTorus20k(benchmark::State& state) {
  Pools pools;
  const Mesh torus = zot_sim::torusMesh(100, 100, 2.0, 0.7);
  const std::vector<double> values = polyhedronValues(torus);
  const uint64_t saved[4] = {m_currentAllocDouble, m_currentAllocInt, m_currentAllocIntPtr,
                             m_currentAllocUchar};
  int nEdges = 0;
  for (auto _ : state) {
    state.PauseTiming();
    m_currentAllocDouble = saved[0];
    m_currentAllocInt = saved[1];
    m_currentAllocIntPtr = saved[2];
    m_currentAllocUchar = saved[3];
    Polyhedron ph;
    state.ResumeTiming();
    if (setupMesh(ph, values) != 0) state.SkipWithError("torus set-up failed");
    nEdges = ph.m_nEdges;
  }
  state.counters["triangles"] = (double)torus.faceSizes.size();
  state.counters["edges"] = nEdges;
}
BENCHMARK(BM_PolyhedronSetupTorus20k)->Unit(benchmark::kMillisecond);

void BM_SampleTorus20k(benchmark::State& state) {
  Pools pools;
  Scene scene(zot_sim::torusMesh(100, 100, 2.0, 0.7), 640, 480);
  double T[16];
  TfromEuler(T, 50, 10, 0, 0, 0, 12);
  int n = scene.sample(T);
  for (auto _ : state) {
    n = scene.sample(T);
    benchmark::DoNotOptimize(n);
  }
  state.counters["samples"] = n;
}
BENCHMARK(BM_SampleTorus20k)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
