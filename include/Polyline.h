/// @file
/// A set of 3D straight segments between shared points: markings and thin
/// features without faces of their own. Its segments take part in contour
/// sampling like polyhedron edges.
#pragma once

namespace ZOTtracker {

class Polyline {
 public:
  // ---------------------------------------------------------------- set-up
  /// All pointers null, both counts 0.
  Polyline();
  /// Sets both counts to 0; the buffers belong to the pools.
  ~Polyline();

  /// Re-expresses the points in the frame T (4 x 4 pose): p <- T^-1 p.
  /// Segments and the camera scratch are not touched.
  void changeLocalFrame(const double* T);

  // ---------------------------------------------------------------- data
  double* m_points;  ///< 3 per point, object frame
  int m_nPoints;
  int* m_segments;  ///< 2 per segment: first and second point (0-based); order gives direction
  int m_nSegments;
  double* m_pointsInCamera;  ///< sampler scratch, 3 per point
};

}  // namespace ZOTtracker
