// Spans of time, in seconds. The clock is the one that nobody sets.
#pragma once

#include <chrono>

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start);
Clock::time_point after(double seconds);

/// Sleeps, but not beyond a SIGINT.
void nap(double seconds);
