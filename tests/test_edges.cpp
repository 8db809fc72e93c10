// Sobel and Canny edge detection: known images with hand-computed answers,
// the stack budget and its failure message, a rendered disc, and a bit-exact
// comparison of the optimised routines with plain reference versions kept in
// this file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "IO.h"
#include "Imgproc.h"
#include "synthetic_images.h"

using namespace ZOTtracker;

namespace {

const char* kStackMessage = "Canny failed: insufficient stack memory!\n";

// ---------------------------------------------------------------- reference versions
// Plain per-pixel Sobel: the 3 x 3 kernels on a mirrored image (index -1 is
// 1, index n is n - 2; a single row or column is its own neighbour).
int mirror(int i, int n) {
  if (n == 1) return 0;
  if (i < 0) return 1;
  if (i >= n) return n - 2;
  return i;
}

void refSobel(const std::vector<unsigned char>& img, int w, int h, std::vector<short>& dx,
              std::vector<short>& dy) {
  dx.assign((size_t)w * h, 0);
  dy.assign((size_t)w * h, 0);
  auto I = [&](int x, int y) { return (int)img[(size_t)mirror(y, h) * w + mirror(x, w)]; };
  const int smooth[3] = {1, 2, 1};
  for (int y = 0; y < h; y++) {
    for (int x = 0; x < w; x++) {
      int gx = 0, gy = 0;
      for (int k = -1; k <= 1; k++) {
        gx += smooth[k + 1] * (I(x + 1, y + k) - I(x - 1, y + k));
        gy += smooth[k + 1] * (I(x + k, y + 1) - I(x + k, y - 1));
      }
      dx[(size_t)y * w + x] = (short)gx;
      dy[(size_t)y * w + x] = (short)gy;
    }
  }
}

struct RefCannyResult {
  int code;
  std::vector<unsigned char> edges;
};

// Plain Canny: whole magnitude image, 64-bit direction test, a growing
// vector as stack with the budget bookkeeping done on the side.
RefCannyResult refCanny(const std::vector<short>& dx, const std::vector<short>& dy, int w, int h,
                        double low, double high) {
  RefCannyResult res{0, {}};
  if (low > high) std::swap(low, high);
  const long lo = (long)std::floor(low), hi = (long)std::floor(high);
  const long npix = (w > 0 && h > 0) ? (long)w * h : 0;
  long maxsize = npix > 10239 ? npix / 10 : 1024;
  auto fail = [&]() {
    printf("Canny failed: insufficient stack memory!\n");
    res.code = -16;
    return res;
  };
  auto grow = [&]() {
    maxsize = std::max(maxsize + 8, maxsize * 3 / 2);
    return maxsize <= npix;
  };
  if (npix < maxsize) return fail();
  const int W = w + 2, H = h + 2;
  std::vector<long> mag((size_t)W * H, 0);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++)
      mag[(size_t)(y + 1) * W + x + 1] =
          std::labs(dx[(size_t)y * w + x]) + std::labs(dy[(size_t)y * w + x]);
  std::vector<unsigned char> state((size_t)W * H, 1);
  std::vector<long> stack;
  for (int y = 0; y < h; y++) {
    if ((long)stack.size() > maxsize - w && !grow()) return fail();
    bool flag = false;
    for (int x = 0; x < w; x++) {
      const long c = (long)(y + 1) * W + x + 1;
      const long m = mag[c];
      const long gx = dx[(size_t)y * w + x], gy = dy[(size_t)y * w + x];
      bool isMax = false;
      if (m > lo) {
        const long ax = std::labs(gx), ay = std::labs(gy) * 32768;
        const long t22 = ax * 13573, t67 = t22 + ax * 65536;
        if (ay < t22) {
          isMax = m > mag[c - 1] && m >= mag[c + 1];
        } else if (ay > t67) {
          isMax = m > mag[c - W] && m >= mag[c + W];
        } else {
          const long s = ((gx < 0) != (gy < 0)) ? -1 : 1;
          isMax = m > mag[c - W - s] && m > mag[c + W + s];
        }
      }
      if (!isMax) {
        state[c] = 1;
        flag = false;
      } else if (!flag && m > hi && state[c - W] != 2) {
        state[c] = 2;
        stack.push_back(c);
        flag = true;
      } else {
        state[c] = 0;
      }
    }
  }
  const long nb[8] = {-1, 1, -W - 1, -W, -W + 1, W - 1, W, W + 1};
  while (!stack.empty()) {
    if ((long)stack.size() > maxsize - 8 && !grow()) return fail();
    const long c = stack.back();
    stack.pop_back();
    for (long o : nb) {
      if (state[c + o] == 0) {
        state[c + o] = 2;
        stack.push_back(c + o);
      }
    }
  }
  res.edges.assign((size_t)w * h, 0);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++)
      res.edges[(size_t)y * w + x] = state[(size_t)(y + 1) * W + x + 1] == 2 ? 255 : 0;
  return res;
}

// ---------------------------------------------------------------- library calls
// Work buffers of exactly the documented minimum size, so that the sanitizer
// build catches any access beyond them.
struct CannyBuffers {
  std::vector<int> buffer;
  std::vector<unsigned char*> stack;
  std::vector<short> tmp;
  CannyBuffers(int w, int h) {
    const size_t mapBytes = (size_t)(w + 2) * (h + 2);
    buffer.resize(3 * (size_t)(w + 2) + (mapBytes + sizeof(int) - 1) / sizeof(int));
    stack.resize((size_t)w * h);
    tmp.resize(2 * (size_t)w * h);
  }
};

struct CannyRun {
  int code;
  std::string out;
  std::vector<unsigned char> edges;
};

CannyRun runCanny(const std::vector<short>& dx, const std::vector<short>& dy, int w, int h,
                  double low, double high) {
  CannyBuffers b(w, h);
  CannyRun r;
  r.edges.assign((size_t)w * h, 77);
  testing::internal::CaptureStdout();
  r.code = myCanny(dx.data(), dy.data(), r.edges.data(), b.buffer.data(), b.stack.data(), w, h, low,
                   high);
  r.out = testing::internal::GetCapturedStdout();
  return r;
}

void runSobel(const std::vector<unsigned char>& img, int w, int h, std::vector<short>& dx,
              std::vector<short>& dy) {
  dx.assign((size_t)w * h, 0);
  dy.assign((size_t)w * h, 0);
  std::vector<short> tmp(2 * (size_t)w * h);
  EXPECT_EQ(mySobel(img.data(), dx.data(), dy.data(), tmp.data(), w, h), 0);
}

// Runs CannyAndSobel and returns the code; output through the vectors.
int runCannyAndSobel(const std::vector<unsigned char>& img, int w, int h, int low, int high,
                     std::vector<short>& dx, std::vector<short>& dy,
                     std::vector<unsigned char>& edges) {
  CannyBuffers b(w, h);
  dx.assign((size_t)w * h, 0);
  dy.assign((size_t)w * h, 0);
  edges.assign((size_t)w * h, 0);
  return CannyAndSobel(img.data(), dx.data(), dy.data(), edges.data(), b.buffer.data(),
                       b.stack.data(), b.tmp.data(), w, h, low, high);
}

std::vector<unsigned char> stepImage(int w, int h, bool vertical, int split, int a, int b) {
  std::vector<unsigned char> img((size_t)w * h);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++)
      img[(size_t)y * w + x] = (unsigned char)(((vertical ? x : y) < split) ? a : b);
  return img;
}

}  // namespace

// ---------------------------------------------------------------- Sobel
TEST(Sobel, RampsGiveConstantDerivativesAndZeroBorders) {
  const int w = 12, h = 9;
  std::vector<unsigned char> img((size_t)w * h);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) img[(size_t)y * w + x] = (unsigned char)(2 * x + 5 * y);
  std::vector<short> dx(w * h), dy(w * h), tmp(2 * w * h);
  ASSERT_EQ(mySobel(img.data(), dx.data(), dy.data(), tmp.data(), w, h), 0);
  for (int y = 0; y < h; y++) {
    for (int x = 0; x < w; x++) {
      SCOPED_TRACE(testing::Message() << "x=" << x << " y=" << y);
      EXPECT_EQ(dx[y * w + x], (x == 0 || x == w - 1) ? 0 : 16);
      EXPECT_EQ(dy[y * w + x], (y == 0 || y == h - 1) ? 0 : 40);
      // Work buffer: vertically smoothed image, then vertical differences.
      const int smooth = (y == 0)       ? 2 * (img[x] + img[w + x])
                         : (y == h - 1) ? 2 * (img[(h - 1) * w + x] + img[(h - 2) * w + x])
                                        : 4 * img[y * w + x];
      EXPECT_EQ(tmp[y * w + x], smooth);
      EXPECT_EQ(tmp[w * h + y * w + x], (y == 0 || y == h - 1) ? 0 : 10);
    }
  }
  // Falling ramps change the sign only.
  for (auto& p : img) p = (unsigned char)(255 - p);
  ASSERT_EQ(mySobel(img.data(), dx.data(), dy.data(), tmp.data(), w, h), 0);
  EXPECT_EQ(dx[4 * w + 5], -16);
  EXPECT_EQ(dy[4 * w + 5], -40);
}

TEST(Sobel, ExtremeStepsStayWithin1020) {
  const int w = 8, h = 8;
  std::vector<short> dx, dy;
  runSobel(stepImage(w, h, true, 4, 0, 255), w, h, dx, dy);
  EXPECT_EQ(dx[3 * w + 3], 1020);
  EXPECT_EQ(dx[3 * w + 4], 1020);
  runSobel(stepImage(w, h, false, 4, 255, 0), w, h, dx, dy);
  EXPECT_EQ(dy[3 * w + 0], -1020);  // mirrored left column counts twice
  EXPECT_EQ(dy[4 * w + 7], -1020);
}

TEST(Sobel, MatchesReferenceOnAllShapesIncludingSingleRowsAndColumns) {
  const int sizes[][2] = {{1, 1}, {1, 7}, {7, 1},   {2, 2},   {2, 5},
                          {5, 2}, {3, 3}, {17, 13}, {64, 48}, {101, 37}};
  uint64_t seed = 1;
  for (const auto& s : sizes) {
    const int w = s[0], h = s[1];
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    std::vector<unsigned char> img((size_t)w * h);
    zot_test::fillRandom(img.data(), w, h, seed++);
    std::vector<short> dx, dy, rdx, rdy;
    runSobel(img, w, h, dx, dy);
    refSobel(img, w, h, rdx, rdy);
    EXPECT_EQ(dx, rdx);
    EXPECT_EQ(dy, rdy);
  }
}

TEST(Sobel, DegenerateSizesWriteNothing) {
  std::vector<short> dx(4, 7), dy(4, 7), tmp(8, 7);
  const unsigned char img[4] = {1, 2, 3, 4};
  EXPECT_EQ(mySobel(img, dx.data(), dy.data(), tmp.data(), 0, 5), 0);
  EXPECT_EQ(mySobel(img, dx.data(), dy.data(), tmp.data(), 4, -1), 0);
  EXPECT_EQ(dx, std::vector<short>(4, 7));
  EXPECT_EQ(tmp, std::vector<short>(8, 7));
}

// ---------------------------------------------------------------- Canny: known answers
TEST(Canny, VerticalStepGivesExactlyColumnNine) {
  // A 20 x 20 image is below the detector's minimum of 1024 pixels: its
  // Sobel values are as expected, Canny refuses it.
  {
    std::vector<short> dx, dy;
    std::vector<unsigned char> edges;
    testing::internal::CaptureStdout();
    EXPECT_EQ(runCannyAndSobel(stepImage(20, 20, true, 10, 0, 100), 20, 20, 50, 150, dx, dy, edges),
              -16);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), kStackMessage);
    for (int x = 0; x < 20; x++) EXPECT_EQ(dx[7 * 20 + x], (x == 9 || x == 10) ? 400 : 0);
  }
  // The same step in a 40 x 32 image: of the two equal maxima, the left one
  // (strictly greater than its left neighbour, equal to its right) wins.
  const int w = 40, h = 32;
  for (int flip = 0; flip < 2; flip++) {
    std::vector<short> dx, dy;
    std::vector<unsigned char> edges;
    const auto img = stepImage(w, h, true, 10, flip ? 100 : 0, flip ? 0 : 100);
    ASSERT_EQ(runCannyAndSobel(img, w, h, 50, 150, dx, dy, edges), 0);
    for (int y = 0; y < h; y++) {
      for (int x = 0; x < w; x++) {
        SCOPED_TRACE(testing::Message() << "flip=" << flip << " x=" << x << " y=" << y);
        EXPECT_EQ(dx[y * w + x], (x == 9 || x == 10) ? (flip ? -400 : 400) : 0);
        EXPECT_EQ(dy[y * w + x], 0);
        EXPECT_EQ(edges[y * w + x], x == 9 ? 255 : 0);
      }
    }
  }
  // The same tie rule vertically: the upper of two equal rows wins.
  std::vector<short> dx, dy;
  std::vector<unsigned char> edges;
  ASSERT_EQ(runCannyAndSobel(stepImage(w, h, false, 10, 0, 100), w, h, 50, 150, dx, dy, edges), 0);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) EXPECT_EQ(edges[y * w + x], y == 9 ? 255 : 0) << x << "," << y;
}

TEST(Canny, UniformImagesHaveNoGradientAndNoEdges) {
  const int w = 40, h = 30;
  for (int v : {0, 17, 255}) {
    std::vector<short> dx, dy;
    std::vector<unsigned char> edges;
    std::vector<unsigned char> img((size_t)w * h, (unsigned char)v);
    ASSERT_EQ(runCannyAndSobel(img, w, h, 50, 150, dx, dy, edges), 0);
    EXPECT_EQ(dx, std::vector<short>((size_t)w * h, 0));
    EXPECT_EQ(dy, std::vector<short>((size_t)w * h, 0));
    EXPECT_EQ(edges, std::vector<unsigned char>((size_t)w * h, 0));
  }
}

TEST(Canny, ThresholdsAreSwappedThenFloored) {
  // One vertical line of magnitude 100, topped by a strong pixel of 200.
  const int w = 40, h = 40, col = 20;
  std::vector<short> dx((size_t)w * h, 0), dy((size_t)w * h, 0);
  for (int y = 5; y < 35; y++) dx[(size_t)y * w + col] = 100;
  auto column = [&](const CannyRun& r) {
    int n = 0;
    for (int y = 0; y < h; y++)
      for (int x = 0; x < w; x++)
        if (r.edges[(size_t)y * w + x]) n += (x == col) ? 1 : 1000;
    return n;
  };
  // 100 is not above a high threshold of 100.9 (floored to 100) ...
  EXPECT_EQ(column(runCanny(dx, dy, w, h, 50, 100.9)), 0);
  EXPECT_EQ(column(runCanny(dx, dy, w, h, 100.9, 50)), 0);
  // ... but above 99.9 (floored to 99).
  EXPECT_EQ(column(runCanny(dx, dy, w, h, 50, 99.9)), 30);
  EXPECT_EQ(column(runCanny(dx, dy, w, h, 99.9, 50)), 30);

  dx[5 * w + col] = 200;
  // Low threshold 99.5 -> 99: the weak line hangs on the strong pixel.
  EXPECT_EQ(column(runCanny(dx, dy, w, h, 99.5, 150)), 30);
  // Low threshold 100.5 -> 100: only the strong pixel survives.
  EXPECT_EQ(column(runCanny(dx, dy, w, h, 100.5, 150)), 1);
  // A NaN threshold counts as 0.
  EXPECT_EQ(column(runCanny(dx, dy, w, h, std::nan(""), 150)), 30);

  // Integer thresholds through CannyAndSobel: (150, 50) is (50, 150).
  const int sw = 64, sh = 48;
  std::vector<unsigned char> img((size_t)sw * sh);
  zot_test::renderShapesScene(img.data(), sw, sh, 3, 3.0);
  std::vector<short> sdx, sdy;
  std::vector<unsigned char> e1, e2;
  ASSERT_EQ(runCannyAndSobel(img, sw, sh, 50, 150, sdx, sdy, e1), 0);
  ASSERT_EQ(runCannyAndSobel(img, sw, sh, 150, 50, sdx, sdy, e2), 0);
  EXPECT_EQ(e1, e2);
  EXPECT_GT(std::count(e1.begin(), e1.end(), 255), 20);
}

TEST(Canny, TooSmallImagesFailWithMessageAndLeaveEdgesAlone) {
  // 31 x 31 = 961 pixels: below the minimum stack budget of 1024.
  std::vector<short> dx(31 * 31, 300), dy(31 * 31, 0);
  CannyRun r = runCanny(dx, dy, 31, 31, 50, 150);
  EXPECT_EQ(r.code, -16);
  EXPECT_EQ(r.code, ZOT_ERR_CANNY);
  EXPECT_EQ(r.out, kStackMessage);
  EXPECT_EQ(r.edges, std::vector<unsigned char>(31 * 31, 77));

  // Zero, negative and one-pixel sizes fail the same way without touching
  // any buffer (the pointers given are too small for the claimed size).
  int buffer[4] = {5, 5, 5, 5};
  unsigned char* stack[1] = {nullptr};
  unsigned char edges[1] = {9};
  const short d[1] = {300};
  const int bad[][2] = {{0, 0}, {0, 5000}, {5000, 0}, {1, 1}, {-40, -40}, {-2000, 3}};
  for (const auto& s : bad) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(myCanny(d, d, edges, buffer, stack, s[0], s[1], 50, 150), -16);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), kStackMessage);
    EXPECT_EQ(edges[0], 9);
    EXPECT_EQ(buffer[0], 5);
  }

  // CannyAndSobel passes the code on; 32 x 32 (1024 pixels) is enough.
  std::vector<unsigned char> img(32 * 32);
  zot_test::fillRandom(img.data(), 32, 32, 5);
  std::vector<short> sdx, sdy;
  std::vector<unsigned char> e;
  testing::internal::CaptureStdout();
  EXPECT_EQ(runCannyAndSobel(img, 31, 31, 50, 150, sdx, sdy, e), -16);
  EXPECT_EQ(runCannyAndSobel(img, 32, 32, 50, 150, sdx, sdy, e), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), kStackMessage);
}

TEST(Canny, RowStageStackBudgetGrowsAndFailsAtThePixelCount) {
  // Row 0 alternates strong horizontal maxima (500) with weak non-maxima
  // (100), so every other pixel is pushed: width / 2 entries after row 0.
  auto pattern = [](int w, int h) {
    std::vector<short> dx((size_t)w * h, 0), dy((size_t)w * h, 0);
    for (int x = 0; x < w; x++) dx[x] = (x % 2 == 0) ? 500 : 100;
    return std::make_pair(dx, dy);
  };
  // 600 x 2: 300 entries <= 1024 - 600, no growth needed.
  auto p = pattern(600, 2);
  CannyRun r = runCanny(p.first, p.second, 600, 2, 50, 150);
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(std::count(r.edges.begin(), r.edges.end(), 255), 300);
  // 700 x 2: 350 > 1024 - 700, the budget would grow to 1536 > 1400 pixels.
  p = pattern(700, 2);
  r = runCanny(p.first, p.second, 700, 2, 50, 150);
  EXPECT_EQ(r.code, -16);
  EXPECT_EQ(r.out, kStackMessage);
  EXPECT_EQ(r.edges, std::vector<unsigned char>(1400, 77));
  // A run of maxima pushes only its first pixel (the flag is cleared only by
  // a pixel that is no maximum): 700 vertical maxima in a row, one entry.
  std::vector<short> zero(1400, 0), dy(1400, 0);
  for (int x = 0; x < 700; x++) dy[x] = 500;
  r = runCanny(zero, dy, 700, 2, 50, 150);
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(std::count(r.edges.begin(), r.edges.begin() + 700, 255), 700);
  EXPECT_EQ(std::count(r.edges.begin() + 700, r.edges.end(), 255), 0);
  // 1000 x 2: 500 > 1024 - 1000, the budget grows to 1536 <= 2000 pixels.
  p = pattern(1000, 2);
  r = runCanny(p.first, p.second, 1000, 2, 50, 150);
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "");
}

TEST(Canny, RenderedDiscGivesAClosedOnePixelContour) {
  const int w = 80, h = 80;
  const double cx = 40.3, cy = 39.6, radius = 24.5;
  std::vector<unsigned char> img((size_t)w * h);
  zot_test::fillUniform(img.data(), w, h, 50);
  zot_test::renderDisc(img.data(), w, h, cx, cy, radius, 200.0);
  zot_test::addNoise(img.data(), w, h, 2.0, 11);
  std::vector<short> dx, dy;
  std::vector<unsigned char> edges;
  ASSERT_EQ(runCannyAndSobel(img, w, h, 50, 150, dx, dy, edges), 0);
  auto E = [&](int x, int y) {
    return x >= 0 && y >= 0 && x < w && y < h && edges[(size_t)y * w + x] != 0;
  };
  int count = 0;
  for (int y = 0; y < h; y++) {
    for (int x = 0; x < w; x++) {
      if (!E(x, y)) continue;
      count++;
      const double r = std::hypot(x - cx, y - cy);
      EXPECT_NEAR(r, radius, 1.5) << x << "," << y;
      // One pixel thin: no 2 x 2 block of edge pixels.
      EXPECT_FALSE(E(x + 1, y) && E(x, y + 1) && E(x + 1, y + 1)) << x << "," << y;
    }
  }
  EXPECT_GT(count, 2 * 3.14159 * radius * 0.7);
  // Closed: the inside cannot be reached from the border through
  // 4-connected non-edge pixels.
  std::vector<char> seen((size_t)w * h, 0);
  std::vector<int> todo = {0};
  seen[0] = 1;
  while (!todo.empty()) {
    const int k = todo.back();
    todo.pop_back();
    const int x = k % w, y = k / w;
    const int nx[4] = {x - 1, x + 1, x, x}, ny[4] = {y, y, y - 1, y + 1};
    for (int i = 0; i < 4; i++) {
      if (nx[i] < 0 || ny[i] < 0 || nx[i] >= w || ny[i] >= h || E(nx[i], ny[i])) continue;
      const int nk = ny[i] * w + nx[i];
      if (!seen[nk]) {
        seen[nk] = 1;
        todo.push_back(nk);
      }
    }
  }
  EXPECT_FALSE(seen[40 * w + 40]);
  EXPECT_TRUE(seen[(h - 1) * w + w - 1]);
}

// ---------------------------------------------------------------- Canny: bit-exact with the
// reference
TEST(Canny, MatchesReferenceOnRandomAndStructuredImages) {
  const int sizes[][2] = {{32, 32}, {33, 31}, {37, 29},  {1, 1100},  {1100, 1},
                          {2, 600}, {64, 48}, {127, 93}, {160, 120}, {203, 151}};
  const double thresholds[][2] = {{50, 150}, {150, 50}, {0, 0}, {-5, 10}, {20.7, 40.2}, {100, 100}};
  uint64_t seed = 100;
  for (const auto& s : sizes) {
    const int w = s[0], h = s[1];
    for (int kind = 0; kind < 3; kind++) {
      std::vector<unsigned char> img((size_t)w * h);
      if (kind == 0) zot_test::fillRandom(img.data(), w, h, seed++);
      if (kind == 1) zot_test::renderShapesScene(img.data(), w, h, seed++, 4.0);
      if (kind == 2) {
        zot_test::fillUniform(img.data(), w, h, 90);
        zot_test::renderDisc(img.data(), w, h, w * 0.45, h * 0.55, 0.3 * std::min(w, h) + 1, 180.0);
      }
      std::vector<short> dx, dy;
      runSobel(img, w, h, dx, dy);
      for (const auto& t : thresholds) {
        SCOPED_TRACE(testing::Message()
                     << w << "x" << h << " kind " << kind << " thresholds " << t[0] << "," << t[1]);
        CannyRun r = runCanny(dx, dy, w, h, t[0], t[1]);
        testing::internal::CaptureStdout();
        RefCannyResult ref = refCanny(dx, dy, w, h, t[0], t[1]);
        const std::string refOut = testing::internal::GetCapturedStdout();
        ASSERT_EQ(r.code, ref.code);
        EXPECT_EQ(r.out, refOut);
        if (ref.code == 0) {
          EXPECT_EQ(r.edges, ref.edges);
        }
      }
    }
  }
}

TEST(Canny, MatchesReferenceOnArbitraryDerivatives) {
  // Full-range shorts exercise the direction test beyond Sobel's 1020, and
  // two rows of rising magnitudes make every pixel a maximum so that the
  // hysteresis stack runs deep.
  const int sizes[][2] = {{45, 40}, {120, 90}};
  uint64_t seed = 900;
  for (const auto& s : sizes) {
    const int w = s[0], h = s[1];
    std::vector<short> dx((size_t)w * h), dy((size_t)w * h);
    zot_test::Lcg rng(seed++);
    for (size_t k = 0; k < dx.size(); k++) {
      dx[k] = (short)(rng.next() >> 15);
      dy[k] = (short)(rng.next() >> 15);
    }
    for (const double hi : {1000.0, 30000.0, 60000.0}) {
      CannyRun r = runCanny(dx, dy, w, h, hi / 3, hi);
      RefCannyResult ref = refCanny(dx, dy, w, h, hi / 3, hi);
      ASSERT_EQ(r.code, ref.code);
      EXPECT_EQ(r.edges, ref.edges);
    }
  }
  for (const int w : {520, 760, 1300}) {
    std::vector<short> dx((size_t)w * 2, 0), dy((size_t)w * 2, 0);
    for (int x = 0; x < w; x++) {
      dy[x] = (short)(100 + 2 * x);             // row 0: vertical maxima
      dx[w + x] = dy[w + x] = (short)(50 + x);  // row 1: diagonal maxima
    }
    CannyRun r = runCanny(dx, dy, w, 2, 10, 20);
    testing::internal::CaptureStdout();
    RefCannyResult ref = refCanny(dx, dy, w, 2, 10, 20);
    const std::string refOut = testing::internal::GetCapturedStdout();
    SCOPED_TRACE(w);
    ASSERT_EQ(r.code, ref.code);
    EXPECT_EQ(r.out, refOut);
    if (ref.code == 0) {
      EXPECT_EQ(r.edges, ref.edges);
    }
  }
}
