#include "base/pieces.h"

namespace {

Piece badPiece(ByteView bytes) { return {Kind::bad, bytes.size(), 0, 0, bytes}; }

Piece pieceOf(const hubkeeper_piece& step) {
  if (step.good == 0) return badPiece({step.bytes, step.remaining});
  return {Kind::packet, step.header.length, step.header.tag, step.header.opcode,
          ByteView(step.bytes, step.header.length).subspan(HUBKEEPER_HEADER_SIZE)};
}

}  // namespace

std::vector<Piece> split(const Queue& queue, ByteView message) {
  if (queue == ridgelink && message.size() == 1) return {{Kind::bounce, 1, 0, message[0], {}}};
  if (queue == ridgelink && message.size() == 2) return {{Kind::state, 2, 0, 0, message}};
  std::vector<Piece> pieces;
  hubkeeper_walk walk = {message.data(), message.size()};
  hubkeeper_piece step;
  while ((pieces.empty() || queue == inbound) && hubkeeper_next(&walk, &step) == 1) pieces.push_back(pieceOf(step));
  if (pieces.empty() || walk.remaining > 0) pieces.push_back(badPiece({walk.bytes, walk.remaining}));
  return pieces;
}

Bytes makePacket(std::uint8_t opcode, std::uint16_t tag, ByteView payload) {
  Bytes packet(HUBKEEPER_HEADER_SIZE + payload.size());
  packet.resize(hubkeeper_build(packet.data(), packet.size(), tag, opcode, payload.data(), payload.size()));
  return packet;
}
