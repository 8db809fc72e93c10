// zot_export_header: turns a camera, a tracker and a model file into the
// setup array and writes it as global_array_declaration.h, for hosts that
// compile their configuration in instead of reading files at run time.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "FileParser.h"
#include "command_line.h"
#include "scene_config.h"

namespace fs = std::filesystem;

namespace {

// First capacity tried for the setup array; doubled while a model needs more.
constexpr int kInitialCapacity = 1 << 20;
constexpr int kLargestCapacity = 1 << 28;

[[noreturn]] void fail(const std::string& message) {
  fprintf(stderr, "zot_export_header: error: %s\n", message.c_str());
  exit(1);
}

[[noreturn]] void usageError(const std::string& message) {
  zot_sim::usageError("zot_export_header", message);
}

}  // namespace

int main(int argc, char** argv) {
  std::string configDir = ".", camera = "camera.txt", tracker = "tracker.txt", model = "model.txt",
              out = ".";
  CLI::App app;
  app.name("zot_export_header");
  app.get_formatter()->label("Usage", "usage");
  app.get_formatter()->label("OPTIONS", "options");
  app.footer(
      "Parses a camera, a tracker and a model file (and the polyhedron and polyline\n"
      "files the model names) into the tracker's setup array and writes it as\n"
      "OUT/global_array_declaration.h, which declares setup_global_array_counter and\n"
      "setup_global_array for GenericObjectTracker::setupFromGlobalArray. Values are\n"
      "written with six decimals.\n\n"
      "Exit status: 0 on success, 1 when a file does not parse or the header cannot\n"
      "be written, 2 on bad arguments.");
  app.allow_extras();
  // A repeated option counts with its last value, as in most programs.
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  const CLI::Validator nonEmpty(
      [](std::string& s) { return s.empty() ? std::string("needs a value") : std::string(); }, "");
  // Every option names a file or a directory: an empty value is refused.
  auto option = [&](const char* name, std::string& value, const char* help, const char* type) {
    app.add_option(name, value, help)->type_name(type)->check(nonEmpty);
  };
  option("--config,--config-dir", configDir, "directory of the configuration files (default: .)",
         "DIR");
  option("--camera", camera, "camera file in DIR (default: camera.txt)", "FILE");
  option("--tracker", tracker, "tracker file in DIR (default: tracker.txt)", "FILE");
  option("--model", model, "model file in DIR (default: model.txt)", "FILE");
  option("--out", out, "directory to write the header to; must exist (default: .)", "DIR");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ArgumentMismatch& e) {  // "--out: 1 required DIR missing"
    const std::string what = e.what();
    usageError(what.substr(0, what.find(':')) + " needs a value");
  } catch (const CLI::ParseError& e) {
    usageError(e.what());
  }
  if (!app.remaining().empty()) usageError("unknown argument '" + app.remaining()[0] + "'");
  if (!fs::is_directory(configDir)) fail("configuration directory '" + configDir + "' not found");
  if (!fs::is_directory(out)) fail("output directory '" + out + "' not found");

  ZOTtracker::FileParser parser;
  std::vector<double> array;
  int count = 0, code = 0;
  for (int capacity = kInitialCapacity;; capacity *= 2) {
    array.assign((size_t)capacity, 0.0);
    code = parser.parseAllFiles(configDir.c_str(), camera.c_str(), tracker.c_str(), model.c_str(),
                                count, array.data(), capacity);
    // A full array is the only failure a larger one can cure.
    if (code == 0 || count < capacity || capacity >= kLargestCapacity) break;
  }
  if (code != 0)
    fail("the configuration in '" + configDir + "' does not parse (code " + std::to_string(code) +
         ", see the message above)");
  // The parser takes "6l2.43" as 6 and wraps large integers; refuse such files.
  std::string error;
  if (!zot_sim::checkConfigFilesStrictly(configDir, camera, tracker, model, error))
    fail("malformed configuration: " + error);

  const std::string path = out + "/global_array_declaration.h";
  std::error_code ignored;
  fs::remove(path, ignored);
  parser.createGlobalArrayHeaderFile(out.c_str(), count, array.data());
  // The writer reports problems only on standard output: read the result back.
  std::vector<double> written;
  if (!zot_sim::readSetupHeader(path, written, error) || (int)written.size() != count)
    fail("could not write '" + path + "'");
  printf("wrote %d values to %s\n", count, path.c_str());
  return 0;
}
