/// @file
/// Synthetic tracking sequences: a tool carrying one or two calibrated
/// cameras looks at an object on a table; object and tool move along smooth
/// trajectories that start at rest. Each frame is rendered per camera with
/// the independent ray caster over a dark, optionally cluttered table, then
/// blurred and given sensor noise: anti-aliased edges, lens distortion
/// through the forward model, flat faces painted in four tones (neighbouring
/// faces always differ, so every model edge shows) with Lambertian shading
/// from a light at the camera and a key light, polylines painted as
/// markings on their faces, and the cameras' mask polygons as a dark,
/// near occluder (a gripper finger).
///
/// Frames: the world has the table at z = tableZ with z up; the object's
/// rest pose puts its bounding-box centre at the world origin; the tool
/// looks at the origin from `viewDistance` at `elevationDeg` above the
/// table. Poses follow the library's convention (row-major 4 x 4, X' = R X + t).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "render_scene.h"
#include "scene_config.h"

namespace zot_sim {

/// Which parts move.
enum class Motion { None, Object, Tool, Both };

/// Parses "none", "object", "tool" or "both"; false for anything else.
bool parseMotion(const std::string& text, Motion& motion);

struct SequenceSpec {
  int frames = 150;
  double fps = 30.0;
  Motion motion = Motion::Both;
  double speed = 1.0;          ///< scales the time of the trajectory
  bool clutter = true;         ///< random shapes on the table; else a plain table
  double noise = 2.0;          ///< standard deviation of the sensor noise, grey levels
  double blur = 0.6;           ///< Gaussian blur sigma in pixels (0: none)
  int supersampling = 2;       ///< samples per pixel and axis at object edges
  uint64_t seed = 1;           ///< clutter layout and noise
  double elevationDeg = 50.0;  ///< viewing direction above the table plane
  double azimuthDeg = 30.0;    ///< viewing direction about the vertical, 0: from -y
  double viewDistance = 0.0;   ///< tool to object; 0 chooses one from the object size
};

/// Renders the frames of one sequence. Construction does the per-sequence
/// work (ray tables, meshes, table texture); render() may then be called
/// from several threads at once.
class SequenceRenderer {
 public:
  // ---------------------------------------------------------------- set-up
  SequenceRenderer(const std::vector<CameraConfig>& cameras, const ModelConfig& model,
                   const SequenceSpec& plan);

  // ---------------------------------------------------------------- per frame
  /// Time stamp of a frame in seconds.
  double time(int frame) const;
  /// Tool pose in the world, object pose in the world and object pose in the
  /// tool frame (what the tracker estimates) at a frame; any may be null.
  void poses(int frame, double* toolWorld, double* objectWorld, double* objectInTool) const;
  /// Renders every camera's grey image of a frame; images[c] is resized to
  /// width x height of camera c.
  void render(int frame, std::vector<std::vector<unsigned char>>& images) const;
  /// Camera `cam` in the world and the object in that camera at a frame
  /// (either may be null).
  void cameraPoses(int frame, int cam, double* worldFromCam, double* objectInCam) const;

  // ---------------------------------------------------------------- getters
  double objectSize() const { return m_size; }
  double viewDistance() const { return m_distance; }
  /// Undistorted normalised ray (x, y) through every pixel of camera `cam`.
  const std::vector<float>& rays(int cam) const { return m_rays[cam]; }
  /// Bodies that cannot be rendered (cylinders, open polylines without a
  /// supporting face), one line each.
  const std::vector<std::string>& warnings() const { return m_warnings; }

 private:
  struct Paint {  ///< a painted marking (a polyline) and its grey
    Mesh mesh;
    double tone;
  };
  void renderCamera(int cam, int frame, std::vector<unsigned char>& image) const;
  unsigned char tableGrey(double x, double y) const;
  void buildTable();
  void buildPaints(const ModelConfig& model);

  std::vector<CameraConfig> m_cameras;
  std::vector<RenderCamera> m_renderCameras;
  std::vector<std::vector<float>> m_rays;  ///< per camera, per pixel: undistorted x, y
  std::vector<Pose> m_cameraFromTool;
  std::vector<Mesh> m_meshes;                    ///< polyhedron bodies
  std::vector<std::vector<double>> m_faceTones;  ///< per mesh, base grey of every face
  std::vector<Paint> m_paints;
  SequenceSpec m_plan;
  double m_size = 0.0, m_distance = 0.0, m_centre[3] = {0, 0, 0}, m_tableZ = 0.0;
  double m_texelSize = 1.0;  ///< table texture: model units per texel
  int m_textureSide = 0;
  std::vector<unsigned char> m_texture;
  std::vector<std::string> m_warnings;
};

/// v rounded to the nearest grey level and clamped to 0..255.
unsigned char toByte(double v);
/// Where the ray (xn, yn, 1) of the camera at worldFromCam meets the table
/// plane z = tableZ: the world x, y in X, Y; false when the ray runs at or
/// above the horizon.
bool tableHit(const double* worldFromCam, double tableZ, double xn, double yn, double* X,
              double* Y);
/// The ray caster's camera for a configured one (its skew is not rendered).
RenderCamera renderCameraOf(const CameraConfig& cam);
/// Paints the camera's mask polygons (those of three or more vertices) in
/// `grey` onto its width x height grey image, anti-aliased or not.
void fillMasks(const CameraConfig& cam, unsigned char* image, int grey, bool antialiased);
/// The sensor, in place on a width x height grey image: a Gaussian blur of
/// plan.blur pixels (none when 0; borders replicated), then Gaussian noise
/// of plan.noise grey levels from a generator seeded by the plan's seed, the
/// frame and the camera, so that every frame and camera is reproducible.
void applySensor(std::vector<unsigned char>& image, int width, int height, const SequenceSpec& plan,
                 int frame, int cam);

}  // namespace zot_sim
