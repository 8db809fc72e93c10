/// @file
/// Per-frame timing as the tracker reports it: the "<label> - elapsed [ms]:
/// <value>" lines that poseEstimation appends to the diagnostic string when
/// its timing flag is set, split into undistortion, edge detection and the
/// Gauss-Newton loop, and order statistics over many frames.
#pragma once

#include <cstddef>
#include <vector>

namespace zot_sim {

/// The three stages of one frame, in milliseconds (negative: not reported).
struct FrameTiming {
  double undistortion = -1.0;
  double edges = -1.0;
  double gaussNewton = -1.0;
};

/// Labels of the stage lines, as the tracker writes them.
extern const char* const kUndistortionLabel;
extern const char* const kEdgeDetectionLabel;
extern const char* const kGaussNewtonLabel;

/// Reads the stage lines from the first `length` bytes of `text` (the
/// diagnostic string holds no terminator of its own). The last line of each
/// label counts. Returns true when all three were found.
bool parseFrameTiming(const char* text, size_t length, FrameTiming* timing);

/// The q-quantile (0..1) of the values by linear interpolation between
/// order statistics; 0 for no values. `values` is sorted in place.
double quantile(std::vector<double>& values, double q);

}  // namespace zot_sim
