// One message of the log: "ERROR 22 Nov 2026 21:51:04 bad opcode: 29 ".
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "desk/catalogue.h"

/// A local time as one number: 20261122215104. 0 is no time.
using LogTime = std::int64_t;

constexpr std::size_t logTimeSize = 20;

/// What a text begins with, as the log writes it: "22 Nov 2026 21:51:04".
std::optional<LogTime> readLogTime(std::string_view text);
std::string logTime(LogTime time);
std::string isoTime(LogTime time);  // "2026-11-22T21:51:04"
std::time_t clockTime(LogTime time);

/// Views into what was read. A message that covers several lines has newlines; the blank that ends it is left out.
struct LogLine {
  Priority priority = Priority::none;  // none: other programs' lines, and what goes before the first whole line
  LogTime time = 0;
  std::string_view text;     // the line or lines as they stand
  std::string_view message;  // behind priority and time; all of the text where there are none
  std::size_t leftOut = 0;   // bytes behind the text that were too much
};

/// Whether a line begins as one of HubKeeper's; fills in all but `leftOut`.
bool readHead(std::string_view text, LogLine& line);

/// The row of the catalogue, or nullptr. A line without priority may be a text of perror(3).
inline const LogKind* kindOf(const LogLine& line) {
  return findKind(line.priority == Priority::none ? Priority::perror : line.priority, line.message);
}
