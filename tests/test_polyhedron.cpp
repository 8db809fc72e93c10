// Polyhedron topology, polyline and cylinder bodies, and the multibody model
// around them (capacities, getters, local frames).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <string>
#include <vector>

#include "Math.h"
#include "Multibody.h"
#include "box_models.h"
#include "memory_handling.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

class PolyhedronTest : public ::testing::Test {
 protected:
  zot_test::PoolScope m_pools;
};

const double kOrigin[3] = {0, 0, 0};
const double kUnit[3] = {1, 1, 1};

// Corner-by-corner pairing exactly as it reads: each unconsumed corner scans
// all later corners. Quadratic, for small meshes only.
struct NaiveEdges {
  std::vector<int> edges;  // 5 per edge
  int result = 0;
};

NaiveEdges naivePairing(const zot_test::Mesh& m, bool flat) {
  std::vector<int> corners;
  size_t next = 0;
  for (size_t f = 0; f < m.faceSizes.size(); f++) {
    const int n = m.faceSizes[f];
    for (int j = 0; j < n; j++) {
      corners.push_back(m.faceIndices[next + j]);
      corners.push_back(m.faceIndices[next + (j + 1) % n]);
      corners.push_back((int)f);
    }
    next += n;
  }
  NaiveEdges out;
  const size_t N = corners.size() / 3;
  for (size_t i = 0; i < N; i++) {
    if (corners[3 * i + 2] == -1) continue;
    const int a = corners[3 * i], b = corners[3 * i + 1], f = corners[3 * i + 2];
    corners[3 * i + 2] = -1;
    int matches = 0;
    for (size_t j = i + 1; j < N; j++) {
      if (corners[3 * j + 2] == -1) continue;
      const int a2 = corners[3 * j], b2 = corners[3 * j + 1];
      if (a2 == b && b2 == a) {
        out.edges.insert(out.edges.end(), {a, b, f, corners[3 * j + 2], 0});
        corners[3 * j + 2] = -1;
        matches++;
      } else if (a2 == a && b2 == b) {
        out.result = -1;
        return out;
      }
    }
    if (flat && matches == 0) out.edges.insert(out.edges.end(), {a, b, f, -1, 1});
    if ((flat && matches > 1) || (!flat && matches != 1)) {
      out.result = -1;
      return out;
    }
  }
  return out;
}

// Checks the face-edge lists against the edge list.
void expectFaceEdgesConsistent(const Polyhedron& ph) {
  for (int f = 0; f < ph.m_nFaces; f++) {
    const int n = ph.m_nVerticesPerFace[f];
    for (int j = 0; j < n; j++) {
      const int e = ph.m_faceEdges[f][j];
      ASSERT_GE(e, 0);
      ASSERT_LT(e, ph.m_nEdges);
      const int a = ph.m_faceVertices[f][j], b = ph.m_faceVertices[f][(j + 1) % n];
      const int* edge = ph.m_edges + 5 * e;
      EXPECT_TRUE((edge[0] == a && edge[1] == b) || (edge[0] == b && edge[1] == a));
      EXPECT_TRUE(edge[2] == f || edge[3] == f);
    }
  }
}

}  // namespace

TEST_F(PolyhedronTest, CubeTopologyAndFeatureAngle) {
  const zot_test::Mesh cube = zot_test::boxMesh(kOrigin, kUnit);
  for (double angle : {30.0, 0.0, -1.0, 95.0}) {
    Polyhedron ph;
    ASSERT_EQ(zot_test::buildPolyhedron(ph, cube, false, angle), 0);
    ASSERT_EQ(ph.m_nEdges, 12);
    int nFeature = 0;
    for (int e = 0; e < 12; e++) {
      const int* edge = ph.m_edges + 5 * e;
      EXPECT_GE(edge[3], 0) << "closed: two faces per edge";
      EXPECT_NE(edge[2], edge[3]);
      nFeature += edge[4];
      // Edge direction follows the winding of its first face.
      const int* fv = ph.m_faceVertices[edge[2]];
      bool found = false;
      for (int j = 0; j < 4; j++) found |= fv[j] == edge[0] && fv[(j + 1) % 4] == edge[1];
      EXPECT_TRUE(found);
      EXPECT_EQ(ph.m_edgeState[e], 0);
    }
    EXPECT_EQ(nFeature, (angle > 0.0 && angle < 90.0) ? 12 : 0) << "angle " << angle;
    expectFaceEdgesConsistent(ph);
    // Outward unit normals: the normal points from the centre to the face.
    for (int f = 0; f < 6; f++) {
      const double* n = ph.m_faceNormals + 3 * f;
      EXPECT_NEAR(norm(n, 3), 1.0, 1e-12);
      const double* p = ph.m_vertices + 3 * ph.m_faceVertices[f][0];
      EXPECT_GT(dotProd3(n, p), 0.0);
    }
  }
  // The first edge is the first corner of face 0 paired with its opposite.
  Polyhedron ph;
  ASSERT_EQ(zot_test::buildPolyhedron(ph, cube, false, 30.0), 0);
  EXPECT_EQ(ph.m_edges[0], 0);
  EXPECT_EQ(ph.m_edges[1], 2);
  EXPECT_EQ(ph.m_edges[2], 0);
  EXPECT_EQ(ph.m_edges[3], 4);
}

TEST_F(PolyhedronTest, FlatPlateHasFourBoundaryFeatureEdges) {
  Polyhedron ph;
  ASSERT_EQ(zot_test::buildPolyhedron(ph, zot_test::plateMesh(1.0), true, -1.0), 0);
  ASSERT_EQ(ph.m_nEdges, 4);
  for (int e = 0; e < 4; e++) {
    EXPECT_EQ(ph.m_edges[5 * e + 0], e);
    EXPECT_EQ(ph.m_edges[5 * e + 1], (e + 1) % 4);
    EXPECT_EQ(ph.m_edges[5 * e + 2], 0);
    EXPECT_EQ(ph.m_edges[5 * e + 3], -1);
    EXPECT_EQ(ph.m_edges[5 * e + 4], 1);
    EXPECT_EQ(ph.m_faceEdges[0][e], e);
  }
  EXPECT_EQ(ph.m_faceNormals[2], 1.0);
  // Two plates sharing an edge: 7 edges, the shared one with two faces.
  zot_test::Mesh two;
  two.vertices = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 2, 0, 0, 2, 1, 0};
  two.faceSizes = {4, 4};
  two.faceIndices = {0, 1, 2, 3, 1, 4, 5, 2};
  Polyhedron ph2;
  ASSERT_EQ(zot_test::buildPolyhedron(ph2, two, true, 10.0), 0);
  EXPECT_EQ(ph2.m_nEdges, 7);
  const int* shared = ph2.m_edges + 5;  // corner (1, 2) of face 0 is the second corner
  EXPECT_EQ(shared[0], 1);
  EXPECT_EQ(shared[1], 2);
  EXPECT_EQ(shared[3], 1);
  EXPECT_EQ(shared[4], 0) << "coplanar faces: no feature";
  expectFaceEdgesConsistent(ph2);
}

TEST_F(PolyhedronTest, InconsistentMeshesFailWithTheirMessages) {
  const zot_test::Mesh cube = zot_test::boxMesh(kOrigin, kUnit);
  {
    // One face wound the other way.
    zot_test::Mesh flipped = cube;
    std::reverse(flipped.faceIndices.begin() + 8, flipped.faceIndices.begin() + 12);
    Polyhedron ph;
    CaptureStdout();
    EXPECT_EQ(zot_test::buildPolyhedron(ph, flipped, false, 30.0), -1);
    EXPECT_EQ(GetCapturedStdout(),
              "ERROR: incoherent face normals (an edge is found twice, but with the same "
              "direction)!\n");
  }
  {
    // A closed body with a hole.
    zot_test::Mesh open = cube;
    open.faceSizes.pop_back();
    open.faceIndices.resize(20);
    Polyhedron ph;
    CaptureStdout();
    EXPECT_EQ(zot_test::buildPolyhedron(ph, open, false, 30.0), -1);
    EXPECT_EQ(GetCapturedStdout(),
              "ERROR: for non-flat polyhedra, unique edges should all be present pair-wise!\n");
    // The same surface declared flat is fine.
    Polyhedron flat;
    EXPECT_EQ(zot_test::buildPolyhedron(flat, open, true, 30.0), 0);
    EXPECT_EQ(flat.m_nEdges, 12);
  }
  {
    // Three faces on one edge of a flat surface.
    zot_test::Mesh fan;
    fan.vertices = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, -1, 0, 0, 0, 1};
    fan.faceSizes = {3, 3, 3};
    fan.faceIndices = {0, 1, 2, 1, 0, 3, 1, 0, 4};
    Polyhedron ph;
    CaptureStdout();
    EXPECT_EQ(zot_test::buildPolyhedron(ph, fan, true, 30.0), -1);
    EXPECT_EQ(GetCapturedStdout(), "ERROR: a non-unique edge should be present at most twice!\n");
  }
  {
    // A face naming a vertex that does not exist.
    zot_test::Mesh bad = cube;
    bad.faceIndices[5] = 8;
    Polyhedron ph;
    CaptureStdout();
    EXPECT_EQ(zot_test::buildPolyhedron(ph, bad, false, 30.0), -1);
    EXPECT_EQ(GetCapturedStdout(),
              "ERROR: polygon 1 refers to vertex 8, but there are only 8 vertices!\n");
  }
}

TEST_F(PolyhedronTest, DegenerateFacesGetDefaultNormalAndWarning) {
  // A flat strip whose second face has three collinear first vertices.
  zot_test::Mesh m;
  m.vertices = {0, 0, 0, 1, 0, 0, 1, 1, 0, 2, 0, 0, 3, 0, 0};
  m.faceSizes = {3, 3};
  m.faceIndices = {0, 1, 2, 1, 3, 4};
  Polyhedron ph;
  CaptureStdout();
  EXPECT_EQ(zot_test::buildPolyhedron(ph, m, true, 30.0), 0);
  EXPECT_EQ(GetCapturedStdout(),
            "WARNING: polygon 1 has collinear edges -> cannot compute the face normal!\n"
            "Vertices = [1 3 4 ];\n");
  EXPECT_EQ(ph.m_faceNormals[3], 0.0);
  EXPECT_EQ(ph.m_faceNormals[4], 0.0);
  EXPECT_EQ(ph.m_faceNormals[5], 1.0);
  // Faces with fewer than three vertices and repeated vertices do not crash.
  zot_test::Mesh tiny;
  tiny.vertices = {0, 0, 0, 1, 0, 0, 0, 1, 0};
  tiny.faceSizes = {2, 3};
  tiny.faceIndices = {0, 1, 0, 0, 2};
  Polyhedron ph2;
  CaptureStdout();
  const int r = zot_test::buildPolyhedron(ph2, tiny, true, 30.0);
  const std::string out = GetCapturedStdout();
  EXPECT_NE(out.find("WARNING: polygon 0 has collinear edges"), std::string::npos);
  EXPECT_TRUE(r == 0 || r == -1);
}

TEST_F(PolyhedronTest, SortedPairingKeepsTheCornerByCornerOrder) {
  // A sphere, and the same sphere with the faces listed in a scrambled order
  // and rotated corners, so that the groups meet in a different order.
  zot_test::Mesh sphere = zot_test::sphereMesh(9, 14, 2.0);
  zot_test::Mesh scrambled;
  scrambled.vertices = sphere.vertices;
  const int nf = (int)sphere.faceSizes.size();
  for (int k = 0; k < nf; k++) {
    const int f = (k * 37) % nf;
    scrambled.faceSizes.push_back(3);
    for (int j = 0; j < 3; j++)
      scrambled.faceIndices.push_back(sphere.faceIndices[3 * f + (j + k) % 3]);
  }
  ASSERT_EQ(std::gcd(37, nf), 1);
  for (const zot_test::Mesh* m : {&sphere, &scrambled}) {
    Polyhedron ph;
    ASSERT_EQ(zot_test::buildPolyhedron(ph, *m, false, 20.0), 0);
    const NaiveEdges ref = naivePairing(*m, false);
    ASSERT_EQ(ref.result, 0);
    ASSERT_EQ(ph.m_nEdges * 5, (int)ref.edges.size());
    EXPECT_EQ(ph.m_nEdges, 3 * nf / 2);
    for (int e = 0; e < ph.m_nEdges; e++) {
      for (int i = 0; i < 4; i++) ASSERT_EQ(ph.m_edges[5 * e + i], ref.edges[5 * e + i]) << e;
    }
    expectFaceEdgesConsistent(ph);
    // Every edge is referred to by exactly two face corners.
    std::vector<int> refs(ph.m_nEdges, 0);
    for (int f = 0; f < ph.m_nFaces; f++) {
      for (int j = 0; j < 3; j++) refs[ph.m_faceEdges[f][j]]++;
    }
    for (int c : refs) EXPECT_EQ(c, 2);
  }
  // Feature flags at 1 degree: every edge between faces of different planes
  // is a feature edge.
  Polyhedron fine;
  ASSERT_EQ(zot_test::buildPolyhedron(fine, sphere, false, 1.0), 0);
  int nonFeature = 0;
  for (int e = 0; e < fine.m_nEdges; e++) nonFeature += fine.m_edges[5 * e + 4] == 0;
  // Only the diagonals of the quads split into two coplanar triangles stay unflagged.
  EXPECT_EQ(nonFeature, 14 * 7);
}

TEST_F(PolyhedronTest, ChangeLocalFrameMapsVerticesAndNormals) {
  Polyhedron ph;
  ASSERT_EQ(zot_test::buildPolyhedron(ph, zot_test::boxMesh(kOrigin, kUnit), false, 30.0), 0);
  double T[16];
  zot_test::makePose(T, 10, 20, 30, 1, 2, 3);
  double Tinv[16];
  inverseTransform(T, Tinv);
  double p[3];
  transformPoint3d(Tinv, ph.m_vertices + 3 * 7, p);
  ph.changeLocalFrame(T);
  for (int i = 0; i < 3; i++) EXPECT_NEAR(ph.m_vertices[21 + i], p[i], 1e-12);
  // Normals stay unit and outward (the centre moved to Tinv * 0).
  double c[3];
  const double zero[3] = {0, 0, 0};
  transformPoint3d(Tinv, zero, c);
  for (int f = 0; f < 6; f++) {
    double d[3];
    matrixSub31(ph.m_vertices + 3 * ph.m_faceVertices[f][0], c, d);
    EXPECT_GT(dotProd3(ph.m_faceNormals + 3 * f, d), 0.0);
    EXPECT_NEAR(norm(ph.m_faceNormals + 3 * f, 3), 1.0, 1e-12);
  }
  ph.changeLocalFrame(Tinv);
  EXPECT_NEAR(ph.m_vertices[21], 1.0, 1e-12);
  EXPECT_NEAR(ph.m_faceNormals[2], -1.0, 1e-12);
}

TEST_F(PolyhedronTest, PolylineAndCylinderBodies) {
  Multibody mb;
  const int b = zot_test::addPolylineBody(mb, {0, 0, 0, 1, 2, 3}, {0, 1}, -1, -1);
  double T[16];
  zot_test::makePose(T, 0, 0, 90, 5, 0, 0);
  mb.m_polylines[b].changeLocalFrame(T);
  // T^-1 maps (1, 2, 3) to R^T ((1, 2, 3) - (5, 0, 0)).
  double Tinv[16], expected[3];
  inverseTransform(T, Tinv);
  const double p[3] = {1, 2, 3};
  transformPoint3d(Tinv, p, expected);
  for (int i = 0; i < 3; i++) EXPECT_NEAR(mb.m_polylines[b].m_points[3 + i], expected[i], 1e-12);
  double I[16];
  matrixIdentity(I, 4);
  mb.m_polylines[b].changeLocalFrame(I);
  for (int i = 0; i < 3; i++) EXPECT_EQ(mb.m_polylines[b].m_points[3 + i], expected[i]);

  Cylinder cyl;
  const double nb[3] = {0, 0, -1}, p1[3] = {0, 0, 1}, nt[3] = {0, 0, 1}, p2[3] = {0, 0, 4};
  EXPECT_EQ(cyl.init(0.5, nb, p1, nt, p2), 0);
  EXPECT_EQ(cyl.m_axis[2], 1.0);
  EXPECT_EQ(cyl.m_bottomPlane[3], 1.0);
  EXPECT_EQ(cyl.m_topPlane[3], -4.0);
  EXPECT_EQ(cyl.m_radius, 0.5);
  CaptureStdout();
  EXPECT_EQ(cyl.init(0.5, nb, p1, nt, p1), -1);
  EXPECT_NE(GetCapturedStdout().find("ERROR:"), std::string::npos);
  CaptureStdout();
  cyl.changeLocalFrame(T);
  EXPECT_EQ(GetCapturedStdout(), "ERROR: Cylinder::changeLocalFrame is not yet implemented!\n");
}

TEST_F(PolyhedronTest, MultibodyGettersAndLocalFrames) {
  Multibody mb;
  const int box = zot_test::addPolyhedronBody(mb, zot_test::boxMesh(kOrigin, kUnit), false, 30.0);
  zot_test::addPolylineBody(mb, {0, 0, 0, 1, 0, 0, 2, 0, 0}, {0, 1, 1, 2}, -1, -1);
  const int inactive =
      zot_test::addPolyhedronBody(mb, zot_test::boxMesh(kOrigin, kUnit), false, 30.0);
  mb.m_bodyActive[inactive] = 0;
  mb.m_bodyType[3] = ZOT_BODY_CYLINDER;
  const double nb[3] = {0, 0, -1}, p1[3] = {0, 0, 0}, nt[3] = {0, 0, 1}, p2[3] = {0, 0, 1};
  mb.m_cylinders[3].init(1.0, nb, p1, nt, p2);
  mb.m_bodyActive[3] = 1;
  mb.m_nBodies = 4;
  mb.m_nLocalFrames = 1;
  zot_test::makePose(mb.m_localFrames[0], 0, 0, 0, 0, 0, 2);

  const uint64_t intsBefore = m_currentAllocInt, doublesBefore = m_currentAllocDouble;
  ASSERT_EQ(mb.init(2, 100, 40, 30), 0);
  // Edge buffers: 12 box edges + 2 segments; the inactive box adds nothing.
  EXPECT_EQ(m_currentAllocInt - intsBefore, 40u * 30u + 3u * 14u);
  EXPECT_EQ(m_currentAllocDouble - doublesBefore,
            2u * 2u * 300u + 40u * 30u + 2u * 40u * 30u + 6u * 14u);

  CaptureStdout();
  EXPECT_EQ(mb.getNSamplePointsPerCam(2), 0);
  EXPECT_EQ(mb.getSamplePointsPerCam(2), nullptr);
  EXPECT_EQ(mb.getSampleTangentDirPerCam(-1), nullptr);
  EXPECT_EQ(mb.getActiveBody(-1), -1);
  EXPECT_EQ(GetCapturedStdout(),
            "ERROR: wrong camera ID\nERROR: wrong camera ID\nERROR: wrong camera ID\n"
            "ERROR: wrong body ID\n");
  EXPECT_EQ(mb.getActiveBody(inactive), 0);
  EXPECT_EQ(mb.getActiveBody(box), 1);
  EXPECT_EQ(mb.getNbodies(), 4);
  EXPECT_NE(mb.getSamplePointsPerCam(1), nullptr);

  // A bad index changes nothing; a good one moves all bodies (inactive too)
  // and prints the cylinder's message once; calls compose.
  CaptureStdout();
  EXPECT_EQ(mb.changeLocalFrame(1), -1);
  EXPECT_EQ(GetCapturedStdout(), "ERROR: wrong index of local frame!\n");
  EXPECT_EQ(mb.m_polyhedra[box].m_vertices[2], -1.0);
  CaptureStdout();
  EXPECT_EQ(mb.changeLocalFrame(0), 0);
  EXPECT_EQ(GetCapturedStdout(), "ERROR: Cylinder::changeLocalFrame is not yet implemented!\n");
  EXPECT_DOUBLE_EQ(mb.m_polyhedra[box].m_vertices[2], -3.0);
  EXPECT_DOUBLE_EQ(mb.m_polyhedra[inactive].m_vertices[2], -3.0);
  EXPECT_DOUBLE_EQ(mb.m_polylines[1].m_points[2], -2.0);
  EXPECT_EQ(mb.m_cylinders[3].m_bottomCentre[2], 0.0);
  CaptureStdout();
  mb.changeLocalFrame(0);
  GetCapturedStdout();
  EXPECT_DOUBLE_EQ(mb.m_polyhedra[box].m_vertices[2], -5.0);
  mb.m_bodyType[3] = 7;
  CaptureStdout();
  EXPECT_EQ(mb.changeLocalFrame(0), -1);
  EXPECT_EQ(GetCapturedStdout(), "ERROR: wrong object class!\n");

  mb.resetNSamplePointsPerCam();
  EXPECT_EQ(mb.getNSamplePointsPerCam(0), 0);
}

TEST_F(PolyhedronTest, MultibodyRefusesCountsBeyondItsCapacities) {
  Multibody mb;
  CaptureStdout();
  EXPECT_EQ(mb.init(6, 10, 10, 10), -1);
  mb.m_nBodies = 51;
  EXPECT_EQ(mb.init(1, 10, 10, 10), -1);
  mb.m_nBodies = 0;
  mb.m_nLocalFrames = 101;
  EXPECT_EQ(mb.init(1, 10, 10, 10), -1);
  mb.m_nLocalFrames = 0;
  mb.m_nMaskPolygons[0] = 51;
  EXPECT_EQ(mb.init(1, 10, 10, 10), -1);
  mb.m_nMaskPolygons[0] = 1;
  mb.m_maskPolygonNVertices[0][0] = 11;
  EXPECT_EQ(mb.init(1, 10, 10, 10), -1);
  const std::string out = GetCapturedStdout();
  EXPECT_NE(out.find("ERROR: the number of cameras must be between 0 and 5, not 6!"),
            std::string::npos);
  EXPECT_NE(out.find("ERROR: the number of bodies must be between 0 and 50, not 51!"),
            std::string::npos);
  EXPECT_NE(out.find("ERROR: the number of local frames must be between 0 and 100, not 101!"),
            std::string::npos);
  EXPECT_NE(out.find("ERROR: camera 0 has 51 mask polygons, at most 50 are supported!"),
            std::string::npos);
  EXPECT_NE(
      out.find("ERROR: mask polygon 0 of camera 0 has 11 vertices, at most 10 are supported!"),
      std::string::npos);
  EXPECT_EQ(m_currentAllocDouble, 0u) << "nothing reserved on refusal";
  mb.m_maskPolygonNVertices[0][0] = 4;
  EXPECT_EQ(mb.init(1, 10, 10, 10), 0);
  // No bodies: edge buffers of length 0.
  EXPECT_EQ(mb.m_maxVisibleEdges, 0);
}
