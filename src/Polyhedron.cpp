// Polyhedron topology: face normals, edge pairing with feature flags, face-edge
// lists and their consistency checks.
#include "Polyhedron.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "IO.h"
#include "Math.h"
#include "memory_handling.h"

namespace ZOTtracker {

Polyhedron::Polyhedron()
    : m_isFlat(false),
      m_featureAngleDeg(-1.0),
      m_nVertices(0),
      m_vertices(nullptr),
      m_nEdges(0),
      m_edges(nullptr),
      m_faceCorners(nullptr),
      m_nFaces(0),
      m_nVerticesPerFace(nullptr),
      m_faceVertices(nullptr),
      m_faceEdges(nullptr),
      m_faceNormals(nullptr),
      m_verticesInCamera(nullptr),
      m_faceScratch(nullptr),
      m_edgeState(nullptr),
      m_faceFacing(nullptr) {}

Polyhedron::~Polyhedron() {}

int Polyhedron::init(bool flat, double featureAngleDeg) {
  m_isFlat = flat;
  m_featureAngleDeg = featureAngleDeg;

  // Vertex indices come straight from configuration data; one outside the
  // vertex list would make every later step read foreign memory.
  for (int f = 0; f < m_nFaces; f++) {
    if (m_nVerticesPerFace[f] < 0) {
      printf("ERROR: polygon %d has a negative number of vertices!\n", f);
      return -1;
    }
    for (int j = 0; j < m_nVerticesPerFace[f]; j++) {
      const int v = m_faceVertices[f][j];
      if (v < 0 || v >= m_nVertices) {
        printf("ERROR: polygon %d refers to vertex %d, but there are only %d vertices!\n", f, v,
               m_nVertices);
        return -1;
      }
    }
  }

  // Face normals from the first three vertices; N counts the face corners.
  int N = 0;
  for (int f = 0; f < m_nFaces; f++) {
    const int nv = m_nVerticesPerFace[f];
    double n[3] = {0.0, 0.0, 0.0};
    if (nv >= 3) {
      const double* p0 = m_vertices + 3 * m_faceVertices[f][0];
      const double* p1 = m_vertices + 3 * m_faceVertices[f][1];
      const double* p2 = m_vertices + 3 * m_faceVertices[f][2];
      double e1[3], e2[3];
      matrixSub31(p1, p0, e1);
      matrixSub31(p2, p0, e2);
      crossProd(e1, e2, n);
    }
    double* normal = m_faceNormals + 3 * f;
    if (!(norm(n, 3) >= 1e-10)) {
      printf("WARNING: polygon %d has collinear edges -> cannot compute the face normal!\n", f);
      print_matrix_int("Vertices", m_faceVertices[f], 1, nv);
      normal[0] = 0.0;
      normal[1] = 0.0;
      normal[2] = 1.0;
    } else {
      normalize(n, 3, 1);
      normal[0] = n[0];
      normal[1] = n[1];
      normal[2] = n[2];
    }
    N += nv;
  }

  // Corner list: (vertex, next vertex, face) for every face corner in order.
  m_faceCorners = myMallocInt(3 * (size_t)N);
  int written = 0;
  for (int f = 0; f < m_nFaces; f++) {
    const int nv = m_nVerticesPerFace[f];
    for (int j = 0; j < nv; j++) {
      m_faceCorners[written++] = m_faceVertices[f][j];
      m_faceCorners[written++] = m_faceVertices[f][(j + 1) % nv];
      m_faceCorners[written++] = f;
    }
  }
  if (written != 3 * N) printf("ERROR: count not correct \n");

  const bool useFeatures = featureAngleDeg > 0.0;
  const double cosT = cos(ZOT_PI * featureAngleDeg / 180.0);

  // Edge pairing. Every corner pairs with all later corners over the same
  // two vertices, and the edges come out in the order of the first corner of
  // each vertex pair. Instead of comparing every corner with every later one
  // (quadratic in the mesh size), the corners are sorted by their unordered
  // vertex pair and then by index: each group is contiguous, its first member
  // is the corner that creates the group's edges, and its members follow in
  // the order the pairwise scan would meet them.
  m_edges = myMallocInt(5 * (size_t)N);
  int* sortedCorners = myMallocInt((size_t)N);
  int* cornerSlot = myMallocInt((size_t)N);  // sorted position, later the corner's edge
  const int* corners = m_faceCorners;
  for (int i = 0; i < N; i++) sortedCorners[i] = i;
  std::sort(sortedCorners, sortedCorners + N, [corners](int i, int j) {
    const int ai = std::min(corners[3 * i], corners[3 * i + 1]);
    const int aj = std::min(corners[3 * j], corners[3 * j + 1]);
    if (ai != aj) return ai < aj;
    const int bi = std::max(corners[3 * i], corners[3 * i + 1]);
    const int bj = std::max(corners[3 * j], corners[3 * j + 1]);
    if (bi != bj) return bi < bj;
    return i < j;
  });
  for (int k = 0; k < N; k++) cornerSlot[sortedCorners[k]] = k;

  int nEdgeInts = 0;
  for (int i = 0; i < N; i++) {
    int* ci = m_faceCorners + 3 * i;
    if (ci[2] == -1) continue;
    const int a = ci[0], b = ci[1], f = ci[2];
    ci[2] = -1;
    int matches = 0;
    int firstEdge = -1;
    // Members of the group follow i in sorted order.
    const int k0 = cornerSlot[i];
    int k1 = k0 + 1;
    for (; k1 < N; k1++) {
      const int j = sortedCorners[k1];
      int* cj = m_faceCorners + 3 * j;
      const bool opposite = cj[0] == b && cj[1] == a;
      const bool same = cj[0] == a && cj[1] == b;
      if (!opposite && !same) break;
      if (cj[2] == -1) continue;
      if (!opposite) {
        printf(
            "ERROR: incoherent face normals (an edge is found twice, but with the same "
            "direction)!\n");
        return -1;
      }
      const int f2 = cj[2];
      int flag = 0;
      if (useFeatures && cosT > dotProd3(m_faceNormals + 3 * f, m_faceNormals + 3 * f2)) flag = 1;
      if (firstEdge < 0) firstEdge = nEdgeInts / 5;
      m_edges[nEdgeInts++] = a;
      m_edges[nEdgeInts++] = b;
      m_edges[nEdgeInts++] = f;
      m_edges[nEdgeInts++] = f2;
      m_edges[nEdgeInts++] = flag;
      cj[2] = -1;
      matches++;
    }
    if (m_isFlat) {
      if (matches > 1) {
        printf("ERROR: a non-unique edge should be present at most twice!\n");
        return -1;
      }
      if (matches == 0) {
        firstEdge = nEdgeInts / 5;
        m_edges[nEdgeInts++] = a;
        m_edges[nEdgeInts++] = b;
        m_edges[nEdgeInts++] = f;
        m_edges[nEdgeInts++] = -1;
        m_edges[nEdgeInts++] = 1;
      }
    } else if (matches != 1) {
      printf("ERROR: for non-flat polyhedra, unique edges should all be present pair-wise!\n");
      return -1;
    }
    // Every corner of the group refers to the group's first edge.
    for (int k = k0; k < k1; k++) cornerSlot[sortedCorners[k]] = firstEdge;
  }
  m_nEdges = nEdgeInts / 5;

  // Face-edge lists: corner j of face f gets the first edge over its two
  // vertices, which is the first edge its group created.
  int assigned = 0;
  int corner = 0;
  for (int f = 0; f < m_nFaces; f++) {
    for (int j = 0; j < m_nVerticesPerFace[f]; j++, corner++) {
      const int e = cornerSlot[corner];
      if (e >= 0) {
        m_faceEdges[f][j] = e;
        assigned++;
      }
    }
  }
  if (assigned != N) printf("Checksum failed for face-edge assignments!\n");

  // Cross-check: a closed body's edges have two face corners each, a flat
  // body's one or two.
  m_edgeState = myMallocUchar((size_t)N);
  for (int e = 0; e < m_nEdges; e++) m_edgeState[e] = 0;
  for (int f = 0; f < m_nFaces; f++) {
    for (int j = 0; j < m_nVerticesPerFace[f]; j++) {
      unsigned char& c = m_edgeState[m_faceEdges[f][j]];
      if (c < 255) c++;
    }
  }
  for (int e = 0; e < m_nEdges; e++) {
    const int c = m_edgeState[e];
    const bool ok = m_isFlat ? (c == 1 || c == 2) : c == 2;
    if (!ok) {
      const int* edge = m_edges + 5 * e;
      printf("Something wrong while building the (faces-by-edges) list!\n");
      printf("Edge %d feature flag %d adjacent faces: %d %d vertices %d %d\n", e, c, edge[2],
             edge[3], edge[0], edge[1]);
    }
  }
  for (int e = 0; e < m_nEdges; e++) m_edgeState[e] = 0;

  m_verticesInCamera = myMallocDouble(3 * (size_t)m_nVertices);
  m_faceScratch = myMallocDouble(3 * (size_t)m_nFaces);
  return 0;
}

void Polyhedron::changeLocalFrame(const double* T) {
  double U[16];
  inverseTransform(T, U);
  double R[9], t[3];
  rotTranslFromT(U, R, t);
  for (int v = 0; v < m_nVertices; v++) {
    double p[3];
    transformPoint3d(U, m_vertices + 3 * v, p);
    matrixCopy(p, m_vertices + 3 * v, 3, 1);
  }
  for (int f = 0; f < m_nFaces; f++) {
    double n[3];
    matrixProduct331(R, m_faceNormals + 3 * f, n);
    matrixCopy(n, m_faceNormals + 3 * f, 3, 1);
  }
}

}  // namespace ZOTtracker
