/// @file
/// Readers of the CAD exchange formats a model usually comes in: the
/// edge-tracker model format (.cao), VRML 2 IndexedFaceSet (.wrl), PLY
/// (ASCII and binary little-endian), OBJ and STL (ASCII and binary), chosen
/// by the file's extension. They
/// return polygon faces and, for .cao lines that bound no face, segments
/// that become a polyline body. Anything a reader cannot represent faithfully
/// (cylinders, circles, transforms, other geometry nodes, big-endian PLY) is
/// refused with the file and line rather than silently left out.
#pragma once

#include <string>
#include <vector>

namespace zot_sim {

/// A model read from a mesh file: 0-based indices throughout.
struct MeshImport {
  std::vector<double> vertices;         ///< 3 per vertex, in the file's unit
  std::vector<std::vector<int>> faces;  ///< polygons, in the file's winding
  /// Vertex pairs of segments that bound no face (.cao lines): a polyline body.
  std::vector<int> segments;
};

/// Reads `path` by its extension (.cao, .wrl/.vrml, .ply, .obj, .stl;
/// case-insensitive).
/// Returns true with `out` filled, or false with one line in `error` that
/// names the file and, where it applies, the line and what was expected;
/// `out` is then unspecified. Indices are checked against the vertex count,
/// and every face has at least three vertices.
bool readMeshFile(const std::string& path, MeshImport& out, std::string& error);

/// True when readMeshFile knows the extension of `path`.
bool isImportFormat(const std::string& path);

}  // namespace zot_sim
