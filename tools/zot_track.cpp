// zot_track: tracks a recorded sequence with the library's public API, the
// way a robot's vision process would: configuration files (or a setup-array
// header), per-camera image sequences or videos, time stamps, tool poses and
// an initial object pose in; a CSV of poses, optional overlays and a summary
// with failures and per-stage timing out.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>
#include <string>
#include <vector>

#include "FileParser.h"
#include "GenericObjectTracker.h"
#include "IO.h"
#include "Imgproc.h"
#include "Math.h"
#include "frame_timing.h"
#include "memory_handling.h"
#include "scene_config.h"

// A host that must not read configuration files at run time compiles its
// setup array in: build with -DZOT_TRACK_SETUP_HEADER=/path/global_array_declaration.h
// (written by zot_export_header) and run with --compiled-config.
#ifdef ZOT_TRACK_SETUP_HEADER
#define ZOT_TRACK_STRINGIFY2(x) #x
#define ZOT_TRACK_STRINGIFY(x) ZOT_TRACK_STRINGIFY2(x)
#include ZOT_TRACK_STRINGIFY(ZOT_TRACK_SETUP_HEADER)
#endif

namespace {

using zot_sim::Pose;
using ZOTtracker::GenericObjectTracker;

const char* const kUsage =
    "usage: zot_track [options]\n"
    "\n"
    "Tracks a recorded sequence with the ZOT tracker library and writes the object\n"
    "poses, optional overlays and a summary.\n"
    "\n"
    "configuration (one of):\n"
    "  --config DIR          directory with the camera, tracker and model files\n"
    "    --camera FILE       camera file in DIR (default: camera.txt)\n"
    "    --tracker FILE      tracker file in DIR (default: tracker.txt)\n"
    "    --model FILE        model file in DIR (default: model.txt)\n"
    "  --setup-header FILE   a global_array_declaration.h written by zot_export_header\n"
    "  --compiled-config     the setup array compiled into this program (build with\n"
    "                        -DZOT_TRACK_SETUP_HEADER=/path/global_array_declaration.h)\n"
    "\n"
    "sequence:\n"
    "  --images SOURCE       one per camera, in camera order. SOURCE is a file\n"
    "                        pattern with a printf conversion for the frame index\n"
    "                        (cam0/%06d.png; PNG, PGM, JPEG, ...), a directory (its\n"
    "                        image files in name order) or a video file. Colour\n"
    "                        frames are converted to grey.\n"
    "  --first-index N       index of the first frame of a pattern (default: 0, or 1\n"
    "                        when there is no file for 0)\n"
    "  --times FILE          time stamp of every frame, one per line (default: frame\n"
    "                        index / fps)\n"
    "  --fps F               frame rate without --times (default: 30)\n"
    "  --tool-poses FILE     tool pose in the world frame, one per line (default: the\n"
    "                        identity, for a fixed camera)\n"
    "  --initial-pose POSE   object pose in the tool frame at the first frame: a file\n"
    "                        (its first pose) or the numbers themselves (required)\n"
    "  --initial-velocity V  6 numbers: rotation [deg/time unit], then translation\n"
    "                        (default: 0)\n"
    "  --dof MASK            6 numbers, 0 freezes a parameter of the pose update\n"
    "                        (rotation x y z, translation x y z; default: all free)\n"
    "  --frames N            track at most N frames\n"
    "  --truth FILE          true object poses in the tool frame, one per frame:\n"
    "                        per-frame errors in the CSV and the summary\n"
    "\n"
    "output:\n"
    "  --out DIR             output directory (default: out): poses.csv and summary.txt\n"
    "  --pose-format F       matrix (16 values, row-major) or rvec (translation and\n"
    "                        rotation vector in degrees) in the CSV (default: matrix)\n"
    "  --overlays            DIR/overlays/camN_IIIIII.png: the undistorted image with\n"
    "                        the model contour (red) and the object's axes\n"
    "  --overlay-video FILE  the overlays of all cameras side by side as a Motion-JPEG\n"
    "                        video (.avi)\n"
    "  --per-frame           one line per frame: status, error against the truth, time\n"
    "  --max-mean-error T R  fail (exit status 4) when the mean translation error\n"
    "                        exceeds T (model units, or percent of the object's size\n"
    "                        with a % sign, e.g. 1%) or the mean rotation error R deg\n"
    "  --show-memory         print the memory pools' use after the set-up\n"
    "  --verbose             the library's own messages on how each frame's\n"
    "                        Gauss-Newton loop ends\n"
    "  -q, --quiet           no progress line and no summary on standard output\n"
    "  -h, --help            this text\n"
    "\n"
    "Pose files hold one pose per line: 16 numbers (4x4, row by row), 12 (its first\n"
    "three rows) or 6 (translation, then rotation vector in degrees); blank lines and\n"
    "lines starting with # are skipped. Poses follow X' = R X + t.\n"
    "\n"
    "The sequence has --frames frames, else as many as time stamps, else as many as\n"
    "tool poses, else it ends with the first camera's images. Every list given must\n"
    "have that many entries. A frame whose tracking fails is reported with its code\n"
    "and tracking goes on from the prediction. Bad input stops the run; everything\n"
    "tracked up to that point is written.\n"
    "\n"
    "Exit status: 0 every frame tracked; 1 bad input (missing or unreadable files,\n"
    "mismatched sizes or counts, a video that ends early); 2 bad arguments; 3 at least\n"
    "one frame failed; 4 the accuracy limits of --max-mean-error were exceeded.\n";

constexpr int kExitBadInput = 1, kExitUsage = 2, kExitTrackingFailed = 3, kExitAccuracy = 4;

struct Options {
  std::string configDir, cameraFile = "camera.txt", trackerFile = "tracker.txt",
                         modelFile = "model.txt", setupHeader;
  bool compiledConfig = false;
  std::vector<std::string> images;
  int firstIndex = -1;  // -1: 0, or 1 when frame 0 does not exist
  std::string timesFile, toolPosesFile, initialPose, truthFile;
  double fps = 30.0;
  double initialVelocity[6] = {0, 0, 0, 0, 0, 0};
  double dof[6] = {1, 1, 1, 1, 1, 1};
  int frames = -1;
  std::string outDir = "out", poseFormat = "matrix", overlayVideo;
  bool overlays = false, perFrame = false, showMemory = false, quiet = false, verbose = false;
  double maxTranslError = -1.0, maxRotError = -1.0;
  bool maxTranslPercent = false;
};

[[noreturn]] void usageError(const std::string& message) {
  fprintf(stderr, "zot_track: %s\n(zot_track --help lists the options)\n", message.c_str());
  exit(kExitUsage);
}

[[noreturn]] void fail(const std::string& message) {
  fflush(stdout);
  fprintf(stderr, "zot_track: %s\n", message.c_str());
  exit(kExitBadInput);
}

double numberArg(const std::string& option, const std::string& text) {
  char* end = nullptr;
  const double v = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(v))
    usageError(option + " needs a number, got \"" + text + "\"");
  return v;
}

// Six numbers from one argument or from the six arguments that follow.
void sixNumbers(const std::string& option, int argc, char** argv, int& i, double* out) {
  std::vector<std::string> tokens;
  if (i + 1 < argc) {
    std::string text = argv[i + 1];
    for (char& c : text) {
      if (c == ',') c = ' ';
    }
    size_t pos = 0;
    while ((pos = text.find_first_not_of(' ', pos)) != std::string::npos) {
      const size_t end = text.find(' ', pos);
      tokens.push_back(text.substr(pos, end - pos));
      pos = end;
    }
  }
  int used = 1;
  if (tokens.size() == 1) {  // six separate arguments
    tokens.clear();
    for (int k = 1; k <= 6 && i + k < argc; k++) tokens.push_back(argv[i + k]);
    used = 6;
  }
  if (tokens.size() != 6) usageError(option + " needs 6 numbers");
  for (int k = 0; k < 6; k++) out[k] = numberArg(option, tokens[k]);
  i += used;
}

Options parseArguments(int argc, char** argv) {
  Options o;
  if (argc < 2) usageError("nothing to do");
  for (int i = 1; i < argc; i++) {
    const std::string a = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) usageError(a + " needs a value");
      return argv[++i];
    };
    if (a == "-h" || a == "--help") {
      fputs(kUsage, stdout);
      exit(0);
    } else if (a == "--config") {
      o.configDir = value();
    } else if (a == "--camera") {
      o.cameraFile = value();
    } else if (a == "--tracker") {
      o.trackerFile = value();
    } else if (a == "--model") {
      o.modelFile = value();
    } else if (a == "--setup-header") {
      o.setupHeader = value();
    } else if (a == "--compiled-config") {
      o.compiledConfig = true;
    } else if (a == "--images") {
      o.images.push_back(value());
    } else if (a == "--first-index") {
      const double v = numberArg(a, value());
      if (v < 0 || v != std::floor(v) || v > 1e9) usageError("--first-index needs an index >= 0");
      o.firstIndex = (int)v;
    } else if (a == "--times") {
      o.timesFile = value();
    } else if (a == "--fps") {
      o.fps = numberArg(a, value());
      if (!(o.fps > 0.0)) usageError("--fps needs a positive frame rate");
    } else if (a == "--tool-poses") {
      o.toolPosesFile = value();
    } else if (a == "--initial-pose") {
      o.initialPose = value();
    } else if (a == "--initial-velocity") {
      sixNumbers(a, argc, argv, i, o.initialVelocity);
    } else if (a == "--dof") {
      sixNumbers(a, argc, argv, i, o.dof);
    } else if (a == "--frames") {
      const double v = numberArg(a, value());
      if (v < 1 || v != std::floor(v) || v > 1e9) usageError("--frames needs a count >= 1");
      o.frames = (int)v;
    } else if (a == "--truth") {
      o.truthFile = value();
    } else if (a == "--out") {
      o.outDir = value();
    } else if (a == "--pose-format") {
      o.poseFormat = value();
      if (o.poseFormat != "matrix" && o.poseFormat != "rvec")
        usageError("--pose-format takes matrix or rvec");
    } else if (a == "--overlays") {
      o.overlays = true;
    } else if (a == "--overlay-video") {
      o.overlayVideo = value();
    } else if (a == "--per-frame") {
      o.perFrame = true;
    } else if (a == "--max-mean-error") {
      std::string t = value();
      const std::string r = value();
      if (!t.empty() && t.back() == '%') {
        o.maxTranslPercent = true;
        t.pop_back();
      }
      o.maxTranslError = numberArg(a, t);
      o.maxRotError = numberArg(a, r);
      if (o.maxTranslError < 0 || o.maxRotError < 0)
        usageError("--max-mean-error needs limits >= 0");
    } else if (a == "--verbose") {
      o.verbose = true;
    } else if (a == "--show-memory") {
      o.showMemory = true;
    } else if (a == "-q" || a == "--quiet") {
      o.quiet = true;
    } else {
      usageError((a.size() > 1 && a[0] == '-' ? "unknown option " : "unexpected argument ") + a);
    }
  }
  const int sources = !o.configDir.empty() + !o.setupHeader.empty() + o.compiledConfig;
  if (sources == 0)
    usageError("no configuration: give --config, --setup-header or --compiled-config");
  if (sources > 1) usageError("give only one of --config, --setup-header and --compiled-config");
  if (o.images.empty()) usageError("no images: give --images once per camera");
  if (o.initialPose.empty()) usageError("no initial pose: give --initial-pose");
  if (!o.truthFile.empty() || o.maxTranslError < 0) return o;
  usageError("--max-mean-error needs --truth");
}

// ---------------------------------------------------------------- standard output
// The library reports on standard output with C stdio; these helpers point
// file descriptor 1 elsewhere for the length of a call.
class StdoutRedirect {
 public:
  explicit StdoutRedirect(int fd) {
    fflush(stdout);
    m_saved = dup(1);
    dup2(fd, 1);
  }
  ~StdoutRedirect() {
    fflush(stdout);
    dup2(m_saved, 1);
    close(m_saved);
  }

 private:
  int m_saved;
};

// printError is the one source of the failure messages: capture each once.
std::map<int, std::string> captureErrorMessages() {
  std::map<int, std::string> messages;
  FILE* tmp = tmpfile();
  if (tmp == nullptr) return messages;
  {
    StdoutRedirect redirect(fileno(tmp));
    for (int code = -1; code >= -16; code--) ZOTtracker::printError(code);
  }
  rewind(tmp);
  char line[256];
  for (int code = -1; code >= -16 && fgets(line, sizeof line, tmp) != nullptr; code--) {
    line[strcspn(line, "\r\n")] = '\0';
    messages[code] = line;
  }
  fclose(tmp);
  return messages;
}

// ---------------------------------------------------------------- image sources
bool isImageFile(const std::string& name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos) return false;
  std::string ext = name.substr(dot + 1);
  for (char& c : ext) c = (char)tolower((unsigned char)c);
  for (const char* e : {"png", "pgm", "ppm", "pnm", "jpg", "jpeg", "bmp", "tif", "tiff"}) {
    if (ext == e) return true;
  }
  return false;
}

// One camera's frames: a printf pattern, a directory or a video.
class FrameSource {
 public:
  // Opens the source; false with a reason.
  bool open(const std::string& plan, int firstIndex, std::string& error) {
    m_plan = plan;
    if (plan.find('%') != std::string::npos) {
      m_kind = Pattern;
      if (nameOf(0) == nameOf(1)) {
        error = "the pattern " + plan + " has no conversion for the frame index (e.g. %06d)";
        return false;
      }
      // Sequences start at 0 or 1; with neither, the message names frame 0.
      m_first = firstIndex >= 0                                                     ? firstIndex
                : zot_sim::pathExists(nameOf(0)) || !zot_sim::pathExists(nameOf(1)) ? 0
                                                                                    : 1;
      return true;
    }
    if (DIR* dir = opendir(plan.c_str())) {
      m_kind = Directory;
      while (const dirent* entry = readdir(dir)) {
        if (isImageFile(entry->d_name)) m_files.push_back(plan + "/" + entry->d_name);
      }
      closedir(dir);
      std::sort(m_files.begin(), m_files.end());
      if (m_files.empty()) {
        error = "no image files in the directory " + plan;
        return false;
      }
      return true;
    }
    if (!zot_sim::pathExists(plan)) {
      error = "no such file or directory: " + plan;
      return false;
    }
    m_kind = Video;
    if (!m_video.open(plan)) {
      error = "cannot open the video " + plan;
      return false;
    }
    return true;
  }

  // Frame i (called with i = 0, 1, 2, ...). Returns 1 with the image, 0
  // when the source has no frame i (its end), -1 with a reason when the
  // frame exists but cannot be read.
  int read(int i, cv::Mat& image, std::string& error) {
    std::string name;
    if (m_kind == Video) {
      if (!m_video.read(image) || image.empty()) return 0;
      name = m_plan + " frame " + std::to_string(i);
    } else {
      name = m_kind == Pattern ? nameOf(m_first + i) : (i < (int)m_files.size() ? m_files[i] : "");
      if (name.empty() || !zot_sim::pathExists(name)) return 0;
      image = cv::imread(name, cv::IMREAD_ANYCOLOR);
      if (image.empty()) {
        error = "cannot read the image " + name;
        return -1;
      }
    }
    m_lastName = name;
    if (image.depth() != CV_8U) {
      error = name + ": only 8-bit images are supported";
      return -1;
    }
    return 1;
  }
  const std::string& lastName() const { return m_lastName; }
  // What the source is called in messages, and where frame i was expected.
  std::string describe(int i) const {
    if (m_kind == Pattern) return nameOf(m_first + i);
    if (m_kind == Directory) return m_plan + " (image " + std::to_string(i + 1) + ")";
    return m_plan + " (frame " + std::to_string(i) + ")";
  }
  bool isVideo() const { return m_kind == Video; }

 private:
  std::string nameOf(int index) const {
    char buffer[4096];
    snprintf(buffer, sizeof buffer, m_plan.c_str(), index);
    return buffer;
  }
  enum Kind { Pattern, Directory, Video } m_kind = Pattern;
  std::string m_plan, m_lastName;
  int m_first = 0;
  std::vector<std::string> m_files;
  cv::VideoCapture m_video;
};

// Grey copy of an 8-bit image: grey as is, colour through the library's
// conversion (an alpha channel is dropped first).
void toGrey(const cv::Mat& image, unsigned char* grey, std::vector<unsigned char>& colourScratch) {
  const int w = image.cols, h = image.rows;
  if (image.channels() == 1) {
    for (int y = 0; y < h; y++) memcpy(grey + (size_t)y * w, image.ptr<unsigned char>(y), w);
    return;
  }
  colourScratch.resize((size_t)w * h * 3);
  for (int y = 0; y < h; y++) {
    const unsigned char* src = image.ptr<unsigned char>(y);
    unsigned char* dst = &colourScratch[(size_t)y * w * 3];
    if (image.channels() == 3) {
      memcpy(dst, src, (size_t)w * 3);
    } else {
      for (int x = 0; x < w; x++) memcpy(dst + 3 * x, src + image.channels() * x, 3);
    }
  }
  ZOTtracker::convertColorToGray(colourScratch.data(), grey, w, h);
}

// ---------------------------------------------------------------- results
struct FrameResult {
  int frame = 0;
  double time = 0.0;
  int status = 0;
  std::string message;  // "OK" or the failure's message
  double totalMs = 0.0;
  zot_sim::FrameTiming timing;
  bool hasError = false;
  double translError = 0.0, rotError = 0.0;
};

// The summary: counts, failures by code, timing quantiles, accuracy.
std::string summaryText(const std::vector<FrameResult>& results, int expected,
                        const std::map<int, std::string>& messages, double objectSize,
                        bool haveTruth) {
  std::string s;
  char line[512];
  int ok = 0;
  std::map<int, std::vector<int>> failures;
  for (const FrameResult& r : results) {
    if (r.status == 0)
      ok++;
    else
      failures[r.status].push_back(r.frame);
  }
  snprintf(line, sizeof line, "frames: %d of %d processed, %d tracked, %d failed\n",
           (int)results.size(), expected, ok, (int)results.size() - ok);
  s += line;
  if (failures.empty())
    s += "failures by code: none\n";
  else
    s += "failures by code:\n";
  for (auto it = failures.rbegin(); it != failures.rend(); ++it) {
    const auto m = messages.find(it->first);
    std::string frames;
    for (size_t k = 0; k < it->second.size() && k < 12; k++)
      frames += (k ? ", " : "") + std::to_string(it->second[k]);
    if (it->second.size() > 12) frames += ", ...";
    snprintf(line, sizeof line, "  %4d %-45s %5d  (frames %s)\n", it->first,
             m != messages.end() ? m->second.c_str() : "?", (int)it->second.size(), frames.c_str());
    s += line;
  }
  std::vector<double> stages[4];
  for (const FrameResult& r : results) {
    stages[0].push_back(r.timing.undistortion);
    stages[1].push_back(r.timing.edges);
    stages[2].push_back(r.timing.gaussNewton);
    stages[3].push_back(r.totalMs);
  }
  if (!results.empty()) {
    s += "per-frame time [ms]        median      p95      max\n";
    const char* const names[4] = {"undistortion", "edge detection", "Gauss-Newton", "whole frame"};
    for (int k = 0; k < 4; k++) {
      std::vector<double> v;
      for (double x : stages[k]) {
        if (x >= 0.0) v.push_back(x);
      }
      if (v.empty()) continue;
      snprintf(line, sizeof line, "  %-22s %8.3f %8.3f %8.3f\n", names[k],
               zot_sim::quantile(v, 0.5), zot_sim::quantile(v, 0.95), zot_sim::quantile(v, 1.0));
      s += line;
    }
  }
  if (haveTruth) {
    double sumT = 0, sumR = 0, maxT = 0, maxR = 0;
    int n = 0;
    for (const FrameResult& r : results) {
      if (!r.hasError) continue;
      sumT += r.translError;
      sumR += r.rotError;
      maxT = std::max(maxT, r.translError);
      maxR = std::max(maxR, r.rotError);
      n++;
    }
    if (n > 0) {
      snprintf(line, sizeof line,
               "error against the truth over %d tracked frames:\n"
               "  translation: mean %.3f, max %.3f (mean %.2f %% of the object's size %g)\n"
               "  rotation [deg]: mean %.3f, max %.3f\n",
               n, sumT / n, maxT, objectSize > 0 ? 100.0 * sumT / n / objectSize : 0.0, objectSize,
               sumR / n, maxR);
      s += line;
    }
  }
  return s;
}

// Translation, then the rotation vector in degrees.
void translationAndRotationVector(const double* pose, double* out) {
  double aa[6];  // rotation vector in degrees, then translation
  ZOTtracker::AngleAxisFromT(pose, aa);
  for (int k = 0; k < 3; k++) {
    out[k] = pose[4 * k + 3];
    out[3 + k] = aa[k];
  }
}

// ---------------------------------------------------------------- per-frame output
void writeCsvHeader(FILE* csv, bool matrix, bool withTruth) {
  fprintf(csv, "frame,time,status,message");
  if (matrix) {
    for (int k = 0; k < 16; k++) fprintf(csv, ",T%d%d", k / 4, k % 4);
  } else {
    fprintf(csv, ",tx,ty,tz,rx_deg,ry_deg,rz_deg");
  }
  fprintf(csv, ",wx_deg,wy_deg,wz_deg,vx,vy,vz");
  if (withTruth) fprintf(csv, ",error_translation,error_rotation_deg");
  fprintf(csv, ",time_ms,undistortion_ms,edges_ms,gauss_newton_ms\n");
}

// One row; a failed frame leaves pose, velocity and errors empty. Flushed,
// so that whatever stops the run, the frames so far are on disk.
void writeCsvRow(FILE* csv, const FrameResult& r, const double* pose, const double* velocity,
                 bool matrix, bool withTruth) {
  fprintf(csv, "%d,%.9g,%d,\"%s\"", r.frame, r.time, r.status, r.message.c_str());
  double values[16];
  if (matrix)
    std::copy(pose, pose + 16, values);
  else
    translationAndRotationVector(pose, values);
  const bool ok = r.status == 0;
  for (int k = 0; k < (matrix ? 16 : 6); k++) {
    if (ok)
      fprintf(csv, ",%.10g", values[k]);
    else
      fputc(',', csv);
  }
  for (int k = 0; k < 6; k++) {
    if (ok)
      fprintf(csv, ",%.8g", velocity[k]);
    else
      fputc(',', csv);
  }
  if (withTruth && r.hasError) fprintf(csv, ",%.6g,%.6g", r.translError, r.rotError);
  if (withTruth && !r.hasError) fprintf(csv, ",,");
  fprintf(csv, ",%.4f,%.4f,%.4f,%.4f\n", r.totalMs, r.timing.undistortion, r.timing.edges,
          r.timing.gaussNewton);
  fflush(csv);
}

// The --per-frame line.
std::string frameLine(const FrameResult& r) {
  char text[400];
  int n = snprintf(text, sizeof text, "frame %5d  t %8.3f  ", r.frame, r.time);
  if (r.status == 0)
    n += snprintf(text + n, sizeof text - n, "OK  ");
  else
    n += snprintf(text + n, sizeof text - n, "%d %s  ", r.status, r.message.c_str());
  if (r.hasError)
    n += snprintf(text + n, sizeof text - n, "error %.3f / %.3f deg  ", r.translError, r.rotError);
  snprintf(text + n, sizeof text - n, "%.2f ms (undistortion %.2f, edges %.2f, Gauss-Newton %.2f)",
           r.totalMs, r.timing.undistortion, r.timing.edges, r.timing.gaussNewton);
  return text;
}

// Overlay of one camera: the tracker's drawing plus a status line.
void drawStatus(cv::Mat& overlay, const std::string& text, bool ok) {
  const cv::Scalar colour = ok ? cv::Scalar(60, 220, 60) : cv::Scalar(40, 40, 255);
  cv::putText(overlay, text, cv::Point(8, 20), cv::FONT_HERSHEY_SIMPLEX, 0.5, cv::Scalar(0, 0, 0),
              3, cv::LINE_AA);
  cv::putText(overlay, text, cv::Point(8, 20), cv::FONT_HERSHEY_SIMPLEX, 0.5, colour, 1,
              cv::LINE_AA);
}

// Overlays drawn by the tracker: PNG files per frame and camera and/or a
// video with the cameras side by side. Write failures end the program.
class OverlayWriter {
 public:
  OverlayWriter(GenericObjectTracker& tracker, const std::string& directory,
                const std::string& videoPath, double fps, double axisLength)
      : m_tracker(tracker),
        m_directory(directory),
        m_videoPath(videoPath),
        m_fps(fps),
        m_axisLength(axisLength),
        m_devNull(::open("/dev/null", O_WRONLY)),
        m_colour(tracker.m_nCameras) {
    for (int c = 0; c < tracker.m_nCameras; c++)
      m_colour[c].resize(3 * (size_t)tracker.m_imageWidth[c] * tracker.m_imageHeight[c]);
  }
  ~OverlayWriter() {
    m_video.release();
    if (m_devNull >= 0) close(m_devNull);
  }

  // Draws the frame's result at pose (the estimate, or the last good pose
  // after a failure) into every camera's overlay and writes them.
  void write(const FrameResult& r, const double* pose) {
    std::vector<cv::Mat> views;
    for (int c = 0; c < m_tracker.m_nCameras; c++) {
      {
        StdoutRedirect quiet(m_devNull);  // drawResult reports its sample count
        m_tracker.drawResult(pose, m_colour[c].data(), c, true, m_axisLength, nullptr);
      }
      cv::Mat view(m_tracker.m_imageHeight[c], m_tracker.m_imageWidth[c], CV_8UC3,
                   m_colour[c].data());
      char text[200];
      if (r.status == 0 && r.hasError)
        snprintf(text, sizeof text, "cam %d  frame %d  OK  err %.2f / %.2f deg", c, r.frame,
                 r.translError, r.rotError);
      else
        snprintf(text, sizeof text, "cam %d  frame %d  %s", c, r.frame,
                 r.status == 0 ? "OK" : (std::to_string(r.status) + " " + r.message).c_str());
      drawStatus(view, text, r.status == 0);
      if (!m_directory.empty()) {
        char name[64];
        snprintf(name, sizeof name, "/cam%d_%06d.png", c, r.frame);
        if (!cv::imwrite(m_directory + name, view)) fail("cannot write " + m_directory + name);
      }
      views.push_back(view);
    }
    if (m_videoPath.empty()) return;
    int height = 0;
    for (const cv::Mat& v : views) height = std::max(height, v.rows);
    for (cv::Mat& v : views) {
      if (v.rows < height) cv::copyMakeBorder(v, v, 0, height - v.rows, 0, 0, cv::BORDER_CONSTANT);
    }
    cv::Mat side;
    cv::hconcat(views, side);
    if (!m_video.isOpened() &&
        !m_video.open(m_videoPath, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), m_fps, side.size(),
                      true))
      fail("cannot write the video " + m_videoPath);
    m_video.write(side);
  }

 private:
  GenericObjectTracker& m_tracker;
  std::string m_directory, m_videoPath;
  double m_fps, m_axisLength;
  int m_devNull;
  std::vector<std::vector<unsigned char>> m_colour;
  cv::VideoWriter m_video;
};

}  // namespace

int main(int argc, char** argv) {
  const Options o = parseArguments(argc, argv);
  std::string error;

  // ---------------------------------------------------------------- configuration
  std::vector<double> setup;
  if (!o.configDir.empty()) {
    setup.resize(zot_sim::kSetupArrayCapacity);
    int count = 0;
    ZOTtracker::FileParser parser;
    const int rc = parser.parseAllFiles(o.configDir.c_str(), o.cameraFile.c_str(),
                                        o.trackerFile.c_str(), o.modelFile.c_str(), count,
                                        setup.data(), zot_sim::kSetupArrayCapacity);
    if (rc != 0) {
      const char* which = rc == ZOTtracker::ZOT_ERR_CAMERA_PARSER    ? "camera file "
                          : rc == ZOTtracker::ZOT_ERR_TRACKER_PARSER ? "tracker file "
                                                                     : "model file ";
      const std::string& file = rc == ZOTtracker::ZOT_ERR_CAMERA_PARSER    ? o.cameraFile
                                : rc == ZOTtracker::ZOT_ERR_TRACKER_PARSER ? o.trackerFile
                                                                           : o.modelFile;
      fail("cannot read the configuration in " + o.configDir + " (" + which + file +
           ", or a body file it names: see the message above)");
    }
    setup.resize(count);
  } else if (!o.setupHeader.empty()) {
    if (!zot_sim::readSetupHeader(o.setupHeader, setup, error)) fail(error);
  } else {
#ifdef ZOT_TRACK_SETUP_HEADER
    setup.assign(setup_global_array, setup_global_array + setup_global_array_counter);
#else
    usageError("--compiled-config: this zot_track was built without ZOT_TRACK_SETUP_HEADER");
#endif
  }
  std::vector<zot_sim::CameraConfig> cameraConfigs;
  std::vector<double> trackingParameters;
  zot_sim::ModelConfig model;
  if (!zot_sim::decodeSetupArray(setup.data(), (int)setup.size(), cameraConfigs, trackingParameters,
                                 model, error))
    fail("the configuration is inconsistent: " + error);
  const double objectSize = zot_sim::modelSize(model, nullptr);

  size_t pools[7];
  if (!zot_sim::poolSizesForSetup(setup.data(), (int)setup.size(), pools))
    fail("the configuration has no usable camera");
  ZOTtracker::doBigMalloc(pools[0], pools[1], pools[2], pools[3], pools[4], pools[5], pools[6]);
  std::unique_ptr<GenericObjectTracker> tracker(new GenericObjectTracker());
  if (tracker->setupFromGlobalArray((int)setup.size(), setup.data()) != 0)
    fail("the tracker refuses the configuration (see the message above)");
  if (o.showMemory) ZOTtracker::dumpMemoryAlloc();
  const int nCams = tracker->m_nCameras;
  if ((int)o.images.size() != nCams) {
    fail("the configuration has " + std::to_string(nCams) + " camera(s) but --images was given " +
         std::to_string(o.images.size()) + " time(s)");
  }
  const std::map<int, std::string> messages = captureErrorMessages();

  // ---------------------------------------------------------------- sequence
  std::vector<FrameSource> sources(nCams);
  for (int c = 0; c < nCams; c++) {
    if (!sources[c].open(o.images[c], o.firstIndex, error))
      fail("cam " + std::to_string(c) + ": " + error);
  }
  std::vector<double> times;
  std::vector<Pose> toolPoses, truth;
  if (!o.timesFile.empty() && !zot_sim::readNumberFile(o.timesFile, times, error)) fail(error);
  if (!o.toolPosesFile.empty() && !zot_sim::readPoseFile(o.toolPosesFile, toolPoses, error))
    fail(error);
  if (!o.truthFile.empty() && !zot_sim::readPoseFile(o.truthFile, truth, error)) fail(error);
  Pose initialPose;
  {
    std::string fileError;
    std::vector<Pose> fromFile;
    if (zot_sim::pathExists(o.initialPose)) {
      if (!zot_sim::readPoseFile(o.initialPose, fromFile, fileError)) fail(fileError);
      if (fromFile.empty()) fail(o.initialPose + " holds no pose");
      initialPose = fromFile[0];
    } else if (!zot_sim::parsePose(o.initialPose, initialPose, error)) {
      fail("--initial-pose: " + o.initialPose + " is neither a file nor a pose (" + error + ")");
    }
  }
  // Length of the sequence and the lists that must match it.
  int expected = o.frames;
  std::string lengthFrom = "--frames";
  if (expected < 0 && !o.timesFile.empty()) {
    expected = (int)times.size();
    lengthFrom = o.timesFile;
  } else if (expected < 0 && !o.toolPosesFile.empty()) {
    expected = (int)toolPoses.size();
    lengthFrom = o.toolPosesFile;
  }
  // The first frame whose input is missing or wrong stops the run there.
  int inputLimit = expected < 0 ? 1 << 30 : expected;
  std::string inputProblem;
  auto limitTo = [&](int frame, const std::string& problem) {
    if (frame < inputLimit) {
      inputLimit = frame;
      inputProblem = problem;
    }
  };
  auto checkList = [&](const std::string& file, size_t n, const char* what) {
    if (file.empty() || expected < 0) return;
    if ((int)n < expected) {
      limitTo((int)n, file + " has " + std::to_string(n) + " " + what + " for " +
                          std::to_string(expected) + " frames (" + lengthFrom + ")");
    } else if ((int)n > expected && o.frames < 0) {
      limitTo(expected, file + " has " + std::to_string(n) + " " + what + " but " + lengthFrom +
                            " gives " + std::to_string(expected) + " frames");
    }
  };
  checkList(o.timesFile, times.size(), "time stamps");
  checkList(o.toolPosesFile, toolPoses.size(), "tool poses");
  checkList(o.truthFile, truth.size(), "true poses");
  for (size_t k = 1; k < times.size(); k++) {
    if (times[k] < times[k - 1]) {
      char buffer[256];
      snprintf(buffer, sizeof buffer, "time stamp %g of frame %d is earlier than %g of frame %d",
               times[k], (int)k, times[k - 1], (int)k - 1);
      limitTo((int)k, o.timesFile + ": " + buffer);
      break;
    }
  }

  // ---------------------------------------------------------------- outputs
  if (!zot_sim::makeDirectories(o.outDir)) fail("cannot create the output directory " + o.outDir);
  if (o.overlays && !zot_sim::makeDirectories(o.outDir + "/overlays"))
    fail("cannot create " + o.outDir + "/overlays");
  const std::string csvPath = o.outDir + "/poses.csv";
  FILE* csv = fopen(csvPath.c_str(), "w");
  if (csv == nullptr) fail("cannot write " + csvPath + ": " + strerror(errno));
  const bool matrix = o.poseFormat == "matrix";
  writeCsvHeader(csv, matrix, !truth.empty());
  std::unique_ptr<OverlayWriter> overlays;
  if (o.overlays || !o.overlayVideo.empty()) {
    // The video plays at the rate of the time stamps.
    const double fps = times.size() > 1 && times.back() > times.front()
                           ? (times.size() - 1) / (times.back() - times.front())
                           : o.fps;
    overlays.reset(new OverlayWriter(*tracker, o.overlays ? o.outDir + "/overlays" : "",
                                     o.overlayVideo, fps, 0.4 * objectSize));
  }

  // ---------------------------------------------------------------- tracking
  std::vector<std::vector<unsigned char>> grey(nCams);
  std::vector<unsigned char> colourScratch;
  const unsigned char* imagePtrs[ZOTtracker::ZOT_MAX_CAMERAS] = {};
  for (int c = 0; c < nCams; c++) {
    grey[c].resize((size_t)tracker->m_imageWidth[c] * tracker->m_imageHeight[c]);
    imagePtrs[c] = grey[c].data();
  }
  const double identity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  double pose[16], velocity[6] = {0, 0, 0, 0, 0, 0}, covariance[36];
  double lastGood[16];
  std::copy(initialPose.begin(), initialPose.end(), lastGood);
  std::vector<FrameResult> results;
  std::vector<cv::Mat> frames(nCams);
  const bool interactive = isatty(fileno(stdout)) && !o.perFrame && !o.quiet;
  auto lastProgress = std::chrono::steady_clock::now();
  const auto runStart = lastProgress;

  for (int i = 0; i < inputLimit; i++) {
    // Images of every camera; the end of the first camera's images ends a
    // sequence of open length.
    bool end = false;
    for (int c = 0; c < nCams && inputProblem.empty() && !end; c++) {
      const int got = sources[c].read(i, frames[c], error);
      if (got < 0) {
        limitTo(i, error);
      } else if (got == 0) {
        if (expected >= 0 || c > 0) {
          limitTo(
              i,
              sources[c].isVideo()
                  ? "cam " + std::to_string(c) + ": the video " + o.images[c] + " ends after " +
                        std::to_string(i) + " frames, " +
                        (expected >= 0 ? std::to_string(expected) + " expected" : "cam 0 has more")
                  : "cam " + std::to_string(c) + ": missing image " + sources[c].describe(i));
        }
        end = true;
      } else if (frames[c].cols != tracker->m_imageWidth[c] ||
                 frames[c].rows != tracker->m_imageHeight[c]) {
        limitTo(i, "cam " + std::to_string(c) + ": " + sources[c].lastName() + " is " +
                       std::to_string(frames[c].cols) + " x " + std::to_string(frames[c].rows) +
                       ", the camera is " + std::to_string(tracker->m_imageWidth[c]) + " x " +
                       std::to_string(tracker->m_imageHeight[c]));
      }
    }
    if (end || i >= inputLimit) break;
    for (int c = 0; c < nCams; c++) toGrey(frames[c], grey[c].data(), colourScratch);

    FrameResult r;
    r.frame = i;
    r.time = times.empty() ? i / o.fps : times[i];
    const double* tool = toolPoses.empty() ? identity : toolPoses[i].data();
    ZOTtracker::m_global_output_string_counter = 0;
    const int64_t start = ZOTtracker::getTickCount();
    r.status = tracker->poseEstimation(imagePtrs, r.time, tool, initialPose.data(),
                                       o.initialVelocity, r.time, pose, velocity, covariance, o.dof,
                                       i == 0, true, false, o.verbose);
    r.totalMs = (ZOTtracker::getTickCount() - start) / 1e6;
    zot_sim::parseFrameTiming(ZOTtracker::m_global_output_string,
                              ZOTtracker::m_global_output_string_counter, &r.timing);
    if (r.status == 0) {
      std::copy(pose, pose + 16, lastGood);
      if (!truth.empty()) {
        r.hasError = true;
        zot_sim::poseError(pose, truth[i].data(), &r.translError, &r.rotError);
      }
    }
    const auto m = messages.find(r.status);
    r.message = r.status == 0 ? "OK" : (m != messages.end() ? m->second : "?");
    results.push_back(r);
    writeCsvRow(csv, r, pose, velocity, matrix, !truth.empty());
    if (overlays) overlays->write(r, lastGood);
    if (o.perFrame && !o.quiet) {
      printf("%s\n", frameLine(r).c_str());
    } else if (!o.quiet) {
      const auto now = std::chrono::steady_clock::now();
      const double since = std::chrono::duration<double>(now - lastProgress).count();
      if (since > (interactive ? 0.2 : 5.0)) {
        int failed = 0;
        for (const FrameResult& x : results) failed += x.status != 0;
        printf("%sframe %d%s, %d failed", interactive ? "\r" : "", i + 1,
               expected >= 0 ? (" of " + std::to_string(expected)).c_str() : "", failed);
        if (!interactive) printf("\n");
        fflush(stdout);
        lastProgress = now;
      }
    }
  }
  if (interactive) printf("\r%60s\r", "");
  const double runSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - runStart).count();
  const bool csvOk = fclose(csv) == 0;
  overlays.reset();
  tracker.reset();
  ZOTtracker::doBigFree();

  // ---------------------------------------------------------------- summary
  std::string summary = summaryText(results, expected >= 0 ? expected : (int)results.size(),
                                    messages, objectSize, !truth.empty());
  int status = 0;
  for (const FrameResult& r : results) {
    if (r.status != 0) status = kExitTrackingFailed;
  }
  if (o.maxTranslError >= 0) {
    double sumT = 0, sumR = 0;
    int n = 0;
    for (const FrameResult& r : results) {
      if (r.hasError) {
        sumT += r.translError;
        sumR += r.rotError;
        n++;
      }
    }
    const double limit =
        o.maxTranslPercent ? o.maxTranslError * objectSize / 100.0 : o.maxTranslError;
    char line[256];
    if (n > 0 && (sumT / n > limit || sumR / n > o.maxRotError)) {
      snprintf(
          line, sizeof line,
          "ACCURACY LIMITS EXCEEDED: mean errors %.3f and %.3f deg, limits %.3f and %.3f deg\n",
          sumT / n, sumR / n, limit, o.maxRotError);
      if (status == 0) status = kExitAccuracy;
    } else {
      snprintf(line, sizeof line, "accuracy limits met: mean errors within %.3f and %.3f deg\n",
               limit, o.maxRotError);
    }
    summary += line;
  }
  if (!inputProblem.empty()) {
    summary += "INPUT ERROR at frame " + std::to_string(inputLimit) + ": " + inputProblem + "\n";
    status = kExitBadInput;
  }
  summary += "written: " + csvPath + (o.overlays ? ", " + o.outDir + "/overlays/" : "") +
             (o.overlayVideo.empty() ? "" : ", " + o.overlayVideo) + "\n";
  char line[128];
  snprintf(line, sizeof line, "run time %.1f s\n", runSeconds);
  summary += line;
  const std::string summaryPath = o.outDir + "/summary.txt";
  FILE* f = fopen(summaryPath.c_str(), "w");
  const bool summaryOk = f != nullptr && fputs(summary.c_str(), f) >= 0 && fclose(f) == 0;
  if (!o.quiet) printf("== zot_track summary\n%s", summary.c_str());
  fflush(stdout);
  if (!inputProblem.empty()) fprintf(stderr, "zot_track: %s\n", inputProblem.c_str());
  if (!csvOk || !summaryOk) {
    fprintf(stderr, "zot_track: cannot write %s\n", (!csvOk ? csvPath : summaryPath).c_str());
    return kExitBadInput;
  }
  return status;
}
