// Per-frame image processing on one 640 x 480 grey image with realistic
// structure (rendered shapes plus noise): Sobel + Canny and undistortion
// through the integer tables, each next to OpenCV's single-threaded
// counterpart when OpenCV is available (cv::Sobel 3x3 16-bit + cv::Canny with
// the L1 gradient and the same thresholds; cv::remap with fixed-point
// CV_16SC2 maps and INTER_LINEAR).
#include <benchmark/benchmark.h>

#include <vector>

#include "../tests/support/synthetic_images.h"
#include "Imgproc.h"

#ifdef ZOT_HAVE_OPENCV_REFERENCE
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

using namespace ZOTtracker;

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr int kLow = 50;
constexpr int kHigh = 150;

// A 640 x 480 camera with ordinary barrel distortion.
const double kK[9] = {520.0, 0.0, 320.0, 0.0, 520.0, 240.0, 0.0, 0.0, 1.0};
const double kDist[5] = {-0.28, 0.08, 0.001, -0.0005, 0.0};

const std::vector<unsigned char>& sceneImage() {
  static const std::vector<unsigned char> img = [] {
    std::vector<unsigned char> v((size_t)kWidth * kHeight);
    zot_test::renderShapesScene(v.data(), kWidth, kHeight, 7, 4.0);
    return v;
  }();
  return img;
}

struct UndistortionMaps {
  std::vector<double> mapX, mapY;
  std::vector<int> w00, w10, w01, w11, index;
  UndistortionMaps() {
    const size_t n = (size_t)kWidth * kHeight;
    mapX.resize(n);
    mapY.resize(n);
    w00.resize(n);
    w10.resize(n);
    w01.resize(n);
    w11.resize(n);
    index.resize(n);
    initUndistortRectifyMap(kK, kDist, nullptr, nullptr, kWidth, kHeight, mapX.data(), mapY.data());
    initUndistortionTables(mapX.data(), mapY.data(), w00.data(), w10.data(), w01.data(), w11.data(),
                           index.data(), kWidth, kHeight);
  }
};

const UndistortionMaps& undistortionMaps() {
  static const UndistortionMaps maps;
  return maps;
}

void BM_CannyAndSobel(benchmark::State& state) {
  const size_t n = (size_t)kWidth * kHeight;
  std::vector<unsigned char> src = sceneImage(), edges(n);
  std::vector<short> dx(n), dy(n), tmp(2 * n);
  // Sized as the tracker reserves them.
  std::vector<int> buffer((size_t)(kWidth + 2) * (kHeight + 5));
  std::vector<unsigned char*> stack(n);
  for (auto _ : state) {
    const int ret = CannyAndSobel(src.data(), dx.data(), dy.data(), edges.data(), buffer.data(),
                                  stack.data(), tmp.data(), kWidth, kHeight, kLow, kHigh);
    benchmark::DoNotOptimize(ret);
    benchmark::ClobberMemory();
  }
  long count = 0;
  for (unsigned char e : edges) count += e != 0;
  state.counters["edge_pixels"] = (double)count;
}
BENCHMARK(BM_CannyAndSobel)->Unit(benchmark::kMicrosecond);

void BM_Undistort(benchmark::State& state) {
  const UndistortionMaps& m = undistortionMaps();
  std::vector<unsigned char> src = sceneImage(), dst((size_t)kWidth * kHeight);
  for (auto _ : state) {
    undistortImageFromTables(src.data(), dst.data(), m.w00.data(), m.w10.data(), m.w01.data(),
                             m.w11.data(), m.index.data(), kWidth, kHeight);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_Undistort)->Unit(benchmark::kMicrosecond);

#ifdef ZOT_HAVE_OPENCV_REFERENCE
void BM_OpenCV_SobelCanny(benchmark::State& state) {
  cv::setNumThreads(1);
  cv::Mat src = cv::Mat(kHeight, kWidth, CV_8UC1, (void*)sceneImage().data()).clone();
  cv::Mat dx, dy, edges;
  for (auto _ : state) {
    cv::Sobel(src, dx, CV_16S, 1, 0, 3);
    cv::Sobel(src, dy, CV_16S, 0, 1, 3);
    cv::Canny(dx, dy, edges, kLow, kHigh, false);
    benchmark::ClobberMemory();
  }
  state.counters["edge_pixels"] = (double)cv::countNonZero(edges);
}
BENCHMARK(BM_OpenCV_SobelCanny)->Unit(benchmark::kMicrosecond);

void BM_OpenCV_Remap(benchmark::State& state) {
  cv::setNumThreads(1);
  const UndistortionMaps& m = undistortionMaps();
  cv::Mat src = cv::Mat(kHeight, kWidth, CV_8UC1, (void*)sceneImage().data()).clone();
  cv::Mat mapX, mapY, map1, map2, dst;
  cv::Mat(kHeight, kWidth, CV_64F, (void*)m.mapX.data()).convertTo(mapX, CV_32F);
  cv::Mat(kHeight, kWidth, CV_64F, (void*)m.mapY.data()).convertTo(mapY, CV_32F);
  cv::convertMaps(mapX, mapY, map1, map2, CV_16SC2);
  for (auto _ : state) {
    cv::remap(src, dst, map1, map2, cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar(0));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_OpenCV_Remap)->Unit(benchmark::kMicrosecond);
#endif

}  // namespace

BENCHMARK_MAIN();
