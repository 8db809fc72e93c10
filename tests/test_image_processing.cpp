// Image kernels compared bit for bit with plain reference versions kept in
// this file (Sobel, Canny, undistortion tables and remapping), the Canny
// stack budget with its message, maps against the distortion model, and the
// colour conversions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "IO.h"
#include "Imgproc.h"
#include "lens.h"
#include "synthetic_images.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const char* kStackMessage = "Canny failed: insufficient stack memory!\n";

// Sobel on a mirrored image (index -1 is 1, index n is n - 2; a single row
// or column is its own neighbour).
void refSobel(const std::vector<unsigned char>& img, int w, int h, std::vector<short>& dx,
              std::vector<short>& dy) {
  auto mirror = [](int i, int n) { return n == 1 ? 0 : i < 0 ? 1 : i >= n ? n - 2 : i; };
  auto I = [&](int x, int y) { return (int)img[(size_t)mirror(y, h) * w + mirror(x, w)]; };
  dx.assign((size_t)w * h, 0);
  dy.assign((size_t)w * h, 0);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++)
      for (int k = -1; k <= 1; k++) {
        dx[(size_t)y * w + x] += (short)((2 - k * k) * (I(x + 1, y + k) - I(x - 1, y + k)));
        dy[(size_t)y * w + x] += (short)((2 - k * k) * (I(x + k, y + 1) - I(x + k, y - 1)));
      }
}

struct CannyRun {
  int code;
  std::string out;
  std::vector<unsigned char> edges;
};

// Canny on a whole magnitude image with a growing vector as stack and the
// budget bookkeeping (start max(npix / 10, 1024), growth by half, failure
// beyond the pixel count) done on the side.
CannyRun refCanny(const std::vector<short>& dx, const std::vector<short>& dy, int w, int h,
                  double low, double high) {
  if (low > high) std::swap(low, high);
  const long lo = (long)std::floor(low), hi = (long)std::floor(high);
  const long npix = (w > 0 && h > 0) ? (long)w * h : 0;
  long maxsize = npix > 10239 ? npix / 10 : 1024;
  const CannyRun failed{ZOT_ERR_CANNY, kStackMessage, {}};
  auto grow = [&]() {
    maxsize = std::max(maxsize + 8, maxsize * 3 / 2);
    return maxsize <= npix;
  };
  if (npix < maxsize) return failed;
  const int W = w + 2, H = h + 2;
  std::vector<long> mag((size_t)W * H, 0), stack;
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++)
      mag[(size_t)(y + 1) * W + x + 1] =
          std::labs(dx[(size_t)y * w + x]) + std::labs(dy[(size_t)y * w + x]);
  std::vector<unsigned char> state((size_t)W * H, 1);
  for (int y = 0; y < h; y++) {
    if ((long)stack.size() > maxsize - w && !grow()) return failed;
    bool flag = false;
    for (int x = 0; x < w; x++) {
      const long c = (long)(y + 1) * W + x + 1, m = mag[c];
      const long gx = dx[(size_t)y * w + x], gy = dy[(size_t)y * w + x];
      bool isMax = false;
      if (m > lo) {
        const long ax = std::labs(gx), ay = std::labs(gy) * 32768;
        const long t22 = ax * 13573, t67 = t22 + ax * 65536;
        const long s = ((gx < 0) != (gy < 0)) ? -1 : 1;
        if (ay < t22) {
          isMax = m > mag[c - 1] && m >= mag[c + 1];
        } else if (ay > t67) {
          isMax = m > mag[c - W] && m >= mag[c + W];
        } else {
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
  while (!stack.empty()) {
    if ((long)stack.size() > maxsize - 8 && !grow()) return failed;
    const long c = stack.back();
    stack.pop_back();
    for (long o : {-1L, 1L, -W - 1L, -(long)W, -W + 1L, W - 1L, (long)W, W + 1L})
      if (state[c + o] == 0) state[c + o] = 2, stack.push_back(c + o);
  }
  CannyRun r{0, "", std::vector<unsigned char>((size_t)w * h)};
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++)
      r.edges[(size_t)y * w + x] = state[(size_t)(y + 1) * W + x + 1] == 2 ? 255 : 0;
  return r;
}

// The library's Canny with work buffers of exactly the documented minimum
// size, so that the sanitizer build catches any access beyond them.
CannyRun runCanny(const std::vector<short>& dx, const std::vector<short>& dy, int w, int h,
                  double low, double high) {
  std::vector<int> buffer(3 * (size_t)(w + 2) + ((size_t)(w + 2) * (h + 2) + 3) / 4);
  std::vector<unsigned char*> stack((size_t)w * h);
  CannyRun r{0, "", std::vector<unsigned char>((size_t)w * h, 77)};
  CaptureStdout();
  r.code =
      myCanny(dx.data(), dy.data(), r.edges.data(), buffer.data(), stack.data(), w, h, low, high);
  r.out = GetCapturedStdout();
  return r;
}

void expectSameAsReference(const std::vector<short>& dx, const std::vector<short>& dy, int w, int h,
                           double low, double high) {
  const CannyRun r = runCanny(dx, dy, w, h, low, high), ref = refCanny(dx, dy, w, h, low, high);
  ASSERT_EQ(r.code, ref.code) << w << "x" << h << " thresholds " << low << "," << high;
  EXPECT_EQ(r.out, ref.out);
  if (ref.code == 0) {
    EXPECT_EQ(r.edges, ref.edges) << w << "x" << h << " " << low << "," << high;
  }
}

}  // namespace

// ---------------------------------------------------------------- Sobel and Canny
TEST(EdgeDetection, SobelAndCannyMatchTheReferenceBitForBit) {
  const int sizes[][2] = {{1, 7},   {7, 1},    {2, 5},   {32, 32},
                          {37, 29}, {1, 1100}, {2, 600}, {160, 120}};
  const double thresholds[][2] = {{50, 150}, {150, 50}, {0, 0}, {20.7, 40.2}, {100, 100}};
  uint64_t seed = 100;
  for (const auto& s : sizes) {
    const int w = s[0], h = s[1];
    for (int kind = 0; kind < 3; kind++) {
      std::vector<unsigned char> img((size_t)w * h);
      if (kind == 0) zot_test::fillRandom(img.data(), w, h, seed++);
      if (kind == 1) zot_test::renderShapesScene(img.data(), w, h, seed++, 4.0);
      if (kind == 2) {  // a disc with full-range steps
        zot_test::fillUniform(img.data(), w, h, 0);
        zot_test::renderDisc(img.data(), w, h, w * 0.45, h * 0.55, 0.3 * std::min(w, h) + 1, 255.0,
                             1);
      }
      std::vector<short> dx((size_t)w * h), dy((size_t)w * h), tmp(2 * (size_t)w * h), rdx, rdy;
      ASSERT_EQ(mySobel(img.data(), dx.data(), dy.data(), tmp.data(), w, h), 0);
      refSobel(img, w, h, rdx, rdy);
      ASSERT_EQ(dx, rdx) << w << "x" << h << " kind " << kind;
      ASSERT_EQ(dy, rdy) << w << "x" << h << " kind " << kind;
      for (const auto& t : thresholds) expectSameAsReference(dx, dy, w, h, t[0], t[1]);
      // CannyAndSobel chains the two with integer thresholds.
      std::vector<int> buffer(3 * (size_t)(w + 2) + ((size_t)(w + 2) * (h + 2) + 3) / 4);
      std::vector<unsigned char*> stack((size_t)w * h);
      std::vector<unsigned char> edges((size_t)w * h);
      CaptureStdout();
      const int code = CannyAndSobel(img.data(), dx.data(), dy.data(), edges.data(), buffer.data(),
                                     stack.data(), tmp.data(), w, h, 150, 50);
      GetCapturedStdout();
      const CannyRun ref = refCanny(rdx, rdy, w, h, 50, 150);
      ASSERT_EQ(code, ref.code);
      if (code == 0) {
        EXPECT_EQ(edges, ref.edges);
      }
    }
  }
  // Full-range shorts exercise the direction test beyond Sobel's 1020.
  for (const int w : {45, 120}) {
    const int h = w * 3 / 4;
    std::vector<short> dx((size_t)w * h), dy((size_t)w * h);
    zot_test::Lcg rng(900 + w);
    for (size_t k = 0; k < dx.size(); k++)
      dx[k] = (short)(rng.next() >> 15), dy[k] = (short)(rng.next() >> 15);
    for (const double hi : {1000.0, 30000.0, 60000.0})
      expectSameAsReference(dx, dy, w, h, hi / 3, hi);
  }
  // Two rows of rising magnitudes make every pixel a maximum: the
  // hysteresis stack runs deep, and grows or fails by the budget.
  for (const int w : {520, 760, 1300}) {
    std::vector<short> dx((size_t)w * 2, 0), dy((size_t)w * 2, 0);
    for (int x = 0; x < w; x++)
      dy[x] = (short)(100 + 2 * x), dx[w + x] = dy[w + x] = (short)(50 + x);
    expectSameAsReference(dx, dy, w, 2, 10, 20);
  }
}

TEST(EdgeDetection, CannyStackBudgetGrowsAndFailsWithItsMessage) {
  // Row 0 alternates strong horizontal maxima (500) with weak non-maxima
  // (100): every other pixel is pushed, width / 2 entries after row 0.
  auto alternating = [](int w) {
    std::vector<short> dx((size_t)w * 2, 0);
    for (int x = 0; x < w; x++) dx[x] = (x % 2 == 0) ? 500 : 100;
    return dx;
  };
  const struct {
    int w, code, edges;
  } cases[] = {{600, 0, 300},             // 300 <= 1024 - 600: no growth
               {700, ZOT_ERR_CANNY, -1},  // grows to 1536 > 1400 pixels
               {1000, 0, 500}};           // grows to 1536 <= 2000 pixels
  for (const auto& c : cases) {
    const std::vector<short> dx = alternating(c.w), dy(dx.size(), 0);
    const CannyRun r = runCanny(dx, dy, c.w, 2, 50, 150);
    EXPECT_EQ(r.code, c.code) << c.w;
    EXPECT_EQ(r.out, c.code ? kStackMessage : "") << c.w;
    const std::vector<unsigned char> untouched(dx.size(), 77);
    EXPECT_EQ(
        c.code ? r.edges == untouched : std::count(r.edges.begin(), r.edges.end(), 255) == c.edges,
        true)
        << c.w;
  }
  // Below 1024 pixels, or sizes of nothing: refused without touching a buffer.
  int buffer[4] = {5, 5, 5, 5};
  unsigned char* stack[1] = {nullptr};
  unsigned char edges[1] = {9};
  const short d[1] = {300};
  for (const auto& s :
       {std::make_pair(31, 33), std::make_pair(0, 5000), std::make_pair(-40, -40)}) {
    CaptureStdout();
    EXPECT_EQ(myCanny(d, d, edges, buffer, stack, s.first, s.second, 50, 150), ZOT_ERR_CANNY);
    EXPECT_EQ(GetCapturedStdout(), kStackMessage);
  }
  EXPECT_EQ(edges[0] + buffer[0], 14);
  // Sobel of nothing writes nothing.
  std::vector<short> out(4, 7);
  EXPECT_EQ(mySobel(nullptr, out.data(), out.data(), out.data(), 0, 5), 0);
  EXPECT_EQ(out, std::vector<short>(4, 7));
}

// ---------------------------------------------------------------- undistortion
namespace {

struct Tables {
  std::vector<int> w00, w10, w01, w11, index;
  explicit Tables(size_t n) : w00(n, 7), w10(n, 7), w01(n, 7), w11(n, 7), index(n, 7) {}
};

// Truncated 8-bit weights of the four neighbours; -1 where the top-left
// neighbour leaves no room for the lower-right one.
Tables refTables(const std::vector<double>& mx, const std::vector<double>& my, int w, int h) {
  Tables t(mx.size());
  for (size_t k = 0; k < mx.size(); k++) {
    const double tx = std::trunc(mx[k]), ty = std::trunc(my[k]);
    t.w00[k] = t.w10[k] = t.w01[k] = t.w11[k] = 0;
    t.index[k] = -1;
    if (!(tx >= 0 && tx <= w - 2 && ty >= 0 && ty <= h - 2)) continue;
    const double a = mx[k] - tx, b = my[k] - ty;
    t.w00[k] = (int)std::trunc((1 - a) * (1 - b) * 256);
    t.w10[k] = (int)std::trunc(a * (1 - b) * 256);
    t.w01[k] = (int)std::trunc((1 - a) * b * 256);
    t.w11[k] = (int)std::trunc(a * b * 256);
    t.index[k] = (int)tx + (int)ty * w;
  }
  return t;
}

std::vector<unsigned char> refUndistort(const std::vector<unsigned char>& src, const Tables& t,
                                        int w) {
  std::vector<unsigned char> dst(src.size(), 0);
  for (size_t k = 0; k < src.size(); k++) {
    if (t.index[k] < 0) continue;
    const unsigned char* p = &src[t.index[k]];
    dst[k] = (unsigned char)(((uint32_t)p[0] * t.w00[k] + (uint32_t)p[1] * t.w10[k] +
                              (uint32_t)p[w] * t.w01[k] + (uint32_t)p[w + 1] * t.w11[k]) >>
                             8);
  }
  return dst;
}

Tables makeTables(const std::vector<double>& mx, const std::vector<double>& my, int w, int h) {
  Tables t(mx.size());
  EXPECT_EQ(initUndistortionTables(mx.data(), my.data(), t.w00.data(), t.w10.data(), t.w01.data(),
                                   t.w11.data(), t.index.data(), w, h),
            h);
  return t;
}

std::vector<unsigned char> undistort(const std::vector<unsigned char>& src, const Tables& t, int w,
                                     int h) {
  std::vector<unsigned char> dst((size_t)w * h, 99);
  undistortImageFromTables(src.data(), dst.data(), t.w00.data(), t.w10.data(), t.w01.data(),
                           t.w11.data(), t.index.data(), w, h);
  return dst;
}

}  // namespace

TEST(Undistortion, MapsFollowTheDistortionModelWithRectificationAndNewCameraMatrix) {
  const int w = 50, h = 40;
  const double K[9] = {60, 0, 24.5, 0, 62, 19.5, 0, 0, 1};
  const double dist[5] = {-0.21, 0.05, 0.003, -0.002, 0.01};
  const double c = std::cos(0.1), s = std::sin(0.1), I3[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  const double R[9] = {c, -s, 0, s, c, 0, 0, 0, 1};
  const double newK[9] = {55, 3, 26, 0, 57, 18, 0, 0, 1};  // with skew
  const double* cases[][2] = {{nullptr, nullptr}, {R, newK}};
  for (const auto& cs : cases) {
    const double* Rc = cs[0] ? cs[0] : I3;
    const double* A = cs[1] ? cs[1] : K;
    std::vector<double> mx((size_t)w * h), my((size_t)w * h);
    initUndistortRectifyMap(K, dist, cs[0], cs[1], w, h, mx.data(), my.data());
    for (int y = 0; y < h; y += 3)
      for (int x = 0; x < w; x += 3) {
        // Ray R^T A^-1 (x, y, 1), normalised, distorted, projected with K.
        const double yc = (y - A[5]) / A[4], xc = (x - A[2] - A[1] * yc) / A[0];
        double r[3], xd, yd;
        for (int i = 0; i < 3; i++) r[i] = Rc[i] * xc + Rc[3 + i] * yc + Rc[6 + i];
        zot_sim::distortNormalized(dist, r[0] / r[2], r[1] / r[2], &xd, &yd);
        EXPECT_NEAR(mx[(size_t)y * w + x], K[0] * xd + K[2], 1e-9) << x << "," << y;
        EXPECT_NEAR(my[(size_t)y * w + x], K[4] * yd + K[5], 1e-9) << x << "," << y;
      }
  }
}

TEST(Undistortion, TablesAndRemappingMatchTheReferenceBitForBit) {
  const int sizes[][2] = {{1, 7}, {7, 1}, {2, 2}, {33, 17}, {161, 97}};
  const double specials[] = {NAN, INFINITY, -INFINITY, 1e300, -3e9, -1.0, -0.999, 0.0, 5.5};
  uint64_t seed = 40;
  for (const auto& s : sizes) {
    const int w = s[0], h = s[1];
    const size_t n = (size_t)w * h;
    // Random maps reaching beyond every border, with special values, and
    // the maps of a distorting lens.
    zot_test::Lcg rng(seed++);
    std::vector<double> rx(n), ry(n), lx(n), ly(n);
    for (size_t k = 0; k < n; k++) {
      rx[k] = -2.0 + (w + 3.0) * rng.uniform();
      ry[k] = k % 5 == 1 ? h - 1.0 - 1e-9 * (k % 2) : -2.0 + (h + 3.0) * rng.uniform();
      if (k % 7 == 3) rx[k] = specials[(k / 7) % 9];
      if (k % 11 == 7) rx[k] = std::floor(rx[k]);
    }
    const double K[9] = {0.9 * w, 0, 0.5 * w - 0.3, 0, 0.9 * w, 0.5 * h + 0.2, 0, 0, 1};
    const double dist[5] = {-0.25, 0.07, 0.001, 0.002, -0.01};
    initUndistortRectifyMap(K, dist, nullptr, nullptr, w, h, lx.data(), ly.data());
    for (int maps = 0; maps < 2; maps++) {
      const std::vector<double>& mx = maps ? lx : rx;
      const std::vector<double>& my = maps ? ly : ry;
      const Tables t = makeTables(mx, my, w, h), ref = refTables(mx, my, w, h);
      ASSERT_EQ(t.index, ref.index) << w << "x" << h;
      ASSERT_EQ(t.w00, ref.w00);
      ASSERT_EQ(t.w10, ref.w10);
      ASSERT_EQ(t.w01, ref.w01);
      ASSERT_EQ(t.w11, ref.w11);
      std::vector<unsigned char> src(n);
      zot_test::renderShapesScene(src.data(), w, h, seed++, 5.0);
      EXPECT_EQ(undistort(src, t, w, h), refUndistort(src, ref, w));
    }
  }
  // Truncated weights: a third in both directions sums to 253, not 256;
  // just left of zero the weights extrapolate (384, -128).
  const int w = 40, h = 30;
  std::vector<double> mx((size_t)w * h, -5), my((size_t)w * h, -5);
  mx[0] = 5 + 1.0 / 3, my[0] = 7 + 1.0 / 3, mx[1] = -0.5, my[1] = 5.0;
  Tables t = makeTables(mx, my, w, h);
  EXPECT_EQ(t.w00[0] + t.w10[0] + t.w01[0] + t.w11[0], 253);
  EXPECT_EQ(t.w00[1] * 1000 + t.w10[1], 384000 - 128);
  std::vector<unsigned char> src((size_t)w * h, 255);
  src[5 * w] = 100, src[5 * w + 1] = 40;
  const auto dst = undistort(src, t, w, h);
  EXPECT_EQ(dst[0], 252);  // 255 * 253 >> 8
  EXPECT_EQ(dst[1], 130);  // 100 + 0.5 * (100 - 40)
  EXPECT_EQ(dst[2], 0);
  // A damaged index table never reads outside the source: entries without
  // room for the lower-right neighbour, or negative, come out black.
  const int lastTopLeft = w * h - w - 2;
  const int bad[] = {
      lastTopLeft, lastTopLeft + 1, w * h - 1, 1 << 30, -5, std::numeric_limits<int>::min()};
  for (int k = 0; k < 6; k++)
    t.index[k] = bad[k], t.w00[k] = 256, t.w10[k] = t.w01[k] = t.w11[k] = 0;
  const auto out = undistort(src, t, w, h);
  EXPECT_EQ(out[0], 255);
  for (int k = 1; k < 6; k++) EXPECT_EQ(out[k], 0) << k;
}

// ---------------------------------------------------------------- colour
TEST(ColourConversions, LuminanceGreyRoundTripAndPlaneMerge) {
  // Pixels in memory order blue, green, red.
  const unsigned char colour[] = {0, 0, 255, 0, 255, 0, 255, 0, 0, 10, 20, 30};
  unsigned char grey[5] = {0, 0, 0, 0, 99};
  convertColorToGray(colour, grey, 2, 2);
  const unsigned char expected[5] = {76, 150, 29, (1868 * 10 + 9617 * 20 + 4899 * 30 + 8192) >> 14,
                                     99};
  for (int k = 0; k < 5; k++) EXPECT_EQ(grey[k], expected[k]) << k;
  std::vector<unsigned char> all(256), rgb(256 * 3), back(256);
  for (int i = 0; i < 256; i++) all[i] = (unsigned char)i;
  convertGrayToColor(all.data(), rgb.data(), 16, 16);
  convertColorToGray(rgb.data(), back.data(), 16, 16);
  EXPECT_EQ(back, all);
  EXPECT_EQ(rgb[3 * 200 + 2], 200);

  const unsigned char p0[4] = {200, 200, 200, 200}, p2[4] = {1, 2, 3, 4};
  unsigned char out[13];
  out[12] = 7;
  merge(nullptr, p0, p2, out, 4, 1);  // a null plane is zero
  const unsigned char merged[13] = {0, 200, 1, 0, 200, 2, 0, 200, 3, 0, 200, 4, 7};
  for (int k = 0; k < 13; k++) EXPECT_EQ(out[k], merged[k]) << k;
}
