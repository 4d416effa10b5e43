// Pieces of messages as lines that anybody can read and grep.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "base/pieces.h"

/// Prints pieces to stdout, each as one line: columns of the caller's, then length, tag, opcode with its name, payload as
/// hexadecimal and text, cut to the width of a terminal. The titles come before the first piece, or when asked for.
class PiecePrinter {
 public:
  explicit PiecePrinter(std::string itsTitles) : titles(std::move(itsTitles)) {}
  void printTitles();
  void print(std::string_view columns, const Piece& piece);

 private:
  std::string titles;  // empty once they have been printed
};
