// Tracker set-up from the setup array: cameras, tracking parameters, model
// and bodies, read by one cursor that never passes the array's end.
#include <cstdio>

#include "GenericObjectTracker.h"
#include "IO.h"
#include "Imgproc.h"
#include "Math.h"
#include "SetupArray.h"
#include "memory_handling.h"

namespace ZOTtracker {

namespace {

// Geometry counts are bounded by what the array holds, checked separately.
constexpr int kNoLimit = 2147483647;

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
  if (setupFitsPools(count, array) != 0) return -1;

  int cursor = 0;
  if (setupCameraParam(cursor, array, count) != 0) return -1;
  if (setupTrackerParam(cursor, array, count) != 0) return -1;
  if (setupModelParam(cursor, array, count) != 0) return -1;
  // The robust estimator's items, when the array carries them; otherwise
  // the designed estimator, whatever an earlier set-up chose.
  m_trackingParams.m_robust = RobustSettings();
  const bool extended = cursor < count && array[cursor] == ZOT_EXTENSION_MARKER;
  if (extended) {
    SetupArrayReader r(array, count, cursor);
    int nValues = 0;
    if (!decodeExtensions(r, m_trackingParams.m_robust, nValues, nullptr)) return -1;
  }

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

  if (extended) m_contourTracker.initRobust(p.m_maxNSamplePointsPerCam);
  if (p.m_robust.cheapVisibility()) {
    m_multibody.useFloatDepth();
    m_multibody.useFacingVisibility();
  }
  for (int c = 0; c < ZOT_MAX_CAMERAS; c++)
    m_imageSpans[c] = p.m_robust.regionOfInterest && c < m_nCameras
                          ? myMallocInt(2 * (size_t)m_imageHeight[c])
                          : nullptr;

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
  SetupArrayReader r(array, count, cursor);
  int nCameras = 0;
  if (!decodeCameraCount(r, nCameras)) return -1;
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
    SetupCamera cam;
    if (!decodeCamera(r, c, cam)) return -1;
    m_imageWidth[c] = cam.width;
    m_imageHeight[c] = cam.height;
    m_zNear[c] = cam.zNear;
    m_zFar[c] = cam.zFar;

    double* K = m_K[c];
    matrixIdentity(K, 3);
    K[0] = cam.fx;
    K[4] = cam.fy;
    K[2] = cam.cx;
    K[5] = cam.cy;
    K[1] = cam.skew;

    double largest = 0.0;
    for (int i = 0; i < 5; i++) {
      m_distCoeffs[c][i] = cam.dist[i];
      const double magnitude = m_distCoeffs[c][i] < 0.0 ? -m_distCoeffs[c][i] : m_distCoeffs[c][i];
      if (magnitude > largest) largest = magnitude;
    }
    m_undistort[c] = largest > 0.0 ? 1 : 0;

    // The array holds the camera in the tool frame; the tracker maps the
    // other way.
    inverseTransform(cam.toolFromCamera, m_toolToCamera[c]);

    computeViewingFrustum(m_multibody.m_viewingFrustum[c], K, 0.0, 0.0, cam.width - 1,
                          cam.height - 1, m_zNear[c], m_zFar[c]);

    m_multibody.m_nMaskPolygons[c] = cam.nMasks;
    for (int p = 0; p < cam.nMasks; p++) {
      const int nVertices = cam.maskNVertices[p];
      m_multibody.m_maskPolygonNVertices[c][p] = nVertices;
      for (int i = 0; i < 2 * nVertices; i++)
        m_multibody.m_maskPolygonVertices[c][p][i] = cam.maskVertices[p][i];
      m_multibody.m_maskPolygonActive[c][p] = 1;
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
  SetupArrayReader r(array, count, cursor);
  return decodeTrackingParameters(r, m_trackingParams) ? 0 : -1;
}

int GenericObjectTracker::setupModelParam(int& cursor, const double* array, int count) {
  SetupArrayReader r(array, count, cursor);
  Multibody& model = m_multibody;
  int nFrames = 0;
  if (!decodeLocalFrames(r, nFrames, model.m_localFrames)) return -1;
  model.m_nLocalFrames = nFrames;

  int nBodies = 0;
  if (!decodeBodyCount(r, nBodies)) return -1;
  // Counts only the bodies built so far, so that a failure leaves no
  // half-read body in the model. Bodies are read here rather than through
  // decodeBody because their buffers are taken from the pools as they are read.
  model.m_nBodies = 0;
  for (int i = 0; i < nBodies; i++) {
    int type = 0;
    if (!r.readInt("body type", type)) return -1;
    if (type == ZOT_BODY_POLYLINE) {
      int supportBody = 0, supportFace = 0;
      if (!r.readIndex("supporting body", supportBody)) return -1;
      if (!r.readIndex("supporting face", supportFace)) return -1;
      model.m_polylineSupportFace[i][0] = supportBody;
      model.m_polylineSupportFace[i][1] = supportFace;
      if (setupPolyline(cursor, array, model.m_polylines[i], count) != 0) return -1;
    } else if (type == ZOT_BODY_POLYHEDRON) {
      if (!r.available(2, "polyhedron")) return -1;
      const bool flat = r.next() != 0.0;  // NaN counts as set
      const double angle = r.next();
      if (setupPolyhedron(cursor, array, model.m_polyhedra[i], flat, angle, count) != 0) return -1;
    } else if (type == ZOT_BODY_CYLINDER) {
      if (!r.available(13, "cylinder")) return -1;
      const double radius = r.next();
      double t[4][3];
      for (int v = 0; v < 4; v++)
        for (int k = 0; k < 3; k++) t[v][k] = r.next();
      // The array gives p1, p2, nb, nt; init takes nb, p1, nt, p2.
      if (model.m_cylinders[i].init(radius, t[2], t[0], t[3], t[1]) != 0) return -1;
    } else {
      r.report("ERROR: body %d has the unknown type %d (0 polyhedron, 1 polyline, 2 cylinder)\n",
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
  SetupArrayReader r(array, count, cursor);
  // Counts stay 0 until their data is complete.
  body.m_nVertices = 0;
  body.m_nFaces = 0;
  int nVertices = 0;
  if (!r.readCount("polyhedron vertices", kNoLimit, nVertices)) return -1;
  if (!r.available(3LL * nVertices, "polyhedron vertices")) return -1;
  body.m_vertices = myMallocDouble(3 * (size_t)nVertices);
  for (int i = 0; i < 3 * nVertices; i++) body.m_vertices[i] = r.next();
  body.m_nVertices = nVertices;

  int nFaces = 0;
  if (!r.readCount("polyhedron faces", kNoLimit, nFaces)) return -1;
  if (!r.available(nFaces, "polyhedron faces")) return -1;
  body.m_faceNormals = myMallocDouble(3 * (size_t)nFaces);
  body.m_faceFacing = myMallocDouble((size_t)nFaces);
  body.m_nVerticesPerFace = myMallocInt((size_t)nFaces);
  body.m_faceVertices = myMallocIntPtr((size_t)nFaces);
  body.m_faceEdges = myMallocIntPtr((size_t)nFaces);
  for (int f = 0; f < nFaces; f++) {
    int nCorners = 0;
    if (!r.readCount("vertices on a polyhedron face", ZOT_MAX_FACE_VERTICES, nCorners)) return -1;
    if (!r.available(nCorners, "polyhedron face")) return -1;
    body.m_nVerticesPerFace[f] = nCorners;
    body.m_faceVertices[f] = myMallocInt((size_t)nCorners);
    body.m_faceEdges[f] = myMallocInt((size_t)nCorners);
    for (int j = 0; j < nCorners; j++) {
      if (!r.readIndex("face vertex", body.m_faceVertices[f][j])) return -1;
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
  SetupArrayReader r(array, count, cursor);
  body.m_nPoints = 0;
  body.m_nSegments = 0;
  int nVertices = 0;
  if (!r.readCount("polyline vertices", kNoLimit, nVertices)) return -1;
  if (!r.available(3LL * nVertices, "polyline vertices")) return -1;
  body.m_points = myMallocDouble(3 * (size_t)nVertices);
  body.m_pointsInCamera = myMallocDouble(3 * (size_t)nVertices);
  for (int i = 0; i < 3 * nVertices; i++) body.m_points[i] = r.next();

  int nEdges = 0;
  if (!r.readCount("polyline edges", kNoLimit, nEdges)) return -1;
  if (!r.available(2LL * nEdges, "polyline edges")) return -1;
  body.m_segments = myMallocInt(2 * (size_t)nEdges);
  for (int i = 0; i < 2 * nEdges; i++) {
    int v = 0;
    if (!r.readIndex("polyline edge vertex", v)) return -1;
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
