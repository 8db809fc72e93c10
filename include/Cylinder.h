/// @file
/// A cylinder between two cutting planes. It can be described and set up, but
/// neither contour sampling nor re-framing supports it; both say so when they
/// meet one.
#pragma once

namespace ZOTtracker {

class Cylinder {
 public:
  // ---------------------------------------------------------------- set-up
  /// No constructor: the fields are undefined until init.

  /// Bottom plane through p1 with normal nb, top plane through p2 with normal
  /// nt, axis the unit vector from p1 to p2. Returns 0, or -1 (after printing
  /// a message) when p1 and p2 coincide and the axis has no direction; the
  /// axis is then left as the zero vector.
  int init(double radius, const double* nb, const double* p1, const double* nt, const double* p2);

  /// Prints "ERROR: Cylinder::changeLocalFrame is not yet implemented!" and
  /// leaves the cylinder as it is.
  void changeLocalFrame(const double* T);

  // ---------------------------------------------------------------- data
  double m_axis[3];          ///< unit vector from the bottom centre to the top centre
  double m_bottomCentre[3];  ///< p1
  double m_bottomPlane[4];   ///< nb, -(nb . p1)
  double m_topPlane[4];      ///< nt, -(nt . p2)
  double m_radius;
};

}  // namespace ZOTtracker
