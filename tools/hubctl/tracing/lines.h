// Lines of a trace for people, in the manner of "hubctl peers", and for programs. Live and recorded ones are the same.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "showing/piece_printer.h"
#include "tracing/story.h"

class LinePrinter {
 public:
  void print(const Line& line);

 private:
  PiecePrinter printer{titles()};
  std::int64_t hubUser = -1;  // who the hub runs as

  static std::string titles();
  void printNote(const Line& line, const std::string& time);
};

nlohmann::json lineJson(const Line& line);

/// A line that people are not shown: of a process that the hub started by itself, as pkill(1).
bool isInner(const Line& line);
