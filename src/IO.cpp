// Error messages, the diagnostic string, matrix printers, raw image and
// matrix files, and the public debug-window calls.
#include "IO.h"

#include <time.h>

#include <cstdio>
#include <cstring>
#include <iostream>

#include "opencv_display.h"

namespace ZOTtracker {

char m_global_output_string[GLOBAL_OUTPUT_STRING_SIZE] = {0};
uint32_t m_global_output_string_counter = 0;

// ================================================================ error codes
const char* errorMessage(int code) {
  static const char* const kMessages[16] = {
      "FAILURE: Internal failure",
      "FAILURE: Too many outliers",
      "FAILURE: VLD failed",
      "FAILURE: Divergence in pose estimation",
      "FAILURE: Out of screen object",
      "FAILURE: Max. Gauss-Newton iteration reached",
      "FAILURE: SVD failed",
      "FAILURE: Quicksort failed",
      "FAILURE: Too high final reprojection error",
      "FAILURE: Camera parser",
      "FAILURE: Tracker parser",
      "FAILURE: Model parser",
      "FAILURE: Polyhedron parser",
      "FAILURE: Polyline parser",
      "FAILURE: projected point at infinity",
      "FAILURE: Canny edge detection",
  };
  if (code <= -1 && code >= -16) return kMessages[-code - 1];
  return "UNKNOWN ERROR CODE!";
}

void printError(int code) { printf("%s\n", errorMessage(code)); }

// ================================================================ diagnostic string
void globalStrcat(const char* text, int length) {
  if (text == nullptr || length < 0) return;
  if ((uint64_t)m_global_output_string_counter + (uint64_t)length > GLOBAL_OUTPUT_STRING_SIZE) {
    printf("WARNING: reached maximum length of global output string!\n");
    return;
  }
  memcpy(m_global_output_string + m_global_output_string_counter, text, (size_t)length);
  m_global_output_string_counter += (uint32_t)length;
}

void dumpGlobalStrToFile(const char* path) {
  FILE* f = fopen(path, "wt");
  if (f == nullptr) {
    printf("ERROR: cannot open %s for writing\n", path);
    return;
  }
  // A completely full buffer has no terminator: never read past its end.
  fwrite(m_global_output_string, 1, strnlen(m_global_output_string, GLOBAL_OUTPUT_STRING_SIZE), f);
  fclose(f);
}

int64_t getTickCount() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (int64_t)ts.tv_sec * 1000000000LL + (int64_t)ts.tv_nsec;
}

double getTickFrequency() { return 1000.0; }

double showElapsed(const char* label, long start, long end) {
  char line[512];
  int length = snprintf(line, sizeof(line), "%s - elapsed [ms]: %f\n", label,
                        (double)(end - start) / getTickFrequency() / 1000.0);
  if (length >= (int)sizeof(line)) length = (int)sizeof(line) - 1;  // overlong label: cut
  globalStrcat(line, length);
  return (double)(end - start);
}

// ================================================================ matrix printers
namespace {

// Small integer types are widened so that they print as numbers.
template <typename T>
struct Printable {
  using type = T;
};
template <>
struct Printable<signed char> {
  using type = int;
};
template <>
struct Printable<unsigned char> {
  using type = int;
};

template <typename T>
void printMatrixOf(const char* name, const T* m, int rows, int cols) {
  std::cout << name << " = [";
  for (int r = 0; r < rows; r++) {
    for (int c = 0; c < cols; c++) {
      std::cout << static_cast<typename Printable<T>::type>(m[r * cols + c]) << " ";
    }
    std::cout << (r + 1 < rows ? ";...\n" : "];\n");
  }
  std::cout.flush();
}

}  // namespace

void print_matrix(const char* name, const double* m, int rows, int cols) {
  printMatrixOf(name, m, rows, cols);
}
void print_matrix_float(const char* name, const float* m, int rows, int cols) {
  printMatrixOf(name, m, rows, cols);
}
void print_matrix_int(const char* name, const int* m, int rows, int cols) {
  printMatrixOf(name, m, rows, cols);
}
void print_matrix_short(const char* name, const short* m, int rows, int cols) {
  printMatrixOf(name, m, rows, cols);
}
void print_matrix_signed_char(const char* name, const signed char* m, int rows, int cols) {
  printMatrixOf(name, m, rows, cols);
}
void print_matrix_unsigned_char(const char* name, const unsigned char* m, int rows, int cols) {
  printMatrixOf(name, m, rows, cols);
}

// ================================================================ raw files
namespace {

FILE* openOrReport(const char* path, const char* mode) {
  FILE* f = fopen(path, mode);
  if (f == nullptr) printf("ERROR: cannot open %s\n", path);
  return f;
}

void checkTransfer(const char* what, const char* path, size_t done, size_t wanted) {
  if (done != wanted) {
    printf("WARNING: %s %s: %zu of %zu bytes\n", what, path, done, wanted);
  }
}

size_t byteCount(int a, int b, int c, size_t elementSize) {
  if (a <= 0 || b <= 0 || c <= 0) return 0;
  return (size_t)a * (size_t)b * (size_t)c * elementSize;
}

}  // namespace

void saveImage(const char* path, const unsigned char* data, int width, int height, int channels) {
  FILE* f = openOrReport(path, "wb");
  if (f == nullptr) return;
  const int header[3] = {width, height, channels};
  const size_t bytes = byteCount(width, height, channels, 1);
  size_t done = fwrite(header, sizeof(int), 3, f) * sizeof(int);
  if (bytes > 0) done += fwrite(data, 1, bytes, f);
  checkTransfer("short write to", path, done, bytes + sizeof(header));
  fclose(f);
}

int loadImage(const char* path, unsigned char* data, int width, int height) {
  FILE* f = openOrReport(path, "rb");
  if (f == nullptr) return -1;
  int header[3];
  const size_t bytes = byteCount(width, height, 1, 1);
  size_t done = fread(header, sizeof(int), 3, f) * sizeof(int);
  if (bytes > 0) done += fread(data, 1, bytes, f);
  checkTransfer("short read from", path, done, bytes + sizeof(header));
  fclose(f);
  return 0;
}

void save_matrix(const char* path, const double* data, int rows, int cols) {
  FILE* f = openOrReport(path, "wb");
  if (f == nullptr) return;
  const int header[2] = {rows, cols};
  const size_t bytes = byteCount(rows, cols, 1, sizeof(double));
  size_t done = fwrite(header, sizeof(int), 2, f) * sizeof(int);
  if (bytes > 0) done += fwrite(data, 1, bytes, f);
  checkTransfer("short write to", path, done, bytes + sizeof(header));
  fclose(f);
}

int load_matrix(const char* path, double* data, int rows, int cols) {
  FILE* f = openOrReport(path, "rb");
  if (f == nullptr) return -1;
  int header[2];
  const size_t bytes = byteCount(rows, cols, 1, sizeof(double));
  size_t done = fread(header, sizeof(int), 2, f) * sizeof(int);
  if (bytes > 0) done += fread(data, 1, bytes, f);
  checkTransfer("short read from", path, done, bytes + sizeof(header));
  fclose(f);
  return 0;
}

// ================================================================ debug windows
void createWindow(const std::string& name, int flags) { opencv_createWindow(name, flags); }

void showImage(const std::string& name, unsigned char* data, int width, int height, int channels) {
  opencv_showImage(name, data, width, height, channels);
}

int waitKey(int milliseconds) { return opencv_waitKey(milliseconds); }

void destroyWindow(const std::string& name) { opencv_destroyWindow(name); }

void destroyAllWindows() { opencv_destroyAllWindows(); }

}  // namespace ZOTtracker
