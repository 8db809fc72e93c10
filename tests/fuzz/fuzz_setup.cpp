// Fuzz harness: a setup array as a host may compile it in, then a few frames
// with the poses and times a host may pass. The input is text: the array's
// numbers, a line "%%%", then one frame per line:
//   image time initialise [tool pose 16] [initial pose 16] [velocity 6]
//   [initial time] [degree-of-freedom mask 6] [flags]
// image: 0 black, 1 white, 2 noise, 3 a bright square in the middle. flags:
// 1 timing, 2 verbose, 4 reuse the edge maps, 8 draw the result at the
// initial pose afterwards. Missing values take defaults: identity tool pose,
// the object 400 in front of the tool, no velocity, initial time 0, all
// degrees of freedom, no flags. Numbers may be nan or inf. The array is
// also exported as a header, valid or not.
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>

#include "FileParser.h"
#include "GenericObjectTracker.h"
#include "Math.h"
#include "fuzz_support.h"

namespace {

constexpr size_t kMaxFrames = 6;
constexpr long kMaxPixels = 2 * 640 * 480;

void fillImage(std::vector<unsigned char>& image, int width, int height, int kind, unsigned seed) {
  for (int y = 0; y < height; y++) {
    for (int x = 0; x < width; x++) {
      unsigned char v = 0;
      if (kind == 1) v = 255;
      if (kind == 2) {
        seed = seed * 1103515245u + 12345u;
        v = (unsigned char)(seed >> 24);
      }
      if (kind == 3 && 4 * x > width && 4 * x < 3 * width && 4 * y > height && 4 * y < 3 * height)
        v = 220;
      image[(size_t)y * width + x] = v;
    }
  }
}

// Values [from, from + n) of a frame line, or the defaults.
void take(const std::vector<double>& line, size_t from, size_t n, double* out) {
  for (size_t i = 0; i < n && from + i < line.size(); i++) out[i] = line[from + i];
}

// What a host may do between frames with a pose of its own: draw the
// overlay, and sample the model of camera 0 with every optional output.
void overlayAndSample(ZOTtracker::GenericObjectTracker& tracker, const double* pose,
                      const double* framePose, size_t pixels) {
  std::vector<unsigned char> colour(3 * pixels), faces(pixels), samples(pixels);
  std::vector<double> normals(2 * pixels);
  std::vector<int> ids(pixels);
  tracker.drawResult(pose, colour.data(), 0, true, 50.0, framePose);
  double T[16];
  ZOTtracker::matrixProduct444(tracker.m_toolToCamera[0], pose, T);
  const ZOTtracker::GenericObjectTracker::TrackingParameters& p = tracker.m_trackingParams;
  tracker.m_multibody.sampleContour_Zbuffer(
      0, T, tracker.m_K[0], tracker.m_imageWidth[0], tracker.m_imageHeight[0], tracker.m_zNear[0],
      tracker.m_zFar[0], p.m_facingTolerance, p.m_minEdgeLength, p.m_samplingStep, faces.data(),
      samples.data(), normals.data(), ids.data(), true, false, false, false);
}

void runFrames(ZOTtracker::GenericObjectTracker& tracker, const std::vector<std::string>& lines) {
  long pixels = 0;
  for (int c = 0; c < tracker.m_nCameras; c++)
    pixels += (long)tracker.m_imageWidth[c] * tracker.m_imageHeight[c];
  if (pixels > kMaxPixels) return;
  std::vector<std::vector<unsigned char>> images(tracker.m_nCameras);
  const unsigned char* ptrs[ZOTtracker::ZOT_MAX_CAMERAS] = {};
  for (int c = 0; c < tracker.m_nCameras; c++) {
    images[c].resize((size_t)tracker.m_imageWidth[c] * tracker.m_imageHeight[c]);
    ptrs[c] = images[c].data();
  }
  for (size_t f = 0; f < lines.size() && f < kMaxFrames; f++) {
    const std::vector<double> line = zot_fuzz::numbersOf(lines[f], 64);
    if (line.size() < 3) continue;
    const int kind = std::isfinite(line[0]) ? (int)std::fmod(std::fabs(line[0]), 4.0) : 0;
    for (int c = 0; c < tracker.m_nCameras; c++)
      fillImage(images[c], tracker.m_imageWidth[c], tracker.m_imageHeight[c], kind, (unsigned)f);
    double tool[16], start[16], velocity[6] = {0, 0, 0, 0, 0, 0}, startTime = 0.0;
    ZOTtracker::matrixIdentity(tool, 4);
    ZOTtracker::matrixIdentity(start, 4);
    start[11] = 400.0;
    take(line, 3, 16, tool);
    take(line, 19, 16, start);
    take(line, 35, 6, velocity);
    take(line, 41, 1, &startTime);
    double mask[6] = {1, 1, 1, 1, 1, 1}, flagValue = 0.0;
    take(line, 42, 6, mask);
    take(line, 48, 1, &flagValue);
    const int flags = std::isfinite(flagValue) ? (int)std::fmod(std::fabs(flagValue), 16.0) : 0;
    tracker.m_doEdgeDetection = (flags & 4) == 0;
    double pose[16], outVelocity[6], covariance[36];
    tracker.poseEstimation(ptrs, line[1], tool, start, velocity, startTime, pose, outVelocity,
                           covariance, mask, line[2] != 0.0, flags & 1, false, flags & 2);
    if (flags & 8) overlayAndSample(tracker, start, tool, images[0].size());
  }
}

// The header export takes whatever array a host holds, valid or not: it
// must write the count it was given, whatever the values.
void exportHeader(const std::vector<double>& array) {
  const std::string& dir = zot_fuzz::scratchDirectory();
  ZOTtracker::FileParser().createGlobalArrayHeaderFile(dir.c_str(), (int)array.size(),
                                                       array.data());
  FILE* f = fopen((dir + "/global_array_declaration.h").c_str(), "r");
  if (f == nullptr) abort();
  int written = -1;
  if (fscanf(f, "const int setup_global_array_counter = %d;", &written) != 1 ||
      written != (int)array.size())
    abort();
  fclose(f);
}

}  // namespace

extern "C" int ZOT_FUZZ_ENTRY(const uint8_t* data, size_t size) {
  if (size > 200000) return 0;
  const std::vector<std::string> parts = zot_fuzz::partsOf(data, size);
  const std::vector<double> array = zot_fuzz::numbersOf(parts[0], 50000);
  if (!array.empty()) exportHeader(array);
  if (!zot_fuzz::reservePoolsFor(array)) return 0;
  {
    auto tracker = std::make_unique<ZOTtracker::GenericObjectTracker>();
    if (tracker->setupFromGlobalArray((int)array.size(), array.data()) == 0 && parts.size() > 1) {
      std::vector<std::string> lines;
      size_t from = 0;
      const std::string& frames = parts[1];
      while (from < frames.size()) {
        size_t end = frames.find('\n', from);
        if (end == std::string::npos) end = frames.size();
        lines.push_back(frames.substr(from, end - from));
        from = end + 1;
      }
      runFrames(*tracker, lines);
    }
  }
  zot_fuzz::releasePools();
  return 0;
}
