// What is wrong with a board, and what to do: one table of troubles, each judged from the facts alone.
#pragma once

#include <string>
#include <vector>

#include "desk/board.h"

/// How bad a finding is. Where the board cannot be seen as a whole, it may be well for all that is known.
enum class Grade { note, unknown, trouble };

struct Finding {
  const char* name;  // of its row, for programs
  Grade grade;
  std::string subject;  // the queue, service, line or directory that it is about; empty for the service itself
  std::string text;     // one sentence, harmless for a terminal
  std::string step;     // what to do next, with the command
};

/// The worst first; empty when there is nothing to say.
std::vector<Finding> judgeBoard(const Facts& board);

Grade worst(const std::vector<Finding>& findings);

/// Whether nothing more fits into a queue.
bool isFull(const QueueFacts& queue);

/// "at least 15 since 22 Nov 2026 21:51:04"; empty when none is known.
std::string describeLosses(const Facts& board, const QueueFacts& queue);
