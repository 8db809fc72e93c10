// Test models built into the typed pools.
#include "box_models.h"

#include <cmath>

#include "GenericObjectTracker.h"
#include "Imgproc.h"
#include "Math.h"
#include "memory_handling.h"

using namespace ZOTtracker;

namespace zot_test {

PoolScope::PoolScope(size_t doubles, size_t ints, size_t bytes) {
  doBigMalloc(bytes, 1000, doubles, 1000, ints, 100000, 1000);
}

PoolScope::~PoolScope() { doBigFree(); }

int buildPolyhedron(Polyhedron& ph, const Mesh& mesh, bool flat, double featureAngleDeg) {
  std::vector<double> values;
  zot_sim::appendPolyhedronValues(mesh, values);
  int cursor = 0;
  return GenericObjectTracker::setupPolyhedron(cursor, values.data(), ph, flat, featureAngleDeg,
                                               (int)values.size());
}

int addPolyhedronBody(Multibody& mb, const Mesh& mesh, bool flat, double featureAngleDeg) {
  const int b = mb.m_nBodies;
  if (buildPolyhedron(mb.m_polyhedra[b], mesh, flat, featureAngleDeg) != 0) return -1;
  mb.m_bodyType[b] = ZOT_BODY_POLYHEDRON;
  mb.m_bodyActive[b] = 1;
  mb.m_nBodies++;
  return b;
}

int addPolylineBody(Multibody& mb, const std::vector<double>& points,
                    const std::vector<int>& segments, int supportBody, int supportFace) {
  const int b = mb.m_nBodies;
  Polyline& pl = mb.m_polylines[b];
  pl.m_nPoints = (int)points.size() / 3;
  pl.m_points = myMallocDouble(points.size());
  pl.m_pointsInCamera = myMallocDouble(points.size());
  for (size_t i = 0; i < points.size(); i++) pl.m_points[i] = points[i];
  pl.m_nSegments = (int)segments.size() / 2;
  pl.m_segments = myMallocInt(segments.size());
  for (size_t i = 0; i < segments.size(); i++) pl.m_segments[i] = segments[i];
  mb.m_polylineSupportFace[b][0] = supportBody;
  mb.m_polylineSupportFace[b][1] = supportFace;
  mb.m_bodyType[b] = ZOT_BODY_POLYLINE;
  mb.m_bodyActive[b] = 1;
  mb.m_nBodies++;
  return b;
}

void pinholeK(double* K, double f, int width, int height) {
  const double k[9] = {f, 0.0, (width - 1) / 2.0, 0.0, f, (height - 1) / 2.0, 0.0, 0.0, 1.0};
  for (int i = 0; i < 9; i++) K[i] = k[i];
}

void setCameraFrustum(Multibody& mb, int cam, const double* K, int width, int height, double zNear,
                      double zFar) {
  computeViewingFrustum(mb.m_viewingFrustum[cam], K, 0.0, 0.0, width - 1.0, height - 1.0, zNear,
                        zFar);
}

void makePose(double* T, double ax, double ay, double az, double tx, double ty, double tz) {
  TfromEuler(T, ax, ay, az, tx, ty, tz);
}

void projectObjectPoint(const double* T, const double* K, const double* X, double* uv) {
  double Y[3];
  transformPoint3d(T, X, Y);
  uv[0] = Y[0] / Y[2] * K[0] + K[2];
  uv[1] = Y[1] / Y[2] * K[4] + K[5];
}

}  // namespace zot_test
