#include "hub/packet.h"

#include <cstring>

int buildPacket(std::uint8_t* buffer, std::uint16_t* lengthWord, std::uint16_t tag, std::uint8_t opcode,
                const std::uint8_t* payload, int payloadLength) {
  if (buffer == nullptr || payloadLength < 0 || payloadLength > HUBKEEPER_PAYLOAD_MAX) return 0;
  if (*lengthWord != HUBKEEPER_PACKET_MAX) return 0;
  const std::size_t size =
      hubkeeper_build(buffer, HUBKEEPER_PACKET_MAX, tag, opcode, payload, static_cast<std::size_t>(payloadLength));
  if (size == 0) return 0;
  std::memset(buffer + size, 0, HUBKEEPER_PACKET_MAX - size);
  *lengthWord = static_cast<std::uint16_t>(size);
  return 1;
}
