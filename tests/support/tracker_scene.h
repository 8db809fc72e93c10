// A whole-tracker test bench: setup arrays written section by section, pools
// sized for a GenericObjectTracker, the chamfered part of data/ as meshes,
// and a stereo or mono rig whose images are rendered through the lens
// distortion by the independent ray caster.
#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "GenericObjectTracker.h"
#include "Math.h"
#include "render_scene.h"
#include "sim_mesh.h"

namespace zot_test {

// Pools of all seven types for `setups` set-ups of a tracker with nCams
// cameras of at most maxPixels pixels, maxSamples samples per camera and a
// model of about modelValues setup-array values; released (with the overrun
// check) on destruction.
struct TrackerPools {
  TrackerPools(long maxPixels, int nCams, int maxSamples, long modelValues = 20000, int setups = 1);
  ~TrackerPools();
};

// ---------------------------------------------------------------- setup arrays
struct SetupCamera {
  int width = 320, height = 240;
  double zNear = 50.0, zFar = 1500.0;
  double fx = 320.0, fy = 320.0, cx = 159.5, cy = 119.5, skew = 0.0;
  double dist[5] = {0.0, 0.0, 0.0, 0.0, 0.0};  // k1, k2, p1, p2, k3
  double camInTool[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  std::vector<std::vector<double>> masks;  // (u, v) pairs per polygon
};

// nCameras and each camera as the camera section lays it out.
void appendCameraSection(std::vector<double>& a, const std::vector<SetupCamera>& cams);
// The cameras of a setup array's camera section (the inverse of the above).
std::vector<SetupCamera> camerasOfSetupArray(const std::vector<double>& a);
// The 23 tracking parameters in field order.
void appendTrackerSection(std::vector<double>& a,
                          const ZOTtracker::GenericObjectTracker::TrackingParameters& p);
// Body code 0, flat flag, angle and the mesh's polyhedron values.
void appendPolyhedronBody(std::vector<double>& a, const zot_sim::Mesh& mesh, bool flat,
                          double angle);
// Body code 1, 1-based support indices (0 none), points and 1-based edges.
void appendPolylineBody(std::vector<double>& a, int supportBody, int supportFace,
                        const std::vector<double>& points, const std::vector<int>& edges);

// Cameras, parameters, no local frames and the mesh as one polyhedron body
// (not flat, feature angle 30 degrees).
std::vector<double> oneBodySetup(const std::vector<SetupCamera>& cams,
                                 const ZOTtracker::GenericObjectTracker::TrackingParameters& p,
                                 const zot_sim::Mesh& mesh);

// The setup array that the parser writes for the given files of dataDir (by
// default the stereo chamfered box of data/); empty when it fails.
std::vector<double> sampleSetupArray(const char* dataDir, const char* camera = "camera_stereo.txt",
                                     const char* tracker = "tracker_designed.txt",
                                     const char* model = "model_chamfered_box.txt");

// Tracking parameters that converge (the defaults never do).
ZOTtracker::GenericObjectTracker::TrackingParameters convergingParameters();

// ---------------------------------------------------------------- the part of data/
// The chamfered box of data/chamfered_box_polyhedron.txt (0-based faces).
zot_sim::Mesh chamferedBoxMesh();
// Clearly different greys for its seven faces.
std::vector<unsigned char> chamferedBoxGreys();
// The slot marking of data/top_slot_polyline.txt as a thin dark plate just
// above the top face, so that the renderer shows its outline.
zot_sim::Mesh slotPlateMesh();

// Pixel (u, v) of object point X under pose T and K (no skew).
inline void projectObjectPoint(const double* T, const double* K, const double* X, double* uv) {
  double Y[3];
  ZOTtracker::transformPoint3d(T, X, Y);
  uv[0] = Y[0] / Y[2] * K[0] + K[2];
  uv[1] = Y[1] / Y[2] * K[4] + K[5];
}

// pose * [R(axis, angleDeg) t]: the pose moved in its own frame.
void perturb(const double* pose, const double* axis, double angleDeg, const double* t, double* out);

// The Kalman filter's estimate, bit for bit: what a refused call must leave.
struct FilterSnapshot {
  explicit FilterSnapshot(const ZOTtracker::KalmanFilter& kf) : lastTime(kf.m_lastTime) {
    std::memcpy(pose, kf.m_Test, sizeof pose);
    std::memcpy(state, kf.m_stateEst, sizeof state);
    std::memcpy(cov, kf.m_covEst, sizeof cov);
  }
  bool same(const ZOTtracker::KalmanFilter& kf) const {
    return kf.m_lastTime == lastTime && std::memcmp(pose, kf.m_Test, sizeof pose) == 0 &&
           std::memcmp(state, kf.m_stateEst, sizeof state) == 0 &&
           std::memcmp(cov, kf.m_covEst, sizeof cov) == 0;
  }
  double lastTime, pose[16], state[12], cov[144];
};

// ---------------------------------------------------------------- rig
class TrackerScene {
 public:
  // Reserves the pools and sets a tracker up from `setup`; m_setupCode
  // holds the result.
  TrackerScene(const std::vector<SetupCamera>& cams, const std::vector<double>& setup,
               int maxSamples);

  // Renders every camera's image of the objects (meshes with their face
  // greys) at objInTool (object pose in the tool frame) over a uniform
  // background, through the camera's lens distortion, with ss x ss samples
  // per pixel and optional noise.
  void render(const double* objInTool, const std::vector<zot_sim::RenderObject>& objects,
              unsigned char background, int ss = 2, double noiseSigma = 0.0, unsigned seed = 1);
  // Object pose in camera cam for a pose in the tool frame.
  void poseInCamera(const double* objInTool, int cam, double* T) const;
  // Mean pixel distance in camera cam (undistorted) between the mesh
  // vertices at pose and at reference (both in the tool frame).
  double meanVertexError(const zot_sim::Mesh& mesh, const double* pose, const double* reference,
                         int cam) const;

  std::vector<SetupCamera> m_cams;
  TrackerPools m_pools;
  std::unique_ptr<ZOTtracker::GenericObjectTracker> m_tracker;
  int m_setupCode;
  std::vector<std::vector<unsigned char>> m_images;
  unsigned char* m_imagePtrs[ZOTtracker::ZOT_MAX_CAMERAS];
};

}  // namespace zot_test
