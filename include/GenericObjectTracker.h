/// @file
/// The tracker a host creates, one per tracked object: the cameras with their
/// calibration, undistortion tables and image buffers, the tracking
/// parameters, the object model, the contour tracker and the motion
/// predictors.
///
/// Use: reserve the pools (doBigMalloc), construct, call
/// setupFromGlobalArray() once with the setup array, then poseEstimation()
/// per frame (the first call of a track with `initialise` set) and, if
/// wanted, drawResult(). Destroy the tracker before doBigFree(): the tracker
/// returns nothing to the pools.
///
/// Setup array layout (doubles; integers are stored as integral values and
/// truncated toward zero when read; indices are 1-based and stored 0-based):
/// nCameras; per camera width, height, near, far, fx, fy, cx, cy, skew, the
/// five distortion coefficients (k1, k2, p1, p2, k3), the first three rows of
/// the camera pose in the tool frame (12), nMaskPolygons and per polygon
/// nVertices and its (u, v) pairs; the 23 tracking parameters in the order of
/// TrackingParameters; nLocalFrames and per frame 12 values (first three
/// rows); nBodies and per body a type code (0 polyhedron, 1 polyline, 2
/// cylinder) followed by its data: polyhedron flat flag, feature angle,
/// nVertices, x y z per vertex, nFaces, per face its vertex count and
/// indices; polyline supporting body and face (0 none), nVertices, x y z per
/// vertex, nEdges, two indices per edge; cylinder radius and the vectors p1,
/// p2, nb, nt (bottom centre, top centre, bottom and top plane normals).
///
/// The readers check every count before they read or reserve: they never
/// read past the `count` values of the array, never write past the fixed
/// capacities (ZOT_MAX_CAMERAS cameras, ZOT_MAX_MASK_POLYGONS polygons of
/// ZOT_MAX_MASK_VERTICES vertices per camera, ZOT_MAX_LOCAL_FRAMES local
/// frames, ZOT_MAX_BODIES bodies, ZOT_MAX_FACE_VERTICES vertices per face) and
/// never hand a pool a request it cannot have been meant for. Anything they
/// refuse prints one "ERROR: ..." line and makes the set-up return -1. An
/// array that ends while the layout still needs values also prints the total
/// check "ERROR: total numbers read <n> should be: <count>", with n the number
/// of values the layout needed up to the point where reading stopped. Further
/// checks made here: a non-finite or out-of-range integer, an image size
/// outside 1..ZOT_MAX_IMAGE_SIDE, a polyline edge naming a vertex that does
/// not exist, an unknown body type and a face of more than
/// ZOT_MAX_FACE_VERTICES vertices are all refused with a message. Negative
/// counts read as zero (an empty group).
#pragma once

#include "ContourTracker.h"
#include "KalmanFilter.h"
#include "Multibody.h"
#include "SimplePredictor.h"

namespace ZOTtracker {

/// Largest number of vertices of one polyhedron face in a setup array.
constexpr int ZOT_MAX_FACE_VERTICES = 100;
/// Largest image width or height the set-up accepts, in pixels.
constexpr int ZOT_MAX_IMAGE_SIDE = 16384;

/// Wall-clock time of the stages of the last poseEstimation call, in
/// milliseconds (monotonic clock). Stages the call did not reach are 0.
struct FrameStageTimes {
  double undistortionMs;  ///< undistortion (or copy) of every enabled camera
  double edgesMs;         ///< Sobel and Canny of every enabled camera
  double poseUpdateMs;    ///< the Gauss-Newton loop, contour sampling included
  double totalMs;         ///< the whole call, prediction and filter update included
};

class GenericObjectTracker {
 public:
  /// Tracking thresholds, filled with the defaults by the constructor and
  /// overwritten in this order by the tracker section of the setup array.
  /// Rotations are in degrees, translations in the model's length unit.
  struct TrackingParameters {
    /// The defaults: 100, 1.0, 2, 1.0, 20, 50, 100, 20.0, 10, 0.0, 0.0, 50.0,
    /// 50.0, 0.5, 0.5, 1.0, 0.0, 0.0, 100.0, 100.0, 1.0, 1.0, 1000.0. With
    /// both convergence bounds 0 no frame can converge: a configuration must
    /// set them.
    TrackingParameters();

    int m_maxNSamplePointsPerCam;  ///< sample capacity per camera (sizes the buffers)
    double m_facingTolerance;      ///< facing tolerance of the contour sampler
    int m_samplingStep;            ///< pixels between samples along a visible edge
    double m_minEdgeLength;        ///< shorter edge pieces are not sampled
    int m_searchRange;             ///< pixels searched along each normal
    int m_cannyLowThreshold;
    int m_cannyHighThreshold;
    double m_maxAngleDeg;        ///< largest normal-to-gradient angle of a match
    int m_maxIterations;         ///< Gauss-Newton iterations; reaching it fails with -6
    double m_convergenceRot;     ///< converged when one update rotates less than this ...
    double m_convergenceTransl;  ///< ... and moves the pose less than this
    double m_maxAbsRot;          ///< largest rotation away from the frame's start pose (-4)
    double m_maxAbsTransl;       ///< largest translation away from the start pose (-4)
    double m_minInliersLoop;     ///< least matched points in every iteration (-2)
    double m_minInliersFinal;    ///< least matched points after convergence (-2)
    double m_maxFinalCost;       ///< largest final mean cost when > 0 (-9)
    double m_resampleRot;        ///< resample the contour after this much rotation ...
    double m_resampleTransl;     ///< ... or translation since the last sampling
    double m_kfAccNoiseRot;      ///< Kalman rotational acceleration noise
    double m_kfAccNoiseTransl;   ///< Kalman translational acceleration noise
    double m_measStdRot;         ///< measurement standard deviation, rotation (degrees)
    double m_measStdTransl;      ///< measurement standard deviation, translation
    double m_kfInitialCov;       ///< diagonal of the Kalman covariance at the start of a track
    /// The extension items of the tracker file (robust estimator); off
    /// unless the setup array carries them. A host may change them between
    /// set-up and a frame; polarity memory needs the buffers a set-up
    /// reserves when the array carries the extension block.
    RobustSettings m_robust;
  };

  // ---------------------------------------------------------------- set-up
  /// No cameras, default tracking parameters, edge detection on. Holds no
  /// pool memory; the per-camera pointers are null until the set-up.
  GenericObjectTracker();
  /// Returns nothing to the pools (they are released as a whole by doBigFree).
  ~GenericObjectTracker();

  /// Configures the tracker from the setup array of `count` values: cameras
  /// (frustums, undistortion maps and tables), tracking parameters and model,
  /// then the Kalman filter parameters, the contour tracker and the model
  /// buffers. Returns 0, or -1 after a message: a section refused its data
  /// (including what can never track, see SetupArray.h: no camera or no
  /// body, camera values not finite, positive or ordered where needed, a
  /// pose rotation that is not one, no sample capacity, a zero sampling
  /// step), a body failed, or the values read differ from count ("ERROR:
  /// total numbers read <n> should be: <count>"; checked only after
  /// everything has been built, so the pools stay consumed). Every call
  /// takes fresh pool memory. Until a later call succeeds, a failed call
  /// leaves no camera enabled, so frames fail cleanly. A valid array whose
  /// buffers do not fit the free part of the pools is refused first, with
  /// nothing taken (setupFitsPools()).
  int setupFromGlobalArray(int count, const double* array);

  /// Section readers: each reads its part of `array` from `cursor` on, never
  /// past `count` values, and leaves `cursor` after it. Return 0 or -1.
  ///
  /// Cameras: reserves K, distortion and tool-to-camera transform of every
  /// camera, then reads each camera (the transform stored is the inverse of
  /// the camera pose in the array), its viewing frustum and mask polygons,
  /// then reserves maps, tables and the undistorted image of every camera
  /// and builds the undistortion of the cameras with distortion.
  int setupCameraParam(int& cursor, const double* array, int count);
  /// The 23 tracking parameters, in declaration order.
  int setupTrackerParam(int& cursor, const double* array, int count);
  /// Local frames, then the bodies; marks every body active.
  int setupModelParam(int& cursor, const double* array, int count);
  /// One polyhedron from nVertices on: takes its vertices, face normals,
  /// facing values, face sizes and two index lists per face from the pools
  /// and returns Polyhedron::init(flat, angle).
  static int setupPolyhedron(int& cursor, const double* array, Polyhedron& body, bool flat,
                             double angle, int count);
  /// One polyline from nVertices on: points (and the sampler's scratch of
  /// the same size) and segments from the pools. Returns 0.
  static int setupPolyline(int& cursor, const double* array, Polyline& body, int count);

  // ---------------------------------------------------------------- per-frame operations
  /// One frame: predicts the object's world pose for `time` with the Kalman
  /// filter, undistorts each enabled camera's image (copies it when the
  /// camera has no distortion), detects edges (unless m_doEdgeDetection is
  /// false: then the previous edge maps are used), refines the predicted
  /// pose (tool frame = toolPose^-1 * world) by Gauss-Newton with dofMask (6,
  /// 0 freezes a parameter; null frees all) and corrects the filter with
  /// toolPose * refined pose.
  ///
  /// images: one width x height grey image per camera. toolPose: the tool in
  /// the world frame. With `initialise` the track starts from initPose (the
  /// object in the tool frame), initVelocity (6, degrees and length per time
  /// unit) and initTime. On success writes the refined pose (object in the
  /// tool frame, not the filtered one), the filter's velocity (6) and the
  /// 6 x 6 pose covariance (36); a null output is skipped. Returns 0, or a
  /// negative code with no output written: -1 with a message for a tracker
  /// without cameras (no successful set-up), a null tool pose, a missing
  /// image of an enabled camera, missing initial values or a tool pose (or,
  /// with `initialise`, an initial pose) that is not a finite rigid
  /// transform: non-finite entries, a last row other than 0 0 0 1, or a
  /// rotation block R with some entry of R R^T - I beyond 1e-4 or det R <= 0
  /// (nothing changed), and for invalid initial values; -1 without one for
  /// a filter never initialised or a time earlier than the last; -16 from
  /// edge detection;
  /// the Gauss-Newton codes (-2, -4, -5, -6, -7, -9); the filter
  /// correction's code. After a failure the filter keeps its previous
  /// estimate (a new track keeps its start). timing logs "Undistortion
  /// (2x)", "Edge detection (2x)" and "Total Gauss-Newton loop (pose
  /// estimation)" (after the loop's own lines) to the diagnostic string;
  /// display and verbose go to the loop.
  /// Allocates nothing.
  int poseEstimation(const unsigned char* const* images, double time, const double* toolPose,
                     const double* initPose, const double* initVelocity, double initTime,
                     double* pose, double* velocity, double* covariance, const double* dofMask,
                     bool initialise, bool timing, bool display, bool verbose);

  /// Figures of the fit the last poseEstimation call returned or refused
  /// (robust estimator only; all 0 with the designed one or before the
  /// loop ran). With the robust estimator a frame succeeds only when its
  /// inlier fraction and inlier residual pass m_robust's limits, so a host
  /// can watch these to see a track degrade before it is lost.
  const FitQuality& lastFitQuality() const { return m_lastQuality; }

  /// Stage times of the last poseEstimation call (all 0 before the first),
  /// measured whether or not `timing` was set.
  const FrameStageTimes& lastFrameTimes() const { return m_lastFrameTimes; }

  /// Gauss-Newton refinement of pose (object in the tool frame, in/out) on
  /// the current edge maps with the tracking parameters; covariance (36) is
  /// zero-filled. Returns the loop's code; on failure pose is restored.
  int poseUpdateLoop(double* pose, double* covariance, const double* dofMask, bool timing,
                     bool display, bool verbose);

  /// Builds the undistortion maps and integer tables of every camera with
  /// distortion; the others get nothing built.
  void initAllUndistortMaps();
  /// Undistorts source into destination through the tables of `camera`.
  /// A camera outside 0..m_nCameras-1 prints "undistortImage: INCORRECT
  /// CAMERA NUMBER!" and leaves destination as it is.
  void undistortCameraImage(const unsigned char* source, unsigned char* destination, int camera);
  /// For every enabled camera: undistorts images[c] into m_undistortedImage[c],
  /// or copies it when the camera has no distortion. Disabled cameras keep
  /// their previous image. Returns 0, or -1 with a message and nothing done
  /// when an enabled camera has no image.
  int undistortAllImages(const unsigned char* const* images);
  /// Sobel and Canny of every enabled camera's undistorted image. Returns 0
  /// or the edge detector's code (-16).
  int edgeDetectAllImages();

  /// Draws camera cameraIndex's undistorted image as colour into `image`
  /// (width x height x 3, blue-green-red) with the model's visible contour at
  /// pose (object in the tool frame) in pure red, one sample per pixel, and
  /// with drawFrame the axes of framePose (relative to the object; null: the
  /// object's own frame) of length frameLength. A disabled camera gives an
  /// all-black image. Prints "--np points--<n> \n" with the number of
  /// samples. A camera index outside 0..m_nCameras-1 prints "ERROR: invalid
  /// camera index!" and leaves the image untouched; so does a null image or
  /// pose, with its own message.
  void drawResult(const double* pose, unsigned char* image, int cameraIndex, bool drawFrame,
                  double frameLength, const double* framePose);

  // ---------------------------------------------------------------- data
  int m_nCameras;
  int m_imageWidth[ZOT_MAX_CAMERAS];
  int m_imageHeight[ZOT_MAX_CAMERAS];
  double m_zNear[ZOT_MAX_CAMERAS];          ///< near clipping depth of the viewing frustum
  double m_zFar[ZOT_MAX_CAMERAS];           ///< far clipping depth
  double* m_K[ZOT_MAX_CAMERAS];             ///< 3 x 3 camera matrix
  double* m_distCoeffs[ZOT_MAX_CAMERAS];    ///< k1, k2, p1, p2, k3
  double* m_toolToCamera[ZOT_MAX_CAMERAS];  ///< 4 x 4: tool frame into the camera frame
  double* m_undistMapX[ZOT_MAX_CAMERAS];    ///< source x per undistorted pixel
  double* m_undistMapY[ZOT_MAX_CAMERAS];    ///< source y per undistorted pixel
  int* m_undistTable1[ZOT_MAX_CAMERAS];     ///< weight w00
  int* m_undistTable2[ZOT_MAX_CAMERAS];     ///< weight w10
  int* m_undistTable3[ZOT_MAX_CAMERAS];     ///< weight w01
  int* m_undistTable4[ZOT_MAX_CAMERAS];     ///< weight w11
  int* m_undistTable5[ZOT_MAX_CAMERAS];     ///< source index
  int m_undistort[ZOT_MAX_CAMERAS];         ///< 1 when a distortion coefficient is non-zero
  /// Current frame, input of the edges. With the region of interest only
  /// the pixels of m_imageRegion are of this frame, and with the lens in the
  /// projection they are the camera's own, not undistorted; with both none
  /// is written (the edges come from the camera's images): a host that
  /// wants the whole undistorted image (an overlay) calls undistortAllImages
  /// first.
  unsigned char* m_undistortedImage[ZOT_MAX_CAMERAS];
  /// Region of interest of the last frame per camera (x0, y0, x1, y1
  /// inclusive, inside the image; x0 > x1 when the model is not in view):
  /// where the model's vertices project at the predicted pose, grown by the
  /// search range and the region margin (and by the recovery range while a
  /// recovery searches). Meaningful only with the region of interest on;
  /// with the lens in the projection it is a region of the camera's own
  /// image.
  int m_imageRegion[ZOT_MAX_CAMERAS][4];
  /// With the region of interest, per camera the row spans of the region (2
  /// ints per image row, Multibody::projectedBounds): the edges are found in
  /// them only. Null with the region off.
  int* m_imageSpans[ZOT_MAX_CAMERAS];
  /// Per camera its distortion when the lens is in the projection and the
  /// camera has one, else null (set by each frame).
  const double* m_lensDistortion[ZOT_MAX_CAMERAS];
  ContourTracker m_contourTracker;
  Multibody m_multibody;
  TrackingParameters m_trackingParams;
  bool m_doEdgeDetection;            ///< false: reuse the previous frame's edge maps
  FrameStageTimes m_lastFrameTimes;  ///< see lastFrameTimes()
  FitQuality m_lastQuality;          ///< see lastFitQuality()
  double m_lastGoodWorldPose[16];    ///< robust recovery: world pose of the last good fit
  bool m_haveLastGood;               ///< false until a fit of the current track succeeded
  KalmanFilter m_kalmanFilter;
  SimplePredictor m_simplePredictor;  ///< kept for hosts; poseEstimation uses the Kalman filter

 private:
  /// The Gauss-Newton settings of the tracking parameters.
  GaussNewtonSettings loopSettings(const double* dofMask, bool timing, bool display,
                                   bool verbose) const;
  /// Robust recovery after a failed fit: coarse-to-fine searches from the
  /// prediction and from the last good pose (tool frame via toolInverse);
  /// keeps the successful one of least robust cost in pose. Returns 0 or
  /// `failure`, the first attempt's code.
  int recoverPose(const double* predicted, const double* toolInverse, double* pose,
                  double* covariance, const double* dofMask, int failure, bool timing, bool display,
                  bool verbose);
  /// Edge detection of the frame in `sources` (m_undistortedImage, or with
  /// both speed modes the camera's images): fixed or image-driven
  /// thresholds, on the whole images or, with the region of interest, in
  /// m_imageRegion.
  int detectEdges(const double* predicted, const unsigned char* const* sources);
  /// Region of interest: m_imageRegion of every camera from the predicted
  /// pose (tool frame), grown by `grow` pixels.
  void computeImageRegions(const double* predicted, double grow);
  /// The frame's undistortion and edges, timed into m_lastFrameTimes (added
  /// to what the frame spent already); with the region of interest inside
  /// regions grown by `grow`. Returns 0 or the first failing step's code.
  int prepareImages(const unsigned char* const* images, const double* predicted, double grow,
                    bool timing);
  /// poseEstimation without the call's own timing (same arguments, result).
  int estimateFrame(const unsigned char* const* images, double time, const double* toolPose,
                    const double* initPose, const double* initVelocity, double initTime,
                    double* pose, double* velocity, double* covariance, const double* dofMask,
                    bool initialise, bool timing, bool display, bool verbose);
};

/// Checks, before a set-up takes anything, that the free part of every pool
/// holds what a set-up from `array` (`count` values) takes (computePoolSizes()
/// with margin 0). Returns 0 when it does, and also for an array the set-up
/// will refuse for its layout (that refusal has its own message); otherwise
/// -1 after "ERROR: the setup array needs <n> elements of the <pool> pool,
/// <m> are free". setupFromGlobalArray() calls it, so that a configuration too
/// large for the reserved pools is refused instead of ending the process.
int setupFitsPools(int count, const double* array);

}  // namespace ZOTtracker
