// The object model and what the camera sees of it: viewing frustum and
// clipping, depth-tested convex fill, line walking, polyhedron topology,
// multibody capacities and local frames, and visible-contour sampling
// through the Z-buffer on boxes (built into the pools the way the set-up
// lays them out) rendered at known poses.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Imgproc.h"
#include "Math.h"
#include "Multibody.h"
#include "memory_handling.h"
#include "sim_mesh.h"
#include "tracker_scene.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const double kOrigin[3] = {0, 0, 0};
const double kUnit[3] = {1, 1, 1};

// K = [f 0 (w-1)/2; 0 f (h-1)/2; 0 0 1].
void pinholeK(double* K, double f, int width, int height) {
  const double k[9] = {f, 0.0, (width - 1) / 2.0, 0.0, f, (height - 1) / 2.0, 0.0, 0.0, 1.0};
  std::copy(k, k + 9, K);
}

// The mesh set up as the tracker sets it up from a setup array; the result.
int buildPolyhedron(Polyhedron& ph, const zot_sim::Mesh& mesh, bool flat, double featureAngleDeg) {
  std::vector<double> values;
  zot_sim::appendPolyhedronValues(mesh, values);
  int cursor = 0;
  return GenericObjectTracker::setupPolyhedron(cursor, values.data(), ph, flat, featureAngleDeg,
                                               (int)values.size());
}

// Appends an active polyhedron body; its index, or -1 when init fails.
int addPolyhedronBody(Multibody& mb, const zot_sim::Mesh& mesh, bool flat, double featureAngleDeg) {
  const int b = mb.m_nBodies;
  if (buildPolyhedron(mb.m_polyhedra[b], mesh, flat, featureAngleDeg) != 0) return -1;
  mb.m_bodyType[b] = ZOT_BODY_POLYHEDRON;
  mb.m_bodyActive[b] = 1;
  mb.m_nBodies++;
  return b;
}

// Appends an active polyline body (points 3 each, segments 2 each, 0-based)
// lying on face supportFace of body supportBody (-1 for none); its index.
int addPolylineBody(Multibody& mb, const std::vector<double>& points,
                    const std::vector<int>& segments, int supportBody, int supportFace) {
  const int b = mb.m_nBodies;
  Polyline& pl = mb.m_polylines[b];
  pl.m_nPoints = (int)points.size() / 3;
  pl.m_points = myMallocDouble(points.size());
  pl.m_pointsInCamera = myMallocDouble(points.size());
  std::copy(points.begin(), points.end(), pl.m_points);
  pl.m_nSegments = (int)segments.size() / 2;
  pl.m_segments = myMallocInt(segments.size());
  std::copy(segments.begin(), segments.end(), pl.m_segments);
  mb.m_polylineSupportFace[b][0] = supportBody;
  mb.m_polylineSupportFace[b][1] = supportFace;
  mb.m_bodyType[b] = ZOT_BODY_POLYLINE;
  mb.m_bodyActive[b] = 1;
  mb.m_nBodies++;
  return b;
}

// ---------------------------------------------------------------- frustum helpers
constexpr int kSw = 64, kSh = 48;

struct Frustum {
  double K[9], planes[24];
  Frustum() {
    pinholeK(K, 50.0, kSw, kSh);
    computeViewingFrustum(planes, K, 0.0, 0.0, kSw - 1.0, kSh - 1.0, 1.0, 100.0);
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
};

int fill(unsigned char* image, unsigned char value, double* depth, int* ids,
         const unsigned char* mask, int n, const double* v, const int* rect, int id, double a0,
         double lower = 0, double upper = 0) {
  return fillConvexPoly_DepthTest(image, value, depth, ids, mask, kSw, kSh, n, v, rect, id, 0, 0,
                                  a0, lower, upper);
}

}  // namespace

// ---------------------------------------------------------------- frustum, clipping, fill
TEST(ViewingFrustum, PlanesPassThroughTheImageCornersAndClipSegmentsAndPolygons) {
  Frustum fr;
  // Plane i runs through corners i and i + 1 of (0,0), (0,h-1), (w-1,h-1), (w-1,0);
  // one pixel beyond a border is outside exactly that border's plane.
  const double corners[4][2] = {{0, 0}, {0, kSh - 1.0}, {kSw - 1.0, kSh - 1.0}, {kSw - 1.0, 0}};
  const double beyond[4][2] = {{-1, 20}, {30, kSh}, {kSw, 20}, {30, -1}};
  for (int p = 0; p < 4; p++) {
    double X[3];
    for (int c : {p, (p + 1) % 4}) {
      fr.backProject(corners[c][0], corners[c][1], 7.0, X);
      EXPECT_NEAR(fr.value(p, X), 0.0, 1e-9) << "plane " << p << " corner " << c;
    }
    fr.backProject(beyond[p][0], beyond[p][1], 10, X);
    for (int q = 0; q < 6; q++) EXPECT_EQ(fr.value(q, X) > 0.0, q == p) << p << " " << q;
  }
  EXPECT_EQ(fr.planes[18] + fr.planes[19] + fr.planes[22] + fr.planes[23], -1 + 1 + 1 - 100);

  // Segments are cut at the side planes (u = 0 and w - 1 at depth 10) and at
  // near and far, and refused wholly outside or when shorter than the
  // minimum length, leaving the output untouched.
  const struct {
    double seg[6], minLength;
    int kept;
    double out[6];
  } segments[] = {{{-14.3, -0.7, 10, 13.7, -0.7, 10}, 0.0, 1, {-6.3, -0.7, 10, 6.3, -0.7, 10}},
                  {{0, 0, 0.25, 0, 0, 400}, 0.0, 1, {0, 0, 1, 0, 0, 100}},
                  {{0, 0, 0.5, 0, 0, 1.1}, 0.05, 1, {0, 0, 1, 0, 0, 1.1}},
                  {{0, 0, 0.5, 0, 0, 1.1}, 0.2, 0, {}},
                  {{-7.3, -0.7, 10, -16.3, -0.7, 10}, 0.0, 0, {}}};
  for (const auto& s : segments) {
    double out[6] = {123, 123, 123, 123, 123, 123};
    ASSERT_EQ(clipSegmentToViewingFrustum(s.seg, out, fr.planes, s.minLength), s.kept) << s.seg[2];
    for (int i = 0; i < 6; i++) EXPECT_NEAR(out[i], s.kept ? s.out[i] : 123.0, 1e-9) << s.seg[2];
  }

  // A square straddling each side keeps its inner half; the new edge on the
  // plane carries id -1, the others keep the ids they started with.
  const double centres[4][2] = {{0, 20}, {30, kSh - 1.0}, {kSw - 1.0, 20}, {30, 0}};
  const double offs[4][2] = {{-5, -5}, {5, -5}, {5, 5}, {-5, 5}};
  for (int p = 0; p < 4; p++) {
    double v[30], sv[30];
    int ids[10] = {10, 11, 12, 13}, sids[10], n = 4;
    for (int k = 0; k < 4; k++)
      fr.backProject(centres[p][0] + offs[k][0], centres[p][1] + offs[k][1], 10, v + 3 * k);
    poly_clip_to_view_frustum(n, v, sv, fr.planes, ids, sids);
    ASSERT_EQ(n, 4) << "plane " << p;
    int nOnPlane = 0;
    for (int k = 0; k < n; k++) {
      for (int q = 0; q < 6; q++) EXPECT_LE(fr.value(q, v + 3 * k), 1e-9);
      EXPECT_TRUE(ids[k] == -1 || (ids[k] >= 10 && ids[k] <= 13));
      if (ids[k] != -1) continue;
      nOnPlane++;
      EXPECT_NEAR(fr.value(p, v + 3 * k), 0.0, 1e-9);
      EXPECT_NEAR(fr.value(p, v + 3 * ((k + 1) % n)), 0.0, 1e-9);
    }
    EXPECT_EQ(nOnPlane, 1);
  }
}

TEST(ConvexFill, ConvexityRuleWindingsAndDepthTest) {
  const int full[4] = {0, 0, kSw - 1, kSh - 1};
  std::vector<unsigned char> a(kSw * kSh, 0), b(kSw * kSh, 0);
  auto count = [](const std::vector<unsigned char>& img, unsigned char v) {
    return (int)std::count(img.begin(), img.end(), v);
  };
  // A reflex vertex is refused and draws nothing.
  const double dart[8] = {10, 10, 30, 20, 10, 30, 15, 20};
  EXPECT_EQ(fill(a.data(), 9, nullptr, nullptr, nullptr, 4, dart, full, 0, 0), -1);
  EXPECT_EQ(count(a, 9), 0);
  // Both windings fill pixel centres inside: columns 11..20, rows 6..15.
  const double ccw[8] = {10.5, 5.5, 10.5, 15.5, 20.5, 15.5, 20.5, 5.5};
  const double cw[8] = {10.5, 5.5, 20.5, 5.5, 20.5, 15.5, 10.5, 15.5};
  EXPECT_EQ(fill(a.data(), 1, nullptr, nullptr, nullptr, 4, ccw, full, 0, 0), 0);
  EXPECT_EQ(fill(b.data(), 1, nullptr, nullptr, nullptr, 4, cw, full, 0, 0), 0);
  EXPECT_EQ(count(a, 1), 100);
  EXPECT_EQ(a[6 * kSw + 11] + a[15 * kSw + 20] + a[5 * kSw + 11] + a[6 * kSw + 21], 2);
  EXPECT_EQ(a, b);

  // Depth test on the stored -(a0) inverse depth: nearer surfaces win.
  std::vector<unsigned char> img(kSw * kSh, 0);
  std::vector<double> depth(kSw * kSh, 0.0);
  std::vector<int> idMap(kSw * kSh, 0);
  const double q1[8] = {4.5, 4.5, 4.5, 14.5, 14.5, 14.5, 14.5, 4.5};
  const double q2[8] = {9.5, 9.5, 9.5, 19.5, 19.5, 19.5, 19.5, 9.5};
  ASSERT_EQ(
      fill(img.data(), 50, depth.data(), idMap.data(), nullptr, 4, q1, full, 7, -0.1, 1.0, 0.01),
      0);
  EXPECT_DOUBLE_EQ(depth[10 * kSw + 10], 0.1);
  fill(img.data(), 60, depth.data(), idMap.data(), nullptr, 4, q2, full, 8, -0.05, 1.0, 0.01);
  EXPECT_EQ(idMap[12 * kSw + 12] * 10 + idMap[17 * kSw + 17], 78);
  EXPECT_EQ(count(img, 60), 75);
  fill(img.data(), 70, depth.data(), idMap.data(), nullptr, 4, q2, full, 9, -0.2, 1.0, 0.01);
  EXPECT_EQ(count(img, 70), 100);
}

TEST(LineWalking, IteratorAndClippingBetweenEnds) {
  std::vector<unsigned char> img(kSw * kSh);
  auto walk = [&](int x0, int y0, int x1, int y1, int connectivity, int leftToRight) {
    myLineIterator it;
    const int s[2] = {x0, y0}, e[2] = {x1, y1};
    const int n = initLineIterator(img.data(), kSw, kSh, 1, s, e, &it, connectivity, leftToRight);
    std::vector<std::pair<int, int>> pts;
    for (int i = 0; i < n; i++, advanceLineIterator(it)) {
      const long off = it.m_ptr - img.data();
      pts.push_back({(int)(off % kSw), (int)(off / kSw)});
    }
    return pts;
  };
  const int lines[][4] = {{2, 3, 40, 17}, {5, 40, 9, 2}, {30, 30, 30, 30}};
  for (const auto& l : lines) {
    const int adx = std::abs(l[2] - l[0]), ady = std::abs(l[3] - l[1]);
    for (int connectivity : {8, 4}) {
      const auto p = walk(l[0], l[1], l[2], l[3], connectivity, 0);
      ASSERT_EQ((int)p.size(), connectivity == 8 ? std::max(adx, ady) + 1 : adx + ady + 1);
      EXPECT_EQ(p.front(), std::make_pair(l[0], l[1]));
      EXPECT_EQ(p.back(), std::make_pair(l[2], l[3]));
      for (size_t i = 1; i < p.size(); i++) {
        const int sx = std::abs(p[i].first - p[i - 1].first),
                  sy = std::abs(p[i].second - p[i - 1].second);
        EXPECT_TRUE(connectivity == 8 ? std::max(sx, sy) == 1 : sx + sy == 1);
      }
    }
  }
  EXPECT_EQ(walk(40, 17, 2, 3, 8, 1).front(), std::make_pair(2, 3));
  const auto clipped = walk(-20, 10, 100, 10, 8, 0);
  ASSERT_EQ((int)clipped.size(), kSw);
  EXPECT_EQ(clipped.front().first + clipped.back().first, kSw - 1);
  // A line missing the image walks nothing from the image start.
  myLineIterator it;
  it.m_ptr = nullptr;
  const int s[2] = {-10, -10}, e[2] = {-1, 100};
  EXPECT_EQ(initLineIterator(img.data(), kSw, kSh, 1, s, e, &it, 8, 0), 0);
  EXPECT_EQ(it.m_ptr, img.data());

  // Cohen-Sutherland on a 10 x 10 image: (a, b) -> kept and clipped ends.
  const struct {
    int a[2], b[2], w, kept, ca[2], cb[2];
  } cases[] = {{{-10, 5}, {20, 5}, 10, 1, {0, 5}, {9, 5}},
               {{20, 5}, {-10, 5}, 10, 1, {9, 5}, {0, 5}},
               {{5, -10}, {5, 30}, 10, 1, {5, 0}, {5, 9}},
               {{-5, -5}, {-1, 20}, 10, 0, {}, {}},
               {{-5, 4}, {4, -5}, 10, 0, {}, {}},
               {{3, 3}, {4, 4}, 0, 0, {}, {}},
               {{-2000000000, 5}, {2000000000, 5}, 10, 1, {0, 5}, {9, 5}}};
  for (const auto& c : cases) {
    int a[2] = {c.a[0], c.a[1]}, b[2] = {c.b[0], c.b[1]};
    ASSERT_EQ(clipLine2D(c.w, 10, a, b), c.kept) << c.a[0] << "," << c.a[1];
    if (c.kept) {
      EXPECT_EQ(a[0] * 100 + a[1], c.ca[0] * 100 + c.ca[1]);
      EXPECT_EQ(b[0] * 100 + b[1], c.cb[0] * 100 + c.cb[1]);
    }
  }
}

// ---------------------------------------------------------------- polyhedra and multibody
namespace {

// Pools for images up to 640 x 480 and a few thousand faces, released with
// the overrun check of doBigFree.
class Model : public ::testing::Test {
 protected:
  Model() { doBigMalloc(12000000, 1000, 8000000, 1300000, 3000000, 100000, 1000); }
  ~Model() override { doBigFree(); }
};

// Corner-by-corner pairing exactly as it reads: each unconsumed corner scans
// all later corners. Quadratic, for small meshes only. Edges 5 ints each.
std::vector<int> naivePairing(const zot_sim::Mesh& m) {
  std::vector<int> corners, edges;
  for (size_t f = 0, next = 0; f < m.faceSizes.size(); next += m.faceSizes[f], f++)
    for (int j = 0, n = m.faceSizes[f]; j < n; j++)
      corners.insert(corners.end(),
                     {m.faceIndices[next + j], m.faceIndices[next + (j + 1) % n], (int)f});
  for (size_t i = 0; i < corners.size(); i += 3) {
    if (corners[i + 2] == -1) continue;
    for (size_t j = i + 3; j < corners.size(); j += 3)
      if (corners[j + 2] != -1 && corners[j] == corners[i + 1] && corners[j + 1] == corners[i]) {
        edges.insert(edges.end(), {corners[i], corners[i + 1], corners[i + 2], corners[j + 2], 0});
        corners[j + 2] = -1;
      }
    corners[i + 2] = -1;
  }
  return edges;
}

// Every face corner refers to an edge joining its two vertices and its face.
void expectFaceEdgesConsistent(const Polyhedron& ph) {
  for (int f = 0; f < ph.m_nFaces; f++)
    for (int j = 0, n = ph.m_nVerticesPerFace[f]; j < n; j++) {
      const int e = ph.m_faceEdges[f][j];
      ASSERT_TRUE(e >= 0 && e < ph.m_nEdges);
      const int a = ph.m_faceVertices[f][j], b = ph.m_faceVertices[f][(j + 1) % n];
      const int* edge = ph.m_edges + 5 * e;
      EXPECT_TRUE((edge[0] == a && edge[1] == b) || (edge[0] == b && edge[1] == a));
      EXPECT_TRUE(edge[2] == f || edge[3] == f);
    }
}

}  // namespace

TEST_F(Model, PolyhedronTopologyFeatureEdgesAndPairingOrder) {
  const zot_sim::Mesh cube = zot_sim::boxMesh(kOrigin, kUnit);
  for (double angle : {30.0, 0.0, 95.0}) {
    Polyhedron ph;
    ASSERT_EQ(buildPolyhedron(ph, cube, false, angle), 0);
    ASSERT_EQ(ph.m_nEdges, 12);
    int nFeature = 0;
    for (int e = 0; e < 12; e++) nFeature += ph.m_edges[5 * e + 4];
    EXPECT_EQ(nFeature, angle == 30.0 ? 12 : 0) << angle;
    expectFaceEdgesConsistent(ph);
    for (int f = 0; f < 6; f++) {  // outward unit normals
      EXPECT_NEAR(norm(ph.m_faceNormals + 3 * f, 3), 1.0, 1e-12);
      EXPECT_GT(dotProd3(ph.m_faceNormals + 3 * f, ph.m_vertices + 3 * ph.m_faceVertices[f][0]),
                0.0);
    }
  }
  // Two flat plates sharing an edge: 7 edges, the shared one with two faces, no feature.
  zot_sim::Mesh two;
  two.vertices = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 2, 0, 0, 2, 1, 0};
  two.faceSizes = {4, 4};
  two.faceIndices = {0, 1, 2, 3, 1, 4, 5, 2};
  Polyhedron plates;
  CaptureStdout();
  ASSERT_EQ(buildPolyhedron(plates, two, true, 10.0), 0);
  EXPECT_EQ(GetCapturedStdout(), "");  // the edge cross-check finds nothing wrong
  EXPECT_EQ(plates.m_nEdges, 7);
  const int sharedEdge[5] = {1, 2, 0, 1, 0}, boundary[5] = {0, 1, 0, -1, 1};
  for (int i = 0; i < 5; i++)
    EXPECT_EQ(plates.m_edges[5 + i] * 10 + plates.m_edges[i], sharedEdge[i] * 10 + boundary[i]);
  expectFaceEdgesConsistent(plates);

  // The sorted pairing gives the corner-by-corner order, also for faces
  // listed scrambled with rotated corners.
  const zot_sim::Mesh sphere = zot_sim::sphereMesh(9, 14, 2.0);
  zot_sim::Mesh scrambled;
  scrambled.vertices = sphere.vertices;
  const int nf = (int)sphere.faceSizes.size();
  ASSERT_EQ(std::gcd(37, nf), 1);
  for (int k = 0; k < nf; k++) {
    scrambled.faceSizes.push_back(3);
    for (int j = 0; j < 3; j++)
      scrambled.faceIndices.push_back(sphere.faceIndices[3 * ((k * 37) % nf) + (j + k) % 3]);
  }
  for (const zot_sim::Mesh* m : {&sphere, (const zot_sim::Mesh*)&scrambled}) {
    Polyhedron ph;
    ASSERT_EQ(buildPolyhedron(ph, *m, false, 1.0), 0);
    const std::vector<int> ref = naivePairing(*m);
    ASSERT_EQ(ph.m_nEdges * 5, (int)ref.size());
    int nonFeature = 0;
    for (int e = 0; e < ph.m_nEdges; e++) {
      for (int i = 0; i < 4; i++) ASSERT_EQ(ph.m_edges[5 * e + i], ref[5 * e + i]) << e;
      nonFeature += ph.m_edges[5 * e + 4] == 0;
    }
    EXPECT_EQ(nonFeature, 14 * 7);  // only the diagonals of quads split in two
    expectFaceEdgesConsistent(ph);
  }
}

TEST_F(Model, InconsistentMeshesFailWithTheirMessages) {
  const zot_sim::Mesh cube = zot_sim::boxMesh(kOrigin, kUnit);
  zot_sim::Mesh flipped = cube, open = cube, bad = cube, fan;
  std::reverse(flipped.faceIndices.begin() + 8, flipped.faceIndices.begin() + 12);
  open.faceSizes.pop_back();
  open.faceIndices.resize(20);
  bad.faceIndices[5] = 8;
  fan.vertices = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, -1, 0, 0, 0, 1};
  fan.faceSizes = {3, 3, 3};
  fan.faceIndices = {0, 1, 2, 1, 0, 3, 1, 0, 4};
  const struct {
    const zot_sim::Mesh* mesh;
    bool flat;
    const char* message;
  } cases[] = {
      {&flipped, false,
       "ERROR: incoherent face normals (an edge is found twice, but with the same direction)!\n"},
      {&open, false,
       "ERROR: for non-flat polyhedra, unique edges should all be present pair-wise!\n"},
      {&fan, true, "ERROR: a non-unique edge should be present at most twice!\n"},
      {&bad, false, "ERROR: polygon 1 refers to vertex 8, but there are only 8 vertices!\n"}};
  for (const auto& c : cases) {
    Polyhedron ph;
    CaptureStdout();
    EXPECT_EQ(buildPolyhedron(ph, *c.mesh, c.flat, 30.0), -1);
    EXPECT_EQ(GetCapturedStdout(), c.message);
  }
  Polyhedron flat;  // the open surface is fine when declared flat
  EXPECT_EQ(buildPolyhedron(flat, open, true, 30.0), 0);
}

TEST_F(Model, MultibodyCapacitiesGettersAndLocalFrames) {
  // Counts beyond the capacities are refused before anything is reserved.
  const struct {
    int cams, bodies, frames, maskPolygons, maskVertices;
    const char* message;
  } refused[] = {
      {6, 0, 0, 0, 0, "ERROR: the number of cameras must be between 0 and 5, not 6!\n"},
      {1, 51, 0, 0, 0, "ERROR: the number of bodies must be between 0 and 50, not 51!\n"},
      {1, 0, 101, 0, 0, "ERROR: the number of local frames must be between 0 and 100, not 101!\n"},
      {1, 0, 0, 51, 0, "ERROR: camera 0 has 51 mask polygons, at most 50 are supported!\n"},
      {1, 0, 0, 1, 11,
       "ERROR: mask polygon 0 of camera 0 has 11 vertices, at most 10 are supported!\n"}};
  const uint64_t doublesBefore = m_currentAllocDouble;
  for (const auto& r : refused) {
    Multibody mb;
    mb.m_nBodies = r.bodies;
    mb.m_nLocalFrames = r.frames;
    mb.m_nMaskPolygons[0] = r.maskPolygons;
    mb.m_maskPolygonNVertices[0][0] = r.maskVertices;
    CaptureStdout();
    EXPECT_EQ(mb.init(r.cams, 10, 10, 10), -1);
    EXPECT_EQ(GetCapturedStdout(), r.message);
  }
  EXPECT_EQ(m_currentAllocDouble, doublesBefore);

  Multibody mb;
  const int box = addPolyhedronBody(mb, zot_sim::boxMesh(kOrigin, kUnit), false, 30.0);
  const int line = addPolylineBody(mb, {0, 0, 0, 1, 2, 3}, {0, 1}, -1, -1);
  const int inactive = addPolyhedronBody(mb, zot_sim::boxMesh(kOrigin, kUnit), false, 30.0);
  mb.m_bodyActive[inactive] = 0;
  mb.m_nLocalFrames = 1;
  TfromEuler(mb.m_localFrames[0], 0, 0, 90, 0, 0, 2);
  ASSERT_EQ(mb.init(2, 100, 40, 30), 0);
  CaptureStdout();
  EXPECT_EQ(mb.getSamplePointsPerCam(2), nullptr);
  EXPECT_EQ(mb.getActiveBody(-1), -1);
  EXPECT_EQ(mb.changeLocalFrame(1), -1);
  GetCapturedStdout();
  EXPECT_EQ(mb.getActiveBody(inactive) * 10 + mb.getActiveBody(box), 1);
  // A local frame moves all bodies, inactive ones too: p -> T^-1 p.
  double Tinv[16], expected[3];
  inverseTransform(mb.m_localFrames[0], Tinv);
  const double p[3] = {1, 2, 3};
  transformPoint3d(Tinv, p, expected);
  ASSERT_EQ(mb.changeLocalFrame(0), 0);
  for (int i = 0; i < 3; i++) EXPECT_NEAR(mb.m_polylines[line].m_points[3 + i], expected[i], 1e-12);
  EXPECT_DOUBLE_EQ(mb.m_polyhedra[inactive].m_vertices[2], -3.0);
  EXPECT_NEAR(mb.m_polyhedra[box].m_faceNormals[2], -1.0, 1e-12);
}

// ---------------------------------------------------------------- visible contours
namespace {

constexpr int kW = 640, kH = 480;
constexpr double kNear = 0.1, kFar = 100.0;

struct Sample {
  double X[3], D[3];  // point and tangent, object frame
  int id;
  double u, v;  // projection of X
};

class Visibility : public Model {
 protected:
  double m_K[9];
  void SetUp() override { pinholeK(m_K, 500.0, kW, kH); }

  void initModel(Multibody& mb, int maxSamples = 20000, int nCams = 1) {
    for (int c = 0; c < nCams; c++)
      computeViewingFrustum(mb.m_viewingFrustum[c], m_K, 0.0, 0.0, kW - 1.0, kH - 1.0, kNear, kFar);
    ASSERT_EQ(mb.init(nCams, maxSamples, kW, kH), 0);
  }

  std::vector<Sample> sample(Multibody& mb, const double* T, int step = 4, double tau = 0.0) {
    std::vector<int> ids(mb.m_maxSamplePointsPerCam + 1, -7);
    mb.resetNSamplePointsPerCam();
    EXPECT_EQ(mb.sampleContour_Zbuffer(0, T, m_K, kW, kH, kNear, kFar, tau, 0.01, step, nullptr,
                                       nullptr, nullptr, ids.data(), true, false, false, false),
              0);
    std::vector<Sample> out(mb.getNSamplePointsPerCam(0));
    for (size_t k = 0; k < out.size(); k++) {
      Sample& s = out[k];
      for (int i = 0; i < 3; i++) {
        s.X[i] = mb.getSamplePointsPerCam(0)[3 * k + i];
        s.D[i] = mb.getSampleTangentDirPerCam(0)[3 * k + i];
      }
      s.id = ids[k];
      double uv[2];
      zot_test::projectObjectPoint(T, m_K, s.X, uv);
      s.u = uv[0], s.v = uv[1];
    }
    EXPECT_EQ(ids[out.size()], -7) << "no id written past the sample count";
    return out;
  }
};

double facing(const Polyhedron& ph, int f, const double* C) {
  double d[3];
  matrixSub31(ph.m_vertices + 3 * ph.m_faceVertices[f][0], C, d);
  return dotProd3(ph.m_faceNormals + 3 * f, d);
}

double pointSegmentDistance(const double* p, const double* a, const double* b, int dim) {
  double ab2 = 0, t = 0, d2 = 0;
  for (int i = 0; i < dim; i++)
    ab2 += (b[i] - a[i]) * (b[i] - a[i]), t += (p[i] - a[i]) * (b[i] - a[i]);
  t = ab2 > 0 ? std::fmax(0.0, std::fmin(1.0, t / ab2)) : 0.0;
  for (int i = 0; i < dim; i++) d2 += std::pow(a[i] + t * (b[i] - a[i]) - p[i], 2);
  return std::sqrt(d2);
}

}  // namespace

TEST_F(Visibility, CubeSamplesLieOnVisibleEdgesOnly) {
  for (double angle : {30.0, -1.0}) {
    Multibody mb;
    addPolyhedronBody(mb, zot_sim::boxMesh(kOrigin, kUnit), false, angle);
    initModel(mb);
    double T[16], Tinv[16];
    TfromEuler(T, 25, 35, 10, 0.3, -0.2, 8);
    inverseTransform(T, Tinv);
    const double C[3] = {Tinv[3], Tinv[7], Tinv[11]};
    const std::vector<Sample> samples = sample(mb, T);
    const Polyhedron& ph = mb.m_polyhedra[0];
    std::vector<int> perEdge(ph.m_nEdges, 0);
    for (const Sample& s : samples) {
      const int e = s.id & 0xFFFF;
      ASSERT_TRUE((s.id >> 16) == 0 && e < ph.m_nEdges) << s.id;
      perEdge[e]++;
      // On the 3D edge, within a pixel of its projection, tangent along it.
      const int* edge = ph.m_edges + 5 * e;
      const double *a = ph.m_vertices + 3 * edge[0], *b = ph.m_vertices + 3 * edge[1];
      double ua[2], ub[2], dir[3], c[3];
      EXPECT_LT(pointSegmentDistance(s.X, a, b, 3), 1e-9);
      zot_test::projectObjectPoint(T, m_K, a, ua);
      zot_test::projectObjectPoint(T, m_K, b, ub);
      const double uv[2] = {s.u, s.v};
      EXPECT_LT(pointSegmentDistance(uv, ua, ub, 2), 1e-6);
      matrixSub31(b, a, dir);
      crossProd(dir, s.D, c);
      EXPECT_NEAR(norm(s.D, 3), 1.0, 1e-12);
      EXPECT_LT(norm(c, 3), 1e-9);
    }
    // Visible edges (contours, and features between two front faces) are
    // sampled every 4th pixel of their length; hidden ones not at all.
    for (int e = 0; e < ph.m_nEdges; e++) {
      const int* edge = ph.m_edges + 5 * e;
      const bool front0 = facing(ph, edge[2], C) < 0, front1 = facing(ph, edge[3], C) < 0;
      double ua[2], ub[2];
      zot_test::projectObjectPoint(T, m_K, ph.m_vertices + 3 * edge[0], ua);
      zot_test::projectObjectPoint(T, m_K, ph.m_vertices + 3 * edge[1], ub);
      const int len = (int)std::fmax(std::fabs(ub[0] - ua[0]), std::fabs(ub[1] - ua[1]));
      if (angle > 0 ? (front0 || front1) : (front0 != front1)) {
        EXPECT_NEAR(perEdge[e], len / 4, 2) << "edge " << e;
      } else {
        EXPECT_EQ(perEdge[e], 0) << "edge " << e;
      }
    }
  }
}

TEST_F(Visibility, BoxHalfHiddenBehindAnotherBoxAndTheRayCastingCheck) {
  Multibody mb;
  const double backCentre[3] = {0, 0, 10}, backHalf[3] = {1.5, 1, 1};
  const double frontCentre[3] = {-0.75, 0, 5}, frontHalf[3] = {0.8, 1.2, 0.2};
  addPolyhedronBody(mb, zot_sim::boxMesh(frontCentre, frontHalf), false, 30.0);
  addPolyhedronBody(mb, zot_sim::boxMesh(backCentre, backHalf), false, 30.0);
  initModel(mb);
  double T[16];
  matrixIdentity(T, 4);
  std::vector<Sample> samples = sample(mb, T, 2);
  // The occluder's silhouette is its front face: x in [-1.55, 0.05] at z = 4.8.
  const double occluderRight = 0.05 / 4.8 * m_K[0] + m_K[2];
  int nBack = 0, nFront = 0, nOverBack = 0;
  std::vector<int> ids;
  std::vector<double> points;
  for (const Sample& s : samples) {
    ids.push_back(s.id);
    points.insert(points.end(), s.X, s.X + 3);
    if ((s.id >> 16) == 1) {
      nBack++;
      EXPECT_GT(s.u, occluderRight - 1.0) << "sample of the hidden part";
    } else {
      nFront++;
      nOverBack += std::fabs(s.u - occluderRight) < 1.0 && std::fabs(s.v - m_K[5]) < 50;
    }
  }
  EXPECT_GT(nFront, 100);
  EXPECT_GT(nBack, 50);
  EXPECT_GE(nOverBack, 48);  // the occluder's contour in front of the back box
  // Ray casting agrees: no conflicts, no ids changed.
  CaptureStdout();
  mb.cross_check_raytracing(T, (int)samples.size(), points.data(), ids.data());
  EXPECT_EQ(GetCapturedStdout(), "");
  for (size_t k = 0; k < samples.size(); k++) ASSERT_EQ(ids[k], samples[k].id);
  // Two points on the back box's front-top edge behind the occluder are
  // flagged -255 with a depth conflict; one beside it is kept.
  const Polyhedron& back = mb.m_polyhedra[1];
  int edge = -1;
  for (int e = 0; e < back.m_nEdges; e++) {
    const double* a = back.m_vertices + 3 * back.m_edges[5 * e];
    const double* b = back.m_vertices + 3 * back.m_edges[5 * e + 1];
    if (a[1] == 1 && b[1] == 1 && a[2] == 9 && b[2] == 9) edge = e;
  }
  ASSERT_GE(edge, 0);
  const double checked[9] = {-1.0, 1.0, 9.0, -0.5, 1.0, 9.0, 1.0, 1.0, 9.0};
  int checkedIds[3] = {65536 + edge, 65536 + edge, 65536 + edge};
  CaptureStdout();
  mb.cross_check_raytracing(T, 3, checked, checkedIds);
  EXPECT_EQ(GetCapturedStdout(),
            "depth conflict: Z point 9 polygon 5.2 k 0.577778\n"
            "depth conflict: Z point 9 polygon 5.2 k 0.577778\n");
  EXPECT_EQ(checkedIds[0] + checkedIds[1], -510);
  EXPECT_EQ(checkedIds[2], 65536 + edge);
}

// The speed modes' cheaper visibility samples the contour the double
// Z-buffer does: a float Z-buffer for a box partly hidden by another, none
// at all for one convex box with a polyline on its front face. No sample
// lies farther than a sampling step from one of the other's on its body.
TEST_F(Visibility, CheaperVisibilitySamplesTheSameContourWithinOneStep) {
  const double back[6] = {0, 0, 10, 1.5, 1, 1}, front[6] = {-0.75, 0, 5, 0.8, 1.2, 0.2};
  Multibody exact[2], fast[2];
  for (int m = 0; m < 2; m++) {
    for (Multibody* mb : {&exact[m], &fast[m]}) {
      if (m == 0) addPolyhedronBody(*mb, zot_sim::boxMesh(front, front + 3), false, 30.0);
      const int box = addPolyhedronBody(*mb, zot_sim::boxMesh(back, back + 3), false, 30.0);
      int facingUs = 0;
      while (mb->m_polyhedra[box].m_faceNormals[3 * facingUs + 2] > -0.9) facingUs++;
      if (m == 1)
        addPolylineBody(*mb, {-1, -0.5, 9, 1, -0.5, 9, 1, 0.5, 9}, {0, 1, 1, 2}, box, facingUs);
      initModel(*mb);
    }
    fast[m].useFloatDepth();
    fast[m].useFacingVisibility();
    EXPECT_EQ(fast[m].facingVisibilityBody(), m == 0 ? -1 : 0);
  }
  // A chamfered box is convex, a torus is not.
  for (const zot_sim::Mesh& mesh :
       {zot_test::chamferedBoxMesh(), zot_sim::torusMesh(12, 8, 1, 0.3)}) {
    Multibody one;
    addPolyhedronBody(one, mesh, false, 30.0);
    initModel(one);
    one.useFacingVisibility();
    EXPECT_EQ(one.facingVisibilityBody(), mesh.vertices.size() < 100 ? 0 : -1);
  }
  auto farFrom = [](const std::vector<Sample>& from, const std::vector<Sample>& to) {
    int far = 0;
    for (const Sample& a : from) {
      double nearest = 1e9;
      for (const Sample& b : to)
        if ((a.id >> 16) == (b.id >> 16))
          nearest = std::min(nearest, std::hypot(a.u - b.u, a.v - b.v));
      far += nearest > 3.0;
    }
    return far;
  };
  for (int m = 0; m < 2; m++)
    for (const auto& p : {std::vector<double>{0, 0, 0, 0, 0, 0},
                          {8, -12, 5, 0.2, 0.1, 1},
                          {-15, 20, 30, -0.3, 0.2, 2}}) {
      double T[16];
      TfromEuler(T, p[0], p[1], p[2], p[3], p[4], p[5]);
      const std::vector<Sample> a = sample(exact[m], T, 3), b = sample(fast[m], T, 3);
      ASSERT_GT(a.size(), 150u);
      EXPECT_EQ(farFrom(a, b) + farFrom(b, a), 0) << m;
    }
}

TEST_F(Visibility, MasksPresetDepthAndTheSampleLimit) {
  Multibody plain, masked, preset, limited;
  for (Multibody* mb : {&plain, &masked, &preset, &limited})
    addPolyhedronBody(*mb, zot_sim::boxMesh(kOrigin, kUnit), false, 30.0);
  // Mask: the left half of the image; a second, inactive polygon covers everything.
  masked.m_nMaskPolygons[0] = 2;
  masked.m_maskPolygonNVertices[0][0] = 4;
  masked.m_maskPolygonActive[0][0] = 1;
  const double left[8] = {-1, -1, 319.5, -1, 319.5, 480, -1, 480};
  std::copy(left, left + 8, masked.m_maskPolygonVertices[0][0]);
  masked.m_maskPolygonNVertices[0][1] = 3;
  masked.m_maskPolygonActive[0][1] = 0;
  const double everything[6] = {-1000, -1000, 5000, -1000, 0, 5000};
  std::copy(everything, everything + 6, masked.m_maskPolygonVertices[0][1]);
  initModel(plain);
  initModel(masked);
  initModel(preset);
  initModel(limited, 10);
  double T[16];
  TfromEuler(T, 25, 35, 10, 0, 0, 8);
  const std::vector<Sample> all = sample(plain, T), right = sample(masked, T);
  const int nRight =
      (int)std::count_if(all.begin(), all.end(), [](const Sample& s) { return s.u > 320.5; });
  EXPECT_GT(nRight, 20);
  EXPECT_LT(right.size(), all.size());
  EXPECT_GE((int)right.size(), nRight);
  for (const Sample& s : right) EXPECT_GT(s.u, 318.5);
  // A preset depth map: a wall at z = 4 in front of the left half.
  preset.m_usePresetDepthMap = true;
  for (int i = 0; i < kW * kH; i++) preset.m_presetDepthMapPerCam[0][i] = i % kW < 320 ? 0.25 : 0.0;
  const std::vector<Sample> unoccluded = sample(preset, T);
  for (const Sample& s : unoccluded) EXPECT_GT(s.u, 318.5);
  EXPECT_GT((int)unoccluded.size(), nRight - 10);
  // The sample limit stops with one warning, keeping the first samples.
  CaptureStdout();
  const std::vector<Sample> first = sample(limited, T);
  EXPECT_EQ(GetCapturedStdout(),
            "WARNING: reached maximum number of sample points per camera!!!\n");
  ASSERT_EQ(first.size(), 10u);
  for (int k = 0; k < 10; k++) EXPECT_EQ(first[k].id, all[k].id);
}

TEST_F(Visibility, ImageBordersAndBadPoses) {
  // A plate larger than the image leaves the outermost rows and columns out.
  Multibody mb;
  addPolyhedronBody(mb, zot_sim::plateMesh(1.0), true, -1.0);
  addPolylineBody(mb, {0, 0, -3, 0, 0, -2}, {0, 1}, -1, -1);  // along the viewing ray
  initModel(mb);
  double T[16];
  TfromEuler(T, 180, 0, 0, 0.1, 0.05, 1.2);
  for (const Sample& s : sample(mb, T, 1, 0.1)) {
    const int x = (int)std::lround(s.u), y = (int)std::lround(s.v);
    EXPECT_TRUE(x >= 1 && x <= kW - 2 && y >= 1 && y <= kH - 2) << x << "," << y;
  }
  // Behind the camera, straddling the near plane, or NaN: no crash, nothing non-finite.
  TfromEuler(T, 10, 20, 30, 0, 0, -8);
  EXPECT_EQ(sample(mb, T).size(), 0u);
  for (double z : {0.5, 0.0}) {
    TfromEuler(T, 10, 20, 30, 0.1, 0.2, z);
    for (const Sample& s : sample(mb, T)) ASSERT_TRUE(std::isfinite(s.X[0] + s.X[1] + s.X[2]));
  }
  for (int i = 0; i < 12; i++) T[i] = NAN;
  CaptureStdout();
  EXPECT_EQ(sample(mb, T).size(), 0u);
  GetCapturedStdout();
  CaptureStdout();
  EXPECT_EQ(mb.sampleContour_Zbuffer(1, T, m_K, kW, kH, kNear, kFar, 0, 0, 4, nullptr, nullptr,
                                     nullptr, nullptr, true, false, false, false),
            -1);
  EXPECT_EQ(mb.sampleContour_Zbuffer(0, T, m_K, kW + 1, kH, kNear, kFar, 0, 0, 4, nullptr, nullptr,
                                     nullptr, nullptr, true, false, false, false),
            -1);
  EXPECT_EQ(GetCapturedStdout(),
            "ERROR: wrong camera ID\n"
            "ERROR: image of 641 x 480 pixels does not fit the sampling buffers of 640 x 480!\n");
}

TEST_F(Visibility, ClearingTheWrittenRegionEqualsAFullClear) {
  // One model sampled at several poses and image sizes, compared after each
  // call with a fresh model whose Z-buffer starts wholly cleared.
  Multibody reused;
  addPolyhedronBody(reused, zot_sim::boxMesh(kOrigin, kUnit), false, 30.0);
  initModel(reused, 20000, 2);
  const struct {
    int cam, w, h;
    double pose[6];
  } calls[] = {{0, kW, kH, {25, 35, 10, 0.3, -0.2, 8}},
               {0, kW, kH, {5, 5, 5, -1.5, 1.0, 6}},
               {1, 320, 240, {15, 25, 0, 0.2, 0.1, 7}},
               {0, kW, kH, {40, 10, 70, 0.5, 0.4, 9}},
               {1, 320, 240, {0, 0, 0, 0, 0, 50}}};
  for (const auto& c : calls) {
    double T[16], K[9];
    TfromEuler(T, c.pose[0], c.pose[1], c.pose[2], c.pose[3], c.pose[4], c.pose[5]);
    pinholeK(K, 500.0 * c.w / kW, c.w, c.h);
    std::vector<int> ids1(20000), ids2(20000);
    std::vector<unsigned char> faces1(c.w * c.h), faces2(c.w * c.h);
    reused.resetNSamplePointsPerCam();
    reused.sampleContour_Zbuffer(c.cam, T, K, c.w, c.h, kNear, kFar, 0, 0.01, 3, faces1.data(),
                                 nullptr, nullptr, ids1.data(), true, false, false, false);
    const uint64_t saved[3] = {m_currentAllocUchar, m_currentAllocDouble, m_currentAllocInt};
    Multibody fresh;
    addPolyhedronBody(fresh, zot_sim::boxMesh(kOrigin, kUnit), false, 30.0);
    initModel(fresh, 20000, 2);
    std::fill(fresh.m_depthMap, fresh.m_depthMap + kW * kH, 0.0);
    std::fill(fresh.m_faceIdMap, fresh.m_faceIdMap + kW * kH, 0);
    fresh.sampleContour_Zbuffer(c.cam, T, K, c.w, c.h, kNear, kFar, 0, 0.01, 3, faces2.data(),
                                nullptr, nullptr, ids2.data(), true, false, false, false);
    const int n = fresh.getNSamplePointsPerCam(c.cam);
    ASSERT_GT(n, 0);
    ASSERT_EQ(reused.getNSamplePointsPerCam(c.cam), n);
    for (int k = 0; k < 3 * n; k++)
      ASSERT_EQ(reused.getSamplePointsPerCam(c.cam)[k], fresh.getSamplePointsPerCam(c.cam)[k]);
    for (int k = 0; k < n; k++) ASSERT_EQ(ids1[k], ids2[k]);
    for (int i = 0; i < c.w * c.h; i++) {
      ASSERT_EQ(reused.m_depthMap[i], fresh.m_depthMap[i]) << "pixel " << i;
      ASSERT_EQ(reused.m_faceIdMap[i], fresh.m_faceIdMap[i]) << "pixel " << i;
      ASSERT_EQ(faces1[i] != 0, fresh.m_depthMap[i] > 0.0)
          << "shaded faces where the Z-buffer has a surface";
    }
    m_currentAllocUchar = saved[0];
    m_currentAllocDouble = saved[1];
    m_currentAllocInt = saved[2];
  }
}
