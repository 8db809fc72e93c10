// The session: configuration, pools and tracker in one object, with the
// per-frame call reduced to images, time and tool pose.
#include "TrackerSession.h"

#include <cstdio>
#include <cstring>

#include "FileParser.h"
#include "IO.h"
#include "Math.h"
#include "PoolSizes.h"
#include "memory_handling.h"

namespace ZOTtracker {

namespace {

// The session that exists in this process, if any: the pools and the
// diagnostic string it relies on are process-wide.
const TrackerSession* g_session = nullptr;

// Largest setup array the parser may write: far above any configuration
// whose buffers fit in memory.
constexpr int kSetupCapacity = 4000000;

bool poolsReserved() {
  return m_bigArrayUchar || m_bigArrayUcharPtr || m_bigArrayDouble || m_bigArrayFloat ||
         m_bigArrayInt || m_bigArrayIntPtr || m_bigArrayShort;
}

// Free elements per pool, in the order of doBigMalloc.
void freeElements(uint64_t* free) {
  free[0] = m_totalAllocUchar - m_currentAllocUchar;
  free[1] = m_totalAllocUcharPtr - m_currentAllocUcharPtr;
  free[2] = m_totalAllocDouble - m_currentAllocDouble;
  free[3] = m_totalAllocFloat - m_currentAllocFloat;
  free[4] = m_totalAllocInt - m_currentAllocInt;
  free[5] = m_totalAllocIntPtr - m_currentAllocIntPtr;
  free[6] = m_totalAllocShort - m_currentAllocShort;
}

// Return codes of the Gauss-Newton loop: the frame got as far as sampling
// and matching, so the sample counts describe it.
bool reachedPoseUpdate(int code) {
  return code == ZOT_SUCCESS || code == ZOT_ERR_TOO_MANY_OUTLIERS || code == ZOT_ERR_DIVERGENCE ||
         code == ZOT_ERR_OUT_OF_SCREEN || code == ZOT_ERR_MAX_ITERATIONS || code == ZOT_ERR_SVD ||
         code == ZOT_ERR_FINAL_REPROJECTION;
}

}  // namespace

TrackerSession::TrackerSession(const char* directory, const char* cameraFile,
                               const char* trackerFile, const char* modelFile) {
  if (!claimProcess()) return;
  if (!directory || !cameraFile || !trackerFile || !modelFile) {
    fail(-1, "TrackerSession needs a directory and three file names");
    return;
  }
  std::unique_ptr<double[]> buffer(new double[kSetupCapacity]);
  int count = 0;
  FileParser parser;
  const int code = parser.parseAllFiles(directory, cameraFile, trackerFile, modelFile, count,
                                        buffer.get(), kSetupCapacity);
  if (code != 0) {
    fail(code, std::string("cannot read the configuration in ") + directory + " (" + cameraFile +
                   ", " + trackerFile + ", " + modelFile + "): " + errorMessage(code));
    return;
  }
  m_setup.assign(buffer.get(), buffer.get() + count);
  setUp();
}

TrackerSession::TrackerSession(int count, const double* setupArray) {
  if (!claimProcess()) return;
  if (setupArray == nullptr || count <= 0) {
    fail(-1, "TrackerSession needs a setup array of at least one value");
    return;
  }
  m_setup.assign(setupArray, setupArray + count);
  setUp();
}

TrackerSession::~TrackerSession() {
  m_tracker.reset();
  if (m_ownsPools) doBigFree();
  if (m_counted) g_session = nullptr;
}

bool TrackerSession::claimProcess() {
  if (g_session != nullptr) {
    fail(-1,
         "another TrackerSession exists in this process; only one at a time may own the "
         "memory pools, so end the other one first");
    return false;
  }
  g_session = this;
  m_counted = true;
  return true;
}

void TrackerSession::setUp() {
  const int count = (int)m_setup.size();
  size_t exact[ZOT_N_POOLS];
  if (computePoolSizes(count, m_setup.data(), 0.0, exact) != 0) {
    fail(-1, "the setup array does not describe a tracker (see the line above)");
    return;
  }
  if (poolsReserved()) {
    // The host's pools: refuse before set-up rather than let it end the process.
    uint64_t free[ZOT_N_POOLS];
    freeElements(free);
    for (int i = 0; i < ZOT_N_POOLS; i++) {
      if (free[i] < exact[i]) {
        char text[200];
        snprintf(text, sizeof text,
                 "the reserved pools are too small: %s has %llu free elements, the "
                 "configuration needs %zu (computePoolSizes)",
                 ZOT_POOL_NAMES[i], (unsigned long long)free[i], exact[i]);
        fail(-1, text);
        return;
      }
    }
  } else {
    size_t sizes[ZOT_N_POOLS];
    computePoolSizes(count, m_setup.data(), ZOT_POOL_MARGIN, sizes);
    reservePools(sizes);
    m_ownsPools = true;
  }
  m_tracker.reset(new GenericObjectTracker());
  if (m_tracker->setupFromGlobalArray(count, m_setup.data()) != 0) {
    fail(-1, "the tracker could not be set up from the configuration (see the line above)");
    return;
  }
  m_code = 0;
  m_message = "OK";
}

int TrackerSession::fail(int code, const std::string& message) {
  m_code = code;
  m_message = message;
  printf("ERROR: %s\n", message.c_str());
  // Nothing half-built stays: no tracker, and pools reserved here go back.
  m_tracker.reset();
  if (m_ownsPools) doBigFree();
  m_ownsPools = false;
  return code;
}

int TrackerSession::start(const double* initialPose, const double* initialVelocity) {
  if (!ok()) return m_code;
  if (initialPose == nullptr) {
    printf("ERROR: TrackerSession::start needs an initial pose\n");
    return -1;
  }
  memcpy(m_lastPose, initialPose, sizeof m_lastPose);
  for (int i = 0; i < 6; i++) m_startVelocity[i] = initialVelocity ? initialVelocity[i] : 0.0;
  m_started = true;
  m_initialise = true;
  return 0;
}

TrackResult TrackerSession::track(const unsigned char* const* images, double time,
                                  const double* toolPose) {
  TrackResult r;
  if (!ok()) {
    r.code = m_code;
    r.message = m_message.c_str();
    return r;
  }
  if (!m_started) {
    r.code = -1;
    r.message = "no track started: call start() with the initial pose first";
    return r;
  }
  double identity[16];
  if (toolPose == nullptr) {
    matrixIdentity(identity, 4);
    toolPose = identity;
  }
  GenericObjectTracker& t = *m_tracker;
  r.code = t.poseEstimation(images, time, toolPose, m_lastPose, m_startVelocity, time, r.pose,
                            r.velocity, r.covariance, m_dofMask, m_initialise, false, false, false);
  r.message = errorMessage(r.code);
  r.times = t.lastFrameTimes();
  r.quality = t.lastFitQuality();
  m_initialise = false;  // a failed first frame still started the track
  if (reachedPoseUpdate(r.code)) {
    const ContourTracker& ct = t.m_contourTracker;
    r.samples = ct.m_nTotalPoints;
    double matched = 0.0;
    for (int i = 0; i < ct.m_nTotalPoints; i++) matched += ct.m_inlierWeights[i];
    r.matchedSamples = (int)matched;
  }
  if (r.code == 0) memcpy(m_lastPose, r.pose, sizeof m_lastPose);
  return r;
}

int TrackerSession::draw(unsigned char* bgr, int camera, double frameLength,
                         const unsigned char* const* images) {
  if (!ok()) return m_code;
  if (!m_started || bgr == nullptr || camera < 0 || camera >= nCameras()) {
    printf("ERROR: TrackerSession::draw needs a started track, an image and a camera of 0 to %d\n",
           nCameras() - 1);
    return -1;
  }
  if (images != nullptr && m_tracker->undistortAllImages(images) != 0) return -1;
  m_tracker->drawResult(m_lastPose, bgr, camera, frameLength > 0.0, frameLength, nullptr);
  return 0;
}

void TrackerSession::setDofMask(const double* mask) {
  for (int i = 0; i < 6; i++) m_dofMask[i] = mask ? mask[i] : 1.0;
}

int TrackerSession::nCameras() const { return ok() ? m_tracker->m_nCameras : 0; }

int TrackerSession::imageWidth(int camera) const {
  return camera >= 0 && camera < nCameras() ? m_tracker->m_imageWidth[camera] : 0;
}

int TrackerSession::imageHeight(int camera) const {
  return camera >= 0 && camera < nCameras() ? m_tracker->m_imageHeight[camera] : 0;
}

}  // namespace ZOTtracker
