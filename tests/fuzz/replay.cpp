// Replays the fuzz corpus through every harness's entry point, in the normal
// build: zot_fuzz_replay <corpus directory> runs each file of
// <corpus>/<harness>/ through that harness, with the library's messages sent
// to /dev/null, and prints how many inputs each harness took and how long.
// A crash, hang or sanitizer report fails the run.
//
// zot_fuzz_replay --seeds <data directory> <corpus directory> writes the
// setup harness's seeds: the arrays of data/'s configurations with a few
// frames each.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "FileParser.h"

extern "C" int zotFuzzConfig(const uint8_t* data, size_t size);
extern "C" int zotFuzzSetup(const uint8_t* data, size_t size);
#ifdef ZOT_FUZZ_MESH
extern "C" int zotFuzzMesh(const uint8_t* data, size_t size);
extern "C" int zotFuzzReaders(const uint8_t* data, size_t size);
#endif

namespace fs = std::filesystem;

namespace {

struct Harness {
  const char* name;
  int (*entry)(const uint8_t*, size_t);
};
const Harness kHarnesses[] = {{"config", zotFuzzConfig},
                              {"setup", zotFuzzSetup},
#ifdef ZOT_FUZZ_MESH
                              {"mesh", zotFuzzMesh},
                              {"readers", zotFuzzReaders}
#endif
};

int replay(const fs::path& corpus) {
  for (const Harness& h : kHarnesses) {
    std::vector<fs::path> files;
    if (fs::is_directory(corpus / h.name))
      for (const auto& e : fs::directory_iterator(corpus / h.name))
        if (e.is_regular_file()) files.push_back(e.path());
    std::sort(files.begin(), files.end());
    const auto start = std::chrono::steady_clock::now();
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    for (const fs::path& f : files) {
      std::ifstream in(f, std::ios::binary);
      const std::string bytes((std::istreambuf_iterator<char>(in)),
                              std::istreambuf_iterator<char>());
      h.entry(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(null);
    close(saved);
    const double s =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    printf("%s: %zu inputs replayed in %.2f s\n", h.name, files.size(), s);
    if (files.empty()) return 1;  // a missing corpus is a broken set-up, not a pass
  }
  return 0;
}

// The array of a configuration of data/ (images a quarter the size) as
// text, then frames: the first
// starts a track in front of the tool; the others go on, one with time
// running backwards.
int writeSeeds(const fs::path& data, const fs::path& corpus) {
  const char* cameras[] = {"camera_mono.txt", "camera_stereo.txt"};
  const char* models[] = {"model_chamfered_box.txt", "model_l_bracket.txt"};
  fs::create_directories(corpus / "setup");
  int n = 0;
  for (const char* camera : cameras) {
    for (const char* model : models) {
      std::vector<double> a(100000);
      int count = 0;
      ZOTtracker::FileParser parser;
      if (parser.parseAllFiles(data.c_str(), camera, "tracker.txt", model, count, a.data(),
                               (int)a.size()) != 0)
        return 1;
      // Quarter-size images keep each run short; the cameras of data/ have
      // no masks, so each takes 27 values.
      for (int c = 0; c < (int)a[0]; c++)
        for (int k : {0, 1, 4, 5, 6, 7}) a[1 + 27 * c + k] /= 4.0;
      std::ostringstream s;
      s.precision(12);
      for (int i = 0; i < count; i++) s << a[i] << (i % 12 == 11 ? '\n' : ' ');
      s << "\n%%%\n3 0 1\n3 0.04 0\n2 0.08 0\n1 0.02 0\n0 0.12 0\n";
      std::ofstream(corpus / "setup" / ("seed_" + std::to_string(n++))) << s.str();
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "--seeds") return writeSeeds(argv[2], argv[3]);
  if (argc != 2) {
    fprintf(stderr, "usage: %s <corpus directory> | --seeds <data directory> <corpus directory>\n",
            argv[0]);
    return 2;
  }
  return replay(argv[1]);
}
