/// @file
/// The setup array's layout in one place: a cursor that reads it with the
/// tracker's checks and messages, plain structures for its sections, and an
/// encoder that writes them back. The tracker's set-up, the tools and the
/// tests all read and build the array through this unit.
///
/// Layout: nCameras, per camera (width, height, near, far, fx, fy, cx, cy,
/// skew, k1, k2, p1, p2, k3, the first three rows of the camera pose in the
/// tool frame, nMasks, per mask nVertices and its u, v pairs); the 23
/// tracking parameters; nLocalFrames and 12 values each; nBodies and per
/// body its type code (0 polyhedron, 1 polyline, 2 cylinder) and data.
/// Integers are stored as doubles and truncated toward zero; indices are
/// 1-based.
///
/// Beyond the layout, the decoders refuse what can never track, each with
/// one "ERROR: ..." line naming the value: no camera or no body; a camera
/// whose fx or fy is not finite and > 0, whose cx, cy, skew, distortion
/// coefficients, pose or mask vertices are not finite, whose near depth is
/// not finite and > 0 or whose far depth is not finite and beyond the near
/// one, or whose pose rotation is not a rotation (see
/// ZOT_SETUP_ROTATION_TOLERANCE); fewer than 1 sample point per camera or a
/// sampling step below 1 pixel.
#pragma once

#include "GenericObjectTracker.h"

namespace ZOTtracker {

/// Values of the tracking parameters section.
constexpr int ZOT_SETUP_TRACKER_VALUES = 23;
/// Largest entry of |R^T R - I| accepted for the rotation block R of a
/// camera's pose, whose determinant must also be > 0. Such a pose is
/// refused, not re-orthonormalised: a calibration that far off is a mistake
/// (a unit, a layout), and correcting it silently would track with a pose
/// nobody calibrated. A rotation written with six decimals, as the header
/// export writes it, is off by up to about 2e-6 and passes.
constexpr double ZOT_SETUP_ROTATION_TOLERANCE = 1e-5;

/// Cursor over a setup array of `count` values that never reads past its
/// end. Each failing read prints the tracker's message lines ("ERROR: setup
/// array too short ...", "ERROR: total numbers read ...") to standard
/// output, or appends them to a caller's buffer (keepMessagesIn).
class SetupArrayReader {
 public:
  /// Reads `array` from `cursor`, which moves on with every value read.
  SetupArrayReader(const double* array, int count, int& cursor);

  /// Collects the messages in `buffer` (size bytes, always terminated)
  /// instead of printing them.
  void keepMessagesIn(char* buffer, int size);

  /// True when n more values follow the cursor; otherwise reports where the
  /// array ended, naming `what`.
  bool available(long long n, const char* what);
  /// Integer at the cursor, truncated toward zero; NaN, infinities and
  /// values outside int are refused.
  bool readInt(const char* what, int& value);
  /// Group count: negative reads as 0, more than `most` is refused.
  bool readCount(const char* what, int most, int& value);
  /// 1-based index, returned 0-based; the smallest int is refused (it has
  /// no 0-based form).
  bool readIndex(const char* what, int& value);
  /// The value at the cursor; call only after available() said it is there.
  double next() { return m_array[m_cursor++]; }
  /// Identity with the first three rows from the next 12 values (available first).
  void readTransform(double* T);
  /// Prints (or keeps) one message line made from a printf format.
  void report(const char* format, ...);

  int cursor() const { return m_cursor; }
  int count() const { return m_count; }
  /// The array being read.
  const double* values() const { return m_array; }

 private:
  const double* m_array;
  int m_count;
  int& m_cursor;
  char* m_messages;
  int m_messagesSize;
};

/// The extension block, optional, after the last body: the marker (a value
/// the designed layout never has there, since the array must end), the
/// format version, the number of values n, then n values: the tracker
/// file's extension items in the order of RobustSettings. A version-1 block
/// may hold fewer than ZOT_EXTENSION_VALUES values; the rest keep their
/// defaults. All are integral or written with few decimals, so the header
/// export's six decimals keep them exact.
constexpr double ZOT_EXTENSION_MARKER = -8080808.0;
constexpr int ZOT_EXTENSION_VERSION = 1;
/// Values a version-1 block holds at most.
constexpr int ZOT_EXTENSION_VALUES = 19;

/// One camera of the array.
struct SetupCamera {
  int width, height;
  double zNear, zFar;
  double fx, fy, cx, cy, skew;
  double dist[5];             ///< k1, k2, p1, p2, k3
  double toolFromCamera[16];  ///< camera pose in the tool frame; last row 0 0 0 1
  int nMasks;
  int maskNVertices[ZOT_MAX_MASK_POLYGONS];
  double maskVertices[ZOT_MAX_MASK_POLYGONS][2 * ZOT_MAX_MASK_VERTICES];  ///< u, v pairs
};

/// One body of the array. Its geometry is not copied: vertices and items
/// point into the array that was decoded, which must outlive the body.
struct SetupBody {
  int type;                      ///< ZOT_BODY_POLYHEDRON, ZOT_BODY_POLYLINE or ZOT_BODY_CYLINDER
  double flat;                   ///< polyhedron: flat flag as stored (non-zero or NaN: flat)
  double angle;                  ///< polyhedron: feature angle, degrees
  int supportBody, supportFace;  ///< polyline: 0-based, -1 for none
  double cylinder[13];           ///< cylinder: radius, then p1, p2, nb, nt as stored
  int nVertices;
  const double* vertices;  ///< 3 per vertex
  int nItems;              ///< polyhedron faces or polyline edges
  /// Polyhedron: per face its vertex count and 1-based vertex indices;
  /// polyline: 1-based vertex pairs. nItemValues values in all.
  const double* items;
  int nItemValues;
};

/// A whole setup array, decoded.
struct SetupArray {
  int nCameras;
  SetupCamera cameras[ZOT_MAX_CAMERAS];
  double tracking[ZOT_SETUP_TRACKER_VALUES];  ///< as stored, in the order of TrackingParameters
  int nLocalFrames;
  double localFrames[ZOT_MAX_LOCAL_FRAMES][16];
  int nBodies;
  SetupBody bodies[ZOT_MAX_BODIES];
  int nExtensionValues = -1;                ///< -1: no extension block
  double extensions[ZOT_EXTENSION_VALUES];  ///< its values as stored
  RobustSettings robust;                    ///< and as the tracker applies them
};

/// Camera count (1 to ZOT_MAX_CAMERAS), checking that the array can hold
/// that many cameras.
bool decodeCameraCount(SetupArrayReader& r, int& nCameras);
/// Camera `index` (0-based, for the messages). False with the tracker's
/// message when the values run out, the image size is outside
/// 1..ZOT_MAX_IMAGE_SIDE, a mask count is too large or a value is refused
/// (see the file comment).
bool decodeCamera(SetupArrayReader& r, int index, SetupCamera& camera);
/// The 23 tracking parameters into p (integer fields truncated); p is
/// unchanged on failure, which includes a sample capacity or a sampling step
/// below 1.
bool decodeTrackingParameters(SetupArrayReader& r, GenericObjectTracker::TrackingParameters& p);
/// Local frame count and transforms (frames: ZOT_MAX_LOCAL_FRAMES x 16).
bool decodeLocalFrames(SetupArrayReader& r, int& nFrames, double (*frames)[16]);
/// Body count (1 to ZOT_MAX_BODIES), checking that the array can hold it.
bool decodeBodyCount(SetupArrayReader& r, int& nBodies);
/// Body `index` (for the messages): type code and data, with the tracker's
/// checks; vertex indices must also lie within the body's vertices.
bool decodeBody(SetupArrayReader& r, int index, SetupBody& body);
/// Face at `offset` in a polyhedron's items: writes its 0-based vertex
/// indices (up to ZOT_MAX_FACE_VERTICES) and moves offset past it. Returns
/// the number of vertices.
int nextFace(const SetupBody& body, int& offset, int* indices);

/// The extension block at the cursor (which must hold the marker) into
/// robust and, when values is not null, its nValues values. Refused with one
/// "ERROR: ..." line: another format version, more values than the version
/// has, a block cut short, a value that is not finite or out of its range
/// (a mode or estimator other than 0 or 1, a negative length, ratio or
/// count, a fraction above 1, a zero scale floor or convergence bound).
/// robust is unchanged on failure.
bool decodeExtensions(SetupArrayReader& r, RobustSettings& robust, int& nValues, double* values);

/// Decodes all of array (count values) into setup. Returns true when the
/// layout uses exactly count values; otherwise false with the tracker's
/// message ("ERROR: total numbers read ...") printed or kept in messages.
bool decodeSetupArray(const double* array, int count, SetupArray& setup, char* messages = nullptr,
                      int messagesSize = 0);
/// Writes setup into out (capacity values). Returns the number of values
/// written, or -1 when they do not fit.
int encodeSetupArray(const SetupArray& setup, double* out, int capacity);

}  // namespace ZOTtracker
