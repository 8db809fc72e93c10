// Constant-velocity pose extrapolation from the last two measurements.
#include "SimplePredictor.h"

#include <cmath>

#include "KalmanFilter.h"
#include "Math.h"

namespace ZOTtracker {

// ================================================================ set-up
SimplePredictor::SimplePredictor() {
  matrixZero(m_A, 12, 12);
  matrixIdentity(m_Tpred, 4);
  matrixZero(m_statePred, 12, 1);
  matrixIdentity(m_Test, 4);
  matrixZero(m_stateEst, 12, 1);
  m_lastTime = -1.0;
  m_useAngleAxis = false;
}

int SimplePredictor::init(const double* pose, const double* velocity, double time) {
  if (!validTrackStart(pose, velocity, time)) return -1;
  matrixCopy(pose, m_Test, 4, 4);
  for (int i = 0; i < 6; i++) {
    m_stateEst[i] = 0.0;
    m_stateEst[6 + i] = velocity[i];
  }
  m_lastTime = time;
  return 0;
}

// ================================================================ per-frame operations
int SimplePredictor::predict(double time) {
  const double dt = time - m_lastTime;
  if (!validTimeStep(m_lastTime, time)) return -1;
  constantVelocityTransition(dt, m_A);
  predictPoseAndState(m_A, m_Test, m_stateEst, m_useAngleAxis, m_Tpred, m_statePred);
  return 0;
}

int SimplePredictor::correct(const double* measuredPose, double time) {
  const double dt = time - m_lastTime;
  if (!validTimeStep(m_lastTime, time)) return -1;
  if (!isFiniteArray(measuredPose, 16)) return -1;

  if (dt > 0.0) {
    // The state is cleared before the conversion, so a failing conversion
    // leaves a zero velocity behind: the next prediction holds the pose.
    matrixZero(m_stateEst, 12, 1);
    double Tinv[16], D[16], increment[6];
    inverseTransform(m_Test, Tinv);
    matrixProduct444(Tinv, measuredPose, D);
    const int code = poseIncrementFromT(D, increment, m_useAngleAxis);
    if (code != 0) return code;
    for (int i = 0; i < 6; i++) m_stateEst[6 + i] = increment[i] / dt;
  }
  matrixCopy(measuredPose, m_Test, 4, 4);
  m_lastTime = time;
  return 0;
}

// ================================================================ getters
void SimplePredictor::getVelocity(double* velocity) const {
  for (int i = 0; i < 6; i++) velocity[i] = m_stateEst[6 + i];
}

}  // namespace ZOTtracker
