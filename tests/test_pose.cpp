// Rotations, poses and twists: round trips over random poses, the
// exponential against a series and finite differences, special angles.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "Math.h"

using namespace ZOTtracker;

namespace {

void expectMatrixNear(const double* A, const double* B, int n, double tol, const char* what = "") {
  for (int i = 0; i < n; i++) ASSERT_NEAR(A[i], B[i], tol) << what << " element " << i;
}

// Random twist with a rotation angle below maxDeg degrees.
void randomTwist(std::mt19937& rng, double* twist, double maxDeg) {
  std::normal_distribution<double> n01(0.0, 1.0);
  std::uniform_real_distribution<double> angle(0.0, maxDeg);
  std::uniform_real_distribution<double> trans(-200.0, 200.0);
  double axis[3] = {n01(rng), n01(rng), n01(rng)};
  normalize(axis, 3, 1);
  const double a = angle(rng);
  for (int i = 0; i < 3; i++) {
    twist[i] = axis[i] * a;
    twist[3 + i] = trans(rng);
  }
}

// 4 x 4 matrix of the twist (rotation part in radians) for the series.
void hat(const double* twist, double* X) {
  const double w[3] = {twist[0] * ZOT_PI / 180, twist[1] * ZOT_PI / 180, twist[2] * ZOT_PI / 180};
  double S[9];
  skewMatFromVec(w, S);
  const double t[3] = {twist[3], twist[4], twist[5]};
  TfromRotTransl(S, t, X);
  X[15] = 0.0;
}

// exp(X) by scaling and squaring of a Taylor series, independent of Rodrigues.
void seriesExp(const double* X, double* E) {
  double Xs[16], term[16], tmp[16];
  matrixScale(X, Xs, 1.0 / 1024.0, 4, 4);
  matrixIdentity(E, 4);
  matrixIdentity(term, 4);
  for (int k = 1; k < 20; k++) {
    matrixProduct444(term, Xs, tmp);
    matrixScale(tmp, term, 1.0 / k, 4, 4);
    matrixSum(E, term, E, 4, 4);
  }
  for (int s = 0; s < 10; s++) {
    matrixProduct444(E, E, tmp);
    matrixCopy(tmp, E, 4, 4);
  }
}

bool isRotation(const double* R, double tol) {
  double Rt[9], P[9];
  matrixTranspose33(R, Rt);
  matrixProduct333(R, Rt, P);
  for (int i = 0; i < 9; i++)
    if (std::fabs(P[i] - ((i % 4 == 0) ? 1.0 : 0.0)) > tol) return false;
  const double det = R[0] * (R[4] * R[8] - R[5] * R[7]) - R[1] * (R[3] * R[8] - R[5] * R[6]) +
                     R[2] * (R[3] * R[7] - R[4] * R[6]);
  return std::fabs(det - 1.0) < tol;
}

}  // namespace

TEST(Rodrigues, RoundTripsAndSpecialAngles) {
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> u(-1.7, 1.7);
  for (int trial = 0; trial < 500; trial++) {
    const double r[3] = {u(rng), u(rng), u(rng)};  // |r| < 3 < pi
    double R[9], back[3];
    matrixRvecToRmat(r, R);
    ASSERT_TRUE(isRotation(R, 1e-14));
    EXPECT_EQ(matrixRmatToRvec(R, back), 0);
    expectMatrixNear(r, back, 3, 1e-10, "rvec");
  }
  // Below 2^-52 the identity, exactly.
  const double tiny[3] = {1e-17, 0, 0};
  double R[9], r[3];
  matrixRvecToRmat(tiny, R);
  for (int i = 0; i < 9; i++) EXPECT_EQ(R[i], (i % 4 == 0) ? 1.0 : 0.0);
  matrixRmatToRvec(R, r);
  EXPECT_EQ(norm(r, 3), 0.0);

  // Exactly 180 degrees about (1, 1, 0)/sqrt(2): the near-pi branch.
  const double R180[9] = {0, 1, 0, 1, 0, 0, 0, 0, -1};
  matrixRmatToRvec(R180, r);
  EXPECT_NEAR(norm(r, 3), ZOT_PI, 1e-12);
  EXPECT_NEAR(std::fabs(r[0]), ZOT_PI / std::sqrt(2.0), 1e-12);
  EXPECT_NEAR(r[0], r[1], 1e-12);
  EXPECT_EQ(r[2], 0.0);
  // 180 degrees about an axis with mixed signs comes back with its signs.
  const double axis[3] = {1.0 / std::sqrt(3.0), -1.0 / std::sqrt(3.0), 1.0 / std::sqrt(3.0)};
  const double rPi[3] = {axis[0] * ZOT_PI, axis[1] * ZOT_PI, axis[2] * ZOT_PI};
  matrixRvecToRmat(rPi, R);
  matrixRmatToRvec(R, r);
  const double sign = r[0] > 0 ? 1.0 : -1.0;
  for (int i = 0; i < 3; i++) EXPECT_NEAR(r[i], sign * rPi[i], 1e-7);
}

TEST(EulerAngles, FactorOrderIsRzRxRyWithTransposedElementaryMatrices) {
  double R[9];
  RotFromEuler(R, 0, 0, 90);
  const double expectedZ[9] = {0, 1, 0, -1, 0, 0, 0, 0, 1};
  expectMatrixNear(R, expectedZ, 9, 1e-15);
  RotFromEuler(R, 90, 0, 0);
  const double expectedX[9] = {1, 0, 0, 0, 0, 1, 0, -1, 0};
  expectMatrixNear(R, expectedX, 9, 1e-15);
  // Rx(90)*Ry(90); the reverse factor order would give a different matrix.
  RotFromEuler(R, 90, 90, 0);
  const double expectedXY[9] = {0, 0, -1, 1, 0, 0, 0, -1, 0};
  expectMatrixNear(R, expectedXY, 9, 1e-15);
  // Rz(90) applied last, from the left.
  RotFromEuler(R, 90, 0, 90);
  double expectedZX[9];
  matrixProduct333(expectedZ, expectedX, expectedZX);
  expectMatrixNear(R, expectedZX, 9, 1e-15);

  double T[16];
  TfromEuler(T, 10, 20, 30, 1, 2, 3);
  RotFromEuler(R, 10, 20, 30);
  double Rt[9], t[3];
  rotTranslFromT(T, Rt, t);
  expectMatrixNear(R, Rt, 9, 0.0);
  EXPECT_EQ(t[2], 3.0);
  EXPECT_EQ(T[12], 0.0);
  EXPECT_EQ(T[15], 1.0);
}

TEST(Twists, ExponentialMatchesTheSeriesAndItsDerivative) {
  // Pure and near-pure translations: the rotation part is ignored below 2^-26 rad.
  double T[16];
  const double pure[6] = {0, 0, 0, 1, 2, 3};
  TfromTwist(pure, T);
  const double expectedPure[16] = {1, 0, 0, 1, 0, 1, 0, 2, 0, 0, 1, 3, 0, 0, 0, 1};
  expectMatrixNear(T, expectedPure, 16, 0.0);
  const double almost[6] = {4e-7, -4e-7, 4e-7, 1, 2, 3};  // 1.2e-8 rad, below 2^-26
  TfromTwist(almost, T);
  expectMatrixNear(T, expectedPure, 16, 0.0);

  // 90 degrees about z: the translation couples with the rotation.
  const double quarter[6] = {0, 0, 90, 1, 0, 0};
  TfromTwist(quarter, T);
  EXPECT_NEAR(T[0], 0.0, 1e-15);
  EXPECT_NEAR(T[1], -1.0, 1e-15);
  EXPECT_NEAR(T[4], 1.0, 1e-15);
  EXPECT_NEAR(T[3], 2.0 / ZOT_PI, 1e-15);
  EXPECT_NEAR(T[7], 2.0 / ZOT_PI, 1e-15);
  EXPECT_NEAR(T[11], 0.0, 1e-15);

  std::mt19937 rng(5);
  for (int trial = 0; trial < 200; trial++) {
    double xi[6], X[16], E[16];
    randomTwist(rng, xi, 170.0);
    TfromTwist(xi, T);
    hat(xi, X);
    seriesExp(X, E);
    expectMatrixNear(T, E, 16, 1e-9, "exp");
  }

  // d/ds exp(s*xi) = exp(s*xi) * hat(xi), by central differences.
  for (int trial = 0; trial < 20; trial++) {
    double xi[6], X[16], Tp[16], Tm[16], T0[16], analytic[16], xs[6];
    randomTwist(rng, xi, 90.0);
    const double s = 0.3, h = 1e-6;
    for (int i = 0; i < 6; i++) xs[i] = xi[i] * (s + h);
    TfromTwist(xs, Tp);
    for (int i = 0; i < 6; i++) xs[i] = xi[i] * (s - h);
    TfromTwist(xs, Tm);
    for (int i = 0; i < 6; i++) xs[i] = xi[i] * s;
    TfromTwist(xs, T0);
    hat(xi, X);
    matrixProduct444(T0, X, analytic);
    for (int i = 0; i < 16; i++) {
      const double numeric = (Tp[i] - Tm[i]) / (2 * h);
      ASSERT_NEAR(numeric, analytic[i], 1e-6 * std::max(1.0, std::fabs(analytic[i]))) << i;
    }
  }
}

TEST(Twists, LogarithmInvertsTheExponential) {
  // The coupling matrix always has a repeated pair of singular values
  // (2 sin(theta/2) twice); for a few poses in a thousand rounding leaves the
  // SVD's exact negligibility test stalled and the logarithm reports -7 with
  // the twist untouched. Everything else must round-trip.
  std::mt19937 rng(9);
  int stalled = 0;
  for (int trial = 0; trial < 1000; trial++) {
    double xi[6], T[16], back[6] = {7, 7, 7, 7, 7, 7};
    randomTwist(rng, xi, 179.0);
    TfromTwist(xi, T);
    const int code = TwistFromT(T, back);
    if (code == -7) {
      stalled++;
      for (int i = 0; i < 6; i++) ASSERT_EQ(back[i], 7.0);
      continue;
    }
    ASSERT_EQ(code, 0);
    for (int i = 0; i < 3; i++) ASSERT_NEAR(back[i], xi[i], 1e-7) << trial;
    for (int i = 3; i < 6; i++) ASSERT_NEAR(back[i], xi[i], 1e-7 * 200) << trial;
  }
  EXPECT_LE(stalled, 5);
  // Small rotations take the translation-only branch.
  const double small[6] = {1e-7, 0, 0, 4, 5, 6};
  double T[16], back[6];
  TfromTwist(small, T);
  EXPECT_EQ(TwistFromT(T, back), 0);
  EXPECT_EQ(back[0], 0.0);
  EXPECT_EQ(back[3], 4.0);
  EXPECT_EQ(back[5], 6.0);
}

TEST(Poses, CompositionInverseAngleAxisAndUpdates) {
  std::mt19937 rng(13);
  for (int trial = 0; trial < 100; trial++) {
    double xi[6], T[16], Tinv[16], P[16], aa[6], back[6], Taa[16];
    randomTwist(rng, xi, 170.0);
    TfromTwist(xi, T);
    inverseTransform(T, Tinv);
    matrixProduct444(T, Tinv, P);
    for (int i = 0; i < 16; i++) ASSERT_NEAR(P[i], (i % 5 == 0) ? 1.0 : 0.0, 1e-12);
    inverseTransform(T, T);  // in place is safe
    expectMatrixNear(T, Tinv, 16, 0.0);

    randomTwist(rng, aa, 170.0);
    TfromAngleAxis(aa, Taa);
    EXPECT_EQ(AngleAxisFromT(Taa, back), 0);
    expectMatrixNear(aa, back, 6, 1e-9, "angle-axis");
    EXPECT_EQ(Taa[3], aa[3]);  // the translation is taken as is
  }

  // Increments multiply from the right.
  double T[16], dT[16], expected[16];
  TfromEuler(T, 10, -20, 30, 5, 6, 7);
  const double xi[6] = {3, -4, 5, 1, 2, 3};
  TfromTwist(xi, dT);
  matrixProduct444(T, dT, expected);
  updatePoseTwist(T, xi);
  expectMatrixNear(T, expected, 16, 0.0);
  double viaAngleAxis[16];
  matrixCopy(T, viaAngleAxis, 4, 4);
  const double aa[6] = {0, 0, 90, 1, 0, 0};
  TfromAngleAxis(aa, dT);
  matrixProduct444(viaAngleAxis, dT, expected);
  updatePoseAngleAxis(viaAngleAxis, aa);
  expectMatrixNear(viaAngleAxis, expected, 16, 0.0);

  // A zero twist leaves a finite pose exactly as it was.
  double before[16];
  matrixCopy(T, before, 4, 4);
  const double zero[6] = {0, 0, 0, 0, 0, 0};
  updatePoseTwist(T, zero);
  EXPECT_EQ(std::memcmp(T, before, sizeof(T)), 0);
}

TEST(Projection, PinholeWithSkewAndPointsAtDepthZero) {
  const double K[9] = {600, 2, 320, 0, 500, 240, 0, 0, 1};
  double uv[2] = {-7, -7};
  const double onPlane[3] = {1, 2, 0};
  EXPECT_EQ(projectPoint(K, onPlane, uv), -15);
  EXPECT_EQ(uv[0], -7.0);  // left unchanged
  const double behind[3] = {1, 2, -1};
  EXPECT_EQ(projectPoint(K, behind, uv), 0);
  EXPECT_DOUBLE_EQ(uv[0], (600 * 1 + 2 * 2 - 320) / -1.0);
  EXPECT_DOUBLE_EQ(uv[1], (500 * 2 - 240) / -1.0);

  double T[16], Y[3], uv2[2];
  TfromEuler(T, 5, 10, 15, 10, -20, 500);
  const double X[3] = {30, 40, 50};
  EXPECT_EQ(transformAndProjectPoint(K, T, X, uv), 0);
  transformPoint3d(T, X, Y);
  projectPoint(K, Y, uv2);
  EXPECT_EQ(uv[0], uv2[0]);
  EXPECT_EQ(uv[1], uv2[1]);
  // A point that lands on the camera plane passes the code through.
  double Tflat[16];
  TfromEuler(Tflat, 0, 0, 0, 0, 0, -50);
  EXPECT_EQ(transformAndProjectPoint(K, Tflat, X, uv), -15);
}

TEST(Projection, InverseDepthPoseVectorRoundTrips) {
  const double in[6] = {0.1, -0.2, 0.3, 15, -25, 700};
  for (int perspective = 0; perspective < 2; perspective++) {
    for (int rotationFirst = 0; rotationFirst < 2; rotationFirst++) {
      double v[6], fwd[6], back[6];
      // Lay the same pose out in the requested order.
      for (int i = 0; i < 3; i++) {
        v[(rotationFirst ? 0 : 3) + i] = in[i];
        v[(rotationFirst ? 3 : 0) + i] = in[3 + i];
      }
      adjustPoseVector_rodrigues_invZ(v, fwd, true, 2.0, 10, 5000, 600, 580, 320, perspective,
                                      rotationFirst);
      const int t0 = rotationFirst ? 3 : 0, r0 = rotationFirst ? 0 : 3;
      const double A = 2.0 * 5000 * 10 / (10 - 5000.0) * 2.0, B = 5010 / (10 - 5000.0) * 2.0;
      EXPECT_DOUBLE_EQ(fwd[t0 + 2], A / (700 + B));
      for (int i = 0; i < 3; i++) EXPECT_EQ(fwd[r0 + i], v[r0 + i]);
      adjustPoseVector_rodrigues_invZ(fwd, back, false, 2.0, 10, 5000, 600, 580, 320, perspective,
                                      rotationFirst);
      for (int i = 0; i < 6; i++) EXPECT_NEAR(back[i], v[i], 1e-9);
    }
  }
}
