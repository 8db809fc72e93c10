// Foundation linear algebra on the sizes the tracker uses every frame:
// matrixSVD on 6 x 6 (the Gauss-Newton normal equations) and 3 x 3 (the SE(3)
// logarithm), the 4 x 4 pose product and TwistFromT. Inputs are random but
// well conditioned (fixed seed); all buffers are allocated outside the timed
// loops. When OpenCV is available, its SVD of the same matrices runs
// alongside for reference.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

#include "Math.h"
#include "SVD_NR.h"

#ifdef ZOT_HAVE_OPENCV_REFERENCE
#include <opencv2/core.hpp>
#endif

using namespace ZOTtracker;

namespace {

constexpr int kSamples = 16;

// kSamples random n x n matrices, each a uniform [-1, 1] matrix plus n times
// the identity, so that the condition number stays small.
std::vector<double> wellConditionedMatrices(int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> dist(-1.0, 1.0);
  std::vector<double> all(static_cast<size_t>(kSamples) * n * n);
  for (int s = 0; s < kSamples; s++)
    for (int i = 0; i < n; i++)
      for (int j = 0; j < n; j++) all[(s * n + i) * n + j] = dist(rng) + (i == j ? n : 0.0);
  return all;
}

// kSamples poses from random twists with rotations below 180 degrees.
std::vector<double> randomPoses(unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> angle(-100.0, 100.0), shift(-0.5, 0.5);
  std::vector<double> poses(static_cast<size_t>(kSamples) * 16);
  for (int s = 0; s < kSamples; s++) {
    const double twist[6] = {angle(rng), angle(rng), angle(rng),
                             shift(rng), shift(rng), shift(rng)};
    TfromTwist(twist, &poses[s * 16]);
  }
  return poses;
}

void BM_matrixSVD(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const std::vector<double> A = wellConditionedMatrices(n, 42);
  std::vector<double> W(n), U(n * n), V(n * n), work(n * n + n);
  std::vector<int> index(n);
  int s = 0;
  for (auto _ : state) {
    const int code = matrixSVD(&A[s * n * n], n, n, W.data(), U.data(), V.data(), 0, 0, work.data(),
                               index.data());
    benchmark::DoNotOptimize(code);
    benchmark::DoNotOptimize(W.data());
    benchmark::DoNotOptimize(U.data());
    benchmark::DoNotOptimize(V.data());
    benchmark::ClobberMemory();
    s = (s + 1) % kSamples;
  }
}
BENCHMARK(BM_matrixSVD)->Arg(3)->Arg(6);

void BM_matrixProduct444(benchmark::State& state) {
  const std::vector<double> poses = randomPoses(7);
  double C[16];
  int s = 0;
  for (auto _ : state) {
    matrixProduct444(&poses[s * 16], &poses[((s + 1) % kSamples) * 16], C);
    benchmark::DoNotOptimize(C);
    benchmark::ClobberMemory();
    s = (s + 1) % kSamples;
  }
}
BENCHMARK(BM_matrixProduct444);

void BM_TwistFromT(benchmark::State& state) {
  const std::vector<double> poses = randomPoses(11);
  double twist[6];
  int s = 0;
  for (auto _ : state) {
    const int code = TwistFromT(&poses[s * 16], twist);
    benchmark::DoNotOptimize(code);
    benchmark::DoNotOptimize(twist);
    benchmark::ClobberMemory();
    s = (s + 1) % kSamples;
  }
}
BENCHMARK(BM_TwistFromT);

#ifdef ZOT_HAVE_OPENCV_REFERENCE
void BM_OpenCV_SVDecomp(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  std::vector<double> A = wellConditionedMatrices(n, 42);
  std::vector<cv::Mat> mats;
  for (int s = 0; s < kSamples; s++) mats.emplace_back(n, n, CV_64F, &A[s * n * n]);
  cv::Mat w, u, vt;
  int s = 0;
  for (auto _ : state) {
    cv::SVD::compute(mats[s], w, u, vt);
    benchmark::DoNotOptimize(w.data);
    benchmark::DoNotOptimize(u.data);
    benchmark::DoNotOptimize(vt.data);
    benchmark::ClobberMemory();
    s = (s + 1) % kSamples;
  }
}
BENCHMARK(BM_OpenCV_SVDecomp)->Arg(3)->Arg(6);
#endif

}  // namespace

BENCHMARK_MAIN();
