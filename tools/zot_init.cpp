// zot_init: the object's pose in the first frame of a sequence, from four or
// more points whose place on the model and in the image are known (read from
// a file or clicked in a window): a perspective-n-point solution, refined by
// the tracker itself on the model's edges in that frame, drawn for a check and
// written as the pose file that zot_track --initial-pose reads.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <opencv2/highgui.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "GenericObjectTracker.h"
#include "Math.h"
#include "TrackerSession.h"
#include "command_line.h"
#include "overlay.h"
#include "scene_config.h"
#include "stdout_capture.h"

namespace {

[[noreturn]] void fail(const std::string& message) {
  fflush(stdout);
  fprintf(stderr, "zot_init: %s\n", message.c_str());
  exit(1);
}

struct Options {
  std::string configDir, cameraFile = "camera.txt", trackerFile = "tracker.txt",
                         modelFile = "model.txt";
  std::string image, pointsFile, out = "initial_pose.txt", overlay = "init_overlay.png";
  int cam = 0;
  bool click = false, refine = true, quiet = false;
};

Options parseArguments(int argc, char** argv) {
  Options o;
  CLI::App app(
      "Finds the object's pose in the first frame from 2-D/3-D point pairs and\n"
      "writes it as the initial pose of zot_track.",
      "zot_init");
  app.get_formatter()->label("Usage", "usage");
  app.get_formatter()->label("OPTIONS", "options");
  app.get_formatter()->column_width(24);
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.footer(
      "The points file holds one point per line: \"u v X Y Z\", the pixel (in the\n"
      "image as recorded, before undistortion) and the model point (model units), or\n"
      "\"X Y Z\" alone for a point to click with --click. Blank lines and lines\n"
      "starting with # are skipped. At least four points, not all on one line, none\n"
      "twice. With --click and no points file, the model's vertices are asked for\n"
      "one by one (right click skips one, Enter ends once four are given, Esc\n"
      "cancels); the clicked pairs are written to OUT.points.txt for a rerun.\n"
      "\n"
      "The pose from the points (OpenCV's solvePnP, then Levenberg-Marquardt) is\n"
      "refined by one frame of the tracker on the model's edges, with the tracking\n"
      "parameters of the tracker file; the residual of every point is printed for\n"
      "both. Exit status: 0 pose written, 1 bad input, 2 bad arguments.");
  // An option with the name of its value in the help.
  auto option = [&app](const char* name, auto& value, const char* help, const char* type) {
    return app.add_option(name, value, help)->type_name(type);
  };
  option("--config", o.configDir, "directory with the camera, tracker and model files", "DIR")
      ->required();
  option("--camera", o.cameraFile, "camera file in DIR (default: camera.txt)", "FILE");
  option("--tracker", o.trackerFile, "tracker file in DIR (default: tracker.txt)", "FILE");
  option("--model", o.modelFile, "model file in DIR (default: model.txt)", "FILE");
  option("--image", o.image, "the first frame: an image file or a video (its first frame)", "FILE")
      ->required();
  option("--cam", o.cam, "camera of the image (default: 0)", "N");
  option("--points", o.pointsFile, "the point pairs (see below)", "FILE");
  app.add_flag("--click", o.click, "click the image positions in a window");
  option("--out", o.out, "pose file to write (default: initial_pose.txt)", "FILE");
  option("--overlay", o.overlay,
         "picture of the result: the model (yellow) at the pose, the given\n"
         "points (green circles) and the model points projected (red\n"
         "crosses), on the undistorted image (default: init_overlay.png)",
         "FILE");
  bool noRefine = false;
  app.add_flag("--no-refine", noRefine, "keep the pose from the points alone");
  app.add_flag("-q,--quiet", o.quiet, "print errors only");
  app.set_help_flag("-h,--help", "this text");
  zot_sim::parseCommandLine(app, argc, argv, "zot_init");
  o.refine = !noRefine;
  if (o.pointsFile.empty() && !o.click)
    zot_sim::usageError("zot_init", "give the point pairs with --points FILE, or --click");
  return o;
}

// ---------------------------------------------------------------- points
struct PointPair {
  cv::Point2d image;
  cv::Point3d model;
  bool hasImage = false;
  std::string where;  // "FILE:LINE" or "model vertex N"
};

std::vector<PointPair> readPoints(const std::string& path) {
  std::ifstream in(path);
  if (!in) fail("cannot open the points file " + path);
  std::vector<PointPair> pairs;
  std::string line;
  for (int n = 1; std::getline(in, line); n++) {
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') continue;
    std::istringstream words(line);
    std::vector<double> v;
    for (std::string w; words >> w;) {
      char* end = nullptr;
      const double x = strtod(w.c_str(), &end);
      if (*end != '\0' || !std::isfinite(x))
        fail(path + ":" + std::to_string(n) + ": expected numbers (u v X Y Z or X Y Z), got '" + w +
             "'");
      v.push_back(x);
    }
    if (v.size() != 5 && v.size() != 3)
      fail(path + ":" + std::to_string(n) + ": expected u v X Y Z or X Y Z, got " +
           std::to_string(v.size()) + " numbers");
    PointPair p;
    p.where = path + ":" + std::to_string(n);
    p.hasImage = v.size() == 5;
    if (p.hasImage) p.image = {v[0], v[1]};
    p.model = {v[v.size() - 3], v[v.size() - 2], v[v.size() - 1]};
    pairs.push_back(p);
  }
  return pairs;
}

// Rank of a centred point set: true when the points spread over at least
// two directions (not all on one line), relative to their own extent.
template <typename P>
bool spreadBeyondALine(const std::vector<P>& pts, int dims) {
  cv::Mat m((int)pts.size(), dims, CV_64F);
  cv::Mat mean = cv::Mat::zeros(1, dims, CV_64F);
  for (size_t i = 0; i < pts.size(); i++) {
    const double* p = &pts[i].x;
    for (int k = 0; k < dims; k++) m.at<double>((int)i, k) = p[k];
  }
  cv::reduce(m, mean, 0, cv::REDUCE_AVG);
  for (int i = 0; i < m.rows; i++) m.row(i) -= mean;
  cv::Mat w;
  cv::SVD::compute(m, w, cv::SVD::NO_UV);
  return w.at<double>(0) > 0 && w.at<double>(1) > 1e-3 * w.at<double>(0);
}

// The checks PnP needs: four pairs or more, each inside the image, no model
// or image point twice, neither set (the pairs' points) on one line.
void checkPairs(const std::vector<PointPair>& pairs, const std::vector<cv::Point3d>& model,
                const std::vector<cv::Point2d>& image, int width, int height, double modelSize,
                const std::string& source) {
  if (pairs.size() < 4)
    fail(source + ": " + std::to_string(pairs.size()) +
         " point pair(s); at least 4 are needed for the pose");
  for (const PointPair& p : pairs) {
    if (p.image.x < 0 || p.image.y < 0 || p.image.x > width - 1 || p.image.y > height - 1) {
      char text[160];
      snprintf(text, sizeof text, ": image point (%g, %g) lies outside the %d x %d image",
               p.image.x, p.image.y, width, height);
      fail(p.where + text);
    }
  }
  for (size_t i = 0; i < pairs.size(); i++)
    for (size_t j = i + 1; j < pairs.size(); j++) {
      if (cv::norm(pairs[i].model - pairs[j].model) <= 1e-9 * std::max(modelSize, 1.0))
        fail(pairs[i].where + " and " + pairs[j].where + ": the same model point twice");
      if (cv::norm(pairs[i].image - pairs[j].image) < 0.5)
        fail(pairs[i].where + " and " + pairs[j].where + ": the same image point twice");
    }
  if (!spreadBeyondALine(model, 3))
    fail(source +
         ": all model points lie on one line; the pose needs points spread over a plane or in "
         "space");
  if (!spreadBeyondALine(image, 2))
    fail(source +
         ": all image points lie on one line; the pose needs points spread over the image");
}

// ---------------------------------------------------------------- clicking
struct ClickState {
  cv::Point2d point;
  int button = 0;  // 1 left, 2 right
};

void onMouse(int event, int x, int y, int, void* data) {
  ClickState* s = static_cast<ClickState*>(data);
  if (event == cv::EVENT_LBUTTONDOWN) *s = {cv::Point2d(x, y), 1};
  if (event == cv::EVENT_RBUTTONDOWN) s->button = 2;
}

// Asks for the image position of every pair without one; pairs skipped with
// a right click are dropped. Enter ends early once four are given.
void clickPoints(std::vector<PointPair>& pairs, const cv::Mat& frame) {
  if (getenv("DISPLAY") == nullptr && getenv("WAYLAND_DISPLAY") == nullptr)
    fail(
        "--click needs a display and there is none (DISPLAY is not set): give the pairs as\n"
        "\"u v X Y Z\" lines in --points FILE instead");
  const std::string window = "zot_init: click the model point";
  try {
    cv::namedWindow(window, cv::WINDOW_AUTOSIZE);
  } catch (const cv::Exception&) {
    fail("--click: this OpenCV cannot open windows; give the pairs in --points FILE instead");
  }
  ClickState state;
  cv::setMouseCallback(window, onMouse, &state);
  std::vector<PointPair> kept;
  int given = 0;
  for (const PointPair& p : pairs) given += p.hasImage;
  for (PointPair p : pairs) {
    if (p.hasImage) {
      kept.push_back(p);
      continue;
    }
    cv::Mat view;
    cv::cvtColor(frame, view, cv::COLOR_GRAY2BGR);
    for (const PointPair& k : kept)
      cv::circle(view, k.image, 4, cv::Scalar(0, 255, 0), 1, cv::LINE_AA);
    char text[200];
    snprintf(text, sizeof text, "click (%g, %g, %g)   right: skip  Enter: done  Esc: cancel",
             p.model.x, p.model.y, p.model.z);
    cv::putText(view, text, cv::Point(8, 20), cv::FONT_HERSHEY_SIMPLEX, 0.45,
                cv::Scalar(0, 255, 255), 1, cv::LINE_AA);
    cv::imshow(window, view);
    state.button = 0;
    int key = -1;
    while (state.button == 0 && key != 27 && key != 13 && key != 10) key = cv::waitKey(30);
    if (key == 27) fail("cancelled");
    if (key == 13 || key == 10) {
      if (given >= 4) break;
      continue;
    }
    if (state.button == 2) continue;
    p.image = state.point;
    p.hasImage = true;
    p.where = "clicked point " + std::to_string(kept.size() + 1) + " " + p.where;
    kept.push_back(p);
    given++;
  }
  cv::destroyWindow(window);
  pairs = kept;
}

// ---------------------------------------------------------------- poses
// Object-in-camera pose from rvec and tvec (radians, model units).
void poseFromRvec(const cv::Mat& rvec, const cv::Mat& tvec, double* T) {
  cv::Mat R;
  cv::Rodrigues(rvec, R);
  for (int r = 0; r < 3; r++) {
    for (int c = 0; c < 3; c++) T[4 * r + c] = R.at<double>(r, c);
    T[4 * r + 3] = tvec.at<double>(r);
  }
  T[12] = T[13] = T[14] = 0.0;
  T[15] = 1.0;
}

// Pixel residuals of the pairs under T (object in camera), with distortion.
std::vector<double> residuals(const std::vector<PointPair>& pairs, const double* T,
                              const cv::Mat& K, const cv::Mat& dist) {
  cv::Mat R(3, 3, CV_64F), rvec, tvec(3, 1, CV_64F);
  for (int r = 0; r < 3; r++) {
    for (int c = 0; c < 3; c++) R.at<double>(r, c) = T[4 * r + c];
    tvec.at<double>(r) = T[4 * r + 3];
  }
  cv::Rodrigues(R, rvec);
  std::vector<cv::Point3d> model;
  for (const PointPair& p : pairs) model.push_back(p.model);
  std::vector<cv::Point2d> projected;
  cv::projectPoints(model, rvec, tvec, K, dist, projected);
  std::vector<double> e;
  for (size_t i = 0; i < pairs.size(); i++) e.push_back(cv::norm(projected[i] - pairs[i].image));
  return e;
}

double rms(const std::vector<double>& e) {
  double s = 0.0;
  for (double x : e) s += x * x;
  return e.empty() ? 0.0 : std::sqrt(s / e.size());
}

cv::Mat readFirstFrame(const std::string& path) {
  cv::Mat frame = cv::imread(path, cv::IMREAD_GRAYSCALE);
  if (frame.empty()) {
    cv::VideoCapture video(path);
    cv::Mat colour;
    if (video.isOpened() && video.read(colour) && !colour.empty()) {
      if (colour.channels() == 1)
        frame = colour;
      else
        cv::cvtColor(colour, frame, cv::COLOR_BGR2GRAY);
    }
  }
  if (frame.empty()) fail("cannot read an image from " + path);
  if (frame.depth() != CV_8U) fail(path + ": only 8-bit images are supported");
  return frame.isContinuous() ? frame : frame.clone();
}

void writeOverlay(ZOTtracker::GenericObjectTracker& tracker, int cam, const double* poseTool,
                  const double* Tcam, const std::vector<PointPair>& pairs, const cv::Mat& K,
                  const cv::Mat& dist, double axisLength, const std::string& path) {
  const int width = tracker.m_imageWidth[cam], height = tracker.m_imageHeight[cam];
  cv::Mat view(height, width, CV_8UC3);
  zot_sim::drawTrackingOverlay(tracker, cam, poseTool, axisLength, view.data);
  // The overlay shows the undistorted image: the given points move with it.
  std::vector<cv::Point2d> given, undistorted;
  for (const PointPair& p : pairs) given.push_back(p.image);
  cv::undistortPoints(given, undistorted, K, dist, cv::noArray(), K);
  for (size_t i = 0; i < pairs.size(); i++) {
    const double X[3] = {pairs[i].model.x, pairs[i].model.y, pairs[i].model.z};
    double u[2];
    zot_sim::projectPoint(K.ptr<double>(), Tcam, X, u);
    cv::circle(view, undistorted[i], 5, cv::Scalar(0, 220, 0), 1, cv::LINE_AA);
    cv::drawMarker(view, cv::Point2d(u[0], u[1]), cv::Scalar(0, 0, 255), cv::MARKER_CROSS, 8, 1);
    cv::putText(view, std::to_string(i + 1), undistorted[i] + cv::Point2d(6, -6),
                cv::FONT_HERSHEY_SIMPLEX, 0.4, cv::Scalar(0, 220, 0), 1, cv::LINE_AA);
  }
  if (!cv::imwrite(path, view)) fail("cannot write " + path);
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parseArguments(argc, argv);
  // With -q the parser's echo of the calibration goes nowhere.
  zot_sim::StdoutCapture echo(o.quiet);
  ZOTtracker::TrackerSession session(o.configDir.c_str(), o.cameraFile.c_str(),
                                     o.trackerFile.c_str(), o.modelFile.c_str());
  echo.end(false);
  if (!session.ok())
    fail("cannot set the tracker up from " + o.configDir + ": " + session.message());
  ZOTtracker::GenericObjectTracker& tracker = *session.tracker();
  if (o.cam < 0 || o.cam >= tracker.m_nCameras)
    zot_sim::usageError("zot_init", "--cam " + std::to_string(o.cam) + ": the configuration has " +
                                        std::to_string(tracker.m_nCameras) + " camera(s)");
  std::vector<zot_sim::CameraConfig> cameras;
  std::vector<double> parameters;
  zot_sim::ModelConfig model;
  std::string error;
  const std::vector<double>& setup = session.setupArray();
  if (!zot_sim::decodeSetupArray(setup.data(), (int)setup.size(), cameras, parameters, model,
                                 error))
    fail("the configuration is inconsistent: " + error);
  const zot_sim::CameraConfig& camera = cameras[o.cam];
  const double modelSize = zot_sim::modelSize(model, nullptr);

  const cv::Mat frame = readFirstFrame(o.image);
  if (frame.cols != camera.width || frame.rows != camera.height)
    fail(o.image + " is " + std::to_string(frame.cols) + " x " + std::to_string(frame.rows) +
         ", cam " + std::to_string(o.cam) + " is " + std::to_string(camera.width) + " x " +
         std::to_string(camera.height));

  std::vector<PointPair> pairs;
  if (!o.pointsFile.empty()) pairs = readPoints(o.pointsFile);
  if (o.click && o.pointsFile.empty()) {
    for (const zot_sim::BodyConfig& b : model.bodies)
      for (size_t i = 0; b.type == 0 && i + 2 < b.mesh.vertices.size(); i += 3) {
        PointPair p;
        p.model = {b.mesh.vertices[i], b.mesh.vertices[i + 1], b.mesh.vertices[i + 2]};
        p.where = "(model vertex " + std::to_string(i / 3 + 1) + ")";
        pairs.push_back(p);
      }
  }
  for (const PointPair& p : pairs)
    if (!p.hasImage && !o.click)
      fail(p.where + ": no image position; give u v X Y Z, or use --click to click it");
  if (o.click) clickPoints(pairs, frame);
  const std::string source = o.pointsFile.empty() ? "the clicked points" : o.pointsFile;
  std::vector<cv::Point3d> modelPoints;
  std::vector<cv::Point2d> imagePoints;
  for (const PointPair& p : pairs) {
    modelPoints.push_back(p.model);
    imagePoints.push_back(p.image);
  }
  checkPairs(pairs, modelPoints, imagePoints, camera.width, camera.height, modelSize, source);
  if (o.click) {
    std::ofstream saved(o.out + ".points.txt");
    saved << "# u v X Y Z, clicked with zot_init\n";
    for (const PointPair& p : pairs)
      saved << p.image.x << " " << p.image.y << " " << p.model.x << " " << p.model.y << " "
            << p.model.z << "\n";
  }

  // Perspective-n-point in the camera as recorded (with its distortion).
  const cv::Mat K = (cv::Mat_<double>(3, 3) << camera.fx, camera.skew, camera.cx, 0, camera.fy,
                     camera.cy, 0, 0, 1);
  const cv::Mat dist = (cv::Mat_<double>(1, 5) << camera.dist[0], camera.dist[1], camera.dist[2],
                        camera.dist[3], camera.dist[4]);
  cv::Mat rvec, tvec;
  if (!cv::solvePnP(modelPoints, imagePoints, K, dist, rvec, tvec, false, cv::SOLVEPNP_SQPNP))
    fail(source + ": no pose fits these points");
  cv::solvePnPRefineLM(modelPoints, imagePoints, K, dist, rvec, tvec);
  double Tcam[16], poseTool[16], toolFromCamera[16];
  poseFromRvec(rvec, tvec, Tcam);
  ZOTtracker::inverseTransform(tracker.m_toolToCamera[o.cam], toolFromCamera);
  ZOTtracker::matrixProduct444(toolFromCamera, Tcam, poseTool);
  const std::vector<double> pnpError = residuals(pairs, Tcam, K, dist);

  // One frame of the tracker from that pose: the model's edges in the image
  // pull it to where the contour is, which clicks rarely are.
  for (int c = 0; c < tracker.m_nCameras; c++)
    if (c != o.cam) tracker.m_contourTracker.m_camEnabled[c] = 0;
  const unsigned char* images[ZOTtracker::ZOT_MAX_CAMERAS] = {};
  images[o.cam] = frame.data;
  double finalTool[16], finalCam[16];
  std::copy(poseTool, poseTool + 16, finalTool);
  std::string refinement = "not asked for (--no-refine)";
  if (o.refine) {
    session.start(poseTool);
    const ZOTtracker::TrackResult r = session.track(images, 0.0, nullptr);
    char text[200];
    if (r.code == 0) {
      std::copy(r.pose, r.pose + 16, finalTool);
      double dt = 0.0, dr = 0.0;
      zot_sim::poseError(finalTool, poseTool, &dt, &dr);
      snprintf(
          text, sizeof text,
          "moved the pose by %.3g (model units) and %.3g deg; %d of %d contour samples matched", dt,
          dr, r.matchedSamples, r.samples);
    } else {
      snprintf(text, sizeof text, "failed (%d %s): the pose from the points is kept", r.code,
               r.message);
    }
    refinement = text;
  } else {
    tracker.undistortAllImages(images);
  }
  ZOTtracker::matrixProduct444(tracker.m_toolToCamera[o.cam], finalTool, finalCam);
  const std::vector<double> finalError = residuals(pairs, finalCam, K, dist);

  if (!o.quiet) {
    printf(
        "point  image (u, v)         model (X, Y, Z)                 residual [px]: points  "
        "refined\n");
    for (size_t i = 0; i < pairs.size(); i++)
      printf("%5zu  (%7.1f, %7.1f)  (%9.3f, %9.3f, %9.3f)  %22.2f  %7.2f\n", i + 1,
             pairs[i].image.x, pairs[i].image.y, pairs[i].model.x, pairs[i].model.y,
             pairs[i].model.z, pnpError[i], finalError[i]);
    printf("rms residual: %.2f px from the points, %.2f px after the refinement\n", rms(pnpError),
           rms(finalError));
    printf("edge refinement: %s\n", refinement.c_str());
  }
  if (rms(pnpError) > 5.0)
    fprintf(
        stderr,
        "zot_init: warning: the points disagree by %.1f px rms: a point may be mislabelled, or\n"
        "the model unit or the camera file may not match the image\n",
        rms(pnpError));
  writeOverlay(tracker, o.cam, finalTool, finalCam, pairs, K, dist, 0.4 * modelSize, o.overlay);
  std::vector<zot_sim::Pose> poses(1);
  std::copy(finalTool, finalTool + 16, poses[0].begin());
  if (!zot_sim::writePoseFile(o.out, poses, "object pose in the tool frame, from zot_init", error))
    fail(error);
  if (!o.quiet) printf("written: %s, %s\n", o.out.c_str(), o.overlay.c_str());
  return 0;
}
