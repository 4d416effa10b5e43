// What the service's log tells of the process that runs now: what stands behind the line with which it started.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "desk/log_line.h"

/// Messages for a queue that reached nobody, as far as they are logged.
struct Losses {
  std::uint64_t lines = 0;
  LogTime first = 0, last = 0;
  bool silent = false;  // there may be more of which no line tells
};

/// A watched service that was found dead and started.
struct Restarts {
  std::uint64_t count = 0;
  std::array<LogTime, 3> last = {};  // the newest first
};

struct LogFacts {
  std::string unread;          // why the log could not be read
  LogTime start = 0;           // 0: the line of the start is not there any more, and nothing below counts
  std::deque<LogTime> starts;  // the last three, this one among them
  std::map<int, Losses> losses;
  std::map<std::string, Restarts> restarts;
  bool clockstewardOff = false;
  std::deque<std::pair<LogTime, std::string>> errors;  // the last ones
};

/// Reads the whole log as a stream. Where it is known when the process was started, a line of a start at any other time does
/// not take the place of the one that fits: what a command prints into the log hides nothing.
LogFacts readLogFacts(std::optional<std::time_t> processStart);
