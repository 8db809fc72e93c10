// zot_render's options each change the images as its help says, compared
// with the same short render without them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "scene_config.h"
#include "tool_runner.h"

namespace {

const std::string kTools = ZOT_TOOLS_DIR;
const std::string kDir = kTools + "/render_options/" + std::to_string(getpid());
constexpr int kFrames = 12;

struct Image {
  int width = 0, height = 0;
  std::string pixels;
  int at(int x, int y) const { return (unsigned char)pixels[(size_t)y * width + x]; }
  bool object(int x, int y) const { return at(x, y) > 55; }
};

void forPixels(const Image& img, int border, const std::function<void(int, int)>& f) {
  for (int y = border; y < img.height - border; y++)
    for (int x = border; x < img.width - border; x++) f(x, y);
}

// The short mono sequence, plain table, no blur or noise, with `options`.
std::vector<Image> render(const std::string& name, const std::string& options) {
  const std::string dir = kDir + "/" + name;
  const zot_test::CommandResult r = zot_test::runCommand(
      kTools + "/zot_render -q --config " ZOT_DATA_DIR " --camera camera_mono.txt --scale 0.25"
               " --background plain --noise 0 --blur 0 --format pgm --frames " +
          std::to_string(kFrames) + " " + options + " " + dir,
      dir + "_log");
  std::vector<Image> frames(kFrames);
  for (int i = 0; i < kFrames; i++) {
    char file[32];
    snprintf(file, sizeof file, "/cam0/%06d.pgm", i);
    const std::string text = zot_test::readText(dir + file);
    int header = 0;
    sscanf(text.c_str(), "P5 %d %d 255%n", &frames[i].width, &frames[i].height, &header);
    frames[i].pixels = text.substr(std::min(text.size(), (size_t)header + 1));
    if (r.status != 0 || frames[i].pixels.size() != (size_t)frames[i].width * frames[i].height) {
      ADD_FAILURE() << dir + file << " " << r.err;
      return {};
    }
  }
  return frames;
}

}  // namespace

TEST(RenderOptions, TextureOccluderAndLightingChangeTheImagesAsDocumented) {
  if (!zot_sim::pathExists(kTools + "/zot_render")) GTEST_SKIP() << "zot_render needs OpenCV";
  zot_test::freshDirectory(kDir);
  const std::vector<Image> plain = render("plain", ""), textured = render("texture", "--texture"),
                           occluded = render("occluder", "--occluder 0.4"),
                           lit = render("lighting", "--lighting 0.3");
  for (const auto* frames : {&plain, &textured, &occluded, &lit})
    ASSERT_EQ(frames->size(), (size_t)kFrames);
  // The texture adds edges on the object and changes nothing away from it.
  for (int i = 0; i < kFrames; i += 5) {
    const Image &p = plain[i], &t = textured[i];
    int edges[2] = {0, 0}, changedOffObject = 0;
    forPixels(p, 2, [&](int x, int y) {
      bool inside = true, near = false;
      for (int d = -2; d <= 2; d++) inside = inside && p.object(x + d, y) && p.object(x, y + d);
      for (int d = -1; d <= 1; d++) near = near || p.object(x + d, y) || p.object(x, y + d);
      changedOffObject += !near && t.at(x, y) != p.at(x, y);
      for (int k = 0; k < 2; k++) {
        const Image& img = k ? t : p;
        edges[k] += inside && std::abs(img.at(x + 1, y) - img.at(x - 1, y)) +
                                      std::abs(img.at(x, y + 1) - img.at(x, y - 1)) >
                                  60;
      }
    });
    EXPECT_GT(edges[1], 1.4 * edges[0]) << "frame " << i;
    EXPECT_EQ(changedOffObject, 0) << "frame " << i;
  }

  // The occluder covers the object in a grey of its own and moves.
  double leftmost = 1e9, rightmost = -1e9;
  int framesOverObject = 0;
  for (int i = 0; i < kFrames; i++) {
    const Image &p = plain[i], &o = occluded[i];
    std::vector<int> histogram(256, 0);
    int changed = 0, overObject = 0, nearMode = 0;
    double sumX = 0.0;
    forPixels(p, 0, [&](int x, int y) {
      if (std::abs(o.at(x, y) - p.at(x, y)) < 3) return;
      changed++, overObject += p.object(x, y), histogram[o.at(x, y)]++, sumX += x;
    });
    if (changed == 0) continue;
    framesOverObject += overObject > 20;
    const int mode = (int)(std::max_element(histogram.begin(), histogram.end()) - histogram.begin());
    for (int g = std::max(0, mode - 10); g <= std::min(255, mode + 10); g++) nearMode += histogram[g];
    EXPECT_GT(nearMode, 0.7 * changed) << "frame " << i;
    leftmost = std::min(leftmost, sumX / changed);
    rightmost = std::max(rightmost, sumX / changed);
  }
  EXPECT_GE(framesOverObject, 2);
  EXPECT_GT(rightmost - leftmost, 10.0);

  // The lighting: the mean grey rises and falls, the highlight moves right.
  double lowest = 1e9, highest = 0.0;
  int brightestColumn[kFrames];
  for (int i = 0; i < kFrames; i++) {
    double sumLit = 0.0, sumPlain = 0.0;
    int best = -256;
    forPixels(lit[i], 0, [&](int x, int y) {
      const int added = lit[i].at(x, y) - plain[i].at(x, y);
      sumLit += lit[i].at(x, y), sumPlain += plain[i].at(x, y);
      if (!plain[i].object(x, y) && added > best) best = added, brightestColumn[i] = x;
    });
    lowest = std::min(lowest, sumLit / sumPlain);
    highest = std::max(highest, sumLit / sumPlain);
  }
  EXPECT_GT(highest, 1.2);
  EXPECT_LT(lowest, 0.95);
  EXPECT_LT(brightestColumn[0], lit[0].width / 3);
  EXPECT_GT(brightestColumn[kFrames - 1], 2 * lit[0].width / 3);
  if (!HasFailure()) {
    EXPECT_EQ(std::system(("rm -rf '" + kDir + "'").c_str()), 0);
  }
}
