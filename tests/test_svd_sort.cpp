// Singular value decomposition and the index-carrying quicksort.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "SVD_NR.h"

using namespace ZOTtracker;

namespace {

struct Svd {
  int code = 0;
  std::vector<double> W, U, V;
  std::vector<int> index;
};

// Runs matrixSVD with exactly sized buffers (so that the sanitizer build
// catches any access past them) and returns everything it wrote.
Svd runSvd(const std::vector<double>& A, int m, int n, int transposeU = 0, int transposeV = 0) {
  Svd r;
  r.W.assign(n, -99.0);
  r.U.assign(static_cast<size_t>(m) * n, -99.0);
  r.V.assign(static_cast<size_t>(n) * n, -99.0);
  r.index.assign(n, -1);
  // A null work array is refused even when empty, so keep at least one slot.
  std::vector<double> work(std::max(1, std::max(n * n, m * n) + n), 0.0);
  r.code = matrixSVD(A.data(), m, n, r.W.data(), r.U.data(), r.V.data(), transposeU, transposeV,
                     work.data(), r.index.data());
  return r;
}

std::vector<double> randomMatrix(std::mt19937& rng, int m, int n) {
  std::uniform_real_distribution<double> dist(-1.0, 1.0);
  std::vector<double> A(static_cast<size_t>(m) * n);
  for (double& x : A) x = dist(rng);
  return A;
}

// Checks A = U*diag(W)*V^T, W non-negative and decreasing, V's columns
// orthonormal, U's columns orthonormal where the singular value is non-zero
// (all of them when m >= n), and index a permutation. Tolerances are relative
// to the largest singular value.
void expectValidSvd(const std::vector<double>& A, int m, int n, const Svd& r) {
  ASSERT_EQ(r.code, 0);
  const double scale = (n > 0 && r.W[0] > 0.0) ? r.W[0] : 1.0;
  const double tol = 1e-12 * scale;
  for (int j = 0; j < n; j++) {
    EXPECT_GE(r.W[j], 0.0) << "W[" << j << "]";
    if (j > 0) {
      EXPECT_LE(r.W[j], r.W[j - 1]) << "W not decreasing at " << j;
    }
  }
  for (int i = 0; i < m; i++)
    for (int k = 0; k < n; k++) {
      double sum = 0.0;
      for (int j = 0; j < n; j++) sum += r.U[i * n + j] * r.W[j] * r.V[k * n + j];
      EXPECT_NEAR(sum, A[i * n + k], tol) << "A(" << i << ", " << k << ")";
    }
  for (int a = 0; a < n; a++)
    for (int b = 0; b < n; b++) {
      double vv = 0.0;
      for (int k = 0; k < n; k++) vv += r.V[k * n + a] * r.V[k * n + b];
      EXPECT_NEAR(vv, a == b ? 1.0 : 0.0, 1e-12) << "V columns " << a << ", " << b;
      const bool uDefined = m >= n || (r.W[a] > tol && r.W[b] > tol);
      if (!uDefined) continue;
      double uu = 0.0;
      for (int i = 0; i < m; i++) uu += r.U[i * n + a] * r.U[i * n + b];
      EXPECT_NEAR(uu, a == b ? 1.0 : 0.0, 1e-12) << "U columns " << a << ", " << b;
    }
  std::vector<int> sorted = r.index;
  std::sort(sorted.begin(), sorted.end());
  for (int j = 0; j < n; j++) EXPECT_EQ(sorted[j], j) << "index is not a permutation";
}

// The outputs must be the unsorted kernel's, permuted by index: compare with
// a direct svdcmp run on the same input, bit for bit.
void expectConsistentWithKernel(const std::vector<double>& A, int m, int n, const Svd& r) {
  std::vector<double> a = A, w(n), v(static_cast<size_t>(n) * n), rv1(n);
  ASSERT_EQ(svdcmp(a.data(), m, n, w.data(), v.data(), rv1.data()), 0);
  for (int j = 0; j < n; j++) {
    const int src = r.index[j];
    ASSERT_GE(src, 0);
    ASSERT_LT(src, n);
    EXPECT_EQ(r.W[j], w[src]);
    for (int i = 0; i < m; i++) EXPECT_EQ(r.U[i * n + j], a[i * n + src]);
    for (int k = 0; k < n; k++) EXPECT_EQ(r.V[k * n + j], v[k * n + src]);
  }
}

}  // namespace

TEST(MatrixSVD, RandomSquareTallAndWideMatricesDecompose) {
  std::mt19937 rng(12345);
  const int shapes[][2] = {{1, 1}, {3, 3}, {6, 6}, {8, 3}, {40, 6}, {3, 6}, {2, 5}, {5, 1}, {1, 4}};
  for (const auto& shape : shapes) {
    const int m = shape[0], n = shape[1];
    SCOPED_TRACE(testing::Message() << m << " x " << n);
    const std::vector<double> A = randomMatrix(rng, m, n);
    const Svd r = runSvd(A, m, n);
    expectValidSvd(A, m, n, r);
    expectConsistentWithKernel(A, m, n, r);
    // A wide matrix has at most m non-zero singular values.
    for (int j = m; j < n; j++) EXPECT_NEAR(r.W[j], 0.0, 1e-12 * r.W[0]);
  }
}

TEST(MatrixSVD, RankDeficientMatrixHasTrailingZeroValues) {
  std::mt19937 rng(777);
  // 7 x 5 of rank 2, scaled up so that the tolerances are seen to be relative.
  const int m = 7, n = 5, rank = 2;
  const std::vector<double> B = randomMatrix(rng, m, rank), C = randomMatrix(rng, rank, n);
  std::vector<double> A(m * n, 0.0);
  for (int i = 0; i < m; i++)
    for (int k = 0; k < n; k++)
      for (int j = 0; j < rank; j++) A[i * n + k] += 1000.0 * B[i * rank + j] * C[j * n + k];
  const Svd r = runSvd(A, m, n);
  expectValidSvd(A, m, n, r);
  expectConsistentWithKernel(A, m, n, r);
  EXPECT_GT(r.W[rank - 1], 1e-6 * r.W[0]);
  for (int j = rank; j < n; j++) EXPECT_LT(r.W[j], 1e-12 * r.W[0]) << "W[" << j << "]";
}

TEST(MatrixSVD, TransposeFlagsStoreSingularVectorsAsRows) {
  std::mt19937 rng(99);
  for (const auto& shape : {std::pair<int, int>{5, 3}, std::pair<int, int>{3, 4}}) {
    const int m = shape.first, n = shape.second;
    const std::vector<double> A = randomMatrix(rng, m, n);
    const Svd plain = runSvd(A, m, n, 0, 0);
    const Svd tU = runSvd(A, m, n, 1, 0);
    const Svd tV = runSvd(A, m, n, 0, 1);
    const Svd both = runSvd(A, m, n, 1, 1);
    for (const Svd* r : {&tU, &tV, &both}) {
      EXPECT_EQ(r->code, 0);
      EXPECT_EQ(r->W, plain.W);
      EXPECT_EQ(r->index, plain.index);
    }
    // Row j of the transposed U is the left singular vector of W[j]:
    // A^T * u_j = W[j] * v_j.
    for (int j = 0; j < n; j++) {
      for (int i = 0; i < m; i++) {
        EXPECT_EQ(tU.U[j * m + i], plain.U[i * n + j]);
        EXPECT_EQ(both.U[j * m + i], plain.U[i * n + j]);
      }
      for (int k = 0; k < n; k++) {
        EXPECT_EQ(tV.V[j * n + k], plain.V[k * n + j]);
        EXPECT_EQ(both.V[j * n + k], plain.V[k * n + j]);
        double atu = 0.0;
        for (int i = 0; i < m; i++) atu += A[i * n + k] * tU.U[j * m + i];
        EXPECT_NEAR(atu, plain.W[j] * both.V[j * n + k], 1e-12);
      }
      EXPECT_EQ(tU.V, plain.V);
      EXPECT_EQ(tV.U, plain.U);
    }
  }
}

TEST(MatrixSVD, DiagonalMatricesGiveSignedPermutations) {
  {
    const std::vector<double> A = {1, 0, 0, 0, 3, 0, 0, 0, 2};
    const Svd r = runSvd(A, 3, 3);
    expectValidSvd(A, 3, 3, r);
    EXPECT_EQ(r.W, (std::vector<double>{3, 2, 1}));
    EXPECT_EQ(r.index, (std::vector<int>{1, 2, 0}));
    // Column j of U and V is +-e_index[j].
    for (int j = 0; j < 3; j++)
      for (int i = 0; i < 3; i++) {
        const double expected = i == r.index[j] ? 1.0 : 0.0;
        EXPECT_EQ(std::fabs(r.U[i * 3 + j]), expected) << "U(" << i << ", " << j << ")";
        EXPECT_EQ(std::fabs(r.V[i * 3 + j]), expected) << "V(" << i << ", " << j << ")";
      }
  }
  {
    // The Householder step picks the sign opposite to the leading entry, so
    // both columns of U come out negative; the final pass that makes each
    // singular value non-negative flips V's second column.
    const std::vector<double> A = {-2, 0, 0, 1};
    const Svd r = runSvd(A, 2, 2);
    expectValidSvd(A, 2, 2, r);
    EXPECT_EQ(r.W, (std::vector<double>{2, 1}));
    EXPECT_EQ(r.index, (std::vector<int>{0, 1}));
    EXPECT_EQ(r.U, (std::vector<double>{-1, 0, 0, -1}));
    EXPECT_EQ(r.V, (std::vector<double>{1, 0, 0, -1}));
  }
}

TEST(MatrixSVD, ZeroAndEmptyMatricesSucceed) {
  for (const auto& shape :
       {std::pair<int, int>{3, 3}, std::pair<int, int>{4, 2}, std::pair<int, int>{2, 4}}) {
    const int m = shape.first, n = shape.second;
    const std::vector<double> A(m * n, 0.0);
    const Svd r = runSvd(A, m, n);
    ASSERT_EQ(r.code, 0);
    for (double w : r.W) EXPECT_EQ(w, 0.0);
    for (double u : r.U) EXPECT_TRUE(std::isfinite(u));
    expectValidSvd(A, m, n, r);
  }
  // No rows or no columns: nothing to decompose, nothing written out of range.
  EXPECT_EQ(runSvd({}, 0, 3).code, 0);
  EXPECT_EQ(runSvd({}, 3, 0).code, 0);
  EXPECT_EQ(runSvd({}, 0, 0).code, 0);
}

TEST(MatrixSVD, MissingWorkArrayIsReportedAndNothingIsTouched) {
  const std::vector<double> A = {1, 2, 3, 4};
  std::vector<double> W(2, 7.0), U(4, 7.0), V(4, 7.0);
  std::vector<int> index(2, 7);
  testing::internal::CaptureStdout();
  const int code =
      matrixSVD(A.data(), 2, 2, W.data(), U.data(), V.data(), 0, 0, nullptr, index.data());
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "ERROR - Not enough memory for rv1 in svdcmp\n");
  EXPECT_EQ(code, -1);
  EXPECT_EQ(W, std::vector<double>(2, 7.0));
  EXPECT_EQ(U, std::vector<double>(4, 7.0));
  EXPECT_EQ(V, std::vector<double>(4, 7.0));
  EXPECT_EQ(index, std::vector<int>(2, 7));

  std::vector<double> a = A, w(2), v(4);
  testing::internal::CaptureStdout();
  EXPECT_EQ(svdcmp(a.data(), 2, 2, w.data(), v.data(), nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "ERROR - Not enough memory for rv1 in svdcmp\n");
  EXPECT_EQ(a, A);

  // Other bad arguments fail quietly with the same code.
  std::vector<double> work(6);
  testing::internal::CaptureStdout();
  EXPECT_EQ(
      matrixSVD(A.data(), -2, 2, W.data(), U.data(), V.data(), 0, 0, work.data(), index.data()),
      -1);
  EXPECT_EQ(matrixSVD(A.data(), 2, 2, W.data(), U.data(), V.data(), 0, 0, work.data(), nullptr),
            -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(W, std::vector<double>(2, 7.0));
}

TEST(MatrixSVD, NonFiniteInputEndsWithoutCrashing) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  const std::vector<std::vector<double>> inputs = {
      {nan, 1, 2, 3, 4, 5, 6, 7, 8},    {1, 2, 3, 4, nan, 6, 7, 8, 9},
      {1, 2, 3, 4, 5, 6, 7, 8, nan},    {inf, 1, 2, 3, 4, 5, 6, 7, 8},
      {1, -inf, 3, 4, 5, 6, 7, 8, inf}, {nan, nan, nan, nan, nan, nan, nan, nan, nan},
      {0, 0, 0, 0, nan, 0, 0, 0, 0}};
  for (const auto& A : inputs) {
    for (const auto& shape :
         {std::pair<int, int>{3, 3}, std::pair<int, int>{1, 9}, std::pair<int, int>{9, 1}}) {
      const int code = runSvd(A, shape.first, shape.second).code;
      EXPECT_TRUE(code == 0 || code == -7) << code;
    }
  }
}

TEST(MatrixSVD, MoreThanAThousandEqualValuesLeaveWPartlySortedButConsistent) {
  // A single row has one non-zero singular value and n - 1 zeros; equal values
  // exhaust the sort's stack, whose -8 is ignored: the call still succeeds
  // and W, U and V stay a valid (partly ordered) decomposition.
  const int m = 1, n = 1001;
  std::vector<double> A(n);
  for (int k = 0; k < n; k++) A[k] = 1.0 + (k % 7);
  const Svd r = runSvd(A, m, n);
  ASSERT_EQ(r.code, 0);
  double norm2 = 0.0;
  for (double x : A) norm2 += x * x;
  const double wMax = *std::max_element(r.W.begin(), r.W.end());
  EXPECT_NEAR(wMax, std::sqrt(norm2), 1e-9);
  for (int k = 0; k < n; k++) {
    double sum = 0.0;
    for (int j = 0; j < n; j++) sum += r.U[j] * r.W[j] * r.V[k * n + j];
    EXPECT_NEAR(sum, A[k], 1e-9);
  }
  std::vector<int> sorted = r.index;
  std::sort(sorted.begin(), sorted.end());
  for (int j = 0; j < n; j++) ASSERT_EQ(sorted[j], j);
}

TEST(Pythag, AvoidsOverflowAndUnderflow) {
  EXPECT_EQ(pythag(3.0, 4.0), 5.0);
  EXPECT_EQ(pythag(-4.0, 3.0), 5.0);
  EXPECT_EQ(pythag(0.0, 0.0), 0.0);
  EXPECT_EQ(pythag(0.0, -2.5), 2.5);
  EXPECT_DOUBLE_EQ(pythag(3e200, 4e200), 5e200);
  EXPECT_DOUBLE_EQ(pythag(3e-200, -4e-200), 5e-200);
}

TEST(MyQuickSort, SortsAndTracksOriginalPositions) {
  std::mt19937 rng(2024);
  std::uniform_real_distribution<double> dist(-10.0, 10.0);
  std::uniform_int_distribution<int> small(0, 4);
  for (int n : {1, 2, 3, 10, 37, 500}) {
    for (bool withDuplicates : {false, true}) {
      std::vector<double> original(n);
      for (double& x : original) x = withDuplicates ? small(rng) : dist(rng);
      std::vector<double> values = original;
      std::vector<int> index(n, -1);
      ASSERT_EQ(myQuickSort(values.data(), index.data(), n), 0);
      EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
      for (int i = 0; i < n; i++) EXPECT_EQ(values[i], original[index[i]]) << i;
      std::vector<int> sorted = index;
      std::sort(sorted.begin(), sorted.end());
      for (int i = 0; i < n; i++) ASSERT_EQ(sorted[i], i);
    }
  }
  // Descending input.
  std::vector<double> values = {5, 4, 3, 2, 1};
  std::vector<int> index(5);
  ASSERT_EQ(myQuickSort(values.data(), index.data(), 5), 0);
  EXPECT_EQ(values, (std::vector<double>{1, 2, 3, 4, 5}));
  EXPECT_EQ(index, (std::vector<int>{4, 3, 2, 1, 0}));
  // Equal values end up in the order the hole-filling partition leaves them:
  // the upward scan passes over values equal to the pivot.
  values = {2, 1, 2, 0};
  index.assign(4, -1);
  ASSERT_EQ(myQuickSort(values.data(), index.data(), 4), 0);
  EXPECT_EQ(values, (std::vector<double>{0, 1, 2, 2}));
  EXPECT_EQ(index, (std::vector<int>{3, 1, 2, 0}));
  // Nothing to sort.
  EXPECT_EQ(myQuickSort(nullptr, nullptr, 0), 0);
}

TEST(MyQuickSort, SortedInputDeeperThanTheStackFails) {
  // Ascending input peels off one element per level.
  for (int n : {1000, 1001, 5000}) {
    std::vector<double> values(n);
    for (int i = 0; i < n; i++) values[i] = 0.5 * i;
    std::vector<int> index(n);
    const int code = myQuickSort(values.data(), index.data(), n);
    EXPECT_EQ(code, n <= 1000 ? 0 : -8) << n;
    if (code == 0) {
      for (int i = 0; i < n; i++) EXPECT_EQ(index[i], i);
    }
  }
}

TEST(MyQuickSort, NaNValuesTerminate) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  std::vector<double> values = {3, nan, 1, nan, 2, 0};
  std::vector<int> index(values.size());
  EXPECT_EQ(myQuickSort(values.data(), index.data(), static_cast<int>(values.size())), 0);
  std::vector<int> sorted = index;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(sorted, (std::vector<int>{0, 1, 2, 3, 4, 5}));
}
