// A service configuration, read exactly as the service reads it, and the traps that its plain format sets.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

struct Trap {
  std::size_t line;
  bool unwatched;  // because of it, a service is not kept watched
  std::string text;
  bool blocks = false;  // or may block: the service waits for the end of what it starts, and watches nothing meanwhile
};

struct Service {
  std::string name;
  std::vector<pid_t> processes;  // that show the name now
};

struct Verdict {
  std::vector<Service> watched;
  std::vector<Trap> traps;
  bool debug = false;  // nothing is watched at all
};

/// Judges what such a file holds. Without `here` it is for another machine, whose programs and processes cannot be looked at.
Verdict judgeConfig(const std::string& content, bool here);
