// A bar for what takes long.
#pragma once

#include <cstdint>

#include "base/clock.h"

/// A bar with rate and time left on stderr, where that is a terminal.
class Progress {
 public:
  explicit Progress(std::uint64_t totalBytes);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  void show(std::uint64_t doneBytes);

 private:
  void draw();

  std::uint64_t total;
  Clock::time_point start = Clock::now();
  Clock::time_point drawn{};
  std::uint64_t done = 0;
  bool visible;
};
