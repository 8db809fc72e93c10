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

  // ---------------------------------------------------------------- preparation
  double Tinv[16];
  inverseTransform(T, Tinv);
  const double C[3] = {Tinv[3], Tinv[7], Tinv[11]};
  double R[9], t[3], Rt[9];
  rotTranslFromT(T, R, t);
  matrixTranspose33(R, Rt);
  const double fx = K[0], cx = K[2], fy = K[4], cy = K[5];
  const double minLength2 = minEdgeLength * minEdgeLength;
  const long nPixels = (long)width * height;
  const double* frustum = m_viewingFrustum[cam];
  const int nBodies = m_nBodies < ZOT_MAX_BODIES ? m_nBodies : ZOT_MAX_BODIES;

  if (faceImage != nullptr) memset(faceImage, 0, nPixels);
  if (sampleImage != nullptr) memset(sampleImage, 0, nPixels);
  if (sampleNormalImage != nullptr) memset(sampleNormalImage, 0, 2 * nPixels * sizeof(double));
  if (sampling) clearDirty(m_faceIdMap, m_faceIdDirty, width, capacity);

  int nMasks = m_nMaskPolygons[cam];
  if (nMasks > ZOT_MAX_MASK_POLYGONS) nMasks = ZOT_MAX_MASK_POLYGONS;
  bool useMasks = false;
  for (int p = 0; p < nMasks; p++) useMasks = useMasks || m_maskPolygonActive[cam][p] != 0;
  if (useMasks) {
    clearDirty(m_maskImage, m_maskDirty, width, capacity);
    const int imageRect[4] = {0, 0, width - 1, height - 1};
    for (int p = 0; p < nMasks; p++) {
      if (m_maskPolygonActive[cam][p] == 0) continue;
      int nv = m_maskPolygonNVertices[cam][p];
      if (nv > ZOT_MAX_MASK_VERTICES) nv = ZOT_MAX_MASK_VERTICES;
      const double* v = m_maskPolygonVertices[cam][p];
      if (fillConvexPoly_DepthTest(m_maskImage, 255, nullptr, nullptr, nullptr, width, height, nv,
                                   v, imageRect, 0, 0.0, 0.0, 0.0, 0.0, 0.0) != 0) {
        continue;
      }
      double x0 = v[0], x1 = v[0], y0 = v[1], y1 = v[1];
      for (int k = 1; k < nv; k++) {
        x0 = std::fmin(x0, v[2 * k]);
        x1 = std::fmax(x1, v[2 * k]);
        y0 = std::fmin(y0, v[2 * k + 1]);
        y1 = std::fmax(y1, v[2 * k + 1]);
      }
      x0 = std::fmax(std::floor(x0), 0.0);
      y0 = std::fmax(std::floor(y0), 0.0);
      x1 = std::fmin(std::ceil(x1), width - 1.0);
      y1 = std::fmin(std::ceil(y1), height - 1.0);
      if (x0 <= x1 && y0 <= y1) {
        growDirty(m_maskDirty, width, capacity, (int)x0, (int)y0, (int)x1, (int)y1);
      }
    }
  }

  if (m_usePresetDepthMap && m_presetDepthMapPerCam[cam] != nullptr) {
    memcpy(m_depthMap, m_presetDepthMapPerCam[cam], nPixels * sizeof(double));
    growDirty(m_depthDirty, width, capacity, 0, 0, width - 1, height - 1);
  } else {
    clearDirty(m_depthMap, m_depthDirty, width, capacity);
  }

  // ---------------------------------------------------------------- compute generators
  for (int b = 0; b < nBodies; b++) {
    if (m_bodyActive[b] == 0) continue;
    if (m_bodyType[b] == ZOT_BODY_POLYLINE) {
      Polyline& pl = m_polylines[b];
      for (int i = 0; i < pl.m_nPoints; i++) {
        transformPoint3d(T, pl.m_points + 3 * i, pl.m_pointsInCamera + 3 * i);
      }
      continue;
    }
    if (m_bodyType[b] != ZOT_BODY_POLYHEDRON) {
      printf("ERROR: no code for the cylinder!\n");
      continue;
    }
    Polyhedron& ph = m_polyhedra[b];
    for (int v = 0; v < ph.m_nVertices; v++) {
      transformPoint3d(T, ph.m_vertices + 3 * v, ph.m_verticesInCamera + 3 * v);
    }
    for (int f = 0; f < ph.m_nFaces; f++) {
      if (ph.m_nVerticesPerFace[f] < 1) {
        ph.m_faceFacing[f] = 0.0;
        continue;
      }
      double toFace[3];
      matrixSub31(ph.m_vertices + 3 * ph.m_faceVertices[f][0], C, toFace);
      ph.m_faceFacing[f] = dotProd3(ph.m_faceNormals + 3 * f, toFace);
    }
    if (!sampling) continue;
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
  printStage(timing, "Compute generators", stageStart);
  if (timing) stageStart = getTickCount();

  // ---------------------------------------------------------------- Z-buffer
  int nCandidates = 0;
  bool candidatesFull = false;
  auto appendCandidate = [&](const double* P0, const double* P1, int body, int edge) {
    if (nCandidates >= m_maxVisibleEdges) {
      candidatesFull = true;
      return;
    }
    double* dst = m_visibleEdgeBuffer + 6 * nCandidates;
    for (int i = 0; i < 3; i++) {
      dst[i] = P0[i];
      dst[3 + i] = P1[i];
    }
    int* ids = m_visibleEdgeIds + 3 * nCandidates;
    ids[0] = body;
    ids[1] = edge;
    ids[2] = 0;
    nCandidates++;
  };

  double polygon[3 * kClipCapacity], polygonScratch[3 * kClipCapacity];
  int polygonIds[kClipCapacity], polygonIdsScratch[kClipCapacity];
  double projected[2 * kClipCapacity];
  const double upper = 1.0 / zNear, lower = 1.0 / zFar;
  for (int b = 0; b < nBodies; b++) {
    if (m_bodyActive[b] == 0) continue;
    if (m_bodyType[b] == ZOT_BODY_POLYLINE) {
      if (!sampling && faceImage == nullptr) continue;
      const Polyline& pl = m_polylines[b];
      for (int s = 0; s < pl.m_nSegments; s++) {
        const int i0 = pl.m_segments[2 * s], i1 = pl.m_segments[2 * s + 1];
        if (i0 < 0 || i0 >= pl.m_nPoints || i1 < 0 || i1 >= pl.m_nPoints) continue;
        double segment[6], clipped[6];
        matrixCopy(pl.m_pointsInCamera + 3 * i0, segment, 3, 1);
        matrixCopy(pl.m_pointsInCamera + 3 * i1, segment + 3, 3, 1);
        if (clipSegmentToViewingFrustum(segment, clipped, frustum, minEdgeLength) > 0) {
          appendCandidate(clipped, clipped + 3, b, s);
        }
      }
      continue;
    }
    if (m_bodyType[b] != ZOT_BODY_POLYHEDRON) {
      printf("ERROR: no code for the cylinder!\n");
      continue;
    }
    Polyhedron& ph = m_polyhedra[b];
    for (int f = 0; f < ph.m_nFaces; f++) {
      const double facing = ph.m_faceFacing[f];
      const bool render =
          ph.m_isFlat ? std::fabs(facing) > facingTolerance : facing < -facingTolerance;
      if (!render) continue;
      const int nv = ph.m_nVerticesPerFace[f];
      if (nv < 3) continue;
      if (nv > kMaxFaceVertices) {
        printf("ERROR: face %d of body %d has more than %d vertices and is not rendered!\n", f, b,
               kMaxFaceVertices);
        continue;
      }
      const double d = -facing;
      double m[3];
      matrixProduct331(R, ph.m_faceNormals + 3 * f, m);
      for (int k = 0; k < nv; k++) {
        matrixCopy(ph.m_verticesInCamera + 3 * ph.m_faceVertices[f][k], polygon + 3 * k, 3, 1);
        polygonIds[k] = ph.m_faceEdges[f][k];
      }
      int n = nv;
      poly_clip_to_view_frustum(n, polygon, polygonScratch, frustum, polygonIds, polygonIdsScratch);
      if (n < 3) continue;

      if (sampling) {
        for (int k = 0; k < n; k++) {
          const int e = polygonIds[k];
          if (e < 0 || e >= ph.m_nEdges) continue;
          unsigned char& state = ph.m_edgeState[e];
          if (state != kEdgeContour && state != kEdgeFeature) continue;
          if (state == kEdgeFeature) state = kEdgeFeatureCollected;
          const double* Pa = polygon + 3 * k;
          const double* Pb = polygon + 3 * ((k + 1) % n);
          const double ex = Pa[0] - Pb[0], ey = Pa[1] - Pb[1], ez = Pa[2] - Pb[2];
          if (ex * ex + ey * ey + ez * ez > minLength2) appendCandidate(Pa, Pb, b, e);
        }
      }

      bool valid = true;
      int xmin = 0, xmax = 0, ymin = 0, ymax = 0;
      for (int k = 0; k < n && valid; k++) {
        const double* X = polygon + 3 * k;
        const double u = X[0] / X[2] * fx + cx;
        const double v = X[1] / X[2] * fy + cy;
        valid = validPixel(u, v);
        projected[2 * k] = u;
        projected[2 * k + 1] = v;
        if (!valid) break;
        const int ru = roundToInt(u), rv = roundToInt(v);
        if (k == 0 || ru < xmin) xmin = ru;
        if (k == 0 || ru > xmax) xmax = ru;
        if (k == 0 || rv < ymin) ymin = rv;
        if (k == 0 || rv > ymax) ymax = rv;
      }
      if (!valid) continue;
      if (xmin < 0 || xmax > width - 1 || ymin < 0 || ymax > height - 1) {
        printf("OUT OF BOUNDARY xmin %d xmax %d ymin %d ymax %d\n", xmin, xmax, ymin, ymax);
        if (xmin < 0) xmin = 0;
        if (ymin < 0) ymin = 0;
        if (xmax > width - 1) xmax = width - 1;
        if (ymax > height - 1) ymax = height - 1;
        if (xmin > xmax || ymin > ymax) continue;
      }
      const double ax = m[0] / fx / d;
      const double ay = m[1] / fy / d;
      const double a0 = m[2] / d - ax * cx - ay * cy;
      const unsigned char shade =
          faceImage != nullptr ? (unsigned char)std::trunc((std::fabs(m[2]) * 0.9 + 0.1) * 255) : 0;
      const int box[4] = {xmin, ymin, xmax, ymax};
      fillConvexPoly_DepthTest(faceImage, shade, m_depthMap, m_faceIdMap, nullptr, width, height, n,
                               projected, box, b * 65536 + f + 1, ax, ay, a0, upper, lower);
      growDirty(m_depthDirty, width, capacity, xmin, ymin, xmax, ymax);
      growDirty(m_faceIdDirty, width, capacity, xmin, ymin, xmax, ymax);
    }
  }
  if (candidatesFull) {
    printf("WARNING: more candidate edges than the edge buffer holds; the rest is not sampled!\n");
  }

  if (debugViews) {
    for (long i = 0; i < nPixels; i++) {
      unsigned char* px = m_debugImage + 3 * i;
      const double delta = m_depthMap[i];
      if (delta > 0.0) {
        double grey = (1.0 - (1.0 / delta - zNear) / (zFar - zNear)) * 255.0;
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
    snprintf(name, sizeof(name), "depth map %d", cam);
    showImage(name, m_debugImage, width, height, 3);
    memset(m_debugImage, 0, nPixels);
  }
  printStage(timing, "Z-buffer", stageStart);
  if (timing) stageStart = getTickCount();

  // ---------------------------------------------------------------- find visible edges
  const int maxSamples = m_maxSamplePointsPerCam;
  double* outPoints = m_samplePointsPerCam[cam];
  double* outTangents = m_sampleTangentDirPerCam[cam];
  int k = 0;
  bool full = sampling && k >= maxSamples;
  for (int i = 0; i < nCandidates && !full; i++) {
    const int b = m_visibleEdgeIds[3 * i];
    const int e = m_visibleEdgeIds[3 * i + 1];
    const double* P0 = m_visibleEdgeBuffer + 6 * i;
    const double* P1 = P0 + 3;
    const bool isPolyline = m_bodyType[b] == ZOT_BODY_POLYLINE;
    int supportBody = -1, supportFace = -1, f0 = -1, f1 = -1;
    bool crease = false;
    if (isPolyline) {
      supportBody = m_polylineSupportFace[b][0];
      supportFace = m_polylineSupportFace[b][1];
    } else {
      const Polyhedron& ph = m_polyhedra[b];
      crease = ph.m_edgeState[e] == kEdgeFeatureCollected;
      f0 = ph.edgeFace0(e);
      f1 = ph.edgeFace1(e);
    }

    const double p0x = P0[0] / P0[2] * fx + cx, p0y = P0[1] / P0[2] * fy + cy;
    const double p1x = P1[0] / P1[2] * fx + cx, p1y = P1[1] / P1[2] * fy + cy;
    if (!validPixel(p0x, p0y) || !validPixel(p1x, p1y)) continue;
    const int start[2] = {roundToInt(p0x), roundToInt(p0y)};
    const int end[2] = {roundToInt(p1x), roundToInt(p1y)};
    const int spanX = std::abs(end[0] - start[0]), spanY = std::abs(end[1] - start[1]);
    if ((spanX > spanY ? spanX : spanY) + 1 <= 1) continue;

    double D[3];
    matrixSub31(P1, P0, D);
    normalize(D, 3, 1);
    const double dx = p1x - p0x, dy = p1y - p0y;
    const double L = std::sqrt(dx * dx + dy * dy);
    const double ux = dx / L, uy = dy / L;
    const double c0 = dy * p0x - dx * p0y;
    const bool xMajor = std::fabs(dx) >= std::fabs(dy);

    myLineIterator it;
    const int nPixelsOnLine =
        initLineIterator(m_debugImage, width, height, 1, start, end, &it, 8, 0);
    int stepCounter = 0;
    for (int p = 0; p < nPixelsOnLine; p++) {
      const long offset = it.m_ptr - m_debugImage;
      advanceLineIterator(it);
      const int y = (int)(offset / width);
      const int x = (int)(offset - (long)y * width);
      if (stepCounter == samplingStep) stepCounter = 0;
      const bool candidate = stepCounter == 0;
      stepCounter++;
      if (!candidate) continue;
      if (x < 1 || x > width - 2 || y < 1 || y > height - 2) continue;
      const long idx = (long)y * width + x;
      if (useMasks && m_maskImage[idx] != 0) continue;
      const double tpar = (x - p0x) * ux + (y - p0y) * uy;
      if (tpar < 0.0 || tpar > L) continue;

      // Point of the 3D edge that projects onto the foot point q.
      const double qx = p0x + tpar * ux, qy = p0y + tpar * uy;
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

      const double delta = m_depthMap[idx];
      const int id = m_faceIdMap[idx] - 1;
      bool visible = false;
      if (isPolyline) {
        if (delta == 0.0) {
          visible = true;
        } else if ((supportBody >= 0 && supportFace >= 0 && id >= 0 && (id >> 16) == supportBody &&
                    (id & 0xFFFF) == supportFace) ||
                   1.0 / X[2] >= delta) {
          visible = true;
          if (faceImage != nullptr) faceImage[idx] = 255;
        }
      } else if (crease) {
        visible = idOnFaces(id, b, f0, f1);
      } else if (delta == 0.0 || idOnFaces(id, b, f0, f1)) {
        visible = true;
      } else {
        // Occluded by another face at this pixel: the contour may still be
        // seen when the pixel across the line shows background or the
        // edge's own faces, or lies behind the edge.
        const double r = xMajor ? (-dy / dx) * x + y + c0 / dx : (dx / (-dy)) * y + x + c0 / (-dy);
        const int off = std::fabs(r) > 1.0 ? 2 : 1;
        int nx = x, ny = y;
        if (xMajor) {
          ny = r < 0.0 ? y + off : y - off;
        } else {
          nx = r < 0.0 ? x + off : x - off;
        }
        if (nx >= 1 && nx < width - 2 && ny >= 1 && ny < height - 2) {
          const long nidx = (long)ny * width + nx;
          const double delta2 = m_depthMap[nidx];
          const int id2 = m_faceIdMap[nidx] - 1;
          if (delta2 == 0.0 || idOnFaces(id2, b, f0, f1)) {
            visible = true;
          } else if (id2 != id) {
            visible = 1.0 / X[2] > (delta < delta2 ? delta : delta2);
          }
        }
      }
      if (!visible || !sampling) continue;

      transformPoint3d(Tinv, X, outPoints + 3 * k);
      matrixProduct331(Rt, D, outTangents + 3 * k);
      if (sampleImage != nullptr) sampleImage[idx] = 255;
      if (sampleNormalImage != nullptr) {
        sampleNormalImage[2 * idx] = -dy;
        sampleNormalImage[2 * idx + 1] = dx;
      }
      if (debugViews) m_debugImage[idx] = 255;
      if (sampleIds != nullptr) sampleIds[k] = b * 65536 + e;
      k++;
      if (k >= maxSamples) {
        full = true;
        break;
      }
    }
  }
  if (sampling && k == maxSamples) {
    printf("WARNING: reached maximum number of sample points per camera!!!\n");
  }
  m_nSamplePointsPerCam[cam] = k;
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
