// The setup array's layout: checked reading, decoding into plain structures
// and encoding back.
#include "SetupArray.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "Math.h"

namespace ZOTtracker {

namespace {

// Fewest values one camera takes: size, depths, intrinsics, distortion,
// calibration and its mask polygon count.
constexpr int kMinValuesPerCamera = 2 + 2 + 5 + 5 + 12 + 1;
constexpr int kLocalFrameValues = 12;
constexpr int kCylinderValues = 1 + 4 * 3;
// Geometry counts are bounded by what the array holds, checked separately.
constexpr int kNoLimit = 2147483647;

}  // namespace

// ================================================================ reader

SetupArrayReader::SetupArrayReader(const double* array, int count, int& cursor)
    : m_array(array), m_count(count), m_cursor(cursor), m_messages(nullptr), m_messagesSize(0) {}

void SetupArrayReader::keepMessagesIn(char* buffer, int size) {
  m_messages = size > 0 ? buffer : nullptr;
  m_messagesSize = size;
  if (m_messages != nullptr) m_messages[0] = '\0';
}

void SetupArrayReader::report(const char* format, ...) {
  va_list args;
  va_start(args, format);
  if (m_messages == nullptr) {
    vprintf(format, args);
  } else {
    const size_t used = strlen(m_messages);
    if (used + 1 < (size_t)m_messagesSize)
      vsnprintf(m_messages + used, m_messagesSize - used, format, args);
  }
  va_end(args);
}

bool SetupArrayReader::available(long long n, const char* what) {
  const int cursor = m_cursor, count = m_count;
  if (cursor >= 0 && n >= 0 && (long long)cursor + n <= (long long)count) return true;
  if (n == 1)
    report("ERROR: setup array too short (%s): value %d needed, it holds %d\n", what, cursor,
           count);
  else
    report("ERROR: setup array too short (%s): values %d to %lld needed, it holds %d\n", what,
           cursor, (long long)cursor + n - 1, count);
  report("ERROR: total numbers read %lld should be: %d\n", (long long)cursor + n, count);
  return false;
}

bool SetupArrayReader::readInt(const char* what, int& value) {
  if (!available(1, what)) return false;
  const double v = m_array[m_cursor];
  // Converting NaN, infinities or values outside int would be undefined.
  if (!(v > -2147483649.0 && v < 2147483648.0)) {
    report("ERROR: setup array value %d (%s) is not an integer: %g\n", m_cursor, what, v);
    return false;
  }
  value = (int)v;
  m_cursor++;
  return true;
}

bool SetupArrayReader::readCount(const char* what, int most, int& value) {
  if (!readInt(what, value)) return false;
  if (value < 0) value = 0;
  if (value > most) {
    report("ERROR: setup array value %d: %d %s, at most %d are supported\n", m_cursor - 1, value,
           what, most);
    return false;
  }
  return true;
}

bool SetupArrayReader::readIndex(const char* what, int& value) {
  if (!readInt(what, value)) return false;
  // The smallest int has no 0-based form.
  if (value == -2147483647 - 1) {
    report("ERROR: setup array value %d (%s) is not an index: %d\n", m_cursor - 1, what, value);
    return false;
  }
  value = value - 1;
  return true;
}

void SetupArrayReader::readTransform(double* T) {
  matrixIdentity(T, 4);
  for (int i = 0; i < 12; i++) T[i] = next();
}

// ================================================================ sections

namespace {

// A count of what the tracker cannot work without; `count` is the value
// just read (a negative count has already read as 0).
bool atLeastOne(SetupArrayReader& r, int count, const char* what) {
  if (count >= 1) return true;
  r.report("ERROR: setup array value %d: %g %s, at least 1 is needed\n", r.cursor() - 1,
           r.values()[r.cursor() - 1], what);
  return false;
}

bool finite(double v) { return std::isfinite(v); }

// The values of a camera that the projection, the frustum, the undistortion
// and the pose inversion rely on.
bool checkCamera(SetupArrayReader& r, int index, const SetupCamera& c) {
  const char* const intrinsic[5] = {"fx", "fy", "cx", "cy", "skew"};
  const double intrinsics[5] = {c.fx, c.fy, c.cx, c.cy, c.skew};
  for (int i = 0; i < 5; i++) {
    const bool positive = i < 2;  // the focal lengths divide and orient the image
    if (finite(intrinsics[i]) && (!positive || intrinsics[i] > 0.0)) continue;
    r.report("ERROR: camera %d: %s is %g, must be finite%s\n", index, intrinsic[i], intrinsics[i],
             positive ? " and > 0" : "");
    return false;
  }
  if (!(finite(c.zNear) && c.zNear > 0.0)) {
    r.report("ERROR: camera %d: near depth is %g, must be finite and > 0\n", index, c.zNear);
    return false;
  }
  if (!(finite(c.zFar) && c.zFar > c.zNear)) {
    r.report("ERROR: camera %d: far depth is %g, must be finite and > the near depth %g\n", index,
             c.zFar, c.zNear);
    return false;
  }
  const char* const coefficient[5] = {"k1", "k2", "p1", "p2", "k3"};
  for (int i = 0; i < 5; i++) {
    if (!finite(c.dist[i])) {
      r.report("ERROR: camera %d: distortion %s is %g, must be finite\n", index, coefficient[i],
               c.dist[i]);
      return false;
    }
  }
  const double* T = c.toolFromCamera;
  for (int i = 0; i < 12; i++) {
    if (!finite(T[i])) {
      r.report("ERROR: camera %d: pose value %d (row %d, column %d) is %g, must be finite\n", index,
               i + 1, i / 4 + 1, i % 4 + 1, T[i]);
      return false;
    }
  }
  double deviation = 0.0;  // largest entry of |R^T R - I|
  for (int i = 0; i < 3; i++) {
    for (int j = 0; j < 3; j++) {
      const double d = T[i] * T[j] + T[4 + i] * T[4 + j] + T[8 + i] * T[8 + j];
      deviation = std::fmax(deviation, std::fabs(d - (i == j ? 1.0 : 0.0)));
    }
  }
  double rows12[3];
  crossProd(T + 4, T + 8, rows12);
  const double det = dotProd3(T, rows12);
  if (!(deviation <= ZOT_SETUP_ROTATION_TOLERANCE) || !(det > 0.0)) {
    r.report(
        "ERROR: camera %d: pose rotation is not a rotation: |R^T R - I| reaches %g (at most "
        "%g), det %g (must be > 0)\n",
        index, deviation, ZOT_SETUP_ROTATION_TOLERANCE, det);
    return false;
  }
  for (int p = 0; p < c.nMasks; p++) {
    for (int i = 0; i < 2 * c.maskNVertices[p]; i++) {
      if (!finite(c.maskVertices[p][i])) {
        r.report("ERROR: camera %d: mask polygon %d vertex %d is not finite\n", index, p + 1,
                 i / 2 + 1);
        return false;
      }
    }
  }
  return true;
}

}  // namespace

bool decodeCameraCount(SetupArrayReader& r, int& nCameras) {
  return r.readCount("cameras", ZOT_MAX_CAMERAS, nCameras) && atLeastOne(r, nCameras, "cameras") &&
         r.available((long long)kMinValuesPerCamera * nCameras, "cameras");
}

bool decodeCamera(SetupArrayReader& r, int index, SetupCamera& camera) {
  if (!r.available(kMinValuesPerCamera, "camera")) return false;
  int width = 0, height = 0;
  if (!r.readInt("image width", width)) return false;
  if (!r.readInt("image height", height)) return false;
  if (width < 1 || height < 1 || width > ZOT_MAX_IMAGE_SIDE || height > ZOT_MAX_IMAGE_SIDE) {
    r.report("ERROR: camera %d: image of %d x %d pixels, each side must be 1 to %d\n", index, width,
             height, ZOT_MAX_IMAGE_SIDE);
    return false;
  }
  camera.width = width;
  camera.height = height;
  camera.zNear = r.next();
  camera.zFar = r.next();
  camera.fx = r.next();
  camera.fy = r.next();
  camera.cx = r.next();
  camera.cy = r.next();
  camera.skew = r.next();
  for (double& d : camera.dist) d = r.next();
  r.readTransform(camera.toolFromCamera);

  int nPolygons = 0;
  if (!r.readCount("mask polygons", ZOT_MAX_MASK_POLYGONS, nPolygons)) return false;
  if (!r.available(nPolygons, "mask polygons")) return false;
  camera.nMasks = 0;
  for (int p = 0; p < nPolygons; p++) {
    int nVertices = 0;
    if (!r.readCount("vertices in a mask polygon", ZOT_MAX_MASK_VERTICES, nVertices)) return false;
    if (!r.available(2LL * nVertices, "mask polygon")) return false;
    camera.maskNVertices[p] = nVertices;
    for (int i = 0; i < 2 * nVertices; i++) camera.maskVertices[p][i] = r.next();
    camera.nMasks = p + 1;
  }
  return checkCamera(r, index, camera);
}

bool decodeTrackingParameters(SetupArrayReader& r, GenericObjectTracker::TrackingParameters& out) {
  if (!r.available(ZOT_SETUP_TRACKER_VALUES, "tracking parameters")) return false;
  // Read into a copy: a refused value leaves the parameters as they were.
  GenericObjectTracker::TrackingParameters p = out;
  if (!r.readInt("sample points per camera", p.m_maxNSamplePointsPerCam)) return false;
  p.m_facingTolerance = r.next();
  if (!r.readInt("sampling step", p.m_samplingStep)) return false;
  p.m_minEdgeLength = r.next();
  if (!r.readInt("search range", p.m_searchRange)) return false;
  if (!r.readInt("Canny low threshold", p.m_cannyLowThreshold)) return false;
  if (!r.readInt("Canny high threshold", p.m_cannyHighThreshold)) return false;
  p.m_maxAngleDeg = r.next();
  if (!r.readInt("maximum iterations", p.m_maxIterations)) return false;
  p.m_convergenceRot = r.next();
  p.m_convergenceTransl = r.next();
  p.m_maxAbsRot = r.next();
  p.m_maxAbsTransl = r.next();
  p.m_minInliersLoop = r.next();
  p.m_minInliersFinal = r.next();
  p.m_maxFinalCost = r.next();
  p.m_resampleRot = r.next();
  p.m_resampleTransl = r.next();
  p.m_kfAccNoiseRot = r.next();
  p.m_kfAccNoiseTransl = r.next();
  p.m_measStdRot = r.next();
  p.m_measStdTransl = r.next();
  p.m_kfInitialCov = r.next();
  // Buffers of no sample, or a walk along an edge that never moves on.
  if (p.m_maxNSamplePointsPerCam < 1) {
    r.report("ERROR: tracking parameters: %d sample points per camera, at least 1 is needed\n",
             p.m_maxNSamplePointsPerCam);
    return false;
  }
  if (p.m_samplingStep < 1) {
    r.report("ERROR: tracking parameters: sampling step %d, must be at least 1 pixel\n",
             p.m_samplingStep);
    return false;
  }
  out = p;
  return true;
}

bool decodeLocalFrames(SetupArrayReader& r, int& nFrames, double (*frames)[16]) {
  if (!r.readCount("local frames", ZOT_MAX_LOCAL_FRAMES, nFrames)) return false;
  if (!r.available((long long)kLocalFrameValues * nFrames, "local frames")) return false;
  for (int i = 0; i < nFrames; i++) r.readTransform(frames[i]);
  return true;
}

bool decodeBodyCount(SetupArrayReader& r, int& nBodies) {
  return r.readCount("bodies", ZOT_MAX_BODIES, nBodies) && atLeastOne(r, nBodies, "bodies") &&
         r.available(nBodies, "bodies");
}

namespace {

// Vertex count and coordinates of a polyhedron or polyline.
bool decodeVertices(SetupArrayReader& r, const double* array, const char* what, SetupBody& body) {
  if (!r.readCount(what, kNoLimit, body.nVertices)) return false;
  if (!r.available(3LL * body.nVertices, what)) return false;
  body.vertices = array + r.cursor();
  for (int i = 0; i < 3 * body.nVertices; i++) r.next();
  return true;
}

bool decodePolyhedron(SetupArrayReader& r, const double* array, SetupBody& body) {
  if (!r.available(2, "polyhedron")) return false;
  body.flat = r.next();
  body.angle = r.next();
  if (!decodeVertices(r, array, "polyhedron vertices", body)) return false;
  if (!r.readCount("polyhedron faces", kNoLimit, body.nItems)) return false;
  if (!r.available(body.nItems, "polyhedron faces")) return false;
  const int start = r.cursor();
  body.items = array + start;
  for (int f = 0; f < body.nItems; f++) {
    int nCorners = 0;
    if (!r.readCount("vertices on a polyhedron face", ZOT_MAX_FACE_VERTICES, nCorners))
      return false;
    if (!r.available(nCorners, "polyhedron face")) return false;
    for (int j = 0; j < nCorners; j++) {
      int v = 0;
      if (!r.readIndex("face vertex", v)) return false;
      if (v < 0 || v >= body.nVertices) {
        r.report("ERROR: polyhedron face %d refers to vertex %d, but there are %d vertices\n",
                 f + 1, v + 1, body.nVertices);
        return false;
      }
    }
  }
  body.nItemValues = r.cursor() - start;
  return true;
}

bool decodePolyline(SetupArrayReader& r, const double* array, SetupBody& body) {
  if (!r.readIndex("supporting body", body.supportBody)) return false;
  if (!r.readIndex("supporting face", body.supportFace)) return false;
  if (!decodeVertices(r, array, "polyline vertices", body)) return false;
  if (!r.readCount("polyline edges", kNoLimit, body.nItems)) return false;
  if (!r.available(2LL * body.nItems, "polyline edges")) return false;
  const int start = r.cursor();
  body.items = array + start;
  for (int i = 0; i < 2 * body.nItems; i++) {
    int v = 0;
    if (!r.readIndex("polyline edge vertex", v)) return false;
    if (v < 0 || v >= body.nVertices) {
      r.report("ERROR: polyline edge %d refers to vertex %d, but there are %d vertices\n",
               i / 2 + 1, v + 1, body.nVertices);
      return false;
    }
  }
  body.nItemValues = r.cursor() - start;
  return true;
}

}  // namespace

bool decodeBody(SetupArrayReader& r, int index, SetupBody& body) {
  body = SetupBody();
  body.supportBody = body.supportFace = -1;
  if (!r.readInt("body type", body.type)) return false;
  const double* array = r.values();
  if (body.type == ZOT_BODY_POLYLINE) return decodePolyline(r, array, body);
  if (body.type == ZOT_BODY_POLYHEDRON) return decodePolyhedron(r, array, body);
  if (body.type == ZOT_BODY_CYLINDER) {
    if (!r.available(kCylinderValues, "cylinder")) return false;
    for (double& v : body.cylinder) v = r.next();
    return true;
  }
  r.report("ERROR: body %d has the unknown type %d (0 polyhedron, 1 polyline, 2 cylinder)\n",
           index + 1, body.type);
  return false;
}

int nextFace(const SetupBody& body, int& offset, int* indices) {
  const int n = (int)body.items[offset++];
  for (int j = 0; j < n; j++) indices[j] = (int)body.items[offset++] - 1;
  return n;
}

// ================================================================ whole array

namespace {

// One extension item: its name for the messages, its range and its field
// (an integral item goes to an int field, the others to a double one).
struct ExtensionItem {
  const char* name;
  double least;    // smallest value accepted
  bool leastOpen;  // least itself refused
  double most;     // largest value accepted
  int RobustSettings::*flag;
  double RobustSettings::*real;
};
constexpr double kAny = 1e300;
const ExtensionItem EXTENSION_ITEMS[ZOT_EXTENSION_VALUES] = {
    {"robust mode (0 or 1)", 0.0, false, 1.0, &RobustSettings::enabled, nullptr},
    {"M-estimator (0 Tukey, 1 Huber)", 0.0, false, 1.0, &RobustSettings::estimator, nullptr},
    {"M-estimator constant", 0.0, false, kAny, nullptr, &RobustSettings::tuning},
    {"scale floor [px]", 0.0, true, kAny, nullptr, &RobustSettings::scaleFloorPx},
    {"inlier weight", 0.0, false, 1.0, nullptr, &RobustSettings::inlierWeight},
    {"polarity memory (0 or 1)", 0.0, false, 1.0, &RobustSettings::polarityMemory, nullptr},
    {"Canny ratio to the robust maximum", 0.0, false, kAny, nullptr,
     &RobustSettings::cannyAutoRatio},
    {"Canny low-to-high ratio", 0.0, true, 1.0, nullptr, &RobustSettings::cannyLowRatio},
    {"Canny floor", 0.0, false, kAny, nullptr, &RobustSettings::cannyFloor},
    {"convergence [px]", 0.0, true, kAny, nullptr, &RobustSettings::convergencePx},
    {"relative cost change", 0.0, false, kAny, nullptr, &RobustSettings::costChange},
    {"recovery search range [px]", 0.0, false, kAny, nullptr, &RobustSettings::recoveryRangePx},
    {"least inlier fraction", 0.0, false, 1.0, nullptr, &RobustSettings::minInlierFraction},
    {"largest inlier residual [px]", 0.0, true, kAny, nullptr, &RobustSettings::maxResidualPx},
    {"largest camera disagreement [px]", 0.0, false, kAny, nullptr,
     &RobustSettings::maxDisagreementPx},
    {"region of interest (0 or 1)", 0.0, false, 1.0, &RobustSettings::regionOfInterest, nullptr},
    {"region margin [px]", 0.0, false, 1000.0, nullptr, &RobustSettings::regionMarginPx},
    {"re-sampling distance [px]", 0.0, false, kAny, nullptr, &RobustSettings::resamplePx},
    {"lens in the projection (0 or 1)", 0.0, false, 1.0, &RobustSettings::lensInProjection,
     nullptr},
};

}  // namespace

bool decodeExtensions(SetupArrayReader& r, RobustSettings& robust, int& nValues, double* values) {
  if (!r.available(3, "extension block")) return false;
  r.next();  // the marker
  int version = 0, n = 0;
  if (!r.readInt("extension format version", version)) return false;
  if (version != ZOT_EXTENSION_VERSION) {
    r.report("ERROR: extension block of format version %d; this library reads version %d\n",
             version, ZOT_EXTENSION_VERSION);
    return false;
  }
  if (!r.readInt("extension values", n)) return false;
  if (n < 0 || n > ZOT_EXTENSION_VALUES) {
    r.report("ERROR: extension block of %d values; version %d has 0 to %d\n", n, version,
             ZOT_EXTENSION_VALUES);
    return false;
  }
  if (!r.available(n, "extension block")) return false;
  double v[ZOT_EXTENSION_VALUES];
  RobustSettings s;
  for (int i = 0; i < n; i++) {
    v[i] = r.next();
    const ExtensionItem& item = EXTENSION_ITEMS[i];
    const bool ok = std::isfinite(v[i]) && v[i] <= item.most &&
                    (item.leastOpen ? v[i] > item.least : v[i] >= item.least) &&
                    (item.flag == nullptr || v[i] == std::floor(v[i]));
    if (!ok) {
      r.report("ERROR: extension item %d (%s) is %g, out of its range\n", i + 1, item.name, v[i]);
      return false;
    }
    if (item.flag != nullptr)
      s.*item.flag = (int)v[i];
    else
      s.*item.real = v[i];
  }
  robust = s;
  nValues = n;
  if (values != nullptr)
    for (int i = 0; i < n; i++) values[i] = v[i];
  return true;
}

bool decodeSetupArray(const double* array, int count, SetupArray& setup, char* messages,
                      int messagesSize) {
  int cursor = 0;
  SetupArrayReader r(array, count, cursor);
  if (messages != nullptr) r.keepMessagesIn(messages, messagesSize);
  if (array == nullptr || count < 0) {
    r.report("ERROR: invalid setup array (%d values)\n", count);
    return false;
  }
  if (!decodeCameraCount(r, setup.nCameras)) return false;
  for (int c = 0; c < setup.nCameras; c++) {
    if (!decodeCamera(r, c, setup.cameras[c])) return false;
  }
  const int trackingStart = cursor;
  GenericObjectTracker::TrackingParameters p;
  if (!decodeTrackingParameters(r, p)) return false;
  for (int i = 0; i < ZOT_SETUP_TRACKER_VALUES; i++) setup.tracking[i] = array[trackingStart + i];
  if (!decodeLocalFrames(r, setup.nLocalFrames, setup.localFrames)) return false;
  if (!decodeBodyCount(r, setup.nBodies)) return false;
  for (int b = 0; b < setup.nBodies; b++) {
    if (!decodeBody(r, b, setup.bodies[b])) return false;
  }
  setup.nExtensionValues = -1;
  setup.robust = RobustSettings();
  if (cursor < count && array[cursor] == ZOT_EXTENSION_MARKER) {
    if (!decodeExtensions(r, setup.robust, setup.nExtensionValues, setup.extensions)) return false;
  }
  if (cursor != count) {
    r.report("ERROR: total numbers read %d should be: %d\n", cursor, count);
    return false;
  }
  return true;
}

namespace {

// Appends values to an array of fixed capacity; remembers an overflow.
struct ArrayWriter {
  double* out;
  int capacity;
  int n = 0;
  bool overflow = false;

  void put(double v) {
    if (n < capacity)
      out[n++] = v;
    else
      overflow = true;
  }
  void put(const double* v, int count) {
    for (int i = 0; i < count; i++) put(v[i]);
  }
};

void encodeBody(const SetupBody& body, ArrayWriter& w) {
  w.put(body.type);
  if (body.type == ZOT_BODY_CYLINDER) {
    w.put(body.cylinder, kCylinderValues);
    return;
  }
  if (body.type == ZOT_BODY_POLYHEDRON) {
    w.put(body.flat);
    w.put(body.angle);
  } else {
    w.put(body.supportBody + 1);
    w.put(body.supportFace + 1);
  }
  w.put(body.nVertices);
  w.put(body.vertices, 3 * body.nVertices);
  w.put(body.nItems);
  w.put(body.items, body.nItemValues);
}

}  // namespace

int encodeSetupArray(const SetupArray& setup, double* out, int capacity) {
  ArrayWriter w{out, capacity};
  w.put(setup.nCameras);
  for (int c = 0; c < setup.nCameras; c++) {
    const SetupCamera& cam = setup.cameras[c];
    const double values[9] = {
        (double)cam.width, (double)cam.height, cam.zNear, cam.zFar, cam.fx, cam.fy, cam.cx, cam.cy,
        cam.skew};
    w.put(values, 9);
    w.put(cam.dist, 5);
    w.put(cam.toolFromCamera, 12);
    w.put(cam.nMasks);
    for (int p = 0; p < cam.nMasks; p++) {
      w.put(cam.maskNVertices[p]);
      w.put(cam.maskVertices[p], 2 * cam.maskNVertices[p]);
    }
  }
  w.put(setup.tracking, ZOT_SETUP_TRACKER_VALUES);
  w.put(setup.nLocalFrames);
  for (int i = 0; i < setup.nLocalFrames; i++) w.put(setup.localFrames[i], kLocalFrameValues);
  w.put(setup.nBodies);
  for (int b = 0; b < setup.nBodies; b++) encodeBody(setup.bodies[b], w);
  if (setup.nExtensionValues >= 0) {
    const double head[3] = {ZOT_EXTENSION_MARKER, (double)ZOT_EXTENSION_VERSION,
                            (double)setup.nExtensionValues};
    w.put(head, 3);
    w.put(setup.extensions, setup.nExtensionValues);
  }
  return w.overflow ? -1 : w.n;
}

}  // namespace ZOTtracker
