/// @file
/// The host programs' picture of a tracking result: the camera's undistorted
/// image, the model's whole visible contour in yellow and the object's axes.
/// Unlike GenericObjectTracker::drawResult (one red dot per contour pixel, as
/// many as the tracker's sample capacity holds), the contour is drawn as
/// lines with a sampling step chosen so that every visible edge fits in the
/// capacity, and in a colour that the red x axis cannot hide in.
#pragma once

namespace ZOTtracker {
class GenericObjectTracker;
}

namespace zot_sim {

/// Contour colour, (red, green, blue).
constexpr unsigned char kOverlayContour[3] = {255, 230, 0};

/// Pixel uv of object point X under T (object in the camera frame) and the
/// 3 x 3 row-major K, skew included, without distortion. False when X lies
/// behind the camera (uv then means nothing).
bool projectPoint(const double* K, const double* T, const double* X, double* uv);

/// Draws into bgr (width x height x 3 bytes, blue-green-red) of camera `cam`
/// the tracker's last undistorted image, the model's visible contour at
/// `pose` (object in the tool frame) and, when axisLength > 0, the object's
/// axes (x red, y green, z blue) of that length in model units. Uses the
/// tracker's model and sample buffers, like drawResult; a disabled camera
/// or a bad index gives a black image.
void drawTrackingOverlay(ZOTtracker::GenericObjectTracker& tracker, int cam, const double* pose,
                         double axisLength, unsigned char* bgr);

}  // namespace zot_sim
