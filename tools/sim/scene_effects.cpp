// Effects of real scenes layered over the synthetic sequences.
#include "scene_effects.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>
#include <random>

#include "Math.h"

namespace zot_sim {

namespace {

using ZOTtracker::crossProd;
using ZOTtracker::inverseTransform;
using ZOTtracker::matrixProduct444;

constexpr int kExposureSamples = 5;  // renders averaged per motion-blurred frame

void normalise(double* v) { ZOTtracker::normalize(v, 3, 1); }

// Printed loops of one face, in the face's 2D frame: rows of strokes, a
// band and a blob, each kept only when all its corners are well inside.
// None on a face of less than minArea (chamfers and small faces).
std::vector<std::vector<double>> facePrintLoops(const std::vector<double>& face, double minArea,
                                                std::mt19937_64& rng) {
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::vector<cv::Point2f> outline;
  for (size_t k = 0; k + 1 < face.size(); k += 2) outline.emplace_back(face[k], face[k + 1]);
  const double area = cv::contourArea(outline);
  if (area < minArea) return {};
  double x0, x1, y0, y1;  // the bounding box
  const cv::Mat xy = cv::Mat(outline).reshape(1);
  cv::minMaxIdx(xy.col(0), &x0, &x1);
  cv::minMaxIdx(xy.col(1), &y0, &y1);
  const double L = std::sqrt(area), margin = 0.06 * L;
  std::vector<std::vector<double>> loops;
  // Points along every side of the loop, so that no loop cuts a notch of a
  // face that is not convex.
  auto keep = [&](const std::vector<double>& loop) {
    const size_t m = loop.size() / 2;
    for (size_t k = 0; k < m; k++) {
      const size_t j = (k + 1) % m;
      for (int t = 0; t < 8; t++) {
        const double x = loop[2 * k] + t / 8.0 * (loop[2 * j] - loop[2 * k]);
        const double y = loop[2 * k + 1] + t / 8.0 * (loop[2 * j + 1] - loop[2 * k + 1]);
        // inside the face and at least `margin` from each of its edges
        if (cv::pointPolygonTest(outline, cv::Point2f(x, y), true) < margin) return false;
      }
    }
    loops.push_back(loop);
    return true;
  };
  auto rectangle = [](double cx, double cy, double angle, double halfLength, double halfWidth) {
    const double c = std::cos(angle), s = std::sin(angle);
    std::vector<double> r;
    const double corners[4][2] = {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}};
    for (const auto& q : corners) {
      r.push_back(cx + q[0] * halfLength * c - q[1] * halfWidth * s);
      r.push_back(cy + q[0] * halfLength * s + q[1] * halfWidth * c);
    }
    return r;
  };
  // Text: rows of glyphs of one to three strokes, words between gaps.
  const double h = 0.1 * L, rowAngle = (unit(rng) - 0.5) * 0.3;
  const double c = std::cos(rowAngle), s = std::sin(rowAngle);
  const int rows = 3 + (int)(unit(rng) * 3.0);
  const double rowStart = y0 + (0.1 + 0.1 * unit(rng)) * (y1 - y0);
  for (int r = 0; r < rows; r++) {
    const double v = rowStart + r * 1.6 * h;
    for (double u = x0 + 0.1 * (x1 - x0); u < x1; u += 0.75 * h) {
      if (unit(rng) < 0.18) continue;  // a gap between words
      const double cx = u * c - v * s, cy = u * s + v * c;
      const int strokes = 1 + (int)(unit(rng) * 3.0);
      for (int k = 0; k < strokes; k++) {
        const double kind = unit(rng);
        const double angle = rowAngle + (kind < 0.5 ? kPi / 2 : (kind < 0.75 ? 0.0 : 1.1));
        const double length = kind < 0.5 ? 0.5 * h : 0.25 * h;
        keep(rectangle(cx + (k - 1) * 0.2 * h * c, cy + (k - 1) * 0.2 * h * s, angle, length,
                       0.1 * h));
      }
    }
  }
  // A band across, shortened until it fits.
  const double bandV = y0 + (0.55 + 0.3 * unit(rng)) * (y1 - y0);
  for (double f = 0.45; f > 0.1; f *= 0.85) {
    if (keep(rectangle(0.5 * (x0 + x1), bandV, 0.0, f * (x1 - x0), 0.05 * L))) break;
  }
  // A blob like a logo.
  for (int attempt = 0; attempt < 20; attempt++) {
    const double bx = x0 + unit(rng) * (x1 - x0), by = y0 + unit(rng) * (y1 - y0);
    const double R = 0.13 * L, p1 = unit(rng) * 6.3, p2 = unit(rng) * 6.3;
    std::vector<double> blob;
    for (int k = 0; k < 18; k++) {
      const double a = 2.0 * kPi * k / 18;
      const double r = R * (1.0 + 0.25 * std::sin(3 * a + p1) + 0.12 * std::sin(5 * a + p2));
      blob.push_back(bx + r * std::cos(a));
      blob.push_back(by + r * std::sin(a));
    }
    if (keep(blob)) break;
  }
  return loops;
}

}  // namespace

void addFacePrint(ModelConfig& model, uint64_t seed) {
  const double size = modelSize(model, nullptr);
  const size_t nBodies = model.bodies.size();
  for (size_t b = 0; b < nBodies; b++) {
    if (model.bodies[b].type != 0) continue;
    const Mesh mesh = model.bodies[b].mesh;
    int start = 0;
    for (int f = 0; f < (int)mesh.faceSizes.size(); start += mesh.faceSizes[f], f++) {
      const int m = mesh.faceSizes[f];
      const int* idx = &mesh.faceIndices[start];
      // The face's plane frame: origin at its first vertex, e1 along its
      // first edge, e2 = normal x e1.
      double nrm[3], e1[3], e2[3];
      const double* o = &mesh.vertices[3 * idx[0]];
      polygonNormal(mesh.vertices, idx, m, nrm);
      for (int a = 0; a < 3; a++) e1[a] = mesh.vertices[3 * idx[1] + a] - o[a];
      normalise(e1);
      crossProd(nrm, e1, e2);
      std::vector<double> face;
      for (int k = 0; k < m; k++) {
        const double* p = &mesh.vertices[3 * idx[k]];
        const double d[3] = {p[0] - o[0], p[1] - o[1], p[2] - o[2]};
        face.push_back(d[0] * e1[0] + d[1] * e1[1] + d[2] * e1[2]);
        face.push_back(d[0] * e2[0] + d[1] * e2[1] + d[2] * e2[2]);
      }
      std::mt19937_64 rng(seed * 1000003ULL + b * 4099ULL + (uint64_t)f * 131ULL + 7);
      BodyConfig print;
      print.type = 1;
      print.supportBody = (int)b;
      print.supportFace = f;
      for (const std::vector<double>& loop : facePrintLoops(face, 0.04 * size * size, rng)) {
        const int first = (int)print.mesh.vertices.size() / 3, count = (int)loop.size() / 2;
        for (int k = 0; k < count; k++) {
          for (int a = 0; a < 3; a++)
            print.mesh.vertices.push_back(o[a] + loop[2 * k] * e1[a] + loop[2 * k + 1] * e2[a]);
          print.segments.push_back(first + k);
          print.segments.push_back(first + (k + 1) % count);
        }
      }
      if (!print.segments.empty()) model.bodies.push_back(print);
    }
  }
}

ModelConfig scaledModel(const ModelConfig& model, double s) {
  ModelConfig out = model;
  for (Pose& T : out.localFrames) {
    for (int i = 0; i < 3; i++) T[4 * i + 3] *= s;
  }
  for (BodyConfig& body : out.bodies) {
    if (body.type != 2) {
      for (double& v : body.mesh.vertices) v *= s;
    }
  }
  return out;
}

// ================================================================ set-up
EffectsRenderer::EffectsRenderer(const std::vector<CameraConfig>& cameras, const ModelConfig& model,
                                 const SequenceSpec& plan, const SceneEffects& effects)
    : m_cameras(cameras), m_plan(plan), m_effects(effects) {
  m_size = modelSize(model, m_centre);
  if (!(m_size > 0.0)) m_size = 1.0;
  for (const BodyConfig& body : model.bodies) {
    if (body.type == 0) m_meshes.push_back(body.mesh);
  }
  for (const CameraConfig& cam : m_cameras) m_renderCameras.push_back(renderCameraOf(cam));
  if (!effects.any()) {
    m_base.reset(new SequenceRenderer(cameras, model, plan));
    return;
  }
  // Blur and noise come after the effects, here.
  SequenceSpec clean = plan;
  clean.blur = 0.0;
  clean.noise = 0.0;
  ModelConfig rendered = model;
  if (effects.facePrint) addFacePrint(rendered, plan.seed);
  m_base.reset(new SequenceRenderer(cameras, rendered, clean));
  if (effects.exposure > 0.0) {
    // Samples at multiples of 1 / (fps m_subSteps), centred on the frame.
    m_subSteps =
        std::max(kExposureSamples - 1, (int)std::lround((kExposureSamples - 1) / effects.exposure));
    SequenceSpec fine = clean;
    fine.fps = plan.fps * m_subSteps;
    fine.frames = plan.frames * m_subSteps;
    m_fine.reset(new SequenceRenderer(cameras, rendered, fine));
  }
  // The bar: long, a little thick, its width a fraction of the object's
  // size where it crosses the object (it is nearer, see barInCamera).
  const double near = 0.55;
  const double centre[3] = {0.0, 0.0, 0.0};
  const double half[3] = {near * 3.0 * m_size, near * 0.5 * effects.occluderWidth * m_size,
                          near * 0.08 * m_size};
  m_bar = boxMesh(centre, half);
}

// ================================================================ per frame
void EffectsRenderer::objectsInCamera(const SequenceRenderer& seq, int index, int cam,
                                      std::vector<RenderObject>& objects,
                                      double* objectInCam) const {
  seq.cameraPoses(index, cam, nullptr, objectInCam);
  objects.clear();
  for (const Mesh& m : m_meshes) {
    RenderObject o;
    o.mesh = &m;
    std::copy(objectInCam, objectInCam + 16, o.pose);
    objects.push_back(o);
  }
}

// The bar is fixed to the tool, like a gripper's finger, between the tool
// and the object at 55 % of the distance; it sweeps sideways across the
// object's line of sight and back once over the sequence.
bool EffectsRenderer::barInCamera(const SequenceRenderer& seq, int index, int cam,
                                  RenderObject& bar) const {
  if (!(m_effects.occluderWidth > 0.0)) return false;
  double objectInTool[16];
  seq.poses(0, nullptr, nullptr, objectInTool);
  double d[3];  // the object's centre in the tool frame
  ZOTtracker::transformPoint3d(objectInTool, m_centre, d);
  const double distance = ZOTtracker::norm(d, 3);
  normalise(d);
  double u[3] = {std::cos(1.0), std::sin(1.0), 0.0}, v[3];
  const double along = u[0] * d[0] + u[1] * d[1] + u[2] * d[2];
  for (int i = 0; i < 3; i++) u[i] -= along * d[i];
  normalise(u);
  crossProd(d, u, v);
  const double duration = m_plan.frames / m_plan.fps;
  const double sweep = -0.9 * m_size * std::cos(2.0 * kPi * seq.time(index) / duration);
  const double near = 0.55;
  double toolFromBar[16] = {u[0], v[0], d[0], near * (distance * d[0] + sweep * v[0]),
                            u[1], v[1], d[1], near * (distance * d[1] + sweep * v[1]),
                            u[2], v[2], d[2], near * (distance * d[2] + sweep * v[2]),
                            0.0,  0.0,  0.0,  1.0};
  double camFromTool[16];
  inverseTransform(m_cameras[cam].toolFromCamera.data(), camFromTool);
  bar.mesh = &m_bar;
  matrixProduct444(camFromTool, toolFromBar, bar.pose);
  const double headlight[3] = {0.0, 0.0, -1.0};
  bar.faceGrey = lambertGreys(m_bar, bar.pose, headlight, 95.0, 70.0);
  return true;
}

void EffectsRenderer::compose(const SequenceRenderer& seq, int index, int cam,
                              unsigned char* image) const {
  const CameraConfig& c = m_cameras[cam];
  const int w = c.width, h = c.height;
  if (m_effects.tableTexture) {
    // Grain and print on the table plane, 0.9 object sizes below the
    // object's centre, added where the object does not cover the table.
    std::vector<RenderObject> objects;
    double objectInCam[16], worldFromCam[16];
    objectsInCamera(seq, index, cam, objects, objectInCam);
    std::vector<float> coverage;
    renderCoverage(m_renderCameras[cam], objects, std::max(1, m_plan.supersampling), coverage,
                   true);
    seq.cameraPoses(index, cam, worldFromCam, nullptr);
    const double tableZ = -0.9 * m_size, S = m_size;
    std::vector<unsigned char> masked((size_t)w * h, 0);
    fillMasks(c, masked.data(), 255, false);
    for (int y = 0; y < h; y++) {
      for (int x = 0; x < w; x++) {
        const size_t k = (size_t)y * w + x;
        if (coverage[k] >= 1.0f || masked[k]) continue;
        double X, Y;
        if (!tableHit(worldFromCam, tableZ, seq.rays(cam)[2 * k], seq.rays(cam)[2 * k + 1], &X, &Y))
          continue;
        const double grain = std::tanh(2.5 * std::sin(2.0 * kPi * (0.8 * X + 0.6 * Y) / (0.11 * S) +
                                                      2.0 * std::sin(2.0 * kPi * Y / (0.7 * S))));
        const double grid = std::tanh(4.0 * std::sin(2.0 * kPi * X / (0.3 * S)) *
                                      std::sin(2.0 * kPi * Y / (0.3 * S)));
        image[k] = toByte(image[k] + (1.0 - coverage[k]) * (20.0 * grain + 14.0 * grid + 16.0));
      }
    }
  }
  RenderObject bar;
  if (barInCamera(seq, index, cam, bar))
    renderScene(image, m_renderCameras[cam], {bar}, std::max(1, m_plan.supersampling), true);
  if (m_effects.lighting > 0.0) {
    // Gain over one slow cycle; a soft highlight moving along the diagonal.
    const double duration = m_plan.frames / m_plan.fps, u = seq.time(index) / duration;
    const double gain = 1.0 + m_effects.lighting * std::sin(2.0 * kPi * u);
    const double hx = (0.1 + 0.8 * u) * w, hy = (0.2 + 0.6 * u) * h, sigma = w / 7.0;
    const double peak = 150.0 * m_effects.lighting;
    for (int y = 0; y < h; y++) {
      for (int x = 0; x < w; x++) {
        const double r2 = (x - hx) * (x - hx) + (y - hy) * (y - hy);
        unsigned char& p = image[(size_t)y * w + x];
        p = toByte(gain * p + peak * std::exp(-0.5 * r2 / (sigma * sigma)));
      }
    }
  }
}

void EffectsRenderer::render(int frame, std::vector<std::vector<unsigned char>>& images) const {
  if (!m_effects.any()) {
    m_base->render(frame, images);
    return;
  }
  const int samples = m_fine ? kExposureSamples : 1;
  std::vector<std::vector<double>> sum(m_cameras.size());
  std::vector<std::vector<unsigned char>> layer;
  for (int j = 0; j < samples; j++) {
    const SequenceRenderer& seq = m_fine ? *m_fine : *m_base;
    const int index = m_fine ? frame * m_subSteps + j - samples / 2 : frame;
    seq.render(index, layer);
    for (size_t c = 0; c < m_cameras.size(); c++) {
      compose(seq, index, (int)c, layer[c].data());
      sum[c].resize(layer[c].size(), 0.0);
      for (size_t k = 0; k < layer[c].size(); k++) sum[c][k] += layer[c][k];
    }
  }
  images.resize(m_cameras.size());
  for (size_t c = 0; c < m_cameras.size(); c++) {
    const CameraConfig& cam = m_cameras[c];
    images[c].resize(sum[c].size());
    for (size_t k = 0; k < sum[c].size(); k++) images[c][k] = toByte(sum[c][k] / samples);
    applySensor(images[c], cam.width, cam.height, m_plan, frame, (int)c);
  }
}

double EffectsRenderer::hiddenOutline(int frame) const {
  RenderObject bar;
  if (!barInCamera(*m_base, frame, 0, bar)) return 0.0;
  std::vector<RenderObject> objects;
  double objectInCam[16];
  objectsInCamera(*m_base, frame, 0, objects, objectInCam);
  std::vector<float> object, hidden;
  const int ss = std::max(2, m_plan.supersampling);
  renderCoverage(m_renderCameras[0], objects, ss, object, true);
  renderCoverage(m_renderCameras[0], {bar}, ss, hidden, true);
  int outline = 0, covered = 0;
  for (size_t k = 0; k < object.size(); k++) {
    if (object[k] > 0.0f && object[k] < 1.0f) {
      outline++;
      covered += hidden[k] >= 0.5f;
    }
  }
  return outline > 0 ? (double)covered / outline : 0.0;
}

double EffectsRenderer::vertexMotion(int from, int to) const {
  std::vector<RenderObject> objects;
  double a[16], b[16], moved = 0.0;
  objectsInCamera(*m_base, from, 0, objects, a);
  objectsInCamera(*m_base, to, 0, objects, b);
  for (const Mesh& m : m_meshes) {
    for (size_t i = 0; i + 2 < m.vertices.size(); i += 3) {
      double p[2], q[2];
      projectDistorted(m_renderCameras[0], a, &m.vertices[i], p);
      projectDistorted(m_renderCameras[0], b, &m.vertices[i], q);
      moved = std::max(moved, std::hypot(p[0] - q[0], p[1] - q[1]));
    }
  }
  return moved;
}

}  // namespace zot_sim
