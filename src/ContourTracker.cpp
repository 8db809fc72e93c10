// Contour tracker state: pool buffers, the per-frame edge detection and the
// offline edge-correlation analysis.
#include "ContourTracker.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Drawing.h"
#include "IO.h"
#include "Imgproc.h"
#include "memory_handling.h"

#ifndef ZOT_DEBUG_OUTPUT_DIR
#define ZOT_DEBUG_OUTPUT_DIR "."
#endif

namespace ZOTtracker {

namespace {

// Compiled-in switch: report the whole edge detection as "Canny".
constexpr bool kTimeEdgeDetection = false;

// Settings of the edge-correlation analysis.
constexpr int kProfileHalf = 5;                       // 11-pixel profile across the contour
constexpr int kProfileLength = 2 * kProfileHalf + 1;  // 11
constexpr int kSearchHalf = 45;                       // 91 positions along the normal
constexpr int kSearchLength = 2 * kSearchHalf + 1;    // 91
constexpr double kCorrMaxResidual = 3.0;              // pixels
constexpr double kSadThreshold = 0.03 * 11 * 255;     // 3 % of the largest sum over 11 pixels
constexpr double kCorrFacingTolerance = 1.0;
constexpr double kCorrMinEdgeLength = 1.0;
constexpr int kCorrSamplingStep = 2;
constexpr double kCorrSearchRange = 8.0;
constexpr double kCorrMaxAngleDeg = 20.0;

}  // namespace

const char* correlateEdgesOutputPath() { return ZOT_DEBUG_OUTPUT_DIR "/matching_points.dat"; }

// ================================================================ set-up

ContourTracker::ContourTracker()
    : m_residuals(nullptr),
      m_normalJacobian(nullptr),
      m_inlierWeights(nullptr),
      m_cost(0.0),
      m_rectJacobian(nullptr),
      m_rectWork(nullptr),
      m_maxSamplePoints(0),
      m_nCams(0),
      m_displayImage(nullptr),
      m_cannyIntWork(nullptr),
      m_cannyStack(nullptr),
      m_cannyShortWork(nullptr),
      m_nTotalPoints(0) {
  // Per-camera slots are only meaningful after init(); null them so that a
  // premature call fails cleanly instead of reading garbage.
  for (int c = 0; c < ZOT_MAX_CAMERAS; c++) {
    m_edgeMap[c] = nullptr;
    m_gradX[c] = nullptr;
    m_gradY[c] = nullptr;
    m_projPoints[c] = nullptr;
    m_normals[c] = nullptr;
    m_jacU[c] = nullptr;
    m_jacV[c] = nullptr;
    m_matchedPoints[c] = nullptr;
    m_matchFlags[c] = nullptr;
    m_imageWidth[c] = 0;
    m_imageHeight[c] = 0;
    m_zNear[c] = 0.0;
    m_zFar[c] = 0.0;
    m_camEnabled[c] = 0;
    m_sampleIds[c] = nullptr;
    m_polarityKeys[c] = nullptr;
    m_polarityValues[c] = nullptr;
    m_cannyThresholds[c][0] = m_cannyThresholds[c][1] = 0.0;
    m_edgeWindow[c][0] = m_edgeWindow[c][1] = 0;
    m_edgeWindow[c][2] = m_edgeWindow[c][3] = -1;
  }
  m_quality = FitQuality{};
}

ContourTracker::~ContourTracker() {}

void ContourTracker::init(const int* imageWidths, const int* imageHeights, const double* zNear,
                          const double* zFar, int nCams, int maxSamplePoints) {
  // Refuse what the fixed slots or the pools cannot hold before touching
  // anything: a negative size would turn into a huge pool request.
  if (nCams < 0 || nCams > ZOT_MAX_CAMERAS || maxSamplePoints < 0) {
    printf(
        "ERROR: contour tracker needs 0 to %d cameras and a non-negative sample capacity, "
        "not %d cameras and %d samples\n",
        ZOT_MAX_CAMERAS, nCams, maxSamplePoints);
    m_nCams = 0;
    return;
  }
  for (int c = 0; c < nCams; c++) {
    if (imageWidths[c] <= 0 || imageHeights[c] <= 0) {
      printf("ERROR: camera %d has an image of %d x %d pixels\n", c, imageWidths[c],
             imageHeights[c]);
      m_nCams = 0;
      return;
    }
  }

  m_maxSamplePoints = maxSamplePoints;
  m_nCams = nCams;
  for (int c = 0; c < nCams; c++) {
    m_imageWidth[c] = imageWidths[c];
    m_imageHeight[c] = imageHeights[c];
    m_zNear[c] = zNear[c];
    m_zFar[c] = zFar[c];
  }

  // The pools hand out memory sequentially, so this order fixes the layout.
  const size_t nStacked = (size_t)nCams * (size_t)maxSamplePoints;
  const size_t nPoints = (size_t)maxSamplePoints;
  m_residuals = myMallocDouble(nStacked);
  m_normalJacobian = myMallocDouble(6 * nPoints * nCams);
  m_inlierWeights = myMallocDouble(nStacked);
  m_rectJacobian = myMallocDouble(6 * nPoints * nCams);
  m_rectWork = myMallocDouble((nStacked + 1) * 6);

  int maxWidth = 0, maxHeight = 0;
  for (int c = 0; c < nCams; c++) {
    const size_t nPixels = (size_t)m_imageWidth[c] * (size_t)m_imageHeight[c];
    m_projPoints[c] = myMallocDouble(2 * nPoints);
    m_normals[c] = myMallocDouble(2 * nPoints);
    m_jacU[c] = myMallocDouble(6 * nPoints);
    m_jacV[c] = myMallocDouble(6 * nPoints);
    m_matchedPoints[c] = myMallocDouble(2 * nPoints);
    m_matchFlags[c] = myMallocDouble(nPoints);
    m_edgeMap[c] = myMallocUchar(nPixels);
    m_gradX[c] = myMallocShort(nPixels);
    m_gradY[c] = myMallocShort(nPixels);
    if (m_imageWidth[c] > maxWidth) maxWidth = m_imageWidth[c];
    if (m_imageHeight[c] > maxHeight) maxHeight = m_imageHeight[c];
    m_camEnabled[c] = 1;
    // Fresh pool memory may hold anything: the first region clears it all.
    setWholeEdgeWindow(c);
  }
  // The robust estimator's buffers belong to the previous set-up, if any.
  for (int c = 0; c < ZOT_MAX_CAMERAS; c++) {
    m_sampleIds[c] = nullptr;
    m_polarityKeys[c] = nullptr;
    m_polarityValues[c] = nullptr;
  }

  // Shared by all cameras, so sized for the largest width and the largest
  // height taken separately.
  const size_t w = (size_t)maxWidth, h = (size_t)maxHeight;
  m_displayImage = myMallocUchar(w * 3 * h);
  m_cannyIntWork = myMallocInt((w + 2) * (h + 5));
  m_cannyStack = myMallocUcharPtr(w * h);
  m_cannyShortWork = myMallocShort(w * 2 * h);
}

// ================================================================ per-frame operations

int ContourTracker::edgeDetect(const unsigned char* const* images, int cannyThreshold1,
                               int cannyThreshold2) {
  const int64_t start = kTimeEdgeDetection ? getTickCount() : 0;
  for (int c = 0; c < m_nCams; c++) {
    if (!m_camEnabled[c]) continue;
    const int code = CannyAndSobel(images[c], m_gradX[c], m_gradY[c], m_edgeMap[c], m_cannyIntWork,
                                   m_cannyStack, m_cannyShortWork, m_imageWidth[c],
                                   m_imageHeight[c], cannyThreshold1, cannyThreshold2);
    if (code != 0) return code;
    setWholeEdgeWindow(c);
  }
  if (kTimeEdgeDetection) showElapsed("Canny", start, getTickCount());
  return 0;
}

void ContourTracker::setWholeEdgeWindow(int c) {
  m_edgeWindow[c][0] = m_edgeWindow[c][1] = 0;
  m_edgeWindow[c][2] = m_imageWidth[c] - 1;
  m_edgeWindow[c][3] = m_imageHeight[c] - 1;
}

namespace {

// Zeroes bytes x0..x1 of rows y0..y1 of a width-wide image.
void clearWindow(unsigned char* image, int width, int x0, int y0, int x1, int y1) {
  if (x0 > x1) return;
  for (int y = y0; y <= y1; y++) memset(image + (size_t)y * width + x0, 0, x1 - x0 + 1);
}

// Zeroes window w (x0, y0, x1, y1) of a width-wide image except where it
// overlaps window keep, which the caller is about to overwrite.
void clearWindowOutside(unsigned char* image, int width, const int* w, const int* keep) {
  if (w[0] > w[2]) return;
  for (int y = w[1]; y <= w[3]; y++) {
    unsigned char* row = image + (size_t)y * width;
    if (y < keep[1] || y > keep[3] || keep[0] > w[2] || keep[2] < w[0]) {
      memset(row + w[0], 0, w[2] - w[0] + 1);
      continue;
    }
    if (w[0] < keep[0]) memset(row + w[0], 0, keep[0] - w[0]);
    if (w[2] > keep[2]) memset(row + keep[2] + 1, 0, w[2] - keep[2]);
  }
}

// Widens [lo, hi] to at least `side` values inside 0..size-1 where size allows.
void widenRange(int& lo, int& hi, int side, int size) {
  const int missing = side - (hi - lo + 1);
  if (missing <= 0) return;
  lo -= missing / 2;
  hi += missing - missing / 2;
  if (lo < 0) hi -= lo, lo = 0;
  if (hi > size - 1) lo -= hi - (size - 1), hi = size - 1;
  if (lo < 0) lo = 0;
}

}  // namespace

int ContourTracker::edgeDetectRegions(const unsigned char* const* images, const int* const* regions,
                                      int cannyLow, int cannyHigh, const RobustSettings* adaptive,
                                      const int* const* spans) {
  for (int c = 0; c < m_nCams; c++) {
    if (!m_camEnabled[c]) continue;
    const int width = m_imageWidth[c], height = m_imageHeight[c];
    int* window = m_edgeWindow[c];
    int r[4];
    if (regions == nullptr || !clipRegion(regions[c], width, height, r)) {
      clearWindow(m_edgeMap[c], width, window[0], window[1], window[2], window[3]);
      window[2] = -1;
      continue;
    }
    const int asked[4] = {r[0], r[1], r[2], r[3]};
    widenRange(r[0], r[2], ZOT_MIN_REGION_SIDE, width);
    widenRange(r[1], r[3], ZOT_MIN_REGION_SIDE, height);
    // Spans cover the rows asked for; a widened region is taken whole.
    const bool widened =
        r[0] != asked[0] || r[1] != asked[1] || r[2] != asked[2] || r[3] != asked[3];
    const int* rowSpans = spans != nullptr && !widened ? spans[c] : nullptr;
    // Canny writes every pixel of the new window: only the rest of the old
    // one needs clearing.
    clearWindowOutside(m_edgeMap[c], width, window, r);
    window[2] = -1;  // no edges until this detection succeeds
    mySobelRegion(images[c], m_gradX[c], m_gradY[c], m_cannyShortWork, width, height, r, rowSpans);
    double low = cannyLow, high = cannyHigh;
    if (adaptive != nullptr) {
      adaptiveThresholds(c, r, 4, *adaptive, rowSpans);
      low = m_cannyThresholds[c][0];
      high = m_cannyThresholds[c][1];
    }
    const int code = myCannyRegion(m_gradX[c], m_gradY[c], m_edgeMap[c], m_cannyIntWork,
                                   m_cannyStack, width, height, r, low, high, rowSpans);
    if (code != 0) {
      clearWindow(m_edgeMap[c], width, r[0], r[1], r[2], r[3]);
      return code;
    }
    for (int i = 0; i < 4; i++) window[i] = r[i];
  }
  return 0;
}

// ================================================================ edge correlation

namespace {

// One pixel of a walk: its grey value and position.
struct LinePixel {
  int value, x, y;
};

// Walks the 8-connected line from start towards end in a width x height grey
// image, keeping at most maxCount pixels. Returns the number kept.
int walkLine(const unsigned char* image, int width, int height, const int* start, const int* end,
             int maxCount, LinePixel* out) {
  myLineIterator it;
  // The walker only reads through the pointer it is given.
  unsigned char* base = const_cast<unsigned char*>(image);
  int count = initLineIterator(base, width, height, 1, start, end, &it, 8, 0);
  if (count < 0) count = 0;
  if (count > maxCount) count = maxCount;
  for (int i = 0; i < count; i++) {
    const long offset = it.m_ptr - base;
    out[i].value = *it.m_ptr;
    out[i].x = (int)(offset % width);
    out[i].y = (int)(offset / width);
    advanceLineIterator(it);
  }
  return count;
}

bool insideImage(const int* p, int width, int height) {
  return p[0] >= 0 && p[0] < width && p[1] >= 0 && p[1] < height;
}

}  // namespace

void ContourTracker::correlateEdges(Multibody& model, const unsigned char* const* referenceImages,
                                    const unsigned char* const* currentImages, const double* pose,
                                    const double* const* camIntrinsics,
                                    const double* const* camTransforms) {
  // A failed evaluation is not fatal here: the walk below only visits the
  // points the sampler left, within the buffers' capacity.
  CostSettings settings;
  settings.facingTolerance = kCorrFacingTolerance;
  settings.minEdgeLength = kCorrMinEdgeLength;
  settings.samplingStep = kCorrSamplingStep;
  settings.searchRange = kCorrSearchRange;
  settings.maxAngleDeg = kCorrMaxAngleDeg;
  settings.computeJacobian = false;
  settings.translationInObjectFrame = true;
  settings.resample = true;
  settings.match = true;
  settings.timing = false;
  settings.showDebug = false;
  settings.verbose = false;
  computeOverallCostAndJacobian(model, m_cost, pose, camTransforms, camIntrinsics, settings);

  const char* path = correlateEdgesOutputPath();
  FILE* file = fopen(path, "wt");
  if (file == nullptr) printf("ERROR: cannot open %s for writing\n", path);

  const int capacity = m_nCams * m_maxSamplePoints;
  int i = 0;  // running stacked index over all cameras
  for (int c = 0; c < m_nCams; c++) {
    if (!m_camEnabled[c]) continue;
    const int width = m_imageWidth[c], height = m_imageHeight[c];
    merge(currentImages[c], currentImages[c], currentImages[c], m_displayImage, width, height);
    int n = model.getNSamplePointsPerCam(c);
    if (n > m_maxSamplePoints) n = m_maxSamplePoints;
    const double* samples = model.getSamplePointsPerCam(c);
    for (int k = 0; k < n; k++, i++) {
      if (i >= capacity) break;
      if (!(m_matchFlags[c][k] > 0.0) || !(std::fabs(m_residuals[i]) < kCorrMaxResidual)) continue;
      const int x = roundToPixel(m_projPoints[c][2 * k]);
      const int y = roundToPixel(m_projPoints[c][2 * k + 1]);
      const double nx = m_normals[c][2 * k], ny = m_normals[c][2 * k + 1];

      // Profile across the contour in the reference image: exactly 11 pixels.
      int a[2] = {roundToPixel(x - kProfileHalf * nx), roundToPixel(y - kProfileHalf * ny)};
      int b[2] = {roundToPixel(x + kProfileHalf * nx), roundToPixel(y + kProfileHalf * ny)};
      const int length = std::abs(b[0] - a[0]) > std::abs(b[1] - a[1]) ? std::abs(b[0] - a[0])
                                                                       : std::abs(b[1] - a[1]);
      if (length + 1 < kProfileLength) {
        a[0] = roundToPixel(x - (kProfileHalf + 1) * nx);
        a[1] = roundToPixel(y - (kProfileHalf + 1) * ny);
        b[0] = roundToPixel(x + (kProfileHalf + 1) * nx);
        b[1] = roundToPixel(y + (kProfileHalf + 1) * ny);
      }
      if (!insideImage(a, width, height) || !insideImage(b, width, height)) continue;
      LinePixel profile[kProfileLength + 1];
      if (walkLine(referenceImages[c], width, height, a, b, kProfileLength + 1, profile) !=
          kProfileLength) {
        continue;
      }

      // Search line in the current image: minus side at 45, 44, ..., plus
      // side at 45, 46, ...; position 45 is the point itself.
      const int start[2] = {x, y};
      const int endMinus[2] = {roundToPixel(x - (kSearchHalf + 1) * nx),
                               roundToPixel(y - (kSearchHalf + 1) * ny)};
      const int endPlus[2] = {roundToPixel(x + (kSearchHalf + 1) * nx),
                              roundToPixel(y + (kSearchHalf + 1) * ny)};
      LinePixel minusSide[kSearchHalf + 1], plusSide[kSearchHalf + 1];
      const int countMinus =
          walkLine(currentImages[c], width, height, start, endMinus, kSearchHalf + 1, minusSide);
      const int countPlus =
          walkLine(currentImages[c], width, height, start, endPlus, kSearchHalf + 1, plusSide);
      if (countMinus < kProfileHalf + 1 || countPlus < kProfileHalf + 1) continue;
      LinePixel line[kSearchLength];
      for (int j = 0; j < countMinus; j++) line[kSearchHalf - j] = minusSide[j];
      for (int j = 0; j < countPlus; j++) line[kSearchHalf + j] = plusSide[j];

      double sad[kSearchLength];
      for (int j = 0; j < kSearchLength; j++) sad[j] = -1.0;
      const int sMin = kProfileHalf - (countMinus - 1), sMax = (countPlus - 1) - kProfileHalf;
      for (int s = sMin; s <= sMax; s++) {
        double sum = 0.0;
        for (int j = 0; j < kProfileLength; j++) {
          sum += std::abs(line[kSearchHalf + s - kProfileHalf + j].value - profile[j].value);
        }
        sad[kSearchHalf + s] = sum;
      }
      int candidates[kSearchLength];
      int nCandidates = 0;
      for (int s = sMin; s <= sMax; s++) {
        const double v = sad[kSearchHalf + s];
        if (v < kSadThreshold && v < sad[kSearchHalf + s - 1] && v < sad[kSearchHalf + s + 1]) {
          candidates[nCandidates++] = kSearchHalf + s;
        }
      }
      if (nCandidates == 0) continue;

      // drawCircle swaps the colour array it is given, so each call gets a
      // fresh one and every candidate is drawn in the same colour.
      unsigned char green[3] = {0, 255, 0};
      drawCircle(m_displayImage, width, height, true, start, 2, green, true);
      for (int j = 0; j < nCandidates; j++) {
        unsigned char blue[3] = {0, 0, 255};
        const int p[2] = {line[candidates[j]].x, line[candidates[j]].y};
        drawCircle(m_displayImage, width, height, true, p, 2, blue, true);
      }
      if (file != nullptr) {
        fprintf(file, "%d %f %f %f %f %f %d", c, samples[3 * k], samples[3 * k + 1],
                samples[3 * k + 2], nx, ny, nCandidates);
        for (int j = 0; j < nCandidates; j++) {
          fprintf(file, " %f %f", (double)line[candidates[j]].x, (double)line[candidates[j]].y);
        }
        fprintf(file, "\n");
      }
    }
    createWindow("corr", ZOT_WINDOW_AUTOSIZE);
    showImage("corr", m_displayImage, width, height, 3);
    waitKey(0);
  }
  if (file != nullptr) fclose(file);
}

}  // namespace ZOTtracker
