// Mesh generators for simulation.
#include "sim_mesh.h"

#include <cmath>

#include "Math.h"

namespace zot_sim {

Mesh boxMesh(const double centre[3], const double halfSize[3]) {
  Mesh m;
  for (int i = 0; i < 8; i++) {
    for (int a = 0; a < 3; a++) {
      const double s = ((i >> a) & 1) ? 1.0 : -1.0;
      m.vertices.push_back(centre[a] + s * halfSize[a]);
    }
  }
  // Outward winding (counter-clockwise seen from outside).
  const int faces[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4},
                           {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
  for (const auto& f : faces) {
    m.faceSizes.push_back(4);
    m.faceIndices.insert(m.faceIndices.end(), f, f + 4);
  }
  return m;
}

Mesh plateMesh(double half) {
  Mesh m;
  m.vertices = {-half, -half, 0.0, half, -half, 0.0, half, half, 0.0, -half, half, 0.0};
  m.faceSizes = {4};
  m.faceIndices = {0, 1, 2, 3};
  return m;
}

Mesh sphereMesh(int nLat, int nLon, double radius) {
  Mesh m;
  m.vertices = {0.0, 0.0, radius};
  for (int i = 1; i < nLat; i++) {
    const double theta = kPi * i / nLat;
    for (int j = 0; j < nLon; j++) {
      const double phi = 2.0 * kPi * j / nLon;
      m.vertices.push_back(radius * std::sin(theta) * std::cos(phi));
      m.vertices.push_back(radius * std::sin(theta) * std::sin(phi));
      m.vertices.push_back(radius * std::cos(theta));
    }
  }
  m.vertices.insert(m.vertices.end(), {0.0, 0.0, -radius});
  const int south = 1 + (nLat - 1) * nLon;
  auto ring = [nLon](int i, int j) { return 1 + (i - 1) * nLon + (j % nLon); };
  auto tri = [&m](int a, int b, int c) {
    m.faceSizes.push_back(3);
    m.faceIndices.insert(m.faceIndices.end(), {a, b, c});
  };
  for (int j = 0; j < nLon; j++) tri(0, ring(1, j), ring(1, j + 1));
  for (int i = 1; i < nLat - 1; i++) {
    for (int j = 0; j < nLon; j++) {
      tri(ring(i, j), ring(i + 1, j), ring(i + 1, j + 1));
      tri(ring(i, j), ring(i + 1, j + 1), ring(i, j + 1));
    }
  }
  for (int j = 0; j < nLon; j++) tri(south, ring(nLat - 1, j + 1), ring(nLat - 1, j));
  return m;
}

Mesh torusMesh(int nU, int nV, double majorRadius, double minorRadius) {
  Mesh m;
  for (int i = 0; i < nU; i++) {
    const double u = 2.0 * kPi * i / nU;
    for (int j = 0; j < nV; j++) {
      const double v = 2.0 * kPi * j / nV;
      const double r = majorRadius + minorRadius * std::cos(v);
      m.vertices.push_back(r * std::cos(u));
      m.vertices.push_back(r * std::sin(u));
      m.vertices.push_back(minorRadius * std::sin(v));
    }
  }
  auto index = [nU, nV](int i, int j) { return (i % nU) * nV + (j % nV); };
  for (int i = 0; i < nU; i++) {
    for (int j = 0; j < nV; j++) {
      // Outward winding: counter-clockwise seen from outside the tube.
      const int a = index(i, j), b = index(i + 1, j), c = index(i + 1, j + 1), d = index(i, j + 1);
      m.faceSizes.insert(m.faceSizes.end(), {3, 3});
      m.faceIndices.insert(m.faceIndices.end(), {a, b, c, a, c, d});
    }
  }
  return m;
}

void appendPolyhedronValues(const Mesh& mesh, std::vector<double>& values) {
  values.push_back((double)(mesh.vertices.size() / 3));
  values.insert(values.end(), mesh.vertices.begin(), mesh.vertices.end());
  values.push_back((double)mesh.faceSizes.size());
  size_t next = 0;
  for (int size : mesh.faceSizes) {
    values.push_back(size);
    for (int k = 0; k < size; k++) values.push_back(mesh.faceIndices[next++] + 1);
  }
}

void polygonNormal(const std::vector<double>& vertices, const int* idx, int n, double* normal) {
  normal[0] = normal[1] = normal[2] = 0.0;
  for (int k = 0; k < n; k++) {
    const double* a = &vertices[3 * idx[k]];
    const double* b = &vertices[3 * idx[(k + 1) % n]];
    normal[0] += (a[1] - b[1]) * (a[2] + b[2]);
    normal[1] += (a[2] - b[2]) * (a[0] + b[0]);
    normal[2] += (a[0] - b[0]) * (a[1] + b[1]);
  }
  ZOTtracker::normalize(normal, 3, 1);
}

}  // namespace zot_sim
