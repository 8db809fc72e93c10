#include "tool_runner.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

namespace zot_test {

CommandResult runCommand(const std::string& command, const std::string& logStem) {
  CommandResult r;
  const std::string full = "(" + command + ") >" + logStem + ".out 2>" + logStem + ".err";
  const int raw = std::system(full.c_str());
  if (raw != -1 && WIFEXITED(raw)) r.status = WEXITSTATUS(raw);
  r.out = readText(logStem + ".out");
  r.err = readText(logStem + ".err");
  return r;
}

namespace {

class ScratchCleanup : public testing::Environment {
 public:
  explicit ScratchCleanup(std::string path) : m_path(std::move(path)) {}
  void TearDown() override {
    if (!testing::UnitTest::GetInstance()->Failed()) {
      EXPECT_EQ(std::system(("rm -rf '" + m_path + "'").c_str()), 0);
    }
  }

 private:
  std::string m_path;
};

}  // namespace

std::string processScratchDirectory(const std::string& parent, const std::string& name) {
  const std::string path = parent + "/" + name + "/" + std::to_string(getpid());
  testing::AddGlobalTestEnvironment(new ScratchCleanup(path));
  return path;
}

void freshDirectory(const std::string& path) {
  const std::string command = "rm -rf '" + path + "' && mkdir -p '" + path + "'";
  if (std::system(command.c_str()) != 0) return;
}

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::vector<std::string> splitCsvLine(const std::string& line) {
  std::vector<std::string> fields(1);
  bool quoted = false;
  for (char c : line) {
    if (c == '"') {
      quoted = !quoted;
    } else if (c == ',' && !quoted) {
      fields.emplace_back();
    } else if (c != '\r' && c != '\n') {
      fields.back() += c;
    }
  }
  return fields;
}

bool readPosesCsv(const std::string& path, std::vector<TrackedFrame>& frames, std::string& error) {
  std::ifstream in(path);
  std::string line;
  std::vector<std::string> header;
  if (std::getline(in, line)) header = splitCsvLine(line);
  if (header.size() < 20 || header[0] != "frame" || header[3] != "message" || header[4] != "T00" ||
      header[19] != "T33") {
    error = path + ": missing, empty or with an unexpected header";
    return false;
  }
  frames.clear();
  while (std::getline(in, line)) {
    const std::vector<std::string> f = splitCsvLine(line);
    if (f.size() != header.size()) {
      error = path + ": row with " + std::to_string(f.size()) + " fields: " + line;
      return false;
    }
    TrackedFrame t;
    t.frame = std::atoi(f[0].c_str());
    t.time = std::atof(f[1].c_str());
    t.status = std::atoi(f[2].c_str());
    t.message = f[3];
    t.hasPose = !f[4].empty();
    for (int k = 0; k < 16 && t.hasPose; k++) t.pose[k] = std::atof(f[4 + k].c_str());
    frames.push_back(t);
  }
  return true;
}

}  // namespace zot_test
