// zot_render: renders a synthetic tracking sequence for one or two cameras
// and writes everything zot_track needs to track it: configuration files,
// images (or videos), time stamps, tool poses, the true object poses and the
// initial pose.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>
#include <string>
#include <thread>
#include <vector>

#include "FileParser.h"
#include "GenericObjectTracker.h"
#include "PoolSizes.h"
#include "command_line.h"
#include "memory_handling.h"
#include "scene_config.h"
#include "scene_effects.h"
#include "sequence.h"
#include "stdout_capture.h"

namespace fs = std::filesystem;

namespace {

struct Options {
  std::string configDir = "data", cameraFile = "camera.txt", trackerFile = "tracker_demo.txt",
              modelFile = "model.txt", outDir, format = "png";
  bool noDistortion = false, video = false, quiet = false;
  double scale = 1.0, offsetTransl = 0.0, offsetRotDeg = 0.0;
  int jobs = 0, dropFirst = 0, dropCount = 0;
  double modelScale = 1.0;
  zot_sim::SequenceSpec plan;
  zot_sim::SceneEffects effects;
};

[[noreturn]] void fail(const std::string& message) {
  fprintf(stderr, "zot_render: %s\n", message.c_str());
  exit(1);
}

const char* const kDescription =
    "Renders a synthetic sequence of an object seen by the cameras of a robot's\n"
    "tool and writes it to OUTPUT_DIR as an input of zot_track:\n"
    "  camera.txt, tracker.txt, model.txt and the model's body files\n"
    "  cam0/000000.png ... (one directory per camera)\n"
    "  times.txt           time stamp of every frame [s], one per line\n"
    "  tool_poses.txt      tool pose in the world, 16 numbers per line\n"
    "  truth_poses.txt     true object pose in the tool frame, 16 numbers per line\n"
    "  initial_pose.txt    object pose in the tool frame to start tracking from\n"
    "  sequence.txt        how the sequence was made and how to track it";

const char* const kFooter =
    "Exit status: 0 on success, 1 on bad input or a failed write, 2 on bad arguments.";

// Parses the command line; prints the help and exits 0 for -h, prints the
// reason and exits 2 for bad arguments.
Options parseArguments(int argc, char** argv) {
  Options o;
  std::string motion = "both", background = "clutter";
  std::vector<double> offset;
  std::vector<int> drop;
  int seed = 1;
  CLI::App app(kDescription, "zot_render");
  app.footer(kFooter);
  app.get_formatter()->column_width(30);
  const std::string conf = "configuration", seq = "sequence", img = "images", other = "other";
  // An option with its value's name, in its group of the help, with or
  // without its default shown.
  auto option = [&app](const char* name, auto& value, const char* help, const char* type,
                       const std::string& group, bool showDefault = true) {
    CLI::Option* opt = app.add_option(name, value, help)->type_name(type)->group(group);
    return showDefault ? opt->capture_default_str() : opt;
  };
  option("--config", o.configDir, "directory of the input files", "DIR", conf);
  option("--camera", o.cameraFile, "camera file in DIR", "FILE", conf);
  option("--tracker", o.trackerFile, "tracker file in DIR, copied as it is", "FILE", conf);
  option("--model", o.modelFile, "model file in DIR", "FILE", conf);
  app.add_flag("--no-distortion", o.noDistortion,
               "cameras without lens distortion (images and camera.txt)")
      ->group(conf);
  option("--scale", o.scale,
         "scale image sizes and intrinsics by S (0.5: 640 x 480 becomes 320 x 240)", "S", conf,
         false)
      ->check(CLI::Range(0.05, 8.0));
  option("--frames", o.plan.frames, "number of frames", "N", seq)->check(CLI::Range(1, 1000000));
  option("--fps", o.plan.fps, "frame rate; frame i has the time stamp i / F s", "F", seq)
      ->check(CLI::Range(0.01, 100000.0));
  option("--motion", motion, "what moves: none, object, tool or both", "M", seq)
      ->check(CLI::IsMember({"none", "object", "tool", "both"}));
  option("--speed", o.plan.speed, "speed factor of the trajectory", "S", seq)
      ->check(CLI::Range(0.0, 100.0));
  option("--elevation", o.plan.elevationDeg, "viewing direction above the table [deg]", "DEG", seq)
      ->check(CLI::Range(10.0, 89.0));
  option("--azimuth", o.plan.azimuthDeg,
         "viewing direction about the vertical [deg]; 0 looks along +y, 90 along -x", "DEG", seq)
      ->check(CLI::Range(-360.0, 360.0));
  option("--distance", o.plan.viewDistance,
         "tool-to-object distance in model units (default: the object's diagonal "
         "spans about 38 % of the image width)",
         "D", seq, false)
      ->check(CLI::Range(1e-6, 1e9));
  option("--initial-offset", offset,
         "T R: start tracking from the true first pose moved by T model units and "
         "turned by R degrees (default: 0 0)",
         "T R", seq, false)
      ->expected(2);
  option("--background", background,
         "plain, clutter or textured (clutter under a wavy grain and a printed grid)", "B", img)
      ->check(CLI::IsMember({"plain", "clutter", "textured"}));
  option("--noise", o.plan.noise, "sensor noise, grey levels", "SIGMA", img)
      ->check(CLI::Range(0.0, 100.0));
  option("--blur", o.plan.blur, "Gaussian blur, pixels", "SIGMA", img)
      ->check(CLI::Range(0.0, 20.0));
  option("--supersampling", o.plan.supersampling, "N x N samples per pixel at object edges", "N",
         img)
      ->check(CLI::Range(1, 16));
  option("--seed", seed, "clutter layout and noise", "N", img)->check(CLI::Range(0, 2000000000));
  option("--format", o.format, "png, pgm or jpg", "F", img)
      ->check(CLI::IsMember({"png", "pgm", "jpg"}));
  app.add_flag("--video", o.video, "write camN.avi (Motion-JPEG) instead of image files")
      ->group(img);
  const std::string real = "real scenes (all off unless asked)";
  app.add_flag("--texture", o.effects.facePrint,
               "printed texture on the object's faces: rows of text-like strokes, a band and a "
               "blob on every large face, laid out from --seed (edges that are not model edges)")
      ->group(real);
  option("--occluder", o.effects.occluderWidth,
         "a bar (a gripper finger) fixed to the tool, W object sizes wide where it "
         "crosses the object, in front of it in a grey of its own, sweeps across the "
         "object and back once over the sequence",
         "W", real, false)
      ->check(CLI::Range(0.0, 2.0));
  option("--lighting", o.effects.lighting,
         "lighting changes over the sequence: the gain swings between 1 - A and 1 + A "
         "and a soft highlight of 150 A grey levels moves across the image",
         "A", real, false)
      ->check(CLI::Range(0.0, 1.0));
  option("--motion-blur", o.effects.exposure,
         "motion blur: every frame averages 5 renders over an exposure of about E frame "
         "periods centred on its time stamp",
         "E", real, false)
      ->check(CLI::Range(0.0, 1.0));
  option("--drop-frames", drop,
         "a camera stall: frames FIRST to FIRST + COUNT - 1 of the --frames are left out "
         "(images, time stamps and poses); the rest are numbered on",
         "FIRST COUNT", real, false)
      ->expected(2);
  option("--model-scale", o.modelScale,
         "a wrong model: the model files written for tracking are scaled by S about the "
         "model's origin; the images show the true object",
         "S", real, false)
      ->check(CLI::Range(0.5, 2.0));
  option("--jobs", o.jobs, "frames rendered in parallel (default: number of cores)", "N", other,
         false)
      ->check(CLI::Range(1, 256));
  app.add_flag("-q,--quiet", o.quiet, "print errors only")->group(other);
  app.add_option("OUTPUT_DIR", o.outDir, "where the sequence goes")->type_name("DIR")->required();
  zot_sim::parseCommandLine(app, argc, argv, "zot_render");
  if (!offset.empty()) {
    if (!(offset[0] >= 0.0)) zot_sim::usageError("zot_render", "--initial-offset: T must be >= 0");
    if (!(offset[1] >= 0.0 && offset[1] <= 180.0))
      zot_sim::usageError("zot_render", "--initial-offset: R must be from 0 to 180 degrees");
    o.offsetTransl = offset[0];
    o.offsetRotDeg = offset[1];
  }
  if (!drop.empty()) {
    if (drop[0] < 1 || drop[1] < 1 || drop[0] + drop[1] >= o.plan.frames)
      zot_sim::usageError("zot_render",
                          "--drop-frames: FIRST >= 1 and COUNT >= 1 must leave frames after the "
                          "stall");
    o.dropFirst = drop[0];
    o.dropCount = drop[1];
  }
  zot_sim::parseMotion(motion, o.plan.motion);
  o.plan.clutter = background != "plain";
  o.effects.tableTexture = background == "textured";
  o.plan.seed = (uint64_t)seed;
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
// The parser's calibration echo is held back unless `echo` (or a failure).
void checkConfiguration(const std::string& directory, bool echo) {
  std::vector<double> array(zot_sim::kSetupArrayCapacity);
  int count = 0;
  ZOTtracker::FileParser parser;
  zot_sim::StdoutCapture held(!echo);
  const int parsed =
      parser.parseAllFiles(directory.c_str(), "camera.txt", "tracker.txt", "model.txt", count,
                           array.data(), zot_sim::kSetupArrayCapacity);
  held.end(parsed != 0);
  if (parsed != 0) fail("the configuration written to " + directory + " does not parse");
  size_t sizes[ZOTtracker::ZOT_N_POOLS];
  if (ZOTtracker::computePoolSizes(count, array.data(), ZOTtracker::ZOT_POOL_MARGIN, sizes) != 0)
    fail("the configuration written to " + directory + " is refused (see the message above)");
  ZOTtracker::reservePools(sizes);
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
  // calibration goes to standard output once, unless -q.
  std::vector<zot_sim::CameraConfig> cameras;
  zot_sim::ModelConfig model;
  const std::string hint =
      o.configDir == "data" ? " (run from the repository or give --config)" : "";
  zot_sim::StdoutCapture echo(o.quiet);
  const int cameraCode = zot_sim::loadCameraFile(o.configDir, o.cameraFile, cameras, error);
  echo.end(cameraCode != 0);
  if (cameraCode != 0) fail(error + hint);
  if (zot_sim::loadModelFile(o.configDir, o.modelFile, model, error) != 0) fail(error + hint);
  for (zot_sim::CameraConfig& c : cameras) {
    if (o.noDistortion) std::fill(c.dist, c.dist + 5, 0.0);
    if (o.scale != 1.0) scaleCamera(c, o.scale);
  }
  std::error_code ec;
  fs::create_directories(o.outDir, ec);
  if (!fs::is_directory(o.outDir)) fail("cannot create the directory " + o.outDir);
  const std::string out = o.outDir + "/";
  if (!zot_sim::writeCameraFile(out + "camera.txt", cameras, "cameras of a rendered sequence",
                                error) ||
      !fs::copy_file(fs::path(o.configDir) / o.trackerFile, out + "tracker.txt",
                     fs::copy_options::overwrite_existing, ec) ||
      !zot_sim::writeModelFile(
          o.outDir, "model.txt",
          o.modelScale != 1.0 ? zot_sim::scaledModel(model, o.modelScale) : model, error))
    fail(error);

  checkConfiguration(o.outDir, false);

  const zot_sim::EffectsRenderer scene(cameras, model, o.plan, o.effects);
  const zot_sim::SequenceRenderer& renderer = scene.sequence();
  for (const std::string& w : renderer.warnings())
    fprintf(stderr, "zot_render: warning: %s\n", w.c_str());

  // Poses and time stamps of the frames kept; frame k of the output is
  // frame kept[k] of the sequence.
  std::vector<int> kept;
  for (int i = 0; i < o.plan.frames; i++) {
    if (i < o.dropFirst || i >= o.dropFirst + o.dropCount) kept.push_back(i);
  }
  const int n = (int)kept.size();
  std::vector<double> times(n);
  std::vector<zot_sim::Pose> toolPoses(n), truth(n);
  for (int i = 0; i < n; i++) {
    times[i] = renderer.time(kept[i]);
    renderer.poses(kept[i], toolPoses[i].data(), nullptr, truth[i].data());
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
    } else if (fs::create_directories(out + "cam" + std::to_string(c), ec), ec) {
      fail("cannot create " + out + "cam" + std::to_string(c));
    }
  }
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::vector<std::vector<unsigned char>>> batch(o.jobs);
  std::vector<std::string> writeErrors(o.jobs);
  std::vector<double> hidden(n, 0.0);
  for (int first = 0; first < n; first += o.jobs) {
    const int count = std::min(o.jobs, n - first);
    std::vector<std::thread> workers;
    for (int k = 0; k < count; k++) {
      workers.emplace_back([&, k] {
        const int frame = first + k;
        scene.render(kept[frame], batch[k]);
        if (o.effects.occluderWidth > 0.0) hidden[frame] = scene.hiddenOutline(kept[frame]);
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
  // What makes the sequence hard, measured.
  double meanMotion = 0.0, maxMotion = 0.0, stall = 0.0;
  for (int k = 1; k < n; k++) {
    const double moved = scene.vertexMotion(kept[k - 1], kept[k]);
    if (kept[k] - kept[k - 1] > 1) {
      stall = moved;
      continue;
    }
    meanMotion += moved / std::max(1, n - 1 - (o.dropCount > 0));
    maxMotion = std::max(maxMotion, moved);
  }
  char facts[512];
  int used = snprintf(facts, sizeof facts,
                      "Image motion of the model's vertices in cam 0: mean %.1f, max %.1f px "
                      "per frame\n",
                      meanMotion, maxMotion);
  if (o.dropCount > 0)
    used += snprintf(facts + used, sizeof facts - used,
                     "Camera stall: frames %d to %d left out; the vertices jump up to %.1f px\n",
                     o.dropFirst, o.dropFirst + o.dropCount - 1, stall);
  if (o.effects.occluderWidth > 0.0)
    snprintf(facts + used, sizeof facts - used,
             "Occluder: hides at most %.0f %% of the object's outline in cam 0\n",
             100.0 * *std::max_element(hidden.begin(), hidden.end()));

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
          "%g\n%sTrack it with:\n%s\n",
          n, o.plan.fps, nCams, cameras[0].width, cameras[0].height, renderer.objectSize(),
          renderer.viewDistance(), facts, command.c_str());
  if (fclose(f) != 0) fail("cannot write " + out + "sequence.txt");
  if (!o.quiet) {
    if (isatty(fileno(stdout))) printf("\n");
    printf("rendered %d frames of %d camera(s) into %s in %.1f s\n%strack them with:\n  %s\n", n,
           nCams, o.outDir.c_str(), seconds, facts, command.c_str());
  }
  return 0;
}
