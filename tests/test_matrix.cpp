// Dense and fixed-size matrix routines against naive references, the
// aliasing warnings, and the scalar helpers' boundary cases.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "Math.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

std::vector<double> randomMatrix(std::mt19937& rng, int rows, int cols) {
  std::uniform_real_distribution<double> dist(-2.0, 2.0);
  std::vector<double> m(rows * cols);
  for (double& v : m) v = dist(rng);
  return m;
}

std::vector<double> naiveProduct(const std::vector<double>& A, const std::vector<double>& B, int m,
                                 int k, int n) {
  std::vector<double> C(m * n, 0.0);
  for (int i = 0; i < m; i++)
    for (int l = 0; l < k; l++)
      for (int j = 0; j < n; j++) C[i * n + j] += A[i * k + l] * B[l * n + j];
  return C;
}

// Determinant by Gaussian elimination with partial pivoting, as a reference.
double referenceDet(std::vector<double> a, int n) {
  double det = 1.0;
  for (int c = 0; c < n; c++) {
    int p = c;
    for (int r = c + 1; r < n; r++)
      if (std::fabs(a[r * n + c]) > std::fabs(a[p * n + c])) p = r;
    if (a[p * n + c] == 0.0) return 0.0;
    if (p != c) {
      for (int j = 0; j < n; j++) std::swap(a[p * n + j], a[c * n + j]);
      det = -det;
    }
    det *= a[c * n + c];
    for (int r = c + 1; r < n; r++) {
      const double f = a[r * n + c] / a[c * n + c];
      for (int j = c; j < n; j++) a[r * n + j] -= f * a[c * n + j];
    }
  }
  return det;
}

}  // namespace

TEST(MatrixProducts, GeneralAndFixedSizeProductsMatchANaiveReference) {
  std::mt19937 rng(7);
  const int shapes[][3] = {{1, 1, 1}, {3, 4, 2}, {5, 1, 6}, {1, 7, 1}, {6, 6, 6}, {8, 3, 9}};
  for (const auto& s : shapes) {
    const auto A = randomMatrix(rng, s[0], s[1]);
    const auto B = randomMatrix(rng, s[1], s[2]);
    std::vector<double> C(s[0] * s[2], 99.0);  // stale output must be overwritten
    matrixProduct(A.data(), B.data(), C.data(), s[0], s[1], s[2]);
    const auto ref = naiveProduct(A, B, s[0], s[1], s[2]);
    for (size_t i = 0; i < C.size(); i++) ASSERT_NEAR(C[i], ref[i], 1e-13);
  }

  struct Fixed {
    const char* name;
    int m, k, n;
    std::function<void(const double*, const double*, double*)> f;
  };
  const Fixed fixed[] = {
      {"333", 3, 3, 3, matrixProduct333}, {"344", 3, 4, 4, matrixProduct344},
      {"444", 4, 4, 4, matrixProduct444}, {"661", 6, 6, 1, matrixProduct661},
      {"441", 4, 4, 1, matrixProduct441}, {"331", 3, 3, 1, matrixProduct331},
      {"341", 3, 4, 1, matrixProduct341}, {"231", 2, 3, 1, matrixProduct231},
      {"221", 2, 2, 1, matrixProduct221},
  };
  for (const Fixed& p : fixed) {
    const auto A = randomMatrix(rng, p.m, p.k);
    const auto B = randomMatrix(rng, p.k, p.n);
    std::vector<double> C(p.m * p.n + 1, 99.0);
    p.f(A.data(), B.data(), C.data());
    const auto ref = naiveProduct(A, B, p.m, p.k, p.n);
    for (int i = 0; i < p.m * p.n; i++) ASSERT_NEAR(C[i], ref[i], 1e-13) << p.name;
    EXPECT_EQ(C[p.m * p.n], 99.0) << p.name << " wrote past its output";
  }
}

TEST(MatrixProducts, AliasedOutputsWarnAndCarryOn) {
  double A[36], B[36], Copy[36];
  for (int i = 0; i < 36; i++) A[i] = B[i] = Copy[i] = i + 1.0;

  // The general product zeroes C first, so C == A gives a wrong result.
  CaptureStdout();
  matrixProduct(A, B, A, 2, 2, 2);
  EXPECT_EQ(GetCapturedStdout(),
            "####### ERROR: matrixProduct not implemented for in-place operation!\n");
  const auto correct = naiveProduct({1, 2, 3, 4}, {1, 2, 3, 4}, 2, 2, 2);
  EXPECT_NE(A[0], correct[0]);

  struct Case {
    const char* name;
    std::function<void(double*)> call;
  };
  const Case cases[] = {
      {"matrixProduct333", [&](double* X) { matrixProduct333(X, B, X); }},
      {"matrixProduct344", [&](double* X) { matrixProduct344(B, X, X); }},
      {"matrixProduct444", [&](double* X) { matrixProduct444(X, B, X); }},
      {"matrixProduct661", [&](double* X) { matrixProduct661(B, X, X); }},
      {"matrixProduct441", [&](double* X) { matrixProduct441(X, B, X); }},
      {"matrixProduct331", [&](double* X) { matrixProduct331(X, B, X); }},
      {"matrixProduct341", [&](double* X) { matrixProduct341(B, X, X); }},
      {"matrixProduct231", [&](double* X) { matrixProduct231(X, B, X); }},
      {"matrixProduct221", [&](double* X) { matrixProduct221(B, X, X); }},
      {"matrixTranspose33", [&](double* X) { matrixTranspose33(X, X); }},
      {"matrixInverseK", [&](double* X) { matrixInverseK(X, X); }},
  };
  for (const Case& c : cases) {
    double X[36];
    for (int i = 0; i < 36; i++) X[i] = Copy[i];
    CaptureStdout();
    c.call(X);
    EXPECT_EQ(GetCapturedStdout(), std::string("####### ERROR: ") + c.name +
                                       " not implemented for in-place operation!\n");
  }
  // The general transpose has its own wording.
  double T[6] = {1, 2, 3, 4, 5, 6};
  CaptureStdout();
  matrixTranspose(T, T, 2, 3);
  EXPECT_EQ(GetCapturedStdout(),
            "ERROR: matrixTranspose not implemented for in-place operation!!!\n");
  // Non-aliased calls print nothing.
  double out[36];
  CaptureStdout();
  matrixProduct444(A, B, out);
  matrixTranspose(Copy, out, 2, 3);
  EXPECT_EQ(GetCapturedStdout(), "");
}

TEST(MatrixRoutines, ElementWiseHelpersAndNorms) {
  const double A[6] = {1, 2, 3, 4, 5, 6};
  const double B[6] = {6, 5, 4, 3, 2, 1};
  double C[6], T[6];
  matrixTranspose(A, T, 2, 3);
  const double expectedT[6] = {1, 4, 2, 5, 3, 6};
  for (int i = 0; i < 6; i++) EXPECT_EQ(T[i], expectedT[i]);
  matrixSum(A, B, C, 2, 3);
  for (int i = 0; i < 6; i++) EXPECT_EQ(C[i], 7.0);
  matrixSub(A, B, C, 3, 2);
  EXPECT_EQ(C[0], -5.0);
  EXPECT_EQ(C[5], 5.0);
  matrixCopy(A, C, 2, 3);
  matrixScale(C, C, -0.5, 2, 3);  // in place is allowed
  EXPECT_EQ(C[5], -3.0);
  EXPECT_EQ(dotProd(A, B, 2, 3), 56.0);
  EXPECT_EQ(dotProd3(A, B), 28.0);
  EXPECT_EQ(dotProd4(A, B), 40.0);
  double I[16];
  for (double& v : I) v = 7.0;
  matrixIdentity(I, 4);
  for (int i = 0; i < 16; i++) EXPECT_EQ(I[i], (i % 5 == 0) ? 1.0 : 0.0);

  const double v34[2] = {3, 4};
  EXPECT_EQ(norm(v34, 2), 5.0);
  double v[3] = {0, 0, 0};
  normalize(v, 3, 1);  // a zero vector is left alone, not divided
  EXPECT_EQ(v[0], 0.0);
  EXPECT_FALSE(std::isnan(v[1]));
  double w[4] = {0, 3, 0, 4};
  normalize(w, 2, 2);
  EXPECT_DOUBLE_EQ(w[1], 0.6);
  EXPECT_DOUBLE_EQ(w[3], 0.8);

  const double a3[3] = {1, 2, 3}, b3[3] = {2, 4, 6};
  double s33[9], d33[9], s31[3], d31[3];
  matrixSum31(a3, b3, s31);
  matrixSub31(a3, b3, d31);
  EXPECT_EQ(s31[2], 9.0);
  EXPECT_EQ(d31[1], -2.0);
  const double M1[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  matrixSum33(M1, M1, s33);
  matrixSub33(M1, s33, d33);
  EXPECT_EQ(s33[8], 18.0);
  EXPECT_EQ(d33[4], -5.0);

  unsigned char src[6] = {1, 2, 3, 4, 5, 6}, dst[7] = {0, 0, 0, 0, 0, 0, 77};
  imageCopy(src, dst, 3, 2);
  EXPECT_EQ(dst[5], 6);
  EXPECT_EQ(dst[6], 77);
}

TEST(MatrixRoutines, CrossSkewAndOuterProductsAgree) {
  std::mt19937 rng(11);
  for (int trial = 0; trial < 20; trial++) {
    const auto a = randomMatrix(rng, 3, 1);
    const auto b = randomMatrix(rng, 3, 1);
    double c[3], S[9], Sb[3], back[3], O[9];
    crossProd(a.data(), b.data(), c);
    // Right-handed, orthogonal to both factors.
    EXPECT_NEAR(dotProd3(c, a.data()), 0.0, 1e-12);
    EXPECT_NEAR(dotProd3(c, b.data()), 0.0, 1e-12);
    skewMatFromVec(a.data(), S);
    matrixProduct331(S, b.data(), Sb);
    for (int i = 0; i < 3; i++) EXPECT_NEAR(Sb[i], c[i], 1e-14);
    skewMatToVec(S, back);
    for (int i = 0; i < 3; i++) EXPECT_EQ(back[i], a[i]);
    outerProd3(a.data(), b.data(), O);
    EXPECT_EQ(O[5], a[1] * b[2]);
  }
  const double x[3] = {1, 0, 0}, y[3] = {0, 1, 0};
  double z[3];
  crossProd(x, y, z);
  EXPECT_EQ(z[2], 1.0);
}

TEST(MatrixRoutines, IntrinsicInverseAndSymmetricDeterminant) {
  const double K[9] = {600, 2.5, 320.5, 0, 580, 240.25, 0, 0, 1};
  double Kinv[9], P[9];
  matrixInverseK(K, Kinv);
  matrixProduct333(K, Kinv, P);
  for (int i = 0; i < 9; i++) EXPECT_NEAR(P[i], (i % 4 == 0) ? 1.0 : 0.0, 1e-15);
  // The bottom row of K is never read.
  const double Kjunk[9] = {500, 0, 320, 0, 400, 240, 9, 9, 9};
  matrixInverseK(Kjunk, Kinv);
  const double expected[9] = {1.0 / 500, 0, -320.0 / 500, 0, 1.0 / 400, -240.0 / 400, 0, 0, 1};
  for (int i = 0; i < 9; i++) EXPECT_DOUBLE_EQ(Kinv[i], expected[i]);

  std::mt19937 rng(3);
  for (int trial = 0; trial < 10; trial++) {
    auto A = randomMatrix(rng, 6, 6);
    for (int i = 0; i < 6; i++)
      for (int j = 0; j < i; j++) A[i * 6 + j] = A[j * 6 + i];
    const double ref = referenceDet(A, 6);
    for (int i = 0; i < 6; i++)
      for (int j = 0; j < i; j++) A[i * 6 + j] = 1e6;  // only the upper triangle counts
    EXPECT_NEAR(detSymm6x6(A.data()), ref, 1e-10 * std::max(1.0, std::fabs(ref)));
  }
  double D[36] = {0};
  for (int i = 0; i < 6; i++) D[i * 7] = i + 1.0;
  EXPECT_DOUBLE_EQ(detSymm6x6(D), 720.0);
}

TEST(MatrixRoutines, ModulusAndByteConversionsAtTheirBoundaries) {
  EXPECT_EQ(myMOD(-1, 3), 2.0);
  EXPECT_EQ(myMOD(5, 0), 5.0);
  EXPECT_EQ(myMOD(7, 3), 1.0);
  EXPECT_EQ(myMOD(5.5, -2), -0.5);
  EXPECT_EQ(myMOD(-370, 360), 350.0);

  const double src[7] = {-3.0, 0.999, 254.999, 255.0, 1e9, std::nan(""), 17.6};
  unsigned char dst[8];
  dst[7] = 123;
  convertDoubleToChar(src, dst, 7, 1, 1.0, 0.0);
  const unsigned char expected[7] = {0, 0, 254, 255, 255, 0, 17};
  for (int i = 0; i < 7; i++) EXPECT_EQ(dst[i], expected[i]) << i;
  EXPECT_EQ(dst[7], 123);

  const short s[4] = {-100, 0, 50, 32767};
  convertShortToChar(s, dst, 2, 2, 0.5, 10.0);
  EXPECT_EQ(dst[0], 0);    // -40
  EXPECT_EQ(dst[1], 10);   // 10
  EXPECT_EQ(dst[2], 35);   // 35
  EXPECT_EQ(dst[3], 255);  // saturates
}
