/// @file
/// Configuration and sequence files as the host programs exchange them:
/// camera and model files read through the library's own parser and decoded
/// from the setup array into plain structures, written back as text; pose,
/// time-stamp and setup-header files; pose errors against a reference.
///
/// Pose files hold one pose per line: 16 numbers (the 4 x 4 transform, row
/// by row), 12 (its first three rows) or 6 (translation, then the rotation
/// vector in degrees). Numbers are separated by blanks, commas or
/// semicolons; empty lines and lines starting with '#' are skipped.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

#include "sim_mesh.h"

namespace zot_sim {

using Pose = std::array<double, 16>;

/// Values the configuration loaders make room for: meshes of several ten
/// thousand faces.
constexpr int kSetupArrayCapacity = 4000000;

// ================================================================ configuration
/// One camera of a camera file.
struct CameraConfig {
  int width = 0, height = 0;
  double zNear = 0.0, zFar = 0.0;
  double fx = 0.0, fy = 0.0, cx = 0.0, cy = 0.0, skew = 0.0;
  double dist[5] = {0, 0, 0, 0, 0};        ///< k1, k2, p1, p2, k3
  Pose toolFromCamera{};                   ///< the calibration: camera pose in the tool frame
  std::vector<std::vector<double>> masks;  ///< per mask polygon its u, v pairs
};

/// One body of a model file (the fields of its type are used).
struct BodyConfig {
  int type = 0;                            ///< 0 polyhedron, 1 polyline, 2 cylinder
  bool flat = false;                       ///< polyhedron: open surface
  double featureAngle = 0.0;               ///< polyhedron: crease angle, degrees
  Mesh mesh;                               ///< polyhedron faces (0-based); polyline vertices only
  std::vector<int> segments;               ///< polyline: 0-based vertex pairs
  int supportBody = -1, supportFace = -1;  ///< polyline: 0-based, -1 for none
  double cylinder[13] = {};  ///< cylinder: radius, then the four 3-vectors in file order
};

/// A model file: local frames and bodies.
struct ModelConfig {
  std::vector<Pose> localFrames;
  std::vector<BodyConfig> bodies;
};

/// Decoders of the setup array sections, through the library's codec
/// (SetupArray.h); `cursor` moves past the section. Return false with the
/// codec's message in `error` when the values run out, a count is
/// impossible (no camera or no body included) or a value is refused.
bool decodeCameraSection(const double* array, int count, int& cursor,
                         std::vector<CameraConfig>& cameras, std::string& error);
bool decodeModelSection(const double* array, int count, int& cursor, ModelConfig& model,
                        std::string& error);

/// Decodes a whole setup array: cameras, the 23 tracking parameters and the
/// model. False with a reason when it is inconsistent.
bool decodeSetupArray(const double* array, int count, std::vector<CameraConfig>& cameras,
                      std::vector<double>& trackingParameters, ModelConfig& model,
                      std::string& error);


/// Reads `directory`/`fileName` with FileParser::parseCameraFile and decodes
/// the cameras. Returns 0, or the parser's negative code (with its message
/// on standard output) and a one-line reason in `error`.
int loadCameraFile(const std::string& directory, const std::string& fileName,
                   std::vector<CameraConfig>& cameras, std::string& error);

/// Reads a model file (and the body files it names) with
/// FileParser::parseModelFile and decodes it. Returns 0 or a negative code.
int loadModelFile(const std::string& directory, const std::string& fileName, ModelConfig& model,
                  std::string& error);

/// Reads the camera, tracker and model files in `directory` (and the
/// polyhedron and polyline files the model names) item by item as
/// FileParser does, and checks more strictly than it: every value must scan
/// completely (the parser reads "6l2.43" as 6), integers must lie within the
/// int range, the expected number of values must be there with nothing but a
/// '#' comment after them, a flat flag must be 0 or 1, and nothing but
/// comments may follow the last item (a body file: nothing at all). Returns
/// false with "<file>:<line>: <what> in \"<text>\"" in `error` at the
/// first fault.
bool checkConfigFilesStrictly(const std::string& directory, const std::string& cameraFile,
                              const std::string& trackerFile, const std::string& modelFile,
                              std::string& error);
/// The same check for one polyhedron (`polyhedron` true) or polyline file.
bool checkBodyFileStrictly(const std::string& path, bool polyhedron, std::string& error);

/// Writes a commented camera file that parses back to `cameras`. Returns
/// false with a reason when the file cannot be written.
bool writeCameraFile(const std::string& path, const std::vector<CameraConfig>& cameras,
                     const std::string& headerComment, std::string& error);
/// Writes the model file `directory`/`fileName` and one geometry file per
/// polyhedron or polyline body, named "<stem>_body<i>_polyhedron.txt" or
/// "..._polyline.txt" after the model file's stem. Returns false on failure.
bool writeModelFile(const std::string& directory, const std::string& fileName,
                    const ModelConfig& model, std::string& error);


/// Largest extent of the axis-aligned bounding box of all polyhedron and
/// polyline vertices (0 without vertices); `centre` and `diagonal` (either
/// may be null) get the box centre and the length of its diagonal.
double modelSize(const ModelConfig& model, double* centre, double* diagonal = nullptr);

// ================================================================ sequence files
/// Parses one pose from text (16, 12 or 6 numbers, see the file comment);
/// `pose` is written only on success.
bool parsePose(const std::string& text, Pose& pose, std::string& error);
/// Reads every pose of a pose file.
bool readPoseFile(const std::string& path, std::vector<Pose>& poses, std::string& error);
/// Writes one pose per line as 16 numbers with full precision, after an
/// optional comment line.
bool writePoseFile(const std::string& path, const std::vector<Pose>& poses,
                   const std::string& comment, std::string& error);
/// Reads one number per line (time stamps); same comment rules.
bool readNumberFile(const std::string& path, std::vector<double>& values, std::string& error);
/// Writes one number per line with full precision after an optional comment.
bool writeNumberFile(const std::string& path, const std::vector<double>& values,
                     const std::string& comment, std::string& error);
/// Reads the values of a setup-array header written by
/// FileParser::createGlobalArrayHeaderFile: the count after
/// "setup_global_array_counter =" and the numbers inside the braces. Fails
/// when the file is missing, malformed, or holds a number of values other
/// than the count.
bool readSetupHeader(const std::string& path, std::vector<double>& values, std::string& error);

// ================================================================ pose errors
/// Distance between the translations and angle (degrees) of the relative
/// rotation R_estimate^T * R_reference.
void poseError(const double* estimate, const double* reference, double* translationError,
               double* rotationErrorDeg);

/// The q-quantile (0..1) of the values by linear interpolation between
/// order statistics; 0 for no values. `values` is sorted in place.
double quantile(std::vector<double>& values, double q);

/// True when a file or directory exists.
bool pathExists(const std::string& path);

}  // namespace zot_sim
