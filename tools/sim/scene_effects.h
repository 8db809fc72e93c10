/// @file
/// What real scenes add to a rendered sequence, each off unless asked:
/// printed texture on the object's faces (text-like strokes, a band, a
/// blob), a textured table, a bar like a gripper finger that moves across in
/// front of the object, lighting that changes over the sequence (gain and a
/// moving highlight) and motion blur along the motion. Layered over
/// SequenceRenderer: the print becomes painted markings of the rendered model
/// only (the model written for tracking stays as it is); the rest is
/// composited onto its frames before the blur and the noise.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "render_scene.h"
#include "scene_config.h"
#include "sequence.h"

namespace zot_sim {

struct SceneEffects {
  bool facePrint = false;      ///< printed texture on the faces
  bool tableTexture = false;   ///< wavy grain and a printed grid on the table
  double occluderWidth = 0.0;  ///< bar width over the object's size; 0: no bar
  double lighting = 0.0;       ///< gain 1 +- lighting, highlight of 150 * lighting grey levels
  double exposure = 0.0;       ///< motion blur: exposure in frame periods; 0: none
  bool any() const {
    return facePrint || tableTexture || occluderWidth > 0.0 || lighting > 0.0 || exposure > 0.0;
  }
};

/// Appends printed texture to a model for rendering: for every face of
/// every polyhedron body that is large enough, one polyline body of closed
/// loops supported by that face (rows of short strokes like text, a band
/// and a blob), kept a margin inside the face. The layout depends on `seed`
/// and the face only. The bounding box of the model does not change.
void addFacePrint(ModelConfig& model, uint64_t seed);

/// The model scaled by `s` about its origin: vertices of polyhedra and
/// polylines and the local frames' translations (a wrong model for
/// tracking). Cylinders are left as they are.
ModelConfig scaledModel(const ModelConfig& model, double s);

/// Renders a sequence with the effects; without any it renders exactly as
/// SequenceRenderer with `plan`. render() may be called from several
/// threads at once.
class EffectsRenderer {
 public:
  // ---------------------------------------------------------------- set-up
  /// `model` is the true model; the face print is added here when asked.
  EffectsRenderer(const std::vector<CameraConfig>& cameras, const ModelConfig& model,
                  const SequenceSpec& plan, const SceneEffects& effects);

  // ---------------------------------------------------------------- per frame
  /// Every camera's grey image of a frame, as SequenceRenderer::render.
  void render(int frame, std::vector<std::vector<unsigned char>>& images) const;
  /// Fraction of the object's outline in camera 0 that the bar hides at a
  /// frame (0 without a bar or when the object is not in view).
  double hiddenOutline(int frame) const;
  /// Largest image distance (pixels, camera 0) a model vertex moves between
  /// two frames.
  double vertexMotion(int from, int to) const;

  // ---------------------------------------------------------------- getters
  /// Time stamps, poses, object size and warnings.
  const SequenceRenderer& sequence() const { return *m_base; }

 private:
  /// Object, table and bar of camera `cam` at index `index` of `seq`.
  void compose(const SequenceRenderer& seq, int index, int cam, unsigned char* image) const;
  void objectsInCamera(const SequenceRenderer& seq, int index, int cam,
                       std::vector<RenderObject>& objects, double* objectInCam) const;
  bool barInCamera(const SequenceRenderer& seq, int index, int cam, RenderObject& bar) const;

  std::vector<CameraConfig> m_cameras;
  std::vector<RenderCamera> m_renderCameras;
  std::vector<Mesh> m_meshes;              ///< the true polyhedra
  SequenceSpec m_plan;
  SceneEffects m_effects;
  std::unique_ptr<SequenceRenderer> m_base;  ///< frames on the sequence's time line
  std::unique_ptr<SequenceRenderer> m_fine;  ///< m_subSteps times as many, for motion blur
  int m_subSteps = 1;
  double m_centre[3] = {0, 0, 0}, m_size = 1.0;
  Mesh m_bar;
};

}  // namespace zot_sim
