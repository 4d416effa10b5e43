// Building a Packet for a frame, and which lengths may be acted upon. The wire format itself stands in
// hubkeeper/protocol.h. Nothing here touches a queue or the log.
#pragma once

#include <hubkeeper/protocol.h>

#include <cstdint>

/// Builds a Packet in `buffer`, which holds at least 512 bytes; what lies behind a short Packet is zero. The caller
/// sets `*lengthWord` to 512 right before each call and reads the Packet's length from it afterwards. `payload` may be
/// null when `payloadLength` is 0. Returns 1, or 0 without touching anything when the buffer is null, the payload's
/// length is not from 0 to 507, or the length word is not 512.
int buildPacket(std::uint8_t* buffer, std::uint16_t* lengthWord, std::uint16_t tag, std::uint8_t opcode,
                const std::uint8_t* payload, int payloadLength);

/// The lengths with which a Packet may be acted upon, both included.
struct Lengths {
  std::uint16_t least;
  std::uint16_t most;
  constexpr bool include(std::uint16_t length) const { return length >= least && length <= most; }
};
constexpr Lengths anyFrame{0, HUBKEEPER_PACKET_MAX};  // a forward sends even a header cut short, as it came
constexpr Lengths wholeFrame{HUBKEEPER_HEADER_SIZE, HUBKEEPER_PACKET_MAX};
constexpr Lengths wholeInBundle{HUBKEEPER_HEADER_SIZE, 0xFFFF};
