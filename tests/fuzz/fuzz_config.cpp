// Fuzz harness: the five configuration files as a host's user may write
// them. The input holds the camera, tracker, model, polyhedron and polyline
// files, separated by lines "%%%"; the model file names the body files
// p.txt and l.txt. They are parsed into a bounded setup array, which is
// exported as a header, and a tracker is set up from it in pools of exactly
// the computed sizes.
#include <memory>

#include "FileParser.h"
#include "GenericObjectTracker.h"
#include "fuzz_support.h"

extern "C" int ZOT_FUZZ_ENTRY(const uint8_t* data, size_t size) {
  if (size > 20000) return 0;
  const std::vector<std::string> parts = zot_fuzz::partsOf(data, size);
  const char* names[5] = {"c.txt", "t.txt", "m.txt", "p.txt", "l.txt"};
  const std::string& dir = zot_fuzz::scratchDirectory();
  for (int i = 0; i < 5; i++) {
    const std::string text = i < (int)parts.size() ? parts[i] : std::string();
    zot_fuzz::writeFile(dir + "/" + names[i], text.data(), text.size());
  }

  std::vector<double> array(20000);
  int count = 0;
  ZOTtracker::FileParser parser;
  const int code = parser.parseAllFiles(dir.c_str(), names[0], names[1], names[2], count,
                                        array.data(), (int)array.size());
  if (code != 0 || count < 0 || count > (int)array.size()) return 0;
  parser.createGlobalArrayHeaderFile(dir.c_str(), count, array.data());
  array.resize((size_t)count);
  if (!zot_fuzz::reservePoolsFor(array)) return 0;
  {
    auto tracker = std::make_unique<ZOTtracker::GenericObjectTracker>();
    tracker->setupFromGlobalArray(count, array.data());
  }
  zot_fuzz::releasePools();
  return 0;
}
