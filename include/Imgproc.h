// Image processing on the library's own buffers: colour conversions (grey
// images are width x height bytes, colour images 3 interleaved bytes per
// pixel in the order blue, green, red, both row-major without padding).
// Nothing here allocates or fails.
#pragma once

namespace ZOTtracker {

// ================================================================ colour conversions
// Luminance 0.114 B + 0.587 G + 0.299 R in 14-bit fixed point, rounded to
// nearest: (1868 b + 9617 g + 4899 r + 8192) >> 14. The weights sum to 16384,
// so a grey pixel converts back to itself.
void convertColorToGray(const unsigned char* src, unsigned char* dst, int width, int height);
// Copies each grey value into the three bytes of its colour pixel.
void convertGrayToColor(const unsigned char* src, unsigned char* dst, int width, int height);
// Interleaves three planes into a colour image (byte 0 from plane0, ...);
// a null plane contributes 0.
void merge(const unsigned char* plane0, const unsigned char* plane1, const unsigned char* plane2,
           unsigned char* dst, int width, int height);

}  // namespace ZOTtracker
