// A host that reaches the library through its installed headers only.
#include <ZOTtracker/IO.h>
#include <ZOTtracker/Math.h>
#include <ZOTtracker/TrackerSession.h>
#include <ZOTtracker/memory_handling.h>

#include <cmath>
#include <cstdio>

int main() {
  using namespace ZOTtracker;
  doBigMalloc(16, 0, 64, 0, 0, 0, 0);
  double* T = myMallocDouble(16);
  const double twist[6] = {0, 0, 90, 1, 2, 3};
  double back[6];
  TfromTwist(twist, T);
  const int code = TwistFromT(T, back);
  doBigFree();
  // The session refuses an array that describes no tracker, with a message.
  const double nothing[1] = {7};
  ZOTtracker::TrackerSession session(1, nothing);
  const bool ok = !session.ok() && code == 0 && std::fabs(back[2] - 90.0) < 1e-9 &&
                  std::fabs(back[5] - 3.0) < 1e-9;
  printf("host: %s\n", ok ? "ok" : "wrong result");
  return ok ? 0 : 1;
}
