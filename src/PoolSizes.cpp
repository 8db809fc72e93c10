// Pool sizes from a setup array: the array decoded by the set-up's own reader,
// then what each step of the set-up takes from the pools, added up.
#include "PoolSizes.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <utility>
#include <vector>

#include "GenericObjectTracker.h"
#include "SetupArray.h"
#include "memory_handling.h"

namespace ZOTtracker {

const char* const ZOT_POOL_NAMES[ZOT_N_POOLS] = {"Uchar", "UcharPtr", "Double", "Float",
                                                 "Int",   "IntPtr",   "Short"};

namespace {

enum Pool { kUchar, kUcharPtr, kDouble, kFloat, kInt, kIntPtr, kShort };

// What setupPolyhedron and Polyhedron::init take for one polyhedron; adds
// its edge count (distinct vertex pairs of consecutive face corners, as the
// edge pairing of a valid body yields) to nEdges.
void polyhedron(const SetupBody& body, size_t* s, size_t& nEdges) {
  std::vector<std::pair<int, int>> pairs;
  size_t corners = 0;
  int offset = 0, face[ZOT_MAX_FACE_VERTICES];
  for (int f = 0; f < body.nItems; f++) {
    const int n = nextFace(body, offset, face);
    for (int j = 0; j < n; j++) {
      const int a = face[j], b = face[(j + 1) % n];
      pairs.emplace_back(std::min(a, b), std::max(a, b));
    }
    corners += (size_t)n;
  }
  std::sort(pairs.begin(), pairs.end());
  nEdges += (size_t)(std::unique(pairs.begin(), pairs.end()) - pairs.begin());
  const size_t nVertices = (size_t)body.nVertices, nFaces = (size_t)body.nItems;
  // Vertices and their camera-frame copy; normals, facing values and the
  // face scratch.
  s[kDouble] += 6 * nVertices + 7 * nFaces;
  // Face sizes; per corner two index lists, the corner list (3), the edge
  // list (5), the sort order and the sorted slots.
  s[kInt] += nFaces + 12 * corners;
  s[kIntPtr] += 2 * nFaces;
  s[kUchar] += corners;  // edge states
}

}  // namespace

int computePoolSizes(int count, const double* array, double margin, size_t sizes[ZOT_N_POOLS]) {
  if (array == nullptr || count < 0 || sizes == nullptr) {
    printf("ERROR: pool sizes: no setup array (%d values) or no place for the sizes\n", count);
    return -1;
  }
  // The set-up's own reader, with its checks and messages; the decoded form
  // is too large for the stack.
  std::unique_ptr<SetupArray> setup(new SetupArray);
  if (!decodeSetupArray(array, count, *setup)) return -1;
  const int samples = (int)setup->tracking[0];
  if (samples < 0) {
    printf("ERROR: pool sizes: %d sample points per camera\n", samples);
    return -1;
  }

  size_t s[ZOT_N_POOLS] = {0, 0, 0, 0, 0, 0, 0};
  // Cameras: K, distortion and transform; the two maps, the five tables and
  // the undistorted image; the contour tracker's edge map and derivatives.
  size_t maxWidth = 0, maxHeight = 0;
  for (int c = 0; c < setup->nCameras; c++) {
    const SetupCamera& cam = setup->cameras[c];
    const size_t px = (size_t)cam.width * (size_t)cam.height;
    s[kDouble] += 9 + 5 + 16 + 2 * px;
    s[kInt] += 5 * px;
    s[kUchar] += 2 * px;
    s[kShort] += 2 * px;
    maxWidth = std::max(maxWidth, (size_t)cam.width);
    maxHeight = std::max(maxHeight, (size_t)cam.height);
  }
  size_t nEdges = 0;
  for (int b = 0; b < setup->nBodies; b++) {
    const SetupBody& body = setup->bodies[b];
    if (body.type == ZOT_BODY_POLYHEDRON) {
      polyhedron(body, s, nEdges);
    } else if (body.type == ZOT_BODY_POLYLINE) {
      s[kDouble] += 6 * (size_t)body.nVertices;  // points and their camera-frame copy
      s[kInt] += 2 * (size_t)body.nItems;
      nEdges += (size_t)body.nItems;
    }
  }
  const int nCams = setup->nCameras;

  // Contour tracker: stacked residuals, Jacobians and weights, the solver's
  // work, per camera projections, normals, Jacobians, matches and flags; the
  // colour debug image and the Canny buffers of the largest image.
  const size_t n = (size_t)nCams, S = (size_t)samples;
  const size_t wh = maxWidth * maxHeight;
  s[kDouble] += 39 * n * S + 6;
  s[kUchar] += 3 * wh;
  s[kInt] += (maxWidth + 2) * (maxHeight + 5);
  s[kUcharPtr] += wh;
  s[kShort] += 2 * wh;
  // Model: samples and tangents per camera, mask and debug images, depth map
  // and one preset depth map per camera, face identifiers, visible edges.
  s[kDouble] += 6 * n * S + wh + n * wh + 6 * nEdges;
  s[kUchar] += 4 * wh;
  s[kInt] += wh + 3 * nEdges;
  // Robust estimator, with an extension block: per camera the samples' edge
  // ids and the polarity memory.
  if (setup->nExtensionValues >= 0) {
    s[kInt] += n * (S + ZOT_POLARITY_SLOTS);
    s[kDouble] += n * ZOT_POLARITY_SLOTS;
  }
  // The speed modes' float Z-buffer; the region's row spans.
  if (setup->robust.cheapVisibility()) s[kFloat] += wh;
  for (int c = 0; c < nCams && setup->robust.regionOfInterest; c++)
    s[kInt] += 2 * (size_t)setup->cameras[c].height;

  if (!(margin > 0.0) || !std::isfinite(margin)) margin = 0.0;
  for (int i = 0; i < ZOT_N_POOLS; i++) {
    sizes[i] = s[i];
    if (margin > 0.0)
      sizes[i] = std::max<size_t>(1, (size_t)std::ceil((double)s[i] * (1.0 + margin)));
  }
  return 0;
}

void reservePools(const size_t sizes[ZOT_N_POOLS]) {
  doBigMalloc(sizes[0], sizes[1], sizes[2], sizes[3], sizes[4], sizes[5], sizes[6]);
}

}  // namespace ZOTtracker
