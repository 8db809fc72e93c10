/// @file
/// The host programs' command lines through CLI11, read one way in every tool.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace zot_sim {

/// Prints "<tool>: <message>" and where the options are listed to standard
/// error, and exits with status 2 (bad arguments).
[[noreturn]] inline void usageError(const std::string& tool, const std::string& message) {
  fprintf(stderr, "%s: %s\n(%s --help lists the options)\n", tool.c_str(), message.c_str(),
          tool.c_str());
  exit(2);
}

/// Parses the command line into `app`'s options: --help prints them and
/// exits with status 0; anything CLI11 refuses ends in usageError().
inline void parseCommandLine(CLI::App& app, int argc, char** argv, const std::string& tool) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    exit(app.exit(e));
  } catch (const CLI::ParseError& e) {
    usageError(tool, e.what());
  }
}

}  // namespace zot_sim
