// Fuzz harness: zot_track's readers of a user's sequence files. The input's
// first byte chooses the reader (even: a pose file of 16, 12 or 6 numbers a
// line; odd: a time-stamp file of one number a line), the rest is the file.
// A file that reads must give finite poses with the last row 0 0 0 1, and
// the same values when read again.
#include <cmath>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "scene_config.h"

extern "C" int ZOT_FUZZ_ENTRY(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string path = zot_fuzz::scratchDirectory() + "/sequence.txt";
  zot_fuzz::writeFile(path, data + 1, size - 1);
  std::string error;
  if (data[0] % 2 == 0) {
    std::vector<zot_sim::Pose> poses, again;
    if (!zot_sim::readPoseFile(path, poses, error)) return 0;
    for (const zot_sim::Pose& p : poses) {
      for (double v : p)
        if (!std::isfinite(v)) abort();
      if (p[12] != 0.0 || p[13] != 0.0 || p[14] != 0.0 || p[15] != 1.0) abort();
    }
    if (!zot_sim::readPoseFile(path, again, error) || again != poses) abort();
  } else {
    std::vector<double> times;
    zot_sim::readNumberFile(path, times, error);
  }
  return 0;
}
