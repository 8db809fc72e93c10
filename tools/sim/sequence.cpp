// Synthetic tracking sequences: trajectories, table texture, per-camera
// rendering with distortion, blur and noise.
#include "sequence.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
#include <opencv2/imgproc.hpp>
#include <random>
#include <set>

#include "Math.h"
#include "lens.h"

namespace zot_sim {

namespace {

constexpr double kDeg = kPi / 180.0;

// ---------------------------------------------------------------- small pose algebra
using ZOTtracker::crossProd;
using ZOTtracker::inverseTransform;
using ZOTtracker::matrixProduct444;
using ZOTtracker::TfromEuler;

void normalise3(double* v) { ZOTtracker::normalize(v, 3, 1); }

// Tool pose looking from eye at target, image "down" towards the table,
// then turned by roll about the viewing axis.
void lookAt(const double* eye, const double* target, double rollDeg, double* T) {
  double z[3] = {target[0] - eye[0], target[1] - eye[1], target[2] - eye[2]};
  normalise3(z);
  const double down[3] = {0.0, 0.0, -1.0};
  double x[3], y[3], R[9], look[16], roll[16];
  crossProd(down, z, x);
  if (x[0] * x[0] + x[1] * x[1] + x[2] * x[2] < 1e-12) x[0] = 1.0;  // straight down: any x
  normalise3(x);
  crossProd(z, x, y);
  for (int i = 0; i < 3; i++) R[3 * i] = x[i], R[3 * i + 1] = y[i], R[3 * i + 2] = z[i];
  ZOTtracker::TfromRotTransl(R, eye, look);
  TfromEuler(roll, 0.0, 0.0, -rollDeg, 0.0, 0.0, 0.0);  // its factors turn the other way
  matrixProduct444(look, roll, T);
}

// 0 at rest, rising smoothly to 1 over the first second of motion.
double envelope(double t) {
  const double x = std::min(1.0, std::max(0.0, t));
  return x * x * (3.0 - 2.0 * x);
}

double wave(double t, double period, double phase) {
  return std::sin(2.0 * kPi * t / period + phase);
}

// The undistorted normalised ray (x, y) through every pixel centre, row by row.
std::vector<float> pixelRays(const CameraConfig& cam) {
  std::vector<float> rays(2 * (size_t)cam.width * cam.height);
  for (int y = 0; y < cam.height; y++) {
    for (int x = 0; x < cam.width; x++) {
      double xn, yn;
      undistortNormalized(cam.dist, (x - cam.cx) / cam.fx, (y - cam.cy) / cam.fy, &xn, &yn);
      rays[2 * ((size_t)y * cam.width + x)] = (float)xn;
      rays[2 * ((size_t)y * cam.width + x) + 1] = (float)yn;
    }
  }
  return rays;
}

// Four tones, 55 grey levels apart; the shading adds at most 15 on top.
constexpr double kTones[4] = {240.0, 185.0, 130.0, 75.0};

// Base grey per face: coplanar neighbours form one surface and share a
// tone; neighbouring surfaces get different tones (greedy colouring, most
// connected surface first), so every model edge shows in the image whatever
// the lighting.
std::vector<double> faceTones(const Mesh& m) {
  const int nFaces = (int)m.faceSizes.size();
  std::vector<int> start(nFaces + 1, 0);
  for (int f = 0; f < nFaces; f++) start[f + 1] = start[f] + m.faceSizes[f];
  std::vector<double> normals(3 * nFaces);
  for (int f = 0; f < nFaces; f++)
    polygonNormal(m.vertices, &m.faceIndices[start[f]], m.faceSizes[f], &normals[3 * f]);
  std::map<std::pair<int, int>, std::vector<int>> edgeFaces;
  for (int f = 0; f < nFaces; f++) {
    for (int k = 0; k < m.faceSizes[f]; k++) {
      const int a = m.faceIndices[start[f] + k];
      const int b = m.faceIndices[start[f] + (k + 1) % m.faceSizes[f]];
      edgeFaces[{std::min(a, b), std::max(a, b)}].push_back(f);
    }
  }
  std::vector<int> surface(nFaces);
  for (int f = 0; f < nFaces; f++) surface[f] = f;
  auto find = [&](int f) {
    while (surface[f] != f) f = surface[f] = surface[surface[f]];
    return f;
  };
  for (const auto& e : edgeFaces) {
    if (e.second.size() != 2) continue;
    const double* n0 = &normals[3 * e.second[0]];
    const double* n1 = &normals[3 * e.second[1]];
    if (n0[0] * n1[0] + n0[1] * n1[1] + n0[2] * n1[2] > 0.9998)  // within about 1 degree
      surface[find(e.second[0])] = find(e.second[1]);
  }
  std::map<int, std::set<int>> neighbours;
  for (const auto& e : edgeFaces) {
    for (int f : e.second) {
      for (int g : e.second) {
        if (find(f) != find(g)) neighbours[find(f)].insert(find(g));
      }
    }
  }
  std::vector<int> order;
  for (int f = 0; f < nFaces; f++) {
    if (find(f) == f) order.push_back(f);
  }
  std::stable_sort(order.begin(), order.end(),
                   [&](int a, int b) { return neighbours[a].size() > neighbours[b].size(); });
  std::map<int, int> tone;
  for (int s : order) {
    int uses[4] = {0, 0, 0, 0};
    for (int n : neighbours[s]) {
      if (tone.count(n)) uses[tone[n]]++;
    }
    int best = 0;
    for (int t = 1; t < 4; t++) {
      if (uses[t] < uses[best]) best = t;
    }
    tone[s] = best;
  }
  std::vector<double> tones(nFaces);
  for (int f = 0; f < nFaces; f++) tones[f] = kTones[tone[find(f)]];
  return tones;
}

}  // namespace

bool parseMotion(const std::string& text, Motion& motion) {
  static const std::map<std::string, Motion> names = {{"none", Motion::None},
                                                      {"object", Motion::Object},
                                                      {"tool", Motion::Tool},
                                                      {"both", Motion::Both}};
  const auto it = names.find(text);
  if (it != names.end()) motion = it->second;
  return it != names.end();
}

// ================================================================ set-up
SequenceRenderer::SequenceRenderer(const std::vector<CameraConfig>& cameras,
                                   const ModelConfig& model, const SequenceSpec& plan)
    : m_cameras(cameras), m_plan(plan) {
  double diagonal = 0.0;
  m_size = modelSize(model, m_centre, &diagonal);
  if (!(m_size > 0.0)) m_size = diagonal = 1.0;
  // The object's diagonal spans about 38 % of the first camera's image width.
  const CameraConfig& first = m_cameras.front();
  m_distance =
      plan.viewDistance > 0.0 ? plan.viewDistance : diagonal * first.fx / (0.38 * first.width);
  m_tableZ = -0.9 * m_size;

  for (size_t c = 0; c < m_cameras.size(); c++) {
    const CameraConfig& cam = m_cameras[c];
    m_renderCameras.push_back(renderCameraOf(cam));
    if (cam.skew != 0.0) {
      m_warnings.push_back("cam " + std::to_string(c) + ": skew is not rendered");
    }
    Pose camFromTool;
    inverseTransform(cam.toolFromCamera.data(), camFromTool.data());
    m_cameraFromTool.push_back(camFromTool);
    m_rays.push_back(pixelRays(cam));
  }
  for (size_t b = 0; b < model.bodies.size(); b++) {
    const BodyConfig& body = model.bodies[b];
    if (body.type == 0) {
      m_meshes.push_back(body.mesh);
      m_faceTones.push_back(faceTones(body.mesh));
    }
    if (body.type == 2) {
      m_warnings.push_back("body " + std::to_string(b + 1) + ": cylinders are not rendered");
    }
  }
  buildPaints(model);
  buildTable();
}

// Polylines are painted markings: each closed loop becomes a thin coplanar
// polygon just above its face, each open chain a narrow strip along it.
void SequenceRenderer::buildPaints(const ModelConfig& model) {
  const double lift = 1e-4 * m_size, halfWidth = 0.006 * m_size;
  for (size_t b = 0; b < model.bodies.size(); b++) {
    const BodyConfig& body = model.bodies[b];
    if (body.type != 1) continue;
    const std::vector<double>& v = body.mesh.vertices;
    // Normal of the supporting face, when there is one.
    double faceNormal[3] = {0.0, 0.0, 0.0}, tone = 45.0;
    const int f = body.supportFace;
    const Mesh* support = body.supportBody >= 0 && body.supportBody < (int)model.bodies.size() &&
                                  model.bodies[body.supportBody].type == 0
                              ? &model.bodies[body.supportBody].mesh
                              : nullptr;
    const bool supported = support != nullptr && f >= 0 && f < (int)support->faceSizes.size();
    if (supported) {
      const std::vector<int>& sizes = support->faceSizes;
      const int start = std::accumulate(sizes.begin(), sizes.begin() + f, 0);
      polygonNormal(support->vertices, &support->faceIndices[start], sizes[f], faceNormal);
      // Dark ink on a bright face, bright ink on a dark one.
      const double faceTone = faceTones(*support)[f];
      tone = faceTone >= 150.0 ? faceTone - 120.0 : faceTone + 100.0;
    }
    // Loops: every vertex in a component has exactly two segments.
    std::map<int, std::vector<int>> neighbours;
    for (size_t k = 0; k + 1 < body.segments.size(); k += 2) {
      neighbours[body.segments[k]].push_back(body.segments[k + 1]);
      neighbours[body.segments[k + 1]].push_back(body.segments[k]);
    }
    std::map<int, bool> visited;
    std::vector<std::pair<int, int>> openSegments;
    for (const auto& entry : neighbours) {
      if (visited[entry.first]) continue;
      std::vector<int> component, stack = {entry.first};
      bool loop = true;
      while (!stack.empty()) {
        const int p = stack.back();
        stack.pop_back();
        if (visited[p]) continue;
        visited[p] = true;
        component.push_back(p);
        if (neighbours[p].size() != 2) loop = false;
        for (int q : neighbours[p]) {
          if (!visited[q]) stack.push_back(q);
        }
      }
      if (loop && component.size() >= 3) {
        std::vector<int> order = {component.front()};
        int previous = -1, current = component.front();
        while (true) {
          const std::vector<int>& nb = neighbours[current];
          const int next = nb[0] != previous ? nb[0] : nb[1];
          if (next == order.front()) break;
          order.push_back(next);
          previous = current;
          current = next;
        }
        double n[3];
        polygonNormal(v, order.data(), (int)order.size(), n);
        if (supported && n[0] * faceNormal[0] + n[1] * faceNormal[1] + n[2] * faceNormal[2] < 0) {
          std::reverse(order.begin(), order.end());
          for (double& c : n) c = -c;
        }
        Paint paint;
        paint.tone = tone;
        for (int idx : order) {
          for (int a = 0; a < 3; a++) paint.mesh.vertices.push_back(v[3 * idx + a] + lift * n[a]);
        }
        paint.mesh.faceSizes.push_back((int)order.size());
        for (int k = 0; k < (int)order.size(); k++) paint.mesh.faceIndices.push_back(k);
        m_paints.push_back(paint);
      } else {
        for (size_t k = 0; k + 1 < body.segments.size(); k += 2) {
          const int a = body.segments[k], c = body.segments[k + 1];
          if (std::find(component.begin(), component.end(), a) != component.end())
            openSegments.push_back({a, c});
        }
      }
    }
    if (!openSegments.empty() && !supported) {
      m_warnings.push_back("body " + std::to_string(b + 1) +
                           ": open polyline without a supporting face is not rendered");
      continue;
    }
    for (const auto& seg : openSegments) {
      const double* p = &v[3 * seg.first];
      const double* q = &v[3 * seg.second];
      double d[3] = {q[0] - p[0], q[1] - p[1], q[2] - p[2]}, side[3];
      normalise3(d);
      crossProd(faceNormal, d, side);
      Paint paint;
      paint.tone = tone;
      const double corners[4][2] = {{0, -1}, {0, 1}, {1, 1}, {1, -1}};
      for (const auto& corner : corners) {
        const double* base = corner[0] == 0 ? p : q;
        for (int a = 0; a < 3; a++)
          paint.mesh.vertices.push_back(base[a] + corner[1] * halfWidth * side[a] +
                                        lift * faceNormal[a]);
      }
      paint.mesh.faceSizes = {4};
      paint.mesh.faceIndices = {3, 2, 1, 0};
      double n[3];
      polygonNormal(paint.mesh.vertices, paint.mesh.faceIndices.data(), 4, n);
      if (n[0] * faceNormal[0] + n[1] * faceNormal[1] + n[2] * faceNormal[2] < 0)
        paint.mesh.faceIndices = {0, 1, 2, 3};
      m_paints.push_back(paint);
    }
  }
}

// The table: a square texture around the object, with random shapes in
// many greys (cluttered) or a faint gradient (plain). Texel (i, j) is
// centred at ((i + 0.5) - side / 2, (j + 0.5) - side / 2) texel sizes.
void SequenceRenderer::buildTable() {
  m_textureSide = 2048;
  const double half = 4.0 * m_distance;
  m_texelSize = 2.0 * half / m_textureSide;
  m_texture.assign((size_t)m_textureSide * m_textureSide, 0);
  cv::Mat texture(m_textureSide, m_textureSide, CV_8U, m_texture.data());
  for (int i = 0; i < m_textureSide; i++)
    texture.col(i).setTo(toByte(30.0 + 8.0 * (i - m_textureSide / 2) * m_texelSize / half));
  if (!m_plan.clutter) return;
  std::mt19937_64 rng(m_plan.seed * 7919 + 17);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  const double spread = 2.5 * m_distance, S = m_size;
  constexpr int kShift = 4, kOne = 1 << kShift;  // sub-texel drawing precision
  // Texture coordinates of a table point, in 1 / kOne texels.
  auto texel = [&](double x, double y) {
    const double o = m_textureSide / 2 - 0.5;
    return cv::Point((int)std::lround((x / m_texelSize + o) * kOne),
                     (int)std::lround((y / m_texelSize + o) * kOne));
  };
  // Painter's order, anti-aliased: rectangles (some long and thin like
  // cables and strips), discs and rings.
  for (int k = 0; k < 260; k++) {
    const double r = unit(rng);
    const int kind = r < 0.55 ? 0 : (r < 0.85 ? 1 : 2);
    const double cx = (2.0 * unit(rng) - 1.0) * spread, cy = (2.0 * unit(rng) - 1.0) * spread;
    const double angle = unit(rng) * kPi;
    const cv::Scalar grey((int)(15 + 165 * unit(rng)));
    double a, b;
    if (kind == 0 && unit(rng) < 0.3) {
      a = S * (0.6 + 1.6 * unit(rng));
      b = S * (0.01 + 0.03 * unit(rng));
    } else if (kind == 0) {
      a = S * (0.08 + 0.5 * unit(rng));
      b = S * (0.08 + 0.4 * unit(rng));
    } else {
      a = S * (0.05 + 0.35 * unit(rng));
      b = a * (0.4 + 0.4 * unit(rng));
    }
    if (kind == 0) {
      const double c = std::cos(angle), s = std::sin(angle);
      const double uv[4][2] = {{-a, -b}, {-a, b}, {a, b}, {a, -b}};
      std::vector<cv::Point> corners;
      for (const auto& q : uv)
        corners.push_back(texel(cx + c * q[0] - s * q[1], cy + s * q[0] + c * q[1]));
      cv::fillConvexPoly(texture, corners, grey, cv::LINE_AA, kShift);
    } else {
      const int thickness =
          kind == 1 ? cv::FILLED : std::max(1, (int)std::lround((a - b) / m_texelSize));
      const double radius = kind == 1 ? a : 0.5 * (a + b);
      cv::circle(texture, texel(cx, cy), (int)std::lround(radius / m_texelSize * kOne), grey,
                 thickness, cv::LINE_AA, kShift);
    }
  }
}

unsigned char SequenceRenderer::tableGrey(double x, double y) const {
  const double u = x / m_texelSize + m_textureSide / 2 - 0.5;
  const double v = y / m_texelSize + m_textureSide / 2 - 0.5;
  if (!(u >= 0.0 && v >= 0.0 && u < m_textureSide - 1 && v < m_textureSide - 1)) return 30;
  const int i = (int)u, j = (int)v;
  const double a = u - i, b = v - j;
  const unsigned char* t = &m_texture[(size_t)j * m_textureSide + i];
  return toByte((1 - b) * ((1 - a) * t[0] + a * t[1]) +
                b * ((1 - a) * t[m_textureSide] + a * t[m_textureSide + 1]));
}

// ================================================================ per frame
double SequenceRenderer::time(int frame) const { return frame / m_plan.fps; }

void SequenceRenderer::poses(int frame, double* toolWorld, double* objectWorld,
                             double* objectInTool) const {
  const double t = time(frame) * m_plan.speed;
  const double e = envelope(t);
  const bool objectMoves = m_plan.motion == Motion::Object || m_plan.motion == Motion::Both;
  const bool toolMoves = m_plan.motion == Motion::Tool || m_plan.motion == Motion::Both;
  const double S = m_size;
  const double eo = objectMoves ? e : 0.0, et = toolMoves ? e : 0.0;
  // Rz Rx Ry about the box centre; TfromEuler's factors turn the other way.
  double To[16], moved[16], centred[16];
  TfromEuler(moved, -eo * 10.0 * wave(t, 4.5, 1.5), -eo * 12.0 * wave(t, 5.5, 2.5),
             -eo * 25.0 * wave(t, 6.0, 0.5), eo * 0.18 * S * wave(t, 5.0, 0.0),
             eo * 0.12 * S * wave(t, 7.0, 1.0), eo * 0.06 * S * wave(t, 4.0, 2.0));
  TfromEuler(centred, 0.0, 0.0, 0.0, -m_centre[0], -m_centre[1], -m_centre[2]);
  matrixProduct444(moved, centred, To);

  const double az = (m_plan.azimuthDeg + et * 20.0 * wave(t, 6.5, 0.3)) * kDeg;
  const double el = (m_plan.elevationDeg + et * 8.0 * wave(t, 5.0, 1.2)) * kDeg;
  const double d = m_distance * (1.0 + et * 0.1 * wave(t, 4.0, 2.2));
  const double eye[3] = {d * std::cos(el) * std::sin(az), -d * std::cos(el) * std::cos(az),
                         d * std::sin(el)};
  const double target[3] = {0.0, 0.0, 0.0};
  double Tt[16];
  lookAt(eye, target, et * 8.0 * wave(t, 7.0, 0.7), Tt);

  if (toolWorld != nullptr) std::copy(Tt, Tt + 16, toolWorld);
  if (objectWorld != nullptr) std::copy(To, To + 16, objectWorld);
  if (objectInTool != nullptr) {
    double inv[16];
    inverseTransform(Tt, inv);
    matrixProduct444(inv, To, objectInTool);
  }
}

void SequenceRenderer::render(int frame, std::vector<std::vector<unsigned char>>& images) const {
  images.resize(m_cameras.size());
  for (size_t c = 0; c < m_cameras.size(); c++) renderCamera((int)c, frame, images[c]);
}

void SequenceRenderer::cameraPoses(int frame, int cam, double* worldFromCam,
                                   double* objectInCam) const {
  double toolWorld[16], objectWorld[16], camera[16], camFromWorld[16];
  poses(frame, toolWorld, objectWorld, nullptr);
  double* world = worldFromCam != nullptr ? worldFromCam : camera;
  matrixProduct444(toolWorld, m_cameras[cam].toolFromCamera.data(), world);
  if (objectInCam == nullptr) return;
  inverseTransform(world, camFromWorld);
  matrixProduct444(camFromWorld, objectWorld, objectInCam);
}

void SequenceRenderer::renderCamera(int cam, int frame, std::vector<unsigned char>& image) const {
  const CameraConfig& c = m_cameras[cam];
  const int w = c.width, h = c.height;
  image.assign((size_t)w * h, 0);
  double worldFromCam[16], camFromWorld[16], objectInCam[16];
  cameraPoses(frame, cam, worldFromCam, objectInCam);
  inverseTransform(worldFromCam, camFromWorld);

  // Table: where each pixel's ray meets the plane z = tableZ; above the horizon, a grey.
  const std::vector<float>& rays = m_rays[cam];
  for (size_t k = 0; k < (size_t)w * h; k++) {
    double X, Y;
    const bool table = tableHit(worldFromCam, m_tableZ, rays[2 * k], rays[2 * k + 1], &X, &Y);
    image[k] = table ? tableGrey(X, Y) : 25;
  }

  // Object: the faces' tones plus a little Lambertian shading from a light
  // at the camera and a key light fixed in the world.
  double key[4] = {-0.5, -0.3, 0.81, 0.0}, keyCam[3];  // a direction: no translation
  normalise3(key);
  ZOTtracker::matrixProduct341(camFromWorld, key, keyCam);
  const double headlight[3] = {0.0, 0.0, -1.0};
  std::vector<RenderObject> objects;
  auto shade = [&](const Mesh& mesh, const std::vector<double>& tones) {
    RenderObject o;
    o.mesh = &mesh;
    std::copy(objectInCam, objectInCam + 16, o.pose);
    const std::vector<unsigned char> a = lambertGreys(mesh, objectInCam, headlight, 0.0, 9.0);
    const std::vector<unsigned char> b = lambertGreys(mesh, objectInCam, keyCam, 0.0, 6.0);
    for (size_t f = 0; f < a.size(); f++) o.faceGrey.push_back(toByte(tones[f] + a[f] + b[f]));
    return o;
  };
  for (const Paint& p : m_paints) objects.push_back(shade(p.mesh, {p.tone}));
  for (size_t m = 0; m < m_meshes.size(); m++)
    objects.push_back(shade(m_meshes[m], m_faceTones[m]));
  if (!objects.empty())
    renderScene(image.data(), m_renderCameras[cam], objects, std::max(1, m_plan.supersampling));

  // Mask polygons: something dark and near (a gripper finger) in front of
  // everything, fixed in the image.
  fillMasks(c, image.data(), 35, true);
  applySensor(image, w, h, m_plan, frame, cam);
}

unsigned char toByte(double v) { return cv::saturate_cast<unsigned char>(v); }

bool tableHit(const double* worldFromCam, double tableZ, double xn, double yn, double* X,
              double* Y) {
  const double* R = worldFromCam;
  const double s = (tableZ - R[11]) / (R[8] * xn + R[9] * yn + R[10]);
  if (!(s > 0.0)) return false;
  *X = R[3] + s * (R[0] * xn + R[1] * yn + R[2]);
  *Y = R[7] + s * (R[4] * xn + R[5] * yn + R[6]);
  return true;
}

RenderCamera renderCameraOf(const CameraConfig& cam) {
  RenderCamera rc;
  rc.width = cam.width;
  rc.height = cam.height;
  const double K[9] = {cam.fx, 0.0, cam.cx, 0.0, cam.fy, cam.cy, 0.0, 0.0, 1.0};
  std::copy(K, K + 9, rc.K);
  std::copy(cam.dist, cam.dist + 5, rc.dist);
  return rc;
}

void fillMasks(const CameraConfig& cam, unsigned char* image, int grey, bool antialiased) {
  constexpr int kShift = 4;  // sub-pixel precision of the vertices
  std::vector<std::vector<cv::Point>> polygons;
  for (const std::vector<double>& m : cam.masks) {
    if (m.size() < 6) continue;
    polygons.emplace_back();
    for (size_t k = 0; k + 1 < m.size(); k += 2)
      polygons.back().emplace_back((int)std::lround(m[k] * (1 << kShift)),
                                   (int)std::lround(m[k + 1] * (1 << kShift)));
  }
  cv::Mat picture(cam.height, cam.width, CV_8U, image);
  cv::fillPoly(picture, polygons, cv::Scalar(grey), antialiased ? cv::LINE_AA : cv::LINE_8, kShift);
}

void applySensor(std::vector<unsigned char>& image, int width, int height, const SequenceSpec& plan,
                 int frame, int cam) {
  if (plan.blur > 0.0 && width > 0 && height > 0) {
    cv::Mat picture(height, width, CV_8U, image.data());
    const int size = 2 * std::max(1, (int)std::ceil(3.0 * plan.blur)) + 1;
    cv::GaussianBlur(picture, picture, cv::Size(size, size), plan.blur, plan.blur,
                     cv::BORDER_REPLICATE);
  }
  if (plan.noise > 0.0) {
    std::mt19937_64 rng(plan.seed * 1000003ULL + (uint64_t)frame * 31ULL + (uint64_t)cam);
    std::normal_distribution<double> noise(0.0, plan.noise);
    for (unsigned char& p : image) p = toByte(p + noise(rng));
  }
}

}  // namespace zot_sim
