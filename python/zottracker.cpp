// The zottracker Python module: the tracker session with NumPy images and
// poses, the configuration parser, the setup array header export and the
// pool sizes. Failures of the library become one Python exception with the
// library's message; arrays of the wrong kind are refused with a ValueError
// that says what was expected, before the library sees them.
#include <fcntl.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "FileParser.h"
#include "IO.h"
#include "PoolSizes.h"
#include "TrackerSession.h"

namespace py = pybind11;
using namespace ZOTtracker;

namespace {

// Raised as zottracker.Error (a RuntimeError): the library refused something.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

std::string withCode(const std::string& message, int code) {
  return message + " (code " + std::to_string(code) + ")";
}

// What an argument turned out to be, for the ValueError messages.
std::string describe(const py::handle& obj) {
  if (!py::isinstance<py::array>(obj))
    return std::string("an object of type ") + Py_TYPE(obj.ptr())->tp_name;
  const py::array a = py::reinterpret_borrow<py::array>(obj);
  std::string shape = "(";
  for (py::ssize_t i = 0; i < a.ndim(); i++)
    shape += (i ? ", " : "") + std::to_string(a.shape(i)) + (a.ndim() == 1 ? "," : "");
  shape += ")";
  const bool contiguous = (a.flags() & py::array::c_style) != 0;
  return std::string("a ") + (contiguous ? "" : "non-C-contiguous ") +
         py::str(a.dtype()).cast<std::string>() + " array of shape " + shape;
}

// The pixels of one grey image: a 2-D C-contiguous uint8 array of exactly the
// camera's size. Anything else is refused rather than converted, so that no
// frame pays for a hidden copy and no layout is guessed.
const unsigned char* greyImage(const py::handle& obj, int camera, int width, int height) {
  bool ok = py::isinstance<py::array>(obj);
  if (ok) {
    const py::array a = py::reinterpret_borrow<py::array>(obj);
    ok = a.dtype().is(py::dtype::of<uint8_t>()) && a.ndim() == 2 &&
         (a.flags() & py::array::c_style) && a.shape(0) == height && a.shape(1) == width;
    if (ok) return static_cast<const unsigned char*>(a.data());
  }
  throw py::value_error("image of camera " + std::to_string(camera) +
                        ": expected a 2-D C-contiguous numpy uint8 array of shape (" +
                        std::to_string(height) + ", " + std::to_string(width) + "), got " +
                        describe(obj));
}

// n float64 values from anything NumPy converts to an array of `shape`.
std::vector<double> doubles(const py::handle& obj, std::vector<py::ssize_t> shape, const char* what,
                            const char* expected) {
  using Array = py::array_t<double, py::array::c_style | py::array::forcecast>;
  Array a = Array::ensure(obj);
  bool ok = a && a.ndim() == (py::ssize_t)shape.size();
  for (size_t i = 0; ok && i < shape.size(); i++) ok = a.shape((py::ssize_t)i) == shape[i];
  if (!ok)
    throw py::value_error(std::string(what) + ": expected " + expected + ", got " + describe(obj));
  return std::vector<double>(a.data(), a.data() + a.size());
}

std::vector<double> pose(const py::handle& obj, const char* what) {
  return doubles(obj, {4, 4}, what, "a 4 x 4 float64 array (row-major homogeneous transform)");
}

// A setup array: any 1-D sequence of numbers.
std::vector<double> setupArray(const py::handle& obj) {
  using Array = py::array_t<double, py::array::c_style | py::array::forcecast>;
  Array a = Array::ensure(obj);
  if (!a || a.ndim() != 1 || a.size() == 0)
    throw py::value_error("setup array: expected a non-empty 1-D float64 array, got " +
                          describe(obj));
  return std::vector<double>(a.data(), a.data() + a.size());
}

template <typename T>
py::array_t<double> matrix(const T* values, std::vector<py::ssize_t> shape) {
  py::array_t<double> a(shape);
  std::copy(values, values + a.size(), a.mutable_data());
  return a;
}

// Standard output of C code silenced for the life of this object (the
// overlay prints its sample count on every call).
class QuietStdout {
 public:
  QuietStdout() {
    fflush(stdout);
    m_saved = dup(STDOUT_FILENO);
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
      dup2(null, STDOUT_FILENO);
      close(null);
    }
  }
  ~QuietStdout() {
    fflush(stdout);
    if (m_saved >= 0) {
      dup2(m_saved, STDOUT_FILENO);
      close(m_saved);
    }
  }

 private:
  int m_saved = -1;
};

// One frame's outcome, owning its message.
struct Result {
  TrackResult r;
  std::string message;
};

class Session {
 public:
  Session(const std::string& directory, const std::string& camera, const std::string& tracker,
          const std::string& model) {
    m_session.reset(
        new TrackerSession(directory.c_str(), camera.c_str(), tracker.c_str(), model.c_str()));
    check();
  }
  explicit Session(const std::vector<double>& setup) {
    m_session.reset(new TrackerSession((int)setup.size(), setup.data()));
    check();
  }

  void close() {
    m_session.reset();
    m_lastImages.clear();
  }

  TrackerSession& session() {
    if (!m_session) throw Error("the session is closed");
    return *m_session;
  }

  void start(const py::handle& initialPose, const py::handle& initialVelocity) {
    const std::vector<double> T = pose(initialPose, "initial_pose");
    std::vector<double> v(6, 0.0);
    if (!initialVelocity.is_none())
      v = doubles(initialVelocity, {6}, "initial_velocity", "6 float64 values");
    session().start(T.data(), v.data());
  }

  Result track(const py::handle& images, double time, const py::handle& toolPose) {
    TrackerSession& s = session();
    const int n = s.nCameras();
    std::vector<py::object> list;
    if (py::isinstance<py::array>(images) || !py::isinstance<py::sequence>(images) ||
        py::isinstance<py::str>(images)) {
      list.push_back(py::reinterpret_borrow<py::object>(images));
    } else {
      for (const py::handle& item : py::reinterpret_borrow<py::sequence>(images))
        list.push_back(py::reinterpret_borrow<py::object>(item));
    }
    if ((int)list.size() != n)
      throw py::value_error("images: expected " + std::to_string(n) +
                            " image(s), one per camera, got " + std::to_string(list.size()));
    const unsigned char* pixels[ZOT_MAX_CAMERAS] = {};
    for (int c = 0; c < n; c++)
      pixels[c] = greyImage(list[(size_t)c], c, s.imageWidth(c), s.imageHeight(c));
    m_lastImages = list;  // draw() shows them
    std::vector<double> tool;
    if (!toolPose.is_none()) tool = pose(toolPose, "tool_pose");
    Result result;
    {
      py::gil_scoped_release release;
      result.r = s.track(pixels, time, tool.empty() ? nullptr : tool.data());
    }
    result.message = result.r.code == 0 ? "OK" : result.r.message;
    return result;
  }

  py::array_t<uint8_t> draw(int camera, double frameLength) {
    TrackerSession& s = session();
    if (camera < 0 || camera >= s.nCameras())
      throw py::value_error("camera: expected 0 to " + std::to_string(s.nCameras() - 1) + ", got " +
                            std::to_string(camera));
    py::array_t<uint8_t> image(
        {(py::ssize_t)s.imageHeight(camera), (py::ssize_t)s.imageWidth(camera), (py::ssize_t)3});
    const unsigned char* pixels[ZOT_MAX_CAMERAS] = {};
    for (size_t c = 0; c < m_lastImages.size(); c++)
      pixels[c] = greyImage(m_lastImages[c], (int)c, s.imageWidth((int)c), s.imageHeight((int)c));
    int code = 0;
    {
      QuietStdout quiet;
      code = s.draw(image.mutable_data(), camera, frameLength,
                    m_lastImages.empty() ? nullptr : pixels);
    }
    if (code != 0) throw Error("draw: no track started; call start() first");
    return image;
  }

 private:
  void check() {
    if (m_session->ok()) return;
    const std::string message = withCode(m_session->message(), m_session->code());
    m_session.reset();
    throw Error(message);
  }

  std::unique_ptr<TrackerSession> m_session;
  std::vector<py::object> m_lastImages;  ///< the last frame's images, for draw()
};

py::array_t<double> parseConfig(const std::string& directory, const std::string& camera,
                                const std::string& tracker, const std::string& model) {
  constexpr int kCapacity = 4000000;
  std::unique_ptr<double[]> buffer(new double[kCapacity]);
  int count = 0;
  FileParser parser;
  const int code = parser.parseAllFiles(directory.c_str(), camera.c_str(), tracker.c_str(),
                                        model.c_str(), count, buffer.get(), kCapacity);
  if (code != 0)
    throw Error(withCode("cannot read the configuration in " + directory + " (" + camera + ", " +
                             tracker + ", " + model + "): " + errorMessage(code),
                         code));
  return matrix(buffer.get(), {(py::ssize_t)count});
}

std::string exportHeader(const py::handle& array, const std::string& directory) {
  const std::vector<double> a = setupArray(array);
  const std::string path = directory + "/global_array_declaration.h";
  // Removed first, so that a file that could not be written is noticed.
  std::remove(path.c_str());
  FileParser parser;
  parser.createGlobalArrayHeaderFile(directory.c_str(), (int)a.size(), a.data());
  FILE* f = fopen(path.c_str(), "r");
  if (f == nullptr) throw Error("cannot write " + path);
  fclose(f);
  return path;
}

py::dict poolSizes(const py::handle& array, double margin) {
  const std::vector<double> a = setupArray(array);
  size_t sizes[ZOT_N_POOLS];
  if (computePoolSizes((int)a.size(), a.data(), margin, sizes) != 0)
    throw Error("the setup array does not describe a tracker (see the line printed above)");
  py::dict d;
  for (int i = 0; i < ZOT_N_POOLS; i++) d[ZOT_POOL_NAMES[i]] = sizes[i];
  return d;
}

}  // namespace

PYBIND11_MODULE(zottracker, m) {
  m.doc() =
      "Model-based 6-DoF tracking of a rigid object in grey camera images.\n\n"
      "Session(directory, camera_file, tracker_file, model_file) or Session.from_array(a)\n"
      "sets a tracker up; start(initial_pose) and track(images, time, tool_pose) follow.\n"
      "Images are 2-D C-contiguous numpy.uint8 arrays (rows, columns), poses 4 x 4 float64\n"
      "arrays (row-major, X' = R X + t). Wrong arrays raise ValueError, refusals of the\n"
      "library zottracker.Error (a RuntimeError) with its message.";
  py::register_exception<Error>(m, "Error", PyExc_RuntimeError);

  py::class_<Result>(m, "Result", "Outcome of one frame.")
      .def_property_readonly(
          "code", [](const Result& r) { return r.r.code; },
          "0, or a negative error code (message says which)")
      .def_property_readonly(
          "message", [](const Result& r) { return r.message; }, "\"OK\" or the code's message")
      .def_property_readonly(
          "ok", [](const Result& r) { return r.r.code == 0; }, "code == 0")
      .def_property_readonly(
          "pose",
          [](const Result& r) {
            return matrix(r.r.pose, {4, 4});
          },
          "object in the tool frame, 4 x 4 (zeros when the frame failed)")
      .def_property_readonly(
          "velocity", [](const Result& r) { return matrix(r.r.velocity, {6}); },
          "rotation (degrees) then translation per time unit")
      .def_property_readonly(
          "covariance",
          [](const Result& r) {
            return matrix(r.r.covariance, {6, 6});
          },
          "6 x 6 pose covariance of the Kalman filter")
      .def_property_readonly(
          "samples", [](const Result& r) { return r.r.samples; },
          "contour samples of the last Gauss-Newton evaluation, all cameras")
      .def_property_readonly(
          "matched_samples", [](const Result& r) { return r.r.matchedSamples; },
          "of them matched to an image edge")
      .def_property_readonly(
          "times",
          [](const Result& r) {
            py::dict d;
            d["undistortion_ms"] = r.r.times.undistortionMs;
            d["edges_ms"] = r.r.times.edgesMs;
            d["pose_update_ms"] = r.r.times.poseUpdateMs;
            d["total_ms"] = r.r.times.totalMs;
            return d;
          },
          "stage times of the frame in milliseconds")
      .def_property_readonly(
          "quality",
          [](const Result& r) {
            py::dict d;
            d["inlier_fraction"] = r.r.quality.inlierFraction;
            d["residual_px"] = r.r.quality.residualPx;
            d["disagreement_px"] = r.r.quality.disagreementPx;
            d["robust_cost"] = r.r.quality.robustCost;
            d["iterations"] = r.r.quality.iterations;
            return d;
          },
          "the robust estimator's figures of the fit (all 0 with the designed one)")
      .def("__repr__", [](const Result& r) {
        return "<zottracker.Result " + std::to_string(r.r.code) + " " + r.message + ", " +
               std::to_string(r.r.matchedSamples) + " of " + std::to_string(r.r.samples) +
               " samples matched>";
      });

  py::class_<Session>(m, "Session",
                      "A tracker with its configuration and memory. One session may exist in a "
                      "process at a time; close() (or a with block) ends it.")
      .def(py::init<const std::string&, const std::string&, const std::string&,
                    const std::string&>(),
           py::arg("directory"), py::arg("camera_file"), py::arg("tracker_file"),
           py::arg("model_file"),
           "Parses the three configuration files in directory and sets a tracker up. "
           "Raises zottracker.Error with the reason when that fails or another session "
           "exists.")
      .def_static(
          "from_array",
          [](const py::handle& a) { return std::make_unique<Session>(setupArray(a)); },
          py::arg("setup_array"), "Sets a tracker up from a setup array (1-D float64).")
      .def("start", &Session::start, py::arg("initial_pose"),
           py::arg("initial_velocity") = py::none(),
           "Starts a new track at the next frame from initial_pose (object in the tool "
           "frame, 4 x 4) and initial_velocity (6 values, default rest).")
      .def("track", &Session::track, py::arg("images"), py::arg("time"),
           py::arg("tool_pose") = py::none(),
           "Tracks one frame. images: one 2-D C-contiguous uint8 array per camera (a list, "
           "or the array itself for one camera) of shape (height, width); time: the time "
           "stamp (non-decreasing); tool_pose: the tool in the world frame, 4 x 4 (None: "
           "a fixed camera). Returns a Result; a failed frame is a Result with a negative "
           "code, not an exception.")
      .def("draw", &Session::draw, py::arg("camera") = 0, py::arg("frame_length") = 0.0,
           "The camera's last image, undistorted, with the model contour in red at the last "
           "estimated pose (and the object's axes when frame_length > 0), as a (height, "
           "width, 3) uint8 BGR array.")
      .def(
          "set_dof_mask",
          [](Session& s, const py::handle& mask) {
            const std::vector<double> v = doubles(mask, {6}, "mask", "6 float64 values");
            s.session().setDofMask(v.data());
          },
          py::arg("mask"), "6 values, rotation then translation; 0 freezes a parameter.")
      .def_property_readonly("n_cameras", [](Session& s) { return s.session().nCameras(); })
      .def(
          "image_shape",
          [](Session& s, int camera) {
            TrackerSession& t = s.session();
            if (camera < 0 || camera >= t.nCameras())
              throw py::value_error("camera: expected 0 to " + std::to_string(t.nCameras() - 1) +
                                    ", got " + std::to_string(camera));
            return py::make_tuple(t.imageHeight(camera), t.imageWidth(camera));
          },
          py::arg("camera") = 0, "(height, width) of the camera's images")
      .def_property_readonly(
          "setup_array",
          [](Session& s) {
            const std::vector<double>& a = s.session().setupArray();
            return matrix(a.data(), {(py::ssize_t)a.size()});
          },
          "the setup array the tracker was set up from")
      .def("close", &Session::close, "Ends the session: tracker and memory are released.")
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](Session& s, py::args) { s.close(); });

  m.def("parse_config", &parseConfig, py::arg("directory"), py::arg("camera_file"),
        py::arg("tracker_file"), py::arg("model_file"),
        "The setup array (1-D float64) of a camera, a tracker and a model file. Raises "
        "zottracker.Error with the parser's message when a file does not parse.");
  m.def("export_header", &exportHeader, py::arg("setup_array"), py::arg("directory"),
        "Writes directory/global_array_declaration.h (six decimals per value) for hosts that "
        "compile their configuration in; returns its path.");
  m.def("pool_sizes", &poolSizes, py::arg("setup_array"), py::arg("margin") = 0.0,
        "Elements per memory pool that a tracker set up from the array takes: a dict in the "
        "order Uchar, UcharPtr, Double, Float, Int, IntPtr, Short.");
  m.def("error_message", &errorMessage, py::arg("code"), "The message of an error code.");
  m.attr("POOL_MARGIN") = ZOT_POOL_MARGIN;
}
