// Error messages, the diagnostic string, matrix printers, raw files and the
// headless behaviour of the debug windows.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "IO.h"
#include "opencv_display.h"

using namespace ZOTtracker;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

std::string tempPath(const char* name) {
  return testing::TempDir() + "zot_io_" + std::to_string(getpid()) + "_" + name;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void clearGlobalString() {
  memset(m_global_output_string, 0, GLOBAL_OUTPUT_STRING_SIZE);
  m_global_output_string_counter = 0;
}

}  // namespace

TEST(ErrorCodes, EveryCodePrintsItsFixedMessage) {
  const char* expected =
      "FAILURE: Internal failure\n"
      "FAILURE: Too many outliers\n"
      "FAILURE: VLD failed\n"
      "FAILURE: Divergence in pose estimation\n"
      "FAILURE: Out of screen object\n"
      "FAILURE: Max. Gauss-Newton iteration reached\n"
      "FAILURE: SVD failed\n"
      "FAILURE: Quicksort failed\n"
      "FAILURE: Too high final reprojection error\n"
      "FAILURE: Camera parser\n"
      "FAILURE: Tracker parser\n"
      "FAILURE: Model parser\n"
      "FAILURE: Polyhedron parser\n"
      "FAILURE: Polyline parser\n"
      "FAILURE: projected point at infinity\n"
      "FAILURE: Canny edge detection\n"
      "UNKNOWN ERROR CODE!\n"
      "UNKNOWN ERROR CODE!\n"
      "UNKNOWN ERROR CODE!\n";
  CaptureStdout();
  for (int code = -1; code >= -16; code--) printError(code);
  printError(0);
  printError(-17);
  printError(1);
  EXPECT_EQ(GetCapturedStdout(), expected);
  EXPECT_EQ(ZOT_ERR_CANNY, -16);
  EXPECT_EQ(ZOT_ERR_POINT_AT_INFINITY, -15);
}

TEST(DiagnosticString, AppendsWholeTextsUpToTheLimitAndRefusesOverflow) {
  clearGlobalString();
  globalStrcat("abc", 3);
  globalStrcat("defgh", 2);  // only length bytes, no terminator copied
  EXPECT_EQ(m_global_output_string_counter, 5u);
  EXPECT_EQ(std::string(m_global_output_string), "abcde");

  // Fill to exactly 1,000,000 bytes.
  std::vector<char> block(GLOBAL_OUTPUT_STRING_SIZE, 'x');
  globalStrcat(block.data(), (int)GLOBAL_OUTPUT_STRING_SIZE - 5);
  EXPECT_EQ(m_global_output_string_counter, GLOBAL_OUTPUT_STRING_SIZE);

  CaptureStdout();
  globalStrcat("y", 1);
  EXPECT_EQ(GetCapturedStdout(), "WARNING: reached maximum length of global output string!\n");
  EXPECT_EQ(m_global_output_string_counter, GLOBAL_OUTPUT_STRING_SIZE);

  // A completely full buffer has no terminator; the dump stops at its end.
  const std::string path = tempPath("full.txt");
  dumpGlobalStrToFile(path.c_str());
  EXPECT_EQ(readFile(path).size(), (size_t)GLOBAL_OUTPUT_STRING_SIZE);

  // Partial appends are refused as a whole.
  clearGlobalString();
  globalStrcat(block.data(), (int)GLOBAL_OUTPUT_STRING_SIZE - 2);
  CaptureStdout();
  globalStrcat("xyz", 3);
  globalStrcat(nullptr, 1);
  globalStrcat("abc", -1);
  EXPECT_EQ(GetCapturedStdout(), "WARNING: reached maximum length of global output string!\n");
  EXPECT_EQ(m_global_output_string_counter, GLOBAL_OUTPUT_STRING_SIZE - 2);
  clearGlobalString();
  remove(path.c_str());
}

TEST(DiagnosticString, ShowElapsedAppendsMillisecondsAndReturnsTicks) {
  clearGlobalString();
  CaptureStdout();
  EXPECT_EQ(showElapsed("Undistortion (2x)", 0, 2500000), 2500000.0);
  const int64_t t0 = getTickCount();
  const int64_t t1 = getTickCount();
  EXPECT_EQ(showElapsed("Edges", (long)t0, (long)t0 + 1234), 1234.0);
  EXPECT_EQ(GetCapturedStdout(), "");  // nothing goes to stdout
  EXPECT_EQ(std::string(m_global_output_string),
            "Undistortion (2x) - elapsed [ms]: 2.500000\n"
            "Edges - elapsed [ms]: 0.001234\n");
  EXPECT_GE(t1, t0);
  EXPECT_EQ(getTickFrequency(), 1000.0);

  // An absurdly long label is cut, never written past the line buffer.
  std::string longLabel(5000, 'L');
  showElapsed(longLabel.c_str(), 0, 1);
  EXPECT_LT(m_global_output_string_counter, 1000u);

  const std::string path = tempPath("dump.txt");
  dumpGlobalStrToFile(path.c_str());
  EXPECT_EQ(readFile(path).substr(0, 43), "Undistortion (2x) - elapsed [ms]: 2.500000\n");
  EXPECT_GT(m_global_output_string_counter, 0u);  // the dump keeps the buffer
  remove(path.c_str());

  CaptureStdout();
  dumpGlobalStrToFile("/nonexistent-dir/zot/out.txt");
  EXPECT_EQ(GetCapturedStdout(), "ERROR: cannot open /nonexistent-dir/zot/out.txt for writing\n");
  clearGlobalString();
}

TEST(MatrixPrinters, PrintRowsWithTheirSeparatorsAndBytesAsNumbers) {
  const double d[6] = {1, 2.5, -3, 4, 1e-7, 123456789};
  const float f[2] = {0.5f, -2.25f};
  const int i[4] = {1, -2, 3, 40};
  const short s[3] = {-32768, 0, 32767};
  const signed char sc[2] = {-5, 65};
  const unsigned char uc[2] = {65, 200};
  CaptureStdout();
  print_matrix("A", d, 2, 3);
  print_matrix_float("f", f, 1, 2);
  print_matrix_int("I", i, 2, 2);
  print_matrix_short("s", s, 3, 1);
  print_matrix_signed_char("sc", sc, 1, 2);
  print_matrix_unsigned_char("uc", uc, 1, 2);
  print_matrix("empty", d, 0, 3);
  EXPECT_EQ(GetCapturedStdout(),
            "A = [1 2.5 -3 ;...\n4 1e-07 1.23457e+08 ];\n"
            "f = [0.5 -2.25 ];\n"
            "I = [1 -2 ;...\n3 40 ];\n"
            "s = [-32768 ;...\n0 ;...\n32767 ];\n"
            "sc = [-5 65 ];\n"
            "uc = [65 200 ];\n"
            "empty = [");
}

TEST(RawFiles, ImagesAndMatricesRoundTrip) {
  // A 3-channel image read back as grey fills only width x height bytes.
  const int w = 5, h = 3;
  std::vector<unsigned char> colour(w * h * 3);
  for (size_t k = 0; k < colour.size(); k++) colour[k] = (unsigned char)(k * 7 + 1);
  const std::string imagePath = tempPath("image.raw");
  saveImage(imagePath.c_str(), colour.data(), w, h, 3);
  const std::string bytes = readFile(imagePath);
  ASSERT_EQ(bytes.size(), 12u + colour.size());
  int header[3];
  memcpy(header, bytes.data(), 12);
  EXPECT_EQ(header[0], w);
  EXPECT_EQ(header[1], h);
  EXPECT_EQ(header[2], 3);

  std::vector<unsigned char> back(w * h * 3, 0xEE);
  EXPECT_EQ(loadImage(imagePath.c_str(), back.data(), w, h), 0);
  for (int k = 0; k < w * h; k++) ASSERT_EQ(back[k], colour[k]);
  for (size_t k = w * h; k < back.size(); k++) ASSERT_EQ(back[k], 0xEE);

  // Matrices come back bit for bit, NaN and -0.0 included.
  const double m[6] = {1.0 / 3.0, -0.0, std::nan(""), 1e300, -5e-324, 42};
  const std::string matrixPath = tempPath("matrix.raw");
  save_matrix(matrixPath.c_str(), m, 2, 3);
  EXPECT_EQ(readFile(matrixPath).size(), 8u + sizeof(m));
  double mb[6];
  EXPECT_EQ(load_matrix(matrixPath.c_str(), mb, 2, 3), 0);
  EXPECT_EQ(memcmp(m, mb, sizeof(m)), 0);

  // A file that cannot be opened leaves the buffer untouched.
  unsigned char guard[4] = {1, 2, 3, 4};
  CaptureStdout();
  EXPECT_EQ(loadImage("/nonexistent-dir/none.raw", guard, 2, 2), -1);
  EXPECT_EQ(load_matrix("/nonexistent-dir/none.raw", mb, 2, 3), -1);
  saveImage("/nonexistent-dir/none.raw", guard, 2, 2, 1);
  EXPECT_EQ(GetCapturedStdout(),
            "ERROR: cannot open /nonexistent-dir/none.raw\n"
            "ERROR: cannot open /nonexistent-dir/none.raw\n"
            "ERROR: cannot open /nonexistent-dir/none.raw\n");
  EXPECT_EQ(guard[0], 1);
  EXPECT_EQ(memcmp(m, mb, sizeof(m)), 0);

  // A file shorter than asked for is reported; what it holds is read.
  std::vector<unsigned char> big(w * h * 4, 0);
  CaptureStdout();
  EXPECT_EQ(loadImage(imagePath.c_str(), big.data(), w * 2, h * 2), 0);
  EXPECT_NE(GetCapturedStdout().find("WARNING: short read from"), std::string::npos);
  EXPECT_EQ(big[0], colour[0]);
  remove(imagePath.c_str());
  remove(matrixPath.c_str());
}

TEST(DebugWindows, WithoutADisplayOneLineIsPrintedAndNothingBlocks) {
  unsetenv("DISPLAY");
  unsetenv("QT_QPA_PLATFORM");
  unsigned char image[12] = {0};
  CaptureStdout();
  showImage("bad", image, 2, 2, 4);
  EXPECT_EQ(GetCapturedStdout(), "undefined image type\n");

  CaptureStdout();
  createWindow("tracking0", ZOT_WINDOW_AUTOSIZE);
  showImage("tracking0", image, 2, 2, 3);
  const int key = waitKey(0);  // must not block
  destroyWindow("tracking0");
  destroyAllWindows();
  const std::string out = GetCapturedStdout();
  EXPECT_EQ(key, -1);
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
  EXPECT_EQ(out.rfind("WARNING: ", 0), 0u) << out;
  EXPECT_NE(out.find("debug windows are not shown"), std::string::npos);
  EXPECT_FALSE(opencv_displayAvailable());
}
