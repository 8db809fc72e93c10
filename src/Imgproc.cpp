// Image processing: colour conversions.
#include "Imgproc.h"

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

}  // namespace ZOTtracker
