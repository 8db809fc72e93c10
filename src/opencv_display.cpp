// The windowing backend of the debug display: the only file that includes
// OpenCV. Without ZOT_WITH_OPENCV (a build without display) the same
// functions exist and do nothing.
#include "opencv_display.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifdef ZOT_WITH_OPENCV
#include <exception>
#include <opencv2/core.hpp>
#include <opencv2/highgui.hpp>
#endif

namespace ZOTtracker {

namespace {

// -1 not yet probed, 0 no display (warning printed), 1 windows work.
int g_displayState = -1;

void switchOff(const char* reason) {
  if (g_displayState != 0) printf("WARNING: %s, debug windows are not shown\n", reason);
  g_displayState = 0;
}

#ifdef ZOT_WITH_OPENCV
bool connects(int fd, const sockaddr* address, socklen_t length) {
  const bool ok = fd >= 0 && connect(fd, address, length) == 0;
  if (fd >= 0) close(fd);
  return ok;
}

// The backend ends the process when it cannot reach the X server, so the
// server is looked for first: a local socket for ":N" and "unix:N", a
// loopback TCP port for "localhost:N" (forwarded sessions). Other hosts are
// trusted as given.
bool xServerReachable() {
  const char* platform = getenv("QT_QPA_PLATFORM");
  if (platform != nullptr && *platform != '\0') return true;  // the user chose a backend
  const char* display = getenv("DISPLAY");
  if (display == nullptr || *display == '\0') return false;
  const char* colon = strrchr(display, ':');
  if (colon == nullptr) return false;
  const int number = atoi(colon + 1);
  const size_t hostLength = (size_t)(colon - display);
  if (hostLength == 0 || (hostLength == 4 && strncmp(display, "unix", 4) == 0)) {
    sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    // Abstract socket first (leading zero byte), then the file system one.
    snprintf(address.sun_path + 1, sizeof(address.sun_path) - 1, "/tmp/.X11-unix/X%d", number);
    const socklen_t abstractLength =
        (socklen_t)(offsetof(sockaddr_un, sun_path) + 1 + strlen(address.sun_path + 1));
    if (connects(socket(AF_UNIX, SOCK_STREAM, 0), (const sockaddr*)&address, abstractLength))
      return true;
    snprintf(address.sun_path, sizeof(address.sun_path), "/tmp/.X11-unix/X%d", number);
    return connects(socket(AF_UNIX, SOCK_STREAM, 0), (const sockaddr*)&address, sizeof(address));
  }
  if ((hostLength == 9 && strncmp(display, "localhost", 9) == 0) ||
      (hostLength == 9 && strncmp(display, "127.0.0.1", 9) == 0)) {
    sockaddr_in address;
    memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_port = htons((uint16_t)(6000 + number));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connects(socket(AF_INET, SOCK_STREAM, 0), (const sockaddr*)&address, sizeof(address));
  }
  return true;
}

// Runs a backend call; an exception switches the display off instead of
// reaching the host.
template <typename F>
void guarded(F call) {
  if (!opencv_displayAvailable()) return;
  try {
    call();
  } catch (const std::exception& e) {
    printf("WARNING: debug window failed: %s\n", e.what());
    switchOff("display backend error");
  } catch (...) {
    switchOff("display backend error");
  }
}
#endif

}  // namespace

bool opencv_displayAvailable() {
  if (g_displayState < 0) {
#ifdef ZOT_WITH_OPENCV
    if (xServerReachable()) {
      g_displayState = 1;
    } else {
      switchOff("no display available");
    }
#else
    switchOff("built without display support");
#endif
  }
  return g_displayState == 1;
}

void opencv_createWindow(const std::string& name, int flags) {
#ifdef ZOT_WITH_OPENCV
  guarded([&] { cv::namedWindow(name, flags); });
#else
  (void)name;
  (void)flags;
  opencv_displayAvailable();
#endif
}

void opencv_showImage(const std::string& name, unsigned char* data, int width, int height,
                      int channels) {
  if (channels != 1 && channels != 3) {
    printf("undefined image type\n");
    return;
  }
#ifdef ZOT_WITH_OPENCV
  if (data == nullptr || width <= 0 || height <= 0) return;
  guarded([&] {
    const cv::Mat view(height, width, channels == 1 ? CV_8UC1 : CV_8UC3, data);
    cv::imshow(name, view);
  });
#else
  (void)name;
  (void)data;
  (void)width;
  (void)height;
  opencv_displayAvailable();
#endif
}

int opencv_waitKey(int milliseconds) {
  int key = -1;
#ifdef ZOT_WITH_OPENCV
  guarded([&] { key = cv::waitKey(milliseconds); });
#else
  (void)milliseconds;
#endif
  return key;
}

void opencv_destroyWindow(const std::string& name) {
#ifdef ZOT_WITH_OPENCV
  guarded([&] { cv::destroyWindow(name); });
#else
  (void)name;
#endif
}

void opencv_destroyAllWindows() {
#ifdef ZOT_WITH_OPENCV
  guarded([&] { cv::destroyAllWindows(); });
#endif
}

}  // namespace ZOTtracker
