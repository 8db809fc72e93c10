// Kalman filter and simple predictor: prediction in the object's own frame,
// process noise and the gain equations against closed forms, tracking of a
// constant-velocity motion, and failure paths that must leave the estimate.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "IO.h"
#include "KalmanFilter.h"
#include "Math.h"
#include "SimplePredictor.h"
#include "alloc_counter.h"
#include "tracker_scene.h"

using namespace ZOTtracker;

namespace {

const double kZeroVelocity[6] = {0, 0, 0, 0, 0, 0};

void expectNear(const double* A, const double* B, int n, double tol, const char* what) {
  for (int i = 0; i < n; i++) ASSERT_NEAR(A[i], B[i], tol) << what << " element " << i;
}

void diag(double* R, double rot, double transl) {
  matrixZero(R, 6, 6);
  for (int i = 0; i < 6; i++) R[i * 7] = i < 3 ? rot : transl;
}

KalmanFilter startedFilter(double noiseRot, double noiseTransl, double initialCov, const double* T0,
                           const double* v0, double t0) {
  KalmanFilter kf;
  EXPECT_EQ(kf.setParams(noiseRot, noiseTransl, initialCov), 0);
  EXPECT_EQ(kf.init(T0, v0, t0), 0);
  return kf;
}

}  // namespace

// ---------------------------------------------------------------- Kalman filter
TEST(KalmanFilter, RefusedCallsLeaveTheEstimate) {
  KalmanFilter kf;
  double T0[16], v0[6] = {1, 2, 3, 4, 5, 6}, I4[16], R[36];
  matrixIdentity(I4, 4);
  diag(R, 1.0, 1.0);
  EXPECT_EQ(kf.predict(1.0), -1);  // before init nothing runs
  EXPECT_EQ(kf.correct(I4, R, 1.0), -1);
  EXPECT_EQ(kf.setParams(NAN, 1.0, 1.0), -1);
  EXPECT_EQ(kf.setParams(1.0, 1.0, -1.0), -1);
  ASSERT_EQ(kf.setParams(3.0, 4.0, 5.0), 0);
  TfromEuler(T0, 10, 20, 30, 1, 2, 3);
  ASSERT_EQ(kf.init(T0, v0, 2.5), 0);
  const zot_test::FilterSnapshot before(kf);
  EXPECT_EQ(kf.init(nullptr, v0, 3.0), -1);
  EXPECT_EQ(kf.init(T0, v0, -2.0), -1);  // negative times mean "never initialised"
  EXPECT_EQ(kf.predict(2.4), -1);
  EXPECT_EQ(kf.predict(NAN), -1);
  EXPECT_EQ(kf.correct(I4, R, 2.0), -1);
  EXPECT_EQ(kf.correct(nullptr, R, 3.0), -1);
  R[7] = INFINITY;
  EXPECT_EQ(kf.correct(I4, R, 3.0), -1);
  EXPECT_TRUE(before.same(kf));
}

TEST(KalmanFilter, PredictionMovesThePoseInItsOwnFrameAndAddsAccelerationNoise) {
  double T0[16];
  TfromEuler(T0, 0, 0, 90, 10, 20, 30);
  const double v0[6] = {0, 0, 0, 1, 2, 3};
  KalmanFilter kf = startedFilter(1.0, 2.0, 0.0, T0, v0, 1.0);
  ASSERT_EQ(kf.predict(1.0), 0);  // dt = 0: the estimate itself, no noise
  EXPECT_EQ(memcmp(kf.m_Tpred, T0, sizeof T0), 0);
  for (int i = 0; i < 144; i++) ASSERT_EQ(kf.m_covPred[i], 0.0);
  ASSERT_EQ(kf.predict(3.0), 0);
  EXPECT_EQ(kf.m_lastTime, 1.0);  // prediction does not move the clock
  // t' = t0 + R0 (v dt), R unchanged.
  const double step[3] = {2, 4, 6};
  double R0[9], t0[3], Rstep[3];
  rotTranslFromT(T0, R0, t0);
  matrixProduct331(R0, step, Rstep);
  for (int i = 0; i < 3; i++) {
    EXPECT_NEAR(kf.m_Tpred[i * 4 + 3], t0[i] + Rstep[i], 1e-12);
    for (int j = 0; j < 3; j++) EXPECT_EQ(kf.m_Tpred[i * 4 + j], R0[i * 3 + j]);
  }
  for (int i = 0; i < 12; i++) EXPECT_EQ(kf.m_statePred[i], i < 6 ? 0.0 : v0[i - 6]);
  // G = [dt^2/2 s; dt s] per axis (both 2 s for dt = 2), W = G G^T, with the
  // rotational scale on axes 0-2 and the translational one on 3-5.
  for (int i = 0; i < 12; i++)
    for (int j = 0; j < 12; j++) {
      const double s = (i % 6) < 3 ? 1.0 : 2.0;
      ASSERT_EQ(kf.m_covPred[i * 12 + j], j % 6 == i % 6 ? 4.0 * s * s : 0.0) << i << "," << j;
    }
  // A velocity uncertainty c grows the pose's as c (1 + dt^2), correlated by c dt.
  KalmanFilter grown = startedFilter(0.0, 0.0, 2.0, T0, kZeroVelocity, 1.0);
  ASSERT_EQ(grown.predict(4.0), 0);
  for (int i = 0; i < 12; i++)
    for (int j = 0; j < 12; j++) {
      const double expected = i == j ? (i < 6 ? 20.0 : 2.0) : (std::abs(i - j) == 6 ? 6.0 : 0.0);
      ASSERT_EQ(grown.m_covPred[i * 12 + j], expected) << i << "," << j;
    }
}

TEST(KalmanFilter, CorrectionSatisfiesTheGainEquations) {
  // Full covariances: K S = P H^T, and the estimate's covariance is (I - K H) P.
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  double T0[16], L[144], LT[144], M[36], MT[36], R[36];
  TfromEuler(T0, 5, -15, 25, 10, -20, 30);
  const double v0[6] = {1, 2, 3, 4, 5, 6};
  KalmanFilter kf = startedFilter(2.0, 3.0, 1.0, T0, v0, 0.0);
  for (int i = 0; i < 144; i++) L[i] = u(rng);
  matrixTranspose(L, LT, 12, 12);
  matrixProduct(L, LT, kf.m_covEst, 12, 12, 12);
  ASSERT_EQ(kf.predict(0.3), 0);
  for (int i = 0; i < 36; i++) M[i] = u(rng);
  matrixTranspose(M, MT, 6, 6);
  matrixProduct(M, MT, R, 6, 6, 6);
  for (int i = 0; i < 6; i++) R[i * 7] += 0.5;

  const double meas[6] = {3, -2, 1, 0.5, -0.25, 0.75};
  double Z[16], Ppred[144], statePred[12];
  matrixCopy(kf.m_Tpred, Z, 4, 4);
  updatePoseTwist(Z, meas);
  matrixCopy(kf.m_covPred, Ppred, 12, 12);
  matrixCopy(kf.m_statePred, statePred, 12, 1);
  ASSERT_EQ(kf.correct(Z, R, 0.3), 0);
  EXPECT_EQ(kf.m_lastTime, 0.3);

  double S[36], KS[72], KH[144], IKH[144], expectedCov[144];
  for (int i = 0; i < 6; i++)
    for (int j = 0; j < 6; j++) S[i * 6 + j] = Ppred[i * 12 + j] + R[i * 6 + j];
  matrixProduct(kf.m_K, S, KS, 12, 6, 6);
  for (int i = 0; i < 12; i++)
    for (int j = 0; j < 6; j++) ASSERT_NEAR(KS[i * 6 + j], Ppred[i * 12 + j], 1e-9);
  matrixProduct(kf.m_K, kf.m_H, KH, 12, 6, 12);
  matrixIdentity(IKH, 12);
  matrixSub(IKH, KH, IKH, 12, 12);
  matrixProduct(IKH, Ppred, expectedCov, 12, 12, 12);
  expectNear(kf.m_covEst, expectedCov, 144, 1e-9, "covariance");

  // dx = K z: the pose moves by its first six entries, the velocity by the rest.
  double dx[12], expectedT[16];
  matrixProduct(kf.m_K, meas, dx, 12, 6, 1);
  matrixCopy(kf.m_Tpred, expectedT, 4, 4);
  updatePoseTwist(expectedT, dx);
  expectNear(kf.m_Test, expectedT, 16, 1e-9, "pose");
  for (int i = 0; i < 6; i++) EXPECT_NEAR(kf.m_stateEst[6 + i], statePred[6 + i] + dx[6 + i], 1e-9);
}

TEST(KalmanFilter, SingularInnovationGivesZeroGain) {
  // R = 0 and no predicted uncertainty: the pseudo-inverse gives zero gain.
  double T0[16], R0[36], Z[16];
  TfromEuler(T0, 10, 20, 30, 1, 2, 3);
  const double v0[6] = {1, 0, 0, 0, 0, 2}, off[6] = {1, 2, 3, 4, 5, 6};
  matrixZero(R0, 6, 6);
  KalmanFilter certain = startedFilter(0.0, 0.0, 0.0, T0, v0, 0.0);
  ASSERT_EQ(certain.predict(1.0), 0);
  matrixCopy(certain.m_Tpred, Z, 4, 4);
  updatePoseTwist(Z, off);
  ASSERT_EQ(certain.correct(Z, R0, 1.0), 0);
  for (int i = 0; i < 72; i++) ASSERT_EQ(certain.m_K[i], 0.0);
  EXPECT_EQ(memcmp(certain.m_Test, certain.m_Tpred, sizeof Z), 0);
}

TEST(KalmanFilter, TracksAConstantVelocityMotion) {
  // T(t) = T0 exp(v t), noisy measurements every 0.1; from zero velocity the
  // estimate must find v and follow T.
  const double vTrue[6] = {4.0, -2.0, 6.0, 20.0, -10.0, 30.0};
  double T0[16], R[36], Ttrue[16];
  TfromEuler(T0, 20, -30, 45, 100, -50, 500);
  KalmanFilter kf = startedFilter(1.0, 1.0, 100.0, T0, kZeroVelocity, 0.0);
  const double sRot = 0.05, sTransl = 0.1;
  diag(R, sRot * sRot, sTransl * sTransl);
  std::mt19937 rng(3);
  std::normal_distribution<double> n(0.0, 1.0);
  for (int k = 1; k <= 80; k++) {
    const double t = 0.1 * k;
    double vt[6], noise[6], Z[16];
    for (int i = 0; i < 6; i++) vt[i] = vTrue[i] * t, noise[i] = n(rng) * (i < 3 ? sRot : sTransl);
    matrixCopy(T0, Ttrue, 4, 4);
    updatePoseTwist(Ttrue, vt);
    matrixCopy(Ttrue, Z, 4, 4);
    updatePoseTwist(Z, noise);
    ASSERT_EQ(kf.predict(t), 0);
    ASSERT_EQ(kf.correct(Z, R, t), 0) << "frame " << k;
  }
  double v[6], P[36];
  kf.getVelocity(v);
  for (int i = 0; i < 6; i++) EXPECT_NEAR(v[i], vTrue[i], i < 3 ? 0.3 : 0.6) << i;
  for (int i = 0; i < 12; i++) EXPECT_NEAR(kf.m_Test[i], Ttrue[i], i % 4 == 3 ? 0.15 : 0.005) << i;
  kf.getPoseCovariance(P);
  for (int i = 0; i < 6; i++) EXPECT_LT(P[i * 7], R[i * 7]) << i;
}

TEST(KalmanFilter, AngleAxisIncrements) {
  // T * [R(aa) t]: a quarter turn plus (1, 0, 0) ends one unit along x,
  // unlike the screw motion of a twist.
  double T0[16], Z[16], R0[36];
  matrixIdentity(T0, 4);
  const double v0[6] = {0, 0, 90, 1, 0, 0}, aa[6] = {10, -20, 5, 0.5, 0.25, -0.5};
  KalmanFilter kf = startedFilter(0.0, 0.0, 1.0, T0, v0, 0.0);
  kf.m_useAngleAxis = true;
  ASSERT_EQ(kf.predict(1.0), 0);
  const double expected[8] = {0, -1, 0, 1, 1, 0, 0, 0};
  expectNear(kf.m_Tpred, expected, 8, 1e-12, "angle-axis prediction");
  matrixCopy(kf.m_Tpred, Z, 4, 4);
  updatePoseAngleAxis(Z, aa);
  matrixZero(R0, 6, 6);
  ASSERT_EQ(kf.correct(Z, R0, 1.0), 0);  // R = 0 pulls the estimate onto the measurement
  expectNear(kf.m_Test, Z, 16, 1e-12, "pose");
}

// ---------------------------------------------------------------- simple predictor
TEST(SimplePredictor, RefusedCallsAndSameTimeCorrections) {
  SimplePredictor sp;
  double I4[16], T0[16], T1[16], v[6];
  matrixIdentity(I4, 4);
  EXPECT_EQ(sp.predict(1.0), -1);
  EXPECT_EQ(sp.correct(I4, 1.0), -1);  // a correction does not start a track
  EXPECT_EQ(sp.init(I4, kZeroVelocity, NAN), -1);
  const double v0[6] = {1, -2, 3, 40, 50, 60};
  TfromEuler(T0, 10, 20, 30, 1, 2, 3);
  TfromEuler(T1, -40, 25, 5, 9, 8, 7);
  ASSERT_EQ(sp.init(T0, v0, 4.0), 0);
  EXPECT_EQ(sp.predict(3.5), -1);
  EXPECT_EQ(sp.correct(T1, 3.5), -1);
  I4[3] = NAN;
  EXPECT_EQ(sp.correct(I4, 5.0), -1);
  EXPECT_EQ(memcmp(sp.m_Test, T0, sizeof T0), 0);
  // Same time: the pose is replaced, the velocity kept; dt = 0 predicts it.
  ASSERT_EQ(sp.correct(T1, 4.0), 0);
  sp.getVelocity(v);
  expectNear(v, v0, 6, 0.0, "velocity");
  ASSERT_EQ(sp.predict(4.0), 0);
  EXPECT_EQ(memcmp(sp.m_Tpred, T1, sizeof T1), 0);
}

TEST(SimplePredictor, VelocityIsTheDifferenceOfTheLastTwoMeasurements) {
  // B = A exp(xi) over dt = 0.5 gives the velocity xi / 0.5, and the
  // prediction 0.25 later is B exp(xi / 2), in the object's own frame.
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  int checked = 0;
  for (int trial = 0; trial < 10; trial++) {
    double xi[6], half[6], A[16], B[16], C[16], v[6];
    for (int i = 0; i < 6; i++) xi[i] = u(rng) * (i < 3 ? 20.0 : 50.0), half[i] = xi[i] / 2;
    TfromEuler(A, u(rng) * 180, u(rng) * 90, u(rng) * 180, u(rng) * 100, u(rng) * 100,
               u(rng) * 100);
    memcpy(B, A, sizeof A);
    updatePoseTwist(B, xi);
    SimplePredictor sp;
    ASSERT_EQ(sp.init(A, kZeroVelocity, 10.0), 0);
    const int code = sp.correct(B, 10.5);
    if (code == ZOT_ERR_SVD) continue;  // the logarithm's rare stall
    ASSERT_EQ(code, 0);
    sp.getVelocity(v);
    for (int i = 0; i < 6; i++) EXPECT_NEAR(v[i], xi[i] / 0.5, 1e-8) << trial << " " << i;
    ASSERT_EQ(sp.predict(10.75), 0);
    memcpy(C, B, sizeof B);
    updatePoseTwist(C, half);
    expectNear(sp.m_Tpred, C, 16, 1e-9, "prediction");
    checked++;
  }
  EXPECT_GE(checked, 8);
}

TEST(MotionPrediction, PredictAndCorrectDoNotAllocate) {
  if (!zot_test::allocationCountingAvailable()) GTEST_SKIP() << "allocator owned by the sanitizer";
  double T[16], R[36], Z[16], v[6], P[36];
  TfromEuler(T, 10, 20, 30, 1, 2, 3);
  diag(R, 0.1, 0.2);
  const double v0[6] = {1, 2, 3, 4, 5, 6};
  KalmanFilter kf = startedFilter(1.0, 1.0, 10.0, T, v0, 0.0);
  SimplePredictor sp;
  ASSERT_EQ(sp.init(T, v0, 0.0), 0);
  zot_test::startCountingAllocations();
  int codes = 0;
  for (int k = 1; k <= 10; k++) {
    codes += kf.predict(0.1 * k) + sp.predict(0.1 * k);
    matrixCopy(kf.m_Tpred, Z, 4, 4);
    Z[3] += 0.01;
    codes += kf.correct(Z, R, 0.1 * k) + sp.correct(Z, 0.1 * k);
    kf.getVelocity(v);
    kf.getPoseCovariance(P);
    sp.getVelocity(v);
  }
  EXPECT_EQ(zot_test::stopCountingAllocations(), 0);
  EXPECT_EQ(codes, 0);
}
