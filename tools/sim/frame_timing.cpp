// Order statistics of per-frame times.
#include "frame_timing.h"

#include <algorithm>

namespace zot_sim {

double quantile(std::vector<double>& values, double q) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  const double position = std::min(1.0, std::max(0.0, q)) * (values.size() - 1);
  const size_t below = (size_t)position;
  const size_t above = std::min(values.size() - 1, below + 1);
  return values[below] + (position - below) * (values[above] - values[below]);
}

}  // namespace zot_sim
