// The two least-squares solvers on stacked systems built by hand: known
// increments recovered, weights as switches, frozen and unobserved
// parameters, empty systems and the covariance in its cumulative form.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ContourTracker.h"
#include "IO.h"
#include "memory_handling.h"
#include "synthetic_images.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

constexpr int kCapacity = 200;

class PoseUpdate : public ::testing::Test {
 protected:
  void SetUp() override {
    doBigMalloc(100000, 10000, 100000, 10, 100000, 10, 100000);
    const int w = 32, h = 32;
    const double zNear = 1.0, zFar = 10.0;
    m_tracker.init(&w, &h, &zNear, &zFar, 1, kCapacity);
  }
  void TearDown() override { doBigFree(); }

  // n rows of a random Jacobian (fixed seed), residuals J * dx, weight 1.
  void randomSystem(int n, const double* dx, uint64_t seed = 7) {
    zot_test::Lcg rng(seed);
    m_tracker.m_nTotalPoints = n;
    for (int i = 0; i < n; i++) {
      double r = 0.0;
      for (int j = 0; j < 6; j++) {
        const double v = 20.0 * (rng.uniform() - 0.5);
        m_tracker.m_normalJacobian[6 * i + j] = v;
        r += v * dx[j];
      }
      m_tracker.m_residuals[i] = r;
      m_tracker.m_inlierWeights[i] = 1.0;
    }
  }
  // Row i observes parameter i % 6 alone, with gain sigma[i % 6].
  void diagonalSystem(int rowsPerParameter, const double* sigma, uint64_t seed = 3) {
    zot_test::Lcg rng(seed);
    const int n = 6 * rowsPerParameter;
    m_tracker.m_nTotalPoints = n;
    m_rss = 0.0;
    for (int i = 0; i < n; i++) {
      for (int j = 0; j < 6; j++) m_tracker.m_normalJacobian[6 * i + j] = 0.0;
      m_tracker.m_normalJacobian[6 * i + i % 6] = sigma[i % 6];
      m_tracker.m_residuals[i] = rng.uniform() - 0.5;
      m_tracker.m_inlierWeights[i] = 1.0;
      m_rss += m_tracker.m_residuals[i] * m_tracker.m_residuals[i];
    }
  }
  int rectangular(double* dx, const double* mask, bool covariance, double* cov,
                  std::string* out = nullptr) {
    CaptureStdout();
    const int code = m_tracker.computePoseUpdate_rectangularLSE(dx, mask, covariance, cov);
    const std::string printed = GetCapturedStdout();
    if (out != nullptr) *out = printed;
    return code;
  }
  ContourTracker m_tracker;
  double m_rss = 0.0;
};

const double kAllFree[6] = {1, 1, 1, 1, 1, 1};

TEST_F(PoseUpdate, BothSolversRecoverAKnownIncrement) {
  const double truth[6] = {0.8, -1.5, 0.3, 2.0, -0.7, 4.0};
  double dx[6];
  randomSystem(50, truth);
  ASSERT_EQ(m_tracker.computePoseUpdate_squareLSE(dx, kAllFree, false, nullptr), 0);
  for (int j = 0; j < 6; j++) EXPECT_NEAR(dx[j], truth[j], 1e-9) << j;

  std::string out;
  ASSERT_EQ(rectangular(dx, kAllFree, false, nullptr, &out), 0);
  for (int j = 0; j < 6; j++) EXPECT_NEAR(dx[j], truth[j], 1e-9) << j;
  ASSERT_EQ(out.rfind("cond1 ", 0), 0u) << out;
  ASSERT_EQ(out.back(), '\n');
  EXPECT_GT(std::atof(out.c_str() + 6), 1.0) << "largest over smallest singular value";

  // A mask value other than 0 frees the parameter, whatever it is.
  const double halves[6] = {0.5, -2, 1, 1, 1, 3};
  randomSystem(50, truth);
  ASSERT_EQ(m_tracker.computePoseUpdate_squareLSE(dx, halves, false, nullptr), 0);
  for (int j = 0; j < 6; j++) EXPECT_NEAR(dx[j], truth[j], 1e-9) << j;
}

TEST_F(PoseUpdate, WeightsSwitchRowsOnAndOffWithoutScalingThem) {
  const double truth[6] = {0.1, 0.2, -0.3, 1.0, 2.0, -1.0};
  double reference[6], dx[6];
  randomSystem(40, truth);
  ASSERT_EQ(m_tracker.computePoseUpdate_squareLSE(reference, kAllFree, false, nullptr), 0);
  // Weight 3 is the same switch as weight 1.
  for (int i = 0; i < 40; i += 3) m_tracker.m_inlierWeights[i] = 3.0;
  ASSERT_EQ(m_tracker.computePoseUpdate_squareLSE(dx, kAllFree, false, nullptr), 0);
  for (int j = 0; j < 6; j++) EXPECT_EQ(dx[j], reference[j]);
  // Outlier rows switched off do not count, however wild.
  m_tracker.m_nTotalPoints = 45;
  for (int i = 40; i < 45; i++) {
    for (int j = 0; j < 6; j++) m_tracker.m_normalJacobian[6 * i + j] = 1e3 * (j + 1);
    m_tracker.m_residuals[i] = 1e6;
    m_tracker.m_inlierWeights[i] = 0.0;
  }
  ASSERT_EQ(m_tracker.computePoseUpdate_squareLSE(dx, kAllFree, false, nullptr), 0);
  for (int j = 0; j < 6; j++) EXPECT_EQ(dx[j], reference[j]);
  ASSERT_EQ(rectangular(dx, kAllFree, false, nullptr), 0);
  for (int j = 0; j < 6; j++) EXPECT_NEAR(dx[j], truth[j], 1e-9);
}

TEST_F(PoseUpdate, FrozenParametersGetExactlyZeroInBothSolvers) {
  // Residuals made by the rotation alone: the rotation-only solution is exact.
  const double truth[6] = {0.4, -0.9, 1.3, 0.0, 0.0, 0.0};
  const double rotationOnly[6] = {1, 1, 1, 0, 0, 0};
  double dx[6], cov[36];
  randomSystem(30, truth);
  ASSERT_EQ(m_tracker.computePoseUpdate_squareLSE(dx, rotationOnly, false, nullptr), 0);
  for (int j = 0; j < 3; j++) EXPECT_NEAR(dx[j], truth[j], 1e-9);
  for (int j = 3; j < 6; j++) EXPECT_EQ(dx[j], 0.0);

  // Translation residuals that the frozen parameters would absorb.
  const double withTranslation[6] = {0.4, -0.9, 1.3, 5.0, 5.0, 5.0};
  randomSystem(30, withTranslation);
  const std::vector<double> rows(m_tracker.m_normalJacobian, m_tracker.m_normalJacobian + 12);
  ASSERT_EQ(rectangular(dx, rotationOnly, true, cov), 0);
  // The compaction rewrote the stacked rows as 3-column rows.
  for (int j = 0; j < 3; j++) {
    EXPECT_EQ(m_tracker.m_normalJacobian[j], rows[j]);
    EXPECT_EQ(m_tracker.m_normalJacobian[3 + j], rows[6 + j]);
  }
  for (int j = 3; j < 6; j++) EXPECT_EQ(dx[j], 0.0);
  for (int a = 0; a < 6; a++) {
    for (int b = 0; b < 6; b++) {
      if (a >= 3 || b >= 3) {
        EXPECT_EQ(cov[6 * a + b], 0.0) << a << "," << b;
      }
    }
  }
  EXPECT_GT(cov[0], 0.0);
}

TEST_F(PoseUpdate, UnobservedParametersAndEmptySystemsGiveZeroIncrements) {
  const double truth[6] = {0.4, -0.9, 1.3, 2.0, 0.0, -1.0};
  double dx[6];
  randomSystem(30, truth);
  for (int i = 0; i < 30; i++) m_tracker.m_normalJacobian[6 * i + 4] = 0.0;
  ASSERT_EQ(m_tracker.computePoseUpdate_squareLSE(dx, kAllFree, false, nullptr), 0);
  EXPECT_EQ(dx[4], 0.0);
  for (int j : {0, 1, 2, 3, 5}) EXPECT_NEAR(dx[j], truth[j], 1e-9);

  // No row switched on: a zero increment from the square form; the
  // rectangular form decomposes an empty matrix and still answers.
  for (int i = 0; i < 30; i++) m_tracker.m_inlierWeights[i] = 0.0;
  for (double& v : dx) v = 9.0;
  ASSERT_EQ(m_tracker.computePoseUpdate_squareLSE(dx, kAllFree, false, nullptr), 0);
  for (double v : dx) EXPECT_EQ(v, 0.0);
  for (double& v : dx) v = 9.0;
  std::string out;
  ASSERT_EQ(rectangular(dx, kAllFree, false, nullptr, &out), 0);
  for (double v : dx) EXPECT_EQ(v, 0.0);
  EXPECT_EQ(out.rfind("cond1 ", 0), 0u);
  // Every parameter frozen.
  const double frozen[6] = {0, 0, 0, 0, 0, 0};
  randomSystem(30, truth);
  ASSERT_EQ(rectangular(dx, frozen, true, nullptr, &out), 0);
  for (double v : dx) EXPECT_EQ(v, 0.0);
}

TEST_F(PoseUpdate, SquareCovarianceCarriesTheCumulativeScaling) {
  const double sigma[6] = {2.0, 0.5, 4.0, 1.0, 3.0, 0.25};
  const int k = 5;
  diagonalSystem(k, sigma);
  double dx[6], cov[36];
  for (double& c : cov) c = 7.0;
  ASSERT_EQ(m_tracker.computePoseUpdate_squareLSE(dx, kAllFree, false, cov), 0);
  for (double c : cov) EXPECT_EQ(c, 0.0) << "zero-filled without a request";
  ASSERT_EQ(m_tracker.computePoseUpdate_squareLSE(dx, kAllFree, true, cov), 0);
  // The scaled normal matrix is the identity; row a of V then carries
  // s_0 ... s_a with s_i = 1 / (sigma_i sqrt(k)).
  double product = 1.0;
  for (int a = 0; a < 6; a++) {
    product *= 1.0 / (sigma[a] * std::sqrt((double)k));
    const double expected = product * product * m_rss / (6 * k);
    EXPECT_NEAR(cov[7 * a], expected, 1e-12 * expected) << a;
    for (int b = 0; b < 6; b++) {
      if (b != a) {
        EXPECT_NEAR(cov[6 * a + b], 0.0, 1e-15);
      }
    }
  }
}

TEST_F(PoseUpdate, RectangularCovarianceCarriesTheCumulativeScaling) {
  const double sigma[6] = {2.0, 0.5, 4.0, 1.0, 3.0, 0.25};
  const int k = 5;
  diagonalSystem(k, sigma);
  double dx[6], cov[36];
  ASSERT_EQ(rectangular(dx, kAllFree, true, cov), 0);
  // Singular values sigma_a sqrt(k) in decreasing order; the parameter of
  // the j-th largest gets the product of 1 / w_i^2 over i <= j.
  std::vector<int> order = {0, 1, 2, 3, 4, 5};
  std::sort(order.begin(), order.end(), [&](int a, int b) { return sigma[a] > sigma[b]; });
  double product = 1.0;
  for (int j = 0; j < 6; j++) {
    const int a = order[j];
    product /= sigma[a] * sigma[a] * k;
    const double expected = product * m_rss / (6 * k - 6);
    EXPECT_NEAR(cov[7 * a], expected, 1e-12 * expected) << a;
  }
}

TEST_F(PoseUpdate, ASingularValueDecompositionFailureLeavesTheOutputs) {
  const double truth[6] = {0.1, 0.2, 0.3, 0.4, 0.5, 0.6};
  randomSystem(20, truth);
  m_tracker.m_normalJacobian[7] = std::nan("");
  double dx[6] = {1, 2, 3, 4, 5, 6}, cov[36];
  for (double& c : cov) c = 7.0;
  const int code = m_tracker.computePoseUpdate_squareLSE(dx, kAllFree, true, cov);
  if (code == 0) GTEST_SKIP() << "this decomposition does not fail on NaN input";
  EXPECT_EQ(code, ZOT_ERR_SVD);
  for (int j = 0; j < 6; j++) EXPECT_EQ(dx[j], j + 1.0);
  for (double c : cov) EXPECT_EQ(c, 7.0);
}

}  // namespace
