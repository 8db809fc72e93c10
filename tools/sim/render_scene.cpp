#include "render_scene.h"

#include <algorithm>
#include <cmath>
#include <opencv2/core/types.hpp>

#include "Math.h"
#include "lens.h"

namespace zot_sim {

namespace {

struct Face {
  int start, size;
  double n[3], d;  // plane n . X = d in the object frame, n of unit length
  int axis;        // dominant normal axis, dropped for the 2D inside test
};

struct PreparedObject {
  const RenderObject* object;
  std::vector<Face> faces;
  double Rt[9], origin[3];  // camera-to-object rotation and camera centre in the object frame
  int firstFaceId = 0;      // faces of all objects numbered one after the other
};

PreparedObject prepare(const RenderObject& o) {
  PreparedObject p;
  p.object = &o;
  const Mesh& m = *o.mesh;
  int start = 0;
  for (int size : m.faceSizes) {
    Face f{start, size, {0, 0, 0}, 0, 2};
    const double* a = &m.vertices[3 * m.faceIndices[start]];
    polygonNormal(m.vertices, &m.faceIndices[start], size, f.n);
    f.d = f.n[0] * a[0] + f.n[1] * a[1] + f.n[2] * a[2];
    const double ax = std::fabs(f.n[0]), ay = std::fabs(f.n[1]), az = std::fabs(f.n[2]);
    f.axis = (ax >= ay && ax >= az) ? 0 : (ay >= az ? 1 : 2);
    p.faces.push_back(f);
    start += size;
  }
  double objectFromCamera[16];
  ZOTtracker::inverseTransform(o.pose, objectFromCamera);
  ZOTtracker::rotTranslFromT(objectFromCamera, p.Rt, p.origin);
  return p;
}

// Crossing-number test in the plane that drops the face's dominant axis.
bool insideFace(const Mesh& m, const Face& f, const double* X) {
  const int a = f.axis == 0 ? 1 : 0, b = f.axis == 2 ? 1 : 2;
  bool inside = false;
  for (int k = 0, j = f.size - 1; k < f.size; j = k++) {
    const double* p = &m.vertices[3 * m.faceIndices[f.start + k]];
    const double* q = &m.vertices[3 * m.faceIndices[f.start + j]];
    if ((p[b] > X[b]) != (q[b] > X[b]) &&
        X[a] < (q[a] - p[a]) * (X[b] - p[b]) / (q[b] - p[b]) + p[a])
      inside = !inside;
  }
  return inside;
}

// Nearest hit along the camera ray (x, y, 1): depth and grey, or depth < 0.
void castRay(const std::vector<const PreparedObject*>& objects, double x, double y, double* depth,
             unsigned char* grey, int* id = nullptr) {
  *depth = -1.0;
  if (id != nullptr) *id = -1;
  for (const PreparedObject* pp : objects) {
    const PreparedObject& p = *pp;
    const double dir[3] = {p.Rt[0] * x + p.Rt[1] * y + p.Rt[2], p.Rt[3] * x + p.Rt[4] * y + p.Rt[5],
                           p.Rt[6] * x + p.Rt[7] * y + p.Rt[8]};
    for (size_t fi = 0; fi < p.faces.size(); fi++) {
      const Face& f = p.faces[fi];
      const double denom = f.n[0] * dir[0] + f.n[1] * dir[1] + f.n[2] * dir[2];
      if (denom == 0.0) continue;
      const double s =
          (f.d - (f.n[0] * p.origin[0] + f.n[1] * p.origin[1] + f.n[2] * p.origin[2])) / denom;
      if (s <= 0.0 || (*depth >= 0.0 && s >= *depth)) continue;
      const double X[3] = {p.origin[0] + s * dir[0], p.origin[1] + s * dir[1],
                           p.origin[2] + s * dir[2]};
      if (!insideFace(*p.object->mesh, f, X)) continue;
      *depth = s;  // camera depth: the ray has unit z in the camera frame
      *grey = fi < p.object->faceGrey.size() ? p.object->faceGrey[fi] : 0;
      if (id != nullptr) *id = p.firstFaceId + (int)fi;
    }
  }
}

// Pixel box of an object's projected vertices, 2 pixels wider on every
// side; the whole image when a vertex is behind the camera.
cv::Rect projectedBox(const RenderCamera& cam, const RenderObject& o) {
  cv::Rect box;
  const std::vector<double>& v = o.mesh->vertices;
  for (size_t i = 0; i + 2 < v.size(); i += 3) {
    const double* T = o.pose;
    const double z = T[8] * v[i] + T[9] * v[i + 1] + T[10] * v[i + 2] + T[11];
    double uv[2];
    projectDistorted(cam, o.pose, &v[i], uv);
    if (z <= 0.0 || !std::isfinite(uv[0]) || !std::isfinite(uv[1]))
      return cv::Rect(0, 0, cam.width, cam.height);
    const cv::Point low((int)std::floor(uv[0]) - 2, (int)std::floor(uv[1]) - 2);
    const cv::Rect around(low, cv::Point((int)std::ceil(uv[0]) + 3, (int)std::ceil(uv[1]) + 3));
    box |= around;
  }
  return box;
}

// Casts ss x ss samples through every pixel of the objects' boxes, each
// sample against the objects whose box holds the pixel, and hands every
// pixel with at least one hit to visit(pixel index, hits, sum of the hit
// greys). `adaptive`: one ray through each pixel's centre first; a pixel
// whose centre and 8 neighbours' centres see the same face takes that face
// for all its samples (a detail smaller than a pixel between the centres is
// missed).
template <class Visit>
void castPixels(const RenderCamera& cam, const std::vector<RenderObject>& objects, int ss,
                bool adaptive, Visit visit) {
  std::vector<PreparedObject> prepared;
  std::vector<cv::Rect> boxes;
  cv::Rect all;  // the union of the boxes inside the image
  int faces = 0;
  for (const RenderObject& o : objects) {
    prepared.push_back(prepare(o));
    prepared.back().firstFaceId = faces;
    faces += (int)prepared.back().faces.size();
    boxes.push_back(projectedBox(cam, o));
    all |= boxes.back();
  }
  all &= cv::Rect(0, 0, cam.width, cam.height);
  if (all.empty()) return;
  const int x0 = all.x, y0 = all.y, x1 = all.br().x - 1, y1 = all.br().y - 1;
  const double fx = cam.K[0], cx = cam.K[2], fy = cam.K[4], cy = cam.K[5];
  std::vector<const PreparedObject*> active;
  auto activate = [&](int x, int y) {
    active.clear();
    for (size_t k = 0; k < prepared.size(); k++)
      if (boxes[k].contains(cv::Point(x, y))) active.push_back(&prepared[k]);
    return !active.empty();
  };
  // Centre rays: face id (-1 none) and grey per pixel of the box.
  const int bw = x1 - x0 + 1, bh = y1 - y0 + 1;
  std::vector<int> centreId;
  std::vector<unsigned char> centreGrey;
  if (adaptive) {
    centreId.assign((size_t)bw * bh, -1);
    centreGrey.assign((size_t)bw * bh, 0);
    for (int y = y0; y <= y1; y++) {
      for (int x = x0; x <= x1; x++) {
        if (!activate(x, y)) continue;
        double xn, yn, depth;
        undistortNormalized(cam.dist, (x - cx) / fx, (y - cy) / fy, &xn, &yn);
        const size_t k = (size_t)(y - y0) * bw + (x - x0);
        castRay(active, xn, yn, &depth, &centreGrey[k], &centreId[k]);
      }
    }
  }
  auto uniform = [&](int x, int y) {
    const int id = centreId[(size_t)(y - y0) * bw + (x - x0)];
    for (int dy = -1; dy <= 1; dy++) {
      for (int dx = -1; dx <= 1; dx++) {
        const int xx = x + dx, yy = y + dy;
        const bool inBox = xx >= x0 && xx <= x1 && yy >= y0 && yy <= y1;
        if ((inBox ? centreId[(size_t)(yy - y0) * bw + (xx - x0)] : -1) != id) return false;
      }
    }
    return true;
  };
  for (int y = y0; y <= y1; y++) {
    for (int x = x0; x <= x1; x++) {
      if (adaptive && uniform(x, y)) {
        const size_t k = (size_t)(y - y0) * bw + (x - x0);
        if (centreId[k] >= 0)
          visit((long)y * cam.width + x, ss * ss, ss * ss * (double)centreGrey[k]);
        continue;
      }
      if (!activate(x, y)) continue;
      double sum = 0.0;
      int hits = 0;
      for (int sy = 0; sy < ss; sy++) {
        for (int sx = 0; sx < ss; sx++) {
          const double u = x - 0.5 + (sx + 0.5) / ss, v = y - 0.5 + (sy + 0.5) / ss;
          double xn, yn, depth;
          undistortNormalized(cam.dist, (u - cx) / fx, (v - cy) / fy, &xn, &yn);
          unsigned char grey = 0;
          castRay(active, xn, yn, &depth, &grey);
          if (depth > 0.0) {
            sum += grey;
            hits++;
          }
        }
      }
      if (hits > 0) visit((long)y * cam.width + x, hits, sum);
    }
  }
}

}  // namespace

void projectDistorted(const RenderCamera& cam, const double* pose, const double* X, double* uv) {
  const double* T = pose;
  const double Y[3] = {T[0] * X[0] + T[1] * X[1] + T[2] * X[2] + T[3],
                       T[4] * X[0] + T[5] * X[1] + T[6] * X[2] + T[7],
                       T[8] * X[0] + T[9] * X[1] + T[10] * X[2] + T[11]};
  double xd, yd;
  distortNormalized(cam.dist, Y[0] / Y[2], Y[1] / Y[2], &xd, &yd);
  uv[0] = cam.K[0] * xd + cam.K[2];
  uv[1] = cam.K[4] * yd + cam.K[5];
}

void renderScene(unsigned char* img, const RenderCamera& cam,
                 const std::vector<RenderObject>& objects, int ss, bool adaptive) {
  const int n = ss * ss;
  castPixels(cam, objects, ss, adaptive, [&](long pixel, int hits, double sum) {
    img[pixel] = (unsigned char)std::lround((sum + (n - hits) * (double)img[pixel]) / n);
  });
}

void renderCoverage(const RenderCamera& cam, const std::vector<RenderObject>& objects, int ss,
                    std::vector<float>& coverage, bool adaptive) {
  coverage.assign((size_t)cam.width * cam.height, 0.0f);
  const float n = (float)(ss * ss);
  castPixels(cam, objects, ss, adaptive,
             [&](long pixel, int hits, double) { coverage[pixel] = hits / n; });
}

std::vector<unsigned char> lambertGreys(const Mesh& mesh, const double* pose,
                                        const double* lightDir, double ambient, double diffuse) {
  RenderObject o;
  o.mesh = &mesh;
  std::copy(pose, pose + 16, o.pose);
  const PreparedObject p = prepare(o);
  double l[3] = {lightDir[0], lightDir[1], lightDir[2]}, R[9], t[3];
  ZOTtracker::normalize(l, 3, 1);
  ZOTtracker::rotTranslFromT(pose, R, t);
  std::vector<unsigned char> greys;
  for (const Face& f : p.faces) {
    double nc[3];  // the face normal in the camera frame
    ZOTtracker::matrixProduct331(R, f.n, nc);
    const double lambert = std::max(0.0, ZOTtracker::dotProd3(nc, l));
    const double grey = std::round(ambient + diffuse * lambert);
    greys.push_back((unsigned char)std::min(255.0, std::max(0.0, grey)));
  }
  return greys;
}

}  // namespace zot_sim
