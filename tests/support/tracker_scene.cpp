#include "tracker_scene.h"

#include <algorithm>
#include <cmath>
#include <memory>

#include "FileParser.h"
#include "Math.h"
#include "SetupArray.h"
#include "memory_handling.h"
#include "synthetic_images.h"

using namespace ZOTtracker;

namespace zot_test {

TrackerPools::TrackerPools(long maxPixels, int nCams, int maxSamples, long modelValues,
                           int setups) {
  // Per camera: undistortion maps, five tables and the undistorted image;
  // the contour tracker's per-point arrays, edge map and gradients; the
  // model's depth (double, and float in the speed modes), preset depth,
  // face-id, mask and debug images; and room for the bodies' geometry and
  // topology.
  const size_t px = (size_t)maxPixels, n = (size_t)nCams, s = (size_t)maxSamples,
               m = (size_t)modelValues, k = (size_t)setups;
  doBigMalloc(k * (px * (2 * n + 7) + 4 * m) + 10000, k * px + 1000,
              k * (px * (3 * n + 1) + 50 * n * s + 20 * m) + 10000, k * px + 16,
              k * (px * (5 * n + 3) + 40 * m) + 20000, k * 2 * m + 1000,
              k * px * (2 * n + 2) + 1000);
}

TrackerPools::~TrackerPools() { doBigFree(); }

// ================================================================ setup arrays

void appendCameraSection(std::vector<double>& a, const std::vector<SetupCamera>& cams) {
  a.push_back((double)cams.size());
  for (const SetupCamera& c : cams) {
    a.insert(a.end(),
             {(double)c.width, (double)c.height, c.zNear, c.zFar, c.fx, c.fy, c.cx, c.cy, c.skew});
    a.insert(a.end(), c.dist, c.dist + 5);
    a.insert(a.end(), c.camInTool, c.camInTool + 12);
    a.push_back((double)c.masks.size());
    for (const std::vector<double>& polygon : c.masks) {
      a.push_back((double)(polygon.size() / 2));
      a.insert(a.end(), polygon.begin(), polygon.end());
    }
  }
}

std::vector<SetupCamera> camerasOfSetupArray(const std::vector<double>& a) {
  const auto setup = std::make_unique<SetupArray>();
  if (!decodeSetupArray(a.data(), (int)a.size(), *setup)) return {};
  std::vector<SetupCamera> cams;
  for (const ZOTtracker::SetupCamera& d : setup->cameras) {
    if ((int)cams.size() == setup->nCameras) break;
    cams.push_back({d.width, d.height, d.zNear, d.zFar, d.fx, d.fy, d.cx, d.cy, d.skew, {}, {}, {}});
    std::copy(d.dist, d.dist + 5, cams.back().dist);
    std::copy(d.toolFromCamera, d.toolFromCamera + 16, cams.back().camInTool);
    for (int m = 0; m < d.nMasks; m++)
      cams.back().masks.emplace_back(d.maskVertices[m], d.maskVertices[m] + 2 * d.maskNVertices[m]);
  }
  return cams;
}

void appendTrackerSection(std::vector<double>& a,
                          const GenericObjectTracker::TrackingParameters& p) {
  a.insert(a.end(),
           {(double)p.m_maxNSamplePointsPerCam, p.m_facingTolerance, (double)p.m_samplingStep,
            p.m_minEdgeLength, (double)p.m_searchRange, (double)p.m_cannyLowThreshold,
            (double)p.m_cannyHighThreshold, p.m_maxAngleDeg, (double)p.m_maxIterations,
            p.m_convergenceRot, p.m_convergenceTransl, p.m_maxAbsRot, p.m_maxAbsTransl,
            p.m_minInliersLoop, p.m_minInliersFinal, p.m_maxFinalCost, p.m_resampleRot,
            p.m_resampleTransl, p.m_kfAccNoiseRot, p.m_kfAccNoiseTransl, p.m_measStdRot,
            p.m_measStdTransl, p.m_kfInitialCov});
}

void appendPolyhedronBody(std::vector<double>& a, const zot_sim::Mesh& mesh, bool flat,
                          double angle) {
  a.insert(a.end(), {0.0, flat ? 1.0 : 0.0, angle});
  zot_sim::appendPolyhedronValues(mesh, a);
}

void appendPolylineBody(std::vector<double>& a, int supportBody, int supportFace,
                        const std::vector<double>& points, const std::vector<int>& edges) {
  a.insert(a.end(), {1.0, (double)supportBody, (double)supportFace});
  a.push_back((double)(points.size() / 3));
  a.insert(a.end(), points.begin(), points.end());
  a.push_back((double)(edges.size() / 2));
  for (int v : edges) a.push_back(v);
}

std::vector<double> oneBodySetup(const std::vector<SetupCamera>& cams,
                                 const GenericObjectTracker::TrackingParameters& p,
                                 const zot_sim::Mesh& mesh) {
  std::vector<double> a;
  appendCameraSection(a, cams);
  appendTrackerSection(a, p);
  a.insert(a.end(), {0.0, 1.0});  // no local frames, one body
  appendPolyhedronBody(a, mesh, false, 30.0);
  return a;
}

std::vector<double> sampleSetupArray(const char* dataDir, const char* camera, const char* tracker,
                                     const char* model) {
  std::vector<double> a(200000);
  int count = 0;
  FileParser parser;
  const int code =
      parser.parseAllFiles(dataDir, camera, tracker, model, count, a.data(), (int)a.size());
  a.resize(code == 0 ? count : 0);
  return a;
}

GenericObjectTracker::TrackingParameters convergingParameters() {
  GenericObjectTracker::TrackingParameters p;
  p.m_maxNSamplePointsPerCam = 400;
  p.m_samplingStep = 4;
  p.m_minEdgeLength = 5.0;
  p.m_maxIterations = 20;
  p.m_convergenceRot = 0.02;
  p.m_convergenceTransl = 0.02;
  p.m_maxAbsRot = 20.0;
  p.m_maxAbsTransl = 40.0;
  p.m_minInliersLoop = 20.0;
  p.m_minInliersFinal = 30.0;
  p.m_maxFinalCost = 0.0;
  p.m_resampleRot = 1.0;
  p.m_resampleTransl = 1.0;
  return p;
}

// ================================================================ the part of data/

zot_sim::Mesh chamferedBoxMesh() {
  zot_sim::Mesh m;
  m.vertices = {-60, -40, 0, -60, 40, 0, -60, 40, 45, -60, 25, 60, -60, -40, 60,
                60,  -40, 0, 60,  40, 0, 60,  40, 45, 60,  25, 60, 60,  -40, 60};
  m.faceSizes = {5, 5, 4, 4, 4, 4, 4};
  m.faceIndices = {5, 6, 7, 8, 9, 0, 4, 3, 2, 1, 0, 1, 6, 5, 1,
                   2, 7, 6, 2, 3, 8, 7, 3, 4, 9, 8, 4, 0, 5, 9};
  return m;
}

std::vector<unsigned char> chamferedBoxGreys() { return {235, 235, 140, 90, 175, 120, 180}; }

zot_sim::Mesh slotPlateMesh() {
  zot_sim::Mesh m;
  m.vertices = {-30, -20, 60.05, 30, -20, 60.05, 30, -10, 60.05, -30, -10, 60.05};
  m.faceSizes = {4};
  m.faceIndices = {0, 1, 2, 3};
  return m;
}

void perturb(const double* pose, const double* axis, double angleDeg, const double* t,
             double* out) {
  const double k = angleDeg * ZOT_PI / 180.0 / norm(axis, 3);
  const double rvec[3] = {axis[0] * k, axis[1] * k, axis[2] * k};
  double R[9], D[16];
  matrixRvecToRmat(rvec, R);
  TfromRotTransl(R, t, D);
  matrixProduct444(pose, D, out);
}

// ================================================================ rig

namespace {

long largestImage(const std::vector<SetupCamera>& cams) {
  long most = 1;
  for (const SetupCamera& c : cams) most = std::max(most, (long)c.width * c.height);
  return most;
}

}  // namespace

TrackerScene::TrackerScene(const std::vector<SetupCamera>& cams, const std::vector<double>& setup,
                           int maxSamples)
    : m_cams(cams),
      m_pools(largestImage(cams), (int)cams.size(), maxSamples, (long)setup.size()),
      m_tracker(new GenericObjectTracker()),
      m_setupCode(m_tracker->setupFromGlobalArray((int)setup.size(), setup.data())) {
  for (const SetupCamera& c : cams) m_images.emplace_back((size_t)c.width * c.height, 0);
  for (int c = 0; c < ZOT_MAX_CAMERAS; c++)
    m_imagePtrs[c] = c < (int)cams.size() ? m_images[c].data() : nullptr;
}

void TrackerScene::poseInCamera(const double* objInTool, int cam, double* T) const {
  double camFromTool[16];
  inverseTransform(m_cams[cam].camInTool, camFromTool);
  matrixProduct444(camFromTool, objInTool, T);
}

void TrackerScene::render(const double* objInTool,
                          const std::vector<zot_sim::RenderObject>& objects,
                          unsigned char background, int ss, double noiseSigma, unsigned seed) {
  for (size_t c = 0; c < m_cams.size(); c++) {
    const SetupCamera& cam = m_cams[c];
    zot_sim::RenderCamera rc;
    rc.width = cam.width;
    rc.height = cam.height;
    const double K[9] = {cam.fx, 0.0, cam.cx, 0.0, cam.fy, cam.cy, 0.0, 0.0, 1.0};
    std::copy(K, K + 9, rc.K);
    std::copy(cam.dist, cam.dist + 5, rc.dist);
    std::vector<zot_sim::RenderObject> placed = objects;
    for (zot_sim::RenderObject& o : placed) poseInCamera(objInTool, (int)c, o.pose);
    std::fill(m_images[c].begin(), m_images[c].end(), background);
    zot_sim::renderScene(m_images[c].data(), rc, placed, ss);
    if (noiseSigma > 0.0)
      addNoise(m_images[c].data(), cam.width, cam.height, noiseSigma, seed * 7919u + (unsigned)c);
  }
}

double TrackerScene::meanVertexError(const zot_sim::Mesh& mesh, const double* pose,
                                     const double* reference, int cam) const {
  double T[16], Tref[16];
  poseInCamera(pose, cam, T);
  poseInCamera(reference, cam, Tref);
  const SetupCamera& c = m_cams[cam];
  const size_t n = mesh.vertices.size() / 3;
  double sum = 0.0;
  for (size_t i = 0; i < n; i++) {
    double a[3], b[3];
    transformPoint3d(T, &mesh.vertices[3 * i], a);
    transformPoint3d(Tref, &mesh.vertices[3 * i], b);
    sum += std::hypot(c.fx * (a[0] / a[2] - b[0] / b[2]), c.fy * (a[1] / a[2] - b[1] / b[2]));
  }
  return sum / (double)n;
}

}  // namespace zot_test
