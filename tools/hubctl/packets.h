// Messages made readable: each piece becomes one line or one JSON object.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "base/pieces.h"

/// Text of any bytes, with a dot for each one that cannot be printed.
std::string printable(ByteView bytes);

/// Bytes from hexadecimal digits, in pairs, with blanks, colons or commas anywhere between the pairs.
/// Throws a WrongUsage that shows the place.
Bytes parseHex(std::string_view text);

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

nlohmann::json pieceJson(const Piece& piece);

/// JSON as text. Bytes that are no UTF-8 are replaced.
std::string dumpJson(const nlohmann::json& json, int indent = -1);

/// "12:03:55.123", local time.
std::string timeOfDay();
