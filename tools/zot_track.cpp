// zot_track: tracks a recorded sequence with the library's public API, the
// way a robot's vision process would: configuration files (or a setup-array
// header), per-camera image sequences or videos, time stamps, tool poses and
// an initial object pose in; a CSV of poses, optional overlays and a summary
// with failures and per-stage timing out.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "FileParser.h"
#include "GenericObjectTracker.h"
#include "IO.h"
#include "Math.h"
#include "PoolSizes.h"
#include "command_line.h"
#include "memory_handling.h"
#include "overlay.h"
#include "scene_config.h"
#include "stdout_capture.h"

// A host that must not read configuration files at run time compiles its
// setup array in: build with -DZOT_TRACK_SETUP_HEADER=/path/global_array_declaration.h
// (written by zot_export_header) and run with --compiled-config.
#ifdef ZOT_TRACK_SETUP_HEADER
#define ZOT_TRACK_STRINGIFY2(x) #x
#define ZOT_TRACK_STRINGIFY(x) ZOT_TRACK_STRINGIFY2(x)
#include ZOT_TRACK_STRINGIFY(ZOT_TRACK_SETUP_HEADER)
#endif

namespace fs = std::filesystem;

namespace {

using zot_sim::Pose;
using ZOTtracker::GenericObjectTracker;

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
  zot_sim::usageError("zot_track", message);
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

// Six numbers given as one argument ("1,0,0,0,0,0" or "1 0 0 0 0 0") or as
// six arguments.
void sixNumbers(const std::string& option, std::vector<std::string> tokens, double* out) {
  if (tokens.size() == 1) {
    std::string text = tokens[0];
    std::replace(text.begin(), text.end(), ',', ' ');
    std::istringstream words(text);
    tokens.assign(std::istream_iterator<std::string>(words), {});
  }
  if (tokens.size() != 6) usageError(option + " needs 6 numbers");
  for (int k = 0; k < 6; k++) out[k] = numberArg(option, tokens[k]);
}

Options parseArguments(int argc, char** argv) {
  Options o;
  if (argc < 2) usageError("nothing to do");
  CLI::App app(
      "Tracks a recorded sequence with the ZOT tracker library and writes the object\n"
      "poses, optional overlays and a summary.",
      "zot_track");
  app.get_formatter()->label("Usage", "usage");
  app.get_formatter()->label("OPTIONS", "options");
  app.get_formatter()->column_width(26);
  app.allow_extras();
  // A repeated option counts with its last value, as in most programs.
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.footer(
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
      "one frame failed; 4 the accuracy limits of --max-mean-error were exceeded.");
  std::vector<std::string> velocity, dof;
  std::pair<std::string, std::string> maxError;
  auto option = [&](const char* name, auto& value, const char* type, const char* text) {
    return app.add_option(name, value, text)->type_name(type);
  };
  app.option_defaults()->group("configuration (one of)");
  option("--config", o.configDir, "DIR", "directory with the camera, tracker and model files");
  option("--camera", o.cameraFile, "FILE", "camera file in DIR (default: camera.txt)");
  option("--tracker", o.trackerFile, "FILE", "tracker file in DIR (default: tracker.txt)");
  option("--model", o.modelFile, "FILE", "model file in DIR (default: model.txt)");
  option("--setup-header", o.setupHeader, "FILE",
         "a global_array_declaration.h written by zot_export_header");
  app.add_flag("--compiled-config", o.compiledConfig,
               "the setup array compiled into this program (build with\n"
               "-DZOT_TRACK_SETUP_HEADER=/path/global_array_declaration.h)");
  app.option_defaults()->group("sequence");
  option("--images", o.images, "SOURCE",
         "one per camera, in camera order. SOURCE is a file\n"
         "pattern with a printf conversion for the frame index\n"
         "(cam0/%06d.png; PNG, PGM, JPEG, ...), a directory (its\n"
         "image files in name order) or a video file. Colour\n"
         "frames are converted to grey.")
      ->allow_extra_args(false)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  option("--first-index", o.firstIndex, "N",
         "index of the first frame of a pattern (default: 0, or 1\n"
         "when there is no file for 0)")
      ->check(CLI::Range(0, 1000000000).description(""));
  option("--times", o.timesFile, "FILE",
         "time stamp of every frame, one per line (default: frame\nindex / fps)");
  option("--fps", o.fps, "F", "frame rate without --times (default: 30)");
  option("--tool-poses", o.toolPosesFile, "FILE",
         "tool pose in the world frame, one per line (default: the\n"
         "identity, for a fixed camera)");
  option("--initial-pose", o.initialPose, "POSE",
         "object pose in the tool frame at the first frame: a file\n"
         "(its first pose) or the numbers themselves (required)");
  option("--initial-velocity", velocity, "V",
         "6 numbers: rotation [deg/time unit], then translation\n(default: 0)")
      ->expected(1, 6);
  option("--dof", dof, "MASK",
         "6 numbers, 0 freezes a parameter of the pose update\n"
         "(rotation x y z, translation x y z; default: all free)")
      ->expected(1, 6);
  option("--frames", o.frames, "N", "track at most N frames")
      ->check(CLI::Range(1, 1000000000).description(""));
  option("--truth", o.truthFile, "FILE",
         "true object poses in the tool frame, one per frame:\n"
         "per-frame errors in the CSV and the summary");
  app.option_defaults()->group("output");
  option("--out", o.outDir, "DIR", "output directory (default: out): poses.csv and summary.txt");
  option("--pose-format", o.poseFormat, "F",
         "matrix (16 values, row-major) or rvec (translation and\n"
         "rotation vector in degrees) in the CSV (default: matrix)");
  app.add_flag("--overlays", o.overlays,
               "DIR/overlays/camN_IIIIII.png: the undistorted image with\n"
               "the model's visible contour (yellow) and the object's\n"
               "axes (x red, y green, z blue)");
  option("--overlay-video", o.overlayVideo, "FILE",
         "the overlays of all cameras side by side as a Motion-JPEG\nvideo (.avi)");
  app.add_flag("--per-frame", o.perFrame,
               "one line per frame: status, error against the truth, time");
  option("--max-mean-error", maxError, "T R",
         "fail (exit status 4) when the mean translation error\n"
         "exceeds T (mm, or percent of the object's size\n"
         "with a % sign, e.g. 1%) or the mean rotation error R deg");
  app.add_flag("--show-memory", o.showMemory, "print the memory pools' use after the set-up");
  app.add_flag("--verbose", o.verbose,
               "the library's own messages on how each frame's\n"
               "Gauss-Newton loop ends");
  app.add_flag("-q,--quiet", o.quiet, "no progress line and no summary on standard output");
  app.set_help_flag("-h,--help", "this text")->group("output");
  zot_sim::parseCommandLine(app, argc, argv, "zot_track");
  if (!app.remaining().empty()) {
    const std::string a = app.remaining()[0];
    usageError((a.size() > 1 && a[0] == '-' ? "unknown option " : "unexpected argument ") + a);
  }
  if (!(o.fps > 0.0) || !std::isfinite(o.fps)) usageError("--fps needs a positive frame rate");
  if (!velocity.empty()) sixNumbers("--initial-velocity", velocity, o.initialVelocity);
  if (!dof.empty()) sixNumbers("--dof", dof, o.dof);
  if (o.poseFormat != "matrix" && o.poseFormat != "rvec")
    usageError("--pose-format takes matrix or rvec");
  if (app.count("--max-mean-error")) {
    std::string& t = maxError.first;
    o.maxTranslPercent = !t.empty() && t.back() == '%';
    if (o.maxTranslPercent) t.pop_back();
    o.maxTranslError = numberArg("--max-mean-error", t);
    o.maxRotError = numberArg("--max-mean-error", maxError.second);
    if (o.maxTranslError < 0 || o.maxRotError < 0) usageError("--max-mean-error needs limits >= 0");
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

// ---------------------------------------------------------------- image sources
bool isImageFile(const fs::path& path) {
  std::string ext = path.extension().string();
  for (char& c : ext) c = (char)tolower((unsigned char)c);
  for (const char* e : {".png", ".pgm", ".ppm", ".pnm", ".jpg", ".jpeg", ".bmp", ".tif", ".tiff"}) {
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
      m_first = firstIndex >= 0 ? firstIndex : !fs::exists(nameOf(0)) && fs::exists(nameOf(1));
      return true;
    }
    std::error_code ec;
    if (fs::is_directory(plan, ec)) {
      m_kind = Directory;
      for (const fs::directory_entry& entry : fs::directory_iterator(plan, ec)) {
        if (isImageFile(entry.path())) m_files.push_back(entry.path().string());
      }
      std::sort(m_files.begin(), m_files.end());
      if (m_files.empty()) error = "no image files in the directory " + plan;
      return !m_files.empty();
    }
    m_kind = Video;
    if (!fs::exists(plan, ec))
      error = "no such file or directory: " + plan;
    else if (!m_video.open(plan))
      error = "cannot open the video " + plan;
    return error.empty();
  }

  // Frame i (called with i = 0, 1, 2, ...) in grey. Returns 1 with the
  // image, 0 when the source has no frame i (its end), -1 with a reason when
  // the frame exists but cannot be read.
  int read(int i, cv::Mat& image, std::string& error) {
    std::string name;
    if (m_kind == Video) {
      if (!m_video.read(image) || image.empty()) return 0;
      name = m_plan + " frame " + std::to_string(i);
    } else {
      name = m_kind == Pattern ? nameOf(m_first + i) : (i < (int)m_files.size() ? m_files[i] : "");
      if (name.empty() || !fs::exists(name)) return 0;
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
    if (image.channels() > 1)
      cv::cvtColor(image, image, image.channels() == 4 ? cv::COLOR_BGRA2GRAY : cv::COLOR_BGR2GRAY);
    if (!image.isContinuous()) image = image.clone();
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

// ---------------------------------------------------------------- results
struct FrameResult {
  int frame = 0;
  double time = 0.0;
  int status = 0;
  const char* message = "OK";  // or the failure's message
  ZOTtracker::FrameStageTimes timing{};
  ZOTtracker::FitQuality quality{};  // robust estimator only
  bool hasError = false;
  double translError = 0.0, rotError = 0.0;
};

// Errors against the truth over the frames that have one.
struct ErrorStats {
  int n = 0;
  double meanT = 0.0, meanR = 0.0, maxT = 0.0, maxR = 0.0;
};

ErrorStats errorStats(const std::vector<FrameResult>& results) {
  ErrorStats e;
  for (const FrameResult& r : results) {
    if (!r.hasError) continue;
    e.meanT += r.translError;
    e.meanR += r.rotError;
    e.maxT = std::max(e.maxT, r.translError);
    e.maxR = std::max(e.maxR, r.rotError);
    e.n++;
  }
  if (e.n > 0) {
    e.meanT /= e.n;
    e.meanR /= e.n;
  }
  return e;
}

// The summary: counts, failures by code, timing quantiles, accuracy.
std::string summaryText(const std::vector<FrameResult>& results, int expected, double objectSize,
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
    std::string frames;
    for (size_t k = 0; k < it->second.size() && k < 12; k++)
      frames += (k ? ", " : "") + std::to_string(it->second[k]);
    if (it->second.size() > 12) frames += ", ...";
    snprintf(line, sizeof line, "  %4d %-45s %5d  (frames %s)\n", it->first,
             ZOTtracker::errorMessage(it->first), (int)it->second.size(), frames.c_str());
    s += line;
  }
  if (!results.empty()) {
    s += "per-frame time [ms]        median      p95      max\n";
    const char* const names[4] = {"undistortion", "edge detection", "Gauss-Newton", "whole frame"};
    for (int k = 0; k < 4; k++) {
      std::vector<double> v;
      for (const FrameResult& r : results) {
        const ZOTtracker::FrameStageTimes& t = r.timing;
        const double stage[4] = {t.undistortionMs, t.edgesMs, t.poseUpdateMs, t.totalMs};
        v.push_back(stage[k]);
      }
      snprintf(line, sizeof line, "  %-22s %8.3f %8.3f %8.3f\n", names[k],
               zot_sim::quantile(v, 0.5), zot_sim::quantile(v, 0.95), zot_sim::quantile(v, 1.0));
      s += line;
    }
  }
  const ErrorStats e = errorStats(results);
  if (haveTruth && e.n > 0) {
    snprintf(line, sizeof line,
             "error against the truth over %d tracked frames:\n"
             "  translation [mm]: mean %.3f, max %.3f (mean %.2f %% of the object's size %g)\n"
             "  rotation [deg]: mean %.3f, max %.3f\n",
             e.n, e.meanT, e.maxT, objectSize > 0 ? 100.0 * e.meanT / objectSize : 0.0, objectSize,
             e.meanR, e.maxR);
    s += line;
  }
  return s;
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
  fprintf(csv,
          ",time_ms,undistortion_ms,edges_ms,gauss_newton_ms,inlier_fraction,residual_px,"
          "disagreement_px\n");
}

// One row; a failed frame leaves pose, velocity and errors empty. Flushed,
// so that whatever stops the run, the frames so far are on disk.
void writeCsvRow(FILE* csv, const FrameResult& r, const double* pose, const double* velocity,
                 bool matrix, bool withTruth) {
  fprintf(csv, "%d,%.9g,%d,\"%s\"", r.frame, r.time, r.status, r.message);
  // The pose as 16 matrix values, or the translation and the rotation
  // vector in degrees; then the velocity.
  double values[22], angleAxis[6] = {0, 0, 0, 0, 0, 0};
  const int n = matrix ? 16 : 6;
  if (!matrix && r.status == 0) ZOTtracker::AngleAxisFromT(pose, angleAxis);
  for (int k = 0; k < n; k++)
    values[k] = matrix ? pose[k] : k < 3 ? pose[4 * k + 3] : angleAxis[k - 3];
  std::copy(velocity, velocity + 6, values + n);
  for (int k = 0; k < n + 6; k++) {
    if (r.status != 0)
      fputc(',', csv);
    else
      fprintf(csv, k < n ? ",%.10g" : ",%.8g", values[k]);
  }
  if (withTruth && r.hasError) fprintf(csv, ",%.6g,%.6g", r.translError, r.rotError);
  if (withTruth && !r.hasError) fprintf(csv, ",,");
  fprintf(csv, ",%.4f,%.4f,%.4f,%.4f,%.4f,%.4f,%.4f\n", r.timing.totalMs, r.timing.undistortionMs,
          r.timing.edgesMs, r.timing.poseUpdateMs, r.quality.inlierFraction, r.quality.residualPx,
          r.quality.disagreementPx);
  fflush(csv);
}

// The --per-frame line.
std::string frameLine(const FrameResult& r) {
  char text[400];
  int n = snprintf(text, sizeof text, "frame %5d  t %8.3f  ", r.frame, r.time);
  if (r.status == 0)
    n += snprintf(text + n, sizeof text - n, "OK  ");
  else
    n += snprintf(text + n, sizeof text - n, "%d %s  ", r.status, r.message);
  if (r.hasError)
    n += snprintf(text + n, sizeof text - n, "error %.3f mm / %.3f deg  ", r.translError,
                  r.rotError);
  snprintf(text + n, sizeof text - n, "%.2f ms (undistortion %.2f, edges %.2f, Gauss-Newton %.2f)",
           r.timing.totalMs, r.timing.undistortionMs, r.timing.edgesMs, r.timing.poseUpdateMs);
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

// Overlays of the tracking result: PNG files per frame and camera and/or a
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
        m_colour(tracker.m_nCameras) {
    for (int c = 0; c < tracker.m_nCameras; c++)
      m_colour[c].resize(3 * (size_t)tracker.m_imageWidth[c] * tracker.m_imageHeight[c]);
  }
  ~OverlayWriter() { m_video.release(); }

  // Draws the frame's result at pose (the estimate, or the last good pose
  // after a failure) over the frame's images into every camera's overlay
  // and writes them.
  void write(const FrameResult& r, const double* pose, const unsigned char* const* images) {
    // The speed modes undistort only part of the image, or none of it.
    const ZOTtracker::RobustSettings& modes = m_tracker.m_trackingParams.m_robust;
    if (modes.regionOfInterest || modes.lensInProjection) m_tracker.undistortAllImages(images);
    std::vector<cv::Mat> views;
    for (int c = 0; c < m_tracker.m_nCameras; c++) {
      zot_sim::drawTrackingOverlay(m_tracker, c, pose, m_axisLength, m_colour[c].data());
      cv::Mat view(m_tracker.m_imageHeight[c], m_tracker.m_imageWidth[c], CV_8UC3,
                   m_colour[c].data());
      // The region the frame processed, where it is one of this picture.
      const int* region = m_tracker.m_imageRegion[c];
      if (modes.regionOfInterest && !modes.lensInProjection && region[0] <= region[2])
        cv::rectangle(view, cv::Point(region[0], region[1]), cv::Point(region[2], region[3]),
                      cv::Scalar(200, 160, 0), 1);
      char text[200];
      if (r.status == 0 && r.hasError)
        snprintf(text, sizeof text, "cam %d  frame %d  OK  err %.2f mm / %.2f deg", c, r.frame,
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
  std::vector<std::vector<unsigned char>> m_colour;
  cv::VideoWriter m_video;
};

// ---------------------------------------------------------------- configuration and set-up
// The setup array from the configuration files, a header or the program.
std::vector<double> readSetupArray(const Options& o) {
  std::vector<double> setup;
  std::string error;
  if (!o.setupHeader.empty()) {
    if (!zot_sim::readSetupHeader(o.setupHeader, setup, error)) fail(error);
    return setup;
  }
  if (o.compiledConfig) {
#ifdef ZOT_TRACK_SETUP_HEADER
    return std::vector<double>(setup_global_array, setup_global_array + setup_global_array_counter);
#else
    usageError("--compiled-config: this zot_track was built without ZOT_TRACK_SETUP_HEADER");
#endif
  }
  setup.resize(zot_sim::kSetupArrayCapacity);
  int count = 0;
  // The parser echoes each camera's tcp-to-camera calibration; with -q that
  // echo is held back, shown only when the parse fails.
  zot_sim::StdoutCapture echo(o.quiet);
  ZOTtracker::FileParser parser;
  const int rc =
      parser.parseAllFiles(o.configDir.c_str(), o.cameraFile.c_str(), o.trackerFile.c_str(),
                           o.modelFile.c_str(), count, setup.data(), zot_sim::kSetupArrayCapacity);
  echo.end(rc != 0);
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
  // The parser takes "6l2.43" as 6 and wraps large integers; refuse such files.
  if (!zot_sim::checkConfigFilesStrictly(o.configDir, o.cameraFile, o.trackerFile, o.modelFile,
                                         error))
    fail("malformed configuration: " + error);
  setup.resize(count);
  return setup;
}

// The tracker set up from the configuration, with its memory pools.
struct Setup {
  std::unique_ptr<GenericObjectTracker> tracker;
  zot_sim::ModelConfig model;
  double objectSize = 0.0;  ///< the model's bounding-box size, for the error limits and axes
};

Setup setUp(const Options& o) {
  const std::vector<double> setup = readSetupArray(o);
  std::vector<zot_sim::CameraConfig> cameraConfigs;
  std::vector<double> trackingParameters;
  zot_sim::ModelConfig model;
  std::string error;
  if (!zot_sim::decodeSetupArray(setup.data(), (int)setup.size(), cameraConfigs, trackingParameters,
                                 model, error))
    fail("the configuration is inconsistent: " + error);
  Setup s;
  s.objectSize = zot_sim::modelSize(model, nullptr);
  s.model = model;
  size_t pools[ZOTtracker::ZOT_N_POOLS];
  if (ZOTtracker::computePoolSizes((int)setup.size(), setup.data(), ZOTtracker::ZOT_POOL_MARGIN,
                                   pools) != 0)
    fail("the configuration is refused (see the message above)");
  ZOTtracker::reservePools(pools);
  s.tracker.reset(new GenericObjectTracker());
  if (s.tracker->setupFromGlobalArray((int)setup.size(), setup.data()) != 0)
    fail("the tracker refuses the configuration (see the message above)");
  if (o.showMemory) ZOTtracker::dumpMemoryAlloc();
  if ((int)o.images.size() != s.tracker->m_nCameras) {
    fail("the configuration has " + std::to_string(s.tracker->m_nCameras) +
         " camera(s) but --images was given " + std::to_string(o.images.size()) + " time(s)");
  }
  return s;
}

// ---------------------------------------------------------------- first-frame checks
// What a pose in the wrong unit or a wrong calibration looks like: the model
// outside every camera's view, and the first frame failing with -5.
const char* const kUnitsHint =
    "check that the initial pose uses the model's length unit (a pose in metres\n"
    "against a model in millimetres puts the object 1000 times too close) and the\n"
    "camera-to-tool calibration in the camera file";

// "" when some camera sees a vertex of the model at pose (object in the tool
// frame, inside the depth range and the image), else where the model is.
std::string outOfView(const GenericObjectTracker& tracker, const zot_sim::ModelConfig& model,
                      const double* pose) {
  std::string where;
  for (int c = 0; c < tracker.m_nCameras; c++) {
    double T[16], centre[3] = {0, 0, 0};
    ZOTtracker::matrixProduct444(tracker.m_toolToCamera[c], pose, T);
    const double* K = tracker.m_K[c];
    int n = 0;
    for (const zot_sim::BodyConfig& b : model.bodies) {
      const std::vector<double>& v = b.mesh.vertices;
      for (size_t i = 0; i + 2 < v.size(); i += 3, n++) {
        double x[3];
        for (int r = 0; r < 3; r++)
          x[r] = T[4 * r] * v[i] + T[4 * r + 1] * v[i + 1] + T[4 * r + 2] * v[i + 2] + T[4 * r + 3];
        for (int r = 0; r < 3; r++) centre[r] += x[r];
        if (x[2] < tracker.m_zNear[c] || x[2] > tracker.m_zFar[c]) continue;
        const double u = K[0] * x[0] / x[2] + K[1] * x[1] / x[2] + K[2],
                     w = K[4] * x[1] / x[2] + K[5];
        if (u >= 0 && u < tracker.m_imageWidth[c] && w >= 0 && w < tracker.m_imageHeight[c])
          return "";
      }
    }
    char line[200];
    snprintf(line, sizeof line,
             "%sits centre at (%.4g, %.4g, %.4g) in cam %d, whose depth range is %g to %g",
             c ? "; " : "", centre[0] / std::max(n, 1), centre[1] / std::max(n, 1),
             centre[2] / std::max(n, 1), c, tracker.m_zNear[c], tracker.m_zFar[c]);
    where += line;
  }
  return "the initial pose puts the model outside every camera's view (" + where + "):\n" +
         kUnitsHint;
}

// ---------------------------------------------------------------- input sequence
struct Sequence {
  std::vector<FrameSource> sources;
  std::vector<double> times;
  std::vector<Pose> toolPoses, truth;
  Pose initialPose;
  int expected = -1;         ///< frames the options and lists ask for; -1: until the images end
  int inputLimit = 1 << 30;  ///< first frame whose input is missing or wrong
  std::string inputProblem;  ///< what is wrong with it

  void limitTo(int frame, const std::string& problem) {
    if (frame < inputLimit) {
      inputLimit = frame;
      inputProblem = problem;
    }
  }
};

Sequence openSequence(const Options& o, int nCams) {
  Sequence s;
  std::string error;
  s.sources.resize(nCams);
  for (int c = 0; c < nCams; c++) {
    if (!s.sources[c].open(o.images[c], o.firstIndex, error))
      fail("cam " + std::to_string(c) + ": " + error);
  }
  if (!o.timesFile.empty() && !zot_sim::readNumberFile(o.timesFile, s.times, error)) fail(error);
  if (!o.toolPosesFile.empty() && !zot_sim::readPoseFile(o.toolPosesFile, s.toolPoses, error))
    fail(error);
  if (!o.truthFile.empty() && !zot_sim::readPoseFile(o.truthFile, s.truth, error)) fail(error);
  std::vector<Pose> fromFile;
  if (fs::exists(o.initialPose)) {
    if (!zot_sim::readPoseFile(o.initialPose, fromFile, error)) fail(error);
    if (fromFile.empty()) fail(o.initialPose + " holds no pose");
    s.initialPose = fromFile[0];
  } else if (!zot_sim::parsePose(o.initialPose, s.initialPose, error)) {
    fail("--initial-pose: " + o.initialPose + " is neither a file nor a pose (" + error + ")");
  }
  // Length of the sequence and the lists that must match it.
  s.expected = o.frames;
  std::string lengthFrom = "--frames";
  if (s.expected < 0 && !o.timesFile.empty()) {
    s.expected = (int)s.times.size();
    lengthFrom = o.timesFile;
  } else if (s.expected < 0 && !o.toolPosesFile.empty()) {
    s.expected = (int)s.toolPoses.size();
    lengthFrom = o.toolPosesFile;
  }
  if (s.expected >= 0) s.inputLimit = s.expected;
  auto checkList = [&](const std::string& file, size_t n, const char* what) {
    if (file.empty() || s.expected < 0) return;
    const std::string count = file + " has " + std::to_string(n) + " " + what;
    if ((int)n < s.expected) {
      s.limitTo((int)n,
                count + " for " + std::to_string(s.expected) + " frames (" + lengthFrom + ")");
    } else if ((int)n > s.expected && o.frames < 0) {
      s.limitTo(s.expected,
                count + " but " + lengthFrom + " gives " + std::to_string(s.expected) + " frames");
    }
  };
  checkList(o.timesFile, s.times.size(), "time stamps");
  checkList(o.toolPosesFile, s.toolPoses.size(), "tool poses");
  checkList(o.truthFile, s.truth.size(), "true poses");
  for (size_t k = 1; k < s.times.size(); k++) {
    if (s.times[k] < s.times[k - 1]) {
      char buffer[256];
      snprintf(buffer, sizeof buffer, "time stamp %g of frame %d is earlier than %g of frame %d",
               s.times[k], (int)k, s.times[k - 1], (int)k - 1);
      s.limitTo((int)k, o.timesFile + ": " + buffer);
      break;
    }
  }
  return s;
}

// Reads frame i of every camera into frames (grey, checked against the
// cameras' sizes). False at the end of the sequence or at bad input, which
// is recorded in the sequence: the end of the first camera's images ends a
// sequence of open length, any other missing image is bad input.
bool readFrame(int i, const Options& o, const GenericObjectTracker& tracker, Sequence& s,
               std::vector<cv::Mat>& frames) {
  std::string error;
  for (int c = 0; c < tracker.m_nCameras && i < s.inputLimit; c++) {
    const std::string cam = "cam " + std::to_string(c) + ": ";
    const int got = s.sources[c].read(i, frames[c], error);
    if (got < 0) {
      s.limitTo(i, error);
    } else if (got == 0) {
      // An empty first camera is bad input too.
      if (s.expected < 0 && c == 0 && i > 0) return false;
      const std::string more = s.expected >= 0 ? std::to_string(s.expected) + " expected"
                               : c > 0         ? std::string("cam 0 has more")
                                               : std::string("none could be read");
      s.limitTo(i, s.sources[c].isVideo() ? cam + "the video " + o.images[c] + " ends after " +
                                                std::to_string(i) + " frames, " + more
                                          : cam + "missing image " + s.sources[c].describe(i));
    } else if (frames[c].cols != tracker.m_imageWidth[c] ||
               frames[c].rows != tracker.m_imageHeight[c]) {
      s.limitTo(i, cam + s.sources[c].lastName() + " is " + std::to_string(frames[c].cols) + " x " +
                       std::to_string(frames[c].rows) + ", the camera is " +
                       std::to_string(tracker.m_imageWidth[c]) + " x " +
                       std::to_string(tracker.m_imageHeight[c]));
    }
  }
  return i < s.inputLimit;
}

// ---------------------------------------------------------------- tracking loop
struct Outputs {
  std::string csvPath;
  FILE* csv = nullptr;
  std::unique_ptr<OverlayWriter> overlays;
};

Outputs openOutputs(const Options& o, const Sequence& s, GenericObjectTracker& tracker,
                    double objectSize) {
  std::error_code ec;
  fs::create_directories(o.outDir, ec);
  if (!fs::is_directory(o.outDir, ec)) fail("cannot create the output directory " + o.outDir);
  if (o.overlays && !fs::create_directories(o.outDir + "/overlays", ec) && ec)
    fail("cannot create " + o.outDir + "/overlays");
  Outputs out;
  out.csvPath = o.outDir + "/poses.csv";
  out.csv = fopen(out.csvPath.c_str(), "w");
  if (out.csv == nullptr) fail("cannot write " + out.csvPath + ": " + strerror(errno));
  writeCsvHeader(out.csv, o.poseFormat == "matrix", !s.truth.empty());
  if (o.overlays || !o.overlayVideo.empty()) {
    // The video plays at the rate of the time stamps.
    const std::vector<double>& t = s.times;
    const double fps =
        t.size() > 1 && t.back() > t.front() ? (t.size() - 1) / (t.back() - t.front()) : o.fps;
    out.overlays.reset(new OverlayWriter(tracker, o.overlays ? o.outDir + "/overlays" : "",
                                         o.overlayVideo, fps, 0.4 * objectSize));
  }
  return out;
}

std::vector<FrameResult> trackSequence(const Options& o, GenericObjectTracker& tracker, Sequence& s,
                                       Outputs& out) {
  const int nCams = tracker.m_nCameras;
  const unsigned char* imagePtrs[ZOTtracker::ZOT_MAX_CAMERAS] = {};
  const double identity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  double pose[16], velocity[6] = {0, 0, 0, 0, 0, 0}, covariance[36];
  double lastGood[16];
  std::copy(s.initialPose.begin(), s.initialPose.end(), lastGood);
  std::vector<FrameResult> results;
  std::vector<cv::Mat> frames(nCams);
  const bool interactive = isatty(fileno(stdout)) && !o.perFrame && !o.quiet;
  auto lastProgress = std::chrono::steady_clock::now();
  for (int i = 0; i < s.inputLimit && readFrame(i, o, tracker, s, frames); i++) {
    for (int c = 0; c < nCams; c++) imagePtrs[c] = frames[c].ptr<unsigned char>();
    FrameResult r;
    r.frame = i;
    r.time = s.times.empty() ? i / o.fps : s.times[i];
    const double* tool = s.toolPoses.empty() ? identity : s.toolPoses[i].data();
    r.status = tracker.poseEstimation(imagePtrs, r.time, tool, s.initialPose.data(),
                                      o.initialVelocity, r.time, pose, velocity, covariance, o.dof,
                                      i == 0, false, false, o.verbose);
    r.timing = tracker.lastFrameTimes();
    r.quality = tracker.lastFitQuality();
    if (r.status == 0) {
      std::copy(pose, pose + 16, lastGood);
      if (!s.truth.empty()) {
        r.hasError = true;
        zot_sim::poseError(pose, s.truth[i].data(), &r.translError, &r.rotError);
      }
    } else {
      r.message = ZOTtracker::errorMessage(r.status);
    }
    results.push_back(r);
    writeCsvRow(out.csv, r, pose, velocity, o.poseFormat == "matrix", !s.truth.empty());
    if (out.overlays) out.overlays->write(r, lastGood, imagePtrs);
    if (o.perFrame && !o.quiet) {
      printf("%s\n", frameLine(r).c_str());
    } else if (!o.quiet) {
      const auto now = std::chrono::steady_clock::now();
      if (std::chrono::duration<double>(now - lastProgress).count() > (interactive ? 0.2 : 5.0)) {
        int failed = 0;
        for (const FrameResult& x : results) failed += x.status != 0;
        printf("%sframe %d%s, %d failed", interactive ? "\r" : "", i + 1,
               s.expected >= 0 ? (" of " + std::to_string(s.expected)).c_str() : "", failed);
        if (!interactive) printf("\n");
        fflush(stdout);
        lastProgress = now;
      }
    }
  }
  if (interactive) printf("\r%60s\r", "");
  return results;
}

// ---------------------------------------------------------------- summary and outputs
// Writes summary.txt (and shows it unless -q); returns the exit status.
int finish(const Options& o, const Sequence& s, const std::vector<FrameResult>& results,
           double objectSize, double runSeconds, const std::string& csvPath, bool csvOk,
           std::string hint) {
  if (hint.empty() && !results.empty() && results[0].status == ZOTtracker::ZOT_ERR_OUT_OF_SCREEN)
    hint = std::string(
               "the first frame failed with -5 (the model leaves the image at the\n"
               "initial pose): ") +
           kUnitsHint;
  if (!hint.empty()) fprintf(stderr, "zot_track: %s\n", hint.c_str());
  std::string summary = summaryText(results, s.expected >= 0 ? s.expected : (int)results.size(),
                                    objectSize, !s.truth.empty());
  if (!s.truth.empty()) {
    // How far the track started from the truth, to read the first frames' errors against.
    double t = 0.0, r = 0.0;
    zot_sim::poseError(s.initialPose.data(), s.truth[0].data(), &t, &r);
    char line[160];
    snprintf(line, sizeof line, "initial pose: %.3f mm / %.3f deg from the first true pose\n", t,
             r);
    summary += line;
  }
  int status = 0;
  for (const FrameResult& r : results) {
    if (r.status != 0) status = kExitTrackingFailed;
  }
  if (o.maxTranslError >= 0) {
    const ErrorStats e = errorStats(results);
    const double limit =
        o.maxTranslPercent ? o.maxTranslError * objectSize / 100.0 : o.maxTranslError;
    char line[256];
    if (e.n > 0 && (e.meanT > limit || e.meanR > o.maxRotError)) {
      snprintf(line, sizeof line,
               "ACCURACY LIMITS EXCEEDED: mean errors %.3f mm and %.3f deg, limits %.3f mm and "
               "%.3f deg\n",
               e.meanT, e.meanR, limit, o.maxRotError);
      if (status == 0) status = kExitAccuracy;
    } else {
      snprintf(line, sizeof line, "accuracy limits met: mean errors within %.3f mm and %.3f deg\n",
               limit, o.maxRotError);
    }
    summary += line;
  }
  if (!hint.empty()) summary += "HINT: " + hint + "\n";
  if (!s.inputProblem.empty()) {
    summary +=
        "INPUT ERROR at frame " + std::to_string(s.inputLimit) + ": " + s.inputProblem + "\n";
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
  if (!s.inputProblem.empty()) fprintf(stderr, "zot_track: %s\n", s.inputProblem.c_str());
  if (!csvOk || !summaryOk) {
    fprintf(stderr, "zot_track: cannot write %s\n", (!csvOk ? csvPath : summaryPath).c_str());
    return kExitBadInput;
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parseArguments(argc, argv);
  Setup setup = setUp(o);
  Sequence sequence = openSequence(o, setup.tracker->m_nCameras);
  const std::string hint = outOfView(*setup.tracker, setup.model, sequence.initialPose.data());
  if (!hint.empty()) fprintf(stderr, "zot_track: warning: %s\n", hint.c_str());
  Outputs out = openOutputs(o, sequence, *setup.tracker, setup.objectSize);
  const auto start = std::chrono::steady_clock::now();
  const std::vector<FrameResult> results = trackSequence(o, *setup.tracker, sequence, out);
  const double runSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const bool csvOk = fclose(out.csv) == 0;
  out.overlays.reset();
  setup.tracker.reset();
  ZOTtracker::doBigFree();
  return finish(o, sequence, results, setup.objectSize, runSeconds, out.csvPath, csvOk, hint);
}
