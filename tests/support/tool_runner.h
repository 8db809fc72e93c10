// Running the host programs (zot_render, zot_track) from tests: shell
// commands with their output captured, fresh scratch directories, and the
// pose CSV that zot_track writes.
#pragma once

#include <string>
#include <vector>

namespace zot_test {

struct CommandResult {
  int status = -1;  // exit status, or -1 when the command did not exit normally
  std::string out, err;
};

// Runs `command` with /bin/sh; standard output and error are captured
// through files next to `logStem` (logStem.out, logStem.err).
CommandResult runCommand(const std::string& command, const std::string& logStem);

// `parent`/<name>/<process id>: a directory of this test process's own (ctest
// runs test processes side by side), removed at the end when every test
// passed and kept after a failure, for a look.
std::string processScratchDirectory(const std::string& parent, const std::string& name);

// Removes `path` with everything in it and creates it again, empty.
void freshDirectory(const std::string& path);

// Whole text of a file ("" when it cannot be read).
std::string readText(const std::string& path);

// One row of zot_track's poses.csv in matrix format.
struct TrackedFrame {
  int frame = -1;
  double time = 0.0;
  int status = 0;
  std::string message;
  bool hasPose = false;
  double pose[16] = {};
};

// Reads poses.csv (header checked: its first columns must be frame, time,
// status, message, T00 ... T33). Returns false with a reason.
bool readPosesCsv(const std::string& path, std::vector<TrackedFrame>& frames, std::string& error);

// Splits one CSV line; quoted fields lose their quotes.
std::vector<std::string> splitCsvLine(const std::string& line);

}  // namespace zot_test
