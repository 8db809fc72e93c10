// The tracker front: construction, the per-frame pose estimation with its
// image steps, and the result overlay.
#include "GenericObjectTracker.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "Drawing.h"
#include "IO.h"
#include "Imgproc.h"
#include "Math.h"
#include "PoolSizes.h"
#include "SetupArray.h"
#include "memory_handling.h"

namespace ZOTtracker {

namespace {

// The overlay samples densely, whatever the tracking settings: one sample per
// pixel of every visible edge.
constexpr double kDrawFacingTolerance = 1.0;
constexpr double kDrawMinEdgeLength = 1.0;
constexpr int kDrawSamplingStep = 1;

double ticksToMs(int64_t ticks) { return (double)ticks / getTickFrequency() / 1000.0; }

}  // namespace

// ================================================================ set-up

GenericObjectTracker::TrackingParameters::TrackingParameters()
    : m_maxNSamplePointsPerCam(100),
      m_facingTolerance(1.0),
      m_samplingStep(2),
      m_minEdgeLength(1.0),
      m_searchRange(20),
      m_cannyLowThreshold(50),
      m_cannyHighThreshold(100),
      m_maxAngleDeg(20.0),
      m_maxIterations(10),
      m_convergenceRot(0.0),
      m_convergenceTransl(0.0),
      m_maxAbsRot(50.0),
      m_maxAbsTransl(50.0),
      m_minInliersLoop(0.5),
      m_minInliersFinal(0.5),
      m_maxFinalCost(1.0),
      m_resampleRot(0.0),
      m_resampleTransl(0.0),
      m_kfAccNoiseRot(100.0),
      m_kfAccNoiseTransl(100.0),
      m_measStdRot(1.0),
      m_measStdTransl(1.0),
      m_kfInitialCov(1000.0) {}

GenericObjectTracker::GenericObjectTracker()
    : m_nCameras(0),
      m_doEdgeDetection(true),
      m_lastFrameTimes{0.0, 0.0, 0.0, 0.0},
      m_lastQuality{},
      m_haveLastGood(false) {
  matrixIdentity(m_lastGoodWorldPose, 4);
  // Per-camera members mean nothing before the set-up; null and zero them so
  // that a premature call fails cleanly instead of following garbage.
  for (int c = 0; c < ZOT_MAX_CAMERAS; c++) {
    m_imageWidth[c] = 0;
    m_imageHeight[c] = 0;
    m_zNear[c] = 0.0;
    m_zFar[c] = 0.0;
    m_K[c] = nullptr;
    m_distCoeffs[c] = nullptr;
    m_toolToCamera[c] = nullptr;
    m_undistMapX[c] = nullptr;
    m_undistMapY[c] = nullptr;
    m_undistTable1[c] = nullptr;
    m_undistTable2[c] = nullptr;
    m_undistTable3[c] = nullptr;
    m_undistTable4[c] = nullptr;
    m_undistTable5[c] = nullptr;
    m_undistort[c] = 0;
    m_undistortedImage[c] = nullptr;
    m_imageRegion[c][0] = m_imageRegion[c][1] = 0;
    m_imageRegion[c][2] = m_imageRegion[c][3] = -1;
    m_imageSpans[c] = nullptr;
    m_lensDistortion[c] = nullptr;
  }
}

// The members go in reverse order (the model, then the contour tracker);
// the pools keep everything until doBigFree.
GenericObjectTracker::~GenericObjectTracker() {}

int setupFitsPools(int count, const double* array) {
  // An array the reader refuses is left to the set-up, which says why.
  if (array == nullptr || count < 0) return 0;
  std::unique_ptr<SetupArray> setup(new SetupArray);
  char ignored[512];
  if (!decodeSetupArray(array, count, *setup, ignored, (int)sizeof ignored) ||
      !(setup->tracking[0] >= 0.0))
    return 0;
  size_t need[ZOT_N_POOLS];
  if (computePoolSizes(count, array, 0.0, need) != 0) return 0;
  const uint64_t total[ZOT_N_POOLS] = {m_totalAllocUchar, m_totalAllocUcharPtr, m_totalAllocDouble,
                                       m_totalAllocFloat, m_totalAllocInt,      m_totalAllocIntPtr,
                                       m_totalAllocShort};
  const uint64_t used[ZOT_N_POOLS] = {
      m_currentAllocUchar, m_currentAllocUcharPtr, m_currentAllocDouble, m_currentAllocFloat,
      m_currentAllocInt,   m_currentAllocIntPtr,   m_currentAllocShort};
  for (int p = 0; p < ZOT_N_POOLS; p++) {
    const uint64_t available = total[p] > used[p] ? total[p] - used[p] : 0;
    if (need[p] > available) {
      printf("ERROR: the setup array needs %llu elements of the %s pool, %llu are free\n",
             (unsigned long long)need[p], ZOT_POOL_NAMES[p], (unsigned long long)available);
      return -1;
    }
  }
  return 0;
}

// ================================================================ per-frame operations

namespace {

// First enabled camera without an image, or -1.
int firstMissingImage(const unsigned char* const* images, const ContourTracker& tracker,
                      int nCameras) {
  for (int c = 0; c < nCameras && c < ZOT_MAX_CAMERAS; c++) {
    if (tracker.m_camEnabled[c] && (images == nullptr || images[c] == nullptr)) return c;
  }
  return -1;
}

// Largest deviation of R R^T from the identity that a host's pose may show
// (rounding of poses stored in single precision stays far below it).
constexpr double kRotationTolerance = 1e-4;

// True when T holds finite values, a proper rotation block within
// kRotationTolerance and the last row 0 0 0 1: a pose the projection and the
// filter can use without overflowing.
bool rigidTransform(const double* T) {
  for (int i = 0; i < 16; i++)
    if (!std::isfinite(T[i])) return false;
  if (T[12] != 0.0 || T[13] != 0.0 || T[14] != 0.0 || T[15] != 1.0) return false;
  for (int i = 0; i < 3; i++) {
    for (int j = 0; j < 3; j++) {
      const double dot =
          T[4 * i] * T[4 * j] + T[4 * i + 1] * T[4 * j + 1] + T[4 * i + 2] * T[4 * j + 2];
      if (std::fabs(dot - (i == j ? 1.0 : 0.0)) > kRotationTolerance) return false;
    }
  }
  const double det = T[0] * (T[5] * T[10] - T[6] * T[9]) - T[1] * (T[4] * T[10] - T[6] * T[8]) +
                     T[2] * (T[4] * T[9] - T[5] * T[8]);
  return det > 0.0;
}

}  // namespace

int GenericObjectTracker::poseEstimation(const unsigned char* const* images, double time,
                                         const double* toolPose, const double* initPose,
                                         const double* initVelocity, double initTime, double* pose,
                                         double* velocity, double* covariance,
                                         const double* dofMask, bool initialise, bool timing,
                                         bool display, bool verbose) {
  const int64_t callStart = getTickCount();
  m_lastFrameTimes = FrameStageTimes{0.0, 0.0, 0.0, 0.0};
  m_lastQuality = FitQuality{};
  const int code =
      estimateFrame(images, time, toolPose, initPose, initVelocity, initTime, pose, velocity,
                    covariance, dofMask, initialise, timing, display, verbose);
  m_lastFrameTimes.totalMs = ticksToMs(getTickCount() - callStart);
  return code;
}

int GenericObjectTracker::estimateFrame(const unsigned char* const* images, double time,
                                        const double* toolPose, const double* initPose,
                                        const double* initVelocity, double initTime, double* pose,
                                        double* velocity, double* covariance, const double* dofMask,
                                        bool initialise, bool timing, bool display, bool verbose) {
  // Input that would make a later step fail halfway is refused before
  // anything changes.
  if (m_contourTracker.m_nCams == 0) {
    printf("ERROR: poseEstimation: the tracker has no camera set up\n");
    return ZOT_ERR_INTERNAL;
  }
  if (toolPose == nullptr) {
    printf("ERROR: poseEstimation: no tool pose\n");
    return ZOT_ERR_INTERNAL;
  }
  if (initialise && (initPose == nullptr || initVelocity == nullptr)) {
    printf("ERROR: poseEstimation: a new track needs the initial pose and velocity\n");
    return ZOT_ERR_INTERNAL;
  }
  if (!rigidTransform(toolPose) || (initialise && !rigidTransform(initPose))) {
    printf("ERROR: poseEstimation: the %s pose is not a finite rigid transform\n",
           rigidTransform(toolPose) ? "initial" : "tool");
    return ZOT_ERR_INTERNAL;
  }
  const int missing = firstMissingImage(images, m_contourTracker, m_nCameras);
  if (missing >= 0) {
    printf("ERROR: poseEstimation: no image for camera %d\n", missing);
    return ZOT_ERR_INTERNAL;
  }

  double toolInv[16];
  inverseTransform(toolPose, toolInv);

  KalmanFilter& kf = m_kalmanFilter;
  if (initialise) {
    double worldPose[16];
    matrixProduct444(toolPose, initPose, worldPose);
    const int code = kf.init(worldPose, initVelocity, initTime);
    if (code != 0) {
      printf("ERROR: poseEstimation: invalid initial pose, velocity or time (%g)\n", initTime);
      return code;
    }
    m_haveLastGood = false;
    m_contourTracker.forgetPolarity();
  }
  const int predictCode = kf.predict(time);
  if (predictCode != 0) return predictCode;

  double predicted[16];
  matrixProduct444(toolInv, kf.m_Tpred, predicted);
  const RobustSettings& robust = m_trackingParams.m_robust;
  const double regionGrow = m_trackingParams.m_searchRange + robust.regionMarginPx;
  const int imageCode = prepareImages(images, predicted, regionGrow, timing);
  if (imageCode != 0) return imageCode;

  double refined[16], loopCovariance[36];
  matrixCopy(predicted, refined, 4, 4);
  const int64_t start = getTickCount();
  int loopCode = poseUpdateLoop(refined, loopCovariance, dofMask, timing, display, verbose);
  int64_t end = getTickCount();
  m_lastFrameTimes.poseUpdateMs = ticksToMs(end - start);
  if (robust.enabled) {
    if (loopCode != 0 && robust.recoveryRangePx > 0.0) {
      // The recovery searches farther than the region reached.
      const int regionCode =
          robust.regionOfInterest
              ? prepareImages(images, predicted, regionGrow + robust.recoveryRangePx, timing)
              : 0;
      const int64_t recoveryStart = getTickCount();
      if (regionCode == 0)
        loopCode = recoverPose(predicted, toolInv, refined, loopCovariance, dofMask, loopCode,
                               timing, display, verbose);
      end = getTickCount();
      m_lastFrameTimes.poseUpdateMs += ticksToMs(end - recoveryStart);
    }
    m_lastQuality = m_contourTracker.m_quality;
  }
  if (timing) showElapsed("Total Gauss-Newton loop (pose estimation)", start, end);
  if (loopCode != 0) return loopCode;

  // Measurement covariance: rotation (degrees) first, then translation.
  const double varRot = m_trackingParams.m_measStdRot * m_trackingParams.m_measStdRot;
  const double varTransl = m_trackingParams.m_measStdTransl * m_trackingParams.m_measStdTransl;
  double R[36];
  matrixIdentity(R, 6);
  for (int i = 0; i < 3; i++) R[7 * i] = varRot;
  for (int i = 3; i < 6; i++) R[7 * i] = varTransl;

  double measuredWorld[16];
  matrixProduct444(toolPose, refined, measuredWorld);
  const int correctCode = kf.correct(measuredWorld, R, time);
  if (correctCode != 0) return correctCode;

  if (robust.enabled) {
    m_contourTracker.rememberPolarity(m_multibody);
    matrixCopy(measuredWorld, m_lastGoodWorldPose, 4, 4);
    m_haveLastGood = true;
  }
  // The Gauss-Newton result goes out, not the filtered pose.
  if (pose != nullptr) matrixCopy(refined, pose, 4, 4);
  if (velocity != nullptr) kf.getVelocity(velocity);
  if (covariance != nullptr) kf.getPoseCovariance(covariance);
  return 0;
}

int GenericObjectTracker::poseUpdateLoop(double* pose, double* covariance, const double* dofMask,
                                         bool timing, bool display, bool verbose) {
  return m_contourTracker.poseUpdateLoop(m_multibody, m_undistortedImage, pose, covariance,
                                         m_toolToCamera, m_K,
                                         loopSettings(dofMask, timing, display, verbose));
}

int GenericObjectTracker::recoverPose(const double* predicted, const double* toolInverse,
                                      double* pose, double* covariance, const double* dofMask,
                                      int failure, bool timing, bool display, bool verbose) {
  const GaussNewtonSettings fine = loopSettings(dofMask, timing, display, verbose);
  // Coarse: every other sample, searched as far as the object may have gone
  // unseen, with room to move that far.
  GaussNewtonSettings coarse = fine;
  coarse.searchRange = m_trackingParams.m_robust.recoveryRangePx;
  coarse.samplingStep = 2 * fine.samplingStep;
  coarse.minInliers = 0.5 * fine.minInliers;
  coarse.minInliersAtEnd = 0.5 * fine.minInliersAtEnd;
  coarse.maxAbsRotDeg = 2.0 * fine.maxAbsRotDeg;
  coarse.maxAbsTransl = 2.0 * fine.maxAbsTransl;

  double starts[2][16];
  int nStarts = 0;
  matrixCopy(predicted, starts[nStarts++], 4, 4);
  if (m_haveLastGood) matrixProduct444(toolInverse, m_lastGoodWorldPose, starts[nStarts++]);
  ContourTracker& tracker = m_contourTracker;
  bool found = false;
  FitQuality best{};
  for (int i = 0; i < nStarts; i++) {
    double candidate[16], candidateCovariance[36];
    matrixCopy(starts[i], candidate, 4, 4);
    if (tracker.poseUpdateLoop(m_multibody, m_undistortedImage, candidate, candidateCovariance,
                               m_toolToCamera, m_K, coarse) != 0)
      continue;
    if (tracker.poseUpdateLoop(m_multibody, m_undistortedImage, candidate, candidateCovariance,
                               m_toolToCamera, m_K, fine) != 0)
      continue;
    if (found && tracker.m_quality.robustCost >= best.robustCost) continue;
    found = true;
    best = tracker.m_quality;
    matrixCopy(candidate, pose, 4, 4);
    matrixCopy(candidateCovariance, covariance, 6, 6);
  }
  if (verbose)
    printf("Recovery: %s\n", found ? "a coarse-to-fine search found the object" : "none");
  if (!found) return failure;
  // The matches of the kept fit are the ones its polarity is learnt from.
  if (tracker.m_quality.robustCost != best.robustCost) {
    double again[16], ignored[36];
    matrixCopy(pose, again, 4, 4);
    tracker.poseUpdateLoop(m_multibody, m_undistortedImage, again, ignored, m_toolToCamera, m_K,
                           fine);
  }
  tracker.m_quality = best;
  return 0;
}

int GenericObjectTracker::prepareImages(const unsigned char* const* images, const double* predicted,
                                        double grow, bool timing) {
  const RobustSettings& settings = m_trackingParams.m_robust;
  const bool region = settings.regionOfInterest != 0, lens = settings.lensInProjection != 0;
  for (int c = 0; c < ZOT_MAX_CAMERAS; c++)
    m_lensDistortion[c] = lens && c < m_nCameras && m_undistort[c] == 1 ? m_distCoeffs[c] : nullptr;
  int64_t start = getTickCount();
  int code = 0;
  // With both speed modes the edges come straight from the camera's images.
  const bool direct = region && lens;
  if (region || lens) {
    // The images the edges come from: undistorted, or with the lens in the
    // projection the camera's own, copied (unless read where they are).
    if (region) computeImageRegions(predicted, grow);
    for (int c = 0; c < m_nCameras && c < ZOT_MAX_CAMERAS && !direct; c++) {
      if (!m_contourTracker.m_camEnabled[c] || m_undistortedImage[c] == nullptr) continue;
      const int whole[4] = {0, 0, m_imageWidth[c] - 1, m_imageHeight[c] - 1};
      const int* r = region ? m_imageRegion[c] : whole;
      if (m_undistort[c] == 1 && !lens) {
        undistortImageRegionFromTables(images[c], m_undistortedImage[c], m_undistTable1[c],
                                       m_undistTable2[c], m_undistTable3[c], m_undistTable4[c],
                                       m_undistTable5[c], m_imageWidth[c], m_imageHeight[c], r);
      } else {
        for (int y = r[1]; y <= r[3] && r[0] <= r[2]; y++) {
          const size_t row = (size_t)y * m_imageWidth[c] + r[0];
          memcpy(m_undistortedImage[c] + row, images[c] + row, r[2] - r[0] + 1);
        }
      }
    }
  } else {
    code = undistortAllImages(images);
  }
  int64_t end = getTickCount();
  m_lastFrameTimes.undistortionMs += ticksToMs(end - start);
  if (code != 0) return code;
  if (timing) showElapsed("Undistortion (2x)", start, end);

  if (!m_doEdgeDetection) return 0;
  start = getTickCount();
  code = detectEdges(predicted, direct ? images : m_undistortedImage);
  end = getTickCount();
  m_lastFrameTimes.edgesMs += ticksToMs(end - start);
  if (code != 0) return code;
  if (timing) showElapsed("Edge detection (2x)", start, end);
  return 0;
}

void GenericObjectTracker::computeImageRegions(const double* predicted, double grow) {
  for (int c = 0; c < m_nCameras && c < ZOT_MAX_CAMERAS; c++) {
    double T[16];
    matrixProduct444(m_toolToCamera[c], predicted, T);
    m_multibody.projectedBounds(T, m_K[c], m_imageWidth[c], m_imageHeight[c], grow,
                                m_imageRegion[c], m_lensDistortion[c], m_imageSpans[c]);
  }
}

int GenericObjectTracker::detectEdges(const double* predicted,
                                      const unsigned char* const* sources) {
  const RobustSettings& r = m_trackingParams.m_robust;
  const bool adaptive = r.enabled && r.cannyAutoRatio > 0.0;
  if (!r.regionOfInterest && !adaptive) return edgeDetectAllImages();
  // Whole images take their thresholds from where the object can be: its
  // predicted outline, grown by the distance a match or a recovery may
  // search. The region of interest is that place already.
  if (!r.regionOfInterest)
    computeImageRegions(predicted, m_trackingParams.m_searchRange + r.recoveryRangePx);
  const int* regionOf[ZOT_MAX_CAMERAS];
  for (int c = 0; c < ZOT_MAX_CAMERAS; c++) regionOf[c] = m_imageRegion[c];
  if (!r.regionOfInterest) return m_contourTracker.edgeDetectAdaptive(sources, regionOf, r);
  return m_contourTracker.edgeDetectRegions(sources, regionOf, m_trackingParams.m_cannyLowThreshold,
                                            m_trackingParams.m_cannyHighThreshold,
                                            adaptive ? &r : nullptr, m_imageSpans);
}

GaussNewtonSettings GenericObjectTracker::loopSettings(const double* dofMask, bool timing,
                                                       bool display, bool verbose) const {
  const TrackingParameters& p = m_trackingParams;
  GaussNewtonSettings s;
  s.maxIterations = p.m_maxIterations;
  s.convRotDeg = p.m_convergenceRot;
  s.convTransl = p.m_convergenceTransl;
  s.maxAbsRotDeg = p.m_maxAbsRot;
  s.maxAbsTransl = p.m_maxAbsTransl;
  s.facingTolerance = p.m_facingTolerance;
  s.samplingStep = p.m_samplingStep;
  s.minEdgeLength = p.m_minEdgeLength;
  s.searchRange = (double)p.m_searchRange;
  s.maxAngleDeg = p.m_maxAngleDeg;
  s.minInliers = p.m_minInliersLoop;
  s.minInliersAtEnd = p.m_minInliersFinal;
  s.maxFinalCost = p.m_maxFinalCost;
  s.resampleRotDeg = p.m_resampleRot;
  s.resampleTransl = p.m_resampleTransl;
  s.dofMask = dofMask;
  s.timing = timing;
  s.showDebug = display;
  s.verbose = verbose;
  s.robust = &p.m_robust;
  s.lensDistortion = p.m_robust.lensInProjection ? m_lensDistortion : nullptr;
  return s;
}

void GenericObjectTracker::initAllUndistortMaps() {
  for (int c = 0; c < m_nCameras && c < ZOT_MAX_CAMERAS; c++) {
    if (m_undistort[c] != 1) continue;
    initUndistortRectifyMap(m_K[c], m_distCoeffs[c], nullptr, nullptr, m_imageWidth[c],
                            m_imageHeight[c], m_undistMapX[c], m_undistMapY[c]);
    initUndistortionTables(m_undistMapX[c], m_undistMapY[c], m_undistTable1[c], m_undistTable2[c],
                           m_undistTable3[c], m_undistTable4[c], m_undistTable5[c], m_imageWidth[c],
                           m_imageHeight[c]);
  }
}

void GenericObjectTracker::undistortCameraImage(const unsigned char* source,
                                                unsigned char* destination, int camera) {
  if (camera < 0 || camera >= m_nCameras || camera >= ZOT_MAX_CAMERAS) {
    printf("undistortImage: INCORRECT CAMERA NUMBER!\n");
    return;
  }
  undistortImageFromTables(source, destination, m_undistTable1[camera], m_undistTable2[camera],
                           m_undistTable3[camera], m_undistTable4[camera], m_undistTable5[camera],
                           m_imageWidth[camera], m_imageHeight[camera]);
}

int GenericObjectTracker::undistortAllImages(const unsigned char* const* images) {
  const int missing = firstMissingImage(images, m_contourTracker, m_nCameras);
  if (missing >= 0) {
    printf("ERROR: undistortAllImages: no image for camera %d\n", missing);
    return ZOT_ERR_INTERNAL;
  }
  for (int c = 0; c < m_nCameras && c < ZOT_MAX_CAMERAS; c++) {
    if (!m_contourTracker.m_camEnabled[c] || m_undistortedImage[c] == nullptr) continue;
    if (m_undistort[c] == 1)
      undistortCameraImage(images[c], m_undistortedImage[c], c);
    else
      imageCopy(images[c], m_undistortedImage[c], m_imageWidth[c], m_imageHeight[c]);
  }
  return 0;
}

int GenericObjectTracker::edgeDetectAllImages() {
  return m_contourTracker.edgeDetect(m_undistortedImage, m_trackingParams.m_cannyLowThreshold,
                                     m_trackingParams.m_cannyHighThreshold);
}

// ================================================================ result overlay

void GenericObjectTracker::drawResult(const double* pose, unsigned char* image, int cameraIndex,
                                      bool drawFrame, double frameLength, const double* framePose) {
  if (cameraIndex < 0 || cameraIndex >= m_nCameras || cameraIndex >= ZOT_MAX_CAMERAS) {
    printf("ERROR: invalid camera index!\n");
    return;
  }
  if (pose == nullptr || image == nullptr) {
    printf("ERROR: drawResult needs a pose and an output image\n");
    return;
  }
  const int c = cameraIndex;
  const int width = m_imageWidth[c], height = m_imageHeight[c];
  if (m_contourTracker.m_camEnabled[c] == 0) {
    memset(image, 0, 3 * (size_t)width * (size_t)height);
    return;
  }
  const unsigned char* grey = m_undistortedImage[c];
  merge(grey, grey, grey, image, width, height);

  // Object in this camera's frame.
  double T[16];
  matrixProduct444(m_toolToCamera[c], pose, T);
  m_multibody.sampleContour_Zbuffer(c, T, m_K[c], width, height, m_zNear[c], m_zFar[c],
                                    kDrawFacingTolerance, kDrawMinEdgeLength, kDrawSamplingStep,
                                    nullptr, nullptr, nullptr, nullptr, true, false, false, false);
  const int np = m_multibody.getNSamplePointsPerCam(c);

  // P = [K | 0] * T, split into its left 3 x 3 block M and last column p.
  const double* K = m_K[c];
  const double K0[12] = {K[0], K[1], K[2], 0.0, K[3], K[4], K[5], 0.0, K[6], K[7], K[8], 0.0};
  double P[12];
  matrixProduct344(K0, T, P);
  const double M[9] = {P[0], P[1], P[2], P[4], P[5], P[6], P[8], P[9], P[10]};
  const double p[3] = {P[3], P[7], P[11]};

  printf("--np points--%d \n", np);
  const double* samples = m_multibody.getSamplePointsPerCam(c);
  for (int k = 0; k < np; k++) {
    double x[3];
    matrixProduct331(M, samples + 3 * k, x);
    x[0] += p[0];
    x[1] += p[1];
    x[2] += p[2];
    // Points behind the camera are projected like the others; non-finite
    // coordinates round far outside the image.
    const int u = roundToPixel(x[0] / x[2]);
    const int v = roundToPixel(x[1] / x[2]);
    if (u < 0 || u >= width || v < 0 || v >= height) continue;
    unsigned char* pixel = image + 3 * ((size_t)v * width + u);
    pixel[0] = 0;    // blue
    pixel[1] = 0;    // green
    pixel[2] = 255;  // red
  }

  if (drawFrame) {
    double Tf[16];
    if (framePose != nullptr)
      matrixProduct444(T, framePose, Tf);
    else
      matrixCopy(T, Tf, 4, 4);
    drawCartesianFrame(K, Tf, frameLength, image, width, height, true);
  }
}

}  // namespace ZOTtracker
