/// @file
/// Renders polygon meshes seen by a calibrated camera, with flat-shaded faces,
/// anti-aliased edges (ss x ss samples per pixel) and lens distortion through
/// the forward model, by casting one ray per sample. Independent of the
/// library's own projection and Z-buffer, so tracking tests can check the
/// library against it.
#pragma once

#include <vector>

#include "sim_mesh.h"

namespace zot_sim {

struct RenderCamera {
  int width = 640, height = 480;
  double K[9] = {600, 0, 319.5, 0, 600, 239.5, 0, 0, 1};  /// skew is ignored
  double dist[5] = {0, 0, 0, 0, 0};                       /// k1, k2, p1, p2, k3
};

struct RenderObject {
  const Mesh* mesh = nullptr;
  double pose[16];                      /// object in the camera frame
  std::vector<unsigned char> faceGrey;  /// one grey value per face
};

/// Draws the objects over `img` (which holds the background on entry): every
/// pixel whose samples hit a face becomes the average of the hit faces' greys
/// and the background. Only the objects' projected bounding boxes are cast,
/// and each sample only against the objects whose box holds its pixel.
/// `adaptive`: a pixel whose centre ray and its 8 neighbours' centre rays
/// meet the same face (or none) takes that face without supersampling,
/// several times faster for large objects; details thinner than a pixel that
/// fall between pixel centres are lost.
void renderScene(unsigned char* img, const RenderCamera& cam,
                 const std::vector<RenderObject>& objects, int ss = 3, bool adaptive = false);

/// Per pixel the fraction of its ss x ss samples that hit one of the objects
/// (0 to 1, the same samples as renderScene); `coverage` is resized to
/// width x height. The objects' greys are not used. `adaptive` as for
/// renderScene.
void renderCoverage(const RenderCamera& cam, const std::vector<RenderObject>& objects, int ss,
                    std::vector<float>& coverage, bool adaptive = false);

/// Lambertian grey per face: ambient + diffuse * max(0, n . light) with the
/// face normal (from its first three vertices, outward for counter-clockwise
/// winding seen from outside) rotated into the camera frame by pose, and the
/// light direction towards the light, in the camera frame.
std::vector<unsigned char> lambertGreys(const Mesh& mesh, const double* pose,
                                        const double* lightDir, double ambient, double diffuse);

/// Projects object point X under pose through K and the distortion: the
/// distorted pixel where the renderer shows it.
void projectDistorted(const RenderCamera& cam, const double* pose, const double* X, double* uv);

}  // namespace zot_sim
