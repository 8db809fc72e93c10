/// @file
/// Order statistics of per-frame times over a run (the tracker's own stage
/// times come from GenericObjectTracker::lastFrameTimes()).
#pragma once

#include <vector>

namespace zot_sim {

/// The q-quantile (0..1) of the values by linear interpolation between
/// order statistics; 0 for no values. `values` is sorted in place.
double quantile(std::vector<double>& values, double q);

}  // namespace zot_sim
