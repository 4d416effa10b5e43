// Messages made readable: a queue message is split into its Packets, and each becomes one line or one JSON object.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct Queue;

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

enum class Kind {
  packet,
  bounce,  // one byte on the queue to Ridgelink: the opcode of a Packet that has been taken
  state,   // two bytes on the queue to Ridgelink: the state of the board
  bad,     // bytes that are no Packet
};

/// One piece of a message. What a kind lacks is 0; the views point into the message.
struct Piece {
  Kind kind;
  std::size_t length;
  std::uint16_t tag;
  std::uint8_t opcode;
  ByteView payload;
};

/// Splits the text of a message of `queue`: a Bundle on the inbound queue, a single piece on any other.
std::vector<Piece> split(const Queue& queue, ByteView message);

/// A Packet of any size up to 65535 bytes.
Bytes makePacket(std::uint8_t opcode, std::uint16_t tag, ByteView payload = {});

std::string_view opcodeName(std::uint8_t opcode);

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
