// Error-state constant-velocity Kalman filter over 4 x 4 poses.
#include "KalmanFilter.h"

#include <cmath>

#include "IO.h"
#include "Math.h"
#include "SVD_NR.h"

namespace ZOTtracker {

namespace {

// Singular values of the innovation covariance up to this (machine epsilon)
// count as zero in its pseudo-inverse.
constexpr double kPseudoInverseEps = 2.220446049250313e-16;

}  // namespace

// ================================================================ shared helpers
void constantVelocityTransition(double dt, double* F) {
  matrixIdentity(F, 12);
  for (int i = 0; i < 6; i++) F[i * 12 + i + 6] = dt;
}

void updatePoseIncrement(double* T, const double* increment, bool angleAxis) {
  if (angleAxis)
    updatePoseAngleAxis(T, increment);
  else
    updatePoseTwist(T, increment);
}

int poseIncrementFromT(const double* T, double* increment, bool angleAxis) {
  return angleAxis ? AngleAxisFromT(T, increment) : TwistFromT(T, increment);
}

void predictPoseAndState(const double* F, const double* T, const double* state, bool angleAxis,
                         double* Tpred, double* statePred) {
  matrixProduct(F, state, statePred, 12, 12, 1);
  matrixCopy(T, Tpred, 4, 4);
  updatePoseIncrement(Tpred, statePred, angleAxis);
  for (int i = 0; i < 6; i++) statePred[i] = 0.0;
}

bool validTrackStart(const double* pose, const double* velocity, double time) {
  return isFiniteArray(pose, 16) && isFiniteArray(velocity, 6) && std::isfinite(time) &&
         time >= 0.0;
}

bool validTimeStep(double lastTime, double time) {
  return lastTime >= 0.0 && time - lastTime >= 0.0 && std::isfinite(time);
}

// ================================================================ set-up
KalmanFilter::KalmanFilter() {
  matrixZero(m_A, 12, 12);
  matrixZero(m_AT, 12, 12);
  m_accNoiseRot = 0.0;
  m_accNoiseTransl = 0.0;
  matrixZero(m_W, 12, 12);
  matrixZero(m_H, 6, 12);
  matrixZero(m_HT, 12, 6);
  m_initialCov = 0.0;
  matrixIdentity(m_Tpred, 4);
  matrixZero(m_statePred, 12, 1);
  matrixZero(m_covPred, 12, 12);
  matrixZero(m_work1, 12, 12);
  matrixZero(m_work2, 12, 12);
  matrixZero(m_work3, 12, 12);
  matrixZero(m_work66, 6, 6);
  matrixZero(m_svdU, 6, 6);
  matrixZero(m_svdV, 6, 6);
  matrixZero(m_svdW, 6, 1);
  matrixZero(m_svdWork, 42, 1);
  for (int i = 0; i < 6; i++) m_svdIndex[i] = 0;
  matrixZero(m_K, 12, 6);
  matrixZero(m_KT, 6, 12);
  matrixIdentity(m_Test, 4);
  matrixZero(m_stateEst, 12, 1);
  matrixZero(m_covEst, 12, 12);
  m_lastTime = -1.0;
  m_useAngleAxis = false;
}

int KalmanFilter::setParams(double rotationalNoise, double translationalNoise,
                            double initialCovariance) {
  if (!std::isfinite(rotationalNoise) || !std::isfinite(translationalNoise) ||
      !std::isfinite(initialCovariance) || initialCovariance < 0.0)
    return -1;
  m_accNoiseRot = rotationalNoise;
  m_accNoiseTransl = translationalNoise;
  m_initialCov = initialCovariance;
  matrixZero(m_H, 6, 12);
  for (int i = 0; i < 6; i++) m_H[i * 12 + i] = 1.0;
  matrixTranspose(m_H, m_HT, 6, 12);
  return 0;
}

int KalmanFilter::init(const double* pose, const double* velocity, double time) {
  if (!validTrackStart(pose, velocity, time)) return -1;
  matrixCopy(pose, m_Test, 4, 4);
  for (int i = 0; i < 6; i++) {
    m_stateEst[i] = 0.0;
    m_stateEst[6 + i] = velocity[i];
  }
  matrixZero(m_covEst, 12, 12);
  for (int i = 0; i < 12; i++) m_covEst[i * 12 + i] = m_initialCov;
  m_lastTime = time;
  return 0;
}

// ================================================================ per-frame operations
int KalmanFilter::predict(double time) {
  const double dt = time - m_lastTime;
  if (!validTimeStep(m_lastTime, time)) return -1;

  constantVelocityTransition(dt, m_A);
  matrixTranspose(m_A, m_AT, 12, 12);

  // White acceleration a over dt moves the increment by a dt^2/2 and the
  // velocity by a dt: noise gain G (12 x 6), process noise W = G G^T.
  double* G = m_work1;
  double* GT = m_work2;
  matrixZero(G, 12, 6);
  for (int i = 0; i < 6; i++) {
    const double s = i < 3 ? m_accNoiseRot : m_accNoiseTransl;
    G[i * 6 + i] = dt * dt * 0.5 * s;
    G[(i + 6) * 6 + i] = s * dt;
  }
  matrixTranspose(G, GT, 12, 6);
  matrixProduct(G, GT, m_W, 12, 6, 12);

  predictPoseAndState(m_A, m_Test, m_stateEst, m_useAngleAxis, m_Tpred, m_statePred);

  // Ppred = A Pest A^T + W
  matrixProduct(m_A, m_covEst, m_work1, 12, 12, 12);
  matrixProduct(m_work1, m_AT, m_work2, 12, 12, 12);
  matrixSum(m_work2, m_W, m_covPred, 12, 12);
  return 0;
}

int KalmanFilter::correct(const double* measuredPose, const double* R, double time) {
  if (!validTimeStep(m_lastTime, time)) return -1;
  if (!isFiniteArray(measuredPose, 16) || !isFiniteArray(R, 36)) return -1;

  // The predicted increment is zero, so the increment from the predicted to
  // the measured pose is the innovation itself.
  double Tinv[16], D[16], z[6];
  inverseTransform(m_Tpred, Tinv);
  matrixProduct444(Tinv, measuredPose, D);
  const int code = poseIncrementFromT(D, z, m_useAngleAxis);
  if (code != 0) return code;

  // S = H Ppred H^T + R
  double* HP = m_work1;  // 6 x 12
  double* HPHT = m_work3;
  double* S = m_work2;
  matrixProduct(m_H, m_covPred, HP, 6, 12, 12);
  matrixProduct(HP, m_HT, HPHT, 6, 12, 6);
  matrixSum(HPHT, R, S, 6, 6);

  // S+ = V diag(1/w) U^T with directions of w <= eps dropped: a singular S
  // (no uncertainty in some direction) gives no gain there instead of a failure.
  if (matrixSVD(S, 6, 6, m_svdW, m_svdU, m_svdV, 0, 0, m_svdWork, m_svdIndex) != 0) return -1;
  double wInv[6];
  for (int j = 0; j < 6; j++) wInv[j] = m_svdW[j] > kPseudoInverseEps ? 1.0 / m_svdW[j] : 0.0;
  double* Sinv = m_work66;
  for (int i = 0; i < 6; i++) {
    for (int k = 0; k < 6; k++) {
      double sum = 0.0;
      for (int j = 0; j < 6; j++) sum += m_svdV[i * 6 + j] * wInv[j] * m_svdU[k * 6 + j];
      Sinv[i * 6 + k] = sum;
    }
  }

  // K = Ppred H^T S+
  double* PHT = m_work1;  // 12 x 6
  matrixProduct(m_covPred, m_HT, PHT, 12, 12, 6);
  matrixProduct(PHT, Sinv, m_K, 12, 6, 6);
  matrixTranspose(m_K, m_KT, 12, 6);

  // The increment part of dx moves the pose and is then reset; the velocity
  // part stays in the state.
  double dx[12];
  matrixProduct(m_K, z, dx, 12, 6, 1);
  matrixCopy(m_Tpred, m_Test, 4, 4);
  updatePoseIncrement(m_Test, dx, m_useAngleAxis);
  for (int i = 0; i < 6; i++) dx[i] = 0.0;
  matrixSum(m_statePred, dx, m_stateEst, 12, 1);

  // Joseph form: Pest = (I - K H) Ppred (I - K H)^T + K R K^T.
  double* IKH = m_work1;
  double* IKHT = m_work3;
  matrixProduct(m_K, m_H, m_work2, 12, 6, 12);
  matrixScale(m_work2, IKH, -1.0, 12, 12);
  for (int i = 0; i < 12; i++) IKH[i * 12 + i] += 1.0;
  matrixTranspose(IKH, IKHT, 12, 12);
  matrixProduct(IKH, m_covPred, m_work2, 12, 12, 12);
  double* IKHPIKHT = m_work1;
  matrixProduct(m_work2, IKHT, IKHPIKHT, 12, 12, 12);
  double* KR = m_work2;  // 12 x 6
  double* KRKT = m_work3;
  matrixProduct(m_K, R, KR, 12, 6, 6);
  matrixProduct(KR, m_KT, KRKT, 12, 6, 12);
  matrixSum(IKHPIKHT, KRKT, m_covEst, 12, 12);

  m_lastTime = time;
  return 0;
}

// ================================================================ getters
void KalmanFilter::getVelocity(double* velocity) const {
  for (int i = 0; i < 6; i++) velocity[i] = m_stateEst[6 + i];
}

void KalmanFilter::getPoseCovariance(double* covariance) const {
  for (int i = 0; i < 6; i++)
    for (int j = 0; j < 6; j++) covariance[i * 6 + j] = m_covEst[i * 12 + j];
}

// ================================================================ diagnostics
void KalmanFilter::dumpValues() const {
  print_matrix("A", m_A, 12, 12);
  print_matrix("W", m_W, 12, 12);
  print_matrix("H", m_H, 6, 12);
  print_matrix("K", m_K, 12, 6);
  print_matrix("T pred", m_Tpred, 4, 4);
  print_matrix("state pred", m_statePred, 1, 12);
  print_matrix("Cov pred", m_covPred, 12, 12);
  print_matrix("T est", m_Test, 4, 4);
  print_matrix("state est", m_stateEst, 1, 12);
  print_matrix("Cov est", m_covEst, 12, 12);
}

}  // namespace ZOTtracker
