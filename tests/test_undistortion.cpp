// Lens undistortion: maps against the distortion model, the fixed-point
// weights with their truncation effects, maps pointing anywhere, straight
// lines recovered from an image rendered through a distorting lens, and a
// bit-exact comparison with plain reference versions kept in this file.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "Imgproc.h"
#include "synthetic_images.h"

using namespace ZOTtracker;

namespace {

struct Tables {
  std::vector<int> w00, w10, w01, w11, index;
  explicit Tables(size_t n) : w00(n, 7), w10(n, 7), w01(n, 7), w11(n, 7), index(n, 7) {}
};

struct Maps {
  std::vector<double> x, y;
  explicit Maps(size_t n) : x(n), y(n) {}
};

Maps makeMaps(const double* K, const double* dist, const double* R, const double* newK, int w,
              int h) {
  Maps m((size_t)w * h);
  initUndistortRectifyMap(K, dist, R, newK, w, h, m.x.data(), m.y.data());
  return m;
}

Tables makeTables(const Maps& m, int w, int h) {
  Tables t(m.x.size());
  EXPECT_EQ(initUndistortionTables(m.x.data(), m.y.data(), t.w00.data(), t.w10.data(), t.w01.data(),
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

// ---------------------------------------------------------------- reference versions
Tables refTables(const Maps& m, int w, int h) {
  Tables t(m.x.size());
  for (size_t k = 0; k < m.x.size(); k++) {
    const double tx = std::trunc(m.x[k]), ty = std::trunc(m.y[k]);
    t.w00[k] = t.w10[k] = t.w01[k] = t.w11[k] = 0;
    if (!(tx >= 0 && tx <= w - 2 && ty >= 0 && ty <= h - 2)) {
      t.index[k] = -1;
      continue;
    }
    const int ix = (int)tx, iy = (int)ty;
    const double a = m.x[k] - ix, b = m.y[k] - iy;
    t.w00[k] = (int)std::trunc((1 - a) * (1 - b) * 256);
    t.w10[k] = (int)std::trunc(a * (1 - b) * 256);
    t.w01[k] = (int)std::trunc((1 - a) * b * 256);
    t.w11[k] = (int)std::trunc(a * b * 256);
    t.index[k] = ix + iy * w;
  }
  return t;
}

std::vector<unsigned char> refUndistort(const std::vector<unsigned char>& src, const Tables& t,
                                        int w) {
  std::vector<unsigned char> dst(src.size());
  for (size_t k = 0; k < src.size(); k++) {
    if (t.index[k] < 0) {
      dst[k] = 0;
      continue;
    }
    const unsigned char* p = &src[t.index[k]];
    uint32_t v = (uint32_t)p[0] * (uint32_t)t.w00[k];
    v += (uint32_t)p[1] * (uint32_t)t.w10[k];
    v += (uint32_t)p[w] * (uint32_t)t.w01[k];
    v += (uint32_t)p[w + 1] * (uint32_t)t.w11[k];
    dst[k] = (unsigned char)(v >> 8);
  }
  return dst;
}

// Source position of ideal pixel (u, v): ray R^T A^-1 (u, v, 1), normalised,
// distorted, projected with K (skew left out).
void modelPosition(const double* K, const double* dist, const double* R, const double* A, double u,
                   double v, double* mx, double* my) {
  // A = [fx s cx; 0 fy cy; 0 0 1] inverted by back substitution.
  const double yc = (v - A[5]) / A[4];
  const double xc = (u - A[2] - A[1] * yc) / A[0];
  const double ray[3] = {xc, yc, 1.0};
  double r[3];
  for (int i = 0; i < 3; i++) r[i] = R[i] * ray[0] + R[3 + i] * ray[1] + R[6 + i] * ray[2];
  double xd, yd;
  zot_test::distortNormalized(dist, r[0] / r[2], r[1] / r[2], &xd, &yd);
  *mx = K[0] * xd + K[2];
  *my = K[4] * yd + K[5];
}

// Sub-pixel position where a row (or column) profile crosses `level`
// between the pixels `from` and `to` (first crossing); NaN if none.
double crossing(const std::vector<double>& profile, double level) {
  for (size_t i = 0; i + 1 < profile.size(); i++) {
    const double a = profile[i] - level, b = profile[i + 1] - level;
    if ((a < 0) != (b < 0)) return i + a / (a - b);
  }
  return std::nan("");
}

// Largest distance of the points (t, s) from their least-squares line s = p + q t.
double straightnessError(const std::vector<double>& t, const std::vector<double>& s) {
  const double n = (double)t.size();
  double st = 0, ss = 0, stt = 0, sts = 0;
  for (size_t i = 0; i < t.size(); i++) {
    st += t[i];
    ss += s[i];
    stt += t[i] * t[i];
    sts += t[i] * s[i];
  }
  const double q = (n * sts - st * ss) / (n * stt - st * st), p = (ss - q * st) / n;
  double worst = 0;
  for (size_t i = 0; i < t.size(); i++) {
    worst = std::max(worst, std::fabs(s[i] - p - q * t[i]) / std::sqrt(1 + q * q));
  }
  return worst;
}

}  // namespace

// ---------------------------------------------------------------- maps
TEST(Undistortion, ZeroDistortionIsTheIdentityWithBlackLastRowAndColumn) {
  const int w = 64, h = 48;
  // Powers of two keep K^-1 and the running ray exact.
  const double K[9] = {256, 0, 32, 0, 256, 24, 0, 0, 1};
  const double zero[5] = {0, 0, 0, 0, 0};
  const Maps m = makeMaps(K, zero, nullptr, nullptr, w, h);
  const Tables t = makeTables(m, w, h);
  std::vector<unsigned char> src((size_t)w * h);
  zot_test::fillRandom(src.data(), w, h, 3);
  const auto dst = undistort(src, t, w, h);
  for (int y = 0; y < h; y++) {
    for (int x = 0; x < w; x++) {
      const size_t k = (size_t)y * w + x;
      SCOPED_TRACE(testing::Message() << "x=" << x << " y=" << y);
      ASSERT_EQ(m.x[k], x);
      ASSERT_EQ(m.y[k], y);
      const bool border = x == w - 1 || y == h - 1;
      EXPECT_EQ(t.index[k], border ? -1 : (int)k);
      EXPECT_EQ(t.w00[k], border ? 0 : 256);
      EXPECT_EQ(t.w10[k] | t.w01[k] | t.w11[k], 0);
      EXPECT_EQ(dst[k], border ? 0 : src[k]);
    }
  }
  // Any other K gives the identity up to the rounding of K^-1.
  const double K2[9] = {500.3, 0, 31.7, 0, 498.9, 22.1, 0, 0, 1};
  const Maps m2 = makeMaps(K2, nullptr, nullptr, nullptr, w, h);  // null: no distortion
  for (int y = 0; y < h; y++) {
    for (int x = 0; x < w; x++) {
      EXPECT_NEAR(m2.x[(size_t)y * w + x], x, 1e-9);
      EXPECT_NEAR(m2.y[(size_t)y * w + x], y, 1e-9);
    }
  }
}

TEST(Undistortion, MapsFollowTheDistortionModelWithRectificationAndNewCameraMatrix) {
  const int w = 50, h = 40;
  const double K[9] = {60, 0, 24.5, 0, 62, 19.5, 0, 0, 1};
  const double dist[5] = {-0.21, 0.05, 0.003, -0.002, 0.01};
  const double identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  const double c = std::cos(0.1), s = std::sin(0.1);
  const double R[9] = {c, -s, 0, s, c, 0, 0, 0, 1};  // 0.1 rad about the optical axis
  const double newK[9] = {55, 0, 26, 0, 57, 18, 0, 0, 1};
  struct Case {
    const double* R;
    const double* newK;
  } cases[] = {{nullptr, nullptr}, {R, nullptr}, {nullptr, newK}, {R, newK}};
  for (const Case& cs : cases) {
    const Maps m = makeMaps(K, dist, cs.R, cs.newK, w, h);
    for (int y = 0; y < h; y += 3) {
      for (int x = 0; x < w; x += 3) {
        double mx, my;
        modelPosition(K, dist, cs.R ? cs.R : identity, cs.newK ? cs.newK : K, x, y, &mx, &my);
        EXPECT_NEAR(m.x[(size_t)y * w + x], mx, 1e-9) << x << "," << y;
        EXPECT_NEAR(m.y[(size_t)y * w + x], my, 1e-9) << x << "," << y;
      }
    }
  }
  // Skew enters only through K^-1: without distortion a skewed camera's
  // map is sheared, x - s (y - cy) / fy.
  const double Ks[9] = {60, 6, 24.5, 0, 62, 19.5, 0, 0, 1};
  const Maps m = makeMaps(Ks, nullptr, nullptr, nullptr, w, h);
  EXPECT_NEAR(m.x[(size_t)30 * w + 10], 10 - 6 * (30 - 19.5) / 62, 1e-9);
  EXPECT_NEAR(m.y[(size_t)30 * w + 10], 30, 1e-9);
}

// ---------------------------------------------------------------- fixed-point weights
TEST(Undistortion, TruncatedWeightsDarkenAndExtrapolateJustLeftOfZero) {
  const int w = 40, h = 30;
  Maps m((size_t)w * h);
  for (size_t k = 0; k < m.x.size(); k++) m.x[k] = m.y[k] = -5;  // all outside
  // Pixel 0: 10.5 / 20.25; pixel 1: (-0.5, 5.0); pixel 2: a third in both.
  m.x[0] = 10.5, m.y[0] = 20.25;
  m.x[1] = -0.5, m.y[1] = 5.0;
  m.x[2] = 5 + 1.0 / 3, m.y[2] = 7 + 1.0 / 3;
  const Tables t = makeTables(m, w, h);
  EXPECT_EQ(t.index[0], 10 + 20 * w);
  EXPECT_EQ(t.w00[0], 96);
  EXPECT_EQ(t.w10[0], 96);
  EXPECT_EQ(t.w01[0], 32);
  EXPECT_EQ(t.w11[0], 32);
  EXPECT_EQ(t.index[1], 5 * w);
  EXPECT_EQ(t.w00[1], 384);
  EXPECT_EQ(t.w10[1], -128);
  EXPECT_EQ(t.w01[1], 0);
  EXPECT_EQ(t.w11[1], 0);
  EXPECT_EQ(t.w00[2], 113);
  EXPECT_EQ(t.w10[2], 56);
  EXPECT_EQ(t.w01[2], 56);
  EXPECT_EQ(t.w11[2], 28);  // sum 253, not 256
  EXPECT_EQ(t.index[3], -1);
  EXPECT_EQ(t.w00[3], 0);

  std::vector<unsigned char> src((size_t)w * h, 255);
  EXPECT_EQ(undistort(src, t, w, h)[2], 252);  // 255 * 253 >> 8: slightly darker
  EXPECT_EQ(undistort(src, t, w, h)[3], 0);
  // Extrapolation: 100 + 0.5 * (100 - 40).
  src[5 * w] = 100, src[5 * w + 1] = 40;
  EXPECT_EQ(undistort(src, t, w, h)[1], 130);
  // Below zero the unsigned sum wraps: low byte of (2^32 - 25600) >> 8.
  src[5 * w] = 0, src[5 * w + 1] = 200;
  EXPECT_EQ(undistort(src, t, w, h)[1], 156);
}

TEST(Undistortion, MapsPointingAnywhereGiveBlackPixels) {
  const int w = 20, h = 15;
  const double inf = std::numeric_limits<double>::infinity();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  // (x, y, accepted)
  const struct {
    double x, y;
    bool ok;
  } cases[] = {{nan, 3, false},           {3, nan, false},           {inf, 3, false},
               {-inf, 3, false},          {3, inf, false},           {1e300, 3, false},
               {-1e300, 3, false},        {3e9, 3, false},           {-3e9, 3, false},
               {-1.0, 3, false},          {-0.999, 3, true},         {3, -0.999, true},
               {w - 1.0, 3, false},       {w - 1.0 - 1e-9, 3, true}, {3, h - 1.0, false},
               {3, h - 1.0 - 1e-9, true}, {w - 2.0, h - 2.0, true}};
  const int n = (int)(sizeof(cases) / sizeof(cases[0]));
  Maps m((size_t)w * h);
  for (size_t k = 0; k < m.x.size(); k++) m.x[k] = m.y[k] = 1;
  for (int i = 0; i < n; i++) m.x[i] = cases[i].x, m.y[i] = cases[i].y;
  const Tables t = makeTables(m, w, h);
  std::vector<unsigned char> src((size_t)w * h, 200);
  const auto dst = undistort(src, t, w, h);
  for (int i = 0; i < n; i++) {
    SCOPED_TRACE(testing::Message()
                 << "case " << i << " (" << cases[i].x << ", " << cases[i].y << ")");
    EXPECT_EQ(t.index[i] >= 0, cases[i].ok);
    if (!cases[i].ok) {
      EXPECT_EQ(t.index[i], -1);
      EXPECT_EQ(t.w00[i] | t.w10[i] | t.w01[i] | t.w11[i], 0);
      EXPECT_EQ(dst[i], 0);
    } else {
      EXPECT_GT(dst[i], 0);
    }
  }
  // A damaged index table never reads outside the source: entries without
  // room for the lower-right neighbour, or negative, come out black.
  Tables bad = t;
  const int lastTopLeft = w * h - w - 2;
  bad.index[0] = lastTopLeft;
  bad.index[1] = lastTopLeft + 1;
  bad.index[2] = w * h - 1;
  bad.index[3] = 1 << 30;
  bad.index[4] = -5;
  bad.index[5] = std::numeric_limits<int>::min();
  for (int k = 0; k < 6; k++) bad.w00[k] = 256;
  const auto out = undistort(src, bad, w, h);
  EXPECT_EQ(out[0], 200);
  for (int k = 1; k < 6; k++) EXPECT_EQ(out[k], 0) << k;
}

TEST(Undistortion, DegenerateSizesNeverLeaveTheBuffers) {
  // One row or column has no pixel with a right and lower neighbour: all
  // black, every table entry -1.
  const int sizes[][2] = {{1, 9}, {9, 1}, {1, 1}};
  for (const auto& s : sizes) {
    const int w = s[0], h = s[1];
    Maps m((size_t)w * h);
    for (size_t k = 0; k < m.x.size(); k++) m.x[k] = m.y[k] = 0.0;
    const Tables t = makeTables(m, w, h);
    std::vector<unsigned char> src((size_t)w * h, 123);
    EXPECT_EQ(undistort(src, t, w, h), std::vector<unsigned char>((size_t)w * h, 0));
    EXPECT_EQ(t.index, std::vector<int>((size_t)w * h, -1));
  }
  // Zero and negative sizes write nothing.
  int tab[1] = {42};
  double map[1] = {0.0};
  unsigned char pix[1] = {42};
  const double K[9] = {100, 0, 1, 0, 100, 1, 0, 0, 1};
  for (const int w : {0, -3}) {
    EXPECT_EQ(initUndistortionTables(map, map, tab, tab, tab, tab, tab, w, 5), 0);
    undistortImageFromTables(pix, pix + 0, tab, tab, tab, tab, tab, w, 5);
    initUndistortRectifyMap(K, nullptr, nullptr, nullptr, w, 5, map, map);
  }
  EXPECT_EQ(tab[0], 42);
  EXPECT_EQ(pix[0], 42);
  EXPECT_EQ(map[0], 0.0);
}

// ---------------------------------------------------------------- straight lines
TEST(Undistortion, StraightLinesComeBackStraight) {
  const int w = 160, h = 120;
  const double K[9] = {150, 0, 80.3, 0, 150, 59.6, 0, 0, 1};
  const double dist[5] = {-0.30, 0.12, 0.002, -0.001, 0.0};
  const Tables t = makeTables(makeMaps(K, dist, nullptr, nullptr, w, h), w, h);
  const double dark = 40, bright = 210, level = (dark + bright) / 2;
  // Ideal edges: "vertical" u = a + b v and "horizontal" v = a + b u.
  const struct {
    bool vertical;
    double a, b;
  } lines[] = {{true, 12.4, 0.04},
               {true, 35.0, -0.02},
               {true, 146.7, 0.03},
               {false, 9.3, 0.02},
               {false, 108.2, -0.03}};
  for (const auto& line : lines) {
    SCOPED_TRACE(testing::Message() << (line.vertical ? "vertical " : "horizontal ") << line.a);
    std::vector<unsigned char> distorted((size_t)w * h);
    zot_test::renderThroughLens(distorted.data(), w, h, K, dist, 3, [&](double u, double v) {
      const double side = line.vertical ? u - (line.a + line.b * v) : v - (line.a + line.b * u);
      return side < 0 ? dark : bright;
    });
    const auto undistorted = undistort(distorted, t, w, h);
    auto measure = [&](const std::vector<unsigned char>& img, double* worstFromIdeal) {
      std::vector<double> along, across;
      const int n = line.vertical ? h : w, m = line.vertical ? w : h;
      for (int i = 4; i < n - 4; i++) {
        std::vector<double> profile(m);
        for (int j = 0; j < m; j++)
          profile[j] = line.vertical ? img[(size_t)i * w + j] : img[(size_t)j * w + i];
        const double c = crossing(profile, level);
        if (std::isnan(c)) continue;
        along.push_back(i);
        across.push_back(c);
        *worstFromIdeal = std::max(*worstFromIdeal, std::fabs(c - (line.a + line.b * i)));
      }
      EXPECT_GT(along.size(), (size_t)(n - 12));
      return straightnessError(along, across);
    };
    double offIdeal = 0, offIdealDistorted = 0;
    const double straight = measure(undistorted, &offIdeal);
    EXPECT_LT(straight, 0.5);
    EXPECT_LT(offIdeal, 0.5);
    // The lens really bent the line.
    const double bent = measure(distorted, &offIdealDistorted);
    EXPECT_GT(bent, 1.0);
  }
}

// ---------------------------------------------------------------- bit-exact with the reference
TEST(Undistortion, MatchesReferenceOnRandomMapsAndImages) {
  const int sizes[][2] = {{1, 1}, {1, 7}, {7, 1}, {2, 2}, {3, 5}, {33, 17}, {64, 48}, {161, 97}};
  uint64_t seed = 40;
  for (const auto& s : sizes) {
    const int w = s[0], h = s[1];
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    const size_t n = (size_t)w * h;
    // Random maps reaching beyond every border, with some special values ...
    zot_test::Lcg rng(seed++);
    Maps random(n);
    for (size_t k = 0; k < n; k++) {
      random.x[k] = -2.0 + (w + 3.0) * rng.uniform();
      random.y[k] = -2.0 + (h + 3.0) * rng.uniform();
      if (k % 13 == 5) random.x[k] = std::nan("");
      if (k % 17 == 3) random.y[k] = -std::numeric_limits<double>::infinity();
      if (k % 11 == 7) random.x[k] = std::floor(random.x[k]);  // exact integers
    }
    // ... and maps of a distorting lens.
    const double K[9] = {0.9 * w, 0, 0.5 * w - 0.3, 0, 0.9 * w, 0.5 * h + 0.2, 0, 0, 1};
    const double dist[5] = {-0.25, 0.07, 0.001, 0.002, -0.01};
    for (const Maps& m : {random, makeMaps(K, dist, nullptr, nullptr, w, h)}) {
      const Tables t = makeTables(m, w, h), ref = refTables(m, w, h);
      EXPECT_EQ(t.index, ref.index);
      EXPECT_EQ(t.w00, ref.w00);
      EXPECT_EQ(t.w10, ref.w10);
      EXPECT_EQ(t.w01, ref.w01);
      EXPECT_EQ(t.w11, ref.w11);
      for (int kind = 0; kind < 2; kind++) {
        std::vector<unsigned char> src(n);
        if (kind == 0) zot_test::fillRandom(src.data(), w, h, seed++);
        if (kind == 1) zot_test::renderShapesScene(src.data(), w, h, seed++, 5.0);
        EXPECT_EQ(undistort(src, t, w, h), refUndistort(src, ref, w));
      }
    }
  }
}
