// Image processing on the library's own buffers: colour conversions, Sobel
// and Canny edge detection, lens undistortion. Grey images are width x height
// bytes, colour images 3 interleaved bytes per pixel in the order blue,
// green, red, both row-major without padding. Nothing here allocates: every
// buffer, work memory included, comes from the caller.
#pragma once

namespace ZOTtracker {

// ================================================================ colour conversions
// Luminance 0.114 B + 0.587 G + 0.299 R in 14-bit fixed point, rounded to
// nearest: (1868 b + 9617 g + 4899 r + 8192) >> 14. The weights sum to 16384,
// so a grey pixel converts back to itself.
void convertColorToGray(const unsigned char* src, unsigned char* dst, int width, int height);
// Copies each grey value into the three bytes of its colour pixel.
void convertGrayToColor(const unsigned char* src, unsigned char* dst, int width, int height);
// Interleaves three planes into a colour image (byte 0 from plane0, ...);
// a null plane contributes 0.
void merge(const unsigned char* plane0, const unsigned char* plane1, const unsigned char* plane2,
           unsigned char* dst, int width, int height);

// ================================================================ edge detection
// Derivative images are width x height shorts, row-major: dx grows with
// intensity to the right, dy downwards; |dx|, |dy| <= 1020.

// Separable 3 x 3 Sobel with mirrored borders (the outer row or column is
// its own mirror axis), integer arithmetic. tmp is work memory of
// 2 * width * height shorts: first half the vertically smoothed image, second
// half the vertical differences. dx is 0 on the left and right columns, dy on
// the top and bottom rows. A single row or column is taken as its own
// neighbour (dx = 0 and dy = 4 * vertical difference, or the reverse); sizes
// <= 0 or null pointers write nothing. Returns 0.
int mySobel(const unsigned char* src, short* dx, short* dy, short* tmp, int width, int height);

// Canny on given derivatives: L1 magnitude |dx| + |dy|, non-maximum
// suppression along four directions chosen by a fixed-point tan 22.5 deg /
// tan 67.5 deg test (ties on plateaus go to the pixel strictly greater than
// its left/upper neighbour), double threshold, hysteresis by an explicit
// stack. Thresholds are swapped when low > high, then floored; a NaN
// threshold counts as 0. Pixels strictly above a threshold pass it.
// buffer: at least 3 * (width + 2) ints followed by (width + 2) *
// (height + 2) bytes (the edge state map); stack: width * height pointers.
// The stack is used up to a budget of width * height / 10 entries (1024 for
// images of at most 10239 pixels), grown by half (at least 8) when a row or
// a hysteresis step could exceed it; a budget beyond width * height fails.
// Writes edges (width x height, 255 edge, 0 none) and returns 0. On failure
// (fewer than 1024 pixels, a size <= 0, a null pointer, or the budget
// exceeded) prints "Canny failed: insufficient stack memory!" and returns
// ZOT_ERR_CANNY (-16) with edges untouched.
int myCanny(const short* dx, const short* dy, unsigned char* edges, int* buffer,
            unsigned char** stack, int width, int height, double lowThreshold,
            double highThreshold);

// mySobel into dx, dy (work memory tmp), then myCanny into edges with the
// thresholds converted to double. Returns 0 or myCanny's code.
int CannyAndSobel(const unsigned char* src, short* dx, short* dy, unsigned char* edges, int* buffer,
                  unsigned char** stack, short* tmp, int width, int height, int lowThreshold,
                  int highThreshold);

// ================================================================ lens undistortion
// Distortion coefficients are (k1, k2, p1, p2, k3); camera matrices 3 x 3
// row-major [fx s cx; 0 fy cy; 0 0 1]. Maps and tables are width x height,
// row-major by destination (undistorted) pixel.

// For each destination pixel (x, y) the sub-pixel source position in the
// distorted image: the ray (R^T * A^-1) * (x, y, 1) with A = newK, or K when
// newK is null, and R the identity when null, is projected through the
// forward distortion model and K (skew ignored). No iteration. A null
// distCoeffs counts as all zero; null K or maps, or a size <= 0, write
// nothing.
void initUndistortRectifyMap(const double* K, const double* distCoeffs, const double* R,
                             const double* newK, int width, int height, double* mapX, double* mapY);

// Integer resampling tables from the maps: index = ix + iy * width of the
// top-left source pixel, ix and iy the map values truncated toward zero, and
// bilinear weights w00, w10, w01, w11 of (ix, iy), (ix + 1, iy), (ix, iy + 1),
// (ix + 1, iy + 1) in units of 1/256, each truncated toward zero (their sum
// may be below 256, and coordinates in (-1, 0) are accepted with
// extrapolating weights). A source position whose ix or iy is outside
// 0 .. width - 2 or 0 .. height - 2, or which is NaN or infinite, gets
// index -1 and zero weights. Returns the number of rows processed (height;
// 0 for a size <= 0 or null pointers, which write nothing).
int initUndistortionTables(const double* mapX, const double* mapY, int* w00, int* w10, int* w01,
                           int* w11, int* index, int width, int height);

// dst(k) = low byte of (sum of the four weighted source pixels) >> 8, in
// unsigned 32-bit arithmetic; 0 (black) where the index is -1 or does not
// leave room for the right and lower neighbours inside the image. dst must
// not be src. Integer arithmetic only; sizes <= 0 or null pointers write
// nothing.
void undistortImageFromTables(const unsigned char* src, unsigned char* dst, const int* w00,
                              const int* w10, const int* w01, const int* w11, const int* index,
                              int width, int height);

}  // namespace ZOTtracker
