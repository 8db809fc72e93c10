// zot_render: renders a synthetic tracking sequence for one or two cameras
// and writes everything zot_track needs to track it: configuration files,
// images (or videos), time stamps, tool poses, the true object poses and the
// initial pose.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>
#include <string>
#include <thread>
#include <vector>

#include "FileParser.h"
#include "GenericObjectTracker.h"
#include "memory_handling.h"
#include "scene_config.h"
#include "sequence.h"

namespace {

const char* const kUsage =
    "usage: zot_render [options] OUTPUT_DIR\n"
    "\n"
    "Renders a synthetic sequence of an object seen by the cameras of a robot's\n"
    "tool and writes it to OUTPUT_DIR as an input of zot_track:\n"
    "  camera.txt, tracker.txt, model.txt and the model's body files\n"
    "  cam0/000000.png ... (one directory per camera)\n"
    "  times.txt           time stamp of every frame [s], one per line\n"
    "  tool_poses.txt      tool pose in the world, 16 numbers per line\n"
    "  truth_poses.txt     true object pose in the tool frame, 16 numbers per line\n"
    "  initial_pose.txt    object pose in the tool frame to start tracking from\n"
    "  sequence.txt        how the sequence was made and how to track it\n"
    "\n"
    "configuration:\n"
    "  --config DIR        directory of the input files (default: data)\n"
    "  --camera FILE       camera file in DIR (default: camera_stereo.txt)\n"
    "  --tracker FILE      tracker file in DIR, copied as it is (default: tracker_demo.txt)\n"
    "  --model FILE        model file in DIR (default: model_chamfered_box.txt)\n"
    "  --no-distortion     cameras without lens distortion (images and camera.txt)\n"
    "  --scale S           scale image sizes and intrinsics by S (0.5: 640 x 480\n"
    "                      becomes 320 x 240)\n"
    "sequence:\n"
    "  --frames N          number of frames (default: 150)\n"
    "  --fps F             frame rate; frame i has the time stamp i / F s (default: 30)\n"
    "  --motion M          what moves: none, object, tool or both (default: both)\n"
    "  --speed S           speed factor of the trajectory (default: 1)\n"
    "  --elevation DEG     viewing direction above the table (default: 50)\n"
    "  --azimuth DEG       viewing direction about the vertical; 0 looks along +y,\n"
    "                      90 along -x (default: 30)\n"
    "  --distance D        tool-to-object distance in model units (default: the\n"
    "                      object's diagonal spans about 38 % of the image width)\n"
    "  --initial-offset T R  start tracking from the true first pose moved by T\n"
    "                      model units and turned by R degrees (default: 0 0)\n"
    "images:\n"
    "  --background B      plain or clutter (default: clutter)\n"
    "  --noise SIGMA       sensor noise, grey levels (default: 2)\n"
    "  --blur SIGMA        Gaussian blur, pixels (default: 0.6)\n"
    "  --supersampling N   N x N samples per pixel at object edges (default: 2)\n"
    "  --seed N            clutter layout and noise (default: 1)\n"
    "  --format F          png, pgm or jpg (default: png)\n"
    "  --video             write camN.avi (Motion-JPEG) instead of image files\n"
    "other:\n"
    "  --jobs N            frames rendered in parallel (default: number of cores)\n"
    "  -q, --quiet         print errors only\n"
    "  -h, --help          this text\n"
    "\n"
    "Exit status: 0 on success, 1 on bad input or a failed write, 2 on bad arguments.\n";

struct Options {
  std::string configDir = "data", cameraFile = "camera_stereo.txt",
              trackerFile = "tracker_demo.txt", modelFile = "model_chamfered_box.txt", outDir,
              format = "png";
  bool noDistortion = false, video = false, quiet = false;
  double scale = 1.0, offsetTransl = 0.0, offsetRotDeg = 0.0;
  int jobs = 0;
  zot_sim::SequenceSpec plan;
};

[[noreturn]] void usageError(const std::string& message) {
  fprintf(stderr, "zot_render: %s\n(zot_render --help lists the options)\n", message.c_str());
  exit(2);
}

[[noreturn]] void fail(const std::string& message) {
  fprintf(stderr, "zot_render: %s\n", message.c_str());
  exit(1);
}

double numberArg(const std::string& option, const char* text, double lowest, double highest) {
  char* end = nullptr;
  const double v = std::strtod(text, &end);
  if (end == text || *end != '\0' || !(v >= lowest && v <= highest)) {
    usageError(option + " needs a number from " + std::to_string(lowest) + " to " +
               std::to_string(highest) + ", got \"" + text + "\"");
  }
  return v;
}

int intArg(const std::string& option, const char* text, int lowest, int highest) {
  const double v = numberArg(option, text, lowest, highest);
  if (v != std::floor(v)) usageError(option + " needs a whole number, got \"" + text + "\"");
  return (int)v;
}

Options parseArguments(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; i++) {
    const std::string a = argv[i];
    auto value = [&](int k = 1) -> const char* {
      if (i + k >= argc) usageError(a + " needs a value");
      return argv[i + k];
    };
    if (a == "-h" || a == "--help") {
      fputs(kUsage, stdout);
      exit(0);
    } else if (a == "--config") {
      o.configDir = value();
      i++;
    } else if (a == "--camera") {
      o.cameraFile = value();
      i++;
    } else if (a == "--tracker") {
      o.trackerFile = value();
      i++;
    } else if (a == "--model") {
      o.modelFile = value();
      i++;
    } else if (a == "--no-distortion") {
      o.noDistortion = true;
    } else if (a == "--scale") {
      o.scale = numberArg(a, value(), 0.05, 8.0);
      i++;
    } else if (a == "--frames") {
      o.plan.frames = intArg(a, value(), 1, 1000000);
      i++;
    } else if (a == "--fps") {
      o.plan.fps = numberArg(a, value(), 0.01, 100000.0);
      i++;
    } else if (a == "--motion") {
      if (!zot_sim::parseMotion(value(), o.plan.motion))
        usageError("--motion takes none, object, tool or both");
      i++;
    } else if (a == "--speed") {
      o.plan.speed = numberArg(a, value(), 0.0, 100.0);
      i++;
    } else if (a == "--elevation") {
      o.plan.elevationDeg = numberArg(a, value(), 10.0, 89.0);
      i++;
    } else if (a == "--azimuth") {
      o.plan.azimuthDeg = numberArg(a, value(), -360.0, 360.0);
      i++;
    } else if (a == "--distance") {
      o.plan.viewDistance = numberArg(a, value(), 1e-6, 1e9);
      i++;
    } else if (a == "--initial-offset") {
      o.offsetTransl = numberArg(a, value(1), 0.0, 1e9);
      o.offsetRotDeg = numberArg(a, value(2), 0.0, 180.0);
      i += 2;
    } else if (a == "--background") {
      const std::string b = value();
      if (b != "plain" && b != "clutter") usageError("--background takes plain or clutter");
      o.plan.clutter = b == "clutter";
      i++;
    } else if (a == "--noise") {
      o.plan.noise = numberArg(a, value(), 0.0, 100.0);
      i++;
    } else if (a == "--blur") {
      o.plan.blur = numberArg(a, value(), 0.0, 20.0);
      i++;
    } else if (a == "--supersampling") {
      o.plan.supersampling = intArg(a, value(), 1, 16);
      i++;
    } else if (a == "--seed") {
      o.plan.seed = (uint64_t)intArg(a, value(), 0, 2000000000);
      i++;
    } else if (a == "--format") {
      o.format = value();
      if (o.format != "png" && o.format != "pgm" && o.format != "jpg")
        usageError("--format takes png, pgm or jpg");
      i++;
    } else if (a == "--video") {
      o.video = true;
    } else if (a == "--jobs") {
      o.jobs = intArg(a, value(), 1, 256);
      i++;
    } else if (a == "-q" || a == "--quiet") {
      o.quiet = true;
    } else if (!a.empty() && a[0] == '-') {
      usageError("unknown option " + a);
    } else if (o.outDir.empty()) {
      o.outDir = a;
    } else {
      usageError("more than one output directory (" + o.outDir + ", " + a + ")");
    }
  }
  if (o.outDir.empty()) usageError("no output directory given");
  if (o.jobs == 0) o.jobs = std::max(1u, std::thread::hardware_concurrency());
  return o;
}

// Scales a camera as if its sensor had `s` times the resolution: pixel
// centres at integer coordinates stay consistent ((c + 0.5) s - 0.5).
void scaleCamera(zot_sim::CameraConfig& c, double s) {
  c.width = std::max(2, (int)std::lround(c.width * s));
  c.height = std::max(2, (int)std::lround(c.height * s));
  c.fx *= s;
  c.fy *= s;
  c.skew *= s;
  c.cx = (c.cx + 0.5) * s - 0.5;
  c.cy = (c.cy + 0.5) * s - 0.5;
  for (std::vector<double>& m : c.masks) {
    for (double& x : m) x = (x + 0.5) * s - 0.5;
  }
}

// The true first pose moved by `transl` along a fixed oblique direction and
// turned by `rotDeg` about a fixed oblique axis of the object.
zot_sim::Pose offsetPose(const zot_sim::Pose& T, double transl, double rotDeg) {
  const double axis[3] = {0.48, -0.64, 0.6}, dir[3] = {-0.6, 0.48, 0.64};
  const double a = rotDeg * 3.141592653589793 / 180.0, c = std::cos(a), s = std::sin(a);
  // Rodrigues: R = c I + (1 - c) a a^T + s [a]x
  const double cross[9] = {0.0, -axis[2], axis[1], axis[2], 0.0, -axis[0], -axis[1], axis[0], 0.0};
  double R[9];
  for (int i = 0; i < 3; i++) {
    for (int j = 0; j < 3; j++) {
      R[3 * i + j] = (i == j ? c : 0.0) + (1 - c) * axis[i] * axis[j] + s * cross[3 * i + j];
    }
  }
  zot_sim::Pose out = T;
  for (int i = 0; i < 3; i++) {
    for (int j = 0; j < 3; j++) {
      out[4 * i + j] = T[4 * i] * R[j] + T[4 * i + 1] * R[3 + j] + T[4 * i + 2] * R[6 + j];
    }
    out[4 * i + 3] = T[4 * i + 3] + transl * dir[i];
  }
  return out;
}

// Sets a tracker up from the files just written, exactly as zot_track will,
// so that a configuration the library refuses is reported here.
void checkConfiguration(const std::string& directory) {
  std::vector<double> array(zot_sim::kSetupArrayCapacity);
  int count = 0;
  ZOTtracker::FileParser parser;
  if (parser.parseAllFiles(directory.c_str(), "camera.txt", "tracker.txt", "model.txt", count,
                           array.data(), zot_sim::kSetupArrayCapacity) != 0)
    fail("the configuration written to " + directory + " does not parse");
  size_t sizes[7];
  if (!zot_sim::poolSizesForSetup(array.data(), count, sizes))
    fail("the configuration written to " + directory + " has no usable camera");
  ZOTtracker::doBigMalloc(sizes[0], sizes[1], sizes[2], sizes[3], sizes[4], sizes[5], sizes[6]);
  int rc;
  {
    std::unique_ptr<ZOTtracker::GenericObjectTracker> tracker(
        new ZOTtracker::GenericObjectTracker());
    rc = tracker->setupFromGlobalArray(count, array.data());
  }
  ZOTtracker::doBigFree();
  if (rc != 0) fail("the tracker refuses the configuration written to " + directory);
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parseArguments(argc, argv);
  std::string error;

  // Configuration through the library's parser; its echo of the
  // calibration goes to standard output.
  std::vector<zot_sim::CameraConfig> cameras;
  zot_sim::ModelConfig model;
  const std::string hint =
      o.configDir == "data" ? " (run from the repository or give --config)" : "";
  if (zot_sim::loadCameraFile(o.configDir, o.cameraFile, cameras, error) != 0) fail(error + hint);
  if (zot_sim::loadModelFile(o.configDir, o.modelFile, model, error) != 0) fail(error + hint);
  for (zot_sim::CameraConfig& c : cameras) {
    if (o.noDistortion) std::fill(c.dist, c.dist + 5, 0.0);
    if (o.scale != 1.0) scaleCamera(c, o.scale);
  }
  if (!zot_sim::makeDirectories(o.outDir)) fail("cannot create the directory " + o.outDir);
  const std::string out = o.outDir + "/";
  if (!zot_sim::writeCameraFile(out + "camera.txt", cameras, "cameras of a rendered sequence",
                                error) ||
      !zot_sim::copyFile(o.configDir + "/" + o.trackerFile, out + "tracker.txt", error) ||
      !zot_sim::writeModelFile(o.outDir, "model.txt", model, error))
    fail(error);

  checkConfiguration(o.outDir);

  const zot_sim::SequenceRenderer renderer(cameras, model, o.plan);
  for (const std::string& w : renderer.warnings())
    fprintf(stderr, "zot_render: warning: %s\n", w.c_str());

  // Poses and time stamps.
  const int n = o.plan.frames;
  std::vector<double> times(n);
  std::vector<zot_sim::Pose> toolPoses(n), truth(n);
  for (int i = 0; i < n; i++) {
    times[i] = renderer.time(i);
    renderer.poses(i, toolPoses[i].data(), nullptr, truth[i].data());
  }
  const std::vector<zot_sim::Pose> initial = {offsetPose(truth[0], o.offsetTransl, o.offsetRotDeg)};
  if (!zot_sim::writeNumberFile(out + "times.txt", times, "time stamp of every frame [s]", error) ||
      !zot_sim::writePoseFile(out + "tool_poses.txt", toolPoses,
                              "tool pose in the world frame, row-major 4x4, one frame per line",
                              error) ||
      !zot_sim::writePoseFile(out + "truth_poses.txt", truth,
                              "true object pose in the tool frame, row-major 4x4", error) ||
      !zot_sim::writePoseFile(out + "initial_pose.txt", initial,
                              "object pose in the tool frame to start tracking from", error))
    fail(error);

  // Images: frames in batches of `jobs`, each frame on its own thread.
  const int nCams = (int)cameras.size();
  std::vector<cv::VideoWriter> videos(nCams);
  for (int c = 0; c < nCams; c++) {
    if (o.video) {
      const std::string path = out + "cam" + std::to_string(c) + ".avi";
      videos[c].open(path, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), o.plan.fps,
                     cv::Size(cameras[c].width, cameras[c].height), false);
      if (!videos[c].isOpened()) fail("cannot write the video " + path);
    } else if (!zot_sim::makeDirectories(out + "cam" + std::to_string(c))) {
      fail("cannot create " + out + "cam" + std::to_string(c));
    }
  }
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::vector<std::vector<unsigned char>>> batch(o.jobs);
  std::vector<std::string> writeErrors(o.jobs);
  for (int first = 0; first < n; first += o.jobs) {
    const int count = std::min(o.jobs, n - first);
    std::vector<std::thread> workers;
    for (int k = 0; k < count; k++) {
      workers.emplace_back([&, k] {
        const int frame = first + k;
        renderer.render(frame, batch[k]);
        if (o.video) return;
        char name[64];
        for (int c = 0; c < nCams; c++) {
          snprintf(name, sizeof name, "cam%d/%06d.%s", c, frame, o.format.c_str());
          const cv::Mat image(cameras[c].height, cameras[c].width, CV_8UC1, batch[k][c].data());
          std::vector<int> params;
          if (o.format == "png") params = {cv::IMWRITE_PNG_COMPRESSION, 1};
          if (o.format == "jpg") params = {cv::IMWRITE_JPEG_QUALITY, 95};
          if (!cv::imwrite(out + name, image, params))
            writeErrors[k] = "cannot write " + out + name;
        }
      });
    }
    for (std::thread& t : workers) t.join();
    for (int k = 0; k < count; k++) {
      if (!writeErrors[k].empty()) fail(writeErrors[k]);
      for (int c = 0; c < nCams && o.video; c++) {
        videos[c].write(cv::Mat(cameras[c].height, cameras[c].width, CV_8UC1, batch[k][c].data()));
      }
    }
    if (!o.quiet && isatty(fileno(stdout))) {
      printf("\rrendered %d / %d frames", first + count, n);
      fflush(stdout);
    }
  }
  for (cv::VideoWriter& v : videos) v.release();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  // How to track it.
  std::string images;
  for (int c = 0; c < nCams; c++) {
    images += o.video ? " --images " + out + "cam" + std::to_string(c) + ".avi"
                      : " --images " + out + "cam" + std::to_string(c) + "/%06d." + o.format;
  }
  const std::string command = "zot_track --config " + o.outDir + images + " --times " + out +
                              "times.txt --tool-poses " + out + "tool_poses.txt --initial-pose " +
                              out + "initial_pose.txt --truth " + out + "truth_poses.txt";
  FILE* f = fopen((out + "sequence.txt").c_str(), "w");
  if (f == nullptr) fail("cannot write " + out + "sequence.txt");
  fprintf(f, "Rendered by:");
  for (int i = 0; i < argc; i++) fprintf(f, " %s", argv[i]);
  fprintf(f,
          "\n%d frames at %g fps, %d camera(s) of %d x %d, object size %g, viewing distance "
          "%g\nTrack it with:\n%s\n",
          n, o.plan.fps, nCams, cameras[0].width, cameras[0].height, renderer.objectSize(),
          renderer.viewDistance(), command.c_str());
  if (fclose(f) != 0) fail("cannot write " + out + "sequence.txt");
  if (!o.quiet) {
    if (isatty(fileno(stdout))) printf("\n");
    printf("rendered %d frames of %d camera(s) into %s in %.1f s\ntrack them with:\n  %s\n", n,
           nCams, o.outDir.c_str(), seconds, command.c_str());
  }
  return 0;
}
