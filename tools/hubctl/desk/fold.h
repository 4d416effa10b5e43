// Lines that come again and again, one or a few in turn, as a service in a loop logs them: two rounds are shown, and the
// others counted.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>

#include "desk/log_line.h"

class Fold {
 public:
  struct Rounds {
    std::size_t lines;  // in each
    std::uint64_t count;
    LogTime first, last;  // 0 where no line has a time
  };

  /// What is to be shown, in order: a line, or how many further rounds of the lines before it there were.
  Fold(std::function<void(const LogLine&)> showLine, std::function<void(const Rounds&)> showRounds);

  void take(const LogLine& line);
  void flush();  // shows what is held back

 private:
  struct Shown {
    Priority priority = Priority::none;
    std::size_t leftOut = 0;
    std::string message;
    bool operator==(const Shown&) const = default;
    bool same(const LogLine& line) const;
  };
  struct Held {
    LogLine line;
    std::string text, message;
    void keep(const LogLine& other);
    const LogLine& view();
  };
  static constexpr std::size_t longest = 4;  // lines of a round
  Shown& past(std::size_t back) { return shown[(newest + shown.size() - back) % shown.size()]; }
  void show(const LogLine& line);
  void lookForRounds();

  std::function<void(const LogLine&)> showLine;
  std::function<void(const Rounds&)> showRounds;
  std::array<Shown, 2 * longest> shown;  // the last ones, in turn
  std::size_t newest = 0;
  Rounds rounds = {0, 0, 0, 0};        // no lines: none are under way
  std::array<Held, 2 * longest> held;  // the last whole round, and what there is of the next
  std::size_t begun = 0;               // how many of the next
};
