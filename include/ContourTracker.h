/// @file
/// Contour-based pose estimation: per-camera edge maps and gradients, the
/// reprojected model contour with its normals and Jacobians, the matches found
/// along the normals, and the Gauss-Newton loop that refines the object pose
/// from the stacked normal residuals.
///
/// Pose increments are (wx, wy, wz, tx, ty, tz): a small rotation in degrees
/// about the object's own axes, then a translation in the model's length unit.
/// They compose from the right, T <- T * exp(increment).
///
/// Every buffer comes from the typed pools in init(); the per-frame calls
/// (edgeDetect, poseUpdateLoop and the steps below it) allocate nothing and do
/// no I/O unless a timing, debug or verbose flag asks for it. Failures are the
/// negative codes of IO.h.
#pragma once

#include "Multibody.h"

namespace ZOTtracker {

struct RobustSettings;

/// Full path of the text file written by ContourTracker::correlateEdges
/// ("matching_points.dat" in the directory chosen at build time).
const char* correlateEdgesOutputPath();

/// Slots of each camera's polarity memory (a power of two): the model edges
/// whose polarity is remembered, at most half of them for short probes.
constexpr int ZOT_POLARITY_SLOTS = 1024;

/// Least side of a region of interest, in pixels (where the image is that
/// large): 32 x 32 = 1024 pixels is the least Canny works on.
constexpr int ZOT_MIN_REGION_SIDE = 32;

/// Sub-pixel position of the edge through pixel (x, y): the vertex of the
/// parabola through the gradient magnitude (Euclidean, from the Sobel
/// derivatives gx, gy of a width x height image) at the pixel and at its two
/// neighbours along the gradient, quantised to Canny's four directions; the
/// offset is clamped to half a step. Returns true with refined = (x, y) +
/// offset * step, or false with refined = (x, y) at the image border or
/// where the magnitude has no peak across the edge.
bool refineEdgeSubpixel(const short* gx, const short* gy, int width, int height, int x, int y,
                        double* refined);

/// Settings of one cost evaluation (ContourTracker::computeOverallCostAndJacobian).
struct CostSettings {
  double facingTolerance;         ///< contour sampler: faces turned away by less are skipped
  double minEdgeLength;           ///< contour sampler: shorter pieces are not sampled
  int samplingStep;               ///< contour sampler: pixels between samples along an edge
  double searchRange;             ///< pixels along the normal; residual of an unmatched point
  double maxAngleDeg;             ///< largest angle between normal and edge gradient
  bool computeJacobian;           ///< also the Jacobian rows
  bool translationInObjectFrame;  ///< translation columns in the object frame
  bool resample;                  ///< sample the contour again at this pose
  bool match;                     ///< match again; otherwise keep the previous matches
  bool timing;                    ///< report each step's time
  bool showDebug;                 ///< the sampler's debug views
  bool verbose;                   ///< messages on standard output
  const RobustSettings* robust =
      nullptr;  ///< enabled: robust matching (see matchAlongNormalsRobust)
  /// Per camera its distortion (k1, k2, p1, p2, k3) when its images are not
  /// undistorted (projectThroughLens); null, or a null entry: undistorted.
  const double* const* lensDistortion = nullptr;
};

/// The tracker file's extension items in their order (format version
/// ZOT_EXTENSION_VERSION, see SetupArray.h): the robust estimator, an
/// opt-in alternative to the designed one (nearest Canny pixel, 0/1
/// weights, convergence on the update's size), then the region of interest
/// and the pixel-based re-sampling, which work with either estimator. The
/// constructor switches every mode off and sets every other field to the
/// value data/README.md gives as its default. Lengths are in pixels.
struct RobustSettings {
  RobustSettings();
  int enabled;               ///< 1: the robust estimator; 0: the designed one
  int estimator;             ///< M-estimator: 0 Tukey's biweight, 1 Huber
  double tuning;             ///< its constant in units of the scale; 0: 4.685 / 1.345
  double scaleFloorPx;       ///< least residual scale (median absolute deviation)
  double inlierWeight;       ///< a sample with a larger weight counts as an inlier
  int polarityMemory;        ///< 1: prefer edges of the polarity seen at the last good fit
  double cannyAutoRatio;     ///< > 0: Canny's high threshold from the image, see edgeDetect
  double cannyLowRatio;      ///< low threshold = this times the high one (adaptive only)
  double cannyFloor;         ///< least low threshold (adaptive only)
  double convergencePx;      ///< converged when no sample moves more than this
  double costChange;         ///< relative change of the robust cost counted as stalled
  double recoveryRangePx;    ///< > 0: after a failed fit, search again this far
  double minInlierFraction;  ///< a fit with fewer inliers (of all samples) is lost
  double maxResidualPx;      ///< a fit whose inliers' RMS residual is larger is lost
  double maxDisagreementPx;  ///< a fit whose cameras disagree by more is lost (0: no test)
  /// 1: undistortion, Sobel and Canny only inside each camera's region of
  /// interest (GenericObjectTracker::imageRegions); edges outside are empty.
  int regionOfInterest;
  double regionMarginPx;  ///< room of the region beyond the search range, for the fit's moves
  /// > 0: re-sample the contour once the samples may have moved this far
  /// since the last sampling, instead of the rotation and translation limits.
  double resamplePx;
  /// 1: no image undistortion; the samples are projected through the lens
  /// model instead (ContourTracker::projectThroughLens) and matched in the
  /// camera's own image.
  int lensInProjection;
  /// Whether sampling takes the cheaper visibility: a float Z-buffer
  /// (Multibody::useFloatDepth), none where the faces' facing decides
  /// (Multibody::useFacingVisibility). With either speed mode, whose frames
  /// are short enough for the Z-buffer's clearing and filling to count.
  bool cheapVisibility() const { return regionOfInterest != 0 || lensInProjection != 0; }
};

/// Per-fit figures of the robust estimator (all 0 for the designed one).
struct FitQuality {
  int samples;            ///< contour samples of the last evaluation, all cameras
  double inlierFraction;  ///< samples whose weight passed inlierWeight, over samples
  double residualPx;      ///< weighted RMS normal residual of the inliers
  double robustCost;      ///< mean M-estimator cost per sample at the scale floor [px^2]
  double scalePx;         ///< residual scale of the last iteration
  int iterations;         ///< Gauss-Newton iterations made
  int stalled;            ///< 1: accepted at the iteration limit with a stalled cost
  /// Largest RMS move (pixels, along the normals, over its inliers) that one
  /// camera's own update would still add to the joint fit: near 0 when the
  /// cameras agree, large when model or calibration do not fit them all
  /// (a model of the wrong size, a wrong focal length). 0 with one camera.
  double disagreementPx;
};

/// Settings of one Gauss-Newton run (ContourTracker::poseUpdateLoop); the
/// fields follow that call's arguments in order, then the robust settings.
struct GaussNewtonSettings {
  int maxIterations;
  double convRotDeg;    ///< convergence: rotation of an increment [deg]
  double convTransl;    ///< convergence: translation move of one iteration
  double maxAbsRotDeg;  ///< divergence: rotation from the entry pose [deg]
  double maxAbsTransl;  ///< divergence: translation from the entry pose
  double facingTolerance;
  int samplingStep;
  double minEdgeLength;
  double searchRange;
  double maxAngleDeg;
  double minInliers;       ///< matched points needed in every iteration
  double minInliersAtEnd;  ///< matched points needed after convergence
  double maxFinalCost;     ///< largest final mean cost; <= 0 disables the test
  double resampleRotDeg;   ///< motion since the last sampling that re-samples
  double resampleTransl;
  const double* dofMask;  ///< 6 values, 0 freezes a parameter (null: all free)
  bool timing;
  bool showDebug;
  bool verbose;
  const RobustSettings* robust = nullptr;         ///< null or not enabled: the designed estimator
  const double* const* lensDistortion = nullptr;  ///< see CostSettings
};

class ContourTracker {
 public:
  // ---------------------------------------------------------------- set-up
  /// No cameras and no buffers yet: counts 0, pointers null, cameras disabled.
  ContourTracker();
  /// Frees nothing: the pools own every buffer.
  ~ContourTracker();

  /// Takes all buffers from the pools for nCams cameras (sizes, near and far
  /// depths in camera order) and maxSamplePoints samples per camera, in this
  /// order: the five stacked double arrays; per camera its six per-point
  /// double arrays, edge map (bytes) and two gradient images (shorts); then
  /// the display image (bytes), the edge detector's int work, pointer stack
  /// and short work, sized for the largest width and the largest height.
  /// Enables every camera. nCams outside 0..5, a negative sample capacity or a
  /// non-positive image size prints one line and reserves nothing (the
  /// tracker then has no cameras and every estimation returns -5). A second
  /// call takes fresh buffers.
  void init(const int* imageWidths, const int* imageHeights, const double* zNear,
            const double* zFar, int nCams, int maxSamplePoints);

  // ---------------------------------------------------------------- per-frame operations
  /// Sobel and Canny of images[c] (undistorted grey image of camera c) into
  /// m_gradX/m_gradY/m_edgeMap for every enabled camera; disabled cameras keep
  /// their previous maps. Returns 0, or the edge detector's code (-16) at the
  /// first camera that fails, leaving the later cameras untouched.
  int edgeDetect(const unsigned char* const* images, int cannyThreshold1, int cannyThreshold2);

  /// Region of interest: for every enabled camera, Sobel and Canny of
  /// images[c] inside regions[c] only (x0, y0, x1, y1 inclusive; clipped to
  /// the image and widened to at least ZOT_MIN_REGION_SIDE pixels a side
  /// where the image allows), with the thresholds cannyLow and cannyHigh,
  /// or, with `adaptive`, those edgeDetectAdaptive takes from that region
  /// (from every fourth pixel of every fourth row: thousands of pixels even
  /// for a small object, and a 1 % quantile needs no more).
  /// The edge map is left empty elsewhere, and in the outer
  /// ZOT_REGION_BORDER pixels of the region where it lies inside the image
  /// (myCannyRegion): a search line finds no edge outside, and every edge
  /// pixel has fresh derivatives around it. Further in, derivatives and
  /// edges equal those of the whole image, but for weak edges that Canny's
  /// hysteresis would have connected through the outside. Work is
  /// proportional to the region, plus the clearing of the previous one. A null or empty region
  /// (nothing of the model in view) leaves the camera without edges. With
  /// row spans per camera (Multibody::projectedBounds; null: whole rows)
  /// the derivatives, thresholds and edges are found in them only (see
  /// myCannyRegion), unless the region had to be widened. Returns 0 or the
  /// edge detector's code (-16).
  int edgeDetectRegions(const unsigned char* const* images, const int* const* regions, int cannyLow,
                        int cannyHigh, const RobustSettings* adaptive,
                        const int* const* spans = nullptr);

  /// Gauss-Newton refinement of pose (object in the reference frame, in/out)
  /// against the current edge maps. Each iteration samples the visible
  /// contour (again when the pose moved by resampleRotDeg / resampleTransl
  /// since the last sampling), matches it along the normals within
  /// searchRange pixels and maxAngleDeg of the gradient, and applies the
  /// least-squares increment restricted by dofMask (0 freezes a parameter).
  /// camTransforms[c] maps the reference frame into camera c, camIntrinsics[c]
  /// is its K. Converges when the rotation of an increment is below
  /// convRotDeg and the translation moved by less than convTransl.
  /// Returns 0 with the refined pose, or restores the entry pose bit for bit
  /// and returns -2 (fewer matches than minInliers in an iteration or
  /// minInliersAtEnd at the end; both are counts of matched points), -4 (more
  /// than maxAbsRotDeg / maxAbsTransl away from the entry pose, or a
  /// non-finite pose), -5 (no sample point in any camera), -6 (maxIterations
  /// reached), -7 (SVD failure), -9 (final mean cost above maxFinalCost when
  /// that is > 0) or the sampler's code. covariance (36 doubles, may be
  /// null) is zero-filled. timing appends the iteration headers and step
  /// timings to the diagnostic string; showDebug prints the cost and shows
  /// "tracking0"/"tracking1" waiting for a key each; verbose prints why the
  /// loop ends.
  int poseUpdateLoop(Multibody& model, const unsigned char* const* images, double* pose,
                     double* covariance, const double* const* camTransforms,
                     const double* const* camIntrinsics, int maxIterations, double convRotDeg,
                     double convTransl, double maxAbsRotDeg, double maxAbsTransl,
                     double facingTolerance, int samplingStep, double minEdgeLength,
                     double searchRange, double maxAngleDeg, double minInliers,
                     double minInliersAtEnd, double maxFinalCost, double resampleRotDeg,
                     double resampleTransl, const double* dofMask, bool timing, bool showDebug,
                     bool verbose);
  /// The same with the settings in one struct.
  int poseUpdateLoop(Multibody& model, const unsigned char* const* images, double* pose,
                     double* covariance, const double* const* camTransforms,
                     const double* const* camIntrinsics, const GaussNewtonSettings& settings);

  /// Evaluates the cost at pose for every enabled camera: optionally
  /// re-samples the contour (resample), reprojects it with its Jacobian,
  /// optionally matches it (match; otherwise the previous matches are kept),
  /// then stacks r = (matched - projected) . normal per point (searchRange
  /// for an unmatched point), the Jacobian row d r / d increment and the 0/1
  /// match weight into m_residuals, m_normalJacobian, m_inlierWeights.
  /// cost = mean of r^2 / 2 over all points. facingTolerance, minEdgeLength
  /// and samplingStep go to the contour sampler. Returns 0, -5 (no sample
  /// point at all; cost untouched) or the sampler's code (verbose prints
  /// "ERROR: Something wrong with the VLD"). timing reports each step.
  int computeOverallCostAndJacobian(Multibody& model, double& cost, const double* pose,
                                    const double* const* camTransforms,
                                    const double* const* camIntrinsics, double facingTolerance,
                                    double minEdgeLength, int samplingStep, double searchRange,
                                    double maxAngleDeg, bool computeJacobian,
                                    bool translationInObjectFrame, bool resample, bool match,
                                    bool timing, bool showDebug, bool verbose);
  /// The same with the settings in one struct.
  int computeOverallCostAndJacobian(Multibody& model, double& cost, const double* pose,
                                    const double* const* camTransforms,
                                    const double* const* camIntrinsics,
                                    const CostSettings& settings);

  /// Projects camera cam's samples with P = [K | 0] * T_cam (3 x 4) at pose
  /// into m_projPoints[cam], their unit normals (projected tangent turned a
  /// quarter turn; (1, 0) when the tangent projects to nothing) into
  /// m_normals[cam] and, with computeJacobian, d(u, v)/d increment into
  /// m_jacU[cam], m_jacV[cam] (rotation columns per degree about the object
  /// axes; translation in the object frame, or in the reference frame when
  /// translationInObjectFrame is false). Depth is not checked: points at or
  /// behind the camera plane give non-finite or mirrored values. Returns 0.
  int computeReprojectionAndJacobian(const Multibody& model, int cam, const double* pose,
                                     const double* P, bool computeJacobian,
                                     bool translationInObjectFrame);

  /// Moves camera cam's projected samples (m_projPoints, from
  /// computeReprojectionAndJacobian with its K) into the distorted image of
  /// the lens `distortion` (k1, k2, p1, p2, k3; distortPixel), and with them
  /// their Jacobians (multiplied by the lens's 2 x 2 Jacobian D) and normals
  /// (perpendicular to the tangent carried by D, same side). Samples whose
  /// distorted position is not finite keep a position far outside the image.
  void projectThroughLens(const Multibody& model, int cam, const double* K,
                          const double* distortion, bool computeJacobian);

  /// For every projected sample of camera cam: rounds it to a pixel (half
  /// away from zero); outside the image it is unmatched, else
  /// measurement_single_line_nn_Canny gives its match. Writes
  /// m_matchedPoints[cam] ((0, 0) when unmatched) and m_matchFlags[cam]
  /// (1 or 0). display and verbose are not used. Returns 0.
  int matchAlongNormals(const Multibody& model, int cam, double searchRange, double maxAngleDeg,
                        bool display, bool verbose);

  /// Nearest edge pixel of camera cam's edge map along the normal through
  /// start (x, y), searching both ways up to searchRange pixels on
  /// 4-connected lines clipped to the image, one pixel per side in turn, the
  /// side against the normal first. An edge pixel is accepted when
  /// |normal . gradient| / |gradient| (the gradient's sign does not matter; a
  /// zero gradient scores 0) is strictly above cos(maxAngleDeg), or above 0
  /// for maxAngleDeg <= 0. Returns true with found = (x, y), or false (found
  /// unchanged).
  bool measurement_single_line_nn_Canny(int cam, const int* start, const double* normal,
                                        double searchRange, double maxAngleDeg, int* found);

  /// Strongest nearby peak of the directional derivative |n . gradient| on the
  /// 4-connected line through start reaching searchRange + 2 pixels each way:
  /// a pixel at least relThreshold * 8 * 255, not below its direct neighbours
  /// and strictly above the pixels two away, nearest to start along the
  /// normal (the minus end wins ties). maxAngleDeg has no effect. Returns
  /// true with found = (x, y); false for lines of 4 pixels or less, for no
  /// peak, and, with a message, for lines longer than its 100-pixel buffer.
  bool measurement_single_line_nn_dir_der(int cam, const int* start, const double* normal,
                                          double searchRange, double relThreshold,
                                          double maxAngleDeg, int* found);

  /// Solves the stacked system J dx = r over the rows of non-zero weight (a
  /// switch, not a factor) by the 6 x 6 normal equations, scaled to unit
  /// diagonal and solved by SVD (singular values below 1e-10 dropped).
  /// mask (6, null = all free) freezes parameters with a 0 entry; a frozen
  /// or unobserved parameter gets exactly 0. covariance (36, may be null) is
  /// zeroed, and with computeCovariance filled with the scaled inverse in its
  /// cumulative row-scaling form times rss / nUsed (no guard against
  /// nUsed = 0). Returns 0, or -7 with dx and covariance unchanged.
  int computePoseUpdate_squareLSE(double* dx, const double* mask, bool computeCovariance,
                                  double* covariance);

  /// Same system solved by SVD of the compacted nUsed x nFree Jacobian; the
  /// stacked arrays are overwritten by the compaction. Always prints
  /// "cond1 " and the ratio of the largest to the smallest singular value.
  /// The covariance (frozen rows and columns 0) is scaled by rss / (nUsed - 6).
  /// Returns 0, or -7 with dx and covariance unchanged.
  int computePoseUpdate_rectangularLSE(double* dx, const double* mask, bool computeCovariance,
                                       double* covariance);

  // ---------------------------------------------------------------- robust estimator
  /// Takes the robust estimator's buffers from the pools, after init(): per
  /// camera the samples' model-edge ids (maxSamplePoints ints) and the
  /// polarity memory (ZOT_POLARITY_SLOTS ints and doubles, cleared).
  /// Without them the robust estimator runs without polarity memory.
  void initRobust(int maxSamplePoints);

  /// edgeDetect with thresholds taken from the image: for every enabled
  /// camera the Sobel derivatives, then the "robust maximum" of the L1
  /// gradient magnitude over regions[c] (x0, y0, x1, y1 inclusive, clipped
  /// to the image; null, or an empty region, means the whole image): the
  /// magnitude exceeded by 1 % of the region's pixels. High threshold =
  /// r.cannyAutoRatio times it, low = r.cannyLowRatio times the high one,
  /// at least r.cannyFloor (and high at least low). The thresholds used are
  /// kept in m_cannyThresholds. Returns 0 or the edge detector's code.
  int edgeDetectAdaptive(const unsigned char* const* images, const int* const* regions,
                         const RobustSettings& r);

  /// matchAlongNormals for the robust estimator: every edge pixel of
  /// acceptable orientation on the search line is a candidate, nearest
  /// first with the two sides in turn; with polarity memory the nearest one
  /// whose gradient points the way the sample's model edge saw at the last
  /// good fit wins, else the nearest. The match is refined to sub-pixel
  /// precision (refineEdgeSubpixel). Returns 0.
  int matchAlongNormalsRobust(const Multibody& model, int cam, double searchRange,
                              double maxAngleDeg, const RobustSettings& r);

  /// Replaces the 0/1 match weights of the last evaluation by M-estimator
  /// weights: scale = max(r.scaleFloorPx, 1.4826 * median |residual| of the
  /// matched samples); unmatched samples keep weight 0. Fills m_quality
  /// (all but iterations and stalled) and returns the number of inliers
  /// (weight above r.inlierWeight).
  double reweight(const RobustSettings& r, double searchRange);

  /// FitQuality::disagreementPx of the last evaluation: for every enabled
  /// camera with samples, the weighted update of its rows alone (mask as in
  /// the solve) minus jointDx, as RMS move along the normals of its
  /// inliers; the largest. 0 for fewer than two such cameras.
  double cameraDisagreement(const Multibody& model, const double* mask, const double* jointDx);

  /// Remembers, per model edge, the polarity of the gradient at the matches
  /// of the last evaluation (call after a good fit); forgetPolarity clears it.
  void rememberPolarity(const Multibody& model);
  void forgetPolarity();

  /// Offline analysis of edge ambiguity between two images: samples the
  /// contour at pose, and for every matched point with |residual| < 3 px
  /// slides its 11-pixel grey profile across the contour in referenceImages
  /// along the normal (+/- 45 px) in currentImages; local minima of the sum of
  /// absolute differences below 3 % of its maximum are candidates. Writes one
  /// line per point with candidates to correlateEdgesOutputPath(), draws them
  /// and shows each camera in the window "corr", waiting for a key. Note the
  /// argument order: intrinsics before transforms. A file that cannot be
  /// opened prints one line; the analysis and display still run.
  void correlateEdges(Multibody& model, const unsigned char* const* referenceImages,
                      const unsigned char* const* currentImages, const double* pose,
                      const double* const* camIntrinsics, const double* const* camTransforms);

  // ---------------------------------------------------------------- data
  unsigned char* m_edgeMap[ZOT_MAX_CAMERAS];  ///< Canny edges, width x height, non-zero = edge
  short* m_gradX[ZOT_MAX_CAMERAS];            ///< horizontal Sobel derivative
  short* m_gradY[ZOT_MAX_CAMERAS];            ///< vertical Sobel derivative
  double* m_projPoints[ZOT_MAX_CAMERAS];      ///< (u, v) per sample
  double* m_normals[ZOT_MAX_CAMERAS];         ///< unit (nx, ny) per sample
  double* m_jacU[ZOT_MAX_CAMERAS];            ///< du / d increment, 6 per sample
  double* m_jacV[ZOT_MAX_CAMERAS];            ///< dv / d increment, 6 per sample
  double* m_matchedPoints[ZOT_MAX_CAMERAS];   ///< matched edge pixel (x, y), (0, 0) if none
  double* m_matchFlags[ZOT_MAX_CAMERAS];      ///< 1 matched, 0 not
  double* m_residuals;                        ///< stacked normal residuals, all cameras
  double* m_normalJacobian;                   ///< stacked 1 x 6 rows
  double* m_inlierWeights;                    ///< stacked match flags
  double m_cost;                              ///< mean of r^2 / 2 of the last evaluation
  double* m_rectJacobian;                     ///< rectangular solver: U^T
  double* m_rectWork;                         ///< rectangular solver: SVD work
  int m_maxSamplePoints;                      ///< sample capacity per camera
  int m_imageWidth[ZOT_MAX_CAMERAS];          ///< also the row stride of the camera's buffers
  int m_imageHeight[ZOT_MAX_CAMERAS];
  double m_zNear[ZOT_MAX_CAMERAS];
  double m_zFar[ZOT_MAX_CAMERAS];
  int m_nCams;
  unsigned char* m_displayImage;         ///< colour debug image, largest size
  int* m_cannyIntWork;                   ///< (maxWidth + 2) x (maxHeight + 5) ints
  unsigned char** m_cannyStack;          ///< maxWidth x maxHeight pointers
  short* m_cannyShortWork;               ///< maxWidth x 2 x maxHeight shorts
  int m_nTotalPoints;                    ///< stacked points of the last evaluation
  int m_camEnabled[ZOT_MAX_CAMERAS];     ///< 1 when the camera takes part
  int* m_sampleIds[ZOT_MAX_CAMERAS];     ///< robust: model edge per sample (body * 65536 + edge)
  int* m_polarityKeys[ZOT_MAX_CAMERAS];  ///< robust: edge id + 1 per slot, 0 empty
  double* m_polarityValues[ZOT_MAX_CAMERAS];     ///< robust: sum of +-1 polarities per slot
  double m_cannyThresholds[ZOT_MAX_CAMERAS][2];  ///< low, high of the last adaptive detection
  /// Window of the last edge detection per camera (x0, y0, x1, y1; x0 > x1:
  /// none): the whole image after edgeDetect, the region after
  /// edgeDetectRegions. Only there can the edge map hold edges.
  int m_edgeWindow[ZOT_MAX_CAMERAS][4];
  FitQuality m_quality;  ///< robust: figures of the last fit

 private:
  // Steps of the cost evaluation and the Gauss-Newton loop.
  int sampleReprojectAndMatch(Multibody& model, int cam, const double* pose,
                              const double* const* camTransforms,
                              const double* const* camIntrinsics, const CostSettings& settings);
  double stackResiduals(const Multibody& model, double searchRange, bool computeJacobian);
  void showMatches(const Multibody& model, const unsigned char* const* images, double searchRange);
  int poseUpdateLoopRobust(Multibody& model, const unsigned char* const* images, double* pose,
                           double* covariance, const double* const* camTransforms,
                           const double* const* camIntrinsics, const GaussNewtonSettings& s);
  int usableSampleCount(const Multibody& model, int cam) const;
  /// Largest move, in pixels along its normal, that the increment dx gives
  /// a sample of non-zero weight in the last evaluation (first order).
  double largestSampleMove(const double* dx) const;
  /// Canny thresholds of camera c from its Sobel derivatives over window
  /// (x0, y0, x1, y1, inside the image), every step-th pixel of every
  /// step-th row (within its row spans, if any), into m_cannyThresholds[c].
  void adaptiveThresholds(int c, const int* window, int step, const RobustSettings& r,
                          const int* spans = nullptr);
  /// m_edgeWindow[c] = the whole image (the edge map may hold edges anywhere).
  void setWholeEdgeWindow(int c);
  /// Slot of model edge `id` in a camera's polarity table (open
  /// addressing): its own, or with insert the first free one; else -1.
  static int polaritySlot(const int* keys, int id, bool insert);
};

}  // namespace ZOTtracker
