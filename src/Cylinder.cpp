// Cylinder body: stored geometry only.
#include "Cylinder.h"

#include <cstdio>

#include "Math.h"

namespace ZOTtracker {

int Cylinder::init(double radius, const double* nb, const double* p1, const double* nt,
                   const double* p2) {
  m_radius = radius;
  for (int i = 0; i < 3; i++) {
    m_bottomPlane[i] = nb[i];
    m_topPlane[i] = nt[i];
  }
  m_bottomPlane[3] = -dotProd3(nb, p1);
  m_topPlane[3] = -dotProd3(nt, p2);
  matrixCopy(p1, m_bottomCentre, 3, 1);
  matrixSub31(p2, p1, m_axis);
  if (norm(m_axis, 3) == 0.0) {
    printf("ERROR: the cylinder axis has zero length (both centres coincide)!\n");
    return -1;
  }
  normalize(m_axis, 3, 1);
  return 0;
}

void Cylinder::changeLocalFrame(const double* /*T*/) {
  printf("ERROR: Cylinder::changeLocalFrame is not yet implemented!\n");
}

}  // namespace ZOTtracker
