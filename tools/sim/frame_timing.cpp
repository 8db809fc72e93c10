// Parsing of the tracker's timing lines and order statistics.
#include "frame_timing.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zot_sim {

const char* const kUndistortionLabel = "Undistortion (2x)";
const char* const kEdgeDetectionLabel = "Edge detection (2x)";
const char* const kGaussNewtonLabel = "Total Gauss-Newton loop (pose estimation)";

bool parseFrameTiming(const char* text, size_t length, FrameTiming* timing) {
  static const char* const kSuffix = " - elapsed [ms]: ";
  const char* const labels[3] = {kUndistortionLabel, kEdgeDetectionLabel, kGaussNewtonLabel};
  double* const fields[3] = {&timing->undistortion, &timing->edges, &timing->gaussNewton};
  *timing = FrameTiming();
  size_t line = 0;
  while (line < length) {
    const char* start = text + line;
    const char* end = static_cast<const char*>(memchr(start, '\n', length - line));
    const size_t lineLength = end ? (size_t)(end - start) : length - line;
    for (int k = 0; k < 3; k++) {
      const size_t labelLength = strlen(labels[k]), suffixLength = strlen(kSuffix);
      if (lineLength > labelLength + suffixLength && memcmp(start, labels[k], labelLength) == 0 &&
          memcmp(start + labelLength, kSuffix, suffixLength) == 0) {
        char number[64];
        const size_t n = std::min(sizeof number - 1, lineLength - labelLength - suffixLength);
        memcpy(number, start + labelLength + suffixLength, n);
        number[n] = '\0';
        char* stop = nullptr;
        const double v = strtod(number, &stop);
        if (stop != number) *fields[k] = v;
      }
    }
    line += lineLength + 1;
  }
  return timing->undistortion >= 0.0 && timing->edges >= 0.0 && timing->gaussNewton >= 0.0;
}

double quantile(std::vector<double>& values, double q) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  const double position = std::min(1.0, std::max(0.0, q)) * (values.size() - 1);
  const size_t below = (size_t)position;
  const size_t above = std::min(values.size() - 1, below + 1);
  return values[below] + (position - below) * (values[above] - values[below]);
}

}  // namespace zot_sim
