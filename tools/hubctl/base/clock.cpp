#include "base/clock.h"

#include <algorithm>
#include <ctime>

#include "base/signals.h"

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

Clock::time_point after(double seconds) {
  return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// In short naps: a signal that falls between the look at its mark and the nap would otherwise be noticed at the end only.
void nap(double seconds) {
  const Clock::time_point end = after(seconds);
  for (double left = seconds; left > 0 && !stopWanted(); left = -secondsSince(end)) {
    const timespec span = {0, static_cast<long>(std::min(left, 0.1) * 1e9)};
    nanosleep(&span, nullptr);
  }
}
