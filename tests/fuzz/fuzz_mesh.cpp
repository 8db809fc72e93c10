// Fuzz harness: the mesh importer, run as a user runs it, on a mesh file and
// options of the input's choosing. The input's first line holds the format
// ("obj" or "stl") and up to eight options (--scale 1000, --flat, ...); the
// rest is the file. The tool's own main runs in this process: its failures
// end in exit(), which the link redirects (-Wl,--wrap=exit) into an exception
// while the tool runs, so that a refused input returns here.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

// A refused input leaves the tool through an exception that the compiler
// does not expect from exit(), so the temporaries on the way are not freed:
// harmless in a program that ends there, but no leak to report here.
#if defined(__SANITIZE_ADDRESS__)
#define ZOT_FUZZ_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZOT_FUZZ_LSAN 1
#endif
#endif
#ifdef ZOT_FUZZ_LSAN
#include <sanitizer/lsan_interface.h>
#endif

#include "fuzz_support.h"

#define main zotMesh2polyMain
#include "../../tools/zot_mesh2poly.cpp"
#undef main

#ifndef ZOT_FUZZ_ENTRY
#define ZOT_FUZZ_ENTRY LLVMFuzzerTestOneInput
#endif

namespace {

bool g_inTool = false;
struct ToolExit {
  int status;
};

}  // namespace

extern "C" [[noreturn]] void __real_exit(int status);
extern "C" [[noreturn]] void __wrap_exit(int status) {
  if (g_inTool) throw ToolExit{status};
  __real_exit(status);
}

extern "C" int ZOT_FUZZ_ENTRY(const uint8_t* data, size_t size) {
  if (size > 100000) return 0;
  const std::string all(reinterpret_cast<const char*>(data), size);
  const size_t eol = all.find('\n');
  std::istringstream head(all.substr(0, eol));
  std::vector<std::string> args;
  std::string format, word;
  head >> format;
  const std::string dir = zot_fuzz::scratchDirectory();
  const std::string input = dir + (format == "stl" ? "/in.stl" : "/in.obj");
  const std::string output = dir + "/out.txt";
  args.push_back("zot_mesh2poly");
  args.push_back("--quiet");
  while (head >> word && args.size() < 10) args.push_back(word);
  args.push_back(input);
  args.push_back(output);
  const std::string file = eol != std::string::npos ? all.substr(eol + 1) : std::string();
  zot_fuzz::writeFile(input, file.data(), file.size());
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  g_inTool = true;
#ifdef ZOT_FUZZ_LSAN
  __lsan_disable();
#endif
  try {
    zotMesh2polyMain((int)args.size(), argv.data());
  } catch (const ToolExit&) {
  }
#ifdef ZOT_FUZZ_LSAN
  __lsan_enable();
#endif
  g_inTool = false;
  remove(output.c_str());
  return 0;
}
