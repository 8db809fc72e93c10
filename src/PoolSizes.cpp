// Pool sizes from a setup array: a walk over the array in the set-up's own
// reading order that adds up what each step of the set-up takes from the pools.
#include "PoolSizes.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>
#include <vector>

#include "GenericObjectTracker.h"
#include "memory_handling.h"

namespace ZOTtracker {

const char* const ZOT_POOL_NAMES[ZOT_N_POOLS] = {"Uchar", "UcharPtr", "Double", "Float",
                                                 "Int",   "IntPtr",   "Short"};

namespace {

enum Pool { kUchar, kUcharPtr, kDouble, kFloat, kInt, kIntPtr, kShort };

constexpr int kNoLimit = 2147483647;

// Reads the array with the set-up's rules (integers truncated, negative
// counts read as 0, the same upper limits) and stops at the first value the
// set-up would refuse, with one message.
class Walker {
 public:
  Walker(int count, const double* array) : m_count(count), m_array(array) {}

  bool ok() const { return m_ok; }
  int cursor() const { return m_cursor; }

  bool skip(long long n, const char* what) {
    if (!m_ok) return false;
    if (n < 0 || (long long)m_cursor + n > (long long)m_count) {
      printf("ERROR: pool sizes: the setup array of %d values ends before the %s (value %lld)\n",
             m_count, what, (long long)m_cursor + n - 1);
      m_ok = false;
      return false;
    }
    m_cursor += (int)n;
    return true;
  }

  // The integer at the cursor; NaN, infinities and values outside int fail.
  bool integer(const char* what, int& value) {
    const int at = m_cursor;
    if (!skip(1, what)) return false;
    const double v = m_array[at];
    if (!(v > -2147483649.0 && v < 2147483648.0)) return refuse(at, what, v);
    value = (int)v;
    return true;
  }

  bool groupCount(const char* what, int most, int& value) {
    const int at = m_cursor;
    if (!integer(what, value)) return false;
    if (value < 0) value = 0;
    if (value > most) return refuse(at, what, m_array[at]);
    return true;
  }

  bool refuse(int at, const char* what, double v) {
    printf("ERROR: pool sizes: value %d (%s) is %g, which the set-up refuses\n", at, what, v);
    m_ok = false;
    return false;
  }

 private:
  int m_count;
  const double* m_array;
  int m_cursor = 0;
  bool m_ok = true;
};

// Polyhedron from its vertex count on: what setupPolyhedron and
// Polyhedron::init take. Adds its edge count (distinct vertex pairs of
// consecutive face corners, as the edge pairing of a valid body yields) to nEdges.
bool polyhedron(Walker& w, size_t* s, size_t& nEdges) {
  int nVertices = 0, nFaces = 0;
  if (!w.groupCount("polyhedron vertices", kNoLimit, nVertices)) return false;
  if (!w.skip(3LL * nVertices, "polyhedron vertices")) return false;
  if (!w.groupCount("polyhedron faces", kNoLimit, nFaces)) return false;
  std::vector<std::pair<int, int>> pairs;
  size_t corners = 0;
  for (int f = 0; f < nFaces; f++) {
    int n = 0;
    if (!w.groupCount("vertices on a polyhedron face", ZOT_MAX_FACE_VERTICES, n)) return false;
    std::vector<int> face((size_t)n);
    for (int j = 0; j < n; j++)
      if (!w.integer("face vertex", face[(size_t)j])) return false;
    for (int j = 0; j < n; j++) {
      const int a = face[(size_t)j], b = face[(size_t)((j + 1) % n)];
      pairs.emplace_back(std::min(a, b), std::max(a, b));
    }
    corners += (size_t)n;
  }
  std::sort(pairs.begin(), pairs.end());
  nEdges += (size_t)(std::unique(pairs.begin(), pairs.end()) - pairs.begin());
  // Vertices and their camera-frame copy; normals, facing values and the
  // face scratch.
  s[kDouble] += 6 * (size_t)nVertices + 7 * (size_t)nFaces;
  // Face sizes; per corner two index lists, the corner list (3), the edge
  // list (5), the sort order and the sorted slots.
  s[kInt] += (size_t)nFaces + 12 * corners;
  s[kIntPtr] += 2 * (size_t)nFaces;
  s[kUchar] += corners;  // edge states
  return true;
}

bool polyline(Walker& w, size_t* s, size_t& nEdges) {
  int nVertices = 0, nSegments = 0, index = 0;
  if (!w.integer("supporting body", index) || !w.integer("supporting face", index)) return false;
  if (!w.groupCount("polyline vertices", kNoLimit, nVertices)) return false;
  if (!w.skip(3LL * nVertices, "polyline vertices")) return false;
  if (!w.groupCount("polyline edges", kNoLimit, nSegments)) return false;
  for (int i = 0; i < 2 * nSegments; i++)
    if (!w.integer("polyline edge vertex", index)) return false;
  s[kDouble] += 6 * (size_t)nVertices;  // points and their camera-frame copy
  s[kInt] += 2 * (size_t)nSegments;
  nEdges += (size_t)nSegments;
  return true;
}

}  // namespace

int computePoolSizes(int count, const double* array, double margin, size_t sizes[ZOT_N_POOLS]) {
  if (array == nullptr || count < 0 || sizes == nullptr) {
    printf("ERROR: pool sizes: no setup array (%d values) or no place for the sizes\n", count);
    return -1;
  }
  size_t s[ZOT_N_POOLS] = {0, 0, 0, 0, 0, 0, 0};
  Walker w(count, array);

  // Cameras: K, distortion and transform; then per camera the two maps, the
  // five tables and the undistorted image.
  int nCams = 0;
  if (!w.groupCount("number of cameras", ZOT_MAX_CAMERAS, nCams)) return -1;
  size_t maxWidth = 0, maxHeight = 0;
  for (int c = 0; c < nCams; c++) {
    int width = 0, height = 0, nPolygons = 0;
    const int at = w.cursor();
    if (!w.integer("image width", width) || !w.integer("image height", height)) return -1;
    if (width < 1 || height < 1 || width > ZOT_MAX_IMAGE_SIDE || height > ZOT_MAX_IMAGE_SIDE) {
      w.refuse(width < 1 || width > ZOT_MAX_IMAGE_SIDE ? at : at + 1, "image size",
               width < 1 || width > ZOT_MAX_IMAGE_SIDE ? array[at] : array[at + 1]);
      return -1;
    }
    if (!w.skip(2 + 5 + 5 + 12, "camera parameters")) return -1;
    if (!w.groupCount("mask polygons", ZOT_MAX_MASK_POLYGONS, nPolygons)) return -1;
    for (int p = 0; p < nPolygons; p++) {
      int nVertices = 0;
      if (!w.groupCount("mask polygon vertices", ZOT_MAX_MASK_VERTICES, nVertices)) return -1;
      if (!w.skip(2LL * nVertices, "mask polygon")) return -1;
    }
    const size_t px = (size_t)width * (size_t)height;
    s[kDouble] += 9 + 5 + 16 + 2 * px;
    s[kInt] += 5 * px;
    s[kUchar] += px;      // undistorted image
    s[kUchar] += px;      // edge map (contour tracker)
    s[kShort] += 2 * px;  // Sobel x and y (contour tracker)
    maxWidth = std::max(maxWidth, (size_t)width);
    maxHeight = std::max(maxHeight, (size_t)height);
  }

  // Tracking parameters: the integer fields must be readable; the sample
  // capacity sizes the buffers.
  const int trackerStart = w.cursor();
  if (!w.skip(23, "tracking parameters")) return -1;
  const double* p = array + trackerStart;
  int samples = 0;
  for (int i : {0, 2, 4, 5, 6, 8}) {
    if (!(p[i] > -2147483649.0 && p[i] < 2147483648.0))
      return w.refuse(trackerStart + i, "integer tracking parameter", p[i]), -1;
  }
  samples = (int)p[0];
  if (samples < 0) return w.refuse(trackerStart, "sample points per camera", p[0]), -1;

  // Model: local frames, then the bodies.
  int nFrames = 0, nBodies = 0;
  if (!w.groupCount("local frames", ZOT_MAX_LOCAL_FRAMES, nFrames)) return -1;
  if (!w.skip(12LL * nFrames, "local frames")) return -1;
  if (!w.groupCount("bodies", ZOT_MAX_BODIES, nBodies)) return -1;
  size_t nEdges = 0;
  for (int b = 0; b < nBodies; b++) {
    int type = -1;
    const int at = w.cursor();
    if (!w.integer("body type", type)) return -1;
    bool ok = true;
    if (type == ZOT_BODY_POLYHEDRON)
      ok = w.skip(2, "polyhedron flags") && polyhedron(w, s, nEdges);
    else if (type == ZOT_BODY_POLYLINE)
      ok = polyline(w, s, nEdges);
    else if (type == ZOT_BODY_CYLINDER)
      ok = w.skip(1 + 4 * 3, "cylinder");
    else
      ok = w.refuse(at, "body type", array[at]);
    if (!ok) return -1;
  }
  if (w.cursor() != count) {
    printf("ERROR: pool sizes: the setup array holds %d values, its layout %d\n", count,
           w.cursor());
    return -1;
  }

  // Contour tracker: stacked residuals, Jacobians and weights, the solver's
  // work, per camera projections, normals, Jacobians, matches and flags; the
  // colour debug image and the Canny buffers of the largest image.
  const size_t n = (size_t)nCams, S = (size_t)samples;
  const size_t wh = maxWidth * maxHeight;
  s[kDouble] += 39 * n * S + 6;
  s[kUchar] += 3 * wh;
  s[kInt] += (maxWidth + 2) * (maxHeight + 5);
  s[kUcharPtr] += wh;
  s[kShort] += 2 * wh;
  // Model: samples and tangents per camera, mask and debug images, depth map
  // and one preset depth map per camera, face identifiers, visible edges.
  s[kDouble] += 6 * n * S + wh + n * wh + 6 * nEdges;
  s[kUchar] += 4 * wh;
  s[kInt] += wh + 3 * nEdges;

  if (!(margin > 0.0) || !std::isfinite(margin)) margin = 0.0;
  for (int i = 0; i < ZOT_N_POOLS; i++) {
    sizes[i] = s[i];
    if (margin > 0.0)
      sizes[i] = std::max<size_t>(1, (size_t)std::ceil((double)s[i] * (1.0 + margin)));
  }
  return 0;
}

void reservePools(const size_t sizes[ZOT_N_POOLS]) {
  doBigMalloc(sizes[0], sizes[1], sizes[2], sizes[3], sizes[4], sizes[5], sizes[6]);
}

}  // namespace ZOTtracker
