// Tracker set-up from the setup array: cameras, tracking parameters, model
// and bodies, read by one cursor that never passes the array's end.
#include <cstdio>

#include "GenericObjectTracker.h"
#include "IO.h"
#include "Imgproc.h"
#include "Math.h"
#include "memory_handling.h"

namespace ZOTtracker {

namespace {

// Fewest values one camera takes: size, depths, intrinsics, distortion,
// calibration and its mask polygon count.
constexpr int kMinValuesPerCamera = 2 + 2 + 5 + 5 + 12 + 1;
constexpr int kTrackerValues = 23;
constexpr int kLocalFrameValues = 12;
constexpr int kCylinderValues = 1 + 4 * 3;
// Geometry counts are bounded by what the array holds, checked separately.
constexpr int kNoLimit = 2147483647;

// True when n more values follow `cursor` in an array of `count`. Otherwise
// the array ended too early: says where, and gives the total check with the
// number of values the layout needed up to here.
bool available(int cursor, long long n, int count, const char* what) {
  if (cursor >= 0 && n >= 0 && (long long)cursor + n <= (long long)count) return true;
  if (n == 1)
    printf("ERROR: setup array too short (%s): value %d needed, it holds %d\n", what, cursor,
           count);
  else
    printf("ERROR: setup array too short (%s): values %d to %lld needed, it holds %d\n", what,
           cursor, (long long)cursor + n - 1, count);
  printf("ERROR: total numbers read %lld should be: %d\n", (long long)cursor + n, count);
  return false;
}

// Reads the integer at `cursor` (stored as a double, truncated toward zero).
// NaN, infinities and values outside int are refused: converting them would
// be undefined.
bool readInt(const double* array, int& cursor, int count, const char* what, int& value) {
  if (!available(cursor, 1, count, what)) return false;
  const double v = array[cursor];
  if (!(v > -2147483649.0 && v < 2147483648.0)) {
    printf("ERROR: setup array value %d (%s) is not an integer: %g\n", cursor, what, v);
    return false;
  }
  value = (int)v;
  cursor++;
  return true;
}

// Reads a group count: negative counts read as 0 (an empty group); more than
// `most` is refused.
bool readCount(const double* array, int& cursor, int count, const char* what, int most,
               int& value) {
  if (!readInt(array, cursor, count, what, value)) return false;
  if (value < 0) value = 0;
  if (value > most) {
    printf("ERROR: setup array value %d: %d %s, at most %d are supported\n", cursor - 1, value,
           what, most);
    return false;
  }
  return true;
}

// Reads a 1-based index and returns it 0-based.
bool readIndex(const double* array, int& cursor, int count, const char* what, int& value) {
  if (!readInt(array, cursor, count, what, value)) return false;
  value = value - 1;
  return true;
}

// Identity with the first three rows read from the array (12 values).
void readTransform(const double* array, int& cursor, double* T) {
  matrixIdentity(T, 4);
  for (int i = 0; i < 12; i++) T[i] = array[cursor++];
}

}  // namespace

// ================================================================ whole array

int GenericObjectTracker::setupFromGlobalArray(int count, const double* array) {
  if (array == nullptr || count < 0) {
    printf("ERROR: invalid setup array (%d values)\n", count);
    return -1;
  }
  // No camera takes part until this call has succeeded: a failed set-up
  // must not leave buffers sized for an earlier configuration in use.
  m_contourTracker.m_nCams = 0;
  for (int c = 0; c < ZOT_MAX_CAMERAS; c++) m_contourTracker.m_camEnabled[c] = 0;
  m_multibody.m_nCams = 0;

  int cursor = 0;
  if (setupCameraParam(cursor, array, count) != 0) return -1;
  if (setupTrackerParam(cursor, array, count) != 0) return -1;
  if (setupModelParam(cursor, array, count) != 0) return -1;

  const TrackingParameters& p = m_trackingParams;
  if (m_kalmanFilter.setParams(p.m_kfAccNoiseRot, p.m_kfAccNoiseTransl, p.m_kfInitialCov) != 0) {
    printf("ERROR: invalid Kalman filter parameters: noise %g %g, initial covariance %g\n",
           p.m_kfAccNoiseRot, p.m_kfAccNoiseTransl, p.m_kfInitialCov);
    return -1;
  }
  m_contourTracker.init(m_imageWidth, m_imageHeight, m_zNear, m_zFar, m_nCameras,
                        p.m_maxNSamplePointsPerCam);
  if (m_contourTracker.m_nCams != m_nCameras) return -1;  // init said why

  int maxWidth = 0, maxHeight = 0;
  for (int c = 0; c < m_nCameras; c++) {
    if (m_imageWidth[c] > maxWidth) maxWidth = m_imageWidth[c];
    if (m_imageHeight[c] > maxHeight) maxHeight = m_imageHeight[c];
  }
  if (m_multibody.init(m_nCameras, p.m_maxNSamplePointsPerCam, maxWidth, maxHeight) != 0) {
    m_contourTracker.m_nCams = 0;
    for (int c = 0; c < ZOT_MAX_CAMERAS; c++) m_contourTracker.m_camEnabled[c] = 0;
    return -1;
  }

  // Checked last, after everything is built: the pools stay consumed.
  if (cursor != count) {
    printf("ERROR: total numbers read %d should be: %d\n", cursor, count);
    m_contourTracker.m_nCams = 0;
    for (int c = 0; c < ZOT_MAX_CAMERAS; c++) m_contourTracker.m_camEnabled[c] = 0;
    return -1;
  }
  return 0;
}

// ================================================================ sections

int GenericObjectTracker::setupCameraParam(int& cursor, const double* array, int count) {
  int nCameras = 0;
  if (!readCount(array, cursor, count, "cameras", ZOT_MAX_CAMERAS, nCameras)) return -1;
  if (!available(cursor, (long long)kMinValuesPerCamera * nCameras, count, "cameras")) return -1;
  m_nCameras = nCameras;
  // Buffers of an earlier set-up do not fit the sizes read below.
  for (int c = 0; c < ZOT_MAX_CAMERAS; c++) {
    m_undistMapX[c] = m_undistMapY[c] = nullptr;
    m_undistTable1[c] = m_undistTable2[c] = m_undistTable3[c] = nullptr;
    m_undistTable4[c] = m_undistTable5[c] = nullptr;
    m_undistortedImage[c] = nullptr;
  }

  // Pool order: all K, all distortion vectors, all transforms.
  for (int c = 0; c < m_nCameras; c++) m_K[c] = myMallocDouble(9);
  for (int c = 0; c < m_nCameras; c++) m_distCoeffs[c] = myMallocDouble(5);
  for (int c = 0; c < m_nCameras; c++) m_undistort[c] = 0;
  for (int c = 0; c < m_nCameras; c++) m_toolToCamera[c] = myMallocDouble(16);

  for (int c = 0; c < m_nCameras; c++) {
    if (!available(cursor, kMinValuesPerCamera, count, "camera")) return -1;
    int width = 0, height = 0;
    if (!readInt(array, cursor, count, "image width", width)) return -1;
    if (!readInt(array, cursor, count, "image height", height)) return -1;
    if (width < 1 || height < 1 || width > ZOT_MAX_IMAGE_SIDE || height > ZOT_MAX_IMAGE_SIDE) {
      printf("ERROR: camera %d: image of %d x %d pixels, each side must be 1 to %d\n", c, width,
             height, ZOT_MAX_IMAGE_SIDE);
      return -1;
    }
    m_imageWidth[c] = width;
    m_imageHeight[c] = height;
    m_zNear[c] = array[cursor++];
    m_zFar[c] = array[cursor++];

    double* K = m_K[c];
    matrixIdentity(K, 3);
    K[0] = array[cursor++];  // fx
    K[4] = array[cursor++];  // fy
    K[2] = array[cursor++];  // cx
    K[5] = array[cursor++];  // cy
    K[1] = array[cursor++];  // skew

    double largest = 0.0;
    for (int i = 0; i < 5; i++) {
      m_distCoeffs[c][i] = array[cursor++];
      const double magnitude = m_distCoeffs[c][i] < 0.0 ? -m_distCoeffs[c][i] : m_distCoeffs[c][i];
      if (magnitude > largest) largest = magnitude;
    }
    m_undistort[c] = largest > 0.0 ? 1 : 0;

    // The array holds the camera in the tool frame; the tracker maps the
    // other way.
    double toolFromCamera[16];
    readTransform(array, cursor, toolFromCamera);
    inverseTransform(toolFromCamera, m_toolToCamera[c]);

    computeViewingFrustum(m_multibody.m_viewingFrustum[c], K, 0.0, 0.0, width - 1, height - 1,
                          m_zNear[c], m_zFar[c]);

    int nPolygons = 0;
    if (!readCount(array, cursor, count, "mask polygons", ZOT_MAX_MASK_POLYGONS, nPolygons))
      return -1;
    if (!available(cursor, nPolygons, count, "mask polygons")) return -1;
    m_multibody.m_nMaskPolygons[c] = 0;
    for (int p = 0; p < nPolygons; p++) {
      int nVertices = 0;
      if (!readCount(array, cursor, count, "vertices in a mask polygon", ZOT_MAX_MASK_VERTICES,
                     nVertices))
        return -1;
      if (!available(cursor, 2LL * nVertices, count, "mask polygon")) return -1;
      m_multibody.m_maskPolygonNVertices[c][p] = nVertices;
      for (int i = 0; i < 2 * nVertices; i++)
        m_multibody.m_maskPolygonVertices[c][p][i] = array[cursor++];
      m_multibody.m_maskPolygonActive[c][p] = 1;
      m_multibody.m_nMaskPolygons[c] = p + 1;
    }
  }

  for (int c = 0; c < m_nCameras; c++) {
    const size_t nPixels = (size_t)m_imageWidth[c] * (size_t)m_imageHeight[c];
    m_undistMapX[c] = myMallocDouble(nPixels);
    m_undistMapY[c] = myMallocDouble(nPixels);
    m_undistTable1[c] = myMallocInt(nPixels);
    m_undistTable2[c] = myMallocInt(nPixels);
    m_undistTable3[c] = myMallocInt(nPixels);
    m_undistTable4[c] = myMallocInt(nPixels);
    m_undistTable5[c] = myMallocInt(nPixels);
    m_undistortedImage[c] = myMallocUchar(nPixels);
  }
  initAllUndistortMaps();
  return 0;
}

int GenericObjectTracker::setupTrackerParam(int& cursor, const double* array, int count) {
  if (!available(cursor, kTrackerValues, count, "tracking parameters")) return -1;
  // Read into a copy: a refused value leaves the parameters as they were.
  TrackingParameters p = m_trackingParams;
  if (!readInt(array, cursor, count, "sample points per camera", p.m_maxNSamplePointsPerCam))
    return -1;
  p.m_facingTolerance = array[cursor++];
  if (!readInt(array, cursor, count, "sampling step", p.m_samplingStep)) return -1;
  p.m_minEdgeLength = array[cursor++];
  if (!readInt(array, cursor, count, "search range", p.m_searchRange)) return -1;
  if (!readInt(array, cursor, count, "Canny low threshold", p.m_cannyLowThreshold)) return -1;
  if (!readInt(array, cursor, count, "Canny high threshold", p.m_cannyHighThreshold)) return -1;
  p.m_maxAngleDeg = array[cursor++];
  if (!readInt(array, cursor, count, "maximum iterations", p.m_maxIterations)) return -1;
  p.m_convergenceRot = array[cursor++];
  p.m_convergenceTransl = array[cursor++];
  p.m_maxAbsRot = array[cursor++];
  p.m_maxAbsTransl = array[cursor++];
  p.m_minInliersLoop = array[cursor++];
  p.m_minInliersFinal = array[cursor++];
  p.m_maxFinalCost = array[cursor++];
  p.m_resampleRot = array[cursor++];
  p.m_resampleTransl = array[cursor++];
  p.m_kfAccNoiseRot = array[cursor++];
  p.m_kfAccNoiseTransl = array[cursor++];
  p.m_measStdRot = array[cursor++];
  p.m_measStdTransl = array[cursor++];
  p.m_kfInitialCov = array[cursor++];
  m_trackingParams = p;
  return 0;
}

int GenericObjectTracker::setupModelParam(int& cursor, const double* array, int count) {
  Multibody& model = m_multibody;
  int nFrames = 0;
  if (!readCount(array, cursor, count, "local frames", ZOT_MAX_LOCAL_FRAMES, nFrames)) return -1;
  if (!available(cursor, (long long)kLocalFrameValues * nFrames, count, "local frames")) return -1;
  model.m_nLocalFrames = nFrames;
  for (int i = 0; i < nFrames; i++) readTransform(array, cursor, model.m_localFrames[i]);

  int nBodies = 0;
  if (!readCount(array, cursor, count, "bodies", ZOT_MAX_BODIES, nBodies)) return -1;
  if (!available(cursor, nBodies, count, "bodies")) return -1;
  // Counts only the bodies built so far, so that a failure leaves no
  // half-read body in the model.
  model.m_nBodies = 0;
  for (int i = 0; i < nBodies; i++) {
    int type = 0;
    if (!readInt(array, cursor, count, "body type", type)) return -1;
    if (type == ZOT_BODY_POLYLINE) {
      int supportBody = 0, supportFace = 0;
      if (!readIndex(array, cursor, count, "supporting body", supportBody)) return -1;
      if (!readIndex(array, cursor, count, "supporting face", supportFace)) return -1;
      model.m_polylineSupportFace[i][0] = supportBody;
      model.m_polylineSupportFace[i][1] = supportFace;
      if (setupPolyline(cursor, array, model.m_polylines[i], count) != 0) return -1;
    } else if (type == ZOT_BODY_POLYHEDRON) {
      if (!available(cursor, 2, count, "polyhedron")) return -1;
      const bool flat = array[cursor++] != 0.0;  // NaN counts as set
      const double angle = array[cursor++];
      if (setupPolyhedron(cursor, array, model.m_polyhedra[i], flat, angle, count) != 0) return -1;
    } else if (type == ZOT_BODY_CYLINDER) {
      if (!available(cursor, kCylinderValues, count, "cylinder")) return -1;
      const double radius = array[cursor++];
      double t[4][3];
      for (int v = 0; v < 4; v++)
        for (int k = 0; k < 3; k++) t[v][k] = array[cursor++];
      // The array gives p1, p2, nb, nt; init takes nb, p1, nt, p2.
      if (model.m_cylinders[i].init(radius, t[2], t[0], t[3], t[1]) != 0) return -1;
    } else {
      printf("ERROR: body %d has the unknown type %d (0 polyhedron, 1 polyline, 2 cylinder)\n",
             i + 1, type);
      return -1;
    }
    model.m_bodyType[i] = type;
    model.m_nBodies = i + 1;
  }
  for (int i = 0; i < nBodies; i++) model.m_bodyActive[i] = 1;
  return 0;
}

// ================================================================ bodies

int GenericObjectTracker::setupPolyhedron(int& cursor, const double* array, Polyhedron& body,
                                          bool flat, double angle, int count) {
  if (array == nullptr) {
    printf("ERROR: no setup array for the polyhedron\n");
    return -1;
  }
  // Counts stay 0 until their data is complete.
  body.m_nVertices = 0;
  body.m_nFaces = 0;
  int nVertices = 0;
  if (!readCount(array, cursor, count, "polyhedron vertices", kNoLimit, nVertices)) return -1;
  if (!available(cursor, 3LL * nVertices, count, "polyhedron vertices")) return -1;
  body.m_vertices = myMallocDouble(3 * (size_t)nVertices);
  for (int i = 0; i < 3 * nVertices; i++) body.m_vertices[i] = array[cursor++];
  body.m_nVertices = nVertices;

  int nFaces = 0;
  if (!readCount(array, cursor, count, "polyhedron faces", kNoLimit, nFaces)) return -1;
  if (!available(cursor, nFaces, count, "polyhedron faces")) return -1;
  body.m_faceNormals = myMallocDouble(3 * (size_t)nFaces);
  body.m_faceFacing = myMallocDouble((size_t)nFaces);
  body.m_nVerticesPerFace = myMallocInt((size_t)nFaces);
  body.m_faceVertices = myMallocIntPtr((size_t)nFaces);
  body.m_faceEdges = myMallocIntPtr((size_t)nFaces);
  for (int f = 0; f < nFaces; f++) {
    int nCorners = 0;
    if (!readCount(array, cursor, count, "vertices on a polyhedron face", ZOT_MAX_FACE_VERTICES,
                   nCorners))
      return -1;
    if (!available(cursor, nCorners, count, "polyhedron face")) return -1;
    body.m_nVerticesPerFace[f] = nCorners;
    body.m_faceVertices[f] = myMallocInt((size_t)nCorners);
    body.m_faceEdges[f] = myMallocInt((size_t)nCorners);
    for (int j = 0; j < nCorners; j++) {
      if (!readIndex(array, cursor, count, "face vertex", body.m_faceVertices[f][j])) return -1;
    }
  }
  body.m_nFaces = nFaces;
  return body.init(flat, angle);
}

int GenericObjectTracker::setupPolyline(int& cursor, const double* array, Polyline& body,
                                        int count) {
  if (array == nullptr) {
    printf("ERROR: no setup array for the polyline\n");
    return -1;
  }
  body.m_nPoints = 0;
  body.m_nSegments = 0;
  int nVertices = 0;
  if (!readCount(array, cursor, count, "polyline vertices", kNoLimit, nVertices)) return -1;
  if (!available(cursor, 3LL * nVertices, count, "polyline vertices")) return -1;
  body.m_points = myMallocDouble(3 * (size_t)nVertices);
  body.m_pointsInCamera = myMallocDouble(3 * (size_t)nVertices);
  for (int i = 0; i < 3 * nVertices; i++) body.m_points[i] = array[cursor++];

  int nEdges = 0;
  if (!readCount(array, cursor, count, "polyline edges", kNoLimit, nEdges)) return -1;
  if (!available(cursor, 2LL * nEdges, count, "polyline edges")) return -1;
  body.m_segments = myMallocInt(2 * (size_t)nEdges);
  for (int i = 0; i < 2 * nEdges; i++) {
    int v = 0;
    if (!readIndex(array, cursor, count, "polyline edge vertex", v)) return -1;
    // The sampler indexes the points with these: one outside would read
    // foreign memory.
    if (v < 0 || v >= nVertices) {
      printf("ERROR: polyline edge %d refers to vertex %d, but there are %d vertices\n", i / 2 + 1,
             v + 1, nVertices);
      return -1;
    }
    body.m_segments[i] = v;
  }
  body.m_nPoints = nVertices;
  body.m_nSegments = nEdges;
  return 0;
}

}  // namespace ZOTtracker
