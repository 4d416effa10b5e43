#include "hub/packet.h"

#include <cstring>

namespace {

std::uint16_t readWord(const std::uint8_t* bytes) { return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8); }

void writeWord(std::uint8_t* bytes, std::uint16_t value) {
  bytes[0] = static_cast<std::uint8_t>(value & 0xFF);
  bytes[1] = static_cast<std::uint8_t>(value >> 8);
}

}  // namespace

PacketHeader readHeader(const std::uint8_t* packet, std::uint16_t remaining) {
  if (packet == nullptr || remaining < packetHeaderSize) return {0xFFFF, 0xFFFF, 0xFF};
  return {readWord(packet), readWord(packet + 2), packet[4]};
}

int buildPacket(std::uint8_t* buffer, std::uint16_t* lengthWord, std::uint16_t tag, std::uint8_t opcode,
                const std::uint8_t* payload, int payloadLength) {
  if (buffer == nullptr || payloadLength < 0 || payloadLength > maxPayload || *lengthWord != frameTextSize) return 0;
  std::memset(buffer, 0, frameTextSize);
  *lengthWord = static_cast<std::uint16_t>(payloadLength + packetHeaderSize);
  writeWord(buffer, *lengthWord);
  writeWord(buffer + 2, tag);
  buffer[4] = opcode;
  if (payloadLength > 0) std::memcpy(buffer + packetHeaderSize, payload, static_cast<std::size_t>(payloadLength));
  return 1;
}
