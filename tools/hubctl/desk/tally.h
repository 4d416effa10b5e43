// How many lines of each kind there were, and when.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "desk/log_line.h"

/// Lines of one kind, about one service where they name one. Without a kind: those that are not in the catalogue.
struct Count {
  const LogKind* kind;
  Priority priority;
  std::string service;
  std::uint64_t lines;
  LogTime first, last;  // 0 where no line had a time
};

class Tally {
 public:
  void take(const LogLine& line);

  /// The most urgent first, then the most frequent.
  std::vector<Count> counts() const;

 private:
  std::map<std::pair<const LogKind*, std::pair<Priority, std::string>>, Count> found;
};
