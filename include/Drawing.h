/// @file
/// Raster drawing into caller-owned images, grey (1 byte per pixel) or colour
/// (3 bytes per pixel in memory order blue, green, red). Colours are given as
/// (red, green, blue) triples. Points are (x, y) = (column, row). Everything is
/// clipped to the image; nothing allocates or reports.
#pragma once

namespace ZOTtracker {

/// 8-connected line from p1 to p2 (p1 first), clipped to the image. A grey
/// image gets colour[0]; a colour pixel gets (colour[2], colour[1], colour[0]).
void drawLine(unsigned char* image, int width, int height, bool isColour, const int* p1,
              const int* p2, const unsigned char* colour);

/// Outline of the axis-parallel rectangle with opposite corners p1 and p2.
void drawRect(unsigned char* image, int width, int height, bool isColour, const int* p1,
              const int* p2, const unsigned char* colour);

/// Midpoint circle of `radius` around centre, outline or filled, clipped
/// (radius 0 is the centre pixel, a negative radius draws nothing). First
/// swaps colour[0] and colour[2] in the caller's array and leaves them swapped,
/// then copies the array bytes in order: a colour pixel gets the same bytes as
/// from drawLine on the first call and the reverse on the next call with the
/// same array, and a grey image gets the caller's colour[2], not colour[0].
void drawCircle(unsigned char* image, int width, int height, bool isColour, const int* centre,
                int radius, unsigned char* colour, bool fill);

/// Writes the pixelSize colour bytes into every pixel x1..x2 (inclusive) of a row.
void ICV_HLINE(unsigned char* row, int x1, int x2, const unsigned char* colour, int pixelSize);
/// Copies the pixelSize colour bytes into pixel x of a row.
void ICV_PUT_POINT(unsigned char* row, int x, const unsigned char* colour, int pixelSize);

/// Projects the origin and the axis ends (length along x, y, z) of frame T
/// with K; draws a white disc of radius 2 at the origin and the x, y, z axes
/// in red, green, blue, in that order. Axis ends at depth zero are skipped, and
/// so are all axes when the origin itself is at depth zero.
void drawCartesianFrame(const double* K, const double* T, double length, unsigned char* image,
                        int width, int height, bool isColour);

/// One Gauss-Newton iteration on a colour image: optional red normals of
/// +/- normalLength around each sample, green discs (radius 2) at the samples,
/// then, optionally, blue discs at the matches whose weight is non-zero.
/// samples, normals, matches hold (u, v) per point, weights one value.
void drawMatchingPoints(int n, const double* samples, const double* normals, const double* matches,
                        const double* weights, unsigned char* image, int width, int height,
                        bool drawNormals, bool drawMatches, double normalLength);

/// Rounds half away from zero to int; NaN and values beyond +/-1e9 become
/// -1e9 or 1e9, far outside any image, so that they are clipped, not wrapped.
int roundToPixel(double value);

}  // namespace ZOTtracker
