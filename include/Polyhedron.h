/// @file
/// A polygon mesh body: vertices and faces given by the set-up, and the
/// topology the visibility step needs (unit face normals, unique edges with
/// their one or two faces and a feature flag, per face the index of each of
/// its edges). A polyhedron is either closed (every edge has two faces) or
/// flat (an open surface whose boundary edges have one face).
#pragma once

namespace ZOTtracker {

class Polyhedron {
 public:
  // ---------------------------------------------------------------- set-up
  /// Flat false, crease angle -1, all counts 0, all pointers null.
  Polyhedron();
  ~Polyhedron();

  /// Builds normals, edges and face-edge lists from m_vertices and the face
  /// lists. Needs m_nVertices, m_vertices, m_nFaces, m_nVerticesPerFace,
  /// m_faceVertices, m_faceEdges (same lengths as the face lists),
  /// m_faceNormals (3 per face) and m_faceFacing (1 per face) in place; takes
  /// the edge, corner, edge-state and scratch buffers from the pools (plus 2
  /// ints per face corner for sorting the corners, used only here). Edges
  /// come out in the order of corner-by-corner pairing: the corners are
  /// visited face by face, and each unconsumed corner pairs with all later
  /// corners over the same two vertices. An edge between two faces whose
  /// normals differ by more than featureAngleDeg is a feature edge (none when
  /// the angle is <= 0); a flat body's boundary edges always are.
  /// Returns 0, or -1 with a message for a mesh whose faces disagree on their
  /// winding, a closed mesh whose edges are not all paired, a flat one with an
  /// edge shared by more than two faces, or a face referring to a vertex that
  /// does not exist (the body is then left half built). Faces with fewer than
  /// three vertices or collinear first vertices get the normal (0, 0, 1) and
  /// a warning.
  int init(bool flat, double featureAngleDeg);

  /// Re-expresses the geometry in the frame T (4 x 4 pose): with U = T^-1,
  /// every vertex p <- U p and every face normal n <- rot(U) n.
  void changeLocalFrame(const double* T);

  // ---------------------------------------------------------------- getters
  /// Faces of edge e (second -1 for a boundary edge).
  int edgeFace0(int e) const { return m_edges[5 * e + 2]; }
  int edgeFace1(int e) const { return m_edges[5 * e + 3]; }

  // ---------------------------------------------------------------- data
  bool m_isFlat;
  double m_featureAngleDeg;
  int m_nVertices;
  double* m_vertices;  ///< 3 per vertex, object frame
  int m_nEdges;
  int* m_edges;        ///< 5 per edge: vertex a, vertex b, face 0, face 1 (-1 none), feature flag
  int* m_faceCorners;  ///< 3 per face corner: vertex, next vertex, face (-1 once paired)
  int m_nFaces;
  int* m_nVerticesPerFace;
  int** m_faceVertices;        ///< per face its vertex indices; order gives the outward normal
  int** m_faceEdges;           ///< per face per corner j the edge from vertex j to vertex j+1
  double* m_faceNormals;       ///< 3 per face, unit, object frame
  double* m_verticesInCamera;  ///< sampler scratch, 3 per vertex
  double* m_faceScratch;       ///< reserved scratch, 3 per face
  unsigned char* m_edgeState;  ///< sampler edge states, 1 per edge
  double* m_faceFacing;        ///< sampler facing values, 1 per face
};

}  // namespace ZOTtracker
