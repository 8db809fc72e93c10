// zot_eval: the table of tracking quality over a set of scenes. Reads each
// run's poses.csv (written by zot_track with --truth), prints one row per
// scene and tracker setting, writes the rows as CSV and one plot per scene
// of the error over the frames.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "scene_config.h"

namespace fs = std::filesystem;

namespace {

// One tracked frame as the plots need it.
struct Frame {
  int status = 0;
  double errorT = NAN, errorR = NAN, ms = NAN;
};

// One row of the table: a scene tracked with one setting.
struct Row {
  std::string scene, setting, cameras, sceneDir, runDir, message;
  std::vector<Frame> frames;
  double size = 0.0;
};

// Splits a CSV line; fields in double quotes may hold commas ("" is a quote).
std::vector<std::string> splitCsv(const std::string& line) {
  std::vector<std::string> fields(1);
  bool quoted = false;
  for (size_t i = 0; i < line.size(); i++) {
    const char c = line[i];
    if (quoted && c == '"' && i + 1 < line.size() && line[i + 1] == '"') {
      fields.back() += '"';
      i++;
    } else if (c == '"') {
      quoted = !quoted;
    } else if (c == ',' && !quoted) {
      fields.emplace_back();
    } else if (c != '\r') {
      fields.back() += c;
    }
  }
  return fields;
}

double number(const std::string& text) {
  if (text.empty()) return NAN;
  char* end = nullptr;
  const double v = std::strtod(text.c_str(), &end);
  return *end == '\0' ? v : NAN;
}

// Reads poses.csv of a run; false with the reason in row.message.
bool readRun(Row& row) {
  const std::string path = row.runDir + "/poses.csv";
  std::ifstream in(path);
  std::string line;
  if (!in || !std::getline(in, line)) {
    row.message = "no " + path;
    return false;
  }
  const std::vector<std::string> header = splitCsv(line);
  std::map<std::string, size_t> column;
  for (size_t i = 0; i < header.size(); i++) column[header[i]] = i;
  for (const char* name : {"status", "error_translation", "error_rotation_deg", "time_ms"}) {
    if (!column.count(name)) {
      row.message = path + ": no column " + name;
      return false;
    }
  }
  for (int lineNo = 2; std::getline(in, line); lineNo++) {
    if (line.empty()) continue;
    const std::vector<std::string> f = splitCsv(line);
    if (f.size() != header.size()) {
      row.message = path + ":" + std::to_string(lineNo) + ": " + std::to_string(f.size()) +
                    " fields, " + std::to_string(header.size()) + " expected";
      return false;
    }
    Frame frame;
    frame.status = (int)number(f[column["status"]]);
    frame.errorT = number(f[column["error_translation"]]);
    frame.errorR = number(f[column["error_rotation_deg"]]);
    frame.ms = number(f[column["time_ms"]]);
    row.frames.push_back(frame);
  }
  return true;
}

// The q-quantile of the values, NAN for none.
double quantile(std::vector<double> v, double q) {
  return v.empty() ? NAN : zot_sim::quantile(v, q);
}

// The figures of a row, in the order of the table's columns.
struct Figures {
  int frames = 0, tracked = 0;
  std::string failures;  // "code x count ..." or "-"
  double meanT = NAN, maxT = NAN, meanR = NAN, maxR = NAN, percent = NAN, medianMs = NAN,
         p95Ms = NAN;
  // Tracked frames off by more than kBadFit of the object's size: fits a
  // host would take as good although they are not.
  int badFits = 0;
};

constexpr double kBadFit = 0.02;

Figures figures(const Row& row) {
  Figures f;
  f.frames = (int)row.frames.size();
  std::map<int, int> failed;
  std::vector<double> ms;
  double sumT = 0.0, sumR = 0.0;
  int withError = 0;
  for (const Frame& fr : row.frames) {
    if (std::isfinite(fr.ms)) ms.push_back(fr.ms);
    if (fr.status != 0) {
      failed[fr.status]++;
      continue;
    }
    f.tracked++;
    if (!std::isfinite(fr.errorT) || !std::isfinite(fr.errorR)) continue;
    withError++;
    if (row.size > 0.0 && fr.errorT > kBadFit * row.size) f.badFits++;
    sumT += fr.errorT;
    sumR += fr.errorR;
    f.maxT = std::isfinite(f.maxT) ? std::max(f.maxT, fr.errorT) : fr.errorT;
    f.maxR = std::isfinite(f.maxR) ? std::max(f.maxR, fr.errorR) : fr.errorR;
  }
  if (withError > 0) {
    f.meanT = sumT / withError;
    f.meanR = sumR / withError;
    if (row.size > 0.0) f.percent = 100.0 * f.meanT / row.size;
  }
  for (auto it = failed.rbegin(); it != failed.rend(); ++it)
    f.failures += (f.failures.empty() ? "" : " ") + std::to_string(it->first) + "x" +
                  std::to_string(it->second);
  if (f.failures.empty()) f.failures = "-";
  f.medianMs = quantile(ms, 0.5);
  f.p95Ms = quantile(ms, 0.95);
  return f;
}

std::string fixed(double v, int decimals) {
  return std::isfinite(v) ? cv::format("%.*f", decimals, v) : "-";
}

// Error over the frames, one line per setting, failed frames as ticks
// under the axis; values above the scale are drawn at its top.
void plotScene(const std::vector<const Row*>& rows, const std::string& path) {
  const int W = 1000, panelH = 260, left = 70, right = 190, top = 60, gap = 50;
  const int H = top + 2 * panelH + gap + 40;
  cv::Mat img(H, W, CV_8UC3, cv::Scalar(255, 255, 255));
  const cv::Scalar colours[] = {{200, 80, 0},  {0, 120, 230}, {40, 160, 40},
                                {160, 0, 160}, {0, 0, 200},   {120, 120, 0}};
  const int font = cv::FONT_HERSHEY_SIMPLEX;
  cv::putText(img, rows.front()->scene + ": error against the truth per frame", {left, 25}, font,
              0.6, {0, 0, 0}, 1, cv::LINE_AA);
  int frames = 1;
  for (const Row* r : rows) frames = std::max(frames, (int)r->frames.size());
  for (int panel = 0; panel < 2; panel++) {
    // Translation error in % of the object's size, or rotation error in degrees.
    auto error = [panel](const Row& r, const Frame& f) {
      return panel == 0 ? 100.0 * f.errorT / std::max(r.size, 1e-9) : f.errorR;
    };
    const int y0 = top + panel * (panelH + gap), y1 = y0 + panelH;
    const int x0 = left, x1 = W - right;
    // Scale: 1.3 x the largest 90 % quantile, so that a lost frame does
    // not flatten everything else.
    double scale = panel == 0 ? 0.5 : 0.25;
    for (const Row* r : rows) {
      std::vector<double> v;
      for (const Frame& f : r->frames)
        if (f.status == 0 && std::isfinite(error(*r, f))) v.push_back(error(*r, f));
      if (!v.empty()) scale = std::max(scale, 1.3 * quantile(v, 0.9));
    }
    cv::rectangle(img, {x0, y0}, {x1, y1}, {0, 0, 0});
    for (int k = 0; k <= 4; k++) {
      const int y = y1 - k * panelH / 4;
      cv::line(img, {x0, y}, {x1, y}, {225, 225, 225});
      cv::putText(img, fixed(scale * k / 4, scale < 2 ? 2 : 1), {8, y + 4}, font, 0.4, {0, 0, 0}, 1,
                  cv::LINE_AA);
    }
    for (int k = 0; k <= 5; k++) {
      const int x = x0 + k * (x1 - x0) / 5;
      cv::putText(img, std::to_string(k * (frames - 1) / 5), {x - 8, y1 + 15}, font, 0.4, {0, 0, 0},
                  1, cv::LINE_AA);
    }
    cv::putText(img,
                panel == 0 ? "translation error [% of the object's size]" : "rotation error [deg]",
                {x0 + 5, y0 - 6}, font, 0.45, {0, 0, 0}, 1, cv::LINE_AA);
    for (size_t s = 0; s < rows.size(); s++) {
      const Row& r = *rows[s];
      const cv::Scalar colour = colours[s % 6];
      cv::Point previous(-1, -1);
      for (size_t i = 0; i < r.frames.size(); i++) {
        const Frame& f = r.frames[i];
        const int x = x0 + (int)std::lround((double)i * (x1 - x0) / std::max(1, frames - 1));
        const double e = error(r, f);
        if (f.status != 0 || !std::isfinite(e)) {
          cv::line(img, {x, y1 - 2 - 5 * (int)s}, {x, y1 - 6 - 5 * (int)s}, colour, 2);
          previous = {-1, -1};
          continue;
        }
        const cv::Point p(x, y1 - (int)std::lround(std::min(e, scale) / scale * panelH));
        if (previous.x >= 0) cv::line(img, previous, p, colour, 1, cv::LINE_AA);
        cv::circle(img, p, 1, colour, cv::FILLED);  // a lone tracked frame shows too
        previous = p;
      }
    }
  }
  for (size_t s = 0; s < rows.size(); s++) {
    const int y = top + 20 + 22 * (int)s;
    cv::line(img, {W - right + 15, y - 4}, {W - right + 40, y - 4}, colours[s % 6], 2);
    cv::putText(img, rows[s]->setting, {W - right + 46, y}, font, 0.45, {0, 0, 0}, 1, cv::LINE_AA);
  }
  cv::putText(img, "frame; ticks at the bottom: failed frames", {left, H - 10}, font, 0.45,
              {0, 0, 0}, 1, cv::LINE_AA);
  cv::imwrite(path, img);
}

}  // namespace

int main(int argc, char** argv) {
  std::string manifest, outDir = "out/eval";
  CLI::App app(
      "Tracking quality over a set of scenes: reads each run's poses.csv (zot_track with\n"
      "--truth), prints a table with a row per scene and tracker setting, writes it to\n"
      "OUT/eval.csv and a plot per scene to OUT/plots/SCENE.png.",
      "zot_eval");
  app.add_option("--manifest", manifest,
                 "one run per line, tab-separated: scene, setting, cameras, scene directory, "
                 "run directory (holding poses.csv), and an error message when the run failed")
      ->required()
      ->check(CLI::ExistingFile);
  app.add_option("--out", outDir, "output directory")->capture_default_str();
  app.footer(
      "Exit status: 0 when every run has its figures, 1 when a run failed or its "
      "poses.csv cannot be read, 2 on bad arguments.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return 0;
  } catch (const CLI::ParseError& e) {
    fprintf(stderr, "zot_eval: %s\n(zot_eval --help lists the options)\n", e.what());
    return 2;
  }

  std::vector<Row> rows;
  std::ifstream in(manifest);
  std::string line;
  for (int lineNo = 1; std::getline(in, line); lineNo++) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> f;
    std::stringstream ss(line);
    for (std::string field; std::getline(ss, field, '\t');) f.push_back(field);
    if (f.size() < 5) {
      fprintf(stderr,
              "zot_eval: %s:%d: expected scene, setting, cameras, scene and run "
              "directories separated by tabs\n",
              manifest.c_str(), lineNo);
      return 1;
    }
    Row r{f[0], f[1], f[2], f[3], f[4], f.size() > 5 ? f[5] : "", {}, 0.0};
    if (r.message.empty() && readRun(r)) {
      zot_sim::ModelConfig model;
      std::string error;
      if (zot_sim::loadModelFile(r.sceneDir, "model.txt", model, error) == 0)
        r.size = zot_sim::modelSize(model, nullptr);
    }
    rows.push_back(r);
  }

  std::error_code ec;
  fs::create_directories(fs::path(outDir) / "plots", ec);
  if (ec) {
    fprintf(stderr, "zot_eval: cannot create %s/plots: %s\n", outDir.c_str(), ec.message().c_str());
    return 1;
  }
  const std::string csvPath = outDir + "/eval.csv";
  FILE* csv = fopen(csvPath.c_str(), "w");
  if (csv == nullptr) {
    fprintf(stderr, "zot_eval: cannot write %s\n", csvPath.c_str());
    return 1;
  }
  fprintf(csv,
          "scene,setting,cameras,frames,tracked,failures,mean_error,max_error,"
          "mean_error_deg,max_error_deg,mean_error_percent,bad_fits,median_ms,p95_ms,message\n");
  printf("%-20s %-10s %4s %6s %7s %-24s %9s %9s %8s %8s %7s %4s %7s %7s\n", "scene", "setting",
         "cams", "frames", "tracked", "failures code x n", "mean err", "max err", "mean deg",
         "max deg", "mean %", "bad", "med ms", "p95 ms");
  bool allGood = true;
  for (const Row& r : rows) {
    std::string message = r.message;
    for (char& c : message) c = c == '"' ? '\'' : c;
    if (!r.message.empty()) {
      allGood = false;
      printf("%-20s %-10s %4s  FAILED: %s\n", r.scene.c_str(), r.setting.c_str(), r.cameras.c_str(),
             r.message.c_str());
      fprintf(csv, "%s,%s,%s,,,,,,,,,,,,\"%s\"\n", r.scene.c_str(), r.setting.c_str(),
              r.cameras.c_str(), message.c_str());
      continue;
    }
    const Figures f = figures(r);
    printf("%-20s %-10s %4s %6d %7d %-24s %9s %9s %8s %8s %7s %4d %7s %7s\n", r.scene.c_str(),
           r.setting.c_str(), r.cameras.c_str(), f.frames, f.tracked, f.failures.c_str(),
           fixed(f.meanT, 2).c_str(), fixed(f.maxT, 2).c_str(), fixed(f.meanR, 2).c_str(),
           fixed(f.maxR, 2).c_str(), fixed(f.percent, 2).c_str(), f.badFits,
           fixed(f.medianMs, 2).c_str(), fixed(f.p95Ms, 2).c_str());
    fprintf(csv, "%s,%s,%s,%d,%d,%s,%s,%s,%s,%s,%s,%d,%s,%s,\n", r.scene.c_str(), r.setting.c_str(),
            r.cameras.c_str(), f.frames, f.tracked, f.failures.c_str(), fixed(f.meanT, 4).c_str(),
            fixed(f.maxT, 4).c_str(), fixed(f.meanR, 4).c_str(), fixed(f.maxR, 4).c_str(),
            fixed(f.percent, 3).c_str(), f.badFits, fixed(f.medianMs, 3).c_str(),
            fixed(f.p95Ms, 3).c_str());
  }
  if (fclose(csv) != 0) {
    fprintf(stderr, "zot_eval: cannot write %s\n", csvPath.c_str());
    return 1;
  }
  // A plot per scene over the settings that ran.
  std::map<std::string, std::vector<const Row*>> ran;
  for (const Row& r : rows)
    if (r.message.empty()) ran[r.scene].push_back(&r);
  for (const auto& scene : ran) plotScene(scene.second, outDir + "/plots/" + scene.first + ".png");
  printf(
      "errors in model units and degrees over the tracked frames; failures by the "
      "library's code;\nbad: tracked frames off by more than 2 %% of the object's size (a fit "
      "that should have failed)\nwritten: %s, %s/plots/SCENE.png\n",
      csvPath.c_str(), outDir.c_str());
  return allGood ? 0 : 1;
}
