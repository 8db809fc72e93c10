/// @file
/// Error codes, the process-wide diagnostic string, matrix printers, raw image
/// and matrix files, and the public debug-window calls.
///
/// Diagnostics collected while a frame runs only copy bytes into
/// m_global_output_string; the host decides when to pay for file I/O
/// (dumpGlobalStrToFile). Everything here is unsynchronised process-wide state.
#pragma once

#include <cstdint>
#include <string>

namespace ZOTtracker {

// ---------------------------------------------------------------- error codes
/// Every failure travels up the call chain as one of these; 0 is success.
constexpr int ZOT_SUCCESS = 0;
constexpr int ZOT_ERR_INTERNAL = -1;
constexpr int ZOT_ERR_TOO_MANY_OUTLIERS = -2;
constexpr int ZOT_ERR_VLD = -3;
constexpr int ZOT_ERR_DIVERGENCE = -4;
constexpr int ZOT_ERR_OUT_OF_SCREEN = -5;
constexpr int ZOT_ERR_MAX_ITERATIONS = -6;
constexpr int ZOT_ERR_SVD = -7;
constexpr int ZOT_ERR_QUICKSORT = -8;
constexpr int ZOT_ERR_FINAL_REPROJECTION = -9;
constexpr int ZOT_ERR_CAMERA_PARSER = -10;
constexpr int ZOT_ERR_TRACKER_PARSER = -11;
constexpr int ZOT_ERR_MODEL_PARSER = -12;
constexpr int ZOT_ERR_POLYHEDRON_PARSER = -13;
constexpr int ZOT_ERR_POLYLINE_PARSER = -14;
constexpr int ZOT_ERR_POINT_AT_INFINITY = -15;
constexpr int ZOT_ERR_CANNY = -16;

/// The fixed message of a code in -16..-1 ("FAILURE: ..."), or "UNKNOWN
/// ERROR CODE!" for any other value: a static string, never null.
const char* errorMessage(int code);
/// Prints errorMessage(code) and a line end to stdout.
void printError(int code);

// ---------------------------------------------------------------- diagnostic string
constexpr uint32_t GLOBAL_OUTPUT_STRING_SIZE = 1000000;
/// Zero at load time; holds appended text without terminators of its own.
extern char m_global_output_string[GLOBAL_OUTPUT_STRING_SIZE];
/// Bytes used in m_global_output_string.
extern uint32_t m_global_output_string_counter;

/// Appends `length` bytes of `text` when they fit completely (counter + length
/// <= 1,000,000); otherwise appends nothing and prints "WARNING: reached
/// maximum length of global output string!". A null text or negative length
/// appends nothing.
void globalStrcat(const char* text, int length);

/// Writes the diagnostic string (up to its first zero byte, at most the whole
/// buffer) to `path`, mode "wt". Buffer and counter are kept. A file that
/// cannot be opened prints "ERROR: cannot open <path> for writing" and
/// nothing is written.
void dumpGlobalStrToFile(const char* path);

/// Monotonic clock in nanoseconds (CLOCK_MONOTONIC).
int64_t getTickCount();
/// The constant 1000: ticks / getTickFrequency() / 1000.0 gives milliseconds.
double getTickFrequency();
/// Appends "<label> - elapsed [ms]: <ms>\n" to the diagnostic string and
/// returns end - start in ticks. Pass two tick counts, or 0 and a difference.
double showElapsed(const char* label, long start, long end);

// ---------------------------------------------------------------- matrix printers
/// Print "name = [", each row's elements followed by a blank, ";...\n" after
/// every row but the last and "];\n" after the last, to stdout (row-major
/// input). With rows = 0 only "name = [" is printed. Byte-sized types print
/// as numbers.
void print_matrix(const char* name, const double* m, int rows, int cols);
void print_matrix_float(const char* name, const float* m, int rows, int cols);
void print_matrix_int(const char* name, const int* m, int rows, int cols);
void print_matrix_short(const char* name, const short* m, int rows, int cols);
void print_matrix_signed_char(const char* name, const signed char* m, int rows, int cols);
void print_matrix_unsigned_char(const char* name, const unsigned char* m, int rows, int cols);

// ---------------------------------------------------------------- raw files
/// Raw image file: int width, int height, int channels, then the pixel bytes
/// row-major with channels interleaved (native byte order, no padding).
/// Raw matrix file: int rows, int cols, then rows x cols doubles.
/// A file that cannot be opened prints "ERROR: cannot open <path>" and the
/// call returns without touching the caller's buffer (loaders return -1). A
/// short read or write prints a warning naming the file and byte counts.

/// Writes width x height x channels bytes after the three header ints.
void saveImage(const char* path, const unsigned char* data, int width, int height, int channels);
/// Skips the header and reads width x height bytes into `data` (the file's
/// channel count is ignored: only grey images round-trip). Returns 0.
int loadImage(const char* path, unsigned char* data, int width, int height);
/// Writes rows, cols and rows x cols doubles.
void save_matrix(const char* path, const double* data, int rows, int cols);
/// Skips the header (not compared with rows, cols) and reads rows x cols
/// doubles. Returns 0.
int load_matrix(const char* path, double* data, int rows, int cols);

// ---------------------------------------------------------------- debug windows
/// Window flags for createWindow (the values of the display backend).
constexpr int ZOT_WINDOW_NORMAL = 0;
constexpr int ZOT_WINDOW_AUTOSIZE = 1;

/// These forward one to one to the opencv_* level (opencv_display.h). On a
/// machine without a display, or in a build without display, windows do
/// nothing, waitKey returns -1 at once, and the first request prints one line.
void createWindow(const std::string& name, int flags);
/// Shows the caller's 8-bit buffer (1 or 3 interleaved channels, blue first)
/// without copying; other channel counts print "undefined image type".
void showImage(const std::string& name, unsigned char* data, int width, int height, int channels);
/// Waits for a key (milliseconds <= 0: until one is pressed); returns its code or -1.
int waitKey(int milliseconds);
void destroyWindow(const std::string& name);
void destroyAllWindows();

}  // namespace ZOTtracker
