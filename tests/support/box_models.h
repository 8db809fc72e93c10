// Test models: meshes (boxes, a plate, a tessellated sphere) built into
// Polyhedron/Multibody bodies through the typed pools the way the set-up
// lays them out, plus cameras and poses for rendering them.
#pragma once

#include <cstddef>
#include <vector>

#include "Multibody.h"
#include "sim_mesh.h"

namespace zot_test {

// Reserves pools large enough for the visibility tests (images up to
// 640 x 480, a few thousand faces) on construction and releases them, with
// the overrun check of doBigFree, on destruction.
struct PoolScope {
  explicit PoolScope(size_t doubles = 4000000, size_t ints = 2000000, size_t bytes = 4000000);
  ~PoolScope();
};

// Meshes come from the simulation library.
using zot_sim::boxMesh;
using zot_sim::Mesh;
using zot_sim::plateMesh;
using zot_sim::sphereMesh;

// Sets the mesh up as the tracker does from a setup array (pool buffers and
// Polyhedron::init). Returns the set-up's result.
int buildPolyhedron(ZOTtracker::Polyhedron& ph, const Mesh& mesh, bool flat,
                    double featureAngleDeg);

// Appends an active polyhedron body; returns its index, or -1 when init fails.
int addPolyhedronBody(ZOTtracker::Multibody& mb, const Mesh& mesh, bool flat,
                      double featureAngleDeg);
// Appends an active polyline body (points 3 each, segments 2 each, 0-based)
// lying on face supportFace of body supportBody (-1 for none); returns its index.
int addPolylineBody(ZOTtracker::Multibody& mb, const std::vector<double>& points,
                    const std::vector<int>& segments, int supportBody, int supportFace);

// K = [f 0 (w-1)/2; 0 f (h-1)/2; 0 0 1].
void pinholeK(double* K, double f, int width, int height);
// Frustum of camera `cam` for K and the image 0..w-1 x 0..h-1.
void setCameraFrustum(ZOTtracker::Multibody& mb, int cam, const double* K, int width, int height,
                      double zNear, double zFar);
// Pose T (object in camera frame) rotated by the Euler angles in degrees
// (RotFromEuler) and translated by t.
void makePose(double* T, double ax, double ay, double az, double tx, double ty, double tz);
// Pixel (u, v) of an object point under pose T and K (no skew).
void projectObjectPoint(const double* T, const double* K, const double* X, double* uv);

}  // namespace zot_test
