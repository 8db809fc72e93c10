#include "tracking_scene.h"

#include <cmath>

#include "Math.h"
#include "memory_handling.h"
#include "render_scene.h"

using namespace ZOTtracker;

namespace zot_test {

namespace {

long largestImage(const std::vector<TrackingCamera>& cams) {
  long most = 0;
  for (const TrackingCamera& c : cams) {
    if ((long)c.width * c.height > most) most = (long)c.width * c.height;
  }
  return most;
}

}  // namespace

TrackingPools::TrackingPools(long maxPixels, int nCams, int maxSamples) {
  // Model: depth map, preset depth maps, face ids, mask and debug images;
  // tracker: stacked and per-camera arrays, edge maps, gradients and the
  // shared display and edge-detector buffers. Generous margins for meshes.
  const size_t px = (size_t)maxPixels, n = (size_t)nCams, s = (size_t)maxSamples;
  doBigMalloc(px * (n + 8) + 10000, px + 1000, px * (n + 2) + 60 * n * s + 100000, 100,
              2 * px + 10 * px / 1000 + 100000, 10000, px * (2 * n + 2) + 1000);
}

TrackingPools::~TrackingPools() { doBigFree(); }

TrackingScene::TrackingScene(const std::vector<TrackingCamera>& cams, const Mesh& mesh,
                             int maxSamples)
    : m_cams(cams),
      m_mesh(mesh),
      m_pools(largestImage(cams), (int)cams.size(), maxSamples),
      m_model(new Multibody()) {
  const int nCams = (int)cams.size();
  int widths[ZOT_MAX_CAMERAS], heights[ZOT_MAX_CAMERAS], maxW = 0, maxH = 0;
  double zNear[ZOT_MAX_CAMERAS], zFar[ZOT_MAX_CAMERAS];
  for (int c = 0; c < nCams; c++) {
    const TrackingCamera& cam = cams[c];
    widths[c] = cam.width;
    heights[c] = cam.height;
    zNear[c] = cam.zNear;
    zFar[c] = cam.zFar;
    if (cam.width > maxW) maxW = cam.width;
    if (cam.height > maxH) maxH = cam.height;
    setCameraFrustum(*m_model, c, cam.K, cam.width, cam.height, cam.zNear, cam.zFar);
    m_images.emplace_back((size_t)cam.width * cam.height, 0);
  }
  addPolyhedronBody(*m_model, m_mesh, false, 30.0);
  m_tracker.init(widths, heights, zNear, zFar, nCams, maxSamples);
  m_model->init(nCams, maxSamples, maxW, maxH);
  for (int c = 0; c < ZOT_MAX_CAMERAS; c++) {
    m_imagePtrs[c] = c < nCams ? m_images[c].data() : nullptr;
    m_K[c] = c < nCams ? m_cams[c].K : nullptr;
    m_camFromRef[c] = c < nCams ? m_cams[c].camFromRef : nullptr;
  }
}

void TrackingScene::poseInCamera(const double* poseRef, int cam, double* T) const {
  matrixProduct444(m_cams[cam].camFromRef, poseRef, T);
}

void TrackingScene::render(const double* poseRef, const std::vector<unsigned char>& faceGreys,
                           unsigned char background) {
  for (size_t c = 0; c < m_cams.size(); c++) {
    zot_sim::RenderCamera rc;
    rc.width = m_cams[c].width;
    rc.height = m_cams[c].height;
    for (int i = 0; i < 9; i++) rc.K[i] = m_cams[c].K[i];
    zot_sim::RenderObject object;
    object.mesh = &m_mesh;
    poseInCamera(poseRef, (int)c, object.pose);
    object.faceGrey = faceGreys;
    std::fill(m_images[c].begin(), m_images[c].end(), background);
    zot_sim::renderScene(m_images[c].data(), rc, {object}, 3);
  }
}

int TrackingScene::edgeDetect(int low, int high) {
  return m_tracker.edgeDetect(m_imagePtrs, low, high);
}

int TrackingScene::run(double* pose, const LoopParams& p, double* covariance, bool timing,
                       bool showDebug, bool verbose) {
  return m_tracker.poseUpdateLoop(
      *m_model, m_imagePtrs, pose, covariance, m_camFromRef, m_K, p.maxIterations, p.convRotDeg,
      p.convTransl, p.maxAbsRotDeg, p.maxAbsTransl, p.facingTolerance, p.samplingStep,
      p.minEdgeLength, p.searchRange, p.maxAngleDeg, p.minInliers, p.minInliersAtEnd,
      p.maxFinalCost, p.resampleRotDeg, p.resampleTransl, p.dofMask, timing, showDebug, verbose);
}

double TrackingScene::meanVertexError(const double* pose, const double* reference, int cam) const {
  double T[16], Tref[16];
  poseInCamera(pose, cam, T);
  poseInCamera(reference, cam, Tref);
  const size_t nVertices = m_mesh.vertices.size() / 3;
  double sum = 0.0;
  for (size_t i = 0; i < nVertices; i++) {
    double a[2], b[2];
    projectObjectPoint(T, m_cams[cam].K, &m_mesh.vertices[3 * i], a);
    projectObjectPoint(Tref, m_cams[cam].K, &m_mesh.vertices[3 * i], b);
    sum += std::hypot(a[0] - b[0], a[1] - b[1]);
  }
  return sum / nVertices;
}

Mesh trackingBox() {
  const double centre[3] = {0.0, 0.0, 0.0};
  const double half[3] = {50.0, 40.0, 30.0};
  return boxMesh(centre, half);
}

std::vector<unsigned char> trackingBoxGreys() { return {70, 120, 170, 215, 95, 145}; }

}  // namespace zot_test
