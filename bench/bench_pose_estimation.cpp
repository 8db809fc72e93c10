// Whole frames: GenericObjectTracker::poseEstimation on a rendered 640 x 480
// sequence of the demo's chamfered box (cluttered table, noise, blur, lens
// distortion), mono and stereo, configured from data/ with the demo's
// tracking parameters. Each benchmark iteration tracks the next frame of
// the sequence (the track restarts at the first frame after the last), so
// the times are those of a real track: prediction, undistortion, edges and
// the Gauss-Newton loop with its re-sampling. The sampling step is set so
// that each camera sees about 150 contour samples (step 8), and, as a second
// variant, to the demo's step 4 (about twice as many).
//
// Every configuration runs on whole images and, beside it, with the speed
// modes (the region of interest: edges only where the model can be; the
// lens in the projection: no undistortion), set on the tracker after its
// set-up. The region's claim that cost follows the
// object, not the image, is measured on the same scene seen by a 1920 x 1440
// camera of the same focal length and lens (the object as large in pixels).
//
// Counters: the median per-frame milliseconds of undistortion, edge
// detection and the Gauss-Newton loop as the tracker reports them
// (lastFrameTimes), the mean contour samples per camera, and the frames
// that failed (0 expected).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "FileParser.h"
#include "GenericObjectTracker.h"
#include "IO.h"
#include "PoolSizes.h"
#include "memory_handling.h"
#include "scene_config.h"
#include "sequence.h"

using namespace ZOTtracker;

namespace {

constexpr int kFrames = 24;

std::string dataDir() {
  const std::string here = __FILE__;
  return here.substr(0, here.rfind('/')) + "/../data";
}

// A configured tracker and its rendered sequence; one per camera file,
// tracker file and sampling step, built on first use and kept for the process.
struct Setup {
  std::vector<double> array;
  std::vector<std::vector<std::vector<unsigned char>>> images;  // frame, camera
  std::vector<zot_sim::Pose> tool, truth;
  std::vector<double> times;
  bool ok = false;
};

// Widens every camera's image by `scale` around the same principal point
// offset: the object keeps its size and place relative to the image centre.
void widenImages(std::vector<double>& array, int scale) {
  int cursor = 1;
  const int nCameras = (int)array[0];
  for (int c = 0; c < nCameras; c++) {
    double* cam = array.data() + cursor;  // width, height, near, far, fx, fy, cx, cy, ...
    cam[6] += (scale - 1) * cam[0] / 2;
    cam[7] += (scale - 1) * cam[1] / 2;
    cam[0] *= scale;
    cam[1] *= scale;
    cursor += 2 + 2 + 5 + 5 + 12;
    const int nMasks = (int)array[cursor++];
    for (int m = 0; m < nMasks; m++) cursor += 1 + 2 * (int)array[cursor];
  }
}

Setup& setupFor(const std::string& cameraFile, const char* trackerFile, int samplingStep,
                int scale) {
  static std::map<std::string, Setup> setups;
  const std::string key = cameraFile + "/" + trackerFile + "/" + std::to_string(samplingStep) +
                          "/" + std::to_string(scale);
  Setup& s = setups[key];
  if (s.ok) return s;
  const std::string data = dataDir();
  s.array.resize(zot_sim::kSetupArrayCapacity);
  int count = 0;
  FileParser parser;
  if (parser.parseAllFiles(data.c_str(), cameraFile.c_str(), trackerFile, "model_chamfered_box.txt",
                           count, s.array.data(), zot_sim::kSetupArrayCapacity) != 0)
    return s;
  s.array.resize(count);
  widenImages(s.array, scale);
  std::vector<zot_sim::CameraConfig> cameras;
  zot_sim::ModelConfig model;
  std::string error;
  int cursor = 0;
  if (!zot_sim::decodeCameraSection(s.array.data(), count, cursor, cameras, error)) return s;
  s.array[cursor + 2] = samplingStep;  // third tracking parameter
  std::vector<double> tracking;
  if (!zot_sim::decodeSetupArray(s.array.data(), count, cameras, tracking, model, error)) return s;

  zot_sim::SequenceSpec plan;
  plan.frames = kFrames;
  // The renderer would frame the object to the wider image: keep it where
  // the scale-1 camera sees it.
  if (scale > 1)
    plan.viewDistance = scale * zot_sim::SequenceRenderer(cameras, model, plan).viewDistance();
  const zot_sim::SequenceRenderer renderer(cameras, model, plan);
  s.images.resize(kFrames);
  s.tool.resize(kFrames);
  s.truth.resize(kFrames);
  for (int i = 0; i < kFrames; i++) {
    s.times.push_back(renderer.time(i));
    renderer.poses(i, s.tool[i].data(), nullptr, s.truth[i].data());
  }
  std::vector<std::thread> workers;
  const int jobs = 2;
  for (int j = 0; j < jobs; j++) {
    workers.emplace_back([&, j] {
      for (int i = j; i < kFrames; i += jobs) renderer.render(i, s.images[i]);
    });
  }
  for (std::thread& t : workers) t.join();
  s.ok = true;
  return s;
}

void BM_PoseEstimation(benchmark::State& state, const char* cameraFile, const char* trackerFile,
                       int samplingStep, int region, int scale = 1) {
  Setup& s = setupFor(cameraFile, trackerFile, samplingStep, scale);
  if (!s.ok) {
    state.SkipWithError("cannot read the configuration in data/ or render the sequence");
    return;
  }
  size_t pools[ZOT_N_POOLS];
  computePoolSizes((int)s.array.size(), s.array.data(), ZOT_POOL_MARGIN, pools);
  reservePools(pools);
  {
    std::unique_ptr<GenericObjectTracker> tracker(new GenericObjectTracker());
    if (tracker->setupFromGlobalArray((int)s.array.size(), s.array.data()) != 0) {
      state.SkipWithError("the tracker refuses the configuration");
    } else {
      tracker->m_trackingParams.m_robust.regionOfInterest = region > 0;
      tracker->m_trackingParams.m_robust.lensInProjection = region > 1;
      const int nCams = tracker->m_nCameras;
      const double zero[6] = {0, 0, 0, 0, 0, 0}, dof[6] = {1, 1, 1, 1, 1, 1};
      double pose[16], velocity[6], covariance[36];
      std::vector<double> undistortion, edges, gaussNewton;
      double samples = 0.0;
      int frame = 0, failures = 0, tracked = 0;
      for (auto _ : state) {
        const unsigned char* images[ZOT_MAX_CAMERAS];
        for (int c = 0; c < nCams; c++) images[c] = s.images[frame][c].data();
        const int rc = tracker->poseEstimation(images, s.times[frame], s.tool[frame].data(),
                                               s.truth[0].data(), zero, s.times[0], pose, velocity,
                                               covariance, dof, frame == 0, false, false, false);
        state.PauseTiming();
        const FrameStageTimes& t = tracker->lastFrameTimes();
        undistortion.push_back(t.undistortionMs);
        edges.push_back(t.edgesMs);
        gaussNewton.push_back(t.poseUpdateMs);
        for (int c = 0; c < nCams; c++) samples += tracker->m_multibody.m_nSamplePointsPerCam[c];
        tracked++;
        if (rc != 0) failures++;
        frame = (frame + 1) % kFrames;
        state.ResumeTiming();
      }
      state.counters["undistortion_ms"] = zot_sim::quantile(undistortion, 0.5);
      state.counters["edges_ms"] = zot_sim::quantile(edges, 0.5);
      state.counters["gauss_newton_ms"] = zot_sim::quantile(gaussNewton, 0.5);
      state.counters["samples_per_cam"] = tracked > 0 ? samples / tracked / nCams : 0.0;
      state.counters["failed_frames"] = failures;
    }
  }
  doBigFree();
}

// The designed estimator (tracker_designed.txt) and the robust one
// (tracker_demo.txt), side by side on the same frames: on whole undistorted
// images (0), in the region of interest (1), and in the region with the lens
// in the projection (2, "fast"). The sample file's own setting is 1.
constexpr const char* kDesigned = "tracker_designed.txt";
constexpr const char* kRobust = "tracker_demo.txt";
#define ZOT_FRAME_BENCHMARK(name, ...)                    \
  BENCHMARK_CAPTURE(BM_PoseEstimation, name, __VA_ARGS__) \
      ->Unit(benchmark::kMillisecond)                     \
      ->Iterations(5 * kFrames)
ZOT_FRAME_BENCHMARK(mono_150_samples, "camera_mono.txt", kDesigned, 8, 0);
ZOT_FRAME_BENCHMARK(mono_150_samples_fast, "camera_mono.txt", kDesigned, 8, 2);
ZOT_FRAME_BENCHMARK(stereo_150_samples, "camera_stereo.txt", kDesigned, 8, 0);
ZOT_FRAME_BENCHMARK(stereo_150_samples_fast, "camera_stereo.txt", kDesigned, 8, 2);
ZOT_FRAME_BENCHMARK(mono_demo_step, "camera_mono.txt", kDesigned, 4, 0);
ZOT_FRAME_BENCHMARK(mono_robust, "camera_mono.txt", kRobust, 4, 0);
ZOT_FRAME_BENCHMARK(mono_robust_region, "camera_mono.txt", kRobust, 4, 1);
ZOT_FRAME_BENCHMARK(mono_robust_fast, "camera_mono.txt", kRobust, 4, 2);
ZOT_FRAME_BENCHMARK(stereo_demo_step, "camera_stereo.txt", kDesigned, 4, 0);
ZOT_FRAME_BENCHMARK(stereo_robust, "camera_stereo.txt", kRobust, 4, 0);
ZOT_FRAME_BENCHMARK(stereo_robust_region, "camera_stereo.txt", kRobust, 4, 1);
ZOT_FRAME_BENCHMARK(stereo_robust_fast, "camera_stereo.txt", kRobust, 4, 2);
ZOT_FRAME_BENCHMARK(mono_robust_1920x1440, "camera_mono.txt", kRobust, 4, 0, 3);
ZOT_FRAME_BENCHMARK(mono_robust_region_1920x1440, "camera_mono.txt", kRobust, 4, 1, 3);
ZOT_FRAME_BENCHMARK(mono_robust_fast_1920x1440, "camera_mono.txt", kRobust, 4, 2, 3);

}  // namespace

BENCHMARK_MAIN();
