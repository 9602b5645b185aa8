#include "Kiv/System.h"

#include <time.h>

namespace Kiv {
namespace {
Clock* installed = nullptr;
}

double System::currentTime() {
  if (installed) return installed->now();
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

Clock* System::clockIs(Clock* clock) {
  Clock* old = installed;
  installed = clock;
  return old;
}

FakeClock::FakeClock(double start) : now_(start), previous_(System::clockIs(this)) {}

FakeClock::~FakeClock() { System::clockIs(previous_); }

}  // namespace Kiv
