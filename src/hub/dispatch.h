// What becomes of a received Packet: the bounce, then what the table of routes has for its opcode's range.
// Everything here runs on the inbound thread, one Packet at a time.
#pragma once

#include <cstdint>

/// Bounces the Packet's opcode to Ridgelink, then answers it, forwards it or carries it out. `packet` points at its
/// first byte within the received Bundle and `remaining` counts the bytes from there to the Bundle's end, which is not
/// the Packet's own length; nothing beyond them is read. A null pointer or fewer than 5 bytes count as opcode 255.
void dispatchPacket(const std::uint8_t* packet, std::uint16_t remaining);
