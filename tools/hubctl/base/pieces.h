// What travels in the queues: a message, and the pieces that it is made of.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "base/queues.h"

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

/// Splits the text of a message of `queue`: a Bundle on the inbound queue, a single piece on any other. There is always
/// at least one; bytes that no Packet claims are one more.
std::vector<Piece> split(const Queue& queue, ByteView message);

/// A Packet with up to 65530 bytes of payload; an empty one for more.
Bytes makePacket(std::uint8_t opcode, std::uint16_t tag, ByteView payload = {});
