// zot_mesh2poly end to end: meshes written here in OBJ and STL, converted by
// the tool, and its output read back with the library's polyhedron parser.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "FileParser.h"

using namespace ZOTtracker;

namespace {

struct ToolRun {
  int status;
  std::string output;
};

ToolRun runTool(const std::string& args) {
  const std::string cmd = std::string(ZOT_TOOLS_DIR) + "/zot_mesh2poly " + args + " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  ToolRun r{-1, ""};
  char buf[512];
  while (fgets(buf, sizeof buf, p)) r.output += buf;
  const int raw = pclose(p);
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return r;
}

std::string dir() {
  static const std::string d = testing::TempDir() + "mesh2poly_" + std::to_string(getpid()) + "/";
  mkdir(d.c_str(), 0755);
  return d;
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// The unit cube as 12 outward triangles (1-based OBJ indices).
const double kCubeV[8][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0},
                             {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}};
const int kCubeF[12][3] = {{1, 3, 2}, {1, 4, 3}, {5, 6, 7}, {5, 7, 8}, {1, 2, 6}, {1, 6, 5},
                           {2, 3, 7}, {2, 7, 6}, {3, 4, 8}, {3, 8, 7}, {4, 1, 5}, {4, 5, 8}};

std::string writeObj(const std::string& name, std::vector<std::vector<int>> faces,
                     const std::string& extraVertexLine = "") {
  const std::string path = dir() + name;
  std::ofstream out(path);
  out << "# test mesh\n";
  for (const auto& v : kCubeV) out << "v " << v[0] << " " << v[1] << " " << v[2] << "\n";
  out << extraVertexLine;
  for (const auto& f : faces) {
    out << "f";
    for (int i : f) out << " " << i << "/1/1";
    out << "\n";
  }
  return path;
}

std::vector<std::vector<int>> cubeFaces() {
  std::vector<std::vector<int>> f;
  for (const auto& t : kCubeF) f.push_back({t[0], t[1], t[2]});
  return f;
}

void writeBinaryStl(const std::string& path, const std::vector<std::vector<int>>& faces,
                    long truncateBy = 0) {
  std::string data(80, ' ');
  uint32_t n = (uint32_t)faces.size();
  data.append((const char*)&n, 4);
  for (const auto& f : faces) {
    float rec[12] = {0};
    for (int c = 0; c < 3; c++)
      for (int k = 0; k < 3; k++) rec[3 + 3 * c + k] = (float)kCubeV[f[c] - 1][k];
    data.append((const char*)rec, 48);
    data.append(2, '\0');
  }
  data.resize(data.size() - truncateBy);
  std::ofstream(path, std::ios::binary) << data;
}

// The converted file read back through the library's parser.
struct Poly {
  int nv = 0, nf = 0;
  std::vector<double> v;
  std::vector<std::vector<int>> faces;
};
Poly readBack(const std::string& path) {
  std::vector<double> a(10000);
  int count = 0;
  FileParser parser;
  EXPECT_EQ(parser.parsePolyhedron(path.c_str(), count, a.data(), (int)a.size()), 0);
  Poly p;
  int c = 0;
  p.nv = (int)a[c++];
  p.v.assign(a.begin() + c, a.begin() + c + 3 * p.nv);
  c += 3 * p.nv;
  p.nf = (int)a[c++];
  for (int f = 0; f < p.nf; f++) {
    const int n = (int)a[c++];
    std::vector<int> face;
    for (int k = 0; k < n; k++) face.push_back((int)a[c++] - 1);
    p.faces.push_back(face);
  }
  EXPECT_EQ(c, count);
  return p;
}

double signedVolume(const Poly& p) {
  double vol = 0;
  for (const auto& f : p.faces)
    for (size_t k = 1; k + 1 < f.size(); k++) {
      const double* a = &p.v[3 * f[0]];
      const double* b = &p.v[3 * f[k]];
      const double* c = &p.v[3 * f[k + 1]];
      vol += (a[0] * (b[1] * c[2] - b[2] * c[1]) - a[1] * (b[0] * c[2] - b[2] * c[0]) +
              a[2] * (b[0] * c[1] - b[1] * c[0])) /
             6.0;
    }
  return vol;
}

}  // namespace

TEST(Mesh2Poly, TriangulatedCubeBecomesSixOutwardQuadrilaterals) {
  const std::string obj = writeObj("cube.obj", cubeFaces());
  const std::string out = dir() + "cube.txt";
  const ToolRun r = runTool("--units m:mm " + obj + " " + out);
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("12 faces became 6 convex polygons"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("12 edges"), std::string::npos) << r.output;
  const Poly p = readBack(out);
  EXPECT_EQ(p.nv, 8);
  ASSERT_EQ(p.nf, 6);
  for (const auto& f : p.faces) EXPECT_EQ(f.size(), 4u);
  EXPECT_NEAR(signedVolume(p), 1e9, 1e-3);  // metres to millimetres, outward
  EXPECT_FALSE(exists(out + ".tmp"));

  // With coplanar merging off the triangles stay.
  const ToolRun keep = runTool("--coplanar-angle 0 " + obj + " " + out);
  ASSERT_EQ(keep.status, 0) << keep.output;
  EXPECT_EQ(readBack(out).nf, 12);
}

TEST(Mesh2Poly, StlInBothEncodingsMergesPerFacetVertices) {
  const std::string bin = dir() + "cube_bin.stl";
  writeBinaryStl(bin, cubeFaces());
  const std::string out = dir() + "cube_stl.txt";
  ToolRun r = runTool(bin + " " + out);
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("merged 28 duplicate vertices"), std::string::npos) << r.output;
  EXPECT_EQ(readBack(out).nf, 6);

  const std::string ascii = dir() + "cube_ascii.stl";
  {
    std::ofstream s(ascii);
    s << "solid cube\n";
    for (const auto& f : kCubeF) {
      s << " facet normal 0 0 0\n  outer loop\n";
      for (int c = 0; c < 3; c++)
        s << "   vertex " << kCubeV[f[c] - 1][0] << " " << kCubeV[f[c] - 1][1] << " "
          << kCubeV[f[c] - 1][2] << "\n";
      s << "  endloop\n endfacet\n";
    }
    s << "endsolid cube\n";
  }
  r = runTool("--scale 25.4 " + ascii + " " + out);
  ASSERT_EQ(r.status, 0) << r.output;
  const Poly p = readBack(out);
  EXPECT_EQ(p.nf, 6);
  EXPECT_NEAR(signedVolume(p), 25.4 * 25.4 * 25.4, 1e-6);
}

TEST(Mesh2Poly, OrientationAndClosednessAreCheckedAsTheSetUpWill) {
  const std::string out = dir() + "bad.txt";
  // One flipped triangle.
  auto faces = cubeFaces();
  std::swap(faces[0][1], faces[0][2]);
  ToolRun r = runTool(writeObj("flipped.obj", faces) + " " + out);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("error: inconsistent orientation: faces 1 and"), std::string::npos)
      << r.output;
  EXPECT_FALSE(exists(out));

  // All faces wound inward: reversed and reported, the result is outward.
  faces = cubeFaces();
  for (auto& f : faces) std::swap(f[1], f[2]);
  r = runTool(writeObj("inward.obj", faces) + " " + out);
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("wound inward"), std::string::npos);
  EXPECT_GT(signedVolume(readBack(out)), 0.0);
  remove(out.c_str());

  // An open box fails unless it is declared flat.
  faces = cubeFaces();
  faces.resize(10);
  const std::string open = writeObj("open.obj", faces);
  r = runTool(open + " " + out);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("not closed: 4 edge(s)"), std::string::npos) << r.output;
  EXPECT_FALSE(exists(out));
  r = runTool("--flat " + open + " " + out);
  EXPECT_EQ(r.status, 0) << r.output;
  EXPECT_EQ(readBack(out).nf, 5);
  remove(out.c_str());

  // A third face on an edge makes it non-manifold.
  faces = cubeFaces();
  faces.push_back({1, 2, 7});
  r = runTool("--flat " + writeObj("nonmanifold.obj", faces) + " " + out);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("non-manifold mesh"), std::string::npos) << r.output;
  EXPECT_FALSE(exists(out));
}

TEST(Mesh2Poly, BadInputFailsCleanlyWithoutOutput) {
  const std::string out = dir() + "never.txt";
  struct Case {
    std::string input, expected;
  };
  std::vector<Case> cases;
  cases.push_back({writeObj("nan.obj", cubeFaces(), "v nan 0 0\n"), "non-finite coordinate"});
  auto degenerate = cubeFaces();
  degenerate.push_back({1, 1, 2});
  cases.push_back({writeObj("degenerate.obj", degenerate), "face 13 is degenerate"});
  cases.push_back({writeObj("badindex.obj", {{1, 2, 9}}), "refers to no vertex"});
  const std::string truncated = dir() + "truncated.stl";
  writeBinaryStl(truncated, cubeFaces(), 30);
  cases.push_back({truncated, "truncated binary STL"});
  const std::string cut = dir() + "cut.stl";
  std::ofstream(cut) << "solid x\n facet normal 0 0 1\n outer loop\n vertex 0 0 0\n vertex 1 0";
  cases.push_back({cut, "truncated"});
  cases.push_back({dir() + "missing.obj", "cannot open"});
  cases.push_back({dir() + "mesh.ply", "unknown input format"});
  for (const Case& c : cases) {
    const ToolRun r = runTool(c.input + " " + out);
    EXPECT_EQ(r.status, 1) << c.input;
    EXPECT_NE(r.output.find(c.expected), std::string::npos) << c.input << ": " << r.output;
    EXPECT_FALSE(exists(out)) << c.input;
  }
  // Degenerate faces can be dropped on request.
  const ToolRun dropped = runTool("--drop-degenerate " + cases[1].input + " " + out);
  EXPECT_EQ(dropped.status, 0) << dropped.output;
  EXPECT_EQ(readBack(out).nf, 6);

  // Arguments.
  EXPECT_EQ(runTool("--scale abc a.obj b.txt").status, 2);
  EXPECT_EQ(runTool("--units m:furlong a.obj b.txt").status, 2);
  EXPECT_EQ(runTool("only_one.obj").status, 2);
  const ToolRun help = runTool("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.output.find("usage: zot_mesh2poly"), std::string::npos);
}
