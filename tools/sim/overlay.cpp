#include "overlay.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "Drawing.h"
#include "GenericObjectTracker.h"
#include "Imgproc.h"
#include "Math.h"

namespace zot_sim {

bool projectPoint(const double* K, const double* T, const double* X, double* uv) {
  double x[3];
  for (int r = 0; r < 3; r++)
    x[r] = T[4 * r] * X[0] + T[4 * r + 1] * X[1] + T[4 * r + 2] * X[2] + T[4 * r + 3];
  uv[0] = K[0] * x[0] / x[2] + K[1] * x[1] / x[2] + K[2];
  uv[1] = K[4] * x[1] / x[2] + K[5];
  return x[2] > 1e-9;
}

void drawTrackingOverlay(ZOTtracker::GenericObjectTracker& tracker, int cam, const double* pose,
                         double axisLength, unsigned char* bgr) {
  using namespace ZOTtracker;
  if (cam < 0 || cam >= tracker.m_nCameras) return;
  const int width = tracker.m_imageWidth[cam], height = tracker.m_imageHeight[cam];
  if (!tracker.m_contourTracker.m_camEnabled[cam] || tracker.m_undistortedImage[cam] == nullptr) {
    memset(bgr, 0, 3 * (size_t)width * height);
    return;
  }
  const unsigned char* grey = tracker.m_undistortedImage[cam];
  merge(grey, grey, grey, bgr, width, height);
  double T[16];
  matrixProduct444(tracker.m_toolToCamera[cam], pose, T);
  const double* K = tracker.m_K[cam];
  // The sampler stops at the sample capacity: a coarse pass measures the
  // contour's length, and the step is chosen so that the whole of it fits;
  // each sample is then drawn as a segment as long as the step.
  const int capacity = tracker.m_trackingParams.m_maxNSamplePointsPerCam;
  auto sample = [&](int step) {
    tracker.m_multibody.sampleContour_Zbuffer(cam, T, K, width, height, tracker.m_zNear[cam],
                                              tracker.m_zFar[cam], 1.0, 1.0, step, nullptr, nullptr,
                                              nullptr, nullptr, true, false, false, false);
    return tracker.m_multibody.getNSamplePointsPerCam(cam);
  };
  const int coarse = 32;
  const long length = (long)sample(coarse) * coarse;
  const int step = std::max(1, (int)std::ceil(1.25 * length / std::max(capacity, 1)));
  const int np = step >= coarse ? tracker.m_multibody.getNSamplePointsPerCam(cam) : sample(step);
  const double* points = tracker.m_multibody.getSamplePointsPerCam(cam);
  const double* tangents = tracker.m_multibody.getSampleTangentDirPerCam(cam);
  const double half = 0.5 * std::min(step, coarse) + 0.5;
  for (int k = 0; k < np; k++) {
    const double* X = points + 3 * k;
    double ahead[3], uv0[2], uv1[2];
    for (int i = 0; i < 3; i++) ahead[i] = X[i] + 1e-3 * tangents[3 * k + i];
    if (!projectPoint(K, T, X, uv0) || !projectPoint(K, T, ahead, uv1)) continue;
    const double du = uv1[0] - uv0[0], dv = uv1[1] - uv0[1], len = std::hypot(du, dv);
    if (!(len > 0.0)) continue;
    const int a[2] = {roundToPixel(uv0[0] - half * du / len),
                      roundToPixel(uv0[1] - half * dv / len)};
    const int b[2] = {roundToPixel(uv0[0] + half * du / len),
                      roundToPixel(uv0[1] + half * dv / len)};
    drawLine(bgr, width, height, true, a, b, kOverlayContour);
  }
  if (axisLength > 0.0) drawCartesianFrame(K, T, axisLength, bgr, width, height, true);
}

}  // namespace zot_sim
