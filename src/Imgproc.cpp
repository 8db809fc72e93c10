// Image processing: colour conversions, Sobel and Canny edge detection, lens
// undistortion, frustum clipping, depth-tested fill and line walking.
#include "Imgproc.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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
namespace {

// Columns a..b (window coordinates, inclusive) of one row of a window of
// rows spans[2i] - x0 .. spans[2i + 1] - x0; the whole row without spans.
inline void windowRowSpan(const int* spans, int x0, int width, int i, int* a, int* b) {
  *a = 0;
  *b = width - 1;
  if (spans == nullptr) return;
  const int lo = spans[2 * i] - x0, hi = spans[2 * i + 1] - x0;
  if (lo > *a) *a = lo;
  if (hi < *b) *b = hi;
}

// The Sobel of mySobel on a width x height window whose rows lie `stride`
// pixels apart in src, dx and dy. keepTmp: tmp ends up as mySobel documents
// it (2 * width * height shorts); otherwise only 2 rows of it are used, and
// stay in the first-level cache. spans (null: whole rows): row i of the
// window only at columns spans[2i] - x0 .. spans[2i + 1] - x0, from the
// image's own neighbours inside the window.
void sobelWindow(const unsigned char* src, short* dx, short* dy, short* tmp, int width, int height,
                 int stride, bool keepTmp, const int* spans = nullptr, int x0 = 0) {
  const size_t n = keepTmp ? (size_t)width * height : (size_t)width;
  short* smoothImg = tmp;
  short* diffImg = tmp + n;
  // Mirrored neighbours: row -1 is row 1 and row h is row h - 2, so the
  // border rows get smooth = 2 (I0 + I1) and diff = 0. A single row is its
  // own neighbour.
  const int mirrorUp = height > 1 ? 1 : 0;
  const int mirrorDown = height > 1 ? height - 2 : 0;
  for (int y = 0; y < height; y++) {
    int a, b;
    windowRowSpan(spans, x0, width, y, &a, &b);
    if (a > b) continue;
    // Both passes per row, so the smoothed row is still in cache when the
    // horizontal pass reads it.
    const unsigned char* up = src + (size_t)(y > 0 ? y - 1 : mirrorUp) * stride;
    const unsigned char* mid = src + (size_t)y * stride;
    const unsigned char* down = src + (size_t)(y < height - 1 ? y + 1 : mirrorDown) * stride;
    const size_t row = keepTmp ? (size_t)y * width : 0;
    short* s = smoothImg + row;
    short* d = diffImg + row;
    const int v1 = b < width - 1 ? b + 1 : b;
    for (int x = a > 0 ? a - 1 : a; x <= v1; x++) {
      s[x] = (short)(up[x] + 2 * mid[x] + down[x]);
      d[x] = (short)(down[x] - up[x]);
    }
    short* dxr = dx + (size_t)y * stride;
    short* dyr = dy + (size_t)y * stride;
    if (width == 1) {
      dxr[0] = 0;
      dyr[0] = (short)(4 * d[0]);
      continue;
    }
    if (a == 0) {
      dxr[0] = 0;
      dyr[0] = (short)(2 * (d[0] + d[1]));
      a = 1;
    }
    const int last = b < width - 1 ? b : width - 2;
    for (int x = a; x <= last; x++) {
      dxr[x] = (short)(s[x + 1] - s[x - 1]);
      dyr[x] = (short)(d[x - 1] + 2 * d[x] + d[x + 1]);
    }
    if (b == width - 1) {
      dxr[width - 1] = 0;
      dyr[width - 1] = (short)(2 * (d[width - 1] + d[width - 2]));
    }
  }
}

}  // namespace

int mySobel(const unsigned char* src, short* dx, short* dy, short* tmp, int width, int height) {
  if (!src || !dx || !dy || !tmp || width <= 0 || height <= 0) return 0;
  sobelWindow(src, dx, dy, tmp, width, height, width, true);
  return 0;
}

bool clipRegion(const int* region, int width, int height, int* clipped) {
  if (region == nullptr || width <= 0 || height <= 0) return false;
  clipped[0] = region[0] > 0 ? region[0] : 0;
  clipped[1] = region[1] > 0 ? region[1] : 0;
  clipped[2] = region[2] < width - 1 ? region[2] : width - 1;
  clipped[3] = region[3] < height - 1 ? region[3] : height - 1;
  return clipped[0] <= clipped[2] && clipped[1] <= clipped[3];
}

int mySobelRegion(const unsigned char* src, short* dx, short* dy, short* tmp, int width, int height,
                  const int* region, const int* spans) {
  int r[4];
  if (!src || !dx || !dy || !tmp || !clipRegion(region, width, height, r)) return 0;
  const size_t origin = (size_t)r[1] * width + r[0];
  sobelWindow(src + origin, dx + origin, dy + origin, tmp, r[2] - r[0] + 1, r[3] - r[1] + 1, width,
              false, spans != nullptr ? spans + 2 * r[1] : nullptr, r[0]);
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

// Canny's classification of one pixel: 2 a strong maximum that starts a run
// of maxima (pushed on the stack), 0 any other local maximum above the low
// threshold, 1 the rest. prevPushed carries the run along the row.
inline void classifyCannyPixel(bool isMax, bool strong, unsigned char* cell, long mapstep,
                               int& prevPushed, unsigned char**& top) {
  if (!isMax) {
    prevPushed = 0;
    *cell = 1;
  } else if (!prevPushed && strong && cell[-mapstep] != 2) {
    *cell = 2;
    *top++ = cell;
    prevPushed = 1;
  } else {
    *cell = 0;
  }
}

#if defined(__SSE2__)
// Unsigned 32-bit a > b with SSE2's signed compare.
inline __m128i greaterU32(__m128i a, __m128i b) {
  const __m128i bias = _mm_set1_epi32((int)0x80000000u);
  return _mm_cmpgt_epi32(_mm_xor_si128(a, bias), _mm_xor_si128(b, bias));
}

inline __m128i select128(__m128i mask, __m128i a, __m128i b) {
  return _mm_or_si128(_mm_and_si128(mask, a), _mm_andnot_si128(mask, b));
}

// Non-maximum suppression of 4 pixels: mask of the local maxima above low.
// ax16/ay16/neg16 hold the pixels' |dx|, |dy| (unsigned 16 bit) and sign of
// dx * dy in 16-bit lanes 0..3 of this half.
inline __m128i localMaxima4(const int* mag, const int* above, const int* below, __m128i ax16,
                            __m128i ay16, __m128i neg16, __m128i low) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i m = _mm_loadu_si128((const __m128i*)mag);
  const __m128i k = _mm_set1_epi16(13573);
  // ax * 13573 from 16-bit halves, exact for |dx| up to 32768.
  const __m128i tg22x = _mm_unpacklo_epi16(_mm_mullo_epi16(ax16, k), _mm_mulhi_epu16(ax16, k));
  const __m128i ax = _mm_unpacklo_epi16(ax16, zero);
  const __m128i ay = _mm_slli_epi32(_mm_unpacklo_epi16(ay16, zero), 15);
  const __m128i horizontal = greaterU32(tg22x, ay);
  const __m128i vertical = greaterU32(ay, _mm_add_epi32(tg22x, _mm_slli_epi32(ax, 16)));
  const __m128i neg = _mm_unpacklo_epi16(neg16, neg16);
  const __m128i left = _mm_loadu_si128((const __m128i*)(mag - 1));
  const __m128i right = _mm_loadu_si128((const __m128i*)(mag + 1));
  const __m128i up = _mm_loadu_si128((const __m128i*)above);
  const __m128i down = _mm_loadu_si128((const __m128i*)below);
  const __m128i upDiag = select128(neg, _mm_loadu_si128((const __m128i*)(above + 1)),
                                   _mm_loadu_si128((const __m128i*)(above - 1)));
  const __m128i downDiag = select128(neg, _mm_loadu_si128((const __m128i*)(below - 1)),
                                     _mm_loadu_si128((const __m128i*)(below + 1)));
  const __m128i hMax = _mm_andnot_si128(_mm_cmpgt_epi32(right, m), _mm_cmpgt_epi32(m, left));
  const __m128i vMax = _mm_andnot_si128(_mm_cmpgt_epi32(down, m), _mm_cmpgt_epi32(m, up));
  const __m128i dMax = _mm_and_si128(_mm_cmpgt_epi32(m, upDiag), _mm_cmpgt_epi32(m, downDiag));
  const __m128i isMax = select128(horizontal, hMax, select128(vertical, vMax, dMax));
  return _mm_and_si128(isMax, _mm_cmpgt_epi32(m, low));
}

// Classifies pixels from..to-1 of a row 8 at a time, exactly as the scalar
// loop does; returns the first pixel left to it. A block below the low
// threshold costs one test, the direction tests take no branch, and only the
// rare strong maxima are visited one by one: on textured objects the scalar
// loop's branches mispredicted most of its time away.
int classifyCannyRow8(const int* mag, const int* above, const int* below, const short* dxr,
                      const short* dyr, unsigned char* mrow, long mapstep, int from, int to,
                      int low, int high, int& prevPushed, unsigned char**& top) {
  const __m128i lowV = _mm_set1_epi32(low), highV = _mm_set1_epi32(high);
  const __m128i ones = _mm_set1_epi8(1);
  int j = from;
  for (; j + 8 <= to; j += 8) {
    const __m128i m0 = _mm_loadu_si128((const __m128i*)(mag + j));
    const __m128i m1 = _mm_loadu_si128((const __m128i*)(mag + j + 4));
    const __m128i above16 = _mm_packs_epi32(_mm_cmpgt_epi32(m0, lowV), _mm_cmpgt_epi32(m1, lowV));
    if (_mm_movemask_epi8(above16) == 0) {
      _mm_storel_epi64((__m128i*)(mrow + j), ones);
      prevPushed = 0;
      continue;
    }
    const __m128i xs = _mm_loadu_si128((const __m128i*)(dxr + j));
    const __m128i ys = _mm_loadu_si128((const __m128i*)(dyr + j));
    const __m128i sx = _mm_srai_epi16(xs, 15), sy = _mm_srai_epi16(ys, 15);
    const __m128i ax16 = _mm_sub_epi16(_mm_xor_si128(xs, sx), sx);
    const __m128i ay16 = _mm_sub_epi16(_mm_xor_si128(ys, sy), sy);
    const __m128i neg16 = _mm_xor_si128(sx, sy);
    const __m128i max0 = localMaxima4(mag + j, above + j, below + j, ax16, ay16, neg16, lowV);
    const __m128i max1 =
        localMaxima4(mag + j + 4, above + j + 4, below + j + 4, _mm_srli_si128(ax16, 8),
                     _mm_srli_si128(ay16, 8), _mm_srli_si128(neg16, 8), lowV);
    const __m128i max8 = _mm_packs_epi16(_mm_packs_epi32(max0, max1), _mm_setzero_si128());
    const unsigned maxBits = (unsigned)_mm_movemask_epi8(max8);
    const __m128i strong8 =
        _mm_packs_epi16(_mm_packs_epi32(_mm_and_si128(max0, _mm_cmpgt_epi32(m0, highV)),
                                        _mm_and_si128(max1, _mm_cmpgt_epi32(m1, highV))),
                        _mm_setzero_si128());
    const unsigned strongBits = (unsigned)_mm_movemask_epi8(strong8);
    // Maxima 0, the rest 1; then the strong maxima that start a run of
    // maxima (none pushed before them in it) and have no edge above are
    // pushed. A run open at the block's end carries prevPushed on.
    _mm_storel_epi64((__m128i*)(mrow + j), _mm_add_epi8(ones, max8));
    const unsigned nonMax = ~maxBits & 0xFFu;
    int lastPush = prevPushed ? -1 : -2;  // -1: a push before this block
    for (unsigned bits = strongBits; bits != 0; bits &= bits - 1) {
      const int k = __builtin_ctz(bits);
      const unsigned before = nonMax & ((1u << k) - 1u);
      const int runStart = before != 0 ? 32 - __builtin_clz(before) : -1;
      if (lastPush >= runStart) continue;
      unsigned char* cell = mrow + j + k;
      if (cell[-mapstep] == 2) continue;
      *cell = 2;
      *top++ = cell;
      lastPush = k;
    }
    const int lastRunStart = nonMax != 0 ? 32 - __builtin_clz(nonMax) : -1;
    prevPushed = lastPush >= lastRunStart && lastRunStart < 8 ? 1 : 0;
  }
  return j;
}
#endif

// Narrows the columns jStart..jEnd-1 classified in window row k to pixels
// whose 3 x 3 neighbours lie in the row spans (window borders aside, where
// the zero cells stand in as for the whole window).
void spannedClassification(const int* spans, int x0, int width, int height, int k, int& jStart,
                           int& jEnd) {
  int a, b;
  windowRowSpan(spans, x0, width, k, &a, &b);
  for (int r = k - 1; r <= k + 1; r += 2) {
    if (r < 0 || r >= height) continue;
    int ra, rb;
    windowRowSpan(spans, x0, width, r, &ra, &rb);
    if (ra > a) a = ra;
    if (rb < b) b = rb;
  }
  if (a > 0) a++;
  if (b < width - 1) b--;
  if (a > jStart) jStart = a;
  if (b + 1 < jEnd) jEnd = b + 1;
  if (jEnd < jStart) jEnd = jStart;
}

// The Canny of myCanny on a width x height window whose rows lie `stride`
// pixels apart in dx, dy and edges. keepOut (left, top, right, bottom; null:
// none) are rows and columns at the window's sides that are never edges and
// never carry the hysteresis. spans (null: none): the window rows' spans,
// as sobelWindow takes them; dx and dy are read only there.
int cannyWindow(const short* dx, const short* dy, unsigned char* edges, int* buffer,
                unsigned char** stack, int width, int height, int stride, double lowThreshold,
                double highThreshold, const int* keepOut, const int* spans = nullptr, int x0 = 0) {
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
      const short* dxr = dx + (size_t)i * stride;
      const short* dyr = dy + (size_t)i * stride;
      int a, b;
      windowRowSpan(spans, x0, width, i, &a, &b);
      for (int j = a; j <= b; j++) norm[j] = std::abs((int)dxr[j]) + std::abs((int)dyr[j]);
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
    const short* dxr = dx + (size_t)(i - 1) * stride;
    const short* dyr = dy + (size_t)(i - 1) * stride;
    int prevPushed = 0;
    int jStart = 0, jEnd = width;
    if (keepOut != nullptr) {
      const bool rowKept = i - 1 < keepOut[1] || i - 1 >= height - keepOut[3];
      jStart = rowKept ? width : keepOut[0] < width ? keepOut[0] : width;
      jEnd = rowKept ? width : width - keepOut[2] > jStart ? width - keepOut[2] : jStart;
    }
    if (spans != nullptr) spannedClassification(spans, x0, width, height, i - 1, jStart, jEnd);
    if (jStart > 0 || jEnd < width) {
      memset(mrow, 1, jStart);
      memset(mrow + jEnd, 1, width - jEnd);
    }
    int jFirst = jStart;
#if defined(__SSE2__)
    jFirst = classifyCannyRow8(mag, above, below, dxr, dyr, mrow, mapstep, jStart, jEnd, low, high,
                               prevPushed, top);
#endif
    for (int j = jFirst; j < jEnd; j++) {
      const int m = mag[j];
      bool isMax = false;
      if (m > low) {
        const int xs = dxr[j];
        const int ys = dyr[j];
        // Unsigned: exact for any short input (|dx| << 16 needs 32 bits).
        const uint32_t ax = (uint32_t)std::abs(xs);
        const uint32_t ay = (uint32_t)std::abs(ys) << 15;
        const uint32_t tg22x = ax * 13573u;
        if (ay < tg22x) {
          isMax = m > mag[j - 1] && m >= mag[j + 1];
        } else if (ay > tg22x + (ax << 16)) {
          isMax = m > above[j] && m >= below[j];
        } else {
          const int s = (xs ^ ys) < 0 ? -1 : 1;
          isMax = m > above[j - s] && m > below[j + s];
        }
      }
      classifyCannyPixel(isMax, m > high, mrow + j, mapstep, prevPushed, top);
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
    unsigned char* e = edges + (size_t)y * stride;
    for (int x = 0; x < width; x++) e[x] = (unsigned char)-(mrow[x] >> 1);
  }
  return 0;
}

}  // namespace

int myCanny(const short* dx, const short* dy, unsigned char* edges, int* buffer,
            unsigned char** stack, int width, int height, double lowThreshold,
            double highThreshold) {
  return cannyWindow(dx, dy, edges, buffer, stack, width, height, width, lowThreshold,
                     highThreshold, nullptr);
}

int myCannyRegion(const short* dx, const short* dy, unsigned char* edges, int* buffer,
                  unsigned char** stack, int width, int height, const int* region,
                  double lowThreshold, double highThreshold, const int* spans) {
  int r[4];
  if (!clipRegion(region, width, height, r)) return cannyStackFailure();
  const size_t origin = (size_t)r[1] * width + r[0];
  if (!dx || !dy || !edges) return cannyStackFailure();
  // Where the window stops inside the image its mirrored borders give
  // magnitudes the image does not have: they must not seed edges.
  const int keepOut[4] = {r[0] > 0 ? ZOT_REGION_BORDER : 0, r[1] > 0 ? ZOT_REGION_BORDER : 0,
                          r[2] < width - 1 ? ZOT_REGION_BORDER : 0,
                          r[3] < height - 1 ? ZOT_REGION_BORDER : 0};
  return cannyWindow(dx + origin, dy + origin, edges + origin, buffer, stack, r[2] - r[0] + 1,
                     r[3] - r[1] + 1, width, lowThreshold, highThreshold, keepOut,
                     spans != nullptr ? spans + 2 * r[1] : nullptr, r[0]);
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

  for (int y = 0; y < height; y++) {
    double* mx = mapX + (size_t)y * width;
    double* my = mapY + (size_t)y * width;
    double X = y * iR[1] + iR[2], Y = y * iR[4] + iR[5], W = y * iR[7] + iR[8];
    for (int x = 0; x < width; x++, X += iR[0], Y += iR[3], W += iR[6]) {
      const double w = 1.0 / W;
      distortNormalised(K, d, X * w, Y * w, mx + x, my + x, nullptr);
    }
  }
}

LensModel::LensModel(const double* K, const double* distortion)
    : fx(K[0]),
      fy(K[4]),
      cx(K[2]),
      cy(K[5]),
      skew(K[1]),
      invFx(1.0 / K[0]),
      invFy(1.0 / K[4]),
      skewTerm(-K[1] / (K[0] * K[4])) {
  for (int i = 0; i < 5; i++) d[i] = distortion[i];
}

bool distortPixel(const double* K, const double* d, double u, double v, double* out,
                  double* jacobian) {
  return LensModel(K, d).distort(u, v, out, jacobian);
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

namespace {

// Undistorted pixels k0 .. k1 - 1 (indices into the width x height image):
// the kernel of undistortImageFromTables.
void undistortSpan(const unsigned char* src, unsigned char* dst, const int* w00, const int* w10,
                   const int* w01, const int* w11, const int* index, int width, int height,
                   size_t k0, size_t k1) {
  const size_t n = (size_t)width * height;
  // One unsigned compare rejects -1 and any index whose lower-right
  // neighbour would fall outside the image (none exists below 2 x 2).
  // (Indices are ints, so the bound never needs more than 2^31.)
  size_t lastTopLeft = (width >= 2 && height >= 2) ? n - width - 1 : 0;
  if (lastTopLeft > (size_t)1 << 31) lastTopLeft = (size_t)1 << 31;
  const uint32_t limit = (uint32_t)lastTopLeft;
  const uint32_t stride = (uint32_t)width;
  for (size_t k = k0; k < k1; k++) {
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

}  // namespace

void undistortImageFromTables(const unsigned char* src, unsigned char* dst, const int* w00,
                              const int* w10, const int* w01, const int* w11, const int* index,
                              int width, int height) {
  if (!src || !dst || !w00 || !w10 || !w01 || !w11 || !index || width <= 0 || height <= 0) return;
  undistortSpan(src, dst, w00, w10, w01, w11, index, width, height, 0, (size_t)width * height);
}

void undistortImageRegionFromTables(const unsigned char* src, unsigned char* dst, const int* w00,
                                    const int* w10, const int* w01, const int* w11,
                                    const int* index, int width, int height, const int* region) {
  int r[4];
  if (!src || !dst || !w00 || !w10 || !w01 || !w11 || !index ||
      !clipRegion(region, width, height, r))
    return;
  // A host's other work between frames leaves the tables out of the cache,
  // and short row pieces give the hardware's prefetcher little to go on:
  // ask for the tables' pieces two rows ahead.
  const int* const tables[5] = {w00, w10, w01, w11, index};
  const size_t pieceBytes = (size_t)(r[2] - r[0] + 1) * sizeof(int);
  for (int y = r[1]; y <= r[3]; y++) {
    const size_t row = (size_t)y * width;
    if (y + 2 <= r[3]) {
      for (const int* table : tables) {
        const char* piece = (const char*)(table + row + 2 * (size_t)width + r[0]);
        for (size_t b = 0; b < pieceBytes; b += 64) __builtin_prefetch(piece + b);
      }
    }
    undistortSpan(src, dst, w00, w10, w01, w11, index, width, height, row + r[0], row + r[2] + 1);
  }
}

// ================================================================ frustum clipping and
// depth-tested fill

static inline double planeValue(const double* plane, const double* X) {
  return plane[0] * X[0] + plane[1] * X[1] + plane[2] * X[2] + plane[3];
}

void computeViewingFrustum(double* planes, const double* K, double xmin, double ymin, double xmax,
                           double ymax, double zNear, double zFar) {
  const double corners[4][2] = {{xmin, ymin}, {xmin, ymax}, {xmax, ymax}, {xmax, ymin}};
  double Kinv[9];
  matrixInverseK(K, Kinv);
  double rays[4][3];
  for (int i = 0; i < 4; i++) {
    const double p[3] = {corners[i][0], corners[i][1], 1.0};
    matrixProduct331(Kinv, p, rays[i]);
  }
  for (int i = 0; i < 4; i++) {
    double* plane = planes + 4 * i;
    crossProd(rays[i], rays[(i + 1) % 4], plane);
    normalize(plane, 3, 1);
    plane[3] = -dotProd3(plane, rays[i]);
  }
  double* nearPlane = planes + 16;
  nearPlane[0] = 0.0;
  nearPlane[1] = 0.0;
  nearPlane[2] = -1.0;
  nearPlane[3] = zNear;
  double* farPlane = planes + 20;
  farPlane[0] = 0.0;
  farPlane[1] = 0.0;
  farPlane[2] = 1.0;
  farPlane[3] = -zFar;
}

int clipSegmentToViewingFrustum(const double* segment, double* clipped, const double* planes,
                                double minLength) {
  const double* P0 = segment;
  const double* P1 = segment + 3;
  const double dx = P0[0] - P1[0], dy = P0[1] - P1[1], dz = P0[2] - P1[2];
  const double length2 = dx * dx + dy * dy + dz * dz;
  const double minLength2 = minLength * minLength;
  if (minLength2 > length2) return 0;

  double tIn = 0.0, tOut = 1.0;
  bool entered = false, left = false;
  for (int p = 0; p < ZOT_FRUSTUM_PLANES; p++) {
    const double e0 = planeValue(planes + 4 * p, P0);
    const double e1 = planeValue(planes + 4 * p, P1);
    if (e0 > 0.0 && e1 > 0.0) return 0;
    if (e0 > 0.0 || e1 > 0.0) {
      const double t = e0 / (e0 - e1);
      if (e0 <= 0.0) {
        if (t <= tOut) {
          tOut = t;
          left = true;
        }
      } else if (t >= tIn) {
        tIn = t;
        entered = true;
      }
      if (tOut < tIn) return 0;
    }
  }
  double start[3] = {P0[0], P0[1], P0[2]};
  double end[3] = {P1[0], P1[1], P1[2]};
  for (int i = 0; i < 3; i++) {
    if (entered) start[i] = tIn * P1[i] + (1.0 - tIn) * P0[i];
    if (left) end[i] = tOut * P1[i] + (1.0 - tOut) * P0[i];
  }
  if ((tOut - tIn) * (tOut - tIn) * length2 >= minLength2) {
    for (int i = 0; i < 3; i++) {
      clipped[i] = start[i];
      clipped[3 + i] = end[i];
    }
    return 1;
  }
  return 0;
}

void poly_clip_to_view_frustum(int& nVertices, double* vertices, double* scratchVertices,
                               const double* planes, int* edgeIds, int* scratchIds) {
  const int nIn = nVertices;
  if (nIn <= 0) {
    nVertices = 0;
    return;
  }
  // Planes that no vertex lies outside of cannot cut the polygon: the
  // intersection points created by other planes are convex combinations of
  // vertices inside them.
  int nOutside[ZOT_FRUSTUM_PLANES] = {0};
  bool anyOutside = false;
  for (int p = 0; p < ZOT_FRUSTUM_PLANES; p++) {
    for (int k = 0; k < nIn; k++) {
      if (planeValue(planes + 4 * p, vertices + 3 * k) > 0.0) nOutside[p]++;
    }
    if (nOutside[p] == nIn) {
      nVertices = 0;
      return;
    }
    anyOutside = anyOutside || nOutside[p] > 0;
  }
  if (!anyOutside) return;

  // The output of one plane may grow by the number of planes at most for a
  // convex polygon; the buffers hold nIn + 6 vertices.
  const int capacity = nIn + ZOT_FRUSTUM_PLANES;
  double* src = vertices;
  int* srcIds = edgeIds;
  double* dst = scratchVertices;
  int* dstIds = scratchIds;
  int count = nIn;
  for (int p = 0; p < ZOT_FRUSTUM_PLANES; p++) {
    if (nOutside[p] == 0) continue;
    const double* plane = planes + 4 * p;
    int out = 0;
    int prev = count - 1;
    double ePrev = planeValue(plane, src + 3 * prev);
    for (int cur = 0; cur < count; cur++) {
      const double eCur = planeValue(plane, src + 3 * cur);
      const bool prevInside = ePrev <= 0.0;
      const bool curInside = eCur <= 0.0;
      if (prevInside != curInside) {
        if (ePrev == eCur) {
          printf("WARNING: an edge of this polygon already lies on a clipping plane!\n");
          nVertices = 0;
          return;
        }
        if (out >= capacity) {
          printf("WARNING: too many vertices after clipping!\n");
          nVertices = 0;
          return;
        }
        const double t = ePrev / (ePrev - eCur);
        const double* a = src + 3 * prev;
        const double* b = src + 3 * cur;
        for (int i = 0; i < 3; i++) dst[3 * out + i] = a[i] + t * (b[i] - a[i]);
        // Entering: the rest of the edge that started at prev. Leaving: the
        // new edge runs along the clipping plane.
        dstIds[out] = curInside ? srcIds[prev] : -1;
        out++;
      }
      if (curInside) {
        if (out >= capacity) {
          printf("WARNING: too many vertices after clipping!\n");
          nVertices = 0;
          return;
        }
        for (int i = 0; i < 3; i++) dst[3 * out + i] = src[3 * cur + i];
        dstIds[out] = srcIds[cur];
        out++;
      }
      prev = cur;
      ePrev = eCur;
    }
    if (out == 0) {
      nVertices = 0;
      return;
    }
    double* t = src;
    src = dst;
    dst = t;
    int* ti = srcIds;
    srcIds = dstIds;
    dstIds = ti;
    count = out;
  }
  if (src != vertices) {
    for (int k = 0; k < count; k++) {
      for (int i = 0; i < 3; i++) vertices[3 * k + i] = src[3 * k + i];
      edgeIds[k] = srcIds[k];
    }
  }
  nVertices = count;
}

// One side of the polygon outline during scan conversion.
struct FillEdgeWalker {
  int m_cur, m_next;
  double m_slope, m_x0, m_y0, m_yEnd;
};

static void setFillEdge(FillEdgeWalker& w, const double* v, int cur, int next) {
  w.m_cur = cur;
  w.m_next = next;
  w.m_x0 = v[2 * cur];
  w.m_y0 = v[2 * cur + 1];
  double dy = v[2 * next + 1] - w.m_y0;
  if (dy == 0.0) dy = 1.0;
  w.m_slope = (v[2 * next] - w.m_x0) / dy;
  w.m_yEnd = std::floor(v[2 * next + 1] + 1.0);
}

// Finite coordinates and, beyond triangles, all turns of one sign.
static bool fillablePolygon(int nVertices, const double* vertices) {
  if (nVertices < 3 || vertices == nullptr) return false;
  for (int i = 0; i < 2 * nVertices; i++) {
    if (!std::isfinite(vertices[i])) return false;
  }
  if (nVertices > 3) {
    bool positive = true;
    for (int i = 0; i < nVertices; i++) {
      const double* p0 = vertices + 2 * i;
      const double* p1 = vertices + 2 * ((i + 1) % nVertices);
      const double* p2 = vertices + 2 * ((i + 2) % nVertices);
      const double turn = (p2[1] - p1[1]) * (p1[0] - p0[0]) - (p2[0] - p1[0]) * (p1[1] - p0[1]);
      const bool pos = turn >= 0.0;
      if (i == 0) {
        positive = pos;
      } else if (pos != positive) {
        return false;
      }
    }
  }
  return true;
}

// What a fill writes and how: value into image, the inverse-depth plane
// -(ax u + ay v + a0) within lower..upper into depth with id, under mask.
// Depth is double, or float in the speed modes (the plane is evaluated in
// double either way, stored rounded).
template <typename Depth>
struct FillTarget {
  unsigned char* image;
  unsigned char value;
  Depth* depth;
  int* ids;
  const unsigned char* mask;
  int width;
  int id;
  double ax, ay, a0, upper, lower;
};

// Fills pixels x0..x1 of row y.
template <typename Depth>
static void fillSpan(const FillTarget<Depth>& f, int y, int x0, int x1) {
  const double yd = y;
  const long row = (long)y * f.width;
  unsigned char* image = f.image;
  const unsigned char* mask = f.mask;
  if (f.depth == nullptr) {
    if (image == nullptr) return;
    for (int x = x0; x <= x1; x++) {
      if (mask != nullptr && mask[row + x] == 0) continue;
      image[row + x] = f.value;
    }
    return;
  }
  const double ax = f.ax, a0 = f.a0, upper = f.upper, lower = f.lower;
  const int id = f.id;
  const double ayy = f.ay * yd;
  Depth* depthRow = f.depth + row;
  if (mask == nullptr && image == nullptr && f.ids != nullptr) {
    // The sampler's case. The computed delta is monotonic in x (each
    // rounding step is), so when both span ends lie within lower..upper
    // every pixel does and only the depth comparison remains.
    int* idRow = f.ids + row;
    const double d0 = -(ax * (double)x0 + ayy + a0);
    const double d1 = -(ax * (double)x1 + ayy + a0);
    const bool inBounds = d0 >= lower && d0 <= upper && d1 >= lower && d1 <= upper;
    // (double)x rather than a running sum: no chain of additions between
    // pixels, so consecutive pixels overlap in the pipeline.
    if (inBounds) {
      for (int x = x0; x <= x1; x++) {
        const double delta = -(ax * (double)x + ayy + a0);
        if (delta > depthRow[x]) {
          depthRow[x] = (Depth)delta;
          idRow[x] = id;
        }
      }
    } else {
      for (int x = x0; x <= x1; x++) {
        const double delta = -(ax * (double)x + ayy + a0);
        if (delta >= lower && delta <= upper && delta > depthRow[x]) {
          depthRow[x] = (Depth)delta;
          idRow[x] = id;
        }
      }
    }
    return;
  }
  for (int x = x0; x <= x1; x++) {
    if (mask != nullptr && mask[row + x] == 0) continue;
    const double delta = -(ax * x + ayy + a0);
    if (delta >= lower && delta <= upper && delta > depthRow[x]) {
      depthRow[x] = (Depth)delta;
      if (f.ids != nullptr) f.ids[row + x] = id;
      if (image != nullptr) image[row + x] = f.value;
    }
  }
}

template <typename Depth>
static int fillConvexPoly(unsigned char* image, unsigned char value, Depth* depth, int* ids,
                          const unsigned char* mask, int width, int height, int nVertices,
                          const double* vertices, const int* clipRect, int id, double ax, double ay,
                          double a0, double upper, double lower) {
  if (!fillablePolygon(nVertices, vertices)) return -1;

  int top = 0;
  double topRounded = std::floor(vertices[1] + 0.5);
  for (int i = 1; i < nVertices; i++) {
    const double r = std::floor(vertices[2 * i + 1] + 0.5);
    if (r < topRounded) {
      topRounded = r;
      top = i;
    }
  }

  // The clip rectangle never reaches outside the image.
  const int xmin = clipRect[0] > 0 ? clipRect[0] : 0;
  const int ymin = clipRect[1] > 0 ? clipRect[1] : 0;
  const int xmax = clipRect[2] < width - 1 ? clipRect[2] : width - 1;
  const int ymax = clipRect[3] < height - 1 ? clipRect[3] : height - 1;
  if (xmin > xmax || ymin > ymax) return 0;

  double yFirst = std::ceil(vertices[2 * top + 1]);
  if (yFirst < ymin) yFirst = ymin;
  if (yFirst > ymax) return 0;

  const FillTarget<Depth> target{image, value, depth, ids, mask,  width,
                                 id,    ax,    ay,    a0,  upper, lower};
  FillEdgeWalker left, right;
  setFillEdge(left, vertices, top, (top + nVertices - 1) % nVertices);
  setFillEdge(right, vertices, top, (top + 1) % nVertices);
  int edgesUsed = 2;

  for (int y = (int)yFirst; y <= ymax; y++) {
    const double yd = y;
    bool exhausted = false;
    while (yd >= left.m_yEnd && !exhausted) {
      if (edgesUsed >= nVertices) {
        exhausted = true;
      } else {
        setFillEdge(left, vertices, left.m_next, (left.m_next + nVertices - 1) % nVertices);
        edgesUsed++;
      }
    }
    while (yd >= right.m_yEnd && !exhausted) {
      if (edgesUsed >= nVertices) {
        exhausted = true;
      } else {
        setFillEdge(right, vertices, right.m_next, (right.m_next + 1) % nVertices);
        edgesUsed++;
      }
    }
    if (exhausted) break;

    const double xa = left.m_slope * (yd - left.m_y0) + left.m_x0;
    const double xb = right.m_slope * (yd - right.m_y0) + right.m_x0;
    double xs = std::ceil(xa < xb ? xa : xb);
    double xe = std::floor(xa < xb ? xb : xa);
    if (xs < xmin) xs = xmin;
    if (xe > xmax) xe = xmax;
    if (!(xs <= xe)) continue;
    fillSpan(target, y, (int)xs, (int)xe);
  }
  return 0;
}

int fillConvexPoly_DepthTest(unsigned char* image, unsigned char value, double* depth, int* ids,
                             const unsigned char* mask, int width, int height, int nVertices,
                             const double* vertices, const int* clipRect, int id, double ax,
                             double ay, double a0, double upper, double lower) {
  return fillConvexPoly(image, value, depth, ids, mask, width, height, nVertices, vertices,
                        clipRect, id, ax, ay, a0, upper, lower);
}

int fillConvexPolyFloatDepth(unsigned char* image, unsigned char value, float* depth, int* ids,
                             const unsigned char* mask, int width, int height, int nVertices,
                             const double* vertices, const int* clipRect, int id, double ax,
                             double ay, double a0, double upper, double lower) {
  return fillConvexPoly(image, value, depth, ids, mask, width, height, nVertices, vertices,
                        clipRect, id, ax, ay, a0, upper, lower);
}

int initLineIterator(unsigned char* image, int width, int height, int bytesPerPixel,
                     const int* start, const int* end, myLineIterator* it, int connectivity,
                     int leftToRight) {
  int p1[2] = {start[0], start[1]};
  int p2[2] = {end[0], end[1]};
  const bool inside1 = p1[0] >= 0 && p1[0] < width && p1[1] >= 0 && p1[1] < height;
  const bool inside2 = p2[0] >= 0 && p2[0] < width && p2[1] >= 0 && p2[1] < height;
  if (!inside1 || !inside2) {
    if (!clipLine2D(width, height, p1, p2)) {
      it->m_ptr = image;
      it->m_err = 0;
      it->m_condDelta = 0;
      it->m_fixedDelta = 0;
      it->m_condStep = 0;
      it->m_fixedStep = 0;
      return 0;
    }
  }
  const int rowStep = width * bytesPerPixel;
  int dx = p2[0] - p1[0];
  int dy = p2[1] - p1[1];
  int xStep = bytesPerPixel;
  if (dx < 0) {
    if (leftToRight) {
      // Walk from the other end so that x grows.
      const int tx = p1[0], ty = p1[1];
      p1[0] = p2[0];
      p1[1] = p2[1];
      p2[0] = tx;
      p2[1] = ty;
      dx = -dx;
      dy = -dy;
    } else {
      dx = -dx;
      xStep = -xStep;
    }
  }
  int yStep = rowStep;
  if (dy < 0) {
    dy = -dy;
    yStep = -yStep;
  }
  if (dx < 0 || dy < 0) {
    printf(" ERROR: step must be non-negative!\n");
    return -1;
  }
  it->m_ptr = image + (long)p1[1] * rowStep + (long)p1[0] * bytesPerPixel;

  int major = dx, minor = dy, majorStep = xStep, minorStep = yStep;
  if (dy > dx) {
    major = dy;
    minor = dx;
    majorStep = yStep;
    minorStep = xStep;
  }
  if (connectivity == 8) {
    it->m_err = major - 2 * minor;
    it->m_condDelta = 2 * major;
    it->m_fixedDelta = -2 * minor;
    it->m_condStep = minorStep;
    it->m_fixedStep = majorStep;
    return major + 1;
  }
  // 4-connected: each step moves along exactly one axis.
  it->m_err = 0;
  it->m_condDelta = 2 * (major + minor);
  it->m_fixedDelta = -2 * minor;
  it->m_condStep = minorStep - majorStep;
  it->m_fixedStep = majorStep;
  return major + minor + 1;
}

static inline int regionCode(int64_t x, int64_t y, int64_t right, int64_t bottom) {
  return (x < 0 ? 1 : 0) | (x > right ? 2 : 0) | (y < 0 ? 4 : 0) | (y > bottom ? 8 : 0);
}

// a*b/c truncated toward zero; the product of two coordinate differences of
// arbitrary ints needs more than 64 bits.
static inline int64_t scaledStep(int64_t a, int64_t b, int64_t c) {
  return (int64_t)((__int128)a * b / c);
}

int clipLine2D(int width, int height, int* point1, int* point2) {
  if (width < 1 || height < 1) return 0;
  const int64_t right = width - 1, bottom = height - 1;
  int64_t x1 = point1[0], y1 = point1[1], x2 = point2[0], y2 = point2[1];
  int c1 = regionCode(x1, y1, right, bottom);
  int c2 = regionCode(x2, y2, right, bottom);
  if ((c1 & c2) == 0 && (c1 | c2) != 0) {
    if (c1 & 12) {
      const int64_t a = c1 < 8 ? 0 : bottom;
      x1 += scaledStep(a - y1, x2 - x1, y2 - y1);
      y1 = a;
      c1 = regionCode(x1, y1, right, bottom);
    }
    if (c2 & 12) {
      const int64_t a = c2 < 8 ? 0 : bottom;
      x2 += scaledStep(a - y2, x2 - x1, y2 - y1);
      y2 = a;
      c2 = regionCode(x2, y2, right, bottom);
    }
    if ((c1 & c2) == 0 && (c1 | c2) != 0) {
      if (c1 & 3) {
        const int64_t a = (c1 & 1) ? 0 : right;
        y1 += scaledStep(a - x1, y2 - y1, x2 - x1);
        x1 = a;
        c1 = regionCode(x1, y1, right, bottom);
      }
      if (c2 & 3) {
        const int64_t a = (c2 & 1) ? 0 : right;
        y2 += scaledStep(a - x2, y2 - y1, x2 - x1);
        x2 = a;
        c2 = regionCode(x2, y2, right, bottom);
      }
    }
  }
  const bool accepted = (c1 | c2) == 0;
  if (accepted && (x1 < 0 || y1 < 0 || x2 < 0 || y2 < 0)) printf("ERROR: clip line\n");
  point1[0] = (int)x1;
  point1[1] = (int)y1;
  point2[0] = (int)x2;
  point2[1] = (int)y2;
  return accepted ? 1 : 0;
}

}  // namespace ZOTtracker
