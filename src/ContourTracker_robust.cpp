// The robust estimator of the contour tracker: sub-pixel edges,
// image-driven Canny thresholds, the polarity memory, M-estimator weights
// with a re-estimated scale and the cameras' agreement. Its matcher and its
// Gauss-Newton loop live beside the designed ones (ContourTracker_LM.cpp),
// which call none of this.
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "ContourTracker.h"
#include "Drawing.h"
#include "IO.h"
#include "Imgproc.h"
#include "Math.h"
#include "memory_handling.h"

namespace ZOTtracker {

RobustSettings::RobustSettings()
    : enabled(0),
      estimator(0),
      tuning(0.0),
      scaleFloorPx(0.3),
      inlierWeight(0.1),
      polarityMemory(1),
      cannyAutoRatio(0.0),
      cannyLowRatio(0.5),
      cannyFloor(10.0),
      convergencePx(0.05),
      costChange(0.01),
      recoveryRangePx(0.0),
      minInlierFraction(0.4),
      maxResidualPx(1.5),
      maxDisagreementPx(0.2),
      regionOfInterest(0),
      regionMarginPx(8.0),
      resamplePx(0.0),
      lensInProjection(0) {}

namespace {

constexpr double kTukeyConstant = 4.685;
constexpr double kHuberConstant = 1.345;
// Median absolute deviation to standard deviation, for normal residuals.
constexpr double kMadToSigma = 1.4826;
// Bins of the residual histogram the scale is read from: the median of
// |r| over [0, searchRange] to 1/kScaleBins of the range.
constexpr int kScaleBins = 1024;
// L1 Sobel magnitudes reach 2 * 4 * 255.
constexpr int kMagnitudeBins = 2041;
// Share of the region's pixels above the "robust maximum" of the gradient.
constexpr double kRobustMaxShare = 0.01;

double tuningConstant(const RobustSettings& r) {
  if (r.tuning > 0.0) return r.tuning;
  return r.estimator == 1 ? kHuberConstant : kTukeyConstant;
}

// IRLS weight of a residual u in units of the scale.
double mWeight(int estimator, double u, double c) {
  const double a = std::fabs(u);
  if (estimator == 1) return a <= c ? 1.0 : c / a;
  if (a >= c) return 0.0;
  const double t = 1.0 - (u / c) * (u / c);
  return t * t;
}

// M-estimator cost of u (units of the scale); both saturate or grow slowly.
double mCost(int estimator, double u, double c) {
  const double a = std::fabs(u);
  if (estimator == 1) return a <= c ? 0.5 * u * u : c * (a - 0.5 * c);
  if (a >= c) return c * c / 6.0;
  const double t = 1.0 - (u / c) * (u / c);
  return c * c / 6.0 * (1.0 - t * t * t);
}

// Steps of Canny's four non-maximum directions, chosen by the gradient.
void gradientStep(double gx, double gy, int* step) {
  const double ax = std::fabs(gx), ay = std::fabs(gy);
  // tan(22.5 deg) and tan(67.5 deg), as in the edge detector.
  if (ay <= 0.41421356 * ax) {
    step[0] = 1;
    step[1] = 0;
  } else if (ay >= 2.41421356 * ax) {
    step[0] = 0;
    step[1] = 1;
  } else {
    step[0] = 1;
    step[1] = (gx > 0.0) == (gy > 0.0) ? 1 : -1;
  }
}

inline double magnitudeAt(const short* gx, const short* gy, long i) {
  const double x = gx[i], y = gy[i];
  return std::sqrt(x * x + y * y);
}

}  // namespace

bool refineEdgeSubpixel(const short* gx, const short* gy, int width, int height, int x, int y,
                        double* refined) {
  refined[0] = x;
  refined[1] = y;
  if (x < 1 || y < 1 || x >= width - 1 || y >= height - 1) return false;
  const long i = (long)y * width + x;
  int step[2];
  gradientStep(gx[i], gy[i], step);
  const long d = (long)step[1] * width + step[0];
  const double a = magnitudeAt(gx, gy, i - d), b = magnitudeAt(gx, gy, i),
               c = magnitudeAt(gx, gy, i + d);
  const double curvature = a - 2.0 * b + c;
  if (!(curvature < 0.0)) return false;
  double offset = 0.5 * (a - c) / curvature;
  if (offset > 0.5) offset = 0.5;
  if (offset < -0.5) offset = -0.5;
  refined[0] = x + offset * step[0];
  refined[1] = y + offset * step[1];
  return true;
}

// ================================================================ set-up

void ContourTracker::initRobust(int maxSamplePoints) {
  for (int c = 0; c < m_nCams; c++) {
    m_sampleIds[c] = myMallocInt((size_t)maxSamplePoints);
    m_polarityKeys[c] = myMallocInt(ZOT_POLARITY_SLOTS);
    m_polarityValues[c] = myMallocDouble(ZOT_POLARITY_SLOTS);
    for (int s = 0; s < ZOT_POLARITY_SLOTS; s++) {
      m_polarityKeys[c][s] = 0;
      m_polarityValues[c][s] = 0.0;
    }
  }
}

// ================================================================ edges

int ContourTracker::edgeDetectAdaptive(const unsigned char* const* images,
                                       const int* const* regions, const RobustSettings& r) {
  for (int c = 0; c < m_nCams; c++) {
    if (!m_camEnabled[c]) continue;
    const int width = m_imageWidth[c], height = m_imageHeight[c];
    mySobel(images[c], m_gradX[c], m_gradY[c], m_cannyShortWork, width, height);
    int window[4] = {0, 0, width - 1, height - 1};
    if (regions == nullptr || !clipRegion(regions[c], width, height, window)) {
      window[0] = window[1] = 0;
      window[2] = width - 1;
      window[3] = height - 1;
    }
    adaptiveThresholds(c, window, 1, r);
    const int code = myCanny(m_gradX[c], m_gradY[c], m_edgeMap[c], m_cannyIntWork, m_cannyStack,
                             width, height, m_cannyThresholds[c][0], m_cannyThresholds[c][1]);
    if (code != 0) return code;
    setWholeEdgeWindow(c);
  }
  return 0;
}

void ContourTracker::adaptiveThresholds(int c, const int* window, int step, const RobustSettings& r,
                                        const int* spans) {
  // The gradient's distribution where the object can be: its strongest
  // edges set the scale, so that faint footage gets low thresholds.
  const int width = m_imageWidth[c];
  // Four histograms for neighbouring pixels, summed at the end: runs of
  // equal magnitudes (flat image) would otherwise wait on one counter.
  int histograms[4][kMagnitudeBins] = {};
  int* histogram = histograms[0];
  auto bin = [](int m) { return m < kMagnitudeBins ? m : kMagnitudeBins - 1; };
  long total = 0;
  for (int y = window[1]; y <= window[3]; y += step) {
    const short* dx = m_gradX[c] + (long)y * width;
    const short* dy = m_gradY[c] + (long)y * width;
    int x = window[0], last = window[2];
    if (spans != nullptr) {
      x = spans[2 * y] > x ? spans[2 * y] : x;
      last = spans[2 * y + 1] < last ? spans[2 * y + 1] : last;
    }
    for (; x + 3 * step <= last; x += 4 * step) {
      for (int i = 0; i < 4; i++) {
        const int k = x + i * step;
        histograms[i][bin(std::abs(dx[k]) + std::abs(dy[k]))]++;
      }
      total += 4;
    }
    for (; x <= last; x += step, total++) histogram[bin(std::abs(dx[x]) + std::abs(dy[x]))]++;
  }
  for (int m = 0; m < kMagnitudeBins; m++)
    histogram[m] += histograms[1][m] + histograms[2][m] + histograms[3][m];
  long above = 0;
  int robustMax = kMagnitudeBins - 1;
  while (robustMax > 0 && above + histogram[robustMax] <= kRobustMaxShare * total) {
    above += histogram[robustMax];
    robustMax--;
  }
  double high = r.cannyAutoRatio * robustMax;
  double low = r.cannyLowRatio * high;
  if (low < r.cannyFloor) low = r.cannyFloor;
  if (high < low) high = low;
  m_cannyThresholds[c][0] = low;
  m_cannyThresholds[c][1] = high;
}

// ================================================================ polarity memory

// Slot of edge `id` in a camera's polarity table (open addressing), or -1.
int ContourTracker::polaritySlot(const int* keys, int id, bool insert) {
  const uint32_t mask = ZOT_POLARITY_SLOTS - 1;
  uint32_t h = ((uint32_t)id * 2654435761u) >> 7;
  for (int probe = 0; probe < ZOT_POLARITY_SLOTS; probe++, h++) {
    const int slot = (int)(h & mask);
    if (keys[slot] == id + 1) return slot;
    if (keys[slot] == 0) return insert ? slot : -1;
  }
  return -1;
}

void ContourTracker::rememberPolarity(const Multibody& model) {
  for (int c = 0; c < m_nCams; c++) {
    if (!m_camEnabled[c] || m_sampleIds[c] == nullptr) continue;
    int* keys = m_polarityKeys[c];
    double* values = m_polarityValues[c];
    for (int s = 0; s < ZOT_POLARITY_SLOTS; s++) keys[s] = 0, values[s] = 0.0;
    const int n = usableSampleCount(model, c);
    const int width = m_imageWidth[c];
    for (int k = 0; k < n; k++) {
      if (m_matchFlags[c][k] == 0.0) continue;
      const int slot = polaritySlot(keys, m_sampleIds[c][k], true);
      if (slot < 0) continue;
      const long i = (long)roundToPixel(m_matchedPoints[c][2 * k + 1]) * width +
                     roundToPixel(m_matchedPoints[c][2 * k]);
      const double along =
          m_normals[c][2 * k] * m_gradX[c][i] + m_normals[c][2 * k + 1] * m_gradY[c][i];
      keys[slot] = m_sampleIds[c][k] + 1;
      values[slot] += along > 0.0 ? 1.0 : -1.0;
    }
  }
}

void ContourTracker::forgetPolarity() {
  for (int c = 0; c < m_nCams; c++) {
    if (m_polarityKeys[c] == nullptr) continue;
    for (int s = 0; s < ZOT_POLARITY_SLOTS; s++) m_polarityKeys[c][s] = 0;
  }
}

// ================================================================ camera agreement

double ContourTracker::cameraDisagreement(const Multibody& model, const double* mask,
                                          const double* jointDx) {
  int seeing = 0;
  for (int c = 0; c < m_nCams; c++) seeing += m_camEnabled[c] && usableSampleCount(model, c) > 0;
  if (seeing < 2) return 0.0;
  // The rows are stacked camera after camera: the solver is pointed at one
  // camera's block at a time.
  double* const residuals = m_residuals;
  double* const jacobian = m_normalJacobian;
  double* const weights = m_inlierWeights;
  const int total = m_nTotalPoints;
  double worst = 0.0;
  for (int c = 0, start = 0; c < m_nCams; c++) {
    if (!m_camEnabled[c]) continue;
    const int n = usableSampleCount(model, c);
    m_residuals = residuals + start;
    m_normalJacobian = jacobian + 6L * start;
    m_inlierWeights = weights + start;
    m_nTotalPoints = n;
    double dx[6];
    if (n > 0 && computePoseUpdate_squareLSE(dx, mask, false, nullptr) == 0) {
      double moved = 0.0, weightSum = 0.0;
      for (int i = 0; i < n; i++) {
        if (m_inlierWeights[i] == 0.0) continue;
        double move = 0.0;
        for (int j = 0; j < 6; j++) move += m_normalJacobian[6 * i + j] * (dx[j] - jointDx[j]);
        moved += m_inlierWeights[i] * move * move;
        weightSum += m_inlierWeights[i];
      }
      const double rms = weightSum > 0.0 ? std::sqrt(moved / weightSum) : 0.0;
      if (rms > worst) worst = rms;
    }
    start += n;
  }
  m_residuals = residuals;
  m_normalJacobian = jacobian;
  m_inlierWeights = weights;
  m_nTotalPoints = total;
  return worst;
}

// ================================================================ weights

double ContourTracker::reweight(const RobustSettings& r, double searchRange) {
  // Scale: the median of |r| over the matched samples, read from a
  // histogram (no sort, no buffer), as a standard deviation.
  int histogram[kScaleBins] = {0};
  int matched = 0;
  const double binWidth = (searchRange > 0.0 ? searchRange : 1.0) / kScaleBins;
  for (int i = 0; i < m_nTotalPoints; i++) {
    if (m_inlierWeights[i] == 0.0) continue;
    // Compared as a double first: a huge or non-finite residual has no int.
    const double at = std::fabs(m_residuals[i]) / binWidth;
    histogram[at < kScaleBins ? (int)at : kScaleBins - 1]++;
    matched++;
  }
  double median = 0.0;
  if (matched > 0) {
    int seen = 0, bin = 0;
    while (bin < kScaleBins - 1 && seen + histogram[bin] < (matched + 1) / 2)
      seen += histogram[bin++];
    const double inside =
        histogram[bin] > 0 ? ((matched + 1) / 2 - seen) / (double)histogram[bin] : 0.5;
    median = (bin + inside) * binWidth;
  }
  double scale = kMadToSigma * median;
  if (scale < r.scaleFloorPx) scale = r.scaleFloorPx;
  if (!(scale > 0.0)) scale = 1.0;

  const double c = tuningConstant(r);
  const double floor = r.scaleFloorPx > 0.0 ? r.scaleFloorPx : scale;
  double weightSum = 0.0, weightedSquares = 0.0, cost = 0.0;
  int inliers = 0;
  for (int i = 0; i < m_nTotalPoints; i++) {
    const double u = m_residuals[i];
    if (m_inlierWeights[i] == 0.0) {
      cost += mCost(r.estimator, searchRange / floor, c);
      continue;
    }
    const double w = mWeight(r.estimator, u / scale, c);
    m_inlierWeights[i] = w;
    cost += mCost(r.estimator, u / floor, c);
    if (w > r.inlierWeight) {
      inliers++;
      weightSum += w;
      weightedSquares += w * u * u;
    }
  }
  m_quality.samples = m_nTotalPoints;
  m_quality.inlierFraction = m_nTotalPoints > 0 ? (double)inliers / m_nTotalPoints : 0.0;
  m_quality.residualPx = weightSum > 0.0 ? std::sqrt(weightedSquares / weightSum) : 0.0;
  m_quality.robustCost = m_nTotalPoints > 0 ? cost * floor * floor / m_nTotalPoints : 0.0;
  m_quality.scalePx = scale;
  return inliers;
}

}  // namespace ZOTtracker
