// The six message queues and everything that goes out on them. queues.cpp holds the table of queues, the table of sends
// and the only msgsnd(2) of the program, with the whole accounting of failed sends behind it.
//
// All of this belongs to the inbound thread; that is why nothing is locked. Handles, frames and counters live as long
// as the process. Queues are created where they are missing, and never closed or removed.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "hub/packet.h"

/// A message as msgsnd(2) takes it. mtype is 1 on every send.
struct QueueMessage {
  long mtype;
  std::uint8_t mtext[frameTextSize];
};

// What the latest msgget(2) returned for each queue, -1 included.
extern int inboundQueue;       // key 1002, from Ridgelink
extern int netstewardQueue;    // key 1000, the only enlarged queue
extern int clockstewardQueue;  // key 1011
extern int chroniclerQueue;    // key 1010
extern int stagehandQueue;     // key 1006
extern int ridgelinkQueue;     // key 1003, to Ridgelink

extern QueueMessage replyFrame;
extern QueueMessage forwardFrame;
extern QueueMessage stagehandFrame;

// Failed sends since the last counted send to that peer that succeeded.
extern std::uint32_t ridgelinkFailures;
extern std::uint32_t chroniclerFailures;
extern std::uint32_t netstewardFailures;
extern std::uint32_t clockstewardFailures;
extern std::uint32_t stagehandFailures;

/// Opens all six queues and enlarges Netsteward's to 10 MiB. A queue that cannot be opened ends the process; an
/// enlargement that is refused is logged.
void createQues();

/// Logs the ids of the queues, Clocksteward's excepted.
void logQueueIds();

/// Opens the queue from Ridgelink anew and returns the handle, -1 on a failure.
int reopenInboundQueue();

/// One kind of send: where it goes and which lines tell of its failures. The rows stand in queues.cpp.
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

/// Builds a Packet from `payloadLength` bytes, at most 507, and sends it. False when it was refused or did not go out.
bool sendPacket(const SendKind& kind, std::uint16_t tag, std::uint8_t opcode, const std::uint8_t* payload,
                int payloadLength);
