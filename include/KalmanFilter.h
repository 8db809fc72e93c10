/// @file
/// Motion prediction of the object's world pose: an error-state Kalman filter
/// with a constant-velocity model driven by white acceleration noise, and the
/// helpers it shares with the simple predictor.
///
/// The state has 12 elements: a pose increment (rotation in degrees, then
/// translation, the twist order of Math.h) relative to a stored 4 x 4
/// reference pose, and the velocity in the same order per time unit. The pose
/// itself never enters the state: after each prediction and correction the
/// increment is folded into the stored pose by right multiplication and reset
/// to zero. The measurement is a full pose; its innovation is the increment
/// from the predicted to the measured pose. The gain inverts the innovation
/// covariance through an SVD pseudo-inverse, and the covariance update uses
/// the Joseph form so that it stays symmetric and positive semi-definite.
///
/// All matrices are fixed-size members: nothing here allocates. Failures are
/// codes only (no messages); a failed call leaves the estimate and the last
/// time stamp as they were.
#pragma once

namespace ZOTtracker {

// ---------------------------------------------------------------- helpers shared with
/// SimplePredictor F = I12 with F(i, i+6) = dt for i = 0..5: constant-velocity transition.
void constantVelocityTransition(double dt, double* F);
/// T <- T * exp(increment) (updatePoseTwist), or T * TfromAngleAxis(increment)
/// when angleAxis is set (updatePoseAngleAxis). increment: 6 values, degrees first.
void updatePoseIncrement(double* T, const double* increment, bool angleAxis);
/// Increment of the pose T: TwistFromT, or AngleAxisFromT when angleAxis is
/// set. Returns the conversion's code, which is 0 for every rotation.
int poseIncrementFromT(const double* T, double* increment, bool angleAxis);
/// statePred = F * state (12), Tpred = T updated by statePred[0..5], then
/// statePred[0..5] = 0. None of the outputs may alias an input.
void predictPoseAndState(const double* F, const double* T, const double* state, bool angleAxis,
                         double* Tpred, double* statePred);
/// True for a usable start of a track: finite pose (16) and velocity (6), a
/// finite time that is not negative (negative marks "not initialised").
bool validTrackStart(const double* pose, const double* velocity, double time);
/// True when a track was started (lastTime >= 0) and time is finite and not
/// earlier than lastTime; the negated comparison also turns away NaN.
bool validTimeStep(double lastTime, double time);

class KalmanFilter {
 public:
  // ---------------------------------------------------------------- set-up
  /// Noise scales and initial covariance 0, last time -1 (not initialised),
  /// twist increments; every matrix and vector zero except the predicted and
  /// estimated poses, which are the identity.
  KalmanFilter();

  /// Stores the acceleration-noise scales of the rotational (degrees per time
  /// unit squared) and translational parts and the value put on the diagonal
  /// of the covariance by init(); sets H = [I6 0] and its transpose. Returns
  /// 0, or -1 with nothing changed when a value is not finite or the initial
  /// covariance is negative.
  int setParams(double rotationalNoise, double translationalNoise, double initialCovariance);

  /// Starts a track: estimated pose = pose (4 x 4), estimated state = six
  /// zeros then the six velocity values (rotational in degrees, then
  /// translational, per time unit), estimated covariance = initialCovariance
  /// times I12, last time = time. Returns 0, or -1 with nothing changed for a
  /// null or non-finite argument or a negative time (negative last times mark
  /// a filter that was never initialised).
  int init(const double* pose, const double* velocity, double time);

  // ---------------------------------------------------------------- per-frame operations
  /// Predicts pose, state and covariance at `time` from the last estimate over
  /// dt = time - last time; only the predicted fields, the transition and the
  /// process noise change (last time stays). dt = 0 reproduces the estimate.
  /// Returns 0, or -1 when never initialised or when time is earlier than the
  /// last time or not finite.
  int predict(double time);

  /// Corrects the last prediction with the measured pose (4 x 4) and its 6 x 6
  /// covariance R (rotation in degrees squared first). The innovation
  /// covariance is inverted by SVD with singular values up to machine epsilon
  /// treated as zero, so a singular one does not fail. Afterwards the
  /// estimated pose holds the corrected pose, the state's increment is zero
  /// and its velocity part absorbed the gain's share, and last time = time.
  /// Returns 0; -1 when never initialised, for a null or non-finite input,
  /// a time earlier than the last time, or a failing SVD (the conversion of
  /// the pose difference to an increment does not fail). On failure the
  /// estimate and last time are unchanged.
  int correct(const double* measuredPose, const double* R, double time);

  // ---------------------------------------------------------------- getters
  /// Copies the estimated velocity (state elements 7-12) into velocity (6).
  void getVelocity(double* velocity) const;
  /// Copies the top-left 6 x 6 (pose) block of the estimated covariance, row
  /// by row, into covariance (36).
  void getPoseCovariance(double* covariance) const;

  // ---------------------------------------------------------------- diagnostics
  /// Prints, with print_matrix, "A", "W", "H", "K", "T pred", "state pred"
  /// (1 x 12), "Cov pred", "T est", "state est" (1 x 12) and "Cov est".
  void dumpValues() const;

  // ---------------------------------------------------------------- data
  double m_A[144];   ///< transition of the last prediction
  double m_AT[144];  ///< its transpose
  double m_accNoiseRot;
  double m_accNoiseTransl;
  double m_W[144];  ///< process noise of the last prediction
  double m_H[72];   ///< measurement matrix [I6 0]
  double m_HT[72];  ///< its transpose
  double m_initialCov;
  double m_Tpred[16];
  double m_statePred[12];  ///< increment (zero after predict) and velocity
  double m_covPred[144];
  double m_work1[144];  ///< scratch for the products of predict and correct (S in m_work2)
  double m_work2[144];
  double m_work3[144];
  double m_work66[36];    ///< pseudo-inverse of the innovation covariance S
  double m_svdU[36];      ///< left singular vectors of S (columns)
  double m_svdV[36];      ///< right singular vectors of S (columns)
  double m_svdW[6];       ///< singular values of S, decreasing
  double m_svdWork[42];   ///< matrixSVD work vector
  int m_svdIndex[6];      ///< matrixSVD sort order
  double m_K[72];         ///< gain of the last correction
  double m_KT[72];        ///< its transpose
  double m_Test[16];      ///< reference pose after the last correction
  double m_stateEst[12];  ///< increment (zero) and velocity
  double m_covEst[144];
  double m_lastTime;    ///< of the last init or correct; -1 when never initialised
  bool m_useAngleAxis;  ///< increments as angle-axis vectors instead of twists
};

}  // namespace ZOTtracker
