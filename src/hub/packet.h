// The wire format: Packets, their header and their opcodes. Nothing here touches a queue or the log, so that tools can
// share it. Every integer is little-endian on the wire and is read and written byte by byte, whatever the host's order;
// a Packet may start at any offset of a Bundle.
//
//   byte 0  length   16 bits, the whole Packet, header included
//   byte 2  tag      16 bits, given back in a reply, otherwise not interpreted
//   byte 4  opcode    8 bits, decides where the Packet goes
//   byte 5  payload  length - 5 bytes
#pragma once

#include <cstddef>
#include <cstdint>

constexpr std::uint16_t packetHeaderSize = 5;
constexpr std::uint16_t frameTextSize = 512;    // bytes of text in a message that HubKeeper sends
constexpr std::uint16_t bundleTextSize = 8192;  // bytes of text in a message that HubKeeper receives
constexpr int maxPayload = frameTextSize - packetHeaderSize;

// Received from Ridgelink.
constexpr std::uint8_t opcodeNetstewardFirst = 0x00;
constexpr std::uint8_t opcodeHeartbeat = 0x04;  // lies in Netsteward's range, but never reaches it
constexpr std::uint8_t opcodeNetstewardLast = 0x1F;
constexpr std::uint8_t opcodeClockstewardFirst = 0x20;
constexpr std::uint8_t opcodeClockstewardLast = 0x28;
constexpr std::uint8_t opcodeChronicler = 0x30;
constexpr std::uint8_t opcodeVersion = 0x60;
constexpr std::uint8_t opcodeCommand = 0x63;
constexpr std::uint8_t opcodeTransferStart = 0x70;
constexpr std::uint8_t opcodeTransferChunk = 0x71;
constexpr std::uint8_t opcodeTransferEnd = 0x72;
constexpr std::uint8_t opcodeClockstewardOff = 0x75;
constexpr std::uint8_t opcodeClockstewardOn = 0x76;

// Sent to Ridgelink.
constexpr std::uint8_t opcodeHeartbeatReply = 0x80;
constexpr std::uint8_t opcodePackage = 0x87;
constexpr std::uint8_t opcodeVersionReply = 0x88;
constexpr std::uint8_t opcodePackageOther = 0x8A;
constexpr std::uint8_t opcodeCommandReply = 0x90;

struct PacketHeader {
  std::uint16_t length;
  std::uint16_t tag;
  std::uint8_t opcode;
};

/// Reads the header of the Packet at `packet`, of which `remaining` bytes have been received. A null pointer or fewer
/// than 5 bytes yield length 65535, tag 65535 and opcode 255. The length is not judged.
PacketHeader readHeader(const std::uint8_t* packet, std::uint16_t remaining);

/// True when a Packet of `length` bytes has a whole header and lies within the `remaining` bytes of its Bundle.
constexpr bool fitsBundle(std::uint16_t length, std::uint16_t remaining) {
  return length >= packetHeaderSize && length <= remaining;
}

/// The lengths with which a Packet may be acted upon, both included.
struct Lengths {
  std::uint16_t least;
  std::uint16_t most;
  constexpr bool hold(std::uint16_t length) const { return length >= least && length <= most; }
};
constexpr Lengths anyFrame{0, frameTextSize};  // a forward sends even a header cut short, as it came
constexpr Lengths wholeFrame{packetHeaderSize, frameTextSize};
constexpr Lengths wholeInBundle{packetHeaderSize, 0xFFFF};

/// Builds a Packet in `buffer`, which holds at least 512 bytes; what lies behind a short Packet is zero. The caller
/// sets `*lengthWord` to 512 right before each call and reads the Packet's length from it afterwards. `payload` may be
/// null when `payloadLength` is 0. Returns 1, or 0 without touching anything when the buffer is null, the payload's
/// length is not from 0 to 507, or the length word is not 512.
int buildPacket(std::uint8_t* buffer, std::uint16_t* lengthWord, std::uint16_t tag, std::uint8_t opcode,
                const std::uint8_t* payload, int payloadLength);
