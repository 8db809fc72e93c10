/// @file
/// Configuration text files (camera, tracker, model, polyhedron, polyline)
/// translated into the setup array, and the export of a setup array as a
/// header a host can compile in.
///
/// The files hold their numbers in array order; each value is appended at the
/// running index `count`. Camera, tracker and model files are read item by
/// item, one line per item (at most 199 characters), skipping the lines whose
/// first character is '#' before each item; numbers come from the start of the
/// line and the rest of it is ignored. Polyhedron and polyline files are free
/// format (keyword tokens and numbers, no comments). The line layout of each
/// file is described in data/README.md.
///
/// Failures print one "ERROR: ..." line to standard output and return the
/// file's code (ZOT_ERR_CAMERA_PARSER ... ZOT_ERR_POLYLINE_PARSER of IO.h).
/// Values appended before a failure stay in the array and `count` says how
/// many there are. Numbers that fail to scan are not detected: the scan
/// variable's previous value (0 before the first item of a file) is written,
/// so the layout of the array is kept. Running out of file where an item is
/// still expected is detected: "ERROR: unexpected end of file <path>".
/// Set-up time only: the parser uses C stdio and its own stack buffers.
#pragma once

namespace ZOTtracker {

class FileParser {
 public:
  // ---------------------------------------------------------------- set-up
  FileParser() = default;
  ~FileParser() = default;

  // ---------------------------------------------------------------- whole configuration
  /// Sets count to 0, then parses directory/cameraFile, directory/trackerFile
  /// and directory/modelFile in that order into `array`. Returns 0, or the
  /// code of the first file that fails (later files are not read). `array`
  /// must be large enough: no bound is checked here (see the overload below).
  int parseAllFiles(const char* directory, const char* cameraFile, const char* trackerFile,
                    const char* modelFile, int& count, double* array);
  /// The same with the number of elements `array` holds: a value that would
  /// go to index capacity or beyond is not written; the file being read fails
  /// with its own code after "ERROR: setup array full (capacity <n> values)".
  /// Every parser refuses a null array, a negative count or a negative
  /// capacity with "ERROR: invalid setup array" and its code.
  int parseAllFiles(const char* directory, const char* cameraFile, const char* trackerFile,
                    const char* modelFile, int& count, double* array, int capacity);

  // ---------------------------------------------------------------- single files
  /// Each parses the file "<directory>/<fileName>" and appends at `count`.
  /// A file that cannot be opened (or a joined path longer than 199
  /// characters) prints "ERROR: invalid filename" and returns the file's
  /// code. Overloads with `capacity` bound the writes as parseAllFiles does.
  ///
  /// Camera file: count of cameras, then per camera width height / near far /
  /// fx fy cx cy skew / five distortion coefficients / 12 calibration numbers
  /// (echoed as " tcp-to-camera calibration \n" and the numbers in %g format,
  /// each followed by a blank, then a line end) / number of mask polygons,
  /// then the polygons as free-format tokens. Fails with -10.
  int parseCameraFile(const char* directory, const char* fileName, int& count, double* array);
  int parseCameraFile(const char* directory, const char* fileName, int& count, double* array,
                      int capacity);
  /// Tracker file: the 23 tracking parameters on sixteen lines, then up to
  /// ZOT_EXTENSION_VALUES optional extension items, one number at the start
  /// of each further line (comments and blank lines skipped). The items are
  /// kept by this parser, not appended: appendExtensionBlock() writes them
  /// at the end of the array, as parseAllFiles() does after the model.
  /// Fails with -11, also for an item that is not a number or one too many.
  int parseTrackerFile(const char* directory, const char* fileName, int& count, double* array);
  int parseTrackerFile(const char* directory, const char* fileName, int& count, double* array,
                       int capacity);
  /// Model file: local frames (at most 100), then at least one body; 'P'
  /// polyhedron, 'L' polyline, 'C' cylinder by the first character of the
  /// body's line. Polyhedron and polyline files named in it are joined to
  /// `directory` and parsed at once. After a polyhedron's file-name line one
  /// more line is read and thrown away (the spare line of the format, kept on
  /// purpose: a body line written there is lost). Fails with -12, or with the
  /// code of a failing polyhedron (-13) or polyline (-14) file.
  int parseModelFile(const char* directory, const char* fileName, int& count, double* array);
  int parseModelFile(const char* directory, const char* fileName, int& count, double* array,
                     int capacity);

  // ---------------------------------------------------------------- body geometry files
  /// `path` is complete (not joined to a directory). Polyhedron: "nv" n, n x
  /// ("v" x y z), "nf" m, m x ("f" k and k 1-based indices). Fails with -13,
  /// also when the file cannot be opened.
  int parsePolyhedron(const char* path, int& count, double* array);
  int parsePolyhedron(const char* path, int& count, double* array, int capacity);
  /// Polyline: "nv" n, n x ("v" x y z), "ne" m, m x ("e" a b). Fails with -14,
  /// also when the file cannot be opened.
  int parsePolyline(const char* path, int& count, double* array);
  int parsePolyline(const char* path, int& count, double* array, int capacity);

  /// Appends the extension block of the last tracker file parsed (marker,
  /// version, count, items; see SetupArray.h), if it had extension items;
  /// otherwise appends nothing. Returns 0, or -11 when the array is full.
  int appendExtensionBlock(int& count, double* array, int capacity);

  // ---------------------------------------------------------------- header export
  /// Writes "<directory>/global_array_declaration.h" declaring
  /// setup_global_array_counter (= count) and setup_global_array with the
  /// `count` values in " %f" format, count / 1000 + 1 values per line (so at
  /// most 1000 lines). Six decimals on purpose: exact for integers and the
  /// usual calibration numbers; magnitudes below 0.0000005 become 0.000000.
  /// count <= 0, a null array or a file that cannot be created prints an
  /// "ERROR: ..." line and writes nothing.
  void createGlobalArrayHeaderFile(const char* directory, int count, const double* array);

  /// Extension items kept (ZOT_EXTENSION_VALUES of SetupArray.h).
  static constexpr int kExtensionCapacity = 19;

 private:
  double m_extensions[kExtensionCapacity] = {};
  int m_nExtensions = -1;  ///< -1: the last tracker file had none
};

}  // namespace ZOTtracker
