// A contour-tracking test bench: pools, a model of one mesh, a tracker set up
// for one or more cameras, grey images rendered at a known pose by the
// independent ray caster, and the Gauss-Newton loop with its 15 tracking
// parameters gathered in one record.
#pragma once

#include <memory>
#include <vector>

#include "ContourTracker.h"
#include "Multibody.h"
#include "box_models.h"

namespace zot_test {

// Pools of all seven types, sized for the given cameras and sample capacity;
// released (with the overrun check) on destruction.
struct TrackingPools {
  TrackingPools(long maxPixels, int nCams, int maxSamples);
  ~TrackingPools();
};

struct TrackingCamera {
  int width = 320, height = 240;
  double K[9] = {600, 0, 159.5, 0, 600, 119.5, 0, 0, 1};
  double camFromRef[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  double zNear = 10.0, zFar = 5000.0;
};

// Tracking parameters in the order the loop takes them.
struct LoopParams {
  int maxIterations = 30;
  double convRotDeg = 0.01, convTransl = 0.01;
  double maxAbsRotDeg = 20.0, maxAbsTransl = 50.0;
  double facingTolerance = 1.0;
  int samplingStep = 4;
  double minEdgeLength = 1.0;
  double searchRange = 15.0, maxAngleDeg = 30.0;
  double minInliers = 10.0, minInliersAtEnd = 10.0, maxFinalCost = 0.0;
  double resampleRotDeg = 0.5, resampleTransl = 1.0;
  double dofMask[6] = {1, 1, 1, 1, 1, 1};
};

class TrackingScene {
 public:
  // Sets up the pools, the model (mesh as one closed polyhedron, frusta of
  // every camera) and the tracker. The model is heap-held: it is large.
  TrackingScene(const std::vector<TrackingCamera>& cams, const Mesh& mesh, int maxSamples);

  // Renders every camera's image of the mesh at poseRef (object in the
  // reference frame) with one grey per face over a uniform background.
  void render(const double* poseRef, const std::vector<unsigned char>& faceGreys,
              unsigned char background);
  // The tracker's edge detection on the current images.
  int edgeDetect(int low = 50, int high = 100);
  // One Gauss-Newton loop from pose (refined in place).
  int run(double* pose, const LoopParams& p, double* covariance = nullptr, bool timing = false,
          bool showDebug = false, bool verbose = false);
  // Pose of the object in camera cam for a pose in the reference frame.
  void poseInCamera(const double* poseRef, int cam, double* T) const;
  // Mean pixel distance, in camera cam, between the mesh vertices projected
  // at pose and at reference.
  double meanVertexError(const double* pose, const double* reference, int cam) const;

  std::vector<TrackingCamera> m_cams;
  Mesh m_mesh;
  TrackingPools m_pools;
  std::unique_ptr<ZOTtracker::Multibody> m_model;
  ZOTtracker::ContourTracker m_tracker;
  std::vector<std::vector<unsigned char>> m_images;
  const unsigned char* m_imagePtrs[ZOTtracker::ZOT_MAX_CAMERAS];
  const double* m_K[ZOTtracker::ZOT_MAX_CAMERAS];
  const double* m_camFromRef[ZOTtracker::ZOT_MAX_CAMERAS];
};

// A box of 100 x 80 x 60 (model units, say mm) centred on the object origin.
Mesh trackingBox();
// Six clearly different face greys for trackingBox().
std::vector<unsigned char> trackingBoxGreys();

}  // namespace zot_test
