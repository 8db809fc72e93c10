// zot_render's options of real scenes change the images as its help says:
// the printed texture adds edges inside the object's faces and nowhere
// else, the occluder covers part of the object in a grey of its own and
// moves, the lighting changes the mean grey over the sequence and moves a
// highlight. Each is compared with the same short render without it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "scene_config.h"
#include "tool_runner.h"

namespace {

const std::string kTools = ZOT_TOOLS_DIR;
const std::string kData = ZOT_DATA_DIR;
const std::string kDir = kTools + "/render_options/" + std::to_string(getpid());
constexpr int kFrames = 12;

struct Image {
  int width = 0, height = 0;
  std::vector<unsigned char> pixels;
  int at(int x, int y) const { return pixels[(size_t)y * width + x]; }
};

// Reads a binary PGM as zot_render writes it ("P5 w h 255", one newline).
Image readPgm(const std::string& path) {
  Image img;
  std::ifstream in(path, std::ios::binary);
  std::string magic;
  int maxValue = 0;
  in >> magic >> img.width >> img.height >> maxValue;
  in.get();
  if (magic != "P5" || maxValue != 255 || img.width <= 0 || img.height <= 0) return Image{};
  img.pixels.resize((size_t)img.width * img.height);
  in.read(reinterpret_cast<char*>(img.pixels.data()), (std::streamsize)img.pixels.size());
  return in ? img : Image{};
}

// Renders the short mono sequence (160 x 120, plain table, no blur, no
// noise) with `options` added; returns its frames.
std::vector<Image> render(const std::string& name, const std::string& options) {
  const std::string dir = kDir + "/" + name;
  const zot_test::CommandResult r = zot_test::runCommand(
      kTools + "/zot_render -q --config " + kData +
          " --camera camera_mono.txt --scale 0.25 --background plain --noise 0 --blur 0"
          " --format pgm --frames " +
          std::to_string(kFrames) + " " + options + " " + dir,
      dir + "_log");
  EXPECT_EQ(r.status, 0) << r.err;
  std::vector<Image> frames;
  for (int i = 0; i < kFrames && r.status == 0; i++) {
    char file[32];
    snprintf(file, sizeof file, "/cam0/%06d.pgm", i);
    frames.push_back(readPgm(dir + file));
    EXPECT_FALSE(frames.back().pixels.empty()) << dir + file;
  }
  return frames;
}

// The object on the plain, dark table: brighter than any table grey.
bool onObject(const Image& plain, int x, int y) { return plain.at(x, y) > 55; }

// Strong gradients (central differences) at pixels whose 5 x 5
// neighbourhood lies on the object.
int edgesInsideObject(const Image& img, const Image& plain) {
  int count = 0;
  for (int y = 2; y < img.height - 2; y++) {
    for (int x = 2; x < img.width - 2; x++) {
      bool inside = true;
      for (int d = -2; d <= 2 && inside; d++)
        inside = onObject(plain, x + d, y) && onObject(plain, x, y + d);
      const int gx = img.at(x + 1, y) - img.at(x - 1, y), gy = img.at(x, y + 1) - img.at(x, y - 1);
      count += inside && std::abs(gx) + std::abs(gy) > 60;
    }
  }
  return count;
}

class RenderOptions : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!zot_sim::pathExists(kTools + "/zot_render")) return;
    zot_test::freshDirectory(kDir);
    plain_ = render("plain", "");
  }
  static void TearDownTestSuite() {
    if (!testing::UnitTest::GetInstance()->Failed()) {
      EXPECT_EQ(std::system(("rm -rf '" + kDir + "'").c_str()), 0);
    }
  }
  void SetUp() override {
    if (!zot_sim::pathExists(kTools + "/zot_render"))
      GTEST_SKIP() << "zot_render is built only with OpenCV";
    ASSERT_EQ(plain_.size(), (size_t)kFrames);
  }
  static std::vector<Image> plain_;
};
std::vector<Image> RenderOptions::plain_;

TEST_F(RenderOptions, TextureAddsEdgesInsideTheFacesOnly) {
  const std::vector<Image> textured = render("texture", "--texture");
  ASSERT_EQ(textured.size(), (size_t)kFrames);
  for (int i = 0; i < kFrames; i += 5) {
    const Image &p = plain_[i], &t = textured[i];
    EXPECT_GT(edgesInsideObject(t, p), 1.4 * edgesInsideObject(p, p)) << "frame " << i;
    int changedOffObject = 0;
    for (int y = 1; y < p.height - 1; y++) {
      for (int x = 1; x < p.width - 1; x++) {
        bool near = false;
        for (int d = -1; d <= 1; d++) near = near || onObject(p, x + d, y) || onObject(p, x, y + d);
        changedOffObject += !near && t.at(x, y) != p.at(x, y);
      }
    }
    EXPECT_EQ(changedOffObject, 0) << "frame " << i;
  }
}

TEST_F(RenderOptions, OccluderCoversPartOfTheObjectInItsOwnGreyAndMoves) {
  const std::vector<Image> occluded = render("occluder", "--occluder 0.4");
  ASSERT_EQ(occluded.size(), (size_t)kFrames);
  double leftmost = 1e9, rightmost = -1e9;  // of the changed pixels' mean column
  int framesOverObject = 0;
  for (int i = 0; i < kFrames; i++) {
    const Image &p = plain_[i], &o = occluded[i];
    // Pixels that the bar changed, its grey histogram and their mean column.
    std::vector<int> histogram(256, 0);
    int changed = 0, overObject = 0;
    double sumX = 0.0;
    for (int y = 0; y < p.height; y++) {
      for (int x = 0; x < p.width; x++) {
        if (std::abs(o.at(x, y) - p.at(x, y)) < 3) continue;
        changed++;
        overObject += onObject(p, x, y);
        histogram[o.at(x, y)]++;
        sumX += x;
      }
    }
    if (changed == 0) continue;
    framesOverObject += overObject > 20;
    // One grey of its own: most changed pixels within 10 levels of the mode.
    int mode = 0;
    for (int g = 0; g < 256; g++) mode = histogram[g] > histogram[mode] ? g : mode;
    int nearMode = 0;
    for (int g = std::max(0, mode - 10); g <= std::min(255, mode + 10); g++)
      nearMode += histogram[g];
    EXPECT_GT(nearMode, 0.7 * changed) << "frame " << i;
    leftmost = std::min(leftmost, sumX / changed);
    rightmost = std::max(rightmost, sumX / changed);
  }
  EXPECT_GE(framesOverObject, 2);
  EXPECT_GT(rightmost - leftmost, 10.0);
}

TEST_F(RenderOptions, LightingChangesTheMeanGreyAndMovesAHighlight) {
  const std::vector<Image> lit = render("lighting", "--lighting 0.3");
  ASSERT_EQ(lit.size(), (size_t)kFrames);
  double lowest = 1e9, highest = 0.0;
  for (int i = 0; i < kFrames; i++) {
    double sumLit = 0.0, sumPlain = 0.0;
    for (size_t k = 0; k < lit[i].pixels.size(); k++) {
      sumLit += lit[i].pixels[k];
      sumPlain += plain_[i].pixels[k];
    }
    lowest = std::min(lowest, sumLit / sumPlain);
    highest = std::max(highest, sumLit / sumPlain);
  }
  EXPECT_GT(highest, 1.2);
  EXPECT_LT(lowest, 0.95);
  // The highlight starts at the top left and ends at the bottom right:
  // where the light adds most, in the first and the last frame.
  auto brightestAddition = [&](int i) {
    double best = -1e9;
    int column = 0;
    for (int y = 0; y < lit[i].height; y++) {
      for (int x = 0; x < lit[i].width; x++) {
        if (onObject(plain_[i], x, y)) continue;
        const double added = lit[i].at(x, y) - plain_[i].at(x, y);
        if (added > best) {
          best = added;
          column = x;
        }
      }
    }
    return column;
  };
  EXPECT_LT(brightestAddition(0), lit[0].width / 3);
  EXPECT_GT(brightestAddition(kFrames - 1), 2 * lit[0].width / 3);
}

}  // namespace
