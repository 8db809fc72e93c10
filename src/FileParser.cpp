// Configuration text files into the setup array, and the setup array out as a
// compilable header.
#include "FileParser.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "IO.h"
#include "SetupArray.h"

namespace ZOTtracker {

namespace {

// Line buffer of the item-per-line files; also the longest joined path.
constexpr int LINE_SIZE = 200;
constexpr int MAX_LOCAL_FRAMES = 100;
// Capacity used by the overloads that leave the bound to the caller.
constexpr int UNBOUNDED = INT_MAX;

// Appends at the running index and refuses to write at or past `capacity`.
struct ArrayWriter {
  double* array;
  int& count;
  int capacity;

  bool put(double value) {
    if (count >= capacity) {
      printf("ERROR: setup array full (capacity %d values)\n", capacity);
      return false;
    }
    array[count++] = value;
    return true;
  }
  bool put(const double* values, int n) {
    for (int i = 0; i < n; i++) {
      if (!put(values[i])) return false;
    }
    return true;
  }
};

bool validArray(const double* array, int count, int capacity) {
  if (array == nullptr || count < 0 || capacity < 0) {
    printf("ERROR: invalid setup array\n");
    return false;
  }
  return true;
}

// Joins directory and name as "%s/%s" into `path` (LINE_SIZE bytes) and
// opens the file for reading. Prints the message and returns null on failure.
FILE* openJoined(const char* directory, const char* name, char* path) {
  FILE* file = nullptr;
  if (directory != nullptr && name != nullptr) {
    const int n = snprintf(path, LINE_SIZE, "%s/%s", directory, name);
    if (n >= 0 && n < LINE_SIZE) file = fopen(path, "rt");
  }
  if (file == nullptr) printf("ERROR: invalid filename\n");
  return file;
}

FILE* openPath(const char* path) {
  FILE* file = path != nullptr ? fopen(path, "rt") : nullptr;
  if (file == nullptr) printf("ERROR: invalid filename\n");
  return file;
}

void reportEndOfFile(const char* path) { printf("ERROR: unexpected end of file %s\n", path); }

// Throws away the rest of the current line (after free-format tokens).
void discardRestOfLine(FILE* file) {
  int c = fgetc(file);
  while (c != '\n' && c != EOF) c = fgetc(file);
}

// True when a free-format scan came up short because the file ended (or
// could not be read); a short scan for a non-number is left undetected.
bool endedEarly(FILE* file, int scanned, int expected) {
  return scanned < expected && (feof(file) || ferror(file));
}

// Reads the next token and checks that it is `keyword`; prints `message`
// otherwise (also at the end of the file, where no token is left).
bool expectKeyword(FILE* file, const char* keyword, const char* message) {
  char token[LINE_SIZE];
  token[0] = '\0';
  if (fscanf(file, "%199s", token) != 1 || strcmp(token, keyword) != 0) {
    printf("%s\n", message);
    return false;
  }
  return true;
}

// Free-format numbers after a keyword. A number that does not scan keeps the
// variable's previous value; the end of the file is reported.
bool scanInts(FILE* file, const char* path, int* values, int n) {
  for (int i = 0; i < n; i++) {
    if (endedEarly(file, fscanf(file, "%d", &values[i]), 1)) {
      reportEndOfFile(path);
      return false;
    }
  }
  return true;
}

bool scanDoubles(FILE* file, const char* path, double* values, int n) {
  for (int i = 0; i < n; i++) {
    if (endedEarly(file, fscanf(file, "%lf", &values[i]), 1)) {
      reportEndOfFile(path);
      return false;
    }
  }
  return true;
}

// Reads the item lines of the camera, tracker and model files.
class LineReader {
 public:
  LineReader(FILE* file, const char* path) : m_file(file), m_path(path) { m_line[0] = '\0'; }

  // Next line whose first character is not '#', into m_line. False, after a
  // message, at the end of the file or for a line that does not fit.
  bool nextItem() {
    for (;;) {
      const int r = readLine();
      if (r == 0) {
        reportEndOfFile(m_path);
        return false;
      }
      if (m_line[0] == '#') continue;
      if (r < 0) {
        printf("ERROR: line longer than %d characters in %s\n", LINE_SIZE - 1, m_path);
        return false;
      }
      return true;
    }
  }

  // Next line that is neither a comment nor blank, into m_line; false at the
  // end of the file (no fault here) or, after a message, for a line too long.
  bool nextOptionalItem(bool& failed) {
    failed = false;
    for (;;) {
      const int r = readLine();
      if (r == 0) return false;
      if (r < 0) {
        printf("ERROR: line longer than %d characters in %s\n", LINE_SIZE - 1, m_path);
        failed = true;
        return false;
      }
      const char* p = m_line;
      while (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n') p++;
      if (*p != '#' && *p != '\0') return true;
    }
  }

  // Reads and forgets one line, whatever it holds; the end of the file is
  // no fault here.
  void skipLine() { readLine(); }

  char m_line[LINE_SIZE];

 private:
  // 1 for a whole line, 0 at the end of the file, -1 for a line too long for
  // the buffer (its remainder is consumed so that it counts as one line).
  int readLine() {
    if (fgets(m_line, LINE_SIZE, m_file) == nullptr) return 0;
    const size_t len = strlen(m_line);
    if (len == (size_t)(LINE_SIZE - 1) && m_line[len - 1] != '\n') {
      int c = fgetc(m_file);
      if (c == '\n' || c == EOF) return 1;
      while (c != '\n' && c != EOF) c = fgetc(m_file);
      return -1;
    }
    return 1;
  }

  FILE* m_file;
  const char* m_path;
};

// ---------------------------------------------------------------- camera file
// A mask polygon: vertex count token ('#' tokens comment out the rest of
// their line), then count pairs u v in free format, then the rest of the line.
int readMaskPolygon(FILE* file, const char* path, int& nVertices, double* uv, ArrayWriter& out) {
  const int code = ZOT_ERR_CAMERA_PARSER;
  char token[LINE_SIZE];
  for (;;) {
    token[0] = '\0';
    if (fscanf(file, "%199s", token) != 1) {
      reportEndOfFile(path);
      return code;
    }
    if (token[0] != '#') break;
    discardRestOfLine(file);
  }
  sscanf(token, "%d", &nVertices);
  if (!out.put(nVertices)) return code;
  for (int i = 0; i < nVertices; i++) {
    if (!scanDoubles(file, path, uv, 2) || !out.put(uv, 2)) return code;
  }
  discardRestOfLine(file);
  return 0;
}

int readCameraFile(FILE* file, const char* path, ArrayWriter& out) {
  const int code = ZOT_ERR_CAMERA_PARSER;
  LineReader in(file, path);
  const char* line = in.m_line;
  // Scan variables keep their last value: a number that does not scan
  // repeats it instead of shifting the array.
  int nCameras = 0, width = 0, height = 0, nMasks = 0, nVertices = 0;
  double depths[2] = {0.0, 0.0};
  double intrinsics[5] = {0.0, 0.0, 0.0, 0.0, 0.0};
  double distortion[5] = {0.0, 0.0, 0.0, 0.0, 0.0};
  double calib[12] = {0.0};
  double uv[2] = {0.0, 0.0};

  if (!in.nextItem()) return code;
  sscanf(line, "%d", &nCameras);
  if (!out.put(nCameras)) return code;
  for (int cam = 0; cam < nCameras; cam++) {
    if (!in.nextItem()) return code;
    sscanf(line, "%d %d", &width, &height);
    if (!out.put(width) || !out.put(height)) return code;

    if (!in.nextItem()) return code;
    sscanf(line, "%lf %lf", &depths[0], &depths[1]);
    if (!out.put(depths, 2)) return code;

    if (!in.nextItem()) return code;
    sscanf(line, "%lf %lf %lf %lf %lf", &intrinsics[0], &intrinsics[1], &intrinsics[2],
           &intrinsics[3], &intrinsics[4]);
    if (!out.put(intrinsics, 5)) return code;

    if (!in.nextItem()) return code;
    sscanf(line, "%lf %lf %lf %lf %lf", &distortion[0], &distortion[1], &distortion[2],
           &distortion[3], &distortion[4]);
    if (!out.put(distortion, 5)) return code;

    if (!in.nextItem()) return code;
    sscanf(line, "%lf %lf %lf %lf %lf %lf %lf %lf %lf %lf %lf %lf", &calib[0], &calib[1], &calib[2],
           &calib[3], &calib[4], &calib[5], &calib[6], &calib[7], &calib[8], &calib[9], &calib[10],
           &calib[11]);
    printf(" tcp-to-camera calibration \n");
    for (int i = 0; i < 12; i++) printf("%g ", calib[i]);
    printf("\n");
    if (!out.put(calib, 12)) return code;

    if (!in.nextItem()) return code;
    sscanf(line, "%d", &nMasks);
    if (!out.put(nMasks)) return code;
    for (int p = 0; p < nMasks; p++) {
      const int rc = readMaskPolygon(file, path, nVertices, uv, out);
      if (rc != 0) return rc;
    }
  }
  return 0;
}

// ---------------------------------------------------------------- tracker file
// The sixteen lines of the tracker file and the tracking parameters on each.
struct TrackerItem {
  const char* format;
  int nValues;
  bool isInt;
};
const TrackerItem TRACKER_ITEMS[16] = {
    {"%d", 1, true},        // max. sample points per camera
    {"%lf", 1, false},      // facing tolerance
    {"%d", 1, true},        // sampling step
    {"%lf", 1, false},      // min. edge length
    {"%d", 1, true},        // search range
    {"%d %d", 2, true},     // Canny low, high threshold
    {"%lf", 1, false},      // max. angle
    {"%d", 1, true},        // max. iterations
    {"%lf %lf", 2, false},  // convergence rotation, translation
    {"%lf %lf", 2, false},  // max. absolute rotation, translation
    {"%lf %lf", 2, false},  // min. inliers in the loop, final
    {"%lf", 1, false},      // max. final cost
    {"%lf %lf", 2, false},  // resampling rotation, translation
    {"%lf %lf", 2, false},  // Kalman process noise rotation, translation
    {"%lf %lf", 2, false},  // measurement std. dev. rotation, translation
    {"%lf", 1, false},      // Kalman initial covariance
};

int readTrackerFile(FILE* file, const char* path, ArrayWriter& out, double* extensions,
                    int& nExtensions) {
  const int code = ZOT_ERR_TRACKER_PARSER;
  LineReader in(file, path);
  int intValues[2] = {0, 0};
  double values[2] = {0.0, 0.0};
  for (const TrackerItem& item : TRACKER_ITEMS) {
    if (!in.nextItem()) return code;
    if (item.isInt) {
      sscanf(in.m_line, item.format, &intValues[0], &intValues[1]);
      for (int i = 0; i < item.nValues; i++) {
        if (!out.put(intValues[i])) return code;
      }
    } else {
      sscanf(in.m_line, item.format, &values[0], &values[1]);
      if (!out.put(values, item.nValues)) return code;
    }
  }
  // Optional extension items, one number per line; they travel in the
  // extension block at the end of the array (appendExtensionBlock).
  nExtensions = 0;
  bool failed = false;
  while (in.nextOptionalItem(failed)) {
    if (nExtensions == ZOT_EXTENSION_VALUES) {
      printf("ERROR: %s: more than %d extension items\n", path, ZOT_EXTENSION_VALUES);
      return code;
    }
    char* end = nullptr;
    const double v = strtod(in.m_line, &end);
    if (end == in.m_line) {
      printf("ERROR: %s: extension item %d is not a number: %s", path, nExtensions + 1, in.m_line);
      return code;
    }
    extensions[nExtensions++] = v;
  }
  return failed ? code : 0;
}

// ---------------------------------------------------------------- body files
// "nv" and the vertex count, then per vertex "v" x y z: the common head of
// polyhedron and polyline files.
bool readVertices(FILE* file, const char* path, ArrayWriter& out) {
  int nVertices = 0;
  double xyz[3] = {0.0, 0.0, 0.0};
  if (!expectKeyword(file, "nv", "ERROR: n. of vertices not given!")) return false;
  if (!scanInts(file, path, &nVertices, 1) || !out.put(nVertices)) return false;
  for (int i = 0; i < nVertices; i++) {
    if (!expectKeyword(file, "v", "ERROR: vertices not given!")) return false;
    if (!scanDoubles(file, path, xyz, 3) || !out.put(xyz, 3)) return false;
  }
  return true;
}

int readPolyhedronFile(FILE* file, const char* path, ArrayWriter& out) {
  const int code = ZOT_ERR_POLYHEDRON_PARSER;
  int nFaces = 0, nFaceVertices = 0, index = 0;
  if (!readVertices(file, path, out)) return code;
  if (!expectKeyword(file, "nf", "ERROR: n. of faces not given!")) return code;
  if (!scanInts(file, path, &nFaces, 1) || !out.put(nFaces)) return code;
  for (int f = 0; f < nFaces; f++) {
    if (!expectKeyword(file, "f", "ERROR: polygons not given!")) return code;
    if (!scanInts(file, path, &nFaceVertices, 1) || !out.put(nFaceVertices)) return code;
    for (int j = 0; j < nFaceVertices; j++) {
      if (!scanInts(file, path, &index, 1) || !out.put(index)) return code;
    }
  }
  return 0;
}

int readPolylineFile(FILE* file, const char* path, ArrayWriter& out) {
  const int code = ZOT_ERR_POLYLINE_PARSER;
  int nEdges = 0;
  int ends[2] = {0, 0};
  if (!readVertices(file, path, out)) return code;
  if (!expectKeyword(file, "ne", "ERROR: n. of edges not given!")) return code;
  if (!scanInts(file, path, &nEdges, 1) || !out.put(nEdges)) return code;
  for (int e = 0; e < nEdges; e++) {
    if (!expectKeyword(file, "e", "ERROR: edges not given!")) return code;
    if (!scanInts(file, path, ends, 2) || !out.put(ends[0]) || !out.put(ends[1])) return code;
  }
  return 0;
}

// ---------------------------------------------------------------- model file
int readModelFile(FILE* file, const char* path, const char* directory, ArrayWriter& out) {
  const int code = ZOT_ERR_MODEL_PARSER;
  LineReader in(file, path);
  const char* line = in.m_line;
  char bodyPath[LINE_SIZE];
  char name[LINE_SIZE];
  int nFrames = 0, nBodies = 0;
  int support[2] = {0, 0};
  double frame[12] = {0.0};
  double value = 0.0;
  double vec[3] = {0.0, 0.0, 0.0};

  if (!in.nextItem()) return code;
  sscanf(line, "%d", &nFrames);
  if (nFrames > MAX_LOCAL_FRAMES) {
    printf("ERROR: too many local frames\n");
    return code;
  }
  if (!out.put(nFrames)) return code;
  for (int i = 0; i < nFrames; i++) {
    if (!in.nextItem()) return code;
    sscanf(line, "%lf %lf %lf %lf %lf %lf %lf %lf %lf %lf %lf %lf", &frame[0], &frame[1], &frame[2],
           &frame[3], &frame[4], &frame[5], &frame[6], &frame[7], &frame[8], &frame[9], &frame[10],
           &frame[11]);
    if (!out.put(frame, 12)) return code;
  }

  if (!in.nextItem()) return code;
  sscanf(line, "%d", &nBodies);
  if (nBodies <= 0) {
    printf("ERROR: no bodies given\n");
    return code;
  }
  if (!out.put(nBodies)) return code;

  for (int b = 0; b < nBodies; b++) {
    if (!in.nextItem()) return code;
    const char type = line[0];
    if (type == 'P') {
      if (!out.put(0.0)) return code;
      if (!in.nextItem()) return code;
      if (!out.put(line[0] == '1' ? 1.0 : 0.0)) return code;
      if (!in.nextItem()) return code;
      sscanf(line, "%lf", &value);
      if (!out.put(value)) return code;
      // The file name is the whole line, blanks included.
      if (!in.nextItem()) return code;
      size_t len = strlen(line);
      while (len > 0 && (line[len - 1] == '\n' || line[len - 1] == '\r')) len--;
      memcpy(name, line, len);
      name[len] = '\0';
      FILE* body = openJoined(directory, name, bodyPath);
      if (body == nullptr) return ZOT_ERR_POLYHEDRON_PARSER;
      const int rc = readPolyhedronFile(body, bodyPath, out);
      fclose(body);
      if (rc != 0) return rc;
      // The spare line that follows every polyhedron body.
      in.skipLine();
    } else if (type == 'L') {
      if (!out.put(1.0)) return code;
      if (!in.nextItem()) return code;
      sscanf(line, "%d %d", &support[0], &support[1]);
      if (!out.put(support[0]) || !out.put(support[1])) return code;
      // The file name is one blank-free token; the rest of its line is dropped.
      if (fscanf(file, "%199s", name) != 1) {
        reportEndOfFile(path);
        return code;
      }
      FILE* body = openJoined(directory, name, bodyPath);
      if (body == nullptr) return ZOT_ERR_POLYLINE_PARSER;
      const int rc = readPolylineFile(body, bodyPath, out);
      fclose(body);
      if (rc != 0) return rc;
      discardRestOfLine(file);
    } else if (type == 'C') {
      if (!out.put(2.0)) return code;
      if (!in.nextItem()) return code;
      sscanf(line, "%lf", &value);
      if (!out.put(value)) return code;
      for (int v = 0; v < 4; v++) {
        if (!in.nextItem()) return code;
        sscanf(line, "%lf %lf %lf", &vec[0], &vec[1], &vec[2]);
        if (!out.put(vec, 3)) return code;
      }
    } else {
      printf("ERROR: unrecognized body type\n");
      return code;
    }
  }
  return 0;
}

}  // namespace

static_assert(FileParser::kExtensionCapacity == ZOT_EXTENSION_VALUES,
              "the parser keeps every extension item");

// ---------------------------------------------------------------- whole configuration
int FileParser::parseAllFiles(const char* directory, const char* cameraFile,
                              const char* trackerFile, const char* modelFile, int& count,
                              double* array) {
  return parseAllFiles(directory, cameraFile, trackerFile, modelFile, count, array, UNBOUNDED);
}

int FileParser::parseAllFiles(const char* directory, const char* cameraFile,
                              const char* trackerFile, const char* modelFile, int& count,
                              double* array, int capacity) {
  count = 0;
  int rc = parseCameraFile(directory, cameraFile, count, array, capacity);
  if (rc != 0) return rc;
  rc = parseTrackerFile(directory, trackerFile, count, array, capacity);
  if (rc != 0) return rc;
  rc = parseModelFile(directory, modelFile, count, array, capacity);
  if (rc != 0) return rc;
  return appendExtensionBlock(count, array, capacity);
}

int FileParser::appendExtensionBlock(int& count, double* array, int capacity) {
  if (m_nExtensions < 0) return 0;
  if (!validArray(array, count, capacity)) return ZOT_ERR_TRACKER_PARSER;
  ArrayWriter out{array, count, capacity};
  const double head[3] = {ZOT_EXTENSION_MARKER, (double)ZOT_EXTENSION_VERSION,
                          (double)m_nExtensions};
  if (!out.put(head, 3) || !out.put(m_extensions, m_nExtensions)) return ZOT_ERR_TRACKER_PARSER;
  return 0;
}

// ---------------------------------------------------------------- single files
int FileParser::parseCameraFile(const char* directory, const char* fileName, int& count,
                                double* array) {
  return parseCameraFile(directory, fileName, count, array, UNBOUNDED);
}

int FileParser::parseCameraFile(const char* directory, const char* fileName, int& count,
                                double* array, int capacity) {
  if (!validArray(array, count, capacity)) return ZOT_ERR_CAMERA_PARSER;
  char path[LINE_SIZE];
  FILE* file = openJoined(directory, fileName, path);
  if (file == nullptr) return ZOT_ERR_CAMERA_PARSER;
  ArrayWriter out{array, count, capacity};
  const int rc = readCameraFile(file, path, out);
  fclose(file);
  return rc;
}

int FileParser::parseTrackerFile(const char* directory, const char* fileName, int& count,
                                 double* array) {
  return parseTrackerFile(directory, fileName, count, array, UNBOUNDED);
}

int FileParser::parseTrackerFile(const char* directory, const char* fileName, int& count,
                                 double* array, int capacity) {
  if (!validArray(array, count, capacity)) return ZOT_ERR_TRACKER_PARSER;
  char path[LINE_SIZE];
  FILE* file = openJoined(directory, fileName, path);
  if (file == nullptr) return ZOT_ERR_TRACKER_PARSER;
  ArrayWriter out{array, count, capacity};
  const int rc = readTrackerFile(file, path, out, m_extensions, m_nExtensions);
  if (rc != 0 || m_nExtensions == 0) m_nExtensions = -1;
  fclose(file);
  return rc;
}

int FileParser::parseModelFile(const char* directory, const char* fileName, int& count,
                               double* array) {
  return parseModelFile(directory, fileName, count, array, UNBOUNDED);
}

int FileParser::parseModelFile(const char* directory, const char* fileName, int& count,
                               double* array, int capacity) {
  if (!validArray(array, count, capacity)) return ZOT_ERR_MODEL_PARSER;
  char path[LINE_SIZE];
  FILE* file = openJoined(directory, fileName, path);
  if (file == nullptr) return ZOT_ERR_MODEL_PARSER;
  ArrayWriter out{array, count, capacity};
  const int rc = readModelFile(file, path, directory, out);
  fclose(file);
  return rc;
}

// ---------------------------------------------------------------- body geometry files
int FileParser::parsePolyhedron(const char* path, int& count, double* array) {
  return parsePolyhedron(path, count, array, UNBOUNDED);
}

int FileParser::parsePolyhedron(const char* path, int& count, double* array, int capacity) {
  if (!validArray(array, count, capacity)) return ZOT_ERR_POLYHEDRON_PARSER;
  FILE* file = openPath(path);
  if (file == nullptr) return ZOT_ERR_POLYHEDRON_PARSER;
  ArrayWriter out{array, count, capacity};
  const int rc = readPolyhedronFile(file, path, out);
  fclose(file);
  return rc;
}

int FileParser::parsePolyline(const char* path, int& count, double* array) {
  return parsePolyline(path, count, array, UNBOUNDED);
}

int FileParser::parsePolyline(const char* path, int& count, double* array, int capacity) {
  if (!validArray(array, count, capacity)) return ZOT_ERR_POLYLINE_PARSER;
  FILE* file = openPath(path);
  if (file == nullptr) return ZOT_ERR_POLYLINE_PARSER;
  ArrayWriter out{array, count, capacity};
  const int rc = readPolylineFile(file, path, out);
  fclose(file);
  return rc;
}

// ---------------------------------------------------------------- header export
void FileParser::createGlobalArrayHeaderFile(const char* directory, int count,
                                             const double* array) {
  if (directory == nullptr || count <= 0 || array == nullptr) {
    printf("ERROR: no setup array to write to global_array_declaration.h\n");
    return;
  }
  const std::string path = std::string(directory) + "/global_array_declaration.h";
  FILE* file = fopen(path.c_str(), "wt");
  if (file == nullptr) {
    printf("ERROR: cannot open %s for writing\n", path.c_str());
    return;
  }
  fprintf(file, "const int setup_global_array_counter = %d;\n", count);
  fprintf(file, "const double setup_global_array[setup_global_array_counter] = {");
  // count / 1000 + 1 values per line keeps the header at 1000 lines at most.
  const int perLine = count / 1000 + 1;
  for (int i = 0; i < count; i++) {
    fprintf(file, " %f", array[i]);
    if (i < count - 1) {
      fputc(',', file);
      if ((i + 1) % perLine == 0) fputc('\n', file);
    }
  }
  fprintf(file, " };\n");
  const bool failed = ferror(file) != 0;
  if (fclose(file) != 0 || failed) printf("ERROR: could not write %s\n", path.c_str());
}

}  // namespace ZOTtracker
