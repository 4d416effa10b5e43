#include "base/clock.h"

#include <ctime>

#include "base/signals.h"

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

Clock::time_point after(double seconds) {
  return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

void nap(double seconds) {
  if (seconds <= 0 || interrupted != 0) return;
  const auto whole = static_cast<time_t>(seconds);
  const timespec span = {whole, static_cast<long>((seconds - static_cast<double>(whole)) * 1e9)};
  nanosleep(&span, nullptr);
}
