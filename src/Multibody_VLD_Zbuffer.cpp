// Visible-line detection: Z-buffer rendering of the model, classification and
// sampling of the visible contour and feature edges, and the ray-casting
// cross-check of the result.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "IO.h"
#include "Imgproc.h"
#include "Math.h"
#include "Multibody.h"

namespace ZOTtracker {

namespace {

// Clip buffers: a face of up to 100 vertices plus one vertex per frustum plane.
constexpr int kMaxFaceVertices = 100;
constexpr int kClipCapacity = kMaxFaceVertices + ZOT_FRUSTUM_PLANES;

// Edge states kept in Polyhedron::m_edgeState during one call.
constexpr unsigned char kEdgeNotSampled = 0;
constexpr unsigned char kEdgeContour = 1;
constexpr unsigned char kEdgeFeatureCollected = 2;
constexpr unsigned char kEdgeFeature = 3;

// Projected coordinates beyond this are treated as invalid (a pose with NaN,
// a point at the camera centre): they cannot be rounded to int safely.
constexpr double kMaxPixelCoordinate = 1e8;

inline bool validPixel(double u, double v) {
  return std::fabs(u) < kMaxPixelCoordinate && std::fabs(v) < kMaxPixelCoordinate;
}

inline int roundToInt(double x) { return (int)std::round(x); }

// Dirty regions: x0, y0, x1, y1 inclusive and the row stride they refer to.
// x0 > x1 means empty.
void setEmpty(int* dirty, int stride) {
  dirty[0] = 0;
  dirty[1] = 0;
  dirty[2] = -1;
  dirty[3] = -1;
  dirty[4] = stride;
}

// Re-expresses a region recorded with another row stride as full rows of the
// new stride covering the same memory.
void restride(int* dirty, int stride, long capacity) {
  if (dirty[4] == stride || dirty[0] > dirty[2]) {
    dirty[4] = stride;
    return;
  }
  long first = (long)dirty[1] * dirty[4] + dirty[0];
  long last = (long)dirty[3] * dirty[4] + dirty[2];
  if (last >= capacity) last = capacity - 1;
  if (first < 0) first = 0;
  dirty[0] = 0;
  dirty[1] = (int)(first / stride);
  dirty[2] = stride - 1;
  dirty[3] = (int)(last / stride);
  dirty[4] = stride;
}

template <typename T>
void clearDirty(T* buffer, int* dirty, int width, long capacity) {
  restride(dirty, width, capacity);
  if (dirty[0] <= dirty[2]) {
    const long n = dirty[2] - dirty[0] + 1;
    for (int y = dirty[1]; y <= dirty[3]; y++) {
      const long start = (long)y * width + dirty[0];
      if (start < 0 || start + n > capacity) continue;
      memset(buffer + start, 0, n * sizeof(T));
    }
  }
  setEmpty(dirty, width);
}

void growDirty(int* dirty, int width, long capacity, int x0, int y0, int x1, int y1) {
  restride(dirty, width, capacity);
  if (dirty[0] > dirty[2]) {
    dirty[0] = x0;
    dirty[1] = y0;
    dirty[2] = x1;
    dirty[3] = y1;
    return;
  }
  if (x0 < dirty[0]) dirty[0] = x0;
  if (y0 < dirty[1]) dirty[1] = y0;
  if (x1 > dirty[2]) dirty[2] = x1;
  if (y1 > dirty[3]) dirty[3] = y1;
}

// Face identifier of the Z-buffer (already minus one) against body b, faces f0/f1.
inline bool idOnFaces(int id, int body, int f0, int f1) {
  if (id < 0) return false;
  const int face = id & 0xFFFF;
  return (id >> 16) == body && (face == f0 || face == f1);
}

void printStage(bool timing, const char* label, int64_t start) {
  if (!timing) return;
  printf("%s - elapsed [ms]: %f\n", label,
         (double)(getTickCount() - start) / getTickFrequency() / 1000.0);
}

// What one sampling call works with: camera, pose, switches and outputs.
struct SamplingView {
  int cam;
  const double* T;
  double Tinv[16];
  double R[9];
  double Rt[9];
  double C[3];  // camera centre in the object frame
  double fx, fy, cx, cy;
  int width, height;
  long nPixels, capacity;
  double zNear, zFar, facingTolerance, minEdgeLength, minLength2;
  int samplingStep;
  const double* frustum;
  int nBodies;
  unsigned char* faceImage;
  unsigned char* sampleImage;
  double* sampleNormalImage;
  int* sampleIds;
  float* depthFloat;  // the Z-buffer in float (Multibody::useFloatDepth), else null
  bool zBuffer;       // false: facing alone decides (Multibody::useFacingVisibility)
  bool sampling, debugViews, useMasks;
};

// Whether face f of ph is rendered (and so can be seen): it faces the camera
// by more than the tolerance, or either way for a flat body.
inline bool faceRendered(const Polyhedron& ph, int f, double facingTolerance) {
  const double facing = ph.m_faceFacing[f];
  return ph.m_isFlat ? std::fabs(facing) > facingTolerance : facing < -facingTolerance;
}

// Inverse depth at pixel idx of whichever Z-buffer the view renders into.
inline double depthAt(const Multibody& mb, const SamplingView& v, long idx) {
  return v.depthFloat != nullptr ? (double)v.depthFloat[idx] : mb.m_depthMap[idx];
}

// Candidate visible edges collected while rendering, in m_visibleEdgeBuffer
// and m_visibleEdgeIds; beyond their capacity the rest is dropped.
struct CandidateEdges {
  double* points;
  int* ids;
  int capacity;
  int n = 0;
  bool full = false;

  void append(const double* P0, const double* P1, int body, int edge) {
    if (n >= capacity) {
      full = true;
      return;
    }
    double* dst = points + 6 * n;
    for (int i = 0; i < 3; i++) {
      dst[i] = P0[i];
      dst[3 + i] = P1[i];
    }
    int* id = ids + 3 * n;
    id[0] = body;
    id[1] = edge;
    id[2] = 0;
    n++;
  }
};

// Fills the active mask polygons of the camera into m_maskImage. Returns
// whether any is active (only then is the mask image consulted).
bool prepareMasks(Multibody& mb, const SamplingView& v) {
  int nMasks = mb.m_nMaskPolygons[v.cam];
  if (nMasks > ZOT_MAX_MASK_POLYGONS) nMasks = ZOT_MAX_MASK_POLYGONS;
  bool useMasks = false;
  for (int p = 0; p < nMasks; p++) useMasks = useMasks || mb.m_maskPolygonActive[v.cam][p] != 0;
  if (!useMasks) return false;
  clearDirty(mb.m_maskImage, mb.m_maskDirty, v.width, v.capacity);
  const int imageRect[4] = {0, 0, v.width - 1, v.height - 1};
  for (int p = 0; p < nMasks; p++) {
    if (mb.m_maskPolygonActive[v.cam][p] == 0) continue;
    int nv = mb.m_maskPolygonNVertices[v.cam][p];
    if (nv > ZOT_MAX_MASK_VERTICES) nv = ZOT_MAX_MASK_VERTICES;
    const double* vx = mb.m_maskPolygonVertices[v.cam][p];
    if (fillConvexPoly_DepthTest(mb.m_maskImage, 255, nullptr, nullptr, nullptr, v.width, v.height,
                                 nv, vx, imageRect, 0, 0.0, 0.0, 0.0, 0.0, 0.0) != 0) {
      continue;
    }
    double x0 = vx[0], x1 = vx[0], y0 = vx[1], y1 = vx[1];
    for (int k = 1; k < nv; k++) {
      x0 = std::fmin(x0, vx[2 * k]);
      x1 = std::fmax(x1, vx[2 * k]);
      y0 = std::fmin(y0, vx[2 * k + 1]);
      y1 = std::fmax(y1, vx[2 * k + 1]);
    }
    x0 = std::fmax(std::floor(x0), 0.0);
    y0 = std::fmax(std::floor(y0), 0.0);
    x1 = std::fmin(std::ceil(x1), v.width - 1.0);
    y1 = std::fmin(std::ceil(y1), v.height - 1.0);
    if (x0 <= x1 && y0 <= y1) {
      growDirty(mb.m_maskDirty, v.width, v.capacity, (int)x0, (int)y0, (int)x1, (int)y1);
    }
  }
  return true;
}

// Clears the optional outputs and the face-id map, draws the masks and
// starts the Z-buffer empty or from the preset depth map.
void prepareImages(Multibody& mb, SamplingView& v) {
  if (v.faceImage != nullptr) memset(v.faceImage, 0, v.nPixels);
  if (v.sampleImage != nullptr) memset(v.sampleImage, 0, v.nPixels);
  if (v.sampleNormalImage != nullptr)
    memset(v.sampleNormalImage, 0, 2 * v.nPixels * sizeof(double));
  v.useMasks = prepareMasks(mb, v);
  if (!v.zBuffer) return;
  if (v.sampling) clearDirty(mb.m_faceIdMap, mb.m_faceIdDirty, v.width, v.capacity);
  if (mb.m_usePresetDepthMap && mb.m_presetDepthMapPerCam[v.cam] != nullptr) {
    const double* preset = mb.m_presetDepthMapPerCam[v.cam];
    if (v.depthFloat != nullptr) {
      for (long i = 0; i < v.nPixels; i++) v.depthFloat[i] = (float)preset[i];
    } else {
      memcpy(mb.m_depthMap, preset, v.nPixels * sizeof(double));
    }
    growDirty(mb.m_depthDirty, v.width, v.capacity, 0, 0, v.width - 1, v.height - 1);
  } else if (v.depthFloat != nullptr) {
    clearDirty(v.depthFloat, mb.m_depthDirty, v.width, v.capacity);
  } else {
    clearDirty(mb.m_depthMap, mb.m_depthDirty, v.width, v.capacity);
  }
}

// Edge states from the facing values: contour edges (between a front and a
// back face, or the border of a flat body) and feature edges worth sampling.
void classifyEdges(Polyhedron& ph, double facingTolerance) {
  for (int e = 0; e < ph.m_nEdges; e++) {
    const int* edge = ph.m_edges + 5 * e;
    const int f0 = edge[2], f1 = edge[3], F = edge[4];
    const bool front0 = ph.m_faceFacing[f0] < -facingTolerance;
    const bool front1 = f1 >= 0 && ph.m_faceFacing[f1] < -facingTolerance;
    const bool contour = (ph.m_isFlat && f1 < 0) ? true : front0 != front1;
    bool sampleable;
    if (F < 0) {
      sampleable = false;
    } else if (ph.m_isFlat) {
      sampleable = F != 0 ? true : front0 != front1;
    } else {
      sampleable = (front0 && front1 && F != 0) ? true : front0 != front1;
    }
    ph.m_edgeState[e] = !sampleable ? kEdgeNotSampled : (contour ? kEdgeContour : kEdgeFeature);
  }
}

// Stage "Compute generators": points in the camera frame, face facing values
// (negative when a face looks at the camera) and, when sampling, edge states.
void computeGenerators(Multibody& mb, const SamplingView& v) {
  for (int b = 0; b < v.nBodies; b++) {
    if (mb.m_bodyActive[b] == 0) continue;
    if (mb.m_bodyType[b] == ZOT_BODY_POLYLINE) {
      Polyline& pl = mb.m_polylines[b];
      for (int i = 0; i < pl.m_nPoints; i++) {
        transformPoint3d(v.T, pl.m_points + 3 * i, pl.m_pointsInCamera + 3 * i);
      }
      continue;
    }
    if (mb.m_bodyType[b] != ZOT_BODY_POLYHEDRON) {
      printf("ERROR: no code for the cylinder!\n");
      continue;
    }
    Polyhedron& ph = mb.m_polyhedra[b];
    for (int i = 0; i < ph.m_nVertices; i++) {
      transformPoint3d(v.T, ph.m_vertices + 3 * i, ph.m_verticesInCamera + 3 * i);
    }
    for (int f = 0; f < ph.m_nFaces; f++) {
      if (ph.m_nVerticesPerFace[f] < 1) {
        ph.m_faceFacing[f] = 0.0;
        continue;
      }
      double toFace[3];
      matrixSub31(ph.m_vertices + 3 * ph.m_faceVertices[f][0], v.C, toFace);
      ph.m_faceFacing[f] = dotProd3(ph.m_faceNormals + 3 * f, toFace);
    }
    if (v.sampling) classifyEdges(ph, v.facingTolerance);
  }
}

// Polyline segments clipped to the frustum become candidates.
void collectPolylineSegments(const Multibody& mb, const SamplingView& v, int b,
                             CandidateEdges& candidates) {
  const Polyline& pl = mb.m_polylines[b];
  for (int s = 0; s < pl.m_nSegments; s++) {
    const int i0 = pl.m_segments[2 * s], i1 = pl.m_segments[2 * s + 1];
    if (i0 < 0 || i0 >= pl.m_nPoints || i1 < 0 || i1 >= pl.m_nPoints) continue;
    double segment[6], clipped[6];
    matrixCopy(pl.m_pointsInCamera + 3 * i0, segment, 3, 1);
    matrixCopy(pl.m_pointsInCamera + 3 * i1, segment + 3, 3, 1);
    if (clipSegmentToViewingFrustum(segment, clipped, v.frustum, v.minEdgeLength) > 0) {
      candidates.append(clipped, clipped + 3, b, s);
    }
  }
}

// Renders face f of polyhedron b into the Z-buffer (and the face image) if it
// faces the camera; when sampling, its not yet collected contour and feature
// edges, clipped to the frustum, become candidates.
void renderFace(Multibody& mb, const SamplingView& v, int b, int f, CandidateEdges& candidates) {
  Polyhedron& ph = mb.m_polyhedra[b];
  const double facing = ph.m_faceFacing[f];
  if (!faceRendered(ph, f, v.facingTolerance)) return;
  const int nv = ph.m_nVerticesPerFace[f];
  if (nv < 3) return;
  if (nv > kMaxFaceVertices) {
    printf("ERROR: face %d of body %d has more than %d vertices and is not rendered!\n", f, b,
           kMaxFaceVertices);
    return;
  }
  const double d = -facing;
  double m[3];
  matrixProduct331(v.R, ph.m_faceNormals + 3 * f, m);
  double polygon[3 * kClipCapacity], polygonScratch[3 * kClipCapacity];
  int polygonIds[kClipCapacity], polygonIdsScratch[kClipCapacity];
  for (int k = 0; k < nv; k++) {
    matrixCopy(ph.m_verticesInCamera + 3 * ph.m_faceVertices[f][k], polygon + 3 * k, 3, 1);
    polygonIds[k] = ph.m_faceEdges[f][k];
  }
  int n = nv;
  poly_clip_to_view_frustum(n, polygon, polygonScratch, v.frustum, polygonIds, polygonIdsScratch);
  if (n < 3) return;

  if (v.sampling) {
    for (int k = 0; k < n; k++) {
      const int e = polygonIds[k];
      if (e < 0 || e >= ph.m_nEdges) continue;
      unsigned char& state = ph.m_edgeState[e];
      if (state != kEdgeContour && state != kEdgeFeature) continue;
      if (state == kEdgeFeature) state = kEdgeFeatureCollected;
      const double* Pa = polygon + 3 * k;
      const double* Pb = polygon + 3 * ((k + 1) % n);
      const double ex = Pa[0] - Pb[0], ey = Pa[1] - Pb[1], ez = Pa[2] - Pb[2];
      if (ex * ex + ey * ey + ez * ez > v.minLength2) candidates.append(Pa, Pb, b, e);
    }
  }
  if (!v.zBuffer) return;

  double projected[2 * kClipCapacity];
  bool valid = true;
  int xmin = 0, xmax = 0, ymin = 0, ymax = 0;
  for (int k = 0; k < n && valid; k++) {
    const double* X = polygon + 3 * k;
    const double u = X[0] / X[2] * v.fx + v.cx;
    const double w = X[1] / X[2] * v.fy + v.cy;
    valid = validPixel(u, w);
    projected[2 * k] = u;
    projected[2 * k + 1] = w;
    if (!valid) break;
    const int ru = roundToInt(u), rv = roundToInt(w);
    if (k == 0 || ru < xmin) xmin = ru;
    if (k == 0 || ru > xmax) xmax = ru;
    if (k == 0 || rv < ymin) ymin = rv;
    if (k == 0 || rv > ymax) ymax = rv;
  }
  if (!valid) return;
  if (xmin < 0 || xmax > v.width - 1 || ymin < 0 || ymax > v.height - 1) {
    printf("OUT OF BOUNDARY xmin %d xmax %d ymin %d ymax %d\n", xmin, xmax, ymin, ymax);
    if (xmin < 0) xmin = 0;
    if (ymin < 0) ymin = 0;
    if (xmax > v.width - 1) xmax = v.width - 1;
    if (ymax > v.height - 1) ymax = v.height - 1;
    if (xmin > xmax || ymin > ymax) return;
  }
  // Inverse depth over the image as a plane in (u, v).
  const double ax = m[0] / v.fx / d;
  const double ay = m[1] / v.fy / d;
  const double a0 = m[2] / d - ax * v.cx - ay * v.cy;
  // |m[2]| is at most 1 for a rotation; the clamp keeps a pose that is no
  // rotation (or NaN) from converting an out-of-range value to a byte.
  const double cosTilt = std::fabs(m[2]) <= 1.0 ? std::fabs(m[2]) : 1.0;
  const unsigned char shade =
      v.faceImage != nullptr ? (unsigned char)std::trunc((cosTilt * 0.9 + 0.1) * 255) : 0;
  const int box[4] = {xmin, ymin, xmax, ymax};
  if (v.depthFloat != nullptr) {
    fillConvexPolyFloatDepth(v.faceImage, shade, v.depthFloat, mb.m_faceIdMap, nullptr, v.width,
                             v.height, n, projected, box, b * 65536 + f + 1, ax, ay, a0,
                             1.0 / v.zNear, 1.0 / v.zFar);
  } else {
    fillConvexPoly_DepthTest(v.faceImage, shade, mb.m_depthMap, mb.m_faceIdMap, nullptr, v.width,
                             v.height, n, projected, box, b * 65536 + f + 1, ax, ay, a0,
                             1.0 / v.zNear, 1.0 / v.zFar);
  }
  growDirty(mb.m_depthDirty, v.width, v.capacity, xmin, ymin, xmax, ymax);
  growDirty(mb.m_faceIdDirty, v.width, v.capacity, xmin, ymin, xmax, ymax);
}

// Stage "Z-buffer": renders the active bodies and collects the candidate
// visible edges. Returns their number.
int renderZbuffer(Multibody& mb, const SamplingView& v) {
  CandidateEdges candidates{mb.m_visibleEdgeBuffer, mb.m_visibleEdgeIds, mb.m_maxVisibleEdges};
  for (int b = 0; b < v.nBodies; b++) {
    if (mb.m_bodyActive[b] == 0) continue;
    if (mb.m_bodyType[b] == ZOT_BODY_POLYLINE) {
      if (v.sampling || v.faceImage != nullptr) collectPolylineSegments(mb, v, b, candidates);
      continue;
    }
    if (mb.m_bodyType[b] != ZOT_BODY_POLYHEDRON) {
      printf("ERROR: no code for the cylinder!\n");
      continue;
    }
    for (int f = 0; f < mb.m_polyhedra[b].m_nFaces; f++) renderFace(mb, v, b, f, candidates);
  }
  if (candidates.full) {
    printf("WARNING: more candidate edges than the edge buffer holds; the rest is not sampled!\n");
  }
  return candidates.n;
}

// Debug view "depth map <cam>": grey by depth, red where empty. Leaves the
// first width x height bytes of m_debugImage zeroed for the edge view.
void showDepthMap(Multibody& mb, const SamplingView& v) {
  for (long i = 0; i < v.nPixels; i++) {
    unsigned char* px = mb.m_debugImage + 3 * i;
    const double delta = depthAt(mb, v, i);
    if (delta > 0.0) {
      double grey = (1.0 - (1.0 / delta - v.zNear) / (v.zFar - v.zNear)) * 255.0;
      // A preset depth map may hold depths outside the near/far range.
      if (!(grey > 0.0)) grey = 0.0;
      if (grey > 255.0) grey = 255.0;
      px[0] = px[1] = px[2] = (unsigned char)grey;
    } else {
      px[0] = 0;
      px[1] = 0;
      px[2] = 255;
    }
  }
  char name[32];
  snprintf(name, sizeof(name), "depth map %d", v.cam);
  showImage(name, mb.m_debugImage, v.width, v.height, 3);
  memset(mb.m_debugImage, 0, v.nPixels);
}

// One candidate edge, in the camera frame and projected into the image.
struct CandidateInImage {
  int b, e;
  const double* P0;  // end points, camera frame
  const double* P1;
  bool isPolyline;
  int supportBody, supportFace;  // polyline: the face it lies on, -1 none
  bool crease;                   // polyhedron: a feature edge, else a contour edge
  int f0, f1;                    // polyhedron: the edge's faces
  double p0x, p0y, p1x, p1y;     // projected end points
  double D[3];                   // unit direction, camera frame
  double dx, dy, L, ux, uy;      // image direction, length and unit direction
  double c0;                     // line through p0 and p1: -dy x + dx y + c0 = 0
  bool xMajor;
};

// Whether the point X (camera frame) of the edge at pixel (x, y) is seen
// through the Z-buffer. A visible polyline point paints the face image.
bool pixelVisible(const Multibody& mb, const SamplingView& v, const CandidateInImage& c, int x,
                  int y, long idx, const double* X) {
  if (!v.zBuffer) {
    return !c.isPolyline ||
           faceRendered(mb.m_polyhedra[c.supportBody], c.supportFace, v.facingTolerance);
  }
  const double delta = depthAt(mb, v, idx);
  const int id = mb.m_faceIdMap[idx] - 1;
  if (c.isPolyline) {
    if (delta == 0.0) return true;
    if ((c.supportBody >= 0 && c.supportFace >= 0 && id >= 0 && (id >> 16) == c.supportBody &&
         (id & 0xFFFF) == c.supportFace) ||
        1.0 / X[2] >= delta) {
      if (v.faceImage != nullptr) v.faceImage[idx] = 255;
      return true;
    }
    return false;
  }
  if (c.crease) return idOnFaces(id, c.b, c.f0, c.f1);
  if (delta == 0.0 || idOnFaces(id, c.b, c.f0, c.f1)) return true;
  // Occluded by another face at this pixel: the contour may still be seen
  // when the pixel across the line shows background or the edge's own
  // faces, or lies behind the edge.
  const double dx = c.dx, dy = c.dy, c0 = c.c0;
  const double r = c.xMajor ? (-dy / dx) * x + y + c0 / dx : (dx / (-dy)) * y + x + c0 / (-dy);
  const int off = std::fabs(r) > 1.0 ? 2 : 1;
  int nx = x, ny = y;
  if (c.xMajor) {
    ny = r < 0.0 ? y + off : y - off;
  } else {
    nx = r < 0.0 ? x + off : x - off;
  }
  if (!(nx >= 1 && nx < v.width - 2 && ny >= 1 && ny < v.height - 2)) return false;
  const long nidx = (long)ny * v.width + nx;
  const double delta2 = depthAt(mb, v, nidx);
  const int id2 = mb.m_faceIdMap[nidx] - 1;
  if (delta2 == 0.0 || idOnFaces(id2, c.b, c.f0, c.f1)) return true;
  if (id2 == id) return false;
  return 1.0 / X[2] > (delta < delta2 ? delta : delta2);
}

// Walks candidate i in the image and stores every samplingStep-th pixel that
// passes the border, mask and visibility tests as sample k, k, k+1, ...
// Returns true once the camera's sample buffer is full.
bool sampleCandidate(Multibody& mb, const SamplingView& v, int i, int& k) {
  CandidateInImage c;
  c.b = mb.m_visibleEdgeIds[3 * i];
  c.e = mb.m_visibleEdgeIds[3 * i + 1];
  c.P0 = mb.m_visibleEdgeBuffer + 6 * i;
  c.P1 = c.P0 + 3;
  c.isPolyline = mb.m_bodyType[c.b] == ZOT_BODY_POLYLINE;
  c.supportBody = c.supportFace = c.f0 = c.f1 = -1;
  c.crease = false;
  if (c.isPolyline) {
    c.supportBody = mb.m_polylineSupportFace[c.b][0];
    c.supportFace = mb.m_polylineSupportFace[c.b][1];
  } else {
    const Polyhedron& ph = mb.m_polyhedra[c.b];
    c.crease = ph.m_edgeState[c.e] == kEdgeFeatureCollected;
    c.f0 = ph.edgeFace0(c.e);
    c.f1 = ph.edgeFace1(c.e);
  }
  const double* P0 = c.P0;
  const double* P1 = c.P1;
  const double p0x = P0[0] / P0[2] * v.fx + v.cx, p0y = P0[1] / P0[2] * v.fy + v.cy;
  const double p1x = P1[0] / P1[2] * v.fx + v.cx, p1y = P1[1] / P1[2] * v.fy + v.cy;
  if (!validPixel(p0x, p0y) || !validPixel(p1x, p1y)) return false;
  const int start[2] = {roundToInt(p0x), roundToInt(p0y)};
  const int end[2] = {roundToInt(p1x), roundToInt(p1y)};
  const int spanX = std::abs(end[0] - start[0]), spanY = std::abs(end[1] - start[1]);
  if ((spanX > spanY ? spanX : spanY) + 1 <= 1) return false;

  c.p0x = p0x;
  c.p0y = p0y;
  c.p1x = p1x;
  c.p1y = p1y;
  matrixSub31(P1, P0, c.D);
  normalize(c.D, 3, 1);
  c.dx = p1x - p0x;
  c.dy = p1y - p0y;
  c.L = std::sqrt(c.dx * c.dx + c.dy * c.dy);
  c.ux = c.dx / c.L;
  c.uy = c.dy / c.L;
  c.c0 = c.dy * p0x - c.dx * p0y;
  c.xMajor = std::fabs(c.dx) >= std::fabs(c.dy);

  double* outPoints = mb.m_samplePointsPerCam[v.cam];
  double* outTangents = mb.m_sampleTangentDirPerCam[v.cam];
  myLineIterator it;
  const int nPixelsOnLine =
      initLineIterator(mb.m_debugImage, v.width, v.height, 1, start, end, &it, 8, 0);
  int stepCounter = 0;
  for (int p = 0; p < nPixelsOnLine; p++) {
    const long offset = it.m_ptr - mb.m_debugImage;
    advanceLineIterator(it);
    const int y = (int)(offset / v.width);
    const int x = (int)(offset - (long)y * v.width);
    if (stepCounter == v.samplingStep) stepCounter = 0;
    const bool candidate = stepCounter == 0;
    stepCounter++;
    if (!candidate) continue;
    if (x < 1 || x > v.width - 2 || y < 1 || y > v.height - 2) continue;
    const long idx = (long)y * v.width + x;
    if (v.useMasks && mb.m_maskImage[idx] != 0) continue;
    const double tpar = (x - p0x) * c.ux + (y - p0y) * c.uy;
    if (tpar < 0.0 || tpar > c.L) continue;

    // Point of the 3D edge that projects onto the foot point q.
    const double qx = p0x + tpar * c.ux, qy = p0y + tpar * c.uy;
    const double A = (p0x - qx) * P0[2], B = (p1x - qx) * P1[2];
    const double E = (p0y - qy) * P0[2], G = (p1y - qy) * P1[2];
    double lambda = 0.0;
    if (std::fabs(A - B) > std::fabs(E - G)) {
      lambda = A / (A - B);
    } else if (E != G) {
      lambda = E / (E - G);
    }
    if (lambda < 0.0 || lambda > 1.0) std::cout << "ERROR: " << lambda << std::endl;
    double X[3];
    for (int j = 0; j < 3; j++) X[j] = P0[j] + lambda * (P1[j] - P0[j]);

    if (!pixelVisible(mb, v, c, x, y, idx, X) || !v.sampling) continue;

    transformPoint3d(v.Tinv, X, outPoints + 3 * k);
    matrixProduct331(v.Rt, c.D, outTangents + 3 * k);
    if (v.sampleImage != nullptr) v.sampleImage[idx] = 255;
    if (v.sampleNormalImage != nullptr) {
      v.sampleNormalImage[2 * idx] = -c.dy;
      v.sampleNormalImage[2 * idx + 1] = c.dx;
    }
    if (v.debugViews) mb.m_debugImage[idx] = 255;
    if (v.sampleIds != nullptr) v.sampleIds[k] = c.b * 65536 + c.e;
    k++;
    if (k >= mb.m_maxSamplePointsPerCam) return true;
  }
  return false;
}

// Stage "Find visible edges": samples the candidates in order until the
// camera's sample buffer is full. Returns the number of samples.
int sampleVisibleEdges(Multibody& mb, const SamplingView& v, int nCandidates) {
  const int maxSamples = mb.m_maxSamplePointsPerCam;
  int k = 0;
  bool full = v.sampling && k >= maxSamples;
  for (int i = 0; i < nCandidates && !full; i++) full = sampleCandidate(mb, v, i, k);
  if (v.sampling && k == maxSamples) {
    printf("WARNING: reached maximum number of sample points per camera!!!\n");
  }
  return k;
}

}  // namespace

int Multibody::sampleContour_Zbuffer(int cam, const double* T, const double* K, int width,
                                     int height, double zNear, double zFar, double facingTolerance,
                                     double minEdgeLength, int samplingStep,
                                     unsigned char* faceImage, unsigned char* sampleImage,
                                     double* sampleNormalImage, int* sampleIds, bool sampling,
                                     bool timing, bool debugViews, bool /*reserved*/) {
  if (cam < 0 || cam >= m_nCams) {
    printf("ERROR: wrong camera ID\n");
    return -1;
  }
  const long capacity = (long)m_bufferWidth * m_bufferHeight;
  if (m_depthMap == nullptr || width < 1 || height < 1 || (long)width * height > capacity) {
    printf("ERROR: image of %d x %d pixels does not fit the sampling buffers of %d x %d!\n", width,
           height, m_bufferWidth, m_bufferHeight);
    return -1;
  }
  int64_t stageStart = timing ? getTickCount() : 0;

  SamplingView v;
  v.cam = cam;
  v.T = T;
  inverseTransform(T, v.Tinv);
  v.C[0] = v.Tinv[3];
  v.C[1] = v.Tinv[7];
  v.C[2] = v.Tinv[11];
  double t[3];
  rotTranslFromT(T, v.R, t);
  matrixTranspose33(v.R, v.Rt);
  v.fx = K[0];
  v.cx = K[2];
  v.fy = K[4];
  v.cy = K[5];
  v.width = width;
  v.height = height;
  v.nPixels = (long)width * height;
  v.capacity = capacity;
  v.zNear = zNear;
  v.zFar = zFar;
  v.facingTolerance = facingTolerance;
  v.minEdgeLength = minEdgeLength;
  v.minLength2 = minEdgeLength * minEdgeLength;
  v.samplingStep = samplingStep;
  v.frustum = m_viewingFrustum[cam];
  v.nBodies = m_nBodies < ZOT_MAX_BODIES ? m_nBodies : ZOT_MAX_BODIES;
  v.faceImage = faceImage;
  v.sampleImage = sampleImage;
  v.sampleNormalImage = sampleNormalImage;
  v.sampleIds = sampleIds;
  v.depthFloat = m_depthMapFloat;
  v.zBuffer = faceImage != nullptr || debugViews ||
              (m_usePresetDepthMap && m_presetDepthMapPerCam[cam] != nullptr) ||
              facingVisibilityBody() < 0;
  v.sampling = sampling;
  v.debugViews = debugViews;
  prepareImages(*this, v);

  computeGenerators(*this, v);
  printStage(timing, "Compute generators", stageStart);
  if (timing) stageStart = getTickCount();

  const int nCandidates = renderZbuffer(*this, v);
  if (debugViews) showDepthMap(*this, v);
  printStage(timing, "Z-buffer", stageStart);
  if (timing) stageStart = getTickCount();

  m_nSamplePointsPerCam[cam] = sampleVisibleEdges(*this, v, nCandidates);
  printStage(timing, "Find visible edges", stageStart);
  if (debugViews) {
    char name[32];
    snprintf(name, sizeof(name), "model edges %d", cam);
    showImage(name, m_debugImage, width, height, 1);
  }
  return 0;
}

void Multibody::cross_check_raytracing(const double* T, int nSamples, const double* samplePoints,
                                       int* sampleIds) {
  double R[9], t[3];
  rotTranslFromT(T, R, t);
  const int nBodies = m_nBodies < ZOT_MAX_BODIES ? m_nBodies : ZOT_MAX_BODIES;
  for (int i = 0; i < nSamples; i++) {
    double X[3];
    transformPoint3d(T, samplePoints + 3 * i, X);
    const int b = sampleIds[i] >> 16;
    const int e = sampleIds[i] & 0xFFFF;
    int f0 = -1, f1 = -1;
    if (b >= 0 && b < nBodies && m_bodyType[b] == ZOT_BODY_POLYHEDRON &&
        e < m_polyhedra[b].m_nEdges) {
      f0 = m_polyhedra[b].edgeFace0(e);
      f1 = m_polyhedra[b].edgeFace1(e);
    }
    bool done = false;
    for (int j = 0; j < nBodies && !done; j++) {
      if (m_bodyActive[j] == 0 || m_bodyType[j] != ZOT_BODY_POLYHEDRON) continue;
      const Polyhedron& ph = m_polyhedra[j];
      // Only the face index is compared with the sample's faces, whatever the
      // body: a face of another body with the same index is skipped too.
      for (int k = 0; k < ph.m_nFaces && !done; k++) {
        if (k == f0 || k == f1) continue;
        const int nv = ph.m_nVerticesPerFace[k];
        if (nv < 3) continue;
        double V[3], N[3];
        transformPoint3d(T, ph.m_vertices + 3 * ph.m_faceVertices[k][0], V);
        matrixProduct331(R, ph.m_faceNormals + 3 * k, N);
        const double num = dotProd3(N, V);
        if (num == 0.0) continue;
        const double den = dotProd3(N, X);
        const double lambda = den == 0.0 ? -1.0 : num / den;
        if (lambda < 0.0 || lambda > 1.0) continue;
        // The ray hits the face plane between the camera and X; is the hit
        // inside the polygon?
        bool inside = true;
        for (int m = 0; m < nv && inside; m++) {
          double Pm[3], Pn[3], Cm[3];
          transformPoint3d(T, ph.m_vertices + 3 * ph.m_faceVertices[k][m], Pm);
          transformPoint3d(T, ph.m_vertices + 3 * ph.m_faceVertices[k][(m + 1) % nv], Pn);
          if (num >= 0.0) {
            crossProd(Pn, Pm, Cm);
          } else {
            crossProd(Pm, Pn, Cm);
          }
          if (dotProd3(Cm, X) - dotProd3(Cm, Pm) >= 0.0) inside = false;
        }
        if (!inside) continue;
        if (lambda < 0.7) {
          std::cout << "depth conflict: Z point " << X[2] << " polygon " << lambda * X[2] << " k "
                    << lambda << std::endl;
          sampleIds[i] = -255;
        }
        done = true;
      }
    }
  }
}

}  // namespace ZOTtracker
