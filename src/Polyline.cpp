// Polyline body: points and segments, re-framing.
#include "Polyline.h"

#include "Math.h"

namespace ZOTtracker {

Polyline::Polyline()
    : m_points(nullptr),
      m_nPoints(0),
      m_segments(nullptr),
      m_nSegments(0),
      m_pointsInCamera(nullptr) {}

Polyline::~Polyline() {
  m_nPoints = 0;
  m_nSegments = 0;
}

void Polyline::changeLocalFrame(const double* T) {
  double U[16];
  inverseTransform(T, U);
  for (int i = 0; i < m_nPoints; i++) {
    double p[3];
    transformPoint3d(U, m_points + 3 * i, p);
    matrixCopy(p, m_points + 3 * i, 3, 1);
  }
}

}  // namespace ZOTtracker
