// Synthetic grey images for tests and benchmarks: deterministic noise and
// shapes rendered with anti-aliasing by supersampling. Header-only (inline)
// so that the benchmark programs, which do not link the test-support
// library, can use it as well.
// Images are width x height bytes, row-major, pixel centres at integer
// coordinates.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

namespace zot_test {

// ---------------------------------------------------------------- random numbers
// Small deterministic generator (64-bit LCG, high bits), identical on every
// platform, so a seed always gives the same image.
struct Lcg {
  uint64_t state;
  explicit Lcg(uint64_t seed) : state(seed * 6364136223846793005ULL + 1442695040888963407ULL) {}
  uint32_t next() {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    return (uint32_t)(state >> 33);
  }
  // Uniform in [0, 1).
  double uniform() { return next() / 2147483648.0; }
  // Standard normal (Box-Muller).
  double normal() {
    const double u1 = (next() + 1.0) / 2147483649.0;
    const double u2 = uniform();
    return std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179586 * u2);
  }
};

inline unsigned char clampToByte(double v) {
  if (!(v > 0.0)) return 0;
  if (v >= 255.0) return 255;
  return (unsigned char)(v + 0.5);
}

// Uniformly random bytes.
inline void fillRandom(unsigned char* img, int width, int height, uint64_t seed) {
  Lcg rng(seed);
  for (long k = 0; k < (long)width * height; k++) img[k] = (unsigned char)(rng.next() >> 23);
}

// Adds Gaussian noise of standard deviation sigma, rounding and clamping.
inline void addNoise(unsigned char* img, int width, int height, double sigma, uint64_t seed) {
  Lcg rng(seed);
  for (long k = 0; k < (long)width * height; k++) {
    img[k] = clampToByte(img[k] + sigma * rng.normal());
  }
}

// ---------------------------------------------------------------- shapes
// Renders `inside(u, v)` (a predicate on ideal image coordinates) with value
// fg over the existing image, covering each pixel with ss x ss samples and
// blending by the covered fraction.
template <typename Inside>
void renderShape(unsigned char* img, int width, int height, double fg, int ss, Inside inside) {
  for (int y = 0; y < height; y++) {
    for (int x = 0; x < width; x++) {
      int hits = 0;
      for (int sy = 0; sy < ss; sy++) {
        for (int sx = 0; sx < ss; sx++) {
          const double u = x - 0.5 + (sx + 0.5) / ss, v = y - 0.5 + (sy + 0.5) / ss;
          hits += inside(u, v) ? 1 : 0;
        }
      }
      if (hits == 0) continue;
      const double f = (double)hits / (ss * ss);
      unsigned char& p = img[(long)y * width + x];
      p = clampToByte(p * (1.0 - f) + fg * f);
    }
  }
}

// Fills the image with one value.
inline void fillUniform(unsigned char* img, int width, int height, unsigned char value) {
  for (long k = 0; k < (long)width * height; k++) img[k] = value;
}

// A disc of radius r around (cx, cy) with value fg.
inline void renderDisc(unsigned char* img, int width, int height, double cx, double cy, double r,
                       double fg, int ss = 4) {
  renderShape(img, width, height, fg, ss, [=](double u, double v) {
    return (u - cx) * (u - cx) + (v - cy) * (v - cy) <= r * r;
  });
}

// The triangle (x0, y0), (x1, y1), (x2, y2), either orientation.
inline void renderTriangle(unsigned char* img, int width, int height, double x0, double y0,
                           double x1, double y1, double x2, double y2, double fg, int ss = 4) {
  renderShape(img, width, height, fg, ss, [=](double u, double v) {
    const double e0 = (x1 - x0) * (v - y0) - (y1 - y0) * (u - x0);
    const double e1 = (x2 - x1) * (v - y1) - (y2 - y1) * (u - x1);
    const double e2 = (x0 - x2) * (v - y2) - (y0 - y2) * (u - x2);
    return (e0 >= 0 && e1 >= 0 && e2 >= 0) || (e0 <= 0 && e1 <= 0 && e2 <= 0);
  });
}

// A scene with realistic structure: a smooth background gradient, rectangles,
// discs and triangles of random grey values at random places, then Gaussian
// noise of sigma noiseSigma. Same seed, same image.
inline void renderShapesScene(unsigned char* img, int width, int height, uint64_t seed,
                              double noiseSigma) {
  Lcg rng(seed);
  for (int y = 0; y < height; y++) {
    for (int x = 0; x < width; x++) {
      img[(long)y * width + x] = clampToByte(60.0 + 80.0 * x / width + 40.0 * y / height);
    }
  }
  const int nShapes = 6 + (width * height) / 20000;
  for (int s = 0; s < nShapes; s++) {
    const double cx = rng.uniform() * width, cy = rng.uniform() * height;
    const double size = (0.04 + 0.16 * rng.uniform()) * (width < height ? width : height);
    const double fg = 20.0 + 215.0 * rng.uniform();
    switch (s % 3) {
      case 0:
        renderDisc(img, width, height, cx, cy, size, fg, 2);
        break;
      case 1: {
        const double a = rng.uniform() * 3.14159;
        const double ca = std::cos(a), sa = std::sin(a), hw = size, hh = 0.6 * size;
        renderShape(img, width, height, fg, 2, [=](double u, double v) {
          const double du = u - cx, dv = v - cy;
          return std::fabs(ca * du + sa * dv) <= hw && std::fabs(-sa * du + ca * dv) <= hh;
        });
        break;
      }
      default:
        renderTriangle(img, width, height, cx, cy - size, cx + size, cy + 0.8 * size,
                       cx - 0.9 * size, cy + 0.5 * size, fg, 2);
        break;
    }
  }
  addNoise(img, width, height, noiseSigma, seed + 1);
}

}  // namespace zot_test
