/// @file
/// A tracker with its configuration and its memory in one object, for hosts
/// that want the first frame in a few lines:
///
/// @code
/// ZOTtracker::TrackerSession session("data", "camera_mono.txt", "tracker_demo.txt",
///                                    "model_chamfered_box.txt");
/// if (!session.ok()) return 1;                 // session.message() says why
/// session.start(initialPose);                  // object in the tool frame, 16 doubles
/// ZOTtracker::TrackResult r = session.track(images, time, toolPose);
/// if (r.code != 0) puts(r.message);            // else r.pose, r.velocity, r.covariance
/// @endcode
///
/// The session parses the configuration (or takes a setup array), reserves
/// the typed pools with computePoolSizes() unless the host has reserved them,
/// owns the GenericObjectTracker and keeps the per-frame arguments of
/// poseEstimation() (start pose, degree-of-freedom mask, flags) that a host
/// rarely changes. It adds no work per frame and allocates nothing per frame.
/// Nothing throws: failures are codes with a message, like the rest of the
/// library.
///
/// One session at a time per process: the pools and the diagnostic string are
/// process-wide, so a second session constructed while one exists is refused
/// (ok() false, with a message saying so) and touches nothing.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "GenericObjectTracker.h"

namespace ZOTtracker {

/// Outcome of one frame.
struct TrackResult {
  /// 0, or a negative error code (those of poseEstimation(); -1 also when the
  /// session is not ready or no track was started).
  int code = -1;
  /// errorMessage(code), or the session's own text for its -1 cases. Points
  /// to static text or into the session; valid while the session lives.
  const char* message = "";
  double pose[16] = {};        ///< object in the tool frame, row-major; written when code is 0
  double velocity[6] = {};     ///< rotation (degrees) then translation per time unit
  double covariance[36] = {};  ///< 6 x 6 pose covariance of the Kalman filter
  /// Contour samples of the last Gauss-Newton evaluation over all cameras
  /// and how many of them matched an image edge; filled when the frame
  /// reached the Gauss-Newton loop (code 0 or a loop failure such as -2),
  /// else 0. With the robust estimator matchedSamples is the sum of the
  /// samples' weights.
  int samples = 0;
  int matchedSamples = 0;
  /// The robust estimator's figures of the fit (GenericObjectTracker::
  /// lastFitQuality()): inlier fraction, inlier residual, camera
  /// disagreement; all 0 with the designed estimator.
  FitQuality quality = {};
  FrameStageTimes times = {};  ///< stage times of the frame in milliseconds
};

class TrackerSession {
 public:
  /// Parses directory/cameraFile, trackerFile and modelFile (the formats of
  /// FileParser) and sets a tracker up from them.
  TrackerSession(const char* directory, const char* cameraFile, const char* trackerFile,
                 const char* modelFile);
  /// Sets a tracker up from a setup array of `count` values (copied).
  TrackerSession(int count, const double* setupArray);
  /// Destroys the tracker and, when the session reserved the pools, releases
  /// them with doBigFree().
  ~TrackerSession();
  TrackerSession(const TrackerSession&) = delete;
  TrackerSession& operator=(const TrackerSession&) = delete;

  /// True when the tracker is set up. Otherwise code() and message() say
  /// why, and every other call fails with that code.
  bool ok() const { return m_code == 0; }
  /// 0 when ready; the parser's code (-10 to -14) for an unreadable file; -1
  /// for a failed set-up, a second session or pools without room.
  int code() const { return m_code; }
  /// "OK" when ready, else one line saying what went wrong.
  const char* message() const { return m_message.c_str(); }

  /// Starts a new track at the next track(): initialPose is the object in the
  /// tool frame (16 doubles), initialVelocity 6 doubles or null for rest.
  /// The filter starts at the time stamp of that frame. Returns 0, or -1
  /// (with message()) when the session is not ready or initialPose is null.
  int start(const double* initialPose, const double* initialVelocity = nullptr);

  /// One frame: images holds one width x height grey image per camera
  /// (imageWidth(c) x imageHeight(c) bytes, row-major, no padding), time
  /// its time stamp (non-decreasing), toolPose the tool in the world frame
  /// (16 doubles; null: the identity, a fixed camera). Calls poseEstimation()
  /// with the start pose when start() asked for it. A failed frame keeps the
  /// filter's estimate, and the next frame goes on from it.
  TrackResult track(const unsigned char* const* images, double time,
                    const double* toolPose = nullptr);

  /// Draws camera `camera`'s last undistorted image with the model contour
  /// at the last estimated pose (the start pose before the first success)
  /// into bgr (imageWidth x imageHeight x 3 bytes, blue-green-red), with
  /// the object's axes of length frameLength when it is > 0. images, when
  /// given, are the last frame's images, undistorted whole first: the speed
  /// modes (region of interest, lens in the projection) undistort only part
  /// of a frame or none, so without them the picture shows older frames
  /// there. Returns 0, or -1 with nothing drawn for a session not ready, no
  /// track started, a bad camera index or a null image.
  int draw(unsigned char* bgr, int camera, double frameLength = 0.0,
           const unsigned char* const* images = nullptr);

  /// Degree-of-freedom mask for the following frames: 6 values, rotation
  /// then translation, 0 freezes a parameter. All 1 at construction.
  void setDofMask(const double* mask);

  int nCameras() const;                                  ///< 0 when not ready
  int imageWidth(int camera) const;                      ///< 0 for a bad index
  int imageHeight(int camera) const;                     ///< 0 for a bad index
  const double* lastPose() const { return m_lastPose; }  ///< see draw()
  /// The setup array the session was set up from (empty when parsing failed).
  const std::vector<double>& setupArray() const { return m_setup; }
  /// The designed API underneath, for what the session does not cover;
  /// null when not ready.
  GenericObjectTracker* tracker() { return ok() ? m_tracker.get() : nullptr; }

 private:
  /// Makes this the process's one session; false (after fail()) when
  /// another exists.
  bool claimProcess();
  /// Reserves the pools unless the host has, and sets the tracker up from m_setup.
  void setUp();
  int fail(int code, const std::string& message);

  std::unique_ptr<GenericObjectTracker> m_tracker;
  std::vector<double> m_setup;
  int m_code = -1;
  std::string m_message;
  bool m_ownsPools = false;   ///< reserved here, released by the destructor
  bool m_counted = false;     ///< this is the process's one session
  bool m_started = false;     ///< a start pose exists
  bool m_initialise = false;  ///< the next frame starts the track
  double m_startVelocity[6] = {};
  double m_lastPose[16] = {};
  double m_dofMask[6] = {1.0, 1.0, 1.0, 1.0, 1.0, 1.0};
};

}  // namespace ZOTtracker
