/// @file
/// The one place that touches the windowing backend. The public window calls
/// of IO.h forward here one to one; a build without display (CMake option
/// ZOT_WITH_DISPLAY=OFF) keeps these functions but makes them do nothing.
///
/// Before the first window the layer checks that an X display can be reached
/// (DISPLAY names a socket that accepts a connection). Without one it prints
/// "WARNING: no display available, debug windows are not shown" once and every
/// later call does nothing; waitKey then returns -1 without waiting. Backend
/// errors are caught and reported the same way: nothing throws or aborts into
/// the host.
#pragma once

#include <string>

namespace ZOTtracker {

/// Opens a named window; flags as for createWindow.
void opencv_createWindow(const std::string& name, int flags);
/// Shows width x height pixels of 1 or 3 interleaved 8-bit channels from the
/// caller's buffer (no copy); other channel counts print "undefined image type"
/// and show nothing.
void opencv_showImage(const std::string& name, unsigned char* data, int width, int height,
                      int channels);
/// Key code, or -1 when no key came within the time or no display is available.
int opencv_waitKey(int milliseconds);
void opencv_destroyWindow(const std::string& name);
void opencv_destroyAllWindows();

/// True when windows can be shown (display build and a reachable display).
/// The first call without a display prints the one warning line.
bool opencv_displayAvailable();

}  // namespace ZOTtracker
