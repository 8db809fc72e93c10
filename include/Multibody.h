/// @file
/// The tracked object: a fixed-capacity set of bodies (polyhedra, polylines,
/// cylinders) sharing one object frame, alternative local frames, per-camera
/// viewing frusta and image masks, and the per-camera sample buffers that the
/// visible-contour sampler fills and the contour tracker reads.
///
/// Every buffer is taken once from the typed pools in init(); sampling
/// allocates nothing. Capacities are array bounds; init() refuses a model
/// that exceeds one of them, and the sampler never indexes past them.
#pragma once

#include "Cylinder.h"
#include "Polyhedron.h"
#include "Polyline.h"

namespace ZOTtracker {

constexpr int ZOT_MAX_CAMERAS = 5;
constexpr int ZOT_MAX_BODIES = 50;
constexpr int ZOT_MAX_MASK_POLYGONS = 50;
constexpr int ZOT_MAX_MASK_VERTICES = 10;
constexpr int ZOT_MAX_LOCAL_FRAMES = 100;

/// Body kinds in m_bodyType.
constexpr int ZOT_BODY_POLYHEDRON = 0;
constexpr int ZOT_BODY_POLYLINE = 1;
constexpr int ZOT_BODY_CYLINDER = 2;

class Multibody {
 public:
  // ---------------------------------------------------------------- set-up
  /// Counts 0, buffer pointers null, no preset depth map.
  Multibody();
  /// Frees nothing: the pools own every buffer.
  ~Multibody();

  /// Sizes the buffers for nCams cameras, maxSamples samples per camera and
  /// images up to width x height; call after the bodies are set up (the edge
  /// buffers are sized from the active bodies' edge and segment counts).
  /// Returns 0, or -1 with a message when a count exceeds its capacity
  /// (cameras, bodies, local frames, mask polygons or their vertices) or is
  /// negative; nothing is reserved then.
  int init(int nCams, int maxSamples, int width, int height);

  /// Re-expresses all body geometry in local frame `index`: each body maps
  /// its points through (currentLocalFrame^-1 * localFrame)^-1. The current
  /// frame is not updated, so consecutive calls compose. Returns 0, or -1 for
  /// an index outside the defined frames or a body of unknown kind (bodies
  /// before it are already changed).
  int changeLocalFrame(int index);

  // ---------------------------------------------------------------- per-frame operations
  /// Sets the sample count of every camera to 0.
  void resetNSamplePointsPerCam();

  /// Visible-contour sampling for camera `cam` at pose T (object in camera
  /// frame) with camera matrix K (fx = K[0], cx = K[2], fy = K[4], cy =
  /// K[5]): renders the active polyhedra into m_depthMap (m_depthMapFloat
  /// after useFloatDepth) and m_faceIdMap, finds the visible contour and
  /// feature edges (and polyline segments) and keeps every samplingStep-th
  /// pixel of them that passes the visibility test.
  /// Faces facing the camera by less than facingTolerance are not rendered;
  /// pieces shorter than minEdgeLength are not sampled. Optional outputs
  /// (null to skip, each width x height): faceImage (shaded faces), sampleImage
  /// (255 at samples), sampleNormalImage (2 doubles per pixel), sampleIds (one
  /// per sample, body * 65536 + edge). With sampling off only the Z-buffer and
  /// the face image are made. timing prints the three stage times, debugViews
  /// shows "depth map <cam>" and "model edges <cam>". Returns 0; -1 with a
  /// message for a camera index without buffers, an image larger than init()
  /// sized or a call before init().
  int sampleContour_Zbuffer(int cam, const double* T, const double* K, int width, int height,
                            double zNear, double zFar, double facingTolerance, double minEdgeLength,
                            int samplingStep, unsigned char* faceImage, unsigned char* sampleImage,
                            double* sampleNormalImage, int* sampleIds, bool sampling, bool timing,
                            bool debugViews, bool reserved);

  /// Casts the ray from the camera centre to each sample (object frame, pose
  /// T of the object in the camera frame) and looks for a face of an active
  /// polyhedron, other than the two faces of the sample's own edge, that the
  /// ray crosses. A crossing nearer than 0.7 of the sample's depth prints
  /// "depth conflict: ..." and sets the sample's id to -255.
  void cross_check_raytracing(const double* T, int nSamples, const double* samplePoints,
                              int* sampleIds);

  /// The image rectangle the active bodies can cover at pose T (object in
  /// camera frame) through camera matrix K, grown by `grow` pixels and
  /// clipped to width x height: region = x0, y0, x1, y1 (inclusive). The
  /// whole image when a cylinder is active or a vertex lies less than 1e-6
  /// in front of the camera (its projection bounds nothing); an empty
  /// rectangle (x1 < x0) when the bounds miss the image. With `distortion`
  /// (k1, k2, p1, p2, k3) the vertices are bounded where they appear in the
  /// distorted image (distortPixel). With `spans` (2 ints per image row)
  /// the rows y of the rectangle also get spans[2y], spans[2y + 1]: the
  /// pixels of the row within grow + 1 of the points' supports in 8
  /// directions, a polygon holding their grown convex hull (x0 > x1 where
  /// none); the whole rows where the rectangle is the whole image.
  void projectedBounds(const double* T, const double* K, int width, int height, double grow,
                       int* region, const double* distortion = nullptr, int* spans = nullptr) const;

  /// Renders the Z-buffer into m_depthMapFloat, a 32-bit float inverse
  /// depth, from now on (until the next init()): half the memory a sampling
  /// call clears and writes. Two faces may swap where their depths differ by
  /// less than float's resolution; the sampled contour moves by less than a
  /// sampling step then. A preset depth map is converted into it. Call after
  /// init(); takes width x height floats from the pool.
  void useFloatDepth();

  /// From now on (until the next init()), a sampling call without face
  /// image, debug views or preset depth map renders no Z-buffer when the
  /// active bodies are one convex polyhedron and polylines on its faces:
  /// nothing can hide such a body's edge but its own faces, so an edge is
  /// seen where one of its faces is, and a polyline where its face is. The
  /// samples differ from the Z-buffer's only where a face's pixels round
  /// over an edge near a corner. Call after the bodies are set up (it tests
  /// their convexity).
  void useFacingVisibility();

  /// The convex polyhedron whose faces alone decide what is seen
  /// (useFacingVisibility), or -1 when the active bodies need the Z-buffer.
  int facingVisibilityBody() const;

  // ---------------------------------------------------------------- getters
  int getNbodies() const;
  /// m_bodyActive of the body; -1 with "ERROR: wrong body ID" for a bad index.
  int getActiveBody(int body) const;
  /// Sample count of the camera; 0 with "ERROR: wrong camera ID" for a bad index.
  int getNSamplePointsPerCam(int cam) const;
  /// The camera's sample buffers themselves (3 doubles per sample, object
  /// frame); null with "ERROR: wrong camera ID" for a bad index.
  double* getSamplePointsPerCam(int cam) const;
  double* getSampleTangentDirPerCam(int cam) const;

  // ---------------------------------------------------------------- data
  int m_nCams;
  double m_viewingFrustum[ZOT_MAX_CAMERAS][24];
  int m_nMaskPolygons[ZOT_MAX_CAMERAS];
  int m_maskPolygonNVertices[ZOT_MAX_CAMERAS][ZOT_MAX_MASK_POLYGONS];
  int m_maskPolygonActive[ZOT_MAX_CAMERAS][ZOT_MAX_MASK_POLYGONS];
  double m_maskPolygonVertices[ZOT_MAX_CAMERAS][ZOT_MAX_MASK_POLYGONS][2 * ZOT_MAX_MASK_VERTICES];
  int m_maxSamplePointsPerCam;
  int m_nSamplePointsPerCam[ZOT_MAX_CAMERAS];
  double* m_samplePointsPerCam[ZOT_MAX_CAMERAS];
  double* m_sampleTangentDirPerCam[ZOT_MAX_CAMERAS];
  int m_nBodies;
  int m_polylineSupportFace[ZOT_MAX_BODIES][2];  ///< body, face of the supporting face; -1 none
  Polyhedron m_polyhedra[ZOT_MAX_BODIES];
  Polyline m_polylines[ZOT_MAX_BODIES];
  Cylinder m_cylinders[ZOT_MAX_BODIES];
  int m_bodyType[ZOT_MAX_BODIES];
  int m_bodyActive[ZOT_MAX_BODIES];
  double m_currentLocalFrame[16];
  int m_nLocalFrames;
  double m_localFrames[ZOT_MAX_LOCAL_FRAMES][16];
  unsigned char* m_maskImage;     ///< width x height
  unsigned char* m_debugImage;    ///< 3 x width x height
  double* m_depthMap;             ///< inverse depth 1/z, 0 empty
  float* m_depthMapFloat;         ///< the same in float after useFloatDepth(), else null
  bool m_facingVisibility;        ///< useFacingVisibility() was called
  bool m_convex[ZOT_MAX_BODIES];  ///< polyhedra no plane of a face of which cuts them
  int* m_faceIdMap;               ///< (body * 65536 + face) + 1, 0 none
  double* m_visibleEdgeBuffer;    ///< 6 per candidate edge, camera frame
  int* m_visibleEdgeIds;          ///< 3 per candidate edge: body, edge, reserved
  bool m_usePresetDepthMap;
  double* m_presetDepthMapPerCam[ZOT_MAX_CAMERAS];

  /// Sizes fixed by init(): image buffers and candidate edges.
  int m_bufferWidth;
  int m_bufferHeight;
  int m_maxVisibleEdges;
  /// Regions of the depth, face-id and mask images written since they were
  /// last cleared, as x0, y0, x1, y1 (inclusive) and the row stride they were
  /// written with; outside them the images are zero. Clearing only these
  /// keeps a sampling call proportional to what the model covers.
  int m_depthDirty[5];
  int m_faceIdDirty[5];
  int m_maskDirty[5];
};

}  // namespace ZOTtracker
