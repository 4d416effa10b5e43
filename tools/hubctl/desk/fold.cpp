#include "desk/fold.h"

#include <utility>

void Fold::Held::keep(const LogLine& other) {
  line = other;
  text = other.text;
  message = other.message;
}

const LogLine& Fold::Held::view() {
  line.text = text;
  line.message = message;
  return line;
}

bool Fold::Shown::same(const LogLine& line) const {
  return message == line.message && priority == line.priority && leftOut == line.leftOut;
}

Fold::Fold(std::function<void(const LogLine&)> itsShowLine, std::function<void(const Rounds&)> itsShowRounds)
    : showLine(std::move(itsShowLine)), showRounds(std::move(itsShowRounds)) {}

void Fold::take(const LogLine& line) {
  if (rounds.lines > 0 && past(rounds.lines - 1 - begun).same(line)) {
    held[longest + begun].keep(line);
    if (++begun < rounds.lines) return;
    begun = 0;
    ++rounds.count;
    for (std::size_t i = 0; i < rounds.lines; ++i) {
      std::swap(held[i], held[longest + i]);
      const LogTime time = held[i].line.time;
      if (time == 0) continue;  // a line of another program has none
      if (rounds.first == 0) rounds.first = time;
      rounds.last = time;
    }
    return;
  }
  flush();
  show(line);
  lookForRounds();
}

void Fold::show(const LogLine& line) {
  newest = (newest + 1) % shown.size();
  Shown& kept = shown[newest];
  kept.priority = line.priority;
  kept.leftOut = line.leftOut;
  kept.message = line.message;
  showLine(line);
}

// Whether the last lines are the same as those before them.
void Fold::lookForRounds() {
  for (std::size_t lines = 1; lines <= longest; ++lines) {
    std::size_t same = 0;
    while (same < lines && past(same) == past(same + lines)) ++same;
    if (same == lines) {
      rounds = {lines, 0, 0, 0};
      return;
    }
  }
}

void Fold::flush() {
  const Rounds last = std::exchange(rounds, {0, 0, 0, 0});
  if (last.count == 1) {
    for (std::size_t i = 0; i < last.lines; ++i) show(held[i].view());
  } else if (last.count > 1) {
    showRounds(last);
  }
  const std::size_t left = std::exchange(begun, 0);
  for (std::size_t i = 0; i < left; ++i) show(held[longest + i].view());
}
