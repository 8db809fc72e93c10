// Gauss-Newton pose estimation on the contour: reprojection and Jacobians,
// matching along the normals, the stacked cost, the least-squares solvers and
// the iteration loop; plus the model's per-camera sample getters that the
// estimator reads.
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "ContourTracker.h"
#include "Drawing.h"
#include "IO.h"
#include "Imgproc.h"
#include "Math.h"
#include "SVD_NR.h"

namespace ZOTtracker {

namespace {

constexpr double kDegToRad = 0.017453292519943295;  // pi / 180
constexpr double kRadToDeg = 57.29577951308232;     // 180 / pi
// Singular values at or below this are treated as zero by both solvers.
constexpr double kSingularValueFloor = 1e-10;
// Compiled-in switch: report the phases of the square solver.
constexpr bool kTimeSquareSolver = false;
// Longest line measurement_single_line_nn_dir_der can hold.
constexpr int kDirDerCapacity = 100;

// Samples of camera cam that fit the tracker's per-camera buffers.
int usableSamples(const Multibody& model, int cam, int capacity) {
  const int n = model.getNSamplePointsPerCam(cam);
  if (n < 0) return 0;
  return n > capacity ? capacity : n;
}

// Rotation (degrees) and translation between the pose a reference inverse
// belongs to and pose. Returns the rotation conversion's code.
int motionSince(const double* referenceInverse, const double* pose, double* rotDeg,
                double* transl) {
  double Trel[16], R[9], t[3], rvec[3];
  matrixProduct444(referenceInverse, pose, Trel);
  rotTranslFromT(Trel, R, t);
  const int code = matrixRmatToRvec(R, rvec);
  if (code != 0) return code;
  for (int i = 0; i < 3; i++) rvec[i] *= kRadToDeg;
  *rotDeg = norm(rvec, 3);
  *transl = norm(t, 3);
  return 0;
}

inline double pseudoInverse(double w) { return w > kSingularValueFloor ? 1.0 / w : 0.0; }

// Least |cos| between a normal and an acceptable edge gradient.
inline double orientationLimit(double maxAngleDeg) {
  return maxAngleDeg > 0.0 ? std::cos(maxAngleDeg * ZOT_PI / 180.0) : 0.0;
}

// Walks the search line through start along the normal, both ways up to
// searchRange pixels on 4-connected lines clipped to the image, one pixel
// per side in turn, the side against the normal first, and hands each
// pixel's offset in the image to visit until it returns true. Returns
// whether it did. Both matchers search this way.
template <typename Visit>
bool walkSearchLine(unsigned char* edges, int width, int height, const int* start,
                    const double* normal, double searchRange, Visit visit) {
  const int x = start[0], y = start[1];
  const double nx = normal[0], ny = normal[1];
  const int endMinus[2] = {roundToPixel(x - nx * searchRange), roundToPixel(y - ny * searchRange)};
  const int endPlus[2] = {roundToPixel(x + nx * searchRange), roundToPixel(y + ny * searchRange)};
  myLineIterator lineMinus, linePlus;
  int countMinus = initLineIterator(edges, width, height, 1, start, endMinus, &lineMinus, 4, 0);
  int countPlus = initLineIterator(edges, width, height, 1, start, endPlus, &linePlus, 4, 0);
  if (countMinus < 0) countMinus = 0;
  if (countPlus < 0) countPlus = 0;
  const int steps = countMinus > countPlus ? countMinus : countPlus;
  for (int i = 0; i < steps; i++) {
    if (i < countMinus) {
      if (visit(lineMinus.m_ptr - edges)) return true;
      if (i + 1 < countMinus) advanceLineIterator(lineMinus);
    }
    if (i < countPlus) {
      if (visit(linePlus.m_ptr - edges)) return true;
      if (i + 1 < countPlus) advanceLineIterator(linePlus);
    }
  }
  return false;
}

// An edge pixel whose gradient is close enough to the normal, whatever its
// sign (a zero gradient scores 0).
inline bool orientedEdge(const unsigned char* edges, const short* gx, const short* gy, long offset,
                         const double* normal, double cosLimit) {
  if (edges[offset] == 0) return false;
  const double dx = gx[offset], dy = gy[offset];
  const double m = std::sqrt(dx * dx + dy * dy);
  const double score = m > 0.0 ? std::fabs(normal[0] * dx + normal[1] * dy) / m : 0.0;
  return score > cosLimit;
}

// The search of measurement_single_line_nn_Canny on one camera's buffers,
// with the orientation limit already computed (matchAlongNormals computes it
// once for all its points).
bool nearestOrientedEdge(unsigned char* edges, const short* gx, const short* gy, int width,
                         int height, const int* start, const double* normal, double searchRange,
                         double cosLimit, int* found) {
  return walkSearchLine(edges, width, height, start, normal, searchRange, [&](long offset) {
    if (!orientedEdge(edges, gx, gy, offset, normal, cosLimit)) return false;
    found[0] = (int)(offset % width);
    found[1] = (int)(offset / width);
    return true;
  });
}

}  // namespace

// ================================================================ model sample getters
// Defined next to the estimator, their one reader.

void Multibody::resetNSamplePointsPerCam() {
  for (int c = 0; c < m_nCams && c < ZOT_MAX_CAMERAS; c++) m_nSamplePointsPerCam[c] = 0;
}

int Multibody::getNSamplePointsPerCam(int cam) const {
  if (cam < 0 || cam >= m_nCams) {
    printf("ERROR: wrong camera ID\n");
    return 0;
  }
  return m_nSamplePointsPerCam[cam];
}

double* Multibody::getSamplePointsPerCam(int cam) const {
  if (cam < 0 || cam >= m_nCams) {
    printf("ERROR: wrong camera ID\n");
    return nullptr;
  }
  return m_samplePointsPerCam[cam];
}

double* Multibody::getSampleTangentDirPerCam(int cam) const {
  if (cam < 0 || cam >= m_nCams) {
    printf("ERROR: wrong camera ID\n");
    return nullptr;
  }
  return m_sampleTangentDirPerCam[cam];
}

double ContourTracker::largestSampleMove(const double* dx) const {
  double largest = 0.0;
  for (int i = 0; i < m_nTotalPoints; i++) {
    if (m_inlierWeights[i] == 0.0) continue;
    const double* J = m_normalJacobian + 6 * i;
    double move = 0.0;
    for (int j = 0; j < 6; j++) move += J[j] * dx[j];
    if (std::fabs(move) > largest) largest = std::fabs(move);
  }
  return largest;
}

int ContourTracker::usableSampleCount(const Multibody& model, int cam) const {
  return usableSamples(model, cam, m_maxSamplePoints);
}

// ================================================================ Gauss-Newton loop

namespace {

// The cost settings of every Gauss-Newton iteration: Jacobian, translation in
// the object frame, fresh matches, no sampler messages.
CostSettings iterationCostSettings(const GaussNewtonSettings& s) {
  CostSettings c;
  c.facingTolerance = s.facingTolerance;
  c.minEdgeLength = s.minEdgeLength;
  c.samplingStep = s.samplingStep;
  c.searchRange = s.searchRange;
  c.maxAngleDeg = s.maxAngleDeg;
  c.computeJacobian = true;
  c.translationInObjectFrame = true;
  c.resample = true;
  c.match = true;
  c.timing = s.timing;
  c.showDebug = s.showDebug;
  c.verbose = false;
  c.robust = s.robust;
  c.lensDistortion = s.lensDistortion;
  return c;
}

// Divergence guard: 0, the rotation conversion's code, or -4 when the pose is
// too far from the entry pose. A non-finite pose fails the bounds as well, so
// that a bad increment cannot iterate on.
int checkDivergence(const double* startPoseInverse, const double* pose,
                    const GaussNewtonSettings& s, int iteration) {
  double absRot = 0.0, absTransl = 0.0;
  const int rvecCode = motionSince(startPoseInverse, pose, &absRot, &absTransl);
  if (rvecCode != 0) return rvecCode;
  const bool rotTooLarge = !(absRot <= s.maxAbsRotDeg);
  const bool translTooLarge = !(absTransl <= s.maxAbsTransl);
  if (!rotTooLarge && !translTooLarge) return 0;
  if (s.verbose) {
    if (rotTooLarge) printf("Too large absolute rotation. Rot = %g\n", absRot);
    if (translTooLarge) printf("Too large absolute translation. Trasl = %g\n", absTransl);
    printf("EXIT GN. Iteration n. %d\n", iteration);
  }
  return ZOT_ERR_DIVERGENCE;
}

// Whether the next iteration re-samples: only once the pose has moved enough
// since the last sampling, whose pose inverse is then updated. With a
// re-sampling distance in pixels, once the largest sample moves of the
// iterations since (movedPx, which then restarts) add up to it: a bound of
// how far the contour can have gone.
bool resampleNext(double* samplingPoseInverse, const double* pose, double rotUpdate,
                  double stepNorm, const GaussNewtonSettings& s, double& movedPx) {
  if (s.robust != nullptr && s.robust->resamplePx > 0.0) {
    const bool resample = movedPx >= s.robust->resamplePx;
    if (s.verbose) printf(resample ? "Resampling after %g px\n" : "NO resampling\n", movedPx);
    if (resample) movedPx = 0.0;
    return resample;
  }
  double sinceRot = 0.0, sinceTransl = 0.0;
  if (motionSince(samplingPoseInverse, pose, &sinceRot, &sinceTransl) != 0) return true;
  bool resample = true;
  if (sinceRot < s.resampleRotDeg && sinceTransl < s.resampleTransl) {
    resample = false;
  } else {
    inverseTransform(pose, samplingPoseInverse);
  }
  // These report the last increment, not the accumulated motion that decides.
  if (s.verbose) {
    if (rotUpdate >= s.resampleRotDeg) printf("Resampling because of rotation %g\n", rotUpdate);
    if (stepNorm >= s.resampleTransl) printf("Resampling because of translation %g\n", stepNorm);
    if (!resample) printf("NO resampling\n");
  }
  return resample;
}

}  // namespace

int ContourTracker::poseUpdateLoop(
    Multibody& model, const unsigned char* const* images, double* pose, double* covariance,
    const double* const* camTransforms, const double* const* camIntrinsics, int maxIterations,
    double convRotDeg, double convTransl, double maxAbsRotDeg, double maxAbsTransl,
    double facingTolerance, int samplingStep, double minEdgeLength, double searchRange,
    double maxAngleDeg, double minInliers, double minInliersAtEnd, double maxFinalCost,
    double resampleRotDeg, double resampleTransl, const double* dofMask, bool timing,
    bool showDebug, bool verbose) {
  const GaussNewtonSettings settings{
      maxIterations,   convRotDeg,      convTransl,    maxAbsRotDeg,   maxAbsTransl,
      facingTolerance, samplingStep,    minEdgeLength, searchRange,    maxAngleDeg,
      minInliers,      minInliersAtEnd, maxFinalCost,  resampleRotDeg, resampleTransl,
      dofMask,         timing,          showDebug,     verbose};
  return poseUpdateLoop(model, images, pose, covariance, camTransforms, camIntrinsics, settings);
}

int ContourTracker::poseUpdateLoop(Multibody& model, const unsigned char* const* images,
                                   double* pose, double* covariance,
                                   const double* const* camTransforms,
                                   const double* const* camIntrinsics,
                                   const GaussNewtonSettings& s) {
  if (s.robust != nullptr && s.robust->enabled != 0)
    return poseUpdateLoopRobust(model, images, pose, covariance, camTransforms, camIntrinsics, s);
  double startPose[16], startPoseInverse[16], samplingPoseInverse[16];
  matrixCopy(pose, startPose, 4, 4);
  if (covariance != nullptr) matrixZero(covariance, 6, 6);
  inverseTransform(pose, startPoseInverse);
  matrixCopy(startPoseInverse, samplingPoseInverse, 4, 4);
  CostSettings costSettings = iterationCostSettings(s);
  int iteration = 0;
  double inlierCount = 0.0, movedPx = 0.0;
  double dx[6];
  // Every failure hands the caller its pose back exactly as it came in.
  auto fail = [&](int code) {
    matrixCopy(startPose, pose, 4, 4);
    return code;
  };

  for (;;) {
    if (s.timing) {
      char header[64];
      const int length =
          snprintf(header, sizeof(header), " ## GAUSS-NEWTON ITERATION %d\n", iteration);
      globalStrcat(header, length);
    }

    m_cost = 0.0;
    const int costCode = computeOverallCostAndJacobian(model, m_cost, pose, camTransforms,
                                                       camIntrinsics, costSettings);
    if (costCode != 0) return fail(costCode);
    if (s.showDebug) showMatches(model, images, s.searchRange);

    inlierCount = 0.0;
    for (int i = 0; i < m_nTotalPoints; i++) inlierCount += m_inlierWeights[i];
    if (inlierCount < s.minInliers) {
      if (s.verbose) {
        printf("EXIT GN: too low percentage of matching points (inliers) %d\n", iteration);
      }
      return fail(ZOT_ERR_TOO_MANY_OUTLIERS);
    }
    if (s.verbose) printf(" Global error: %g\n", m_cost);

    const int64_t solveStart = s.timing ? getTickCount() : 0;
    const int solveCode = computePoseUpdate_squareLSE(dx, s.dofMask, false, covariance);
    if (solveCode != 0) return fail(solveCode);
    if (s.timing) showElapsed("SVD solution of LSE", solveStart, getTickCount());
    const double rotUpdate = norm(dx, 3);
    if (s.verbose) printf("Update: rot = %g trasl = %g\n", rotUpdate, norm(dx + 3, 3));

    const int64_t updateStart = s.timing ? getTickCount() : 0;
    const double oldTranslation[3] = {pose[3], pose[7], pose[11]};
    updatePoseTwist(pose, dx);
    const double step[3] = {oldTranslation[0] - pose[3], oldTranslation[1] - pose[7],
                            oldTranslation[2] - pose[11]};
    const double stepNorm = norm(step, 3);
    const int divergenceCode = checkDivergence(startPoseInverse, pose, s, iteration);
    if (divergenceCode != 0) return fail(divergenceCode);

    // Rotation from the increment, translation from the pose's actual move.
    if (rotUpdate < s.convRotDeg && stepNorm < s.convTransl) break;

    iteration++;
    if (iteration >= s.maxIterations) {
      if (s.verbose) printf("EXIT GN: max. iteration reached\n");
      return fail(ZOT_ERR_MAX_ITERATIONS);
    }
    if (s.robust != nullptr && s.robust->resamplePx > 0.0) movedPx += largestSampleMove(dx);
    costSettings.resample =
        resampleNext(samplingPoseInverse, pose, rotUpdate, stepNorm, s, movedPx);
    if (s.timing) showElapsed("Pose update and diagnostics", updateStart, getTickCount());
  }

  // The final checks use the count and cost of the last evaluation, made
  // before the last increment.
  if (s.verbose) {
    printf("EXIT GN: convergence (small roto-translation update). Iteration n. %d\n", iteration);
  }
  if (inlierCount < s.minInliersAtEnd) {
    if (s.verbose) {
      printf("FAILED GN: too low percentage of matching points (inliers) at the end \n");
    }
    return fail(ZOT_ERR_TOO_MANY_OUTLIERS);
  }
  if (s.maxFinalCost > 0.0 && m_cost > s.maxFinalCost) {
    if (s.verbose) printf("FAILED GN: too high reprojection error at the end \n");
    return fail(ZOT_ERR_FINAL_REPROJECTION);
  }
  return 0;
}

// The designed loop with the robust estimator's weights and tests: the
// scale and weights are renewed in every iteration, convergence is the
// largest move of a sample along its normal, and at the iteration limit a
// stalled robust cost with enough inliers is accepted. The final tests are
// the inlier count, the inlier fraction and the inliers' RMS residual; the
// designed final cost test does not apply.
int ContourTracker::poseUpdateLoopRobust(Multibody& model, const unsigned char* const* images,
                                         double* pose, double* covariance,
                                         const double* const* camTransforms,
                                         const double* const* camIntrinsics,
                                         const GaussNewtonSettings& s) {
  const RobustSettings& r = *s.robust;
  double startPose[16], startPoseInverse[16], samplingPoseInverse[16];
  matrixCopy(pose, startPose, 4, 4);
  if (covariance != nullptr) matrixZero(covariance, 6, 6);
  inverseTransform(pose, startPoseInverse);
  matrixCopy(startPoseInverse, samplingPoseInverse, 4, 4);
  CostSettings costSettings = iterationCostSettings(s);
  m_quality = FitQuality{};
  double inliers = 0.0, previousCost = -1.0, movedPx = 0.0, dx[6];
  auto fail = [&](int code) {
    matrixCopy(startPose, pose, 4, 4);
    return code;
  };

  for (int iteration = 0;; iteration++) {
    m_cost = 0.0;
    const int costCode = computeOverallCostAndJacobian(model, m_cost, pose, camTransforms,
                                                       camIntrinsics, costSettings);
    if (costCode != 0) return fail(costCode);
    if (s.showDebug) showMatches(model, images, s.searchRange);
    inliers = reweight(r, s.searchRange);
    m_quality.iterations = iteration + 1;
    if (inliers < s.minInliers) {
      if (s.verbose) printf("EXIT GN: too few inliers (%g) in iteration %d\n", inliers, iteration);
      return fail(ZOT_ERR_TOO_MANY_OUTLIERS);
    }
    if (s.verbose) {
      printf(" Robust cost: %g, scale %g px, inliers %g\n", m_quality.robustCost, m_quality.scalePx,
             inliers);
    }
    const int solveCode = computePoseUpdate_squareLSE(dx, s.dofMask, false, covariance);
    if (solveCode != 0) return fail(solveCode);

    const double largestMove = largestSampleMove(dx);
    movedPx += largestMove;
    const double oldTranslation[3] = {pose[3], pose[7], pose[11]};
    updatePoseTwist(pose, dx);
    const int divergenceCode = checkDivergence(startPoseInverse, pose, s, iteration);
    if (divergenceCode != 0) return fail(divergenceCode);
    if (largestMove < r.convergencePx) break;

    const double cost = m_quality.robustCost;
    const bool stalled = previousCost > 0.0 && (previousCost - cost) <= r.costChange * previousCost;
    previousCost = cost;
    if (iteration + 1 >= s.maxIterations) {
      if (stalled && inliers >= s.minInliersAtEnd) {
        m_quality.stalled = 1;
        if (s.verbose) printf("EXIT GN: iteration limit, robust cost stalled: pose accepted\n");
        break;
      }
      if (s.verbose) printf("EXIT GN: max. iteration reached\n");
      return fail(ZOT_ERR_MAX_ITERATIONS);
    }
    const double step[3] = {oldTranslation[0] - pose[3], oldTranslation[1] - pose[7],
                            oldTranslation[2] - pose[11]};
    costSettings.resample =
        resampleNext(samplingPoseInverse, pose, norm(dx, 3), norm(step, 3), s, movedPx);
  }

  if (inliers < s.minInliersAtEnd || m_quality.inlierFraction < r.minInlierFraction) {
    if (s.verbose) {
      printf("FAILED GN: too few inliers at the end (%g, %.0f %% of the samples)\n", inliers,
             100.0 * m_quality.inlierFraction);
    }
    return fail(ZOT_ERR_TOO_MANY_OUTLIERS);
  }
  if (m_quality.residualPx > r.maxResidualPx) {
    if (s.verbose) {
      printf("FAILED GN: inlier residual %g px above %g px\n", m_quality.residualPx,
             r.maxResidualPx);
    }
    return fail(ZOT_ERR_FINAL_REPROJECTION);
  }
  m_quality.disagreementPx = cameraDisagreement(model, s.dofMask, dx);
  if (r.maxDisagreementPx > 0.0 && m_quality.disagreementPx > r.maxDisagreementPx) {
    if (s.verbose) {
      printf("FAILED GN: the cameras disagree by %g px (at most %g)\n", m_quality.disagreementPx,
             r.maxDisagreementPx);
    }
    return fail(ZOT_ERR_FINAL_REPROJECTION);
  }
  return 0;
}

// Debug view of an iteration: the cost, then each camera's matches over its
// image in "tracking0" / "tracking1", waiting for a key.
void ContourTracker::showMatches(const Multibody& model, const unsigned char* const* images,
                                 double searchRange) {
  printf("Re-projection error: %g\n", m_cost);
  for (int c = 0; c < m_nCams && c < 2; c++) {
    const int width = m_imageWidth[c], height = m_imageHeight[c];
    if (!m_camEnabled[c]) {
      memset(m_displayImage, 0, (size_t)width * height * 3);
    } else {
      merge(images[c], images[c], images[c], m_displayImage, width, height);
      drawMatchingPoints(usableSamples(model, c, m_maxSamplePoints), m_projPoints[c], m_normals[c],
                         m_matchedPoints[c], m_matchFlags[c], m_displayImage, width, height, true,
                         true, searchRange);
    }
    // The display buffer is shared, so each camera is looked at before the
    // next one overwrites it.
    const char* name = c == 0 ? "tracking0" : "tracking1";
    createWindow(name, ZOT_WINDOW_AUTOSIZE);
    showImage(name, m_displayImage, width, height, 3);
    waitKey(0);
  }
}

// ================================================================ cost

int ContourTracker::computeOverallCostAndJacobian(
    Multibody& model, double& cost, const double* pose, const double* const* camTransforms,
    const double* const* camIntrinsics, double facingTolerance, double minEdgeLength,
    int samplingStep, double searchRange, double maxAngleDeg, bool computeJacobian,
    bool translationInObjectFrame, bool resample, bool match, bool timing, bool showDebug,
    bool verbose) {
  const CostSettings settings{facingTolerance,
                              minEdgeLength,
                              samplingStep,
                              searchRange,
                              maxAngleDeg,
                              computeJacobian,
                              translationInObjectFrame,
                              resample,
                              match,
                              timing,
                              showDebug,
                              verbose};
  return computeOverallCostAndJacobian(model, cost, pose, camTransforms, camIntrinsics, settings);
}

int ContourTracker::computeOverallCostAndJacobian(Multibody& model, double& cost,
                                                  const double* pose,
                                                  const double* const* camTransforms,
                                                  const double* const* camIntrinsics,
                                                  const CostSettings& s) {
  m_nTotalPoints = 0;
  if (s.resample) model.resetNSamplePointsPerCam();
  for (int c = 0; c < m_nCams; c++) {
    if (!m_camEnabled[c]) continue;
    const int code = sampleReprojectAndMatch(model, c, pose, camTransforms, camIntrinsics, s);
    if (code != 0) return code;
    m_nTotalPoints += usableSamples(model, c, m_maxSamplePoints);
  }
  if (m_nTotalPoints == 0) return ZOT_ERR_OUT_OF_SCREEN;

  const int64_t stackStart = s.timing ? getTickCount() : 0;
  cost = stackResiduals(model, s.searchRange, s.computeJacobian) / m_nTotalPoints;
  if (s.timing) showElapsed("Cost, normal residuals and Jacobians", stackStart, getTickCount());
  return 0;
}

// One camera's part of the cost: sample the contour (when asked), reproject
// it with its Jacobian, match it (when asked). Returns 0 or the sampler's code.
int ContourTracker::sampleReprojectAndMatch(Multibody& model, int c, const double* pose,
                                            const double* const* camTransforms,
                                            const double* const* camIntrinsics,
                                            const CostSettings& s) {
  static const char* const kSamplingLabel[2] = {"VLD+sampling, cam 0", "VLD+sampling, cam 1"};
  static const char* const kReprojectionLabel[2] = {"2D reprojection and Jac, cam 0",
                                                    "2D reprojection and Jac, cam 1"};
  static const char* const kMatchLabel[2] = {"Match along normals, cam 0",
                                             "Match along normals, cam 1"};
  const bool labelled = s.timing && c < 2;
  const bool robust = s.robust != nullptr && s.robust->enabled != 0;
  double T[16];
  matrixProduct444(camTransforms[c], pose, T);
  const double* K = camIntrinsics[c];

  if (s.resample) {
    const int64_t start = labelled ? getTickCount() : 0;
    const int code = model.sampleContour_Zbuffer(
        c, T, K, m_imageWidth[c], m_imageHeight[c], m_zNear[c], m_zFar[c], s.facingTolerance,
        s.minEdgeLength, s.samplingStep, nullptr, nullptr, nullptr,
        robust ? m_sampleIds[c] : nullptr, true, false, s.showDebug, s.verbose);
    if (code != 0) {
      if (s.verbose) printf("ERROR: Something wrong with the VLD\n");
      return code;
    }
    if (labelled) showElapsed(kSamplingLabel[c], start, getTickCount());
  }

  const double K34[12] = {K[0], K[1], K[2], 0.0, K[3], K[4], K[5], 0.0, K[6], K[7], K[8], 0.0};
  double P[12];
  matrixProduct344(K34, camTransforms[c], P);
  int64_t start = labelled ? getTickCount() : 0;
  computeReprojectionAndJacobian(model, c, pose, P, s.computeJacobian, s.translationInObjectFrame);
  if (s.lensDistortion != nullptr && s.lensDistortion[c] != nullptr)
    projectThroughLens(model, c, camIntrinsics[c], s.lensDistortion[c], s.computeJacobian);
  if (labelled) showElapsed(kReprojectionLabel[c], start, getTickCount());

  if (s.match) {
    start = labelled ? getTickCount() : 0;
    if (robust)
      matchAlongNormalsRobust(model, c, s.searchRange, s.maxAngleDeg, *s.robust);
    else
      matchAlongNormals(model, c, s.searchRange, s.maxAngleDeg, s.showDebug, s.verbose);
    if (labelled) showElapsed(kMatchLabel[c], start, getTickCount());
  }
  return 0;
}

// Stacks residual, weight and (optionally) Jacobian row of every point of the
// enabled cameras; returns the sum of r^2 / 2.
double ContourTracker::stackResiduals(const Multibody& model, double searchRange,
                                      bool computeJacobian) {
  int i = 0;
  double sum = 0.0;
  for (int c = 0; c < m_nCams; c++) {
    if (!m_camEnabled[c]) continue;
    const int n = usableSamples(model, c, m_maxSamplePoints);
    const double* uv = m_projPoints[c];
    const double* normal = m_normals[c];
    const double* matched = m_matchedPoints[c];
    const double* flags = m_matchFlags[c];
    for (int k = 0; k < n; k++, i++) {
      const double nx = normal[2 * k], ny = normal[2 * k + 1];
      const double weight = flags[k];
      const double r = weight > 0.0 ? (matched[2 * k] - uv[2 * k]) * nx +
                                          (matched[2 * k + 1] - uv[2 * k + 1]) * ny
                                    : searchRange;
      m_inlierWeights[i] = weight;
      m_residuals[i] = r;
      sum += 0.5 * r * r;
      if (computeJacobian) {
        const double* ju = m_jacU[c] + 6 * k;
        const double* jv = m_jacV[c] + 6 * k;
        double* row = m_normalJacobian + 6 * i;
        for (int j = 0; j < 6; j++) row[j] = nx * ju[j] + ny * jv[j];
      }
    }
  }
  return sum;
}

// ================================================================ reprojection and Jacobian

int ContourTracker::computeReprojectionAndJacobian(const Multibody& model, int cam,
                                                   const double* pose, const double* P,
                                                   bool computeJacobian,
                                                   bool translationInObjectFrame) {
  const int n = usableSamples(model, cam, m_maxSamplePoints);
  if (cam < 0 || cam >= m_nCams || n == 0) return 0;
  const double* X = model.getSamplePointsPerCam(cam);
  const double* D = model.getSampleTangentDirPerCam(cam);
  if (X == nullptr || D == nullptr) return 0;

  double M[12];
  matrixProduct344(P, pose, M);
  // A = K R_cam acts on reference-frame directions, B = K R_cam R_obj on
  // object-frame ones; c is the projected object origin.
  const double A[9] = {P[0], P[1], P[2], P[4], P[5], P[6], P[8], P[9], P[10]};
  const double B[9] = {M[0], M[1], M[2], M[4], M[5], M[6], M[8], M[9], M[10]};
  const double c[3] = {M[3], M[7], M[11]};
  double* uv = m_projPoints[cam];
  double* normal = m_normals[cam];
  double* jacU = m_jacU[cam];
  double* jacV = m_jacV[cam];

  for (int k = 0; k < n; k++, X += 3, D += 3) {
    double p[3], q[3], XT[3];
    matrixProduct331(B, X, p);
    matrixSum31(p, c, p);
    const double u = p[0] / p[2], v = p[1] / p[2];
    uv[2 * k] = u;
    uv[2 * k + 1] = v;

    // The normal is the projected tangent turned a quarter turn.
    matrixSum31(X, D, XT);
    matrixProduct331(B, XT, q);
    matrixSum31(q, c, q);
    const double a = q[1] / q[2] - v, b = -(q[0] / q[2] - u);
    const double s = a * a + b * b;
    if (s > 1e-20 && s <= DBL_MAX) {
      const double root = std::sqrt(s);
      normal[2 * k] = a / root;
      normal[2 * k + 1] = b / root;
    } else {
      normal[2 * k] = 1.0;
      normal[2 * k + 1] = 0.0;
    }

    if (!computeJacobian) continue;
    // Derivatives of the object point: kappa * (e_j x X) for a rotation of
    // one degree about object axis j, e_j for a translation.
    const double dX[3][3] = {{0.0, -kDegToRad * X[2], kDegToRad * X[1]},
                             {kDegToRad * X[2], 0.0, -kDegToRad * X[0]},
                             {-kDegToRad * X[1], kDegToRad * X[0], 0.0}};
    const double invZ = 1.0 / p[2];
    for (int j = 0; j < 6; j++) {
      double d[3];
      if (j < 3) {
        matrixProduct331(B, dX[j], d);
      } else {
        const double* G = translationInObjectFrame ? B : A;
        d[0] = G[j - 3];
        d[1] = G[3 + j - 3];
        d[2] = G[6 + j - 3];
      }
      jacU[6 * k + j] = d[0] * invZ - p[0] * d[2] * invZ * invZ;
      jacV[6 * k + j] = d[1] * invZ - p[1] * d[2] * invZ * invZ;
    }
  }
  return 0;
}

void ContourTracker::projectThroughLens(const Multibody& model, int cam, const double* K,
                                        const double* distortion, bool computeJacobian) {
  const int n = usableSamples(model, cam, m_maxSamplePoints);
  if (cam < 0 || cam >= m_nCams) return;
  double* uv = m_projPoints[cam];
  double* normal = m_normals[cam];
  const LensModel lens(K, distortion);
  for (int k = 0; k < n; k++) {
    double D[4], moved[2];
    if (!lens.distort(uv[2 * k], uv[2 * k + 1], moved, D)) {
      uv[2 * k] = uv[2 * k + 1] = -1e9;  // unmatched, like a point far off the image
      continue;
    }
    uv[2 * k] = moved[0];
    uv[2 * k + 1] = moved[1];
    // The normal is the tangent (-ny, nx) carried by D, turned back.
    const double nx = normal[2 * k], ny = normal[2 * k + 1];
    const double tx = -D[0] * ny + D[1] * nx, ty = -D[2] * ny + D[3] * nx;
    const double s = tx * tx + ty * ty;
    if (s > 1e-20 && s <= DBL_MAX) {
      const double root = std::sqrt(s);
      normal[2 * k] = ty / root;
      normal[2 * k + 1] = -tx / root;
    }
    if (!computeJacobian) continue;
    double* ju = m_jacU[cam] + 6 * k;
    double* jv = m_jacV[cam] + 6 * k;
    for (int j = 0; j < 6; j++) {
      const double du = ju[j], dv = jv[j];
      ju[j] = D[0] * du + D[1] * dv;
      jv[j] = D[2] * du + D[3] * dv;
    }
  }
}

// ================================================================ matching along normals

int ContourTracker::matchAlongNormals(const Multibody& model, int cam, double searchRange,
                                      double maxAngleDeg, bool /*display*/, bool /*verbose*/) {
  const int n = usableSamples(model, cam, m_maxSamplePoints);
  if (cam < 0 || cam >= m_nCams) return 0;
  const int width = m_imageWidth[cam], height = m_imageHeight[cam];
  const double* uv = m_projPoints[cam];
  const double* normal = m_normals[cam];
  double* matched = m_matchedPoints[cam];
  double* flags = m_matchFlags[cam];
  const double cosLimit = orientationLimit(maxAngleDeg);
  for (int k = 0; k < n; k++) {
    // roundToPixel sends NaN and huge values far outside the image.
    const int start[2] = {roundToPixel(uv[2 * k]), roundToPixel(uv[2 * k + 1])};
    int found[2];
    if (start[0] >= 0 && start[0] < width && start[1] >= 0 && start[1] < height &&
        nearestOrientedEdge(m_edgeMap[cam], m_gradX[cam], m_gradY[cam], width, height, start,
                            normal + 2 * k, searchRange, cosLimit, found)) {
      matched[2 * k] = found[0];
      matched[2 * k + 1] = found[1];
      flags[k] = 1.0;
    } else {
      matched[2 * k] = 0.0;
      matched[2 * k + 1] = 0.0;
      flags[k] = 0.0;
    }
  }
  return 0;
}

int ContourTracker::matchAlongNormalsRobust(const Multibody& model, int cam, double searchRange,
                                            double maxAngleDeg, const RobustSettings& r) {
  if (cam < 0 || cam >= m_nCams) return 0;
  const int n = usableSamples(model, cam, m_maxSamplePoints);
  const int width = m_imageWidth[cam], height = m_imageHeight[cam];
  const double* uv = m_projPoints[cam];
  const double* normal = m_normals[cam];
  double* matched = m_matchedPoints[cam];
  double* flags = m_matchFlags[cam];
  unsigned char* edges = m_edgeMap[cam];
  const short* gx = m_gradX[cam];
  const short* gy = m_gradY[cam];
  const double cosLimit = orientationLimit(maxAngleDeg);
  const bool memory = r.polarityMemory != 0 && m_sampleIds[cam] != nullptr;

  for (int k = 0; k < n; k++) {
    matched[2 * k] = matched[2 * k + 1] = 0.0;
    flags[k] = 0.0;
    const int start[2] = {roundToPixel(uv[2 * k]), roundToPixel(uv[2 * k + 1])};
    if (start[0] < 0 || start[0] >= width || start[1] < 0 || start[1] >= height) continue;
    const double* nk = normal + 2 * k;
    double expected = 0.0;
    if (memory) {
      const int slot = polaritySlot(m_polarityKeys[cam], m_sampleIds[cam][k], false);
      if (slot >= 0) expected = m_polarityValues[cam][slot];
    }
    // Nearest first; an edge of the remembered polarity wins over a nearer
    // one of the other, which is kept as the fallback.
    long chosen = -1, fallback = -1;
    walkSearchLine(edges, width, height, start, nk, searchRange, [&](long offset) {
      if (!orientedEdge(edges, gx, gy, offset, nk, cosLimit)) return false;
      const double along = nk[0] * gx[offset] + nk[1] * gy[offset];
      if (expected == 0.0 || (along > 0.0) == (expected > 0.0)) {
        chosen = offset;
        return true;
      }
      if (fallback < 0) fallback = offset;
      return false;
    });
    if (chosen < 0) chosen = fallback;
    if (chosen < 0) continue;
    double refined[2];
    refineEdgeSubpixel(gx, gy, width, height, (int)(chosen % width), (int)(chosen / width),
                       refined);
    matched[2 * k] = refined[0];
    matched[2 * k + 1] = refined[1];
    flags[k] = 1.0;
  }
  return 0;
}

bool ContourTracker::measurement_single_line_nn_Canny(int cam, const int* start,
                                                      const double* normal, double searchRange,
                                                      double maxAngleDeg, int* found) {
  if (cam < 0 || cam >= m_nCams) return false;
  return nearestOrientedEdge(m_edgeMap[cam], m_gradX[cam], m_gradY[cam], m_imageWidth[cam],
                             m_imageHeight[cam], start, normal, searchRange,
                             orientationLimit(maxAngleDeg), found);
}

bool ContourTracker::measurement_single_line_nn_dir_der(int cam, const int* start,
                                                        const double* normal, double searchRange,
                                                        double relThreshold, double /*maxAngleDeg*/,
                                                        int* found) {
  if (cam < 0 || cam >= m_nCams) return false;
  const int x = start[0], y = start[1];
  const double nx = normal[0], ny = normal[1];
  // Two extra pixels each way feed the five-pixel peak window.
  const double reach = searchRange + 2.0;
  const int a[2] = {roundToPixel(x - reach * nx), roundToPixel(y - reach * ny)};
  const int b[2] = {roundToPixel(x + reach * nx), roundToPixel(y + reach * ny)};
  const int width = m_imageWidth[cam], height = m_imageHeight[cam];
  unsigned char* edges = m_edgeMap[cam];
  myLineIterator it;
  const int count = initLineIterator(edges, width, height, 1, a, b, &it, 4, 0);
  if (count <= 4) return false;
  if (count > kDirDerCapacity) {
    printf(
        "ERROR: search line of %d pixels exceeds the %d the directional-derivative "
        "measurement holds\n",
        count, kDirDerCapacity);
    return false;
  }

  long offsets[kDirDerCapacity];
  double derivative[kDirDerCapacity];
  for (int i = 0; i < count; i++) {
    const long offset = it.m_ptr - edges;
    offsets[i] = offset;
    derivative[i] = std::fabs(ny * m_gradY[cam][offset] + nx * m_gradX[cam][offset]);
    if (i + 1 < count) advanceLineIterator(it);
  }

  const double threshold = relThreshold * 8.0 * 255.0;
  double best = 1000000.0;
  bool taken = false;
  for (int i = 2; i <= count - 3; i++) {
    const double d = derivative[i];
    if (d < threshold || d < derivative[i - 1] || d < derivative[i + 1] ||
        !(d > derivative[i - 2]) || !(d > derivative[i + 2])) {
      continue;
    }
    const int px = (int)(offsets[i] % width), py = (int)(offsets[i] / width);
    const double distance = std::fabs((px - x) * nx + (py - y) * ny);
    if (distance < best) {
      best = distance;
      found[0] = px;
      found[1] = py;
      taken = true;
    }
  }
  return taken;
}

// ================================================================ least-squares update

int ContourTracker::computePoseUpdate_squareLSE(double* dx, const double* mask,
                                                bool computeCovariance, double* covariance) {
  int64_t phaseStart = kTimeSquareSolver ? getTickCount() : 0;
  double H[36] = {0.0}, g[6] = {0.0}, diag[6] = {0.0};
  double rss = 0.0;
  int nUsed = 0;
  for (int i = 0; i < m_nTotalPoints; i++) {
    // The designed weights are 0 or 1, and a product with 1 is exact: the
    // robust estimator's weights share this loop.
    const double w = m_inlierWeights[i];
    if (w == 0.0) continue;
    const double* J = m_normalJacobian + 6 * i;
    const double r = m_residuals[i];
    for (int a = 0; a < 6; a++) {
      const double wJ = w * J[a];
      for (int b = a; b < 6; b++) H[6 * a + b] += wJ * J[b];
      g[a] += wJ * r;
      diag[a] += wJ * J[a];
    }
    rss += w * r * r;
    nUsed++;
  }
  for (int a = 0; a < 6; a++) {
    for (int b = 0; b < a; b++) H[6 * a + b] = H[6 * b + a];
  }

  // Unit-diagonal scaling; a frozen or unobserved parameter drops out.
  double s[6], gs[6], Hs[36];
  for (int a = 0; a < 6; a++) {
    const bool free = mask == nullptr || mask[a] != 0.0;
    s[a] = (free && diag[a] > 0.0) ? 1.0 / std::sqrt(diag[a]) : 0.0;
  }
  for (int a = 0; a < 6; a++) {
    gs[a] = s[a] * g[a];
    for (int b = 0; b < 6; b++) Hs[6 * a + b] = s[a] * H[6 * a + b] * s[b];
  }
  if (kTimeSquareSolver) {
    const int64_t now = getTickCount();
    showElapsed("### LSE - Hessian and gradient", phaseStart, now);
    phaseStart = now;
  }

  double w[6], Ut[36], V[36], work[42];
  int index[6];
  if (matrixSVD(Hs, 6, 6, w, Ut, V, 1, 0, work, index) != 0) return ZOT_ERR_SVD;
  if (kTimeSquareSolver) {
    const int64_t now = getTickCount();
    showElapsed("### LSE - SVD", phaseStart, now);
    phaseStart = now;
  }

  double wPlus[6], y[6], x[6];
  for (int a = 0; a < 6; a++) wPlus[a] = pseudoInverse(w[a]);
  matrixProduct661(Ut, gs, y);
  for (int a = 0; a < 6; a++) y[a] *= wPlus[a];
  matrixProduct661(V, y, x);
  for (int a = 0; a < 6; a++) dx[a] = s[a] * x[a];

  if (covariance != nullptr) {
    matrixZero(covariance, 6, 6);
    if (computeCovariance) {
      // Cumulative row scaling: row a of V ends up carrying s_0 ... s_a, and
      // row a of its transpose w+_0 ... w+_a. This form, not the plain
      // scaled inverse, is what the tracker reports.
      for (int a = 0; a < 6; a++) {
        for (int row = a; row < 6; row++) {
          for (int col = 0; col < 6; col++) V[6 * row + col] *= s[a];
        }
      }
      double T[36];
      matrixTranspose(V, T, 6, 6);
      for (int a = 0; a < 6; a++) {
        for (int row = a; row < 6; row++) {
          for (int col = 0; col < 6; col++) T[6 * row + col] *= wPlus[a];
        }
      }
      matrixProduct(V, T, covariance, 6, 6, 6);
      matrixScale(covariance, covariance, rss / nUsed, 6, 6);
    }
  }
  if (kTimeSquareSolver) showElapsed("### LSE - solution ", phaseStart, getTickCount());
  return 0;
}

int ContourTracker::computePoseUpdate_rectangularLSE(double* dx, const double* mask,
                                                     bool computeCovariance, double* covariance) {
  int freeIndex[6];
  int m = 0;
  for (int a = 0; a < 6; a++) {
    if (mask == nullptr || mask[a] != 0.0) freeIndex[m++] = a;
  }

  // Compact the free columns of the used rows in place (row nUsed never
  // lies after row i, and the free columns move only towards the front).
  int nUsed = 0;
  double rss = 0.0;
  for (int i = 0; i < m_nTotalPoints; i++) {
    if (m_inlierWeights[i] == 0.0) continue;
    double row[6];
    for (int j = 0; j < m; j++) row[j] = m_normalJacobian[6 * i + freeIndex[j]];
    for (int j = 0; j < m; j++) m_normalJacobian[(long)m * nUsed + j] = row[j];
    const double r = m_residuals[i];
    m_residuals[nUsed] = r;
    rss += r * r;
    nUsed++;
  }

  // m_rectWork holds the work of an nUsed x m system; a system with fewer
  // rows than columns needs m x m + m, which a small local array covers.
  double w[6], V[36], smallWork[42];
  int index[6];
  double* work = (long)nUsed * m >= (long)m * m ? m_rectWork : smallWork;
  if (matrixSVD(m_normalJacobian, nUsed, m, w, m_rectJacobian, V, 1, 0, work, index) != 0) {
    return ZOT_ERR_SVD;
  }
  printf("cond1 %g\n", m > 0 ? w[0] / w[m - 1] : NAN);

  double wPlus[6], y[6], x[6];
  for (int j = 0; j < m; j++) wPlus[j] = pseudoInverse(w[j]);
  for (int j = 0; j < m; j++) {
    const double* u = m_rectJacobian + (long)j * nUsed;
    double sum = 0.0;
    for (int i = 0; i < nUsed; i++) sum += u[i] * m_residuals[i];
    y[j] = sum * wPlus[j];
  }
  for (int a = 0; a < m; a++) {
    double sum = 0.0;
    for (int j = 0; j < m; j++) sum += V[m * a + j] * y[j];
    x[a] = sum;
  }
  for (int a = 0; a < 6; a++) dx[a] = 0.0;
  for (int j = 0; j < m; j++) dx[freeIndex[j]] = x[j];

  if (covariance != nullptr) {
    matrixZero(covariance, 6, 6);
    if (computeCovariance && m > 0) {
      // Same cumulative row scaling as the square form, with w+ squared.
      double T[36], C[36];
      matrixTranspose(V, T, m, m);
      for (int j = 0; j < m; j++) {
        const double w2 = wPlus[j] * wPlus[j];
        for (int row = j; row < m; row++) {
          for (int col = 0; col < m; col++) T[m * row + col] *= w2;
        }
      }
      matrixProduct(V, T, C, m, m, m);
      const double factor = rss / (nUsed - 6);
      for (int a = 0; a < m; a++) {
        for (int b = 0; b < m; b++) {
          covariance[6 * freeIndex[a] + freeIndex[b]] = C[m * a + b] * factor;
        }
      }
    }
  }
  return 0;
}

}  // namespace ZOTtracker
