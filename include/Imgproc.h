/// @file
/// Image processing on the library's own buffers: colour conversions, Sobel
/// and Canny edge detection, lens undistortion, and the frustum clipping,
/// depth-tested fill and line walking of the visible-contour sampler. Grey images are width x
/// height bytes, colour images 3 interleaved bytes per pixel in the order blue, green, red, both
/// row-major without padding. Nothing here allocates: every buffer, work memory included, comes
/// from the caller.
#pragma once

#include <cmath>

namespace ZOTtracker {

// ================================================================ colour conversions
/// Luminance 0.114 B + 0.587 G + 0.299 R in 14-bit fixed point, rounded to
/// nearest: (1868 b + 9617 g + 4899 r + 8192) >> 14. The weights sum to 16384,
/// so a grey pixel converts back to itself.
void convertColorToGray(const unsigned char* src, unsigned char* dst, int width, int height);
/// Copies each grey value into the three bytes of its colour pixel.
void convertGrayToColor(const unsigned char* src, unsigned char* dst, int width, int height);
/// Interleaves three planes into a colour image (byte 0 from plane0, ...);
/// a null plane contributes 0.
void merge(const unsigned char* plane0, const unsigned char* plane1, const unsigned char* plane2,
           unsigned char* dst, int width, int height);

// ================================================================ edge detection
/// Derivative images are width x height shorts, row-major: dx grows with
/// intensity to the right, dy downwards; |dx|, |dy| <= 1020.

/// Separable 3 x 3 Sobel with mirrored borders (the outer row or column is
/// its own mirror axis), integer arithmetic. tmp is work memory of
/// 2 * width * height shorts: first half the vertically smoothed image, second
/// half the vertical differences. dx is 0 on the left and right columns, dy on
/// the top and bottom rows. A single row or column is taken as its own
/// neighbour (dx = 0 and dy = 4 * vertical difference, or the reverse); sizes
/// <= 0 or null pointers write nothing. Returns 0.
int mySobel(const unsigned char* src, short* dx, short* dy, short* tmp, int width, int height);

/// Canny on given derivatives: L1 magnitude |dx| + |dy|, non-maximum
/// suppression along four directions chosen by a fixed-point tan 22.5 deg /
/// tan 67.5 deg test (ties on plateaus go to the pixel strictly greater than
/// its left/upper neighbour), double threshold, hysteresis by an explicit
/// stack. Thresholds are swapped when low > high, then floored; a NaN
/// threshold counts as 0. Pixels strictly above a threshold pass it.
/// buffer: at least 3 * (width + 2) ints followed by (width + 2) *
/// (height + 2) bytes (the edge state map); stack: width * height pointers.
/// The stack is used up to a budget of width * height / 10 entries (1024 for
/// images of at most 10239 pixels), grown by half (at least 8) when a row or
/// a hysteresis step could exceed it; a budget beyond width * height fails.
/// Writes edges (width x height, 255 edge, 0 none) and returns 0. On failure
/// (fewer than 1024 pixels, a size <= 0, a null pointer, or the budget
/// exceeded) prints "Canny failed: insufficient stack memory!" and returns
/// ZOT_ERR_CANNY (-16) with edges untouched.
int myCanny(const short* dx, const short* dy, unsigned char* edges, int* buffer,
            unsigned char** stack, int width, int height, double lowThreshold,
            double highThreshold);

/// mySobel into dx, dy (work memory tmp), then myCanny into edges with the
/// thresholds converted to double. Returns 0 or myCanny's code.
int CannyAndSobel(const unsigned char* src, short* dx, short* dy, unsigned char* edges, int* buffer,
                  unsigned char** stack, short* tmp, int width, int height, int lowThreshold,
                  int highThreshold);

/// Regions: x0, y0, x1, y1 of a pixel rectangle, corners included. The
/// region functions below clip it to the image first and work on that
/// window alone, through the same kernels as the whole-image functions, as
/// if the window were an image of its own whose rows lie width pixels apart:
/// nothing outside it is read or written.

/// Clips region to the width x height image into clipped (4 ints). Returns
/// false, with clipped undefined, for a null region or an empty result.
bool clipRegion(const int* region, int width, int height, int* clipped);

/// mySobel on the window `region` of src into the same pixels of dx and dy
/// (mirrored at the window's borders). tmp: 2 * window width shorts. With
/// row spans (2 ints per image row: x0, x1 of row y at spans[2y],
/// spans[2y + 1], inclusive; empty when x0 > x1) only their part of each
/// window row is computed, from the image's own neighbours inside the
/// window: there the values equal the window's. Writes nothing for an empty
/// window or null pointers. Returns 0.
int mySobelRegion(const unsigned char* src, short* dx, short* dy, short* tmp, int width, int height,
                  const int* region, const int* spans = nullptr);

/// Pixels at the sides of a region that lie inside the image (not on its
/// border) where myCannyRegion finds no edge: there the window's mirrored
/// borders, not the image, would decide.
constexpr int ZOT_REGION_BORDER = 2;

/// myCanny on the window `region` of dx, dy into the same pixels of edges,
/// its stack budget following the window's pixel count. The outer
/// ZOT_REGION_BORDER rows and columns of the window's sides inside the
/// image are never edges and connect nothing. So every edge found is an
/// edge of myCanny on the whole image, and an edge of the whole image
/// further in is found unless its hysteresis ran through the outside (a
/// weak edge whose strong one lies outside). Returns 0, or ZOT_ERR_CANNY
/// with the message for an empty window and myCanny's failures (a window of
/// fewer than 1024 pixels among them). With the row spans mySobelRegion
/// was given, only pixels whose 3 x 3 neighbourhood lies in them (and in the
/// window less its border) can be edges, and the hysteresis stays there:
/// every edge is still one of the whole image. The whole window of edges is
/// written.
int myCannyRegion(const short* dx, const short* dy, unsigned char* edges, int* buffer,
                  unsigned char** stack, int width, int height, const int* region,
                  double lowThreshold, double highThreshold, const int* spans = nullptr);

// ================================================================ lens undistortion
/// Distortion coefficients are (k1, k2, p1, p2, k3); camera matrices 3 x 3
/// row-major [fx s cx; 0 fy cy; 0 0 1]. Maps and tables are width x height,
/// row-major by destination (undistorted) pixel.

/// For each destination pixel (x, y) the sub-pixel source position in the
/// distorted image: the ray (R^T * A^-1) * (x, y, 1) with A = newK, or K when
/// newK is null, and R the identity when null, is projected through the
/// forward distortion model and K (skew ignored). No iteration. A null
/// distCoeffs counts as all zero; null K or maps, or a size <= 0, write
/// nothing.
void initUndistortRectifyMap(const double* K, const double* distCoeffs, const double* R,
                             const double* newK, int width, int height, double* mapX, double* mapY);

/// The lens model of the maps: the point (xp, yp) of the normalised image
/// plane (z = 1, camera frame) through the distortion d (5 values) and
/// the camera matrix K without its skew, into the distorted pixel (u, v).
/// With jacobian (4 doubles, row-major) also d(u, v) / d(xp, yp).
inline void distortNormalised(const double* K, const double* d, double xp, double yp, double* u,
                              double* v, double* jacobian) {
  const double fx = K[0], cx = K[2], fy = K[4], cy = K[5];
  const double k1 = d[0], k2 = d[1], p1 = d[2], p2 = d[3], k3 = d[4];
  const double k4 = 0.0, k5 = 0.0, k6 = 0.0;  // rational model switched off
  const double x2 = xp * xp, y2 = yp * yp, r2 = x2 + y2, _2xy = 2 * xp * yp;
  const double kr = (1 + ((k3 * r2 + k2) * r2 + k1) * r2) / (1 + ((k6 * r2 + k5) * r2 + k4) * r2);
  *u = fx * (xp * kr + p1 * _2xy + p2 * (r2 + 2 * x2)) + cx;
  *v = fy * (yp * kr + p1 * (r2 + 2 * y2) + p2 * _2xy) + cy;
  if (jacobian == nullptr) return;
  // d kr / d r2, then the chain through r2 = x^2 + y^2.
  const double dkr = (3 * k3 * r2 + 2 * k2) * r2 + k1;
  jacobian[0] = fx * (kr + 2 * x2 * dkr + 2 * p1 * yp + 6 * p2 * xp);
  jacobian[1] = fx * (_2xy * dkr + 2 * p1 * xp + 2 * p2 * yp);
  jacobian[2] = fy * (_2xy * dkr + 2 * p1 * xp + 2 * p2 * yp);
  jacobian[3] = fy * (kr + 2 * y2 * dkr + 6 * p1 * yp + 2 * p2 * xp);
}

/// A camera's lens ready for many pixels: K (skew included), its inverse
/// and the distortion (k1, k2, p1, p2, k3), copied.
struct LensModel {
  LensModel(const double* K, const double* distortion);
  /// Where the pinhole pixel (u, v) appears in the distorted image: its ray
  /// through K^-1, then distortNormalised. Writes out (2) and, with
  /// jacobian (4 doubles, row-major), d out / d(u, v). Returns whether out
  /// is finite.
  bool distort(double u, double v, double* out, double* jacobian) const {
    const double K[9] = {fx, skew, cx, 0.0, fy, cy, 0.0, 0.0, 1.0};
    const double yp = (v - cy) * invFy;
    const double xp = (u - cx - skew * yp) * invFx;
    double J[4];
    distortNormalised(K, d, xp, yp, out, out + 1, jacobian != nullptr ? J : nullptr);
    if (jacobian != nullptr) {
      // d(xp, yp) / d(u, v) = [1/fx, -s/(fx fy); 0, 1/fy].
      jacobian[0] = J[0] * invFx;
      jacobian[1] = J[0] * skewTerm + J[1] * invFy;
      jacobian[2] = J[2] * invFx;
      jacobian[3] = J[2] * skewTerm + J[3] * invFy;
    }
    return std::isfinite(out[0]) && std::isfinite(out[1]);
  }
  double fx, fy, cx, cy, skew, invFx, invFy, skewTerm;
  double d[5];
};

/// LensModel(K, d).distort(u, v, out, jacobian), for a single pixel.
bool distortPixel(const double* K, const double* d, double u, double v, double* out,
                  double* jacobian);

/// Integer resampling tables from the maps: index = ix + iy * width of the
/// top-left source pixel, ix and iy the map values truncated toward zero, and
/// bilinear weights w00, w10, w01, w11 of (ix, iy), (ix + 1, iy), (ix, iy + 1),
/// (ix + 1, iy + 1) in units of 1/256, each truncated toward zero (their sum
/// may be below 256, and coordinates in (-1, 0) are accepted with
/// extrapolating weights). A source position whose ix or iy is outside
/// 0 .. width - 2 or 0 .. height - 2, or which is NaN or infinite, gets
/// index -1 and zero weights. Returns the number of rows processed (height;
/// 0 for a size <= 0 or null pointers, which write nothing).
int initUndistortionTables(const double* mapX, const double* mapY, int* w00, int* w10, int* w01,
                           int* w11, int* index, int width, int height);

/// dst(k) = low byte of (sum of the four weighted source pixels) >> 8, in
/// unsigned 32-bit arithmetic; 0 (black) where the index is -1 or does not
/// leave room for the right and lower neighbours inside the image. dst must
/// not be src. Integer arithmetic only; sizes <= 0 or null pointers write
/// nothing.
void undistortImageFromTables(const unsigned char* src, unsigned char* dst, const int* w00,
                              const int* w10, const int* w01, const int* w11, const int* index,
                              int width, int height);

/// undistortImageFromTables on the pixels of `region` alone; the others of
/// dst keep their values. Writes nothing for an empty region or null pointers.
void undistortImageRegionFromTables(const unsigned char* src, unsigned char* dst, const int* w00,
                                    const int* w10, const int* w01, const int* w11,
                                    const int* index, int width, int height, const int* region);

// ================================================================ frustum clipping and
/// depth-tested fill Geometric kernels of the visible-contour sampler: the camera's viewing frustum
/// as six planes, clipping of 3D segments and polygons against it, scan conversion of a convex
/// image polygon with an inverse-depth test, and an integer line walker with its 2D clipper.

/// Viewing frustum: 24 doubles, six planes (a, b, c, d) in the camera frame in
/// the order left (xmin,ymin)-(xmin,ymax), bottom (xmin,ymax)-(xmax,ymax),
/// right (xmax,ymax)-(xmax,ymin), top (xmax,ymin)-(xmin,ymin), near, far.
/// X is inside a plane when a*X + b*Y + c*Z + d <= 0.
constexpr int ZOT_FRUSTUM_PLANES = 6;

/// Fills `planes` (24 doubles) for camera matrix K (skew included) and the
/// image rectangle xmin..xmax, ymin..ymax in pixels. The side planes pass
/// through the camera centre with unit normals; near is (0, 0, -1, zNear),
/// far (0, 0, 1, -zFar).
void computeViewingFrustum(double* planes, const double* K, double xmin, double ymin, double xmax,
                           double ymax, double zNear, double zFar);

/// Parametric clipping of the segment P0 = segment[0..2], P1 = segment[3..5]
/// against the six planes. Returns 1 and writes the remaining piece (6
/// doubles) into `clipped` when it is at least minLength long; returns 0 and
/// leaves `clipped` alone otherwise. A point with plane value 0 is inside.
int clipSegmentToViewingFrustum(const double* segment, double* clipped, const double* planes,
                                double minLength);

/// Clips the polygon (nVertices x 3 doubles, edge id k belonging to the edge
/// that starts at vertex k) against the six planes in place. Edges created on
/// a clipping plane get id -1. Both vertex arrays must hold nVertices + 6
/// vertices, both id arrays nVertices + 6 ints. nVertices becomes 0 when
/// nothing remains (or on the degenerate cases, which print a warning).
void poly_clip_to_view_frustum(int& nVertices, double* vertices, double* scratchVertices,
                               const double* planes, int* edgeIds, int* scratchIds);

/// Scan-converts a convex polygon (nVertices x (x, y) pixels, pixel centres at
/// integers) inside the inclusive clip rectangle {xmin, ymin, xmax, ymax},
/// which is further limited to the width x height image. A pixel whose mask
/// byte (if a mask is given) is 0 is skipped. Without a depth buffer `value`
/// goes into `image` (if any). With one the inverse depth
/// delta = -(ax*x + ay*y + a0) must lie in lower..upper and beat the stored
/// value; then it is stored, `id` goes into `ids` (if any) and `value` into
/// `image` (if any). Returns 0, or -1 for fewer than 3 vertices, a polygon
/// with more than 3 vertices that is not convex, or a non-finite vertex
/// (nothing is drawn then).
int fillConvexPoly_DepthTest(unsigned char* image, unsigned char value, double* depth, int* ids,
                             const unsigned char* mask, int width, int height, int nVertices,
                             const double* vertices, const int* clipRect, int id, double ax,
                             double ay, double a0, double upper, double lower);
/// fillConvexPoly_DepthTest with a 32-bit float depth buffer: delta is computed in double,
/// compared with the stored value and stored rounded to float. Half the
/// memory of a double buffer to clear and write; faces closer than float's
/// resolution (about 6e-8 of the inverse depth) may swap where they meet.
int fillConvexPolyFloatDepth(unsigned char* image, unsigned char value, float* depth, int* ids,
                             const unsigned char* mask, int width, int height, int nVertices,
                             const double* vertices, const int* clipRect, int id, double ax,
                             double ay, double a0, double upper, double lower);

/// Integer line walker over an image of bytesPerPixel-byte pixels.
struct myLineIterator {
  unsigned char* m_ptr;  ///< current pixel
  int m_err;             ///< error term
  int m_condDelta;       ///< added to m_err only while it is negative
  int m_fixedDelta;      ///< added to m_err at every step
  int m_condStep;        ///< added to m_ptr only while m_err is negative
  int m_fixedStep;       ///< added to m_ptr at every step
};

/// Moves the walker to the next pixel of its line.
inline void advanceLineIterator(myLineIterator& it) {
  const int mask = it.m_err < 0 ? -1 : 0;
  it.m_err += (it.m_condDelta & mask) + it.m_fixedDelta;
  it.m_ptr += (it.m_condStep & mask) + it.m_fixedStep;
}

/// Prepares a walk from `start` to `end` (x, y ints), both clipped into the
/// image first. connectivity 8 gives the 8-connected walk, anything else the
/// 4-connected one. With leftToRight set the walk always runs with growing x
/// (the ends are swapped when needed). Returns the number of pixels of the
/// walk, 0 when the line misses the image (the walker then points at the
/// image start, all other fields 0), -1 on an internal error.
int initLineIterator(unsigned char* image, int width, int height, int bytesPerPixel,
                     const int* start, const int* end, myLineIterator* it, int connectivity,
                     int leftToRight);

/// Clips the integer segment point1-point2 (x, y each, changed in place) to
/// 0..width-1 x 0..height-1. Returns 1 if a part lies inside, else 0 (also for
/// width or height below 1).
int clipLine2D(int width, int height, int* point1, int* point2);

}  // namespace ZOTtracker
