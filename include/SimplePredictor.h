/// @file
/// Constant-velocity extrapolation of a 4 x 4 pose without covariance: the
/// lightweight alternative to KalmanFilter with the same calling pattern.
/// The velocity is the finite difference of the last two measured poses (the
/// increment between them divided by their time difference), not a filtered
/// estimate; the prediction extrapolates the last measured pose with it.
/// Fixed-size members only: nothing here allocates.
#pragma once

namespace ZOTtracker {

class SimplePredictor {
 public:
  // ---------------------------------------------------------------- set-up
  /// Everything zero, both poses the identity, last time -1 (not
  /// initialised), twist increments.
  SimplePredictor();

  /// Estimated pose = pose (4 x 4), estimated state = six zeros then the six
  /// velocity values (rotational in degrees, then translational, per time
  /// unit), last time = time. Returns 0, or -1 with nothing changed for a null
  /// or non-finite argument or a negative time.
  int init(const double* pose, const double* velocity, double time);

  // ---------------------------------------------------------------- per-frame operations
  /// Predicted pose = last measured pose moved by velocity x (time - last
  /// time); the predicted state keeps the velocity and a zero increment. Last
  /// time stays. Returns 0, or -1 when never initialised or when time is
  /// earlier than the last time or not finite.
  int predict(double time);

  /// Takes the measured pose (4 x 4) as the new estimate. When time is later
  /// than the last time, the whole state is first zeroed and the velocity set
  /// to the increment from the previous to the measured pose divided by the
  /// time difference; at the same time stamp the velocity is kept. Returns 0;
  /// -1 when never initialised, for a null or non-finite pose, or a time
  /// earlier than the last time (nothing changed). The pose-to-increment
  /// conversion does not fail; its code is passed on should that change.
  int correct(const double* measuredPose, double time);

  // ---------------------------------------------------------------- getters
  /// Copies the velocity (state elements 7-12) into velocity (6).
  void getVelocity(double* velocity) const;

  // ---------------------------------------------------------------- data
  double m_A[144];  ///< transition of the last prediction
  double m_Tpred[16];
  double m_statePred[12];  ///< increment (zero after predict) and velocity
  double m_Test[16];       ///< the last measured pose
  double m_stateEst[12];   ///< increment and velocity per time unit
  double m_lastTime;       ///< of the last init or correct; -1 when never initialised
  bool m_useAngleAxis;     ///< increments as angle-axis vectors instead of twists
};

}  // namespace ZOTtracker
