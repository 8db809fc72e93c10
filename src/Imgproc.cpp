// Image processing: colour conversions, Sobel and Canny edge detection, lens
// undistortion.
#include "Imgproc.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "IO.h"
#include "Math.h"

namespace ZOTtracker {

// ================================================================ colour conversions
void convertColorToGray(const unsigned char* src, unsigned char* dst, int width, int height) {
  // Tables on the stack, rebuilt per call: no shared state.
  int tableB[256], tableG[256], tableR[256];
  for (int i = 0; i < 256; i++) {
    tableB[i] = 1868 * i;
    tableG[i] = 9617 * i;
    tableR[i] = 8192 + 4899 * i;
  }
  const long n = (long)width * height;
  for (long k = 0; k < n; k++) {
    const unsigned char* p = src + 3 * k;
    dst[k] = (unsigned char)((tableB[p[0]] + tableG[p[1]] + tableR[p[2]]) >> 14);
  }
}

void convertGrayToColor(const unsigned char* src, unsigned char* dst, int width, int height) {
  const long n = (long)width * height;
  for (long k = 0; k < n; k++) {
    dst[3 * k] = dst[3 * k + 1] = dst[3 * k + 2] = src[k];
  }
}

void merge(const unsigned char* plane0, const unsigned char* plane1, const unsigned char* plane2,
           unsigned char* dst, int width, int height) {
  const long n = (long)width * height;
  for (long k = 0; k < n; k++) {
    dst[3 * k] = plane0 ? plane0[k] : 0;
    dst[3 * k + 1] = plane1 ? plane1[k] : 0;
    dst[3 * k + 2] = plane2 ? plane2[k] : 0;
  }
}

// ================================================================ edge detection
int mySobel(const unsigned char* src, short* dx, short* dy, short* tmp, int width, int height) {
  if (!src || !dx || !dy || !tmp || width <= 0 || height <= 0) return 0;
  const size_t n = (size_t)width * height;
  short* smoothImg = tmp;
  short* diffImg = tmp + n;
  // Mirrored neighbours: row -1 is row 1 and row h is row h - 2, so the
  // border rows get smooth = 2 (I0 + I1) and diff = 0. A single row is its
  // own neighbour.
  const int mirrorUp = height > 1 ? 1 : 0;
  const int mirrorDown = height > 1 ? height - 2 : 0;
  for (int y = 0; y < height; y++) {
    // Both passes per row, so the smoothed row is still in cache when the
    // horizontal pass reads it; tmp ends up as a two-pass version leaves it.
    const unsigned char* up = src + (size_t)(y > 0 ? y - 1 : mirrorUp) * width;
    const unsigned char* mid = src + (size_t)y * width;
    const unsigned char* down = src + (size_t)(y < height - 1 ? y + 1 : mirrorDown) * width;
    short* s = smoothImg + (size_t)y * width;
    short* d = diffImg + (size_t)y * width;
    for (int x = 0; x < width; x++) {
      s[x] = (short)(up[x] + 2 * mid[x] + down[x]);
      d[x] = (short)(down[x] - up[x]);
    }
    short* dxr = dx + (size_t)y * width;
    short* dyr = dy + (size_t)y * width;
    if (width == 1) {
      dxr[0] = 0;
      dyr[0] = (short)(4 * d[0]);
      continue;
    }
    dxr[0] = 0;
    dyr[0] = (short)(2 * (d[0] + d[1]));
    for (int x = 1; x < width - 1; x++) {
      dxr[x] = (short)(s[x + 1] - s[x - 1]);
      dyr[x] = (short)(d[x - 1] + 2 * d[x] + d[x + 1]);
    }
    dxr[width - 1] = 0;
    dyr[width - 1] = (short)(2 * (d[width - 1] + d[width - 2]));
  }
  return 0;
}

namespace {

// Threshold as the detector compares it: floored, NaN as 0, clamped far
// beyond any magnitude so the conversion to int is always defined.
int cannyThreshold(double t) {
  if (!(t == t)) return 0;
  if (t < -1e9) t = -1e9;
  if (t > 1e9) t = 1e9;
  return (int)std::floor(t);
}

// Stack budget growth: by half, at least 8. Returns false when the new budget
// would exceed the pixel count (the caller's array is never outgrown).
bool growCannyBudget(long& maxsize, long npix) {
  const long grown = maxsize * 3 / 2;
  maxsize = grown > maxsize + 8 ? grown : maxsize + 8;
  return maxsize <= npix;
}

int cannyStackFailure() {
  printf("Canny failed: insufficient stack memory!\n");
  return ZOT_ERR_CANNY;
}

}  // namespace

int myCanny(const short* dx, const short* dy, unsigned char* edges, int* buffer,
            unsigned char** stack, int width, int height, double lowThreshold,
            double highThreshold) {
  if (lowThreshold > highThreshold) {
    const double t = lowThreshold;
    lowThreshold = highThreshold;
    highThreshold = t;
  }
  const int low = cannyThreshold(lowThreshold);
  const int high = cannyThreshold(highThreshold);

  const long npix = (width > 0 && height > 0) ? (long)width * height : 0;
  long maxsize = npix > 10239 ? npix / 10 : 1024;
  if (npix < maxsize) return cannyStackFailure();
  if (!dx || !dy || !edges || !buffer || !stack) return cannyStackFailure();

  // Work memory: three magnitude rows with a zero cell on each side, then
  // the state map with a one-cell border (0 possible edge, 1 no edge, 2 edge).
  const long mapstep = width + 2;
  int* magRows[3] = {buffer, buffer + mapstep, buffer + 2 * mapstep};
  unsigned char* map = (unsigned char*)(buffer + 3 * mapstep);
  memset(map, 1, mapstep);
  memset(map + mapstep * (height + 1), 1, mapstep);
  memset(magRows[0], 0, mapstep * sizeof(int));

  unsigned char** top = stack;
  for (int i = 0; i <= height; i++) {
    // Row 0 goes into the middle row (above it stays zero), later rows below.
    int* norm = magRows[i > 0 ? 2 : 1] + 1;
    if (i < height) {
      const short* dxr = dx + (size_t)i * width;
      const short* dyr = dy + (size_t)i * width;
      for (int j = 0; j < width; j++) norm[j] = std::abs((int)dxr[j]) + std::abs((int)dyr[j]);
      norm[-1] = norm[width] = 0;
    } else {
      memset(norm - 1, 0, mapstep * sizeof(int));
    }
    if (i == 0) continue;

    // Classify image row i - 1 (map row i).
    unsigned char* mrow = map + mapstep * i + 1;
    mrow[-1] = mrow[width] = 1;
    if ((top - stack) > maxsize - width && !growCannyBudget(maxsize, npix)) {
      return cannyStackFailure();
    }
    const int* mag = magRows[1] + 1;
    const int* above = magRows[0] + 1;
    const int* below = magRows[2] + 1;
    const short* dxr = dx + (size_t)(i - 1) * width;
    const short* dyr = dy + (size_t)(i - 1) * width;
    int prevPushed = 0;
    for (int j = 0; j < width; j++) {
      const int m = mag[j];
      if (m > low) {
        const int xs = dxr[j];
        const int ys = dyr[j];
        // Unsigned: exact for any short input (|dx| << 16 needs 32 bits).
        const uint32_t ax = (uint32_t)std::abs(xs);
        const uint32_t ay = (uint32_t)std::abs(ys) << 15;
        const uint32_t tg22x = ax * 13573u;
        bool isMax;
        if (ay < tg22x) {
          isMax = m > mag[j - 1] && m >= mag[j + 1];
        } else if (ay > tg22x + (ax << 16)) {
          isMax = m > above[j] && m >= below[j];
        } else {
          const int s = (xs ^ ys) < 0 ? -1 : 1;
          isMax = m > above[j - s] && m > below[j + s];
        }
        if (isMax) {
          if (!prevPushed && m > high && mrow[j - mapstep] != 2) {
            mrow[j] = 2;
            *top++ = mrow + j;
            prevPushed = 1;
          } else {
            mrow[j] = 0;
          }
          continue;
        }
      }
      prevPushed = 0;
      mrow[j] = 1;
    }
    int* spare = magRows[0];
    magRows[0] = magRows[1];
    magRows[1] = magRows[2];
    magRows[2] = spare;
  }

  // Hysteresis: grow edges from the strong pixels into connected candidates.
  while (top > stack) {
    if ((top - stack) > maxsize - 8 && !growCannyBudget(maxsize, npix)) {
      return cannyStackFailure();
    }
    unsigned char* m = *--top;
    const long offsets[8] = {-1,           1,           -mapstep - 1, -mapstep,
                             -mapstep + 1, mapstep - 1, mapstep,      mapstep + 1};
    for (int k = 0; k < 8; k++) {
      unsigned char* nb = m + offsets[k];
      if (*nb == 0) {
        *nb = 2;
        *top++ = nb;
      }
    }
  }

  for (int y = 0; y < height; y++) {
    const unsigned char* mrow = map + mapstep * (y + 1) + 1;
    unsigned char* e = edges + (size_t)y * width;
    for (int x = 0; x < width; x++) e[x] = (unsigned char)-(mrow[x] >> 1);
  }
  return 0;
}

int CannyAndSobel(const unsigned char* src, short* dx, short* dy, unsigned char* edges, int* buffer,
                  unsigned char** stack, short* tmp, int width, int height, int lowThreshold,
                  int highThreshold) {
  const int ret = mySobel(src, dx, dy, tmp, width, height);
  if (ret != 0) return ret;
  return myCanny(dx, dy, edges, buffer, stack, width, height, (double)lowThreshold,
                 (double)highThreshold);
}

// ================================================================ lens undistortion
void initUndistortRectifyMap(const double* K, const double* distCoeffs, const double* R,
                             const double* newK, int width, int height, double* mapX,
                             double* mapY) {
  if (!K || !mapX || !mapY || width <= 0 || height <= 0) return;
  const double noDistortion[5] = {0.0, 0.0, 0.0, 0.0, 0.0};
  const double* d = distCoeffs ? distCoeffs : noDistortion;

  // iR maps a destination pixel (x, y, 1) to a ray in the camera frame.
  double Ainv[9], Rt[9], iR[9];
  matrixInverseK(newK ? newK : K, Ainv);
  if (R) {
    matrixTranspose(R, Rt, 3, 3);
  } else {
    matrixIdentity(Rt, 3);
  }
  matrixProduct333(Rt, Ainv, iR);

  const double fx = K[0], cx = K[2], fy = K[4], cy = K[5];
  const double k1 = d[0], k2 = d[1], p1 = d[2], p2 = d[3], k3 = d[4];
  const double k4 = 0.0, k5 = 0.0, k6 = 0.0;  // rational model switched off

  for (int y = 0; y < height; y++) {
    double* mx = mapX + (size_t)y * width;
    double* my = mapY + (size_t)y * width;
    double X = y * iR[1] + iR[2], Y = y * iR[4] + iR[5], W = y * iR[7] + iR[8];
    for (int x = 0; x < width; x++, X += iR[0], Y += iR[3], W += iR[6]) {
      const double w = 1.0 / W;
      const double xp = X * w, yp = Y * w;
      const double x2 = xp * xp, y2 = yp * yp, r2 = x2 + y2, _2xy = 2 * xp * yp;
      const double kr =
          (1 + ((k3 * r2 + k2) * r2 + k1) * r2) / (1 + ((k6 * r2 + k5) * r2 + k4) * r2);
      mx[x] = fx * (xp * kr + p1 * _2xy + p2 * (r2 + 2 * x2)) + cx;
      my[x] = fy * (yp * kr + p1 * (r2 + 2 * y2) + p2 * _2xy) + cy;
    }
  }
}

int initUndistortionTables(const double* mapX, const double* mapY, int* w00, int* w10, int* w01,
                           int* w11, int* index, int width, int height) {
  if (!mapX || !mapY || !w00 || !w10 || !w01 || !w11 || !index || width <= 0 || height <= 0) {
    return 0;
  }
  const size_t n = (size_t)width * height;
  memset(w00, 0, n * sizeof(int));
  memset(w10, 0, n * sizeof(int));
  memset(w01, 0, n * sizeof(int));
  memset(w11, 0, n * sizeof(int));
  // With truncation toward zero, 0 <= ix <= width - 2 holds exactly for
  // -1 < x < width - 1; testing the double first keeps NaN and huge values
  // away from the int conversion. Images narrower than 2 have no source.
  const bool usable = width >= 2 && height >= 2;
  const double xEnd = width - 1, yEnd = height - 1;
  for (size_t k = 0; k < n; k++) {
    const double x = mapX[k], y = mapY[k];
    if (!(usable && x > -1.0 && x < xEnd && y > -1.0 && y < yEnd)) {
      index[k] = -1;
      continue;
    }
    const int ix = (int)x, iy = (int)y;
    const double a = x - ix, b = y - iy;
    w00[k] = (int)((1 - a) * (1 - b) * 256);
    w10[k] = (int)(a * (1 - b) * 256);
    w01[k] = (int)((1 - a) * b * 256);
    w11[k] = (int)(a * b * 256);
    index[k] = ix + iy * width;
  }
  return height;
}

void undistortImageFromTables(const unsigned char* src, unsigned char* dst, const int* w00,
                              const int* w10, const int* w01, const int* w11, const int* index,
                              int width, int height) {
  if (!src || !dst || !w00 || !w10 || !w01 || !w11 || !index || width <= 0 || height <= 0) return;
  const size_t n = (size_t)width * height;
  // One unsigned compare rejects -1 and any index whose lower-right
  // neighbour would fall outside the image (none exists below 2 x 2).
  // (Indices are ints, so the bound never needs more than 2^31.)
  size_t lastTopLeft = (width >= 2 && height >= 2) ? n - width - 1 : 0;
  if (lastTopLeft > (size_t)1 << 31) lastTopLeft = (size_t)1 << 31;
  const uint32_t limit = (uint32_t)lastTopLeft;
  const uint32_t stride = (uint32_t)width;
  for (size_t k = 0; k < n; k++) {
    const uint32_t idx = (uint32_t)index[k];
    if (idx < limit) {
      const unsigned char* p = src + idx;
      const uint32_t v = p[0] * (uint32_t)w00[k] + p[1] * (uint32_t)w10[k] +
                         p[stride] * (uint32_t)w01[k] + p[stride + 1] * (uint32_t)w11[k];
      dst[k] = (unsigned char)(v >> 8);
    } else {
      dst[k] = 0;
    }
  }
}

}  // namespace ZOTtracker
