// Dense and fixed-size matrix routines, rotations, poses and twists, the
// SE(3) logarithm (angles near 0 and 180 degrees included; the SVD stalls on
// a few poses, which take the closed form), the singular value decomposition
// and the index-carrying quicksort: against naive references, series, finite
// differences and seeded round trips.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "IO.h"
#include "Math.h"
#include "SVD_NR.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

std::vector<double> randomMatrix(std::mt19937& rng, int rows, int cols) {
  std::uniform_real_distribution<double> dist(-2.0, 2.0);
  std::vector<double> m((size_t)rows * cols);
  for (double& v : m) v = dist(rng);
  return m;
}

std::vector<double> naiveProduct(const double* A, const double* B, int m, int k, int n) {
  std::vector<double> C((size_t)m * n, 0.0);
  for (int i = 0; i < m; i++)
    for (int l = 0; l < k; l++)
      for (int j = 0; j < n; j++) C[i * n + j] += A[i * k + l] * B[l * n + j];
  return C;
}

void expectNear(const double* A, const double* B, int n, double tol, const char* what = "") {
  for (int i = 0; i < n; i++) ASSERT_NEAR(A[i], B[i], tol) << what << " element " << i;
}

// Random twist with a rotation angle below maxDeg degrees.
void randomTwist(std::mt19937& rng, double* twist, double maxDeg) {
  std::normal_distribution<double> n01(0.0, 1.0);
  std::uniform_real_distribution<double> angle(0.0, maxDeg), trans(-200.0, 200.0);
  double axis[3] = {n01(rng), n01(rng), n01(rng)};
  normalize(axis, 3, 1);
  const double a = angle(rng);
  for (int i = 0; i < 3; i++) twist[i] = axis[i] * a, twist[3 + i] = trans(rng);
}

// 4 x 4 generator of the twist (rotation in radians).
void hat(const double* twist, double* X) {
  const double w[3] = {twist[0] * ZOT_PI / 180, twist[1] * ZOT_PI / 180, twist[2] * ZOT_PI / 180};
  double S[9];
  skewMatFromVec(w, S);
  TfromRotTransl(S, twist + 3, X);
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

}  // namespace

// ---------------------------------------------------------------- matrices
TEST(MatrixRoutines, ProductsMatchANaiveReferenceAndAliasingWarns) {
  std::mt19937 rng(7);
  const auto A = randomMatrix(rng, 8, 9), B = randomMatrix(rng, 9, 6);
  std::vector<double> C(8 * 6, 99.0);  // stale output must be overwritten
  matrixProduct(A.data(), B.data(), C.data(), 8, 9, 6);
  expectNear(C.data(), naiveProduct(A.data(), B.data(), 8, 9, 6).data(), 48, 1e-13);

  using Fixed = void (*)(const double*, const double*, double*);
  const struct {
    const char* name;
    int m, k, n;
    Fixed f;
  } fixed[] = {{"333", 3, 3, 3, matrixProduct333}, {"344", 3, 4, 4, matrixProduct344},
               {"444", 4, 4, 4, matrixProduct444}, {"661", 6, 6, 1, matrixProduct661},
               {"441", 4, 4, 1, matrixProduct441}, {"331", 3, 3, 1, matrixProduct331},
               {"341", 3, 4, 1, matrixProduct341}, {"231", 2, 3, 1, matrixProduct231},
               {"221", 2, 2, 1, matrixProduct221}};
  for (const auto& p : fixed) {
    const auto a = randomMatrix(rng, p.m, p.k), b = randomMatrix(rng, p.k, p.n);
    std::vector<double> c(p.m * p.n + 1, 99.0);
    p.f(a.data(), b.data(), c.data());
    expectNear(c.data(), naiveProduct(a.data(), b.data(), p.m, p.k, p.n).data(), p.m * p.n, 1e-13,
               p.name);
    EXPECT_EQ(c[p.m * p.n], 99.0) << p.name << " wrote past its output";
  }

  // Aliased outputs print the routine's name and carry on.
  double X[36];
  for (int i = 0; i < 36; i++) X[i] = i + 1.0;
  CaptureStdout();
  matrixProduct444(X, X + 16, X);
  matrixTranspose(X, X, 2, 3);
  EXPECT_EQ(GetCapturedStdout(),
            "####### ERROR: matrixProduct444 not implemented for in-place operation!\n"
            "ERROR: matrixTranspose not implemented for in-place operation!!!\n");
}

TEST(MatrixRoutines, CrossSkewIntrinsicInverseAndDeterminant) {
  std::mt19937 rng(11);
  for (int trial = 0; trial < 5; trial++) {
    const auto a = randomMatrix(rng, 3, 1), b = randomMatrix(rng, 3, 1);
    double c[3], S[9], Sb[3], back[3];
    crossProd(a.data(), b.data(), c);
    EXPECT_NEAR(dotProd3(c, a.data()), 0.0, 1e-12);
    EXPECT_NEAR(dotProd3(c, b.data()), 0.0, 1e-12);
    skewMatFromVec(a.data(), S);
    matrixProduct331(S, b.data(), Sb);
    expectNear(Sb, c, 3, 1e-14, "skew");
    skewMatToVec(S, back);
    expectNear(back, a.data(), 3, 0.0, "skew back");
  }

  // K * K^-1 = I with skew; the bottom row of K is never read.
  const double K[9] = {600, 2.5, 320.5, 0, 580, 240.25, 9, 9, 9};
  double Kinv[9], P[9];
  matrixInverseK(K, Kinv);
  const double Kclean[9] = {600, 2.5, 320.5, 0, 580, 240.25, 0, 0, 1};
  matrixProduct333(Kclean, Kinv, P);
  for (int i = 0; i < 9; i++) EXPECT_NEAR(P[i], (i % 4 == 0) ? 1.0 : 0.0, 1e-15) << i;

  // Only the upper triangle of a symmetric matrix counts.
  double D[36] = {0};
  for (int i = 0; i < 6; i++) D[i * 7] = i + 1.0;
  D[1] = 0.5;
  D[6] = 1e6;
  EXPECT_DOUBLE_EQ(detSymm6x6(D), 720.0 - 0.25 * 360.0);
}

// ---------------------------------------------------------------- rotations and poses
TEST(Rotations, RodriguesRoundTripsSpecialAnglesAndEulerOrder) {
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> u(-1.7, 1.7);
  for (int trial = 0; trial < 100; trial++) {
    const double r[3] = {u(rng), u(rng), u(rng)};  // |r| < pi
    double R[9], Rt[9], RRt[9], back[3];
    matrixRvecToRmat(r, R);
    matrixTranspose33(R, Rt);
    matrixProduct333(R, Rt, RRt);
    for (int i = 0; i < 9; i++) ASSERT_NEAR(RRt[i], (i % 4 == 0) ? 1.0 : 0.0, 1e-14);
    EXPECT_EQ(matrixRmatToRvec(R, back), 0);
    expectNear(r, back, 3, 1e-10, "rvec");
  }
  double R[9], r[3];
  const double tiny[3] = {1e-17, 0, 0};  // below 2^-52: the identity, exactly
  matrixRvecToRmat(tiny, R);
  for (int i = 0; i < 9; i++) EXPECT_EQ(R[i], (i % 4 == 0) ? 1.0 : 0.0);
  // Exactly 180 degrees: the near-pi branch, also with mixed axis signs.
  const double R180[9] = {0, 1, 0, 1, 0, 0, 0, 0, -1};
  matrixRmatToRvec(R180, r);
  EXPECT_NEAR(r[0], ZOT_PI / std::sqrt(2.0) * (r[0] > 0 ? 1 : -1), 1e-12);
  EXPECT_NEAR(r[0], r[1], 1e-12);
  EXPECT_EQ(r[2], 0.0);
  const double k = ZOT_PI / std::sqrt(3.0), rPi[3] = {k, -k, k};
  matrixRvecToRmat(rPi, R);
  matrixRmatToRvec(R, r);
  for (int i = 0; i < 3; i++) EXPECT_NEAR(r[i], (r[0] > 0 ? 1 : -1) * rPi[i], 1e-7);

  // Euler angles: Rz Rx Ry with transposed elementary matrices.
  const double Rz[9] = {0, 1, 0, -1, 0, 0, 0, 0, 1}, Rx[9] = {1, 0, 0, 0, 0, 1, 0, -1, 0};
  double RzRx[9], T[16], Rt[9], t[3];
  matrixProduct333(Rz, Rx, RzRx);
  RotFromEuler(R, 90, 0, 90);
  expectNear(R, RzRx, 9, 1e-15, "Rz Rx");
  RotFromEuler(R, 90, 90, 0);
  const double RxRy[9] = {0, 0, -1, 1, 0, 0, 0, -1, 0};
  expectNear(R, RxRy, 9, 1e-15, "Rx Ry");
  TfromEuler(T, 90, 90, 0, 1, 2, 3);
  rotTranslFromT(T, Rt, t);
  expectNear(Rt, R, 9, 0.0);
  EXPECT_EQ(t[2] + T[12] + T[15], 4.0);
}

TEST(Twists, ExponentialMatchesTheSeriesAndItsCentralDifferences) {
  double T[16];
  const double almost[6] = {4e-7, -4e-7, 4e-7, 1, 2, 3};  // below 2^-26 rad: pure translation
  TfromTwist(almost, T);
  const double pure[16] = {1, 0, 0, 1, 0, 1, 0, 2, 0, 0, 1, 3, 0, 0, 0, 1};
  expectNear(T, pure, 16, 0.0);

  std::mt19937 rng(5);
  for (int trial = 0; trial < 50; trial++) {
    double xi[6], X[16], E[16];
    randomTwist(rng, xi, 170.0);
    TfromTwist(xi, T);
    hat(xi, X);
    seriesExp(X, E);
    expectNear(T, E, 16, 1e-9, "exp");
  }
  // d/ds exp(s xi) = exp(s xi) hat(xi).
  for (int trial = 0; trial < 10; trial++) {
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
    for (int i = 0; i < 16; i++)
      ASSERT_NEAR((Tp[i] - Tm[i]) / (2 * h), analytic[i],
                  1e-6 * std::max(1.0, std::fabs(analytic[i])));
  }
}

TEST(Twists, AngleAxisInvertsItsExponential) {
  std::mt19937 rng(9);
  double back[6];
  for (int trial = 0; trial < 20; trial++) {
    double aa[6], Taa[16], Tinv[16], P[16];
    randomTwist(rng, aa, 170.0);
    TfromAngleAxis(aa, Taa);
    EXPECT_EQ(AngleAxisFromT(Taa, back), 0);
    expectNear(aa, back, 6, 1e-9, "angle-axis");
    inverseTransform(Taa, Tinv);
    matrixProduct444(Taa, Tinv, P);
    for (int i = 0; i < 16; i++) ASSERT_NEAR(P[i], (i % 5 == 0) ? 1.0 : 0.0, 1e-12);
  }
}

// ---------------------------------------------------------------- the logarithm
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
  const double stalls[4][4] = {
      {0.20172065679143425, 0.58208819015724034, 0.78770687156016361, -8.4735726542410177},
      {-0.27102501362687598, -0.73966259169463311, 0.61599082171419572, -39.421940759196971},
      {0.94119828867894961, -0.33774633873226034, 0.0085552358687132068, -72.383527431116619},
      {0, 0, 0, 1}};
  std::memcpy(T, stalls, sizeof T);
  EXPECT_LE(roundTripError(T), 1e-10);
}

// ---------------------------------------------------------------- projection
TEST(Projection, PinholeDepthZeroAndInverseDepthPoseVectors) {
  const double K[9] = {600, 2, 320, 0, 500, 240, 0, 0, 1};
  double uv[2] = {-7, -7}, T[16], Y[3], uv2[2];
  const double onPlane[3] = {1, 2, 0}, behind[3] = {1, 2, -1};
  EXPECT_EQ(projectPoint(K, onPlane, uv), ZOT_ERR_POINT_AT_INFINITY);
  EXPECT_EQ(uv[0], -7.0);
  EXPECT_EQ(projectPoint(K, behind, uv), 0);
  EXPECT_DOUBLE_EQ(uv[0], -(600 + 4 - 320.0));
  TfromEuler(T, 5, 10, 15, 10, -20, 500);
  const double X[3] = {30, 40, 50};
  EXPECT_EQ(transformAndProjectPoint(K, T, X, uv), 0);
  transformPoint3d(T, X, Y);
  projectPoint(K, Y, uv2);
  EXPECT_EQ(uv[0], uv2[0]);
  EXPECT_EQ(uv[1], uv2[1]);

  const double in[6] = {0.1, -0.2, 0.3, 15, -25, 700};
  const double A = 2.0 * 5000 * 10 / (10 - 5000.0) * 2.0, B = 5010 / (10 - 5000.0) * 2.0;
  for (int perspective = 0; perspective < 2; perspective++) {
    for (int rotationFirst = 0; rotationFirst < 2; rotationFirst++) {
      const int t0 = rotationFirst ? 3 : 0, r0 = 3 - t0;
      double v[7], fwd[7], back[7];
      for (int i = 0; i < 3; i++) v[r0 + i] = in[i], v[t0 + i] = in[3 + i];
      v[6] = -1.0, fwd[6] = back[6] = 42.0;  // guards past the six entries
      adjustPoseVector_rodrigues_invZ(v, fwd, true, 2.0, 10, 5000, 600, 580, 320, perspective,
                                      rotationFirst);
      const double zInv = A / (700 + B);
      EXPECT_DOUBLE_EQ(fwd[t0 + 2], zInv);
      EXPECT_DOUBLE_EQ(fwd[t0], perspective ? 15 * zInv * 600 / 640.0 : 15 * 600 / 2.0);
      for (int i = 0; i < 3; i++) EXPECT_EQ(fwd[r0 + i], v[r0 + i]);
      adjustPoseVector_rodrigues_invZ(fwd, back, false, 2.0, 10, 5000, 600, 580, 320, perspective,
                                      rotationFirst);
      expectNear(back, v, 6, 1e-9, "round trip");
      EXPECT_EQ(fwd[6] + back[6], 84.0);
    }
  }
}

// ---------------------------------------------------------------- SVD and sorting
namespace {

struct Svd {
  int code = 0;
  std::vector<double> W, U, V;
  std::vector<int> index;
};

// matrixSVD with exactly sized buffers, so that the sanitizer build catches
// any access past them.
Svd runSvd(const std::vector<double>& A, int m, int n, int transposeU = 0, int transposeV = 0) {
  Svd r;
  r.W.assign(n, -99.0);
  r.U.assign((size_t)m * n, -99.0);
  r.V.assign((size_t)n * n, -99.0);
  r.index.assign(n, -1);
  std::vector<double> work(std::max(1, std::max(n * n, m * n) + n), 0.0);
  r.code = matrixSVD(A.data(), m, n, r.W.data(), r.U.data(), r.V.data(), transposeU, transposeV,
                     work.data(), r.index.data());
  return r;
}

// A = U diag(W) V^T, W non-negative and decreasing, V orthonormal, U's
// columns orthonormal where defined, index a permutation; and the outputs
// are the unsorted kernel's permuted by index, bit for bit.
void expectValidSvd(const std::vector<double>& A, int m, int n, const Svd& r) {
  ASSERT_EQ(r.code, 0);
  const double tol = 1e-12 * ((n > 0 && r.W[0] > 0.0) ? r.W[0] : 1.0);
  for (int j = 0; j < n; j++) {
    ASSERT_GE(r.W[j], 0.0) << j;
    if (j > 0) {
      ASSERT_LE(r.W[j], r.W[j - 1]) << j;
    }
  }
  for (int i = 0; i < m; i++)
    for (int k = 0; k < n; k++) {
      double sum = 0.0;
      for (int j = 0; j < n; j++) sum += r.U[i * n + j] * r.W[j] * r.V[k * n + j];
      ASSERT_NEAR(sum, A[i * n + k], tol) << i << "," << k;
    }
  for (int a = 0; a < n; a++)
    for (int b = 0; b < n; b++) {
      double vv = 0.0, uu = 0.0;
      for (int k = 0; k < n; k++) vv += r.V[k * n + a] * r.V[k * n + b];
      ASSERT_NEAR(vv, a == b ? 1.0 : 0.0, 1e-12);
      if (m < n && (r.W[a] <= tol || r.W[b] <= tol)) continue;
      for (int i = 0; i < m; i++) uu += r.U[i * n + a] * r.U[i * n + b];
      ASSERT_NEAR(uu, a == b ? 1.0 : 0.0, 1e-12);
    }
  std::vector<double> a = A, w(n), v((size_t)n * n), rv1(n);
  ASSERT_EQ(svdcmp(a.data(), m, n, w.data(), v.data(), rv1.data()), 0);
  for (int j = 0; j < n; j++) {
    const int src = r.index[j];
    ASSERT_TRUE(src >= 0 && src < n);
    ASSERT_EQ(r.W[j], w[src]);
    for (int i = 0; i < m; i++) ASSERT_EQ(r.U[i * n + j], a[i * n + src]);
    for (int k = 0; k < n; k++) ASSERT_EQ(r.V[k * n + j], v[k * n + src]);
  }
}

}  // namespace

TEST(MatrixSVD, DecomposesRandomRankDeficientDiagonalAndZeroMatrices) {
  std::mt19937 rng(12345);
  const int shapes[][2] = {{6, 6}, {40, 6}, {3, 6}, {5, 1}, {1, 4}};
  for (const auto& s : shapes) {
    SCOPED_TRACE(testing::Message() << s[0] << " x " << s[1]);
    const auto A = randomMatrix(rng, s[0], s[1]);
    expectValidSvd(A, s[0], s[1], runSvd(A, s[0], s[1]));
  }
  // 7 x 5 of rank 2.
  const auto Bf = randomMatrix(rng, 7, 2), Cf = randomMatrix(rng, 2, 5);
  const auto A = naiveProduct(Bf.data(), Cf.data(), 7, 2, 5);
  const Svd r = runSvd(A, 7, 5);
  expectValidSvd(A, 7, 5, r);
  EXPECT_GT(r.W[1], 1e-6 * r.W[0]);
  EXPECT_LT(r.W[2], 1e-12 * r.W[0]);
  // A diagonal matrix: sorted values, signed unit vectors.
  expectValidSvd({3.0}, 1, 1, runSvd({3.0}, 1, 1));
  const std::vector<double> D = {-2, 0, 0, 1};
  const Svd d = runSvd(D, 2, 2);
  expectValidSvd(D, 2, 2, d);
  EXPECT_EQ(d.W, (std::vector<double>{2, 1}));
  EXPECT_EQ(d.U, (std::vector<double>{-1, 0, 0, -1}));
  EXPECT_EQ(d.V, (std::vector<double>{1, 0, 0, -1}));
  expectValidSvd(std::vector<double>(8, 0.0), 2, 4, runSvd(std::vector<double>(8, 0.0), 2, 4));
  EXPECT_EQ(runSvd({}, 0, 3).code, 0);
  EXPECT_EQ(runSvd({}, 3, 0).code, 0);

  // Non-finite input ends without crashing.
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (const auto& bad : {std::vector<double>{nan, 1, 2, 3, 4, 5, 6, 7, 8},
                          std::vector<double>{1, -INFINITY, 3, 4, 5, 6, 7, 8, INFINITY}}) {
    const int code = runSvd(bad, 3, 3).code;
    EXPECT_TRUE(code == 0 || code == -7) << code;
  }
  // Over a thousand equal values exhaust the sort; its -8 is ignored and
  // the decomposition stays valid, only partly ordered.
  std::vector<double> row(1001);
  for (int k = 0; k < 1001; k++) row[k] = 1.0 + (k % 7);
  const Svd wide = runSvd(row, 1, 1001);
  ASSERT_EQ(wide.code, 0);
  for (int k = 0; k < 1001; k += 50) {
    double sum = 0.0;
    for (int j = 0; j < 1001; j++) sum += wide.U[j] * wide.W[j] * wide.V[k * 1001 + j];
    EXPECT_NEAR(sum, row[k], 1e-9);
  }
}

TEST(MatrixSVD, MissingWorkArrayIsReportedAndNothingIsTouched) {
  const std::vector<double> A = {1, 2, 3, 4};
  std::vector<double> W(2, 7.0), U(4, 7.0), V(4, 7.0), work(6);
  std::vector<int> index(2, 7);
  CaptureStdout();
  EXPECT_EQ(matrixSVD(A.data(), 2, 2, W.data(), U.data(), V.data(), 0, 0, nullptr, index.data()),
            -1);
  EXPECT_EQ(GetCapturedStdout(), "ERROR - Not enough memory for rv1 in svdcmp\n");
  EXPECT_EQ(W, std::vector<double>(2, 7.0));
  EXPECT_EQ(U, std::vector<double>(4, 7.0));
  EXPECT_EQ(matrixSVD(A.data(), 2, 2, W.data(), U.data(), V.data(), 0, 0, work.data(), nullptr),
            -1);
  EXPECT_DOUBLE_EQ(pythag(3e200, -4e200), 5e200);
  EXPECT_EQ(pythag(0.0, -2.5), 2.5);
  EXPECT_DOUBLE_EQ(pythag(3e-200, 4e-200), 5e-200);
}

TEST(MyQuickSort, SortsTracksPositionsAndFailsBeyondItsStack) {
  std::mt19937 rng(2024);
  std::uniform_int_distribution<int> small(0, 4);
  for (int n : {1, 37, 500}) {
    std::vector<double> original(n);
    for (double& x : original) x = small(rng) + 0.5 * (n % 2);
    std::vector<double> values = original;
    std::vector<int> index(n, -1);
    ASSERT_EQ(myQuickSort(values.data(), index.data(), n), 0);
    EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
    for (int i = 0; i < n; i++) ASSERT_EQ(values[i], original[index[i]]);
    std::sort(index.begin(), index.end());
    for (int i = 0; i < n; i++) ASSERT_EQ(index[i], i);
  }
  // Ascending input peels off one element per level.
  for (int n : {1000, 1001}) {
    std::vector<double> values(n);
    for (int i = 0; i < n; i++) values[i] = 0.5 * i;
    std::vector<int> index(n);
    EXPECT_EQ(myQuickSort(values.data(), index.data(), n), n <= 1000 ? 0 : ZOT_ERR_QUICKSORT);
  }
  std::vector<double> withNaN = {3, NAN, 1, NAN, 2, 0};
  std::vector<int> index(6);
  EXPECT_EQ(myQuickSort(withNaN.data(), index.data(), 6), 0);
}
