// Visible-contour sampling and polyhedron set-up costs.
//
// - A 12-edge box covering about 200 x 150 pixels, sampling step 4, in a
//   640 x 480 and a 1920 x 1440 image with the same focal length: the call
//   should cost the same in both (it must scale with the model, not the image).
// - Polyhedron::init of a closed torus of 20,000 triangles, and one sampling
//   call on it.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <vector>

#include "Imgproc.h"
#include "Math.h"
#include "Multibody.h"
#include "memory_handling.h"

using namespace ZOTtracker;

namespace {

constexpr double kFocal = 500.0;
constexpr double kNear = 0.1, kFar = 100.0;

struct Mesh {
  std::vector<double> vertices;
  std::vector<int> faces;  // triangles or quads, faceSize each
  int faceSize;
};

Mesh boxMesh(double hx, double hy, double hz) {
  Mesh m;
  m.faceSize = 4;
  for (int i = 0; i < 8; i++) {
    m.vertices.push_back((i & 1) ? hx : -hx);
    m.vertices.push_back((i & 2) ? hy : -hy);
    m.vertices.push_back((i & 4) ? hz : -hz);
  }
  m.faces = {0, 2, 3, 1, 4, 5, 7, 6, 0, 1, 5, 4, 2, 6, 7, 3, 0, 4, 6, 2, 1, 3, 7, 5};
  return m;
}

// Torus of nU x nV quads split into 2 * nU * nV triangles, wound outward.
Mesh torusMesh(int nU, int nV, double R, double r) {
  Mesh m;
  m.faceSize = 3;
  for (int i = 0; i < nU; i++) {
    const double u = 2.0 * ZOT_PI * i / nU;
    for (int j = 0; j < nV; j++) {
      const double v = 2.0 * ZOT_PI * j / nV;
      m.vertices.push_back((R + r * std::cos(v)) * std::cos(u));
      m.vertices.push_back((R + r * std::cos(v)) * std::sin(u));
      m.vertices.push_back(r * std::sin(v));
    }
  }
  auto id = [nU, nV](int i, int j) { return ((i + nU) % nU) * nV + (j + nV) % nV; };
  for (int i = 0; i < nU; i++) {
    for (int j = 0; j < nV; j++) {
      const int a = id(i, j), b = id(i + 1, j), c = id(i + 1, j + 1), d = id(i, j + 1);
      m.faces.insert(m.faces.end(), {a, b, c, a, c, d});
    }
  }
  return m;
}

// Lays the mesh out in pool buffers as the set-up does (init not called).
void loadMesh(Polyhedron& ph, const Mesh& m) {
  const int nFaces = (int)m.faces.size() / m.faceSize;
  ph.m_nVertices = (int)m.vertices.size() / 3;
  ph.m_vertices = myMallocDouble(m.vertices.size());
  for (size_t i = 0; i < m.vertices.size(); i++) ph.m_vertices[i] = m.vertices[i];
  ph.m_nFaces = nFaces;
  ph.m_faceNormals = myMallocDouble(3 * (size_t)nFaces);
  ph.m_faceFacing = myMallocDouble(nFaces);
  ph.m_nVerticesPerFace = myMallocInt(nFaces);
  ph.m_faceVertices = myMallocIntPtr(nFaces);
  ph.m_faceEdges = myMallocIntPtr(nFaces);
  for (int f = 0; f < nFaces; f++) {
    ph.m_nVerticesPerFace[f] = m.faceSize;
    ph.m_faceVertices[f] = myMallocInt(m.faceSize);
    ph.m_faceEdges[f] = myMallocInt(m.faceSize);
    for (int j = 0; j < m.faceSize; j++) ph.m_faceVertices[f][j] = m.faces[f * m.faceSize + j];
  }
}

struct Scene {
  Multibody mb;
  double K[9];
  int width, height;
  Scene(const Mesh& mesh, int w, int h) : width(w), height(h) {
    const double k[9] = {kFocal, 0, (w - 1) / 2.0, 0, kFocal, (h - 1) / 2.0, 0, 0, 1};
    for (int i = 0; i < 9; i++) K[i] = k[i];
    loadMesh(mb.m_polyhedra[0], mesh);
    if (mb.m_polyhedra[0].init(false, 30.0) != 0) printf("mesh set-up failed\n");
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
  Scene scene(boxMesh(1.8, 1.3, 0.8), w, h);
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

void BM_PolyhedronInitTorus20k(benchmark::State& state) {
  Pools pools;
  const Mesh torus = torusMesh(100, 100, 2.0, 0.7);
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
    loadMesh(ph, torus);
    state.ResumeTiming();
    if (ph.init(false, 30.0) != 0) state.SkipWithError("torus set-up failed");
    nEdges = ph.m_nEdges;
  }
  state.counters["triangles"] = (double)torus.faces.size() / 3;
  state.counters["edges"] = nEdges;
}
BENCHMARK(BM_PolyhedronInitTorus20k)->Unit(benchmark::kMillisecond);

void BM_SampleTorus20k(benchmark::State& state) {
  Pools pools;
  Scene scene(torusMesh(100, 100, 2.0, 0.7), 640, 480);
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
