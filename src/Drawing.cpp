// Raster drawing primitives: lines, rectangles, circles, frames and the
// matching points of a Gauss-Newton iteration.
#include "Drawing.h"

#include <cmath>
#include <cstring>

#include "Imgproc.h"
#include "Math.h"

namespace ZOTtracker {

int roundToPixel(double value) {
  constexpr double kFar = 1e9;
  if (!(value > -kFar)) return (int)-kFar;  // NaN included
  if (value > kFar) return (int)kFar;
  return (int)std::round(value);
}

void drawLine(unsigned char* image, int width, int height, bool isColour, const int* p1,
              const int* p2, const unsigned char* colour) {
  if (image == nullptr || width <= 0 || height <= 0) return;
  // The walk runs over a grid of one-byte cells; the cell offset is the pixel
  // index whatever the pixel size.
  myLineIterator it;
  const int count = initLineIterator(image, width, height, 1, p1, p2, &it, 8, 0);
  for (int i = 0; i < count; i++) {
    const long k = it.m_ptr - image;
    if (isColour) {
      image[3 * k] = colour[2];
      image[3 * k + 1] = colour[1];
      image[3 * k + 2] = colour[0];
    } else {
      image[k] = colour[0];
    }
    advanceLineIterator(it);
  }
}

void drawRect(unsigned char* image, int width, int height, bool isColour, const int* p1,
              const int* p2, const unsigned char* colour) {
  const int corner12[2] = {p2[0], p1[1]};
  const int corner21[2] = {p1[0], p2[1]};
  drawLine(image, width, height, isColour, p1, corner12, colour);
  drawLine(image, width, height, isColour, p1, corner21, colour);
  drawLine(image, width, height, isColour, corner12, p2, colour);
  drawLine(image, width, height, isColour, corner21, p2, colour);
}

void ICV_HLINE(unsigned char* row, int x1, int x2, const unsigned char* colour, int pixelSize) {
  for (unsigned char* p = row + x1 * pixelSize; p <= row + x2 * pixelSize; p += pixelSize)
    memcpy(p, colour, (size_t)pixelSize);
}

void ICV_PUT_POINT(unsigned char* row, int x, const unsigned char* colour, int pixelSize) {
  memcpy(row + x * pixelSize, colour, (size_t)pixelSize);
}

namespace {

// One pair of spans of the midpoint circle (rows yTop and yBottom, columns
// x1..x2) where the circle is not entirely inside: clamp or test every write.
void drawClippedSpanPair(unsigned char* image, int width, int height, int step, int pixelSize,
                         int yTop, int yBottom, int x1, int x2, const unsigned char* colour,
                         bool fill) {
  if (x1 >= width || x2 < 0 || yBottom < 0 || yTop >= height) return;
  if (fill) {
    if (x1 < 0) x1 = 0;
    if (x2 > width - 1) x2 = width - 1;
  }
  const int rows[2] = {yTop, yBottom};
  for (int r = 0; r < 2; r++) {
    if (rows[r] < 0 || rows[r] >= height) continue;
    unsigned char* row = image + (long)rows[r] * step;
    if (fill) {
      ICV_HLINE(row, x1, x2, colour, pixelSize);
    } else {
      if (x1 >= 0) ICV_PUT_POINT(row, x1, colour, pixelSize);
      if (x2 < width) ICV_PUT_POINT(row, x2, colour, pixelSize);
    }
  }
}

}  // namespace

void drawCircle(unsigned char* image, int width, int height, bool isColour, const int* centre,
                int radius, unsigned char* colour, bool fill) {
  const unsigned char swapped = colour[0];
  colour[0] = colour[2];
  colour[2] = swapped;
  if (image == nullptr || width <= 0 || height <= 0) return;

  const int pixelSize = isColour ? 3 : 1;
  const int step = width * pixelSize;
  const int cx = centre[0], cy = centre[1];
  // Coordinates far outside the image would overflow the span arithmetic.
  if (radius < 0 || radius > 1000000000 || std::abs((long)cx) > 1000000000L ||
      std::abs((long)cy) > 1000000000L)
    return;
  const bool inside = cx >= radius && cx < width - radius && cy >= radius && cy < height - radius;

  int dx = radius, dy = 0, err = 0, plus = 1, minus = 2 * radius - 1;
  while (dx >= dy) {
    // Rows cy -/+ dy span cx -/+ dx; rows cy -/+ dx span cx -/+ dy.
    const int spans[2][4] = {{cy - dy, cy + dy, cx - dx, cx + dx},
                             {cy - dx, cy + dx, cx - dy, cx + dy}};
    for (const auto& s : spans) {
      if (inside) {
        unsigned char* top = image + (long)s[0] * step;
        unsigned char* bottom = image + (long)s[1] * step;
        if (fill) {
          ICV_HLINE(top, s[2], s[3], colour, pixelSize);
          ICV_HLINE(bottom, s[2], s[3], colour, pixelSize);
        } else {
          ICV_PUT_POINT(top, s[2], colour, pixelSize);
          ICV_PUT_POINT(bottom, s[2], colour, pixelSize);
          ICV_PUT_POINT(top, s[3], colour, pixelSize);
          ICV_PUT_POINT(bottom, s[3], colour, pixelSize);
        }
      } else {
        drawClippedSpanPair(image, width, height, step, pixelSize, s[0], s[1], s[2], s[3], colour,
                            fill);
      }
    }
    dy++;
    err += plus;
    plus += 2;
    if (err > 0) {
      err -= minus;
      dx--;
      minus -= 2;
    }
  }
}

void drawCartesianFrame(const double* K, const double* T, double length, unsigned char* image,
                        int width, int height, bool isColour) {
  const double points[4][3] = {{0, 0, 0}, {length, 0, 0}, {0, length, 0}, {0, 0, length}};
  const unsigned char axisColours[3][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}};
  double uv[2];
  if (transformAndProjectPoint(K, T, points[0], uv) != 0) return;
  const int origin[2] = {roundToPixel(uv[0]), roundToPixel(uv[1])};
  unsigned char white[3] = {255, 255, 255};
  drawCircle(image, width, height, isColour, origin, 2, white, true);
  for (int axis = 0; axis < 3; axis++) {
    if (transformAndProjectPoint(K, T, points[axis + 1], uv) != 0) continue;
    const int end[2] = {roundToPixel(uv[0]), roundToPixel(uv[1])};
    drawLine(image, width, height, isColour, origin, end, axisColours[axis]);
  }
}

void drawMatchingPoints(int n, const double* samples, const double* normals, const double* matches,
                        const double* weights, unsigned char* image, int width, int height,
                        bool drawNormals, bool drawMatches, double normalLength) {
  const unsigned char red[3] = {255, 0, 0};
  if (drawNormals) {
    for (int i = 0; i < n; i++) {
      const double* s = samples + 2 * i;
      const double* nrm = normals + 2 * i;
      const int a[2] = {roundToPixel(s[0] - normalLength * nrm[0]),
                        roundToPixel(s[1] - normalLength * nrm[1])};
      const int b[2] = {roundToPixel(s[0] + normalLength * nrm[0]),
                        roundToPixel(s[1] + normalLength * nrm[1])};
      drawLine(image, width, height, true, a, b, red);
    }
  }
  for (int i = 0; i < n; i++) {
    unsigned char green[3] = {0, 255, 0};
    const int c[2] = {roundToPixel(samples[2 * i]), roundToPixel(samples[2 * i + 1])};
    drawCircle(image, width, height, true, c, 2, green, true);
  }
  if (drawMatches) {
    for (int i = 0; i < n; i++) {
      if (weights[i] == 0.0) continue;
      unsigned char blue[3] = {0, 0, 255};  // fresh each time: drawCircle swaps it
      const int c[2] = {roundToPixel(matches[2 * i]), roundToPixel(matches[2 * i + 1])};
      drawCircle(image, width, height, true, c, 2, blue, true);
    }
  }
}

}  // namespace ZOTtracker
