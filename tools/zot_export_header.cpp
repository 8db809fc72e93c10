// zot_export_header: turns a camera, a tracker and a model file into the
// setup array and writes it as global_array_declaration.h, for hosts that
// compile their configuration in instead of reading files at run time.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "FileParser.h"

namespace {

const char* const kUsage =
    "usage: zot_export_header [options]\n"
    "\n"
    "Parses a camera, a tracker and a model file (and the polyhedron and polyline\n"
    "files the model names) into the tracker's setup array and writes it as\n"
    "OUT/global_array_declaration.h, which declares setup_global_array_counter and\n"
    "setup_global_array for GenericObjectTracker::setupFromGlobalArray. Values are\n"
    "written with six decimals.\n"
    "\n"
    "options:\n"
    "  --config-dir DIR   directory of the configuration files (default: .)\n"
    "  --camera FILE      camera file in DIR (default: camera_stereo.txt)\n"
    "  --tracker FILE     tracker file in DIR (default: tracker.txt)\n"
    "  --model FILE       model file in DIR (default: model_chamfered_box.txt)\n"
    "  --out DIR          directory to write the header to; must exist (default: .)\n"
    "  -h, --help         this text\n"
    "\n"
    "Exit status: 0 on success, 1 when a file does not parse or the header cannot\n"
    "be written, 2 on bad arguments.\n";

// First capacity tried for the setup array; doubled while a model needs more.
constexpr int kInitialCapacity = 1 << 20;
constexpr int kLargestCapacity = 1 << 28;

struct Options {
  std::string configDir = ".";
  std::string camera = "camera_stereo.txt";
  std::string tracker = "tracker.txt";
  std::string model = "model_chamfered_box.txt";
  std::string out = ".";
};

[[noreturn]] void fail(const std::string& message) {
  fprintf(stderr, "zot_export_header: error: %s\n", message.c_str());
  exit(1);
}

[[noreturn]] void usageError(const std::string& message) {
  fprintf(stderr, "zot_export_header: %s\n(see zot_export_header --help)\n", message.c_str());
  exit(2);
}

Options parseArguments(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; i++) {
    const std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      fputs(kUsage, stdout);
      exit(0);
    }
    std::string* target = nullptr;
    if (arg == "--config-dir") target = &o.configDir;
    if (arg == "--camera") target = &o.camera;
    if (arg == "--tracker") target = &o.tracker;
    if (arg == "--model") target = &o.model;
    if (arg == "--out") target = &o.out;
    if (target == nullptr) usageError("unknown argument '" + arg + "'");
    if (i + 1 >= argc || argv[i + 1][0] == '\0') usageError(arg + " needs a value");
    *target = argv[++i];
  }
  return o;
}

bool isDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The header as written, or an empty string when it cannot be read.
std::string readFile(const std::string& path) {
  std::string text;
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return text;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, f)) > 0) text.append(buffer, n);
  fclose(f);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parseArguments(argc, argv);
  if (!isDirectory(o.configDir)) fail("configuration directory '" + o.configDir + "' not found");
  if (!isDirectory(o.out)) fail("output directory '" + o.out + "' not found");

  ZOTtracker::FileParser parser;
  std::vector<double> array;
  int count = 0, code = 0;
  for (int capacity = kInitialCapacity;; capacity *= 2) {
    array.assign((size_t)capacity, 0.0);
    code = parser.parseAllFiles(o.configDir.c_str(), o.camera.c_str(), o.tracker.c_str(),
                                o.model.c_str(), count, array.data(), capacity);
    // A full array is the only failure a larger one can cure.
    if (code == 0 || count < capacity || capacity >= kLargestCapacity) break;
  }
  if (code != 0)
    fail("the configuration in '" + o.configDir + "' does not parse (code " + std::to_string(code) +
         ", see the message above)");

  const std::string path = o.out + "/global_array_declaration.h";
  remove(path.c_str());
  parser.createGlobalArrayHeaderFile(o.out.c_str(), count, array.data());
  // The writer reports problems only on standard output: check the result.
  const std::string text = readFile(path);
  const std::string head =
      "const int setup_global_array_counter = " + std::to_string(count) + ";\n";
  if (text.compare(0, head.size(), head) != 0 || text.size() < 4 ||
      text.compare(text.size() - 4, 4, " };\n") != 0)
    fail("could not write '" + path + "'");
  printf("wrote %d values to %s\n", count, path.c_str());
  return 0;
}
