// Multibody model: capacities, buffers, local frames and body getters (the
// per-camera sample getters live next to their reader, in ContourTracker_LM.cpp).
#include "Multibody.h"

#include <cmath>
#include <cstdio>
#include <utility>

#include "Imgproc.h"
#include "Math.h"
#include "memory_handling.h"

namespace ZOTtracker {

Multibody::Multibody()
    : m_nCams(0),
      m_maxSamplePointsPerCam(0),
      m_nBodies(0),
      m_nLocalFrames(0),
      m_maskImage(nullptr),
      m_debugImage(nullptr),
      m_depthMap(nullptr),
      m_depthMapFloat(nullptr),
      m_facingVisibility(false),
      m_faceIdMap(nullptr),
      m_visibleEdgeBuffer(nullptr),
      m_visibleEdgeIds(nullptr),
      m_usePresetDepthMap(false),
      m_bufferWidth(0),
      m_bufferHeight(0),
      m_maxVisibleEdges(0) {
  // Counts and pointers the set-up may leave alone must not be garbage.
  for (int c = 0; c < ZOT_MAX_CAMERAS; c++) {
    m_nMaskPolygons[c] = 0;
    m_nSamplePointsPerCam[c] = 0;
    m_samplePointsPerCam[c] = nullptr;
    m_sampleTangentDirPerCam[c] = nullptr;
    m_presetDepthMapPerCam[c] = nullptr;
  }
  for (int b = 0; b < ZOT_MAX_BODIES; b++) {
    m_polylineSupportFace[b][0] = -1;
    m_polylineSupportFace[b][1] = -1;
    m_bodyType[b] = ZOT_BODY_POLYHEDRON;
    m_bodyActive[b] = 0;
  }
  matrixIdentity(m_currentLocalFrame, 4);
  for (int i = 0; i < 5; i++) {
    m_depthDirty[i] = 0;
    m_faceIdDirty[i] = 0;
    m_maskDirty[i] = 0;
  }
}

Multibody::~Multibody() {}

// Marks the whole buffer as possibly written: the next call clears all of it.
static void markAllDirty(int* dirty, int width, int height) {
  dirty[0] = 0;
  dirty[1] = 0;
  dirty[2] = width - 1;
  dirty[3] = height - 1;
  dirty[4] = width;
}

int Multibody::init(int nCams, int maxSamples, int width, int height) {
  if (nCams < 0 || nCams > ZOT_MAX_CAMERAS) {
    printf("ERROR: the number of cameras must be between 0 and %d, not %d!\n", ZOT_MAX_CAMERAS,
           nCams);
    return -1;
  }
  if (m_nBodies < 0 || m_nBodies > ZOT_MAX_BODIES) {
    printf("ERROR: the number of bodies must be between 0 and %d, not %d!\n", ZOT_MAX_BODIES,
           m_nBodies);
    return -1;
  }
  if (m_nLocalFrames < 0 || m_nLocalFrames > ZOT_MAX_LOCAL_FRAMES) {
    printf("ERROR: the number of local frames must be between 0 and %d, not %d!\n",
           ZOT_MAX_LOCAL_FRAMES, m_nLocalFrames);
    return -1;
  }
  for (int c = 0; c < nCams; c++) {
    if (m_nMaskPolygons[c] < 0 || m_nMaskPolygons[c] > ZOT_MAX_MASK_POLYGONS) {
      printf("ERROR: camera %d has %d mask polygons, at most %d are supported!\n", c,
             m_nMaskPolygons[c], ZOT_MAX_MASK_POLYGONS);
      return -1;
    }
    for (int p = 0; p < m_nMaskPolygons[c]; p++) {
      const int nv = m_maskPolygonNVertices[c][p];
      if (nv < 0 || nv > ZOT_MAX_MASK_VERTICES) {
        printf("ERROR: mask polygon %d of camera %d has %d vertices, at most %d are supported!\n",
               p, c, nv, ZOT_MAX_MASK_VERTICES);
        return -1;
      }
    }
  }
  if (maxSamples < 0 || width < 0 || height < 0) {
    printf("ERROR: negative sample capacity or image size!\n");
    return -1;
  }

  m_nCams = nCams;
  m_maxSamplePointsPerCam = maxSamples;
  for (int c = 0; c < nCams; c++) {
    m_samplePointsPerCam[c] = myMallocDouble(3 * (size_t)maxSamples);
    m_sampleTangentDirPerCam[c] = myMallocDouble(3 * (size_t)maxSamples);
  }
  const size_t nPixels = (size_t)width * height;
  m_maskImage = myMallocUchar(nPixels);
  m_debugImage = myMallocUchar(3 * nPixels);
  m_depthMap = myMallocDouble(nPixels);
  m_depthMapFloat = nullptr;
  m_facingVisibility = false;
  for (int c = 0; c < nCams; c++) m_presetDepthMapPerCam[c] = myMallocDouble(nPixels);
  m_faceIdMap = myMallocInt(nPixels);

  int nEdges = 0;
  for (int b = 0; b < m_nBodies; b++) {
    if (m_bodyActive[b] == 0) continue;
    if (m_bodyType[b] == ZOT_BODY_POLYHEDRON) nEdges += m_polyhedra[b].m_nEdges;
    if (m_bodyType[b] == ZOT_BODY_POLYLINE) nEdges += m_polylines[b].m_nSegments;
  }
  m_visibleEdgeBuffer = myMallocDouble(6 * (size_t)nEdges);
  m_visibleEdgeIds = myMallocInt(3 * (size_t)nEdges);
  m_maxVisibleEdges = nEdges;
  m_bufferWidth = width;
  m_bufferHeight = height;
  // Pool memory may hold old data (after resetMemoryCounters): the first
  // sampling call clears everything.
  markAllDirty(m_depthDirty, width, height);
  markAllDirty(m_faceIdDirty, width, height);
  markAllDirty(m_maskDirty, width, height);

  matrixIdentity(m_currentLocalFrame, 4);
  return 0;
}

void Multibody::useFacingVisibility() {
  m_facingVisibility = true;
  for (int b = 0; b < m_nBodies && b < ZOT_MAX_BODIES; b++) {
    const Polyhedron& ph = m_polyhedra[b];
    m_convex[b] = m_bodyType[b] == ZOT_BODY_POLYHEDRON && !ph.m_isFlat && ph.m_nFaces > 0;
    if (!m_convex[b]) continue;
    double size = 0.0;
    for (int i = 0; i < 3 * ph.m_nVertices; i++)
      size = std::fmax(size, std::fabs(ph.m_vertices[i]));
    for (int f = 0; f < ph.m_nFaces && m_convex[b]; f++) {
      if (ph.m_nVerticesPerFace[f] < 3) continue;
      const double* n = ph.m_faceNormals + 3 * f;
      const double* p0 = ph.m_vertices + 3 * ph.m_faceVertices[f][0];
      for (int i = 0; i < ph.m_nVertices && m_convex[b]; i++) {
        double d[3];
        matrixSub31(ph.m_vertices + 3 * i, p0, d);
        m_convex[b] = dotProd3(n, d) <= 1e-9 * size;
      }
    }
  }
}

int Multibody::facingVisibilityBody() const {
  if (!m_facingVisibility) return -1;
  int body = -1;
  for (int b = 0; b < m_nBodies && b < ZOT_MAX_BODIES; b++) {
    if (!m_bodyActive[b] || m_bodyType[b] == ZOT_BODY_POLYLINE) continue;
    if (body >= 0 || m_bodyType[b] != ZOT_BODY_POLYHEDRON || !m_convex[b]) return -1;
    body = b;
  }
  for (int b = 0; b < m_nBodies && b < ZOT_MAX_BODIES && body >= 0; b++) {
    if (!m_bodyActive[b] || m_bodyType[b] != ZOT_BODY_POLYLINE) continue;
    const int face = m_polylineSupportFace[b][1];
    if (m_polylineSupportFace[b][0] != body || face < 0 || face >= m_polyhedra[body].m_nFaces)
      return -1;
  }
  return body;
}

void Multibody::useFloatDepth() {
  m_depthMapFloat = myMallocFloat((size_t)m_bufferWidth * m_bufferHeight);
  markAllDirty(m_depthDirty, m_bufferWidth, m_bufferHeight);
}

int Multibody::changeLocalFrame(int index) {
  if (index < 0 || index >= m_nLocalFrames || index >= ZOT_MAX_LOCAL_FRAMES) {
    printf("ERROR: wrong index of local frame!\n");
    return -1;
  }
  double currentInv[16], T[16];
  inverseTransform(m_currentLocalFrame, currentInv);
  matrixProduct444(currentInv, m_localFrames[index], T);
  const int nBodies = m_nBodies < ZOT_MAX_BODIES ? m_nBodies : ZOT_MAX_BODIES;
  for (int b = 0; b < nBodies; b++) {
    switch (m_bodyType[b]) {
      case ZOT_BODY_POLYHEDRON:
        m_polyhedra[b].changeLocalFrame(T);
        break;
      case ZOT_BODY_POLYLINE:
        m_polylines[b].changeLocalFrame(T);
        break;
      case ZOT_BODY_CYLINDER:
        m_cylinders[b].changeLocalFrame(T);
        break;
      default:
        printf("ERROR: wrong object class!\n");
        return -1;
    }
  }
  return 0;
}

int Multibody::getNbodies() const { return m_nBodies; }

int Multibody::getActiveBody(int body) const {
  if (body < 0 || body >= m_nBodies || body >= ZOT_MAX_BODIES) {
    printf("ERROR: wrong body ID\n");
    return -1;
  }
  return m_bodyActive[body];
}

void Multibody::projectedBounds(const double* T, const double* K, int width, int height,
                                double grow, int* region, const double* distortion,
                                int* spans) const {
  // Support of the projected points in kDirections directions k * 180 /
  // kDirections degrees: the rectangle's sides are directions 0 and
  // kDirections / 2, the others cut its corners.
  constexpr int kDirections = 8;
  // cos and sin of k * 22.5 degrees.
  static const double cosine[kDirections] = {
      1.0, 0.92387953251128674,  0.70710678118654757,  0.38268343236508984,
      0.0, -0.38268343236508984, -0.70710678118654757, -0.92387953251128674};
  static const double sine[kDirections] = {
      0.0, 0.38268343236508978, 0.70710678118654746, 0.92387953251128674,
      1.0, 0.92387953251128674, 0.70710678118654746, 0.38268343236508978};
  double lo[kDirections], hi[kDirections];
  for (int k = 0; k < kDirections; k++) {
    lo[k] = 1e300;
    hi[k] = -1e300;
  }
  constexpr int kX = 0, kY = kDirections / 2;
  bool whole = false;
  auto include = [&](const double* X) {
    double p[3];
    transformPoint3d(T, X, p);
    if (!(p[2] > 1e-6)) {
      whole = true;
      return;
    }
    double u = K[0] * p[0] / p[2] + K[1] * p[1] / p[2] + K[2];
    double v = K[4] * p[1] / p[2] + K[5];
    if (distortion != nullptr) {
      double moved[2];
      distortPixel(K, distortion, u, v, moved, nullptr);
      u = moved[0];
      v = moved[1];
    }
    for (int k = 0; k < kDirections; k++) {
      const double along = cosine[k] * u + sine[k] * v;
      lo[k] = along < lo[k] ? along : lo[k];
      hi[k] = along > hi[k] ? along : hi[k];
    }
  };
  for (int b = 0; b < m_nBodies && !whole; b++) {
    if (!m_bodyActive[b]) continue;
    if (m_bodyType[b] == ZOT_BODY_POLYHEDRON) {
      for (int i = 0; i < m_polyhedra[b].m_nVertices; i++)
        include(m_polyhedra[b].m_vertices + 3 * i);
    } else if (m_bodyType[b] == ZOT_BODY_POLYLINE) {
      for (int i = 0; i < m_polylines[b].m_nPoints; i++) include(m_polylines[b].m_points + 3 * i);
    } else {
      whole = true;
    }
  }
  if (whole || !(lo[kX] <= hi[kX])) {
    region[0] = region[1] = 0;
    region[2] = width - 1;
    region[3] = height - 1;
    if (!whole) region[2] = -1;  // nothing to bound
    for (int y = 0; spans != nullptr && y < height; y++)
      spans[2 * y] = 0, spans[2 * y + 1] = width - 1;
    return;
  }
  // Clamped in double first: a far-off projection must not overflow an int.
  auto clampTo = [](double v, int most) {
    return !(v >= -1.0) ? -1 : v > most + 1.0 ? most + 1 : (int)std::floor(v);
  };
  region[0] = clampTo(lo[kX] - grow, width - 1);
  region[1] = clampTo(lo[kY] - grow, height - 1);
  region[2] = clampTo(hi[kX] + grow + 1.0, width - 1);
  region[3] = clampTo(hi[kY] + grow + 1.0, height - 1);
  if (region[0] < 0) region[0] = 0;
  if (region[1] < 0) region[1] = 0;
  if (region[2] > width - 1) region[2] = width - 1;
  if (region[3] > height - 1) region[3] = height - 1;
  if (spans == nullptr) return;
  // Each row of the rectangle within grow + 1 pixels of every support: the
  // polygon they bound holds the points' convex hull, grown.
  const double reach = grow + 1.0;
  double inverse[kDirections];
  for (int k = 0; k < kDirections; k++) inverse[k] = k == kY ? 0.0 : 1.0 / cosine[k];
  for (int y = region[1]; y <= region[3]; y++) {
    double first = region[0], last = region[2];
    for (int k = 0; k < kDirections; k++) {
      if (k == kX || k == kY) continue;
      double from = (lo[k] - reach - sine[k] * y) * inverse[k];
      double to = (hi[k] + reach - sine[k] * y) * inverse[k];
      if (cosine[k] < 0.0) std::swap(from, to);
      first = from > first ? from : first;
      last = to < last ? to : last;
    }
    spans[2 * y] = first <= last ? (int)std::ceil(first) : region[0] + 1;
    spans[2 * y + 1] = first <= last ? (int)std::floor(last) : region[0];
  }
}

}  // namespace ZOTtracker
