/// @file
/// Pool sizes computed from a configuration, so that a host never has to
/// guess the seven numbers doBigMalloc() takes.
///
/// computePoolSizes() decodes a setup array with the set-up's own reader
/// (SetupArray.h) and adds up every request the set-up makes: camera
/// matrices, undistortion maps and tables, image buffers, the contour
/// tracker's sample and Canny/Sobel buffers, the model's depth, mask and
/// edge buffers, each polyhedron's topology (the corner sort of
/// Polyhedron::init included) and each polyline. With margin 0 the sizes are
/// exact: a tracker set up from the array in freshly reserved pools of these
/// sizes uses every element, and per frame it takes nothing more.
#pragma once

#include <cstddef>

namespace ZOTtracker {

/// Number of typed pools; size arrays hold them in the argument order of
/// doBigMalloc(): Uchar, UcharPtr, Double, Float, Int, IntPtr, Short.
constexpr int ZOT_N_POOLS = 7;

/// Pool names in the same order, as the pools' own messages spell them.
extern const char* const ZOT_POOL_NAMES[ZOT_N_POOLS];

/// Margin a host normally adds: 5 % on top of the exact counts. It leaves
/// room for the host's own small pool requests and for the buffers of a
/// slightly different configuration; it is not needed by the tracker itself.
constexpr double ZOT_POOL_MARGIN = 0.05;

/// Computes the element counts of the seven pools that one tracker set up
/// from `array` (`count` values) takes.
///
/// margin: 0 gives the exact counts (0 for a pool the set-up never touches,
/// such as Float); margin > 0 gives ceil(exact x (1 + margin)), and at least
/// one element per pool, so that even an empty request finds a reserved
/// pool. Negative or non-finite margins count as 0.
///
/// Returns 0 and writes sizes[0..6], or -1 after the reader's "ERROR: ..."
/// line on standard output, with sizes untouched, when the array cannot be
/// set up because of its layout: it ends early or holds more, or a count,
/// size, index or type is one the set-up refuses. The topology checks of
/// Polyhedron::init and the Kalman parameters are not repeated: such an
/// array still gets sizes, and the set-up then fails on it with its own
/// message.
int computePoolSizes(int count, const double* array, double margin, size_t sizes[ZOT_N_POOLS]);

/// doBigMalloc() with the seven sizes of an array filled by computePoolSizes().
void reservePools(const size_t sizes[ZOT_N_POOLS]);

}  // namespace ZOTtracker
