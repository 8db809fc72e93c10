// Viewing frustum, segment and polygon clipping, depth-tested convex fill and
// the integer line walker.
#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <utility>
#include <vector>

#include "Imgproc.h"
#include "box_models.h"

using namespace ZOTtracker;

namespace {

constexpr int kW = 64, kH = 48;
constexpr double kNear = 1.0, kFar = 100.0;

struct Frustum {
  double K[9];
  double planes[24];
  Frustum() {
    zot_test::pinholeK(K, 50.0, kW, kH);
    computeViewingFrustum(planes, K, 0.0, 0.0, kW - 1.0, kH - 1.0, kNear, kFar);
  }
  double value(int p, const double* X) const {
    return planes[4 * p] * X[0] + planes[4 * p + 1] * X[1] + planes[4 * p + 2] * X[2] +
           planes[4 * p + 3];
  }
  // Camera-frame point at depth z that projects onto pixel (u, v).
  void backProject(double u, double v, double z, double* X) const {
    X[0] = (u - K[2]) / K[0] * z;
    X[1] = (v - K[5]) / K[4] * z;
    X[2] = z;
  }
  void project(const double* X, double* uv) const {
    uv[0] = X[0] / X[2] * K[0] + K[2];
    uv[1] = X[1] / X[2] * K[4] + K[5];
  }
};

}  // namespace

TEST(ViewingFrustum, PlanesPassThroughImageCornersInOrder) {
  Frustum fr;
  // Plane i runs through corners i and i+1 of (xmin,ymin), (xmin,ymax), (xmax,ymax), (xmax,ymin).
  const double corners[4][2] = {{0, 0}, {0, kH - 1.0}, {kW - 1.0, kH - 1.0}, {kW - 1.0, 0}};
  for (int p = 0; p < 4; p++) {
    const double* pl = fr.planes + 4 * p;
    EXPECT_NEAR(std::sqrt(pl[0] * pl[0] + pl[1] * pl[1] + pl[2] * pl[2]), 1.0, 1e-12);
    EXPECT_NEAR(pl[3], 0.0, 1e-12) << "side planes pass through the camera centre";
    for (int c : {p, (p + 1) % 4}) {
      double X[3];
      fr.backProject(corners[c][0], corners[c][1], 7.0, X);
      EXPECT_NEAR(fr.value(p, X), 0.0, 1e-9) << "plane " << p << " corner " << c;
    }
  }
  const double nearPlane[4] = {0, 0, -1, kNear}, farPlane[4] = {0, 0, 1, -kFar};
  for (int i = 0; i < 4; i++) {
    EXPECT_EQ(fr.planes[16 + i], nearPlane[i]);
    EXPECT_EQ(fr.planes[20 + i], farPlane[i]);
  }
  // The image centre is inside all planes; one pixel beyond each border is
  // outside exactly that border's plane.
  double X[3];
  fr.backProject(30, 20, 10, X);
  for (int p = 0; p < 6; p++) EXPECT_LT(fr.value(p, X), 0.0);
  const double beyond[4][2] = {{-1, 20}, {30, kH}, {kW, 20}, {30, -1}};
  for (int p = 0; p < 4; p++) {
    fr.backProject(beyond[p][0], beyond[p][1], 10, X);
    for (int q = 0; q < 6; q++) {
      if (q == p) {
        EXPECT_GT(fr.value(q, X), 0.0) << "point beyond border " << p;
      } else {
        EXPECT_LT(fr.value(q, X), 0.0) << "point beyond border " << p << " plane " << q;
      }
    }
  }
}

TEST(SegmentClipping, EachPlaneCutsAtItsBoundary) {
  Frustum fr;
  double seg[6], out[6], uv[2];
  // Left and right: a horizontal segment at depth 10 from u = -40 to u = 100.
  fr.backProject(-40, 20, 10, seg);
  fr.backProject(100, 20, 10, seg + 3);
  ASSERT_EQ(clipSegmentToViewingFrustum(seg, out, fr.planes, 0.0), 1);
  fr.project(out, uv);
  EXPECT_NEAR(uv[0], 0.0, 1e-9);
  fr.project(out + 3, uv);
  EXPECT_NEAR(uv[0], kW - 1.0, 1e-9);
  // Top and bottom: a vertical segment, reversed direction.
  fr.backProject(30, 90, 10, seg);
  fr.backProject(30, -30, 10, seg + 3);
  ASSERT_EQ(clipSegmentToViewingFrustum(seg, out, fr.planes, 0.0), 1);
  fr.project(out, uv);
  EXPECT_NEAR(uv[1], kH - 1.0, 1e-9);
  fr.project(out + 3, uv);
  EXPECT_NEAR(uv[1], 0.0, 1e-9);
  // Near and far: along the optical axis.
  const double axis[6] = {0, 0, 0.25, 0, 0, 400};
  ASSERT_EQ(clipSegmentToViewingFrustum(axis, out, fr.planes, 0.0), 1);
  EXPECT_NEAR(out[2], kNear, 1e-9);
  EXPECT_NEAR(out[5], kFar, 1e-9);
  // Wholly beyond one plane, or cut shorter than the minimum length.
  fr.backProject(-5, 20, 10, seg);
  fr.backProject(-50, 20, 10, seg + 3);
  out[0] = 123.0;
  EXPECT_EQ(clipSegmentToViewingFrustum(seg, out, fr.planes, 0.0), 0);
  EXPECT_EQ(out[0], 123.0) << "nothing written on rejection";
  const double nearly[6] = {0, 0, 0.5, 0, 0, 1.1};
  EXPECT_EQ(clipSegmentToViewingFrustum(nearly, out, fr.planes, 0.2), 0);
  EXPECT_EQ(clipSegmentToViewingFrustum(nearly, out, fr.planes, 0.05), 1);
  const double shortSeg[6] = {0, 0, 5, 0, 0, 5.1};
  EXPECT_EQ(clipSegmentToViewingFrustum(shortSeg, out, fr.planes, 0.2), 0);
}

TEST(SegmentClipping, EndOnPlaneCountsAsInside) {
  Frustum fr;
  // Starts exactly on the near plane, ends inside: kept unchanged.
  const double seg[6] = {0, 0, kNear, 0.5, 0, 5};
  double out[6];
  ASSERT_EQ(clipSegmentToViewingFrustum(seg, out, fr.planes, 0.0), 1);
  for (int i = 0; i < 6; i++) EXPECT_EQ(out[i], seg[i]);
  // Touching the near plane from outside with one end only is a point: length 0.
  const double touch[6] = {0, 0, 0.5, 0, 0, kNear};
  EXPECT_EQ(clipSegmentToViewingFrustum(touch, out, fr.planes, 0.0), 1);
  EXPECT_EQ(clipSegmentToViewingFrustum(touch, out, fr.planes, 1e-6), 0);
}

TEST(PolygonClipping, SquareStraddlingEachPlane) {
  Frustum fr;
  // For each side, a square at depth 10 centred on that border: half of it
  // remains, the new edge on the plane carries id -1 and the other ids
  // belong to the edges they started from.
  const double centres[4][2] = {{0, 20}, {30, kH - 1.0}, {kW - 1.0, 20}, {30, 0}};
  for (int p = 0; p < 4; p++) {
    double v[3 * 10], sv[3 * 10];
    int ids[10] = {10, 11, 12, 13}, sids[10];
    const double cu = centres[p][0], cv = centres[p][1];
    const double offs[4][2] = {{-5, -5}, {5, -5}, {5, 5}, {-5, 5}};
    for (int k = 0; k < 4; k++) fr.backProject(cu + offs[k][0], cv + offs[k][1], 10, v + 3 * k);
    int n = 4;
    poly_clip_to_view_frustum(n, v, sv, fr.planes, ids, sids);
    ASSERT_EQ(n, 4) << "plane " << p;
    int nOnPlane = 0;
    for (int k = 0; k < n; k++) {
      for (int q = 0; q < 6; q++) EXPECT_LE(fr.value(q, v + 3 * k), 1e-9);
      if (ids[k] == -1) nOnPlane++;
      if (ids[k] >= 0) {
        EXPECT_TRUE(ids[k] >= 10 && ids[k] <= 13);
      }
      // An edge with id -1 lies on the clipping plane.
      if (ids[k] == -1) {
        EXPECT_NEAR(fr.value(p, v + 3 * k), 0.0, 1e-9);
        EXPECT_NEAR(fr.value(p, v + 3 * ((k + 1) % n)), 0.0, 1e-9);
      }
    }
    EXPECT_EQ(nOnPlane, 1);
  }
  // Near plane: a triangle reaching from z = 0.5 to z = 3 loses its tip and
  // becomes a quadrilateral with one edge at z = kNear.
  double v[30] = {0, 0, 0.5, 0.5, 0, 3, -0.5, 0, 3}, sv[30];
  int ids[10] = {0, 1, 2}, sids[10];
  int n = 3;
  poly_clip_to_view_frustum(n, v, sv, fr.planes, ids, sids);
  ASSERT_EQ(n, 4);
  int atNear = 0;
  for (int k = 0; k < n; k++) atNear += std::fabs(v[3 * k + 2] - kNear) < 1e-12;
  EXPECT_EQ(atNear, 2);
  // Far plane: wholly beyond it.
  double far[30] = {0, 0, 200, 1, 0, 200, 0, 1, 200};
  n = 3;
  poly_clip_to_view_frustum(n, far, sv, fr.planes, ids, sids);
  EXPECT_EQ(n, 0);
  // Wholly inside: untouched.
  double in[30] = {0, 0, 5, 1, 0, 5, 0, 1, 5};
  int inIds[10] = {7, 8, 9};
  n = 3;
  poly_clip_to_view_frustum(n, in, sv, fr.planes, inIds, sids);
  EXPECT_EQ(n, 3);
  EXPECT_EQ(in[3], 1.0);
  EXPECT_EQ(inIds[2], 9);
}

namespace {

struct Canvas {
  std::vector<unsigned char> image = std::vector<unsigned char>(kW * kH, 0);
  std::vector<double> depth = std::vector<double>(kW * kH, 0.0);
  std::vector<int> ids = std::vector<int>(kW * kH, 0);
  int count(unsigned char v) const {
    int n = 0;
    for (unsigned char p : image) n += p == v;
    return n;
  }
};

const int kFullRect[4] = {0, 0, kW - 1, kH - 1};

}  // namespace

TEST(ConvexFill, ConvexityRuleAndPlainFill) {
  Canvas c;
  // A quadrilateral with a reflex vertex is refused and nothing is drawn.
  const double dart[8] = {10, 10, 30, 20, 10, 30, 15, 20};
  EXPECT_EQ(fillConvexPoly_DepthTest(c.image.data(), 9, nullptr, nullptr, nullptr, kW, kH, 4, dart,
                                     kFullRect, 0, 0, 0, 0, 0, 0),
            -1);
  EXPECT_EQ(c.count(9), 0);
  // Too few vertices.
  EXPECT_EQ(fillConvexPoly_DepthTest(c.image.data(), 9, nullptr, nullptr, nullptr, kW, kH, 2, dart,
                                     kFullRect, 0, 0, 0, 0, 0, 0),
            -1);
  // Both windings of a convex quadrilateral are filled alike.
  const double ccw[8] = {10.5, 5.5, 10.5, 15.5, 20.5, 15.5, 20.5, 5.5};
  const double cw[8] = {10.5, 5.5, 20.5, 5.5, 20.5, 15.5, 10.5, 15.5};
  EXPECT_EQ(fillConvexPoly_DepthTest(c.image.data(), 1, nullptr, nullptr, nullptr, kW, kH, 4, ccw,
                                     kFullRect, 0, 0, 0, 0, 0, 0),
            0);
  EXPECT_EQ(c.count(1), 100) << "columns 11..20, rows 6..15";
  EXPECT_EQ(c.image[6 * kW + 11], 1);
  EXPECT_EQ(c.image[15 * kW + 20], 1);
  EXPECT_EQ(c.image[5 * kW + 11], 0);
  EXPECT_EQ(c.image[6 * kW + 21], 0);
  Canvas d;
  EXPECT_EQ(fillConvexPoly_DepthTest(d.image.data(), 1, nullptr, nullptr, nullptr, kW, kH, 4, cw,
                                     kFullRect, 0, 0, 0, 0, 0, 0),
            0);
  EXPECT_EQ(d.image, c.image);
  // Triangles are not tested for convexity; a collinear one fills at most a line.
  Canvas e;
  const double flat[6] = {5, 5, 15, 15, 25, 25};
  EXPECT_EQ(fillConvexPoly_DepthTest(e.image.data(), 1, nullptr, nullptr, nullptr, kW, kH, 3, flat,
                                     kFullRect, 0, 0, 0, 0, 0, 0),
            0);
  for (int y = 0; y < kH; y++) {
    for (int x = 0; x < kW; x++) {
      if (e.image[y * kW + x]) {
        EXPECT_LE(std::abs(x - y), 1) << x << "," << y;
      }
    }
  }
  // Clip rectangle and mask limit what is written.
  Canvas f;
  std::vector<unsigned char> mask(kW * kH, 0);
  for (int x = 0; x < kW; x++) mask[10 * kW + x] = 1;
  const int rect[4] = {12, 0, 14, kH - 1};
  fillConvexPoly_DepthTest(f.image.data(), 1, nullptr, nullptr, mask.data(), kW, kH, 4, ccw, rect,
                           0, 0, 0, 0, 0, 0);
  EXPECT_EQ(f.count(1), 3);
  EXPECT_EQ(f.image[10 * kW + 12], 1);
  // A polygon reaching far outside the image is cut at the image border.
  Canvas g;
  const double huge[6] = {-1e7, -1e7, 1e7, -1e7, 0, 1e7};
  const int wide[4] = {-100, -100, 1000, 1000};
  EXPECT_EQ(fillConvexPoly_DepthTest(g.image.data(), 1, nullptr, nullptr, nullptr, kW, kH, 3, huge,
                                     wide, 0, 0, 0, 0, 0, 0),
            0);
  EXPECT_EQ(g.count(1), kW * kH);
  // NaN vertices are refused.
  const double bad[6] = {NAN, 1, 2, 3, 4, 5};
  EXPECT_EQ(fillConvexPoly_DepthTest(g.image.data(), 2, nullptr, nullptr, nullptr, kW, kH, 3, bad,
                                     kFullRect, 0, 0, 0, 0, 0, 0),
            -1);
}

TEST(ConvexFill, DepthTestKeepsNearestAndBounds) {
  Canvas c;
  const double quad[8] = {4.5, 4.5, 4.5, 14.5, 14.5, 14.5, 14.5, 4.5};
  // Constant inverse depth 1/10: delta = -(0*x + 0*y + a0) with a0 = -0.1.
  ASSERT_EQ(fillConvexPoly_DepthTest(c.image.data(), 50, c.depth.data(), c.ids.data(), nullptr, kW,
                                     kH, 4, quad, kFullRect, 7, 0, 0, -0.1, 1.0, 0.01),
            0);
  EXPECT_EQ(c.count(50), 100);
  EXPECT_DOUBLE_EQ(c.depth[10 * kW + 10], 0.1);
  EXPECT_EQ(c.ids[10 * kW + 10], 7);
  // A farther surface (1/20) does not overwrite; a nearer one (1/5) does.
  const double quad2[8] = {9.5, 9.5, 9.5, 19.5, 19.5, 19.5, 19.5, 9.5};
  fillConvexPoly_DepthTest(c.image.data(), 60, c.depth.data(), c.ids.data(), nullptr, kW, kH, 4,
                           quad2, kFullRect, 8, 0, 0, -0.05, 1.0, 0.01);
  EXPECT_EQ(c.ids[12 * kW + 12], 7);
  EXPECT_EQ(c.ids[17 * kW + 17], 8);
  EXPECT_EQ(c.count(60), 100 - 25);
  fillConvexPoly_DepthTest(c.image.data(), 70, c.depth.data(), c.ids.data(), nullptr, kW, kH, 4,
                           quad2, kFullRect, 9, 0, 0, -0.2, 1.0, 0.01);
  EXPECT_EQ(c.ids[12 * kW + 12], 9);
  EXPECT_EQ(c.count(70), 100);
  // Slanted plane: the stored value is -(ax*x + ay*y + a0) per pixel.
  Canvas s;
  fillConvexPoly_DepthTest(nullptr, 0, s.depth.data(), nullptr, nullptr, kW, kH, 4, quad, kFullRect,
                           1, -0.01, -0.002, -0.05, 1.0, 0.0);
  EXPECT_DOUBLE_EQ(s.depth[7 * kW + 11], 0.01 * 11 + 0.002 * 7 + 0.05);
  // Outside lower..upper (and upper < lower) nothing is written.
  Canvas u;
  fillConvexPoly_DepthTest(u.image.data(), 1, u.depth.data(), u.ids.data(), nullptr, kW, kH, 4,
                           quad, kFullRect, 1, 0, 0, -0.1, 0.05, 0.01);
  fillConvexPoly_DepthTest(u.image.data(), 1, u.depth.data(), u.ids.data(), nullptr, kW, kH, 4,
                           quad, kFullRect, 1, 0, 0, -0.1, 0.01, 1.0);
  EXPECT_EQ(u.count(1), 0);
  for (double dv : u.depth) EXPECT_EQ(dv, 0.0);
}

namespace {

std::vector<std::pair<int, int>> walk(int x0, int y0, int x1, int y1, int connectivity,
                                      int leftToRight, std::vector<unsigned char>& img) {
  myLineIterator it;
  const int start[2] = {x0, y0}, end[2] = {x1, y1};
  const int n = initLineIterator(img.data(), kW, kH, 1, start, end, &it, connectivity, leftToRight);
  std::vector<std::pair<int, int>> pts;
  for (int i = 0; i < n; i++) {
    const long off = it.m_ptr - img.data();
    pts.push_back({(int)(off % kW), (int)(off / kW)});
    advanceLineIterator(it);
  }
  return pts;
}

}  // namespace

TEST(LineIterator, WalksConnectedLinesBetweenEnds) {
  std::vector<unsigned char> img(kW * kH);
  const int lines[][4] = {
      {2, 3, 40, 17}, {40, 17, 2, 3}, {5, 40, 9, 2}, {30, 30, 30, 30}, {0, 0, 63, 0}};
  for (const auto& l : lines) {
    const auto p8 = walk(l[0], l[1], l[2], l[3], 8, 0, img);
    const int major = std::max(std::abs(l[2] - l[0]), std::abs(l[3] - l[1]));
    ASSERT_EQ((int)p8.size(), major + 1);
    EXPECT_EQ(p8.front(), std::make_pair(l[0], l[1]));
    EXPECT_EQ(p8.back(), std::make_pair(l[2], l[3]));
    for (size_t i = 1; i < p8.size(); i++) {
      EXPECT_LE(std::abs(p8[i].first - p8[i - 1].first), 1);
      EXPECT_LE(std::abs(p8[i].second - p8[i - 1].second), 1);
      // Every pixel lies within half a pixel of the ideal line.
      const double dx = l[2] - l[0], dy = l[3] - l[1];
      const double dist = std::fabs(dy * (p8[i].first - l[0]) - dx * (p8[i].second - l[1])) /
                          std::sqrt(dx * dx + dy * dy);
      EXPECT_LE(dist, 0.75);
    }
    const auto p4 = walk(l[0], l[1], l[2], l[3], 4, 0, img);
    ASSERT_EQ((int)p4.size(), std::abs(l[2] - l[0]) + std::abs(l[3] - l[1]) + 1);
    EXPECT_EQ(p4.back(), std::make_pair(l[2], l[3]));
    for (size_t i = 1; i < p4.size(); i++) {
      EXPECT_EQ(std::abs(p4[i].first - p4[i - 1].first) + std::abs(p4[i].second - p4[i - 1].second),
                1);
    }
  }
  // Left to right: the walk from the right end starts at the left one.
  const auto l2r = walk(40, 17, 2, 3, 8, 1, img);
  EXPECT_EQ(l2r.front(), std::make_pair(2, 3));
  EXPECT_EQ(l2r.back(), std::make_pair(40, 17));
  // Ends outside the image are clipped; a line missing the image gives 0.
  const auto clipped = walk(-20, 10, 100, 10, 8, 0, img);
  ASSERT_EQ((int)clipped.size(), kW);
  EXPECT_EQ(clipped.front().first, 0);
  EXPECT_EQ(clipped.back().first, kW - 1);
  myLineIterator it;
  const int s[2] = {-10, -10}, e[2] = {-1, 100};
  EXPECT_EQ(initLineIterator(img.data(), kW, kH, 1, s, e, &it, 8, 0), 0);
  EXPECT_EQ(it.m_ptr, img.data());
  EXPECT_EQ(it.m_fixedStep, 0);
}

TEST(LineClipping, CohenSutherlandRegions) {
  int a[2] = {-10, 5}, b[2] = {20, 5};
  EXPECT_EQ(clipLine2D(10, 10, a, b), 1);
  EXPECT_EQ(a[0], 0);
  EXPECT_EQ(b[0], 9);
  EXPECT_EQ(a[1], 5);
  int c[2] = {-5, -5}, d[2] = {-1, 20};
  EXPECT_EQ(clipLine2D(10, 10, c, d), 0) << "both left";
  int e[2] = {5, -10}, f[2] = {5, 30};
  EXPECT_EQ(clipLine2D(10, 10, e, f), 1);
  EXPECT_EQ(e[1], 0);
  EXPECT_EQ(f[1], 9);
  // Diagonal passing beside the corner.
  int g[2] = {-5, 4}, h[2] = {4, -5};
  EXPECT_EQ(clipLine2D(10, 10, g, h), 0);
  int i[2] = {3, 3}, j[2] = {4, 4};
  EXPECT_EQ(clipLine2D(0, 10, i, j), 0) << "empty image";
  // Extreme coordinates do not overflow.
  int k[2] = {-2000000000, 5}, l[2] = {2000000000, 5};
  EXPECT_EQ(clipLine2D(10, 10, k, l), 1);
  EXPECT_EQ(k[0], 0);
  EXPECT_EQ(l[0], 9);
}
