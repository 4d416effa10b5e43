// The inbound thread, which carries all traffic: it opens the queues, then receives Bundles for the rest of the
// process's life and hands their Packets to the dispatcher one by one.
#pragma once

#include <cstdint>

/// Thread entry for pthread_create(3); the argument is not used, and it never returns.
void* inboundThread(void* unused);

/// Hands each Packet of a Bundle of `size` bytes (1 to 8192) to dispatchPacket, which sees a Packet before its length
/// is judged. A bad length ends the walk with one FATAL line, as it is the only way to find the next Packet.
void walkBundle(const std::uint8_t* bundle, std::uint16_t size);
