// Everything that goes out: one row for each kind of send, and one function around the only msgsnd(2) of the program,
// with the accounting of failed sends behind it. Belongs to the inbound thread, frames and counters included.
#pragma once

#include <cstdint>

#include "hub/packet.h"

/// A message as msgsnd(2) takes it. mtype is 1 on every send.
struct QueueMessage {
  long mtype;
  std::uint8_t mtext[HUBKEEPER_PACKET_MAX];
};

// Each is cleared whole before each use. Written by sendMessage alone.
extern QueueMessage replyFrame;    // bounces, version and command replies, package notices
extern QueueMessage forwardFrame;  // forwards, and the heartbeat reply
extern QueueMessage stagehandFrame;

// Failed sends since the last counted send to that peer that succeeded. Written by sendMessage alone.
extern std::uint32_t ridgelinkFailures;
extern std::uint32_t chroniclerFailures;
extern std::uint32_t netstewardFailures;
extern std::uint32_t clockstewardFailures;
extern std::uint32_t stagehandFailures;

/// One kind of send: where it goes and which lines tell of its failures. The rows stand in sends.cpp.
struct SendKind;
extern const SendKind bounceSend;
extern const SendKind heartbeatReplySend;
extern const SendKind chroniclerSend;
extern const SendKind netstewardSend;
extern const SendKind clockstewardSend;
extern const SendKind versionReplySend;
extern const SendKind commandReplySend;
extern const SendKind transferStartSend;
extern const SendKind transferEndSend;
extern const SendKind packageNoticeSend;
extern const SendKind stateNoticeSend;

/// Sends `size` bytes as one message of that kind, without waiting. A message that cannot be sent is dropped and the
/// queue opened anew; the kind tells what is counted and logged. More than 512 bytes are refused, with no trace but the
/// result. True when the message went out.
bool sendMessage(const SendKind& kind, const std::uint8_t* text, std::uint16_t size);

/// Builds a Packet from `payloadSize` bytes and sends it as sendMessage does; more than 507 are refused, as
/// buildPacket refuses them.
void sendPacket(const SendKind& kind, std::uint16_t tag, std::uint8_t opcode, const std::uint8_t* payload,
                std::size_t payloadSize);
