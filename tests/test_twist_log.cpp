// The SE(3) logarithm: exp(log(T)) = T over seeded random poses, angles near
// 0 and near 180 degrees included, and no valid pose fails (the SVD stalls on
// a few; those take the closed form).
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <random>

#include "Math.h"

using namespace ZOTtracker;

namespace {

// The rotation angle comes from acos of the trace, whose error grows as
// eps/theta^2 near 0; within 1e-5 rad of pi the axis comes from the diagonal
// and its sign may flip, which moves the rotation by up to 2 (pi - theta).
// The round trip is exact to rounding beyond these bounds.
double conditioning(double theta) {
  const double toPi = ZOT_PI - theta;
  const double nearPi = toPi < 1e-5 ? 2.0 * toPi : DBL_EPSILON / (toPi * toPi);
  return DBL_EPSILON / (theta * theta) + nearPi;
}

// Largest element difference between T and exp(log(T)); fails on a non-zero code.
double roundTripError(const double* T) {
  double twist[6], back[16];
  EXPECT_EQ(TwistFromT(T, twist), 0);
  TfromTwist(twist, back);
  double err = 0.0;
  for (int i = 0; i < 16; i++) err = fmax(err, fabs(T[i] - back[i]));
  return err;
}

}  // namespace

TEST(TwistLog, RoundTripsOverSeededPosesOfEveryAngle) {
  // Degrees: uniform over the whole range, then log-uniform in the distance
  // to 0 and to 180 degrees. {lo, hi, end}
  const double bands[][3] = {{0.0, 180.0, 0.0}, {1e-6, 1e-1, 0.0}, {1e-7, 1e-1, 180.0}};
  std::mt19937 rng(20261123);
  std::normal_distribution<double> n01(0.0, 1.0);
  std::uniform_real_distribution<double> u01(0.0, 1.0), trans(-200.0, 200.0);
  for (const auto& b : bands) {
    for (int k = 0; k < 3334; k++) {
      double axis[3] = {n01(rng), n01(rng), n01(rng)}, twist[6], T[16];
      normalize(axis, 3, 1);
      const double u = u01(rng), away = b[0] > 0.0 ? b[0] * pow(b[1] / b[0], u) : b[1] * u;
      const double angle = b[2] > 0.0 ? b[2] - away : away;
      for (int i = 0; i < 3; i++) twist[i] = axis[i] * angle, twist[3 + i] = trans(rng);
      TfromTwist(twist, T);
      const double t = sqrt(T[3] * T[3] + T[7] * T[7] + T[11] * T[11]);
      const double tol = (1.0 + t) * (1e-12 + 4.0 * conditioning(angle * ZOT_PI / 180.0));
      ASSERT_LE(roundTripError(T), tol) << "pose " << k << " angle " << angle;
    }
  }
}

// Exact half turns (acos at a trace of -1 keeps half the digits: theta is
// within about sqrt(eps) of pi, which the axis sign then doubles), a pure
// translation, and a pose on which the SVD of the coupling matrix
// (I - R)[u]x + theta u u^T stalls: before the closed form it returned -7
// and failed the Kalman correction of a good frame.
TEST(TwistLog, HalfTurnsPureTranslationAndThePoseWhoseSvdStallsRoundTrip) {
  const double axes[][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {1, 1, 0}, {0, 1, -1}, {1, -2, 3}};
  for (const auto& a : axes) {
    double u[3] = {a[0], a[1], a[2]};
    normalize(u, 3, 1);
    double r[3] = {u[0] * ZOT_PI, u[1] * ZOT_PI, u[2] * ZOT_PI}, R[9], T[16];
    matrixRvecToRmat(r, R);
    const double t[3] = {3.0, -40.0, 500.0};
    TfromRotTransl(R, t, T);
    EXPECT_LE(roundTripError(T), 501.0 * 8.0 * sqrt(DBL_EPSILON))
        << a[0] << " " << a[1] << " " << a[2];
  }
  double T[16];
  TfromEuler(T, 0.0, 0.0, 0.0, 1.0, 2.0, 3.0);
  EXPECT_EQ(roundTripError(T), 0.0);
  const double stalls[16] = {
      0.20172065679143425,  0.58208819015724034,  0.78770687156016361,   -8.4735726542410177,  //
      -0.27102501362687598, -0.73966259169463311, 0.61599082171419572,   -39.421940759196971,  //
      0.94119828867894961,  -0.33774633873226034, 0.0085552358687132068, -72.383527431116619,  //
      0,                    0,                    0,                     1};
  EXPECT_LE(roundTripError(stalls), 1e-10);
}
