/// @file
/// The forward lens model (k1, k2, p1, p2, k3) on normalised image
/// coordinates and its inverse by fixed-point iteration, as simulation uses
/// them to render distorted images independently of the library.
#pragma once

#include <cmath>

namespace zot_sim {

/// Forward distortion of normalised coordinates with (k1, k2, p1, p2, k3).
inline void distortNormalized(const double* d, double x, double y, double* xd, double* yd) {
  const double r2 = x * x + y * y;
  const double kr = 1 + ((d[4] * r2 + d[1]) * r2 + d[0]) * r2;
  *xd = x * kr + 2 * d[2] * x * y + d[3] * (r2 + 2 * x * x);
  *yd = y * kr + d[2] * (r2 + 2 * y * y) + 2 * d[3] * x * y;
}

/// Inverse of distortNormalized by fixed-point iteration (converges for the
/// moderate distortion of ordinary lenses inside the image).
inline void undistortNormalized(const double* d, double xd, double yd, double* x, double* y) {
  double u = xd, v = yd;
  for (int it = 0; it < 100; it++) {
    const double r2 = u * u + v * v;
    const double kr = 1 + ((d[4] * r2 + d[1]) * r2 + d[0]) * r2;
    const double tx = 2 * d[2] * u * v + d[3] * (r2 + 2 * u * u);
    const double ty = d[2] * (r2 + 2 * v * v) + 2 * d[3] * u * v;
    const double nu = (xd - tx) / kr, nv = (yd - ty) / kr;
    const bool done = std::fabs(nu - u) < 1e-13 && std::fabs(nv - v) < 1e-13;
    u = nu;
    v = nv;
    if (done) break;
  }
  *x = u;
  *y = v;
}

}  // namespace zot_sim
