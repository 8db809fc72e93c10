// zot_mesh2poly: converts a CAD mesh (.cao, VRML 2, PLY, OBJ or STL) into
// the tracker's polyhedron file format, and optionally the whole model: the
// model file and a polyline body for lines that bound no face. Merges duplicate vertices, merges
// coplanar neighbouring triangles into convex polygons, scales units, checks
// closedness and orientation, and verifies the result with the tracker's own
// polyhedron set-up before anything is written.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include "FileParser.h"
#include "GenericObjectTracker.h"
#include "Math.h"
#include "command_line.h"
#include "memory_handling.h"
#include "mesh_formats.h"
#include "scene_config.h"

namespace {

struct Mesh {
  std::vector<double> v;                // 3 per vertex
  std::vector<std::vector<int>> faces;  // 0-based indices
};

struct Options {
  double scale = 1.0;
  double tolerance = -1.0;  // < 0: relative default
  double coplanarAngle = 0.01;
  double featureAngle = 30.0;
  bool flat = false, flip = false, dropDegenerate = false, quiet = false;
  std::string input, output, model;
};

bool g_quiet = false;

void info(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void info(const char* fmt, ...) {
  if (g_quiet) return;
  va_list args;
  va_start(args, fmt);
  vprintf(fmt, args);
  va_end(args);
}

// Every failure ends here: one clear line on stderr, status 1.
[[noreturn]] void fail(const std::string& message) {
  fprintf(stderr, "zot_mesh2poly: error: %s\n", message.c_str());
  exit(1);
}

[[noreturn]] void usageError(const std::string& message) {
  zot_sim::usageError("zot_mesh2poly", message);
}

double unitInMetres(const std::string& unit) {
  if (unit == "m") return 1.0;
  if (unit == "cm") return 0.01;
  if (unit == "mm") return 0.001;
  if (unit == "in") return 0.0254;
  usageError("unknown unit '" + unit + "' (use m, cm, mm or in)");
}

Options parseArguments(int argc, char** argv) {
  Options o;
  std::string units;
  CLI::App app(
      "Converts a triangle or polygon mesh into a polyhedron file for the tracker.\n"
      "INPUT is a .cao model (points, lines, faces from points or from lines), VRML 2\n"
      "(.wrl, IndexedFaceSet), PLY (.ply, ASCII or binary little-endian), OBJ (.obj)\n"
      "or STL (.stl, ASCII or binary); OUTPUT is the polyhedron file to write. Nothing\n"
      "is written unless the whole conversion succeeds.",
      "zot_mesh2poly");
  app.get_formatter()->label("Usage", "usage");
  app.get_formatter()->label("OPTIONS", "options");
  app.set_help_flag("-h,--help", "this text");
  // A repeated option counts with its last value, as in most programs.
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.footer(
      "A closed mesh must have every edge shared by exactly two faces with opposite\n"
      "directions (consistent winding); faces wound inward are reversed and\n"
      "reported. Coordinates are written with 17 significant digits, so that they\n"
      "read back exactly; a mesh smaller than 2^20 steps of doubles at its distance\n"
      "from the origin is refused. Exit status: 0 on success, 1 on bad input, 2 on\n"
      "bad arguments.");
  app.add_option("INPUT", o.input, "the mesh to convert (.cao, .wrl, .ply, .obj or .stl)")
      ->required();
  app.add_option("OUTPUT", o.output, "the polyhedron file to write")->required();
  // An option with the name of its value in the help.
  auto option = [&app](const char* name, auto& value, const char* help, const char* type) {
    app.add_option(name, value, help)->type_name(type);
  };
  option("--model", o.model,
         "also write the model file FILE naming OUTPUT as its polyhedron\n"
         "body (with --flat and --feature-angle) and, when the input has\n"
         "lines that bound no face, FILE's stem + _polyline.txt as a\n"
         "polyline body on the face they lie on",
         "FILE");
  option("--scale", o.scale, "multiply all coordinates by S (applied after --units)", "S");
  option("--units", units,
         "unit conversion, FROM and TO each one of m, cm, mm, in\n"
         "(e.g. m:mm multiplies by 1000)",
         "FROM:TO");
  option("--tolerance", o.tolerance,
         "vertices closer than T (output units) are merged\n"
         "(default: 1e-6 times the bounding-box diagonal)",
         "T");
  option("--coplanar-angle", o.coplanarAngle,
         "neighbouring faces whose normals differ by less than A\n"
         "degrees are merged into one convex polygon (default 0.01;\n"
         "0 keeps the faces as they are)",
         "A");
  app.add_flag("--flat", o.flat, "the mesh is an open surface: boundary edges are allowed");
  app.add_flag("--flip", o.flip, "reverse the winding of every face");
  app.add_flag("--drop-degenerate", o.dropDegenerate,
               "drop faces of zero area instead of failing on them");
  option("--feature-angle", o.featureAngle,
         "crease angle of the verification report and of --model's\n"
         "model file (default 30)",
         "A");
  app.add_flag("-q,--quiet", o.quiet, "print errors only");
  zot_sim::parseCommandLine(app, argc, argv, "zot_mesh2poly");
  for (const double v : {o.scale, o.tolerance, o.coplanarAngle, o.featureAngle}) {
    if (!std::isfinite(v)) usageError("options take finite numbers");
  }
  if (o.scale == 0.0) usageError("--scale must not be 0");
  if (o.tolerance < 0.0 && app.count("--tolerance")) usageError("--tolerance must not be negative");
  if (o.coplanarAngle < 0.0 || o.coplanarAngle >= 90.0)
    usageError("--coplanar-angle must lie in [0, 90)");
  if (app.count("--units")) {
    const size_t colon = units.find(':');
    if (colon == std::string::npos) usageError("--units takes FROM:TO, e.g. m:mm");
    o.scale *= unitInMetres(units.substr(0, colon)) / unitInMetres(units.substr(colon + 1));
  }
  return o;
}

// ================================================================ geometry
using ZOTtracker::crossProd;
using ZOTtracker::dotProd3;
using ZOTtracker::matrixSub31;
double length(const double* a) { return ZOTtracker::norm(a, 3); }

// Newell's normal (not normalised): twice the vector area of the polygon.
void faceNormal(const Mesh& m, const std::vector<int>& f, double* n) {
  n[0] = n[1] = n[2] = 0.0;
  for (size_t k = 0; k < f.size(); k++) {
    const double* u = &m.v[3 * f[k]];
    const double* w = &m.v[3 * f[(k + 1) % f.size()]];
    n[0] += (u[1] - w[1]) * (u[2] + w[2]);
    n[1] += (u[2] - w[2]) * (u[0] + w[0]);
    n[2] += (u[0] - w[0]) * (u[1] + w[1]);
  }
}

// Axis-aligned bounding box of the vertices (lo > hi without vertices).
void bounds(const Mesh& m, double* lo, double* hi) {
  for (int k = 0; k < 3; k++) {
    lo[k] = HUGE_VAL;
    hi[k] = -HUGE_VAL;
  }
  for (size_t i = 0; i < m.v.size(); i += 3)
    for (int k = 0; k < 3; k++) {
      lo[k] = std::min(lo[k], m.v[i + k]);
      hi[k] = std::max(hi[k], m.v[i + k]);
    }
}

double bboxDiagonal(const Mesh& m) {
  double lo[3], hi[3], d[3];
  bounds(m, lo, hi);
  matrixSub31(hi, lo, d);
  return m.v.empty() ? 0.0 : length(d);
}

// Largest side of the bounding box.
double extentOf(const double* lo, const double* hi) {
  return std::max(hi[0] - lo[0], std::max(hi[1] - lo[1], hi[2] - lo[2]));
}

// Steps of doubles a part needs across its largest side, at the spacing of
// doubles at its largest coordinate: about six significant digits of the
// part's size, what the default merge tolerance (1e-6 of the diagonal) and
// the coplanarity tests rely on.
constexpr double kLeastStepsAcross = 1 << 20;

// Refuses a mesh so small against its distance from the origin that
// doubles cannot hold its shape.
void checkResolution(const Mesh& m) {
  double lo[3], hi[3], largest = 0.0;
  bounds(m, lo, hi);
  for (int k = 0; k < 3; k++)
    largest = std::max(largest, std::max(std::fabs(lo[k]), std::fabs(hi[k])));
  const double step = std::nextafter(largest, HUGE_VAL) - largest;
  const double extent = extentOf(lo, hi);
  if (extent < kLeastStepsAcross * step) {
    char text[400];
    snprintf(text, sizeof text,
             "the mesh's extent %g is below what doubles resolve at its offset: coordinates up "
             "to %g are %g apart, and the part needs %.0f such steps across (move it nearer the "
             "origin or scale it up)",
             extent, largest, step, kLeastStepsAcross);
    fail(text);
  }
}

// Merges vertices closer than tol through a grid of cells of at least size
// tol, counted from the bounding box's corner and never finer than
// kLeastStepsAcross cells across the box, so that cell numbers stay far from
// overflowing whatever the offset or the tolerance; faces are remapped and
// unreferenced vertices dropped. Returns the count merged.
int mergeVertices(Mesh& m, double tol) {
  const int n = (int)m.v.size() / 3;
  std::vector<int> map(n);
  std::vector<double> kept;
  std::unordered_map<long long, std::vector<int>> grid;
  auto key = [](long long x, long long y, long long z) {
    return (x * 73856093LL) ^ (y * 19349663LL) ^ (z * 83492791LL);
  };
  double lo[3], hi[3];
  bounds(m, lo, hi);
  double cell = std::max(tol, extentOf(lo, hi) / kLeastStepsAcross);
  if (!(cell > 0.0)) cell = 1.0;
  for (int i = 0; i < n; i++) {
    const double* p = &m.v[3 * i];
    const long long c[3] = {(long long)std::floor((p[0] - lo[0]) / cell),
                            (long long)std::floor((p[1] - lo[1]) / cell),
                            (long long)std::floor((p[2] - lo[2]) / cell)};
    int found = -1;
    for (int dx = -1; dx <= 1 && found < 0; dx++)
      for (int dy = -1; dy <= 1 && found < 0; dy++)
        for (int dz = -1; dz <= 1 && found < 0; dz++) {
          auto it = grid.find(key(c[0] + dx, c[1] + dy, c[2] + dz));
          if (it == grid.end()) continue;
          for (int j : it->second) {
            double d[3];
            matrixSub31(p, &kept[3 * j], d);
            if (length(d) <= tol) {
              found = j;
              break;
            }
          }
        }
    if (found < 0) {
      found = (int)kept.size() / 3;
      kept.insert(kept.end(), p, p + 3);
      grid[key(c[0], c[1], c[2])].push_back(found);
    }
    map[i] = found;
  }
  for (auto& f : m.faces)
    for (int& idx : f) idx = map[idx];
  const int merged = n - (int)kept.size() / 3;
  m.v.swap(kept);
  return merged;
}

// Removes repeated consecutive indices; faces left with fewer than three
// vertices, or of zero area, are degenerate.
void checkDegenerate(Mesh& m, bool drop) {
  std::vector<std::vector<int>> kept;
  int dropped = 0;
  const double diag = bboxDiagonal(m);
  for (size_t fi = 0; fi < m.faces.size(); fi++) {
    std::vector<int> f;
    for (int idx : m.faces[fi])
      if (f.empty() || f.back() != idx) f.push_back(idx);
    while (f.size() > 1 && f.front() == f.back()) f.pop_back();
    double n[3] = {0, 0, 0};
    if (f.size() >= 3) faceNormal(m, f, n);
    if (f.size() < 3 || length(n) <= 1e-12 * diag * diag) {
      if (!drop)
        fail("face " + std::to_string(fi + 1) +
             " is degenerate (zero area or repeated vertices after merging); use "
             "--drop-degenerate to leave such faces out");
      dropped++;
      continue;
    }
    kept.push_back(f);
  }
  if (dropped > 0) info("dropped %d degenerate face(s)\n", dropped);
  m.faces.swap(kept);
}

// Edge use: for each undirected edge the faces using it in each direction.
struct EdgeUse {
  std::vector<int> forward, backward;  // forward: a -> b with a < b
};
std::map<std::pair<int, int>, EdgeUse> edgeUses(const Mesh& m) {
  std::map<std::pair<int, int>, EdgeUse> uses;
  for (size_t fi = 0; fi < m.faces.size(); fi++) {
    const auto& f = m.faces[fi];
    for (size_t k = 0; k < f.size(); k++) {
      const int a = f[k], b = f[(k + 1) % f.size()];
      EdgeUse& u = uses[{std::min(a, b), std::max(a, b)}];
      (a < b ? u.forward : u.backward).push_back((int)fi);
    }
  }
  return uses;
}

// The checks the polyhedron set-up makes, with face numbers in the message.
void checkTopology(const Mesh& m, bool flat) {
  int boundary = 0;
  for (const auto& [edge, use] : edgeUses(m)) {
    const size_t total = use.forward.size() + use.backward.size();
    const std::string name =
        "edge (" + std::to_string(edge.first + 1) + ", " + std::to_string(edge.second + 1) + ")";
    if (total > 2)
      fail("non-manifold mesh: " + name + " is shared by " + std::to_string(total) + " faces");
    if (use.forward.size() == 2 || use.backward.size() == 2) {
      const auto& same = use.forward.size() == 2 ? use.forward : use.backward;
      fail("inconsistent orientation: faces " + std::to_string(same[0] + 1) + " and " +
           std::to_string(same[1] + 1) + " run through " + name +
           " in the same direction (a flipped face?)");
    }
    if (total == 1) boundary++;
  }
  if (boundary > 0 && !flat)
    fail("the mesh is not closed: " + std::to_string(boundary) +
         " edge(s) belong to one face only (use --flat for an open surface)");
}

double signedVolume(const Mesh& m) {
  double vol = 0.0;
  for (const auto& f : m.faces) {
    const double* a = &m.v[3 * f[0]];
    for (size_t k = 1; k + 1 < f.size(); k++) {
      double c[3];
      crossProd(&m.v[3 * f[k]], &m.v[3 * f[k + 1]], c);
      vol += dotProd3(a, c) / 6.0;
    }
  }
  return vol;
}

// True when the polygon is strictly convex around normal n (no collinear corners).
bool strictlyConvex(const Mesh& m, const std::vector<int>& f, const double* n) {
  const double scale = dotProd3(n, n);
  for (size_t k = 0; k < f.size(); k++) {
    const double* p0 = &m.v[3 * f[k]];
    const double* p1 = &m.v[3 * f[(k + 1) % f.size()]];
    const double* p2 = &m.v[3 * f[(k + 2) % f.size()]];
    double e0[3], e1[3], c[3];
    matrixSub31(p1, p0, e0);
    matrixSub31(p2, p1, e1);
    crossProd(e0, e1, c);
    if (dotProd3(c, n) <= 1e-9 * length(e0) * length(e1) * std::sqrt(scale)) return false;
  }
  return true;
}

// Greedy merge of neighbouring coplanar faces into strictly convex polygons
// of at most 100 vertices: each polygon absorbs a neighbour across a shared
// edge by splicing the neighbour's other vertices into its cycle.
int mergeCoplanar(Mesh& m, double angleDeg) {
  if (angleDeg <= 0.0) return 0;
  const double cosTol = std::cos(angleDeg * M_PI / 180.0);
  // Vertices may leave the seed's plane by what the angle allows over the model size.
  const double planeTol = std::sin(angleDeg * M_PI / 180.0) * bboxDiagonal(m) + 1e-12;
  const int nf = (int)m.faces.size();
  std::vector<double> normals(3 * nf);
  for (int f = 0; f < nf; f++) {
    faceNormal(m, m.faces[f], &normals[3 * f]);
    const double l = length(&normals[3 * f]);
    for (int k = 0; k < 3; k++) normals[3 * f + k] /= l;
  }
  auto uses = edgeUses(m);
  std::vector<int> owner(nf, -1);
  std::vector<std::vector<int>> result;
  int absorbed = 0;
  for (int seed = 0; seed < nf; seed++) {
    if (owner[seed] >= 0) continue;
    const int id = (int)result.size();
    std::vector<int> poly = m.faces[seed];
    owner[seed] = id;
    const double* n = &normals[3 * seed];
    const double planeD = dotProd3(n, &m.v[3 * poly[0]]);
    bool grown = true;
    while (grown) {
      grown = false;
      for (size_t k = 0; k < poly.size() && !grown; k++) {
        const int a = poly[k], b = poly[(k + 1) % poly.size()];
        const EdgeUse& u = uses[{std::min(a, b), std::max(a, b)}];
        if (u.forward.size() + u.backward.size() != 2) continue;
        const int f0 = u.forward.empty() ? u.backward[0] : u.forward[0];
        const int f1 = u.backward.empty() ? u.forward[1] : u.backward[0];
        const int other = owner[f0] == id ? f1 : (owner[f1] == id ? f0 : -1);
        if (other < 0 || owner[other] >= 0) continue;
        if (dotProd3(n, &normals[3 * other]) < cosTol) continue;
        const std::vector<int>& g = m.faces[other];
        bool onPlane = true;
        for (int idx : g) onPlane &= std::fabs(dotProd3(n, &m.v[3 * idx]) - planeD) <= planeTol;
        if (!onPlane) continue;
        // g runs b -> a; its vertices after a (up to b) go between a and b.
        size_t pb = 0;
        while (g[pb] != b) pb++;
        std::vector<int> chain;
        for (size_t s = 2; s < g.size(); s++) chain.push_back(g[(pb + s) % g.size()]);
        if (g[(pb + 1) % g.size()] != a) continue;  // not a simple shared edge
        std::vector<int> candidate(poly.begin(), poly.begin() + k + 1);
        candidate.insert(candidate.end(), chain.begin(), chain.end());
        candidate.insert(candidate.end(), poly.begin() + k + 1, poly.end());
        std::vector<int> sorted = candidate;
        std::sort(sorted.begin(), sorted.end());
        if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) continue;
        if (candidate.size() > 100 || !strictlyConvex(m, candidate, n)) continue;
        poly.swap(candidate);
        owner[other] = id;
        absorbed++;
        grown = true;
      }
    }
    result.push_back(poly);
  }
  m.faces.swap(result);
  return absorbed;
}

// ================================================================ verification and output
// Writes the polyhedron file (to a temporary path first, see main).
void writePolyhedron(const Mesh& m, const std::string& path) {
  FILE* f = fopen(path.c_str(), "w");
  if (f == nullptr) fail("cannot write '" + path + "': " + strerror(errno));
  bool ok = fprintf(f, "nv %zu\n", m.v.size() / 3) > 0;
  for (size_t i = 0; i < m.v.size(); i += 3)
    ok &= fprintf(f, "v %.17g %.17g %.17g\n", m.v[i], m.v[i + 1], m.v[i + 2]) > 0;
  ok &= fprintf(f, "nf %zu\n", m.faces.size()) > 0;
  for (const auto& face : m.faces) {
    ok &= fprintf(f, "f %zu ", face.size()) > 0;
    for (size_t k = 0; k < face.size(); k++)
      ok &= fprintf(f, k + 1 < face.size() ? " %d" : " %d\n", face[k] + 1) > 0;
  }
  ok &= fclose(f) == 0;
  if (!ok) {
    remove(path.c_str());
    fail("cannot write '" + path + "': " + strerror(errno));
  }
}

// Reads the written file back with the tracker's parser and sets the
// polyhedron up from those values exactly as the tracker's set-up does.
// Returns the set-up's result (the parser's code if the file does not read)
// and the number of edges and feature edges.
int verifyWithPolyhedron(const std::string& path, const Mesh& m, bool flat, double featureAngle,
                         int* nEdges, int* nFeatures) {
  using namespace ZOTtracker;
  size_t corners = 0;
  for (const auto& f : m.faces) corners += f.size();
  const size_t nv = m.v.size() / 3, nf = m.faces.size();
  // nv, the coordinates, nf, and per face its size and indices.
  std::vector<double> values(2 + 3 * nv + nf + corners);
  int count = 0;
  FileParser parser;
  const int parsed = parser.parsePolyhedron(path.c_str(), count, values.data(), (int)values.size());
  if (parsed != 0) return parsed;
  doBigMalloc(nv + corners + 16, 0, 3 * nv + 7 * nf + 3 * nv + 16, 0, 20 * corners + nf + 16,
              2 * nf + 16, 0);
  Polyhedron ph;
  int cursor = 0;
  int code =
      GenericObjectTracker::setupPolyhedron(cursor, values.data(), ph, flat, featureAngle, count);
  if (code == 0 && cursor != count) {
    printf("ERROR: the polyhedron file holds %d values, the set-up read %d\n", count, cursor);
    code = -1;
  }
  *nEdges = ph.m_nEdges;
  *nFeatures = 0;
  for (int e = 0; code == 0 && e < ph.m_nEdges; e++) *nFeatures += ph.m_edges[5 * e + 4];
  doBigFree();
  return code;
}

// ================================================================ whole model
// Lines that bound no face: their own vertices and 0-based segments.
struct Polyline {
  std::vector<double> v;
  std::vector<int> segments;
};

// The faces' mesh (only the vertices faces use: a .cao lists the markings'
// points too) and the polyline of the free lines.
Mesh splitImport(const zot_sim::MeshImport& in, Polyline& lines) {
  // Both keep the file's vertex order, each with the vertices it uses.
  auto compact = [&](const std::vector<int>& used, std::vector<double>& v) {
    std::vector<int> index(in.vertices.size() / 3, -1);
    for (int i : used) index[i] = 0;
    for (size_t i = 0; i < index.size(); i++) {
      if (index[i] < 0) continue;
      index[i] = (int)v.size() / 3;
      v.insert(v.end(), &in.vertices[3 * i], &in.vertices[3 * i] + 3);
    }
    return index;
  };
  Mesh m;
  std::vector<int> corners;
  for (const auto& f : in.faces) corners.insert(corners.end(), f.begin(), f.end());
  const std::vector<int> inMesh = compact(corners, m.v), inLines = compact(in.segments, lines.v);
  for (const auto& f : in.faces) {
    m.faces.emplace_back();
    for (int i : f) m.faces.back().push_back(inMesh[i]);
  }
  for (int i : in.segments) lines.segments.push_back(inLines[i]);
  return m;
}

// 1-based face of m whose plane holds every polyline vertex within tol: the
// polyline's supporting face, 0 when none does.
int supportingFace(const Mesh& m, const Polyline& lines, double tol) {
  for (size_t f = 0; f < m.faces.size(); f++) {
    double n[3];
    faceNormal(m, m.faces[f], n);
    const double l = length(n);
    const double d = dotProd3(n, &m.v[3 * m.faces[f][0]]) / l;
    bool onPlane = l > 0.0;
    for (size_t i = 0; i < lines.v.size() && onPlane; i += 3)
      onPlane = std::fabs(dotProd3(n, &lines.v[i]) / l - d) <= tol;
    if (onPlane) return (int)f + 1;
  }
  return 0;
}

// Writes the model file o.model (and the polyline file beside it) and moves
// the verified polyhedron from polyhedronTmp to o.output; the model is read
// back with the tracker's parser, and on any failure nothing stays.
void writeModel(const Options& o, const Mesh& m, const Polyline& lines,
                const std::string& polyhedronTmp) {
  namespace fs = std::filesystem;
  const fs::path modelPath(o.model),
      dir = modelPath.parent_path().empty() ? "." : modelPath.parent_path();
  const std::string polyhedronName = fs::proximate(o.output, dir).string();
  const std::string polylineName = modelPath.stem().string() + "_polyline.txt";
  const std::string polylinePath = (dir / polylineName).string();
  std::vector<std::string> written;
  auto abandon = [&](const std::string& why) {
    remove(polyhedronTmp.c_str());
    for (const std::string& f : written) remove(f.c_str());
    fail(why);
  };
  if (polylineName.find_first_of(" \t") != std::string::npos)
    abandon("the polyline file name '" + polylineName + "' must not hold blanks");
  const int support = supportingFace(m, lines, 1e-6 * bboxDiagonal(m));
  char angle[32];
  snprintf(angle, sizeof angle, "%g", o.featureAngle);
  std::string model =
      "# written by zot_mesh2poly from " + fs::path(o.input).filename().string() +
      "\n# number of local frames\n1\n1 0 0 0 0 1 0 0 0 0 1 0\n# number of bodies\n" +
      (lines.segments.empty() ? "1" : "2") +
      "\nP body 1: " + fs::path(o.input).filename().string() + "\n# flat (1) or closed (0)\n" +
      (o.flat ? "1" : "0") + "\n# feature-edge angle [deg]\n" + angle + "\n" + polyhedronName +
      "\n# (spare line: one line always follows a polyhedron's file name)\n";
  if (!lines.segments.empty()) {
    model +=
        "L body 2: lines that bound no face\n# supporting body and face (1-based, 0 for none)\n" +
        std::string(support > 0 ? "1 " + std::to_string(support) : "0 0") + "\n" + polylineName +
        "\n";
    std::string text = "nv " + std::to_string(lines.v.size() / 3) + "\n";
    char line[160];
    for (size_t i = 0; i < lines.v.size(); i += 3) {
      snprintf(line, sizeof line, "v %.17g %.17g %.17g\n", lines.v[i], lines.v[i + 1],
               lines.v[i + 2]);
      text += line;
    }
    text += "ne " + std::to_string(lines.segments.size() / 2) + "\n";
    for (size_t i = 0; i < lines.segments.size(); i += 2)
      text += "e " + std::to_string(lines.segments[i] + 1) + " " +
              std::to_string(lines.segments[i + 1] + 1) + "\n";
    std::ofstream(polylinePath) << text;
    written.push_back(polylinePath);
    std::string error;
    if (!zot_sim::checkBodyFileStrictly(polylinePath, false, error)) abandon(error);
    if (support == 0)
      info("the lines lie on no face of the polyhedron: their body has no supporting face\n");
  }
  if (!(std::ofstream(o.model) << model)) abandon("cannot write '" + o.model + "'");
  written.push_back(o.model);
  if (rename(polyhedronTmp.c_str(), o.output.c_str()) != 0)
    abandon("cannot write '" + o.output + "': " + strerror(errno));
  written.push_back(o.output);
  zot_sim::ModelConfig config;
  std::string error;
  if (zot_sim::loadModelFile(dir.string(), modelPath.filename().string(), config, error) != 0)
    abandon("the written model does not read back: " + error);
  info("wrote the model %s (%zu bodies)\n", o.model.c_str(), config.bodies.size());
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parseArguments(argc, argv);
  g_quiet = o.quiet;

  zot_sim::MeshImport imported;
  std::string error;
  if (!zot_sim::readMeshFile(o.input, imported, error)) fail(error);
  Polyline lines;
  Mesh m = splitImport(imported, lines);
  if (m.faces.empty()) fail("'" + o.input + "' holds no faces");
  info("read %zu vertices and %zu faces from %s\n", imported.vertices.size() / 3, m.faces.size(),
       o.input.c_str());
  if (!lines.segments.empty())
    info("%zu line(s) bound no face: %s\n", lines.segments.size() / 2,
         o.model.empty() ? "--model writes them as a polyline body" : "a polyline body");

  for (double& c : lines.v) c *= o.scale;
  for (double& c : m.v) c *= o.scale;
  for (double c : m.v)
    if (!std::isfinite(c)) fail("coordinates overflow after scaling by " + std::to_string(o.scale));
  if (o.flip || o.scale < 0.0) {
    // A negative scale mirrors the mesh, which turns its winding inside out.
    if (o.flip != (o.scale < 0.0))
      for (auto& f : m.faces) std::reverse(f.begin(), f.end());
  }

  checkResolution(m);
  const double tol = o.tolerance >= 0.0 ? o.tolerance : 1e-6 * bboxDiagonal(m);
  const int merged = mergeVertices(m, tol);
  info("merged %d duplicate vertices (tolerance %g)\n", merged, tol);
  checkDegenerate(m, o.dropDegenerate);
  if (m.faces.empty()) fail("no faces left after removing degenerate ones");
  checkTopology(m, o.flat);
  if (!o.flat) {
    const double volume = signedVolume(m);
    if (volume < 0.0) {
      for (auto& f : m.faces) std::reverse(f.begin(), f.end());
      info("the faces were wound inward: reversed all of them so that normals point outward\n");
    }
  }
  const int absorbed = mergeCoplanar(m, o.coplanarAngle);
  if (absorbed > 0)
    info("merged coplanar neighbours: %zu faces became %zu convex polygons\n",
         m.faces.size() + absorbed, m.faces.size());
  checkTopology(m, o.flat);

  // Written beside the output and renamed into place only once the tracker's
  // own parser and set-up accept it, so a failure never leaves a file.
  const std::string tmp = o.output + ".tmp";
  writePolyhedron(m, tmp);
  if (!zot_sim::checkBodyFileStrictly(tmp, true, error)) {
    remove(tmp.c_str());
    fail("the written file does not read back: " + error);
  }
  int nEdges = 0, nFeatures = 0;
  if (verifyWithPolyhedron(tmp, m, o.flat, o.featureAngle, &nEdges, &nFeatures) != 0) {
    remove(tmp.c_str());
    fail("the tracker's polyhedron set-up refuses the result (see the message above)");
  }
  if (!o.model.empty()) {
    writeModel(o, m, lines, tmp);
  } else if (rename(tmp.c_str(), o.output.c_str()) != 0) {
    const std::string reason = strerror(errno);
    remove(tmp.c_str());
    fail("cannot write '" + o.output + "': " + reason);
  }
  info("wrote %zu vertices, %zu faces (%d edges, %d of them feature edges at %g degrees) to %s\n",
       m.v.size() / 3, m.faces.size(), nEdges, nFeatures, o.featureAngle, o.output.c_str());
  return 0;
}
