// Configuration and sequence files for the host programs. Camera and model
// files go through the library's own parser and setup-array codec, so that
// the simulation sees exactly the numbers the tracker will see.
#include "scene_config.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <opencv2/core.hpp>
#include <sstream>

#include "FileParser.h"
#include "Math.h"
#include "SetupArray.h"

namespace zot_sim {

namespace {

std::string joinPath(const std::string& directory, const std::string& name) {
  return directory.empty() ? name : directory + "/" + name;
}

// Splits a line into numbers; false when a token is not a number.
bool numbersOfLine(const std::string& line, std::vector<double>& out) {
  out.clear();
  std::string text = line;
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c == ',' || c == ';'; }, ' ');
  std::istringstream in(text);
  std::string token;
  while (in >> token) {
    char* end = nullptr;
    const double v = std::strtod(token.c_str(), &end);
    if (end == token.c_str() || *end != '\0') return false;
    out.push_back(v);
  }
  return true;
}

bool isSkipped(const std::string& line) {
  const size_t first = line.find_first_not_of(" \t\r");
  return first == std::string::npos || line[first] == '#';
}

// Calls item(line, error) for every line of `path` that is not skipped as a
// comment or blank; a false from item stops with "<path>:<line>: <error>".
template <typename Item>
bool forEachItemLine(const std::string& path, std::string& error, Item item) {
  std::ifstream in(path);
  if (!in) {
    error = "cannot open " + path;
    return false;
  }
  std::string line;
  int lineNo = 0;
  while (std::getline(in, line)) {
    lineNo++;
    if (isSkipped(line)) continue;
    if (!item(line, error)) {
      error = path + ":" + std::to_string(lineNo) + ": " + error;
      return false;
    }
  }
  return true;
}

void writeRows(FILE* f, const double* T) {
  for (int k = 0; k < 12; k++) fprintf(f, "%.12g%s", T[k], k < 11 ? " " : "\n");
}

std::string stemOf(const std::string& fileName) {
  return std::filesystem::path(fileName).replace_extension().string();
}

// Writes an optional "# comment" line, then writeBody(file); reports a file
// that cannot be opened or closed.
template <typename Body>
bool writeCommentedFile(const std::string& path, const std::string& comment, std::string& error,
                        Body writeBody) {
  FILE* f = fopen(path.c_str(), "w");
  if (f == nullptr) {
    error = "cannot write " + path + ": " + strerror(errno);
    return false;
  }
  if (!comment.empty()) fprintf(f, "# %s\n", comment.c_str());
  writeBody(f);
  const bool ok = fclose(f) == 0;
  if (!ok) error = "cannot write " + path;
  return ok;
}

// The layout of the setup array is the library's (SetupArray.h); these turn
// its plain structures into the host-side ones.

// Refuses with the codec's message lines as one line in `error`.
bool refused(const char* messages, std::string& error) {
  error = messages;
  while (!error.empty() && error.back() == '\n') error.pop_back();
  for (size_t at = error.find('\n'); at != std::string::npos; at = error.find('\n', at))
    error.replace(at, 1, "; ");
  if (error.empty()) error = "setup array refused";
  return false;
}

CameraConfig cameraOf(const ZOTtracker::SetupCamera& in) {
  CameraConfig c;
  c.width = in.width;
  c.height = in.height;
  c.zNear = in.zNear;
  c.zFar = in.zFar;
  c.fx = in.fx;
  c.fy = in.fy;
  c.cx = in.cx;
  c.cy = in.cy;
  c.skew = in.skew;
  std::copy(in.dist, in.dist + 5, c.dist);
  std::copy(in.toolFromCamera, in.toolFromCamera + 16, c.toolFromCamera.begin());
  for (int p = 0; p < in.nMasks; p++)
    c.masks.emplace_back(in.maskVertices[p], in.maskVertices[p] + 2 * in.maskNVertices[p]);
  return c;
}

BodyConfig bodyOf(const ZOTtracker::SetupBody& in) {
  BodyConfig body;
  body.type = in.type;
  if (in.type == ZOTtracker::ZOT_BODY_CYLINDER) {
    std::copy(in.cylinder, in.cylinder + 13, body.cylinder);
    return body;
  }
  body.mesh.vertices.assign(in.vertices, in.vertices + 3 * in.nVertices);
  if (in.type == ZOTtracker::ZOT_BODY_POLYHEDRON) {
    body.flat = in.flat != 0.0;
    body.featureAngle = in.angle;
    int offset = 0, indices[ZOTtracker::ZOT_MAX_FACE_VERTICES];
    for (int f = 0; f < in.nItems; f++) {
      const int n = ZOTtracker::nextFace(in, offset, indices);
      body.mesh.faceSizes.push_back(n);
      body.mesh.faceIndices.insert(body.mesh.faceIndices.end(), indices, indices + n);
    }
  } else {
    body.supportBody = in.supportBody;
    body.supportFace = in.supportFace;
    for (int i = 0; i < in.nItemValues; i++) body.segments.push_back((int)in.items[i] - 1);
  }
  return body;
}

void addLocalFrames(ModelConfig& model, int n, const double (*frames)[16]) {
  model.localFrames.resize(n);
  for (int i = 0; i < n; i++) std::copy(frames[i], frames[i] + 16, model.localFrames[i].begin());
}

}  // namespace

bool decodeCameraSection(const double* array, int count, int& cursor,
                         std::vector<CameraConfig>& cameras, std::string& error) {
  char messages[1024];
  ZOTtracker::SetupArrayReader r(array, count, cursor);
  r.keepMessagesIn(messages, sizeof(messages));
  int nCameras = 0;
  if (!ZOTtracker::decodeCameraCount(r, nCameras)) return refused(messages, error);
  cameras.clear();
  auto camera = std::make_unique<ZOTtracker::SetupCamera>();
  for (int c = 0; c < nCameras; c++) {
    if (!ZOTtracker::decodeCamera(r, c, *camera)) return refused(messages, error);
    cameras.push_back(cameraOf(*camera));
  }
  return true;
}

bool decodeModelSection(const double* array, int count, int& cursor, ModelConfig& model,
                        std::string& error) {
  char messages[1024];
  ZOTtracker::SetupArrayReader r(array, count, cursor);
  r.keepMessagesIn(messages, sizeof(messages));
  model = ModelConfig();
  std::vector<double> frames(16 * ZOTtracker::ZOT_MAX_LOCAL_FRAMES);
  double(*frame)[16] = reinterpret_cast<double(*)[16]>(frames.data());
  int nFrames = 0, nBodies = 0;
  if (!ZOTtracker::decodeLocalFrames(r, nFrames, frame) || !ZOTtracker::decodeBodyCount(r, nBodies))
    return refused(messages, error);
  addLocalFrames(model, nFrames, frame);
  for (int b = 0; b < nBodies; b++) {
    ZOTtracker::SetupBody body;
    if (!ZOTtracker::decodeBody(r, b, body)) return refused(messages, error);
    model.bodies.push_back(bodyOf(body));
  }
  return true;
}

bool decodeSetupArray(const double* array, int count, std::vector<CameraConfig>& cameras,
                      std::vector<double>& trackingParameters, ModelConfig& model,
                      std::string& error) {
  char messages[1024];
  auto setup = std::make_unique<ZOTtracker::SetupArray>();
  if (!ZOTtracker::decodeSetupArray(array, count, *setup, messages, sizeof(messages)))
    return refused(messages, error);
  cameras.clear();
  for (int c = 0; c < setup->nCameras; c++) cameras.push_back(cameraOf(setup->cameras[c]));
  trackingParameters.assign(setup->tracking,
                            setup->tracking + ZOTtracker::ZOT_SETUP_TRACKER_VALUES);
  model = ModelConfig();
  addLocalFrames(model, setup->nLocalFrames, setup->localFrames);
  for (int b = 0; b < setup->nBodies; b++) model.bodies.push_back(bodyOf(setup->bodies[b]));
  return true;
}

namespace {

// Parses a camera file (cameras given) or a model file (model given) into a
// setup array with FileParser, then decodes it; -10 or -12, the parser's
// code for the file, when the values do not decode.
int loadSection(const std::string& directory, const std::string& fileName,
                std::vector<CameraConfig>* cameras, ModelConfig* model, std::string& error) {
  std::vector<double> array(kSetupArrayCapacity);
  int count = 0, cursor = 0;
  ZOTtracker::FileParser parser;
  const char *dir = directory.c_str(), *file = fileName.c_str();
  const int rc = cameras != nullptr
                     ? parser.parseCameraFile(dir, file, count, array.data(), kSetupArrayCapacity)
                     : parser.parseModelFile(dir, file, count, array.data(), kSetupArrayCapacity);
  if (rc != 0) {
    error = std::string("cannot read the ") + (cameras != nullptr ? "camera" : "model") + " file " +
            directory + "/" + fileName;
    return rc;
  }
  if (cameras != nullptr ? decodeCameraSection(array.data(), count, cursor, *cameras, error)
                         : decodeModelSection(array.data(), count, cursor, *model, error))
    return 0;
  error = directory + "/" + fileName + ": " + error;
  return cameras != nullptr ? -10 : -12;
}

}  // namespace

int loadCameraFile(const std::string& directory, const std::string& fileName,
                   std::vector<CameraConfig>& cameras, std::string& error) {
  return loadSection(directory, fileName, &cameras, nullptr, error);
}

int loadModelFile(const std::string& directory, const std::string& fileName, ModelConfig& model,
                  std::string& error) {
  return loadSection(directory, fileName, nullptr, &model, error);
}

// ================================================================ strict check
namespace {

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// A configuration file walked the way FileParser walks it: item lines
// (before each, lines whose first character is '#' are skipped) and
// free-format tokens on one position, so that the check sees the very values
// the parser takes. Every failing call leaves "<path>:<line>: ..." in error.
class StrictFile {
 public:
  std::string error;

  bool open(const std::string& path) {
    m_path = path;
    std::ifstream in(path, std::ios::binary);
    if (!in) return fault("cannot open the file");
    std::stringstream text;
    text << in.rdbuf();
    m_text = text.str();
    return true;
  }
  bool fault(const std::string& what) {
    error = m_path + ":" + std::to_string(m_at) + ": " + what;
    return false;
  }
  // The next item line, without its line end.
  bool item(std::string& line) {
    do {
      if (m_pos >= m_text.size()) return fault("unexpected end of file");
      line = restOfLine();
    } while (line[0] == '#');
    return true;
  }
  // The next line that is neither blank nor a comment; false at the end.
  bool optionalItem(std::string& line) {
    while (m_pos < m_text.size()) {
      line = restOfLine();
      if (!emptyOrComment(line, 0)) return true;
    }
    return false;
  }
  // Reads and forgets one line.
  void skipLine() {
    if (m_pos < m_text.size()) restOfLine();
  }
  // The next blank-separated token; with comments, a token starting with
  // '#' drops the rest of its line.
  bool token(std::string& t, bool comments = false) {
    for (;;) {
      while (m_pos < m_text.size() && isBlank(m_text[m_pos])) m_line += m_text[m_pos++] == '\n';
      m_at = m_line;
      if (m_pos >= m_text.size()) return fault("unexpected end of file");
      const size_t start = m_pos;
      while (m_pos < m_text.size() && !isBlank(m_text[m_pos])) m_pos++;
      t = m_text.substr(start, m_pos - start);
      if (!comments || t[0] != '#') return true;
      restOfLine();
    }
  }
  // The rest of the current line holds nothing but blanks or a comment.
  bool restIsBlank() {
    const std::string rest = restOfLine();
    return emptyOrComment(rest, 0) || fault("unexpected \"" + rest + "\" after the values");
  }
  // Only blanks follow (body files), or only blank and comment lines.
  bool atEnd() {
    std::string t;
    return !token(t) || fault("unexpected \"" + t + "\" after the last value");
  }
  bool onlyCommentsLeft() {
    while (m_pos < m_text.size()) {
      const std::string line = restOfLine();
      if (!emptyOrComment(line, 0)) return fault("unexpected \"" + line + "\" after the last item");
    }
    return true;
  }
  // `t` scans completely as an int (first gets it) or a double.
  bool number(const std::string& t, bool isInt, long long* first, const std::string& line) {
    char* end = nullptr;
    errno = 0;
    const long long v = isInt ? strtoll(t.c_str(), &end, 10) : 0;
    if (!isInt) strtod(t.c_str(), &end);
    const std::string in = line.empty() ? "" : " in \"" + line + "\"";
    if (t.empty() || *end != '\0')
      return fault("\"" + t + "\" is not " + (isInt ? "an integer" : "a number") + in);
    if (isInt && (errno == ERANGE || v < INT_MIN || v > INT_MAX))
      return fault("\"" + t + "\" is outside the int range" + in);
    if (first != nullptr) *first = v;
    return true;
  }
  // n numbers at the start of line, then nothing but a comment.
  bool numbers(const std::string& line, int n, bool isInt, long long* first = nullptr) {
    std::istringstream in(line);
    std::string t;
    for (int i = 0; i < n; i++) {
      if (!(in >> t))
        return fault("expected " + std::to_string(n) + (n > 1 ? " values" : " value") + ", found " +
                     std::to_string(i) + " in \"" + line + "\"");
      if (!number(t, isInt, i == 0 ? first : nullptr, line)) return false;
    }
    in >> std::ws;
    return emptyOrComment(line, in.eof() ? line.size() : (size_t)in.tellg()) ||
           fault("unexpected text after " + std::to_string(n) + (n > 1 ? " values" : " value") +
                 " in \"" + line + "\"");
  }
  // `keyword` (unless null), then n number tokens.
  bool keyword(const char* keyword, int n, bool isInt, long long* first = nullptr) {
    std::string t;
    if (keyword != nullptr) {
      if (!token(t)) return false;
      if (t != keyword)
        return fault("expected \"" + std::string(keyword) + "\", found \"" + t + "\"");
    }
    for (int i = 0; i < n; i++) {
      if (!token(t) || !number(t, isInt, i == 0 ? first : nullptr, "")) return false;
    }
    return true;
  }

 private:
  static bool emptyOrComment(const std::string& text, size_t from) {
    while (from < text.size() && isBlank(text[from])) from++;
    return from == text.size() || text[from] == '#';
  }
  // Consumes the current line up to its end; returns it without the line end.
  std::string restOfLine() {
    m_at = m_line;
    const size_t end = std::min(m_text.find('\n', m_pos), m_text.size());
    std::string line = m_text.substr(m_pos, end - m_pos);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    m_pos = end + 1;
    m_line++;
    return line;
  }

  std::string m_path, m_text;
  size_t m_pos = 0;
  int m_line = 1;  // line of m_pos
  int m_at = 1;    // line of the last item or token, for the messages
};

bool strictBodyFile(StrictFile& f, bool polyhedron) {
  long long n = 0, k = 0;
  if (!f.keyword("nv", 1, true, &n)) return false;
  for (long long v = 0; v < n; v++)
    if (!f.keyword("v", 3, false)) return false;
  if (!f.keyword(polyhedron ? "nf" : "ne", 1, true, &n)) return false;
  for (long long i = 0; i < n; i++) {
    if (!polyhedron && !f.keyword("e", 2, true)) return false;
    if (polyhedron && (!f.keyword("f", 1, true, &k) || !f.keyword(nullptr, (int)k, true)))
      return false;
  }
  return f.atEnd();
}

bool strictCameraFile(StrictFile& f) {
  std::string line, t;
  long long nCameras = 0, n = 0;
  if (!f.item(line) || !f.numbers(line, 1, true, &nCameras)) return false;
  // width height, depths, intrinsics, distortion, calibration, mask count
  const int items[6][2] = {{2, 1}, {2, 0}, {5, 0}, {5, 0}, {12, 0}, {1, 1}};
  for (long long c = 0; c < nCameras; c++) {
    for (const auto& it : items)
      if (!f.item(line) || !f.numbers(line, it[0], it[1] != 0, &n)) return false;
    for (long long p = 0, nMasks = n; p < nMasks; p++) {
      if (!f.token(t, true) || !f.number(t, true, &n, "")) return false;
      if (!f.keyword(nullptr, (int)(2 * std::max(0LL, n)), false) || !f.restIsBlank()) return false;
    }
  }
  return f.onlyCommentsLeft();
}

bool strictTrackerFile(StrictFile& f) {
  // Values per item and whether they are integers, as FileParser reads them.
  const int items[16][2] = {{1, 1}, {1, 0}, {1, 1}, {1, 0}, {1, 1}, {2, 1}, {1, 0}, {1, 1},
                            {2, 0}, {2, 0}, {2, 0}, {1, 0}, {2, 0}, {2, 0}, {2, 0}, {1, 0}};
  std::string line;
  for (const auto& it : items)
    if (!f.item(line) || !f.numbers(line, it[0], it[1] != 0)) return false;
  // Then the optional extension items, one number per line.
  for (int n = 0; f.optionalItem(line); n++) {
    if (n == ZOTtracker::ZOT_EXTENSION_VALUES)
      return f.fault("more than " + std::to_string(n) + " extension items");
    if (!f.numbers(line, 1, false)) return false;
  }
  return true;
}

bool strictModelFile(StrictFile& f, const std::string& directory) {
  std::string line, name;
  long long n = 0;
  if (!f.item(line) || !f.numbers(line, 1, true, &n)) return false;
  for (long long i = 0; i < n; i++)
    if (!f.item(line) || !f.numbers(line, 12, false)) return false;
  if (!f.item(line) || !f.numbers(line, 1, true, &n)) return false;
  for (long long b = 0; b < n; b++) {
    if (!f.item(line)) return false;
    if (line[0] == 'P') {
      long long flat = 0;
      if (!f.item(line) || !f.numbers(line, 1, true, &flat)) return false;
      // The parser looks at the first character only.
      if ((flat != 0 && flat != 1) || line[0] != '0' + flat)
        return f.fault("the flat flag must be 0 or 1 at the start of the line: \"" + line + "\"");
      if (!f.item(line) || !f.numbers(line, 1, false) || !f.item(name)) return false;
      if (!checkBodyFileStrictly(joinPath(directory, name), true, f.error)) return false;
      f.skipLine();
    } else if (line[0] == 'L') {
      if (!f.item(line) || !f.numbers(line, 2, true) || !f.token(name)) return false;
      if (!checkBodyFileStrictly(joinPath(directory, name), false, f.error) || !f.restIsBlank())
        return false;
    } else if (line[0] == 'C') {
      if (!f.item(line) || !f.numbers(line, 1, false)) return false;
      for (int v = 0; v < 4; v++)
        if (!f.item(line) || !f.numbers(line, 3, false)) return false;
    } else {
      return f.fault("unknown body type in \"" + line + "\" (P, L or C)");
    }
  }
  return f.onlyCommentsLeft();
}

}  // namespace

bool checkConfigFilesStrictly(const std::string& directory, const std::string& cameraFile,
                              const std::string& trackerFile, const std::string& modelFile,
                              std::string& error) {
  StrictFile camera, tracker, model;
  const bool ok = camera.open(joinPath(directory, cameraFile)) && strictCameraFile(camera) &&
                  tracker.open(joinPath(directory, trackerFile)) && strictTrackerFile(tracker) &&
                  model.open(joinPath(directory, modelFile)) && strictModelFile(model, directory);
  error = camera.error + tracker.error + model.error;  // the one that failed
  return ok;
}

bool checkBodyFileStrictly(const std::string& path, bool polyhedron, std::string& error) {
  StrictFile f;
  const bool ok = f.open(path) && strictBodyFile(f, polyhedron);
  error = f.error;
  return ok;
}

bool writeCameraFile(const std::string& path, const std::vector<CameraConfig>& cameras,
                     const std::string& headerComment, std::string& error) {
  return writeCommentedFile(path, headerComment, error, [&cameras](FILE* f) {
    fprintf(f, "# number of cameras\n%d\n", (int)cameras.size());
    for (size_t i = 0; i < cameras.size(); i++) {
      const CameraConfig& c = cameras[i];
      fprintf(f, "# ---- cam %d ----\n# image width, height [pixels]\n%d %d\n", (int)i, c.width,
              c.height);
      fprintf(f, "# near and far clipping depth\n%.12g %.12g\n", c.zNear, c.zFar);
      fprintf(f, "# fx fy cx cy skew [pixels]\n%.12g %.12g %.12g %.12g %.12g\n", c.fx, c.fy, c.cx,
              c.cy, c.skew);
      fprintf(f, "# distortion k1 k2 p1 p2 k3\n%.12g %.12g %.12g %.12g %.12g\n", c.dist[0],
              c.dist[1], c.dist[2], c.dist[3], c.dist[4]);
      fprintf(f, "# camera pose in the tool frame: first three rows of the 4x4 transform\n");
      writeRows(f, c.toolFromCamera.data());
      fprintf(f, "# number of mask polygons\n%d\n", (int)c.masks.size());
      for (const std::vector<double>& m : c.masks) {
        fprintf(f, "%d", (int)m.size() / 2);
        for (size_t k = 0; k + 1 < m.size(); k += 2) fprintf(f, "  %.12g %.12g", m[k], m[k + 1]);
        fprintf(f, "\n");
      }
    }
  });
}

bool writeModelFile(const std::string& directory, const std::string& fileName,
                    const ModelConfig& model, std::string& error) {
  // The geometry files first, then the model file naming them.
  std::vector<std::string> bodyFiles;
  for (size_t b = 0; b < model.bodies.size(); b++) {
    const BodyConfig& body = model.bodies[b];
    bodyFiles.push_back(stemOf(fileName) + "_body" + std::to_string(b + 1) +
                        (body.type == 0 ? "_polyhedron.txt" : "_polyline.txt"));
    if (body.type == 2) continue;
    const std::string bodyPath = joinPath(directory, bodyFiles[b]);
    const bool ok = writeCommentedFile(bodyPath, "", error, [&body](FILE* g) {
      const std::vector<double>& v = body.mesh.vertices;
      fprintf(g, "nv %d\n", (int)v.size() / 3);
      for (size_t k = 0; k + 2 < v.size(); k += 3)
        fprintf(g, "v %.12g %.12g %.12g\n", v[k], v[k + 1], v[k + 2]);
      if (body.type == 0) {
        fprintf(g, "nf %d\n", (int)body.mesh.faceSizes.size());
        size_t start = 0;
        for (int size : body.mesh.faceSizes) {
          fprintf(g, "f %d", size);
          for (int j = 0; j < size; j++) fprintf(g, " %d", body.mesh.faceIndices[start++] + 1);
          fprintf(g, "\n");
        }
      } else {
        fprintf(g, "ne %d\n", (int)body.segments.size() / 2);
        for (size_t k = 0; k + 1 < body.segments.size(); k += 2)
          fprintf(g, "e %d %d\n", body.segments[k] + 1, body.segments[k + 1] + 1);
      }
    });
    if (!ok) return false;
  }
  return writeCommentedFile(joinPath(directory, fileName), "", error, [&](FILE* f) {
    fprintf(f, "# number of local frames\n%d\n", (int)model.localFrames.size());
    for (const Pose& T : model.localFrames) writeRows(f, T.data());
    fprintf(f, "# number of bodies\n%d\n", (int)model.bodies.size());
    for (size_t b = 0; b < model.bodies.size(); b++) {
      const BodyConfig& body = model.bodies[b];
      if (body.type == 0) {
        fprintf(f, "P body %d: polyhedron\n%d\n%.12g\n%s\n# (spare line after the file name)\n",
                (int)b + 1, body.flat ? 1 : 0, body.featureAngle, bodyFiles[b].c_str());
      } else if (body.type == 1) {
        fprintf(f, "L body %d: polyline\n%d %d\n%s\n", (int)b + 1, body.supportBody + 1,
                body.supportFace + 1, bodyFiles[b].c_str());
      } else {
        fprintf(f, "C body %d: cylinder\n%.12g\n", (int)b + 1, body.cylinder[0]);
        for (int k = 1; k < 13; k += 3)
          fprintf(f, "%.12g %.12g %.12g\n", body.cylinder[k], body.cylinder[k + 1],
                  body.cylinder[k + 2]);
      }
    }
  });
}

double modelSize(const ModelConfig& model, double* centre, double* diagonal) {
  std::vector<double> xyz;
  for (const BodyConfig& b : model.bodies) {
    const std::vector<double>& v = b.mesh.vertices;
    xyz.insert(xyz.end(), v.begin(), v.begin() + v.size() / 3 * 3);
  }
  double lo[3] = {0, 0, 0}, hi[3] = {0, 0, 0};
  for (int a = 0; a < 3 && !xyz.empty(); a++)
    cv::minMaxIdx(cv::Mat((int)xyz.size() / 3, 3, CV_64F, xyz.data()).col(a), &lo[a], &hi[a]);
  const double d[3] = {hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]};
  for (int a = 0; a < 3 && centre != nullptr; a++) centre[a] = 0.5 * (lo[a] + hi[a]);
  if (diagonal != nullptr) *diagonal = ZOTtracker::norm(d, 3);
  return std::max({d[0], d[1], d[2]});
}

// ================================================================ sequence files
bool parsePose(const std::string& text, Pose& pose, std::string& error) {
  std::vector<double> v;
  if (!numbersOfLine(text, v)) {
    error = "not a list of numbers: \"" + text + "\"";
    return false;
  }
  for (double x : v) {
    if (!std::isfinite(x)) {
      error = "pose with a non-finite number";
      return false;
    }
  }
  if (v.size() == 16 || v.size() == 12) {
    Pose T = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    std::copy(v.begin(), v.end(), T.begin());
    if (v.size() == 16 && (T[12] != 0.0 || T[13] != 0.0 || T[14] != 0.0 || T[15] != 1.0)) {
      error = "the last row of a pose must be 0 0 0 1";
      return false;
    }
    // A rotation that is far from orthonormal is a unit or layout mistake.
    double R[9], t[3], Rt[9], RtR[9];
    ZOTtracker::rotTranslFromT(T.data(), R, t);
    ZOTtracker::matrixTranspose33(R, Rt);
    ZOTtracker::matrixProduct333(Rt, R, RtR);
    for (int k = 0; k < 9; k++) {
      if (std::fabs(RtR[k] - (k % 4 == 0 ? 1.0 : 0.0)) > 1e-3) {
        error = "the rotation part of the pose is not orthonormal";
        return false;
      }
    }
    pose = T;
    return true;
  }
  if (v.size() == 6) {
    // translation, then rotation vector in degrees
    const double aa[6] = {v[3], v[4], v[5], v[0], v[1], v[2]};
    double T[16];
    ZOTtracker::TfromAngleAxis(aa, T);
    // Its length overflows for rotation vectors near the largest double.
    if (!std::all_of(T, T + 16, [](double x) { return std::isfinite(x); })) {
      error = "the rotation vector is too long to make a rotation";
      return false;
    }
    std::copy(T, T + 16, pose.begin());
    return true;
  }
  error = "a pose needs 16, 12 or 6 numbers, found " + std::to_string(v.size());
  return false;
}

bool readPoseFile(const std::string& path, std::vector<Pose>& poses, std::string& error) {
  poses.clear();
  return forEachItemLine(path, error, [&poses](const std::string& line, std::string& err) {
    Pose T;
    if (!parsePose(line, T, err)) return false;
    poses.push_back(T);
    return true;
  });
}

bool writePoseFile(const std::string& path, const std::vector<Pose>& poses,
                   const std::string& comment, std::string& error) {
  return writeCommentedFile(path, comment, error, [&poses](FILE* f) {
    for (const Pose& T : poses)
      for (int k = 0; k < 16; k++) fprintf(f, "%.17g%s", T[k], k < 15 ? " " : "\n");
  });
}

bool readNumberFile(const std::string& path, std::vector<double>& values, std::string& error) {
  values.clear();
  std::vector<double> v;
  return forEachItemLine(path, error, [&](const std::string& line, std::string& err) {
    if (!numbersOfLine(line, v) || v.size() != 1 || !std::isfinite(v[0])) {
      err = "expected one number per line";
      return false;
    }
    values.push_back(v[0]);
    return true;
  });
}

bool writeNumberFile(const std::string& path, const std::vector<double>& values,
                     const std::string& comment, std::string& error) {
  return writeCommentedFile(path, comment, error, [&values](FILE* f) {
    for (double v : values) fprintf(f, "%.17g\n", v);
  });
}

bool readSetupHeader(const std::string& path, std::vector<double>& values, std::string& error) {
  std::ifstream in(path);
  if (!in) {
    error = "cannot open " + path;
    return false;
  }
  const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  const char* const counterKey = "setup_global_array_counter =";
  const size_t key = text.find(counterKey);
  const size_t open = text.find('{');
  const size_t close = text.find('}', open == std::string::npos ? 0 : open);
  if (key == std::string::npos || open == std::string::npos || close == std::string::npos) {
    error = path + ": not a setup-array header (no counter or no braces)";
    return false;
  }
  const long count = std::strtol(text.c_str() + key + strlen(counterKey), nullptr, 10);
  if (!numbersOfLine(text.substr(open + 1, close - open - 1), values)) {
    error = path + ": unexpected text in the value list";
    return false;
  }
  if ((long)values.size() != count || count <= 0) {
    error = path + ": " + std::to_string(values.size()) + " values, but the counter says " +
            std::to_string(count);
    return false;
  }
  return true;
}

// ================================================================ pose errors
void poseError(const double* estimate, const double* reference, double* translationError,
               double* rotationErrorDeg) {
  const double dx = estimate[3] - reference[3], dy = estimate[7] - reference[7],
               dz = estimate[11] - reference[11];
  *translationError = std::sqrt(dx * dx + dy * dy + dz * dz);
  // trace(R_e^T R_r) = sum of the element-wise products
  using ZOTtracker::dotProd3;
  const double trace = dotProd3(estimate, reference) + dotProd3(estimate + 4, reference + 4) +
                       dotProd3(estimate + 8, reference + 8);
  const double c = std::max(-1.0, std::min(1.0, 0.5 * (trace - 1.0)));
  *rotationErrorDeg = std::acos(c) * 57.29577951308232;
}

double quantile(std::vector<double>& values, double q) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  const double position = std::min(1.0, std::max(0.0, q)) * (values.size() - 1);
  const size_t below = (size_t)position;
  const size_t above = std::min(values.size() - 1, below + 1);
  return values[below] + (position - below) * (values[above] - values[below]);
}

bool pathExists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

}  // namespace zot_sim
