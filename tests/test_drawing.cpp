// Drawing primitives: clipping, colour byte order and its quirks, circles
// at the border, frames and matching points.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "Drawing.h"
#include "Math.h"

using namespace ZOTtracker;

namespace {

// An image with guard bytes on both sides, to catch writes outside it.
struct Canvas {
  int width, height, pixelSize;
  std::vector<unsigned char> bytes;
  static constexpr int kGuard = 64;
  Canvas(int w, int h, bool colour)
      : width(w), height(h), pixelSize(colour ? 3 : 1), bytes(w * h * pixelSize + 2 * kGuard, 0) {
    for (int i = 0; i < kGuard; i++) bytes[i] = bytes[bytes.size() - 1 - i] = 0xA5;
  }
  unsigned char* data() { return bytes.data() + kGuard; }
  unsigned char* at(int x, int y) { return data() + (y * width + x) * pixelSize; }
  bool guardsIntact() const {
    for (int i = 0; i < kGuard; i++)
      if (bytes[i] != 0xA5 || bytes[bytes.size() - 1 - i] != 0xA5) return false;
    return true;
  }
  int countNonZeroPixels() {
    int n = 0;
    for (int y = 0; y < height; y++)
      for (int x = 0; x < width; x++) {
        bool set = false;
        for (int c = 0; c < pixelSize; c++) set |= at(x, y)[c] != 0;
        n += set;
      }
    return n;
  }
};

}  // namespace

TEST(Lines, ClippedTo8ConnectedCellsInsideTheImage) {
  Canvas grey(10, 10, false);
  const unsigned char white[3] = {255, 255, 255};
  const int a[2] = {-10, 5}, b[2] = {5, 5};
  drawLine(grey.data(), 10, 10, false, a, b, white);
  for (int x = 0; x < 10; x++) EXPECT_EQ(*grey.at(x, 5), x <= 5 ? 255 : 0) << x;
  EXPECT_EQ(grey.countNonZeroPixels(), 6);

  // A diagonal is 8-connected: one pixel per column.
  Canvas diag(10, 10, false);
  const int c[2] = {0, 0}, d[2] = {9, 4};
  drawLine(diag.data(), 10, 10, false, c, d, white);
  EXPECT_EQ(diag.countNonZeroPixels(), 10);
  EXPECT_EQ(*diag.at(0, 0), 255);
  EXPECT_EQ(*diag.at(9, 4), 255);

  // Entirely outside, or absurd coordinates: nothing drawn, nothing overrun.
  const int e[2] = {-50, -3}, f[2] = {-1, -40};
  drawLine(diag.data(), 10, 10, false, e, f, white);
  const int g[2] = {roundToPixel(NAN), roundToPixel(1e300)}, h[2] = {3, 3};
  drawLine(diag.data(), 10, 10, false, g, h, white);
  EXPECT_TRUE(diag.guardsIntact());

  // Rectangle outline.
  Canvas rect(12, 8, false);
  const int p1[2] = {2, 1}, p2[2] = {9, 6};
  drawRect(rect.data(), 12, 8, false, p1, p2, white);
  EXPECT_EQ(rect.countNonZeroPixels(), 2 * 8 + 2 * 4);
  EXPECT_EQ(*rect.at(9, 1), 255);
  EXPECT_EQ(*rect.at(5, 3), 0);
}

TEST(ColourOrder, LinesReverseTheTripleAndCirclesAlternate) {
  // Colour image: drawLine writes (b, g, r) = (colour[2], colour[1], colour[0]).
  Canvas rgb(8, 8, true);
  const unsigned char c[3] = {10, 20, 30};
  const int a[2] = {0, 0}, b[2] = {3, 0};
  drawLine(rgb.data(), 8, 8, true, a, b, c);
  EXPECT_EQ(rgb.at(1, 0)[0], 30);
  EXPECT_EQ(rgb.at(1, 0)[1], 20);
  EXPECT_EQ(rgb.at(1, 0)[2], 10);

  // drawCircle swaps the caller's array: (30, 20, 10) first, then (10, 20, 30).
  unsigned char shared[3] = {10, 20, 30};
  const int centre[2] = {4, 4};
  drawCircle(rgb.data(), 8, 8, true, centre, 0, shared, true);
  EXPECT_EQ(rgb.at(4, 4)[0], 30);
  EXPECT_EQ(rgb.at(4, 4)[2], 10);
  EXPECT_EQ(shared[0], 30);
  drawCircle(rgb.data(), 8, 8, true, centre, 0, shared, true);
  EXPECT_EQ(rgb.at(4, 4)[0], 10);
  EXPECT_EQ(rgb.at(4, 4)[2], 30);

  // Grey: drawLine uses colour[0], drawCircle the caller's colour[2].
  Canvas grey(8, 8, false);
  const unsigned char lineColour[3] = {200, 0, 50};
  unsigned char circleColour[3] = {200, 0, 50};
  drawLine(grey.data(), 8, 8, false, a, b, lineColour);
  drawCircle(grey.data(), 8, 8, false, centre, 0, circleColour, false);
  EXPECT_EQ(*grey.at(2, 0), 200);
  EXPECT_EQ(*grey.at(4, 4), 50);
}

TEST(Circles, MidpointShapesAndClippingAtTheBorder) {
  // A filled disc of radius 2 from the midpoint steps: rows of 1, 3, 5, 3, 1 pixels.
  Canvas disc(9, 9, false);
  unsigned char white[3] = {255, 255, 255};
  const int centre[2] = {4, 4};
  drawCircle(disc.data(), 9, 9, false, centre, 2, white, true);
  EXPECT_EQ(disc.countNonZeroPixels(), 13);
  EXPECT_EQ(*disc.at(4, 2), 255);
  EXPECT_EQ(*disc.at(2, 2), 0);

  // Its outline leaves the centre free and is symmetric.
  Canvas ring(21, 21, false);
  const int c10[2] = {10, 10};
  drawCircle(ring.data(), 21, 21, false, c10, 7, white, false);
  EXPECT_EQ(*ring.at(10, 10), 0);
  EXPECT_EQ(*ring.at(17, 10), 255);
  EXPECT_EQ(*ring.at(3, 10), 255);
  EXPECT_EQ(*ring.at(10, 3), 255);
  for (int y = 0; y < 21; y++)
    for (int x = 0; x < 21; x++) ASSERT_EQ(*ring.at(x, y), *ring.at(20 - x, y));

  // Centred on the corner: only the quarter in the image, nothing outside.
  Canvas corner(6, 6, true);
  const int origin[2] = {0, 0};
  drawCircle(corner.data(), 6, 6, true, origin, 2, white, true);
  EXPECT_TRUE(corner.guardsIntact());
  EXPECT_EQ(corner.countNonZeroPixels(), 6);  // rows of 3, 2 and 1 pixels
  drawCircle(corner.data(), 6, 6, true, origin, 2, white, false);
  const int far[2] = {-100, 3}, huge[2] = {2000000000, -2000000000};
  drawCircle(corner.data(), 6, 6, true, far, 50, white, true);
  drawCircle(corner.data(), 6, 6, true, huge, 5, white, true);
  drawCircle(corner.data(), 6, 6, true, centre, -1, white, true);
  EXPECT_TRUE(corner.guardsIntact());

  // A disc hanging over the bottom edge.
  Canvas bottom(10, 10, false);
  const int low[2] = {5, 9};
  drawCircle(bottom.data(), 10, 10, false, low, 3, white, true);
  EXPECT_TRUE(bottom.guardsIntact());
  EXPECT_EQ(*bottom.at(5, 9), 255);
  EXPECT_EQ(*bottom.at(5, 6), 255);
  EXPECT_EQ(*bottom.at(5, 5), 0);
}

TEST(Frames, AxesInRedGreenBlueFromAWhiteOrigin) {
  Canvas img(64, 64, true);
  const double K[9] = {100, 0, 32, 0, 100, 32, 0, 0, 1};
  double T[16];
  TfromEuler(T, 0, 0, 0, 0, 0, 10);  // frame 10 units in front of the camera
  drawCartesianFrame(K, T, 2.0, img.data(), 64, 64, true);
  // Origin disc at (32, 32), x axis to (52, 32) in red, y axis to (32, 52) in green.
  EXPECT_EQ(img.at(31, 31)[0], 255);
  EXPECT_EQ(img.at(31, 31)[2], 255);
  const unsigned char* xAxis = img.at(45, 32);
  EXPECT_EQ(xAxis[0], 0);
  EXPECT_EQ(xAxis[1], 0);
  EXPECT_EQ(xAxis[2], 255);
  const unsigned char* yAxis = img.at(32, 45);
  EXPECT_EQ(yAxis[1], 255);
  EXPECT_EQ(yAxis[2], 0);
  // The z axis points at the camera: it projects onto the origin, drawn last in blue.
  EXPECT_EQ(img.at(32, 32)[0], 255);
  EXPECT_EQ(img.at(32, 32)[2], 0);

  // An origin at depth zero draws nothing.
  Canvas none(64, 64, true);
  TfromEuler(T, 0, 0, 0, 0, 0, 0);
  drawCartesianFrame(K, T, 2.0, none.data(), 64, 64, true);
  EXPECT_EQ(none.countNonZeroPixels(), 0);
}

TEST(MatchingPoints, NormalsSamplesAndOnlyWeightedMatches) {
  Canvas img(40, 40, true);
  const double samples[4] = {10, 10, 30, 30};
  const double normals[4] = {1, 0, 0, 1};
  const double matches[4] = {14, 10, 30, 34};
  const double weights[2] = {1.0, 0.0};
  drawMatchingPoints(2, samples, normals, matches, weights, img.data(), 40, 40, true, true, 6.0);
  // Sample discs in green.
  EXPECT_EQ(img.at(10, 10)[1], 255);
  EXPECT_EQ(img.at(10, 10)[0], 0);
  // The normal of sample 0 runs horizontally in red beyond the disc.
  EXPECT_EQ(img.at(5, 10)[2], 255);
  EXPECT_EQ(img.at(5, 10)[1], 0);
  // Match 0 in blue, match 1 (weight 0) not drawn: its place shows the red normal.
  EXPECT_EQ(img.at(14, 10)[0], 255);
  EXPECT_EQ(img.at(30, 34)[0], 0);
  EXPECT_EQ(img.at(30, 34)[2], 255);

  Canvas noMatches(40, 40, true);
  const double zero[2] = {0.0, 0.0};
  drawMatchingPoints(2, samples, normals, matches, zero, noMatches.data(), 40, 40, false, true,
                     6.0);
  for (int y = 0; y < 40; y++)
    for (int x = 0; x < 40; x++) ASSERT_EQ(noMatches.at(x, y)[0], 0);  // no blue anywhere
  EXPECT_TRUE(noMatches.guardsIntact());
}
