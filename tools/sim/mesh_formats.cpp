#include "mesh_formats.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <utility>

namespace zot_sim {

namespace {

// Every reader reports through this: the first failure ends the read.
struct ReadError {
  std::string message;
};

[[noreturn]] void refuse(const std::string& path, int line, const std::string& what) {
  throw ReadError{path + (line > 0 ? ":" + std::to_string(line) : std::string()) + ": " + what};
}

std::string lowerExtension(const std::string& path) {
  std::string ext = std::filesystem::path(path).extension().string();
  for (char& c : ext) c = (char)tolower((unsigned char)c);
  return ext;
}

bool toNumber(const std::string& word, double& value) {
  char* end = nullptr;
  errno = 0;
  value = strtod(word.c_str(), &end);
  return !word.empty() && *end == '\0' && std::isfinite(value);
}

bool toIndex(const std::string& word, long& value) {
  char* end = nullptr;
  value = strtol(word.c_str(), &end, 10);
  return !word.empty() && *end == '\0';
}

double numberAt(const std::string& path, int line, const std::string& word, const char* what) {
  double v = 0.0;
  if (!toNumber(word, v))
    refuse(path, line, std::string("expected ") + what + ", got '" + word + "'");
  return v;
}

// A 0-based index below `limit`; `base` is what the file counts from.
int indexAt(const std::string& path, int line, const std::string& word, long limit, int base,
            const char* what) {
  long v = 0;
  if (!toIndex(word, v))
    refuse(path, line, std::string("expected ") + what + ", got '" + word + "'");
  if (v - base < 0 || v - base >= limit)
    refuse(path, line,
           std::string(what) + " " + word + " refers to none of the " + std::to_string(limit));
  return (int)(v - base);
}

// ================================================================ .cao
// Line-oriented: an optional version line (V1), then counted sections of
// points, lines, faces from lines, faces from points, cylinders and
// circles. '#' starts a comment; indices count from 0; words after an
// item's numbers (names, parameters) are ignored.
struct DataLine {
  int number;
  std::vector<std::string> words;
};

std::vector<DataLine> dataLines(const std::string& text) {
  std::vector<DataLine> lines;
  std::istringstream in(text);
  std::string raw;
  for (int n = 1; std::getline(in, raw); n++) {
    const size_t hash = raw.find('#');
    if (hash != std::string::npos) raw.erase(hash);
    std::istringstream ws(raw);
    DataLine d{n, {}};
    for (std::string w; ws >> w;) d.words.push_back(w);
    if (!d.words.empty()) lines.push_back(d);
  }
  return lines;
}

void readCao(const std::string& path, const std::string& text, MeshImport& m) {
  const std::vector<DataLine> lines = dataLines(text);
  size_t at = 0;
  if (at < lines.size() && (lines[at].words[0] == "V1" || lines[at].words[0] == "V2")) at++;
  const int lastLine = lines.empty() ? 0 : lines.back().number;
  // A section's count; a file may stop after any complete section.
  auto count = [&](const char* what, bool optional) -> long {
    if (at >= lines.size()) {
      if (optional) return 0;
      refuse(path, lastLine,
             std::string("the file ends where the number of ") + what + " is expected");
    }
    const DataLine& d = lines[at++];
    if (d.words[0].rfind("load", 0) == 0)
      refuse(path, d.number, "loading other model files (load) is not supported");
    long n = 0;
    if (!toIndex(d.words[0], n) || n < 0)
      refuse(path, d.number,
             std::string("expected the number of ") + what + ", got '" + d.words[0] + "'");
    return n;
  };
  auto item = [&](const char* what, size_t minWords) -> const DataLine& {
    if (at >= lines.size())
      refuse(path, lastLine, std::string("the file ends inside the list of ") + what);
    const DataLine& d = lines[at++];
    if (d.words.size() < minWords)
      refuse(
          path, d.number,
          std::string("expected ") + std::to_string(minWords) + " numbers for one of the " + what);
    return d;
  };

  const long nPoints = count("points", false);
  for (long i = 0; i < nPoints; i++) {
    const DataLine& d = item("points", 3);
    for (int k = 0; k < 3; k++)
      m.vertices.push_back(numberAt(path, d.number, d.words[k], "a coordinate"));
  }
  const long nLines = count("lines", false);
  std::vector<std::pair<int, int>> segments;
  for (long i = 0; i < nLines; i++) {
    const DataLine& d = item("lines", 2);
    const int a = indexAt(path, d.number, d.words[0], nPoints, 0, "point");
    const int b = indexAt(path, d.number, d.words[1], nPoints, 0, "point");
    if (a == b) refuse(path, d.number, "a line from a point to itself");
    segments.push_back({a, b});
  }
  std::vector<bool> lineUsed(segments.size(), false);
  // Faces from lines: the lines are chained end to end into one closed loop.
  const long nLineFaces = count("faces from lines", true);
  for (long i = 0; i < nLineFaces; i++) {
    const DataLine& d = item("faces from lines", 1);
    long n = 0;
    if (!toIndex(d.words[0], n) || n < 3 || (long)d.words.size() < n + 1)
      refuse(path, d.number,
             "expected a face: the number of its lines (3 or more), then as many line indices");
    std::vector<int> ids;
    for (long k = 0; k < n; k++) {
      const int l = indexAt(path, d.number, d.words[1 + k], (long)segments.size(), 0, "line");
      ids.push_back(l);
      lineUsed[l] = true;
    }
    std::vector<int> loop = {segments[ids[0]].first, segments[ids[0]].second};
    std::vector<bool> taken(ids.size(), false);
    taken[0] = true;
    for (size_t step = 1; step < ids.size(); step++) {
      size_t k = 1;
      for (; k < ids.size(); k++) {
        const auto& s = segments[ids[k]];
        if (taken[k] || (s.first != loop.back() && s.second != loop.back())) continue;
        loop.push_back(s.first == loop.back() ? s.second : s.first);
        taken[k] = true;
        break;
      }
      if (k == ids.size()) break;
    }
    if (loop.size() != ids.size() + 1 || loop.back() != loop.front())
      refuse(path, d.number, "the lines of this face do not form one closed loop");
    loop.pop_back();
    m.faces.push_back(loop);
  }
  const long nPointFaces = count("faces from points", true);
  for (long i = 0; i < nPointFaces; i++) {
    const DataLine& d = item("faces from points", 1);
    long n = 0;
    if (!toIndex(d.words[0], n) || n < 3 || (long)d.words.size() < n + 1)
      refuse(path, d.number,
             "expected a face: the number of its points (3 or more), then as many point indices");
    std::vector<int> face;
    for (long k = 0; k < n; k++)
      face.push_back(indexAt(path, d.number, d.words[1 + k], nPoints, 0, "point"));
    m.faces.push_back(face);
  }
  // Cylinders and circles have no polyhedron equivalent: name every one.
  std::string unsupported;
  for (const char* what : {"cylinders", "circles"}) {
    const long n = count(what, true);
    for (long i = 0; i < n; i++) {
      const DataLine& d = item(what, 1);
      unsupported += (unsupported.empty() ? "" : ", ") +
                     std::string(what).substr(0, strlen(what) - 1) + " on line " +
                     std::to_string(d.number);
    }
  }
  if (!unsupported.empty())
    refuse(path, 0, unsupported + ": not supported (model them as faces or leave them out)");
  if (at < lines.size()) refuse(path, lines[at].number, "unexpected content after the circles");
  // Lines that bound no face become the polyline body.
  std::set<std::pair<int, int>> faceEdges;
  for (const auto& f : m.faces)
    for (size_t k = 0; k < f.size(); k++) {
      const int a = f[k], b = f[(k + 1) % f.size()];
      faceEdges.insert({std::min(a, b), std::max(a, b)});
    }
  for (size_t l = 0; l < segments.size(); l++) {
    const auto& s = segments[l];
    if (lineUsed[l] || faceEdges.count({std::min(s.first, s.second), std::max(s.first, s.second)}))
      continue;
    m.segments.push_back(s.first);
    m.segments.push_back(s.second);
  }
}

// ================================================================ .wrl
// VRML 2: the IndexedFaceSet nodes, each with its own Coordinate points and
// coordIndex lists ended by -1. Transforms other than the identity, USE and
// other geometry nodes are refused.
struct WrlToken {
  std::string text;
  int line;
};

std::vector<WrlToken> wrlTokens(const std::string& text) {
  std::vector<WrlToken> tokens;
  int line = 1;
  for (size_t i = 0; i < text.size();) {
    const char c = text[i];
    if (c == '\n') {
      line++;
      i++;
    } else if (isspace((unsigned char)c) || c == ',') {
      i++;
    } else if (c == '#') {
      while (i < text.size() && text[i] != '\n') i++;
    } else if (c == '"') {
      const size_t start = i++;
      while (i < text.size() && text[i] != '"') {
        if (text[i] == '\n') line++;
        i += text[i] == '\\' ? 2 : 1;
      }
      tokens.push_back({text.substr(start, ++i - start), line});
    } else if (strchr("{}[]", c)) {
      tokens.push_back({std::string(1, c), line});
      i++;
    } else {
      const size_t start = i;
      while (i < text.size() && !isspace((unsigned char)text[i]) && !strchr(",{}[]#\"", text[i]))
        i++;
      tokens.push_back({text.substr(start, i - start), line});
    }
  }
  return tokens;
}

void readWrl(const std::string& path, const std::string& text, MeshImport& m) {
  if (text.rfind("#VRML V2.0", 0) != 0)
    refuse(path, 1, "not a VRML 2.0 file (the first line should be #VRML V2.0 utf8)");
  const std::vector<WrlToken> t = wrlTokens(text);
  std::vector<std::string> nodes;  // enclosing node types
  std::vector<double> points;      // of the IndexedFaceSet being read
  std::vector<long> indices;
  bool ccw = true;
  int faceSetLine = 0;
  // Numbers up to the closing bracket of a field's list.
  auto list = [&](size_t& i, auto&& take) {
    if (i + 1 >= t.size() || t[i + 1].text != "[") {
      i++;
      if (i < t.size()) take(t[i]);  // a single value
      return;
    }
    for (i += 2; i < t.size() && t[i].text != "]"; i++) take(t[i]);
    if (i >= t.size()) refuse(path, t.back().line, "a list that is never closed with ]");
  };
  for (size_t i = 0; i < t.size(); i++) {
    const WrlToken& w = t[i];
    const std::string inside = nodes.empty() ? "" : nodes.back();
    if (w.text == "{") {
      nodes.push_back(i > 0 ? t[i - 1].text : "");
      if (nodes.back() == "IndexedFaceSet") {
        points.clear();
        indices.clear();
        ccw = true;
        faceSetLine = w.line;
      }
    } else if (w.text == "}") {
      if (nodes.empty()) refuse(path, w.line, "a } without its {");
      if (nodes.back() == "IndexedFaceSet") {
        const long nv = (long)points.size() / 3, base = (long)m.vertices.size() / 3;
        m.vertices.insert(m.vertices.end(), points.begin(), points.begin() + 3 * nv);
        std::vector<int> face;
        indices.push_back(-1);
        for (long idx : indices) {
          if (idx >= 0) {
            if (idx >= nv)
              refuse(path, faceSetLine,
                     "the IndexedFaceSet here has an index " + std::to_string(idx) +
                         " beyond its " + std::to_string(nv) + " points");
            face.push_back((int)(base + idx));
            continue;
          }
          if (face.empty()) continue;
          if (face.size() < 3)
            refuse(path, faceSetLine,
                   "the IndexedFaceSet here has a face with fewer than 3 points");
          if (!ccw) std::reverse(face.begin(), face.end());
          m.faces.push_back(face);
          face.clear();
        }
      }
      nodes.pop_back();
    } else if (w.text == "USE" || w.text == "PROTO" || w.text == "EXTERNPROTO" ||
               w.text == "Inline") {
      refuse(path, w.line,
             w.text + " is not supported: export the model as plain IndexedFaceSet nodes");
    } else if (i + 1 < t.size() && t[i + 1].text == "{" &&
               (w.text == "Box" || w.text == "Cone" || w.text == "Cylinder" || w.text == "Sphere" ||
                w.text == "Extrusion" || w.text == "ElevationGrid" || w.text == "IndexedLineSet" ||
                w.text == "PointSet" || w.text == "Text")) {
      refuse(path, w.line, w.text + " nodes are not supported (only IndexedFaceSet)");
    } else if (inside == "Transform" &&
               (w.text == "translation" || w.text == "rotation" || w.text == "scale")) {
      // Identity values are harmless; anything else would move the geometry.
      const int n = w.text == "rotation" ? 4 : 3;
      double v[4] = {0, 0, 0, 0};
      for (int k = 0; k < n; k++)
        v[k] = i + 1 + k < t.size() ? numberAt(path, w.line, t[i + 1 + k].text, "a number") : 0.0;
      const bool identity = w.text == "scale"      ? v[0] == 1 && v[1] == 1 && v[2] == 1
                            : w.text == "rotation" ? v[3] == 0
                                                   : v[0] == 0 && v[1] == 0 && v[2] == 0;
      if (!identity)
        refuse(path, w.line,
               "Transform with a " + w.text +
                   " is not supported: apply it to the coordinates in the CAD program");
      i += n;
    } else if (inside == "Coordinate" && w.text == "point") {
      list(i, [&](const WrlToken& x) {
        points.push_back(numberAt(path, x.line, x.text, "a coordinate"));
      });
      if (points.size() % 3 != 0)
        refuse(path, w.line, "the point list does not hold x y z triples");
    } else if (inside == "IndexedFaceSet" && w.text == "coordIndex") {
      list(i, [&](const WrlToken& x) {
        long v = 0;
        if (!toIndex(x.text, v) || v < -1)
          refuse(path, x.line, "expected a vertex index or -1, got '" + x.text + "'");
        indices.push_back(v);
      });
    } else if (inside == "IndexedFaceSet" && w.text == "ccw" && i + 1 < t.size()) {
      ccw = t[++i].text != "FALSE";
    }
  }
  if (!nodes.empty())
    refuse(path, t.back().line, "the file ends inside a " + nodes.back() + " node");
}

// ================================================================ .ply
// Header "ply", "format ascii|binary_little_endian 1.0", elements with
// scalar and list properties; the vertex element's x, y, z and the face
// element's vertex_indices (or vertex_index) list are used, other elements
// are skipped, except edges, which would be lost.
struct PlyProperty {
  std::string name, type, countType;  // countType set for lists
};
struct PlyElement {
  std::string name;
  long count = 0;
  int headerLine = 0;
  std::vector<PlyProperty> properties;
};

int plyTypeSize(const std::string& type) {
  if (type == "char" || type == "uchar" || type == "int8" || type == "uint8") return 1;
  if (type == "short" || type == "ushort" || type == "int16" || type == "uint16") return 2;
  if (type == "int" || type == "uint" || type == "float" || type == "int32" || type == "uint32" ||
      type == "float32")
    return 4;
  if (type == "double" || type == "float64") return 8;
  return 0;
}

double plyBinaryValue(const char* p, const std::string& type) {
  // Little-endian on the x86-64 hosts this runs on: a plain copy.
  auto get = [p](auto v) {
    memcpy(&v, p, sizeof v);
    return (double)v;
  };
  if (type == "char" || type == "int8") return get(int8_t());
  if (type == "uchar" || type == "uint8") return get(uint8_t());
  if (type == "short" || type == "int16") return get(int16_t());
  if (type == "ushort" || type == "uint16") return get(uint16_t());
  if (type == "int" || type == "int32") return get(int32_t());
  if (type == "uint" || type == "uint32") return get(uint32_t());
  if (type == "float" || type == "float32") return get(float());
  return get(double());
}

void readPly(const std::string& path, const std::string& data, MeshImport& m) {
  std::vector<PlyElement> elements;
  bool binary = false;
  size_t pos = 0;
  int line = 0;
  for (bool done = false; !done;) {
    const size_t eol = data.find('\n', pos);
    if (eol == std::string::npos) refuse(path, line + 1, "the header has no end_header line");
    std::string text = data.substr(pos, eol - pos);
    if (!text.empty() && text.back() == '\r') text.pop_back();
    pos = eol + 1;
    line++;
    std::istringstream ws(text);
    std::vector<std::string> w;
    for (std::string s; ws >> s;) w.push_back(s);
    if (line == 1) {
      if (w.size() != 1 || w[0] != "ply")
        refuse(path, 1, "not a PLY file (the first line should be ply)");
      continue;
    }
    if (w.empty() || w[0] == "comment" || w[0] == "obj_info") continue;
    if (w[0] == "end_header") {
      done = true;
    } else if (w[0] == "format") {
      if (w.size() < 2 || (w[1] != "ascii" && w[1] != "binary_little_endian"))
        refuse(path, line,
               "format " + (w.size() > 1 ? w[1] : std::string()) +
                   " is not supported (ascii or binary_little_endian)");
      binary = w[1] == "binary_little_endian";
    } else if (w[0] == "element") {
      long n = 0;
      if (w.size() != 3 || !toIndex(w[2], n) || n < 0)
        refuse(path, line, "expected element NAME COUNT");
      if (w[1] == "edge") refuse(path, line, "edge elements are not supported (faces only)");
      elements.push_back({w[1], n, line, {}});
    } else if (w[0] == "property") {
      if (elements.empty()) refuse(path, line, "a property before any element");
      const bool isList = w.size() == 5 && w[1] == "list";
      if (!isList && w.size() != 3)
        refuse(path, line, "expected property TYPE NAME or property list COUNTTYPE TYPE NAME");
      PlyProperty p = isList ? PlyProperty{w[4], w[3], w[2]} : PlyProperty{w[2], w[1], ""};
      if (plyTypeSize(p.type) == 0 || (isList && plyTypeSize(p.countType) == 0))
        refuse(path, line, "unknown property type in '" + text + "'");
      elements.back().properties.push_back(p);
    } else {
      refuse(path, line, "unexpected header line '" + text + "'");
    }
  }
  // The body, element by element: per instance the values of its properties.
  std::istringstream ascii(binary ? std::string() : data.substr(pos));
  int bodyLine = line;
  for (const PlyElement& e : elements) {
    const bool isVertex = e.name == "vertex", isFace = e.name == "face";
    int xyz[3] = {-1, -1, -1}, list = -1;
    for (size_t k = 0; k < e.properties.size(); k++) {
      const std::string& n = e.properties[k].name;
      for (int a = 0; a < 3; a++)
        if (isVertex && n == std::string(1, char('x' + a))) xyz[a] = (int)k;
      if (isFace && (n == "vertex_indices" || n == "vertex_index") &&
          !e.properties[k].countType.empty())
        list = (int)k;
    }
    if (isVertex && std::min({xyz[0], xyz[1], xyz[2]}) < 0)
      refuse(path, e.headerLine, "the vertex element has no x, y and z properties");
    if (isFace && list < 0)
      refuse(path, e.headerLine, "the face element has no vertex_indices list");
    const long nv = (long)m.vertices.size() / 3;
    for (long i = 0; i < e.count; i++) {
      const std::string where = e.name + " " + std::to_string(i);
      std::vector<std::string> words;  // ASCII: this instance's line
      size_t w = 0;
      if (!binary) {
        std::string text;
        if (!std::getline(ascii, text)) refuse(path, bodyLine, "the file ends before " + where);
        bodyLine++;
        std::istringstream ws(text);
        for (std::string s; ws >> s;) words.push_back(s);
      }
      const int at = binary ? 0 : bodyLine;
      auto next = [&](const std::string& type) -> double {
        if (binary) {
          const size_t size = plyTypeSize(type);
          if (pos + size > data.size()) refuse(path, 0, "the binary data ends inside " + where);
          const double v = plyBinaryValue(data.data() + pos, type);
          pos += size;
          return v;
        }
        if (w >= words.size()) refuse(path, at, "too few values for " + where);
        return numberAt(path, at, words[w++], "a number");
      };
      std::vector<int> face;
      for (size_t k = 0; k < e.properties.size(); k++) {
        const PlyProperty& p = e.properties[k];
        if (p.countType.empty()) {
          const double v = next(p.type);
          for (int a = 0; a < 3; a++)
            if ((int)k == xyz[a]) m.vertices.push_back(v);
          continue;
        }
        const double n = next(p.countType);
        if (n < 0 || n > 1e6) refuse(path, at, "impossible list length in " + where);
        for (long j = 0; j < (long)n; j++) {
          const double v = next(p.type);
          if ((int)k != list) continue;
          if (v < 0 || v >= nv || v != std::floor(v))
            refuse(path, at,
                   where + " refers to vertex " + std::to_string((long)v) + " of " +
                       std::to_string(nv));
          face.push_back((int)v);
        }
      }
      if (isFace) {
        if (face.size() < 3) refuse(path, at, where + " has fewer than 3 vertices");
        m.faces.push_back(face);
      }
    }
  }
  if (m.faces.empty()) refuse(path, 0, "no faces");
}

// ================================================================ .obj
// "v x y z" and "f i j k ..." with i, i/t, i//n or i/t/n, negative indices
// counting back from the last vertex; everything else is ignored.
void readObj(const std::string& path, const std::string& text, MeshImport& m) {
  std::istringstream in(text);
  std::string line;
  for (int n = 1; std::getline(in, line); n++) {
    std::istringstream ls(line);
    std::string tag;
    if (!(ls >> tag)) continue;
    if (tag == "v") {
      std::string x[3];
      if (!(ls >> x[0] >> x[1] >> x[2])) refuse(path, n, "truncated vertex");
      for (int k = 0; k < 3; k++) {
        double v = 0.0;
        char* end = nullptr;
        v = strtod(x[k].c_str(), &end);
        if (end == x[k].c_str() || *end != '\0') refuse(path, n, "malformed number '" + x[k] + "'");
        if (!std::isfinite(v)) refuse(path, n, "non-finite coordinate");
        m.vertices.push_back(v);
      }
    } else if (tag == "f") {
      std::vector<int> face;
      const long nv = (long)m.vertices.size() / 3;
      for (std::string token; ls >> token;) {
        char* end = nullptr;
        const long idx = strtol(token.c_str(), &end, 10);
        if (end == token.c_str() || (*end != '\0' && *end != '/'))
          refuse(path, n, "malformed face index '" + token + "'");
        const long zeroBased = idx > 0 ? idx - 1 : nv + idx;
        if (idx == 0 || zeroBased < 0 || zeroBased >= nv)
          refuse(path, n, "face index " + token + " refers to no vertex");
        face.push_back((int)zeroBased);
      }
      if (face.size() < 3) refuse(path, n, "face with fewer than 3 vertices");
      m.faces.push_back(face);
    }
  }
}

// ================================================================ .stl
// Binary when the size matches 84 + 50 n for the count in the header, ASCII
// otherwise ("solid ... facet ... vertex x y z ... endfacet").
void readStl(const std::string& path, const std::string& data, MeshImport& m) {
  auto vertex = [&](const double* p, const std::string& where) {
    for (int k = 0; k < 3; k++)
      if (!std::isfinite(p[k])) refuse(path, 0, "non-finite coordinate in " + where);
    m.vertices.insert(m.vertices.end(), p, p + 3);
    return (int)m.vertices.size() / 3 - 1;
  };
  if (data.size() >= 84) {
    uint32_t n = 0;
    memcpy(&n, data.data() + 80, 4);
    const bool looksAscii =
        data.compare(0, 5, "solid") == 0 && data.find("facet", 5) != std::string::npos;
    if (84 + 50ull * n == data.size() || !looksAscii) {
      if (84 + 50ull * n != data.size())
        refuse(path, 0,
               "truncated binary STL: the header announces " + std::to_string(n) + " triangles (" +
                   std::to_string(84 + 50ull * n) + " bytes), the file has " +
                   std::to_string(data.size()) + " bytes");
      for (uint32_t t = 0; t < n; t++) {
        const char* rec = data.data() + 84 + 50ull * t + 12;  // after the normal
        std::vector<int> face;
        for (int c = 0; c < 3; c++) {
          float f[3];
          memcpy(f, rec + 12 * c, 12);
          const double p[3] = {f[0], f[1], f[2]};
          face.push_back(vertex(p, "triangle " + std::to_string(t + 1)));
        }
        m.faces.push_back(face);
      }
      return;
    }
  }
  std::istringstream in(data);
  std::string word;
  std::vector<int> face;
  bool inFacet = false;
  int facet = 0;
  while (in >> word) {
    const std::string where = "facet " + std::to_string(facet);
    if (word == "facet") {
      if (inFacet) refuse(path, 0, where + " has no endfacet");
      inFacet = true;
      facet++;
      face.clear();
    } else if (word == "vertex") {
      double p[3];
      if (!(in >> p[0] >> p[1] >> p[2])) refuse(path, 0, "truncated vertex in " + where);
      face.push_back(vertex(p, where));
    } else if (word == "endfacet") {
      if (!inFacet || face.size() != 3) refuse(path, 0, where + " does not have 3 vertices");
      m.faces.push_back(face);
      inFacet = false;
    }
  }
  if (inFacet)
    refuse(path, 0, "truncated ASCII STL: facet " + std::to_string(facet) + " is not closed");
  if (m.faces.empty()) refuse(path, 0, "no triangles found");
}

}  // namespace

bool isImportFormat(const std::string& path) {
  const std::string ext = lowerExtension(path);
  return ext == ".cao" || ext == ".wrl" || ext == ".vrml" || ext == ".ply" || ext == ".obj" ||
         ext == ".stl";
}

bool readMeshFile(const std::string& path, MeshImport& out, std::string& error) {
  out = MeshImport();
  const std::string ext = lowerExtension(path);
  if (!isImportFormat(path)) {
    error = "unknown input format '" + ext + "' of " + path +
            " (expected .cao, .wrl, .ply, .obj or .stl)";
    return false;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = "cannot open '" + path + "': " + strerror(errno);
    return false;
  }
  std::stringstream ss;
  ss << in.rdbuf();
  try {
    if (ext == ".cao")
      readCao(path, ss.str(), out);
    else if (ext == ".ply")
      readPly(path, ss.str(), out);
    else if (ext == ".obj")
      readObj(path, ss.str(), out);
    else if (ext == ".stl")
      readStl(path, ss.str(), out);
    else
      readWrl(path, ss.str(), out);
  } catch (const ReadError& e) {
    error = e.message;
    return false;
  }
  if (out.faces.empty() && out.segments.empty()) {
    error = path + ": no faces and no lines";
    return false;
  }
  return true;
}

}  // namespace zot_sim
