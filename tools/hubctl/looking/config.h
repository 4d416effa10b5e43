// A service configuration, read exactly as the service reads it, and the traps that its plain format sets.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct Trap {
  std::size_t line;
  bool unwatched;  // because of it, a service is not watched
  std::string text;
};

struct Verdict {
  std::vector<std::string> watched;
  std::vector<Trap> traps;
  bool debug = false;  // nothing is watched at all
};

/// Throws a Failure when the file cannot be opened.
Verdict judgeConfig(const std::string& path);
