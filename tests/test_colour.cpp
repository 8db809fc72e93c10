// Grey/colour conversions: fixed-point luminance, round trip, plane merge.
#include <gtest/gtest.h>

#include <vector>

#include "Imgproc.h"

using namespace ZOTtracker;

TEST(ColourConversions, LuminanceOfPrimariesAndTheGreyRoundTrip) {
  // Pixels in memory order blue, green, red.
  const unsigned char colour[] = {0,   0,   255, 0, 255, 0, 255, 0,  0,
                                  255, 255, 255, 0, 0,   0, 10,  20, 30};
  unsigned char grey[7] = {0, 0, 0, 0, 0, 0, 99};
  convertColorToGray(colour, grey, 3, 2);
  EXPECT_EQ(grey[0], 76);   // red
  EXPECT_EQ(grey[1], 150);  // green
  EXPECT_EQ(grey[2], 29);   // blue
  EXPECT_EQ(grey[3], 255);
  EXPECT_EQ(grey[4], 0);
  EXPECT_EQ(grey[5], (1868 * 10 + 9617 * 20 + 4899 * 30 + 8192) >> 14);
  EXPECT_EQ(grey[6], 99);  // nothing past the image

  std::vector<unsigned char> all(256), rgb(256 * 3), back(256);
  for (int i = 0; i < 256; i++) all[i] = (unsigned char)i;
  convertGrayToColor(all.data(), rgb.data(), 16, 16);
  EXPECT_EQ(rgb[3 * 200], 200);
  EXPECT_EQ(rgb[3 * 200 + 2], 200);
  convertColorToGray(rgb.data(), back.data(), 16, 16);
  EXPECT_EQ(back, all);
}

TEST(ColourConversions, MergeInterleavesPlanesAndTreatsNullAsZero) {
  const unsigned char p0[4] = {200, 200, 200, 200};
  const unsigned char p2[4] = {1, 2, 3, 4};
  unsigned char out[13];
  out[12] = 7;
  merge(p0, nullptr, nullptr, out, 2, 2);
  for (int k = 0; k < 4; k++) {
    EXPECT_EQ(out[3 * k], 200);  // shows as pure blue
    EXPECT_EQ(out[3 * k + 1], 0);
    EXPECT_EQ(out[3 * k + 2], 0);
  }
  merge(nullptr, p0, p2, out, 4, 1);
  EXPECT_EQ(out[0], 0);
  EXPECT_EQ(out[1], 200);
  EXPECT_EQ(out[11], 4);
  EXPECT_EQ(out[12], 7);
  // Degenerate sizes touch nothing.
  merge(p0, p0, p0, out, 0, 5);
  convertGrayToColor(p0, out, -3, 2);
  EXPECT_EQ(out[0], 0);
}
