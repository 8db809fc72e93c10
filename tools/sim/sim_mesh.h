/// @file
/// Polygon meshes for simulation: the shapes that synthetic sequences,
/// tests and benchmarks render and track (boxes, plates, spheres, tori).
#pragma once

#include <vector>

namespace zot_sim {

constexpr double kPi = 3.141592653589793;

/// A polygon mesh with 0-based face lists.
struct Mesh {
  std::vector<double> vertices;  /// 3 per vertex
  std::vector<int> faceSizes;    /// vertices per face
  std::vector<int> faceIndices;  /// all face lists, one after the other
};

/// Axis-aligned box, 8 vertices and 6 quadrilaterals wound outward.
/// Vertex i has x = +h when bit 0 is set, y when bit 1, z when bit 2.
Mesh boxMesh(const double centre[3], const double halfSize[3]);
/// Square of side 2*half in the plane z = 0, normal +z, as one face.
Mesh plateMesh(double half);
/// Closed triangle mesh of a sphere: nLat rings, nLon segments, poles as
/// triangle fans; 2 * nLon * (nLat - 1) triangles.
Mesh sphereMesh(int nLat, int nLon, double radius);
/// Closed triangle mesh of a torus around the z axis: nU segments around
/// the axis, nV around the tube; 2 * nU * nV triangles.
Mesh torusMesh(int nU, int nV, double majorRadius, double minorRadius);

/// Appends the mesh as the polyhedron part of a setup array, as the
/// polyhedron file gives it: nVertices, x y z per vertex, nFaces, then per
/// face its vertex count and its 1-based vertex indices.
void appendPolyhedronValues(const Mesh& mesh, std::vector<double>& values);

/// Unit Newell normal of the polygon whose n vertex indices into `vertices`
/// (3 per vertex) start at idx; it follows the winding (counter-clockwise
/// seen from the side it points to) and stays robust for non-planar faces.
void polygonNormal(const std::vector<double>& vertices, const int* idx, int n, double* normal);

}  // namespace zot_sim
