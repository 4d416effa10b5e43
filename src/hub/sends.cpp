#include "hub/sends.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "hub/queues.h"
#include "logging/log_channel.h"

QueueMessage replyFrame;
QueueMessage forwardFrame;
QueueMessage stagehandFrame;

std::uint32_t ridgelinkFailures;
std::uint32_t chroniclerFailures;
std::uint32_t netstewardFailures;
std::uint32_t clockstewardFailures;
std::uint32_t stagehandFailures;

// The last failure in a row that is logged. A peer that stays away costs that many lines, not one a Packet; then nothing
// is logged until a counted send to that peer succeeds.
static constexpr std::uint32_t lastLoggedFailure = 15;

// A send is counted when it names a counter; one that is not logs its failure line each time.
struct SendKind {
  hubkeeper_queue_index queue;
  QueueMessage* frame;                 // null: a frame of its own in local storage
  std::uint32_t* failures = nullptr;   // null: not counted
  const char* failed = nullptr;        // at ERROR; null: silent
  const char* failedLast = nullptr;    // at ERROR instead, at the last failure that is logged
  const char* restored = nullptr;      // at INFO, at the success that ends the silence
  const char* reopenFailed = nullptr;  // at ERROR whenever the queue cannot be opened anew, never suppressed
  bool reopenReason = false;           // the text of errno follows that line directly
  const char* alsoLogged = nullptr;    // at ERROR after that line
  const char* perrorText = nullptr;    // what perror(3) is given
  bool perrorAlways = false;           // at every failure; otherwise only when the queue cannot be opened anew
};

// "occurance" and "Communcation" are misspelt, and two lines begin with a blank: peers and operators search for
// them so.
const SendKind bounceSend{
    .queue = HUBKEEPER_QUEUE_RIDGELINK,
    .frame = &replyFrame,
    .failures = &ridgelinkFailures,
    .failed = "HubKeeper: Failed bouncing to Ridgelink",
    .failedLast = "HubKeeper: Failed bouncing to Ridgelink, last logged occurance",
    .restored = "HubKeeper: Failed bouncing to Ridgelink error has been recovered",
    .reopenFailed = "HubKeeper: In From Ridgelink queue setup failed",
};
// Goes to Ridgelink, but travels in the frame of the forwards.
const SendKind heartbeatReplySend{
    .queue = HUBKEEPER_QUEUE_RIDGELINK,
    .frame = &forwardFrame,
    .failures = &ridgelinkFailures,
    .failed = "HubKeeper: Send Heartbeat to ridgelink failed",
    .failedLast = "HubKeeper: Send Heartbeat to ridgelink failed, last logged occurance",
    .restored = "HubKeeper recovered from failed heartbeat send to Ridgelink",
    .reopenFailed = "HubKeeper: In From Ridgelink queue setup failed",
};
const SendKind chroniclerSend{
    .queue = HUBKEEPER_QUEUE_CHRONICLER,
    .frame = &forwardFrame,
    .failures = &chroniclerFailures,
    .failed = "HubKeeper: Failed sending to Chronicler",
    .failedLast = "HubKeeper: Failed sending to Chronicler, last logged occurance",
    .restored = "HubKeeper: Restored communication to Chronicler",
    .reopenFailed = "HubKeeper: Failed to recreate msgque to Chronicler",
};
const SendKind netstewardSend{
    .queue = HUBKEEPER_QUEUE_NETSTEWARD,
    .frame = &forwardFrame,
    .failures = &netstewardFailures,
    .failed = "HubKeeper: Failed sending to Netsteward",
    .failedLast = "HubKeeper: Failed sending to Netsteward, last logged occurance",
    .restored = " HubKeeper: Communcation with Netsteward has been restored",
    .reopenFailed = "HubKeeper: Failed msgget after comm error",
};
const SendKind clockstewardSend{
    .queue = HUBKEEPER_QUEUE_CLOCKSTEWARD,
    .frame = &forwardFrame,
    .failures = &clockstewardFailures,
    .failed = "HubKeeper: Failed sending to Clocksteward",
    .failedLast = "HubKeeper: Failed sending to Clocksteward, last logged occurance",
    .restored = " HubKeeper: Communication with Clocksteward has been restored",
    .reopenFailed = "HubKeeper: Failed getting message que handle for PTP",
};
// Lost in silence when the queue can be opened anew.
const SendKind versionReplySend{
    .queue = HUBKEEPER_QUEUE_RIDGELINK,
    .frame = &replyFrame,
    .reopenFailed = "In From Ridgelink queue setup failed",
    .alsoLogged = "HubKeeper: failed sending to Ridgelink",
    .perrorText = "msgsnd to Ridgelink",
};
const SendKind commandReplySend{
    .queue = HUBKEEPER_QUEUE_RIDGELINK,
    .frame = &replyFrame,
    .failed = "HubKeeper: Failed sending to Ridgelink",
    .reopenFailed = "In From Ridgelink queue setup failed",
};
const SendKind transferStartSend{
    .queue = HUBKEEPER_QUEUE_STAGEHAND,
    .frame = &stagehandFrame,
    .failures = &stagehandFailures,
    .failed = "HubKeeper: Failed sending to Stagehand",
    .failedLast = "HubKeeper: Failed sending to Stagehand, last logged occurance",
    .restored = "HubKeeper: Communication with Stagehand has been restored",
    .reopenFailed = "HubKeeper: Out to stagehand queue setup failed",
};
// Neither reads nor changes the counter, and has no "HubKeeper: " in front of its re-open line.
const SendKind transferEndSend{
    .queue = HUBKEEPER_QUEUE_STAGEHAND,
    .frame = &stagehandFrame,
    .failed = "HubKeeper: Failed sending to Stagehand",
    .reopenFailed = "Out to stagehand queue setup failed",
};
const SendKind packageNoticeSend{
    .queue = HUBKEEPER_QUEUE_RIDGELINK,
    .frame = &replyFrame,
    .failures = &ridgelinkFailures,
    .failed = "HubKeeper ERROR: sending SW Package to Ridgelink",
    .failedLast = "HubKeeper ERROR: sending SW Package to Ridgelink, last log",
    .restored = "HubKeeper broken communication restored while sending SW package to Ridgelink",
    .reopenFailed = "In From Ridgelink queue setup failed",
    .reopenReason = true,
    .perrorText = "msgsnd to Ridgelink",
    .perrorAlways = true,
};
const SendKind stateNoticeSend{
    .queue = HUBKEEPER_QUEUE_RIDGELINK,
    .frame = nullptr,
    .failed = "HubKeeper: setState: Failed sending state to Ridgelink",
    .reopenFailed = "In From Ridgelink queue setup failed",
};

namespace {

void countSuccess(const SendKind& kind) {
  if (kind.failures == nullptr) return;
  if (*kind.failures >= lastLoggedFailure) messagesChannel.info() << kind.restored;
  *kind.failures = 0;
}

void countFailure(const SendKind& kind) {
  const std::uint32_t count = kind.failures != nullptr ? ++*kind.failures : 0;
  if (count < lastLoggedFailure && kind.failed != nullptr) messagesChannel.error() << kind.failed;
  if (count == lastLoggedFailure) messagesChannel.error() << kind.failedLast;
}

// `error` is errno as msgsnd(2) left it. perror(3) tells why it failed, or why the queue
// could not be opened anew where that failed too.
void reopen(const SendKind& kind, int error) {
  const bool reopened = openQueue(kind.queue) != -1;
  if (!reopened) {
    error = errno;
    messagesChannel.error() << kind.reopenFailed << (kind.reopenReason ? std::strerror(error) : "");
    if (kind.alsoLogged != nullptr) messagesChannel.error() << kind.alsoLogged;
  }
  if (kind.perrorText != nullptr && (kind.perrorAlways || !reopened)) {
    errno = error;
    std::perror(kind.perrorText);
  }
}

// The queue is opened anew after every failure, logged or not: it may have been removed.
bool account(const SendKind& kind, bool sent) {
  if (sent) {
    countSuccess(kind);
  } else {
    const int error = errno;
    countFailure(kind);
    reopen(kind, error);
  }
  return sent;
}

}  // namespace

bool sendMessage(const SendKind& kind, const std::uint8_t* text, std::uint16_t size) {
  if (size > HUBKEEPER_PACKET_MAX) return false;
  QueueMessage ownFrame;
  QueueMessage& frame = kind.frame != nullptr ? *kind.frame : ownFrame;
  std::memset(&frame, 0, sizeof frame);
  // Not memcpy: since the size is known to be 512 at most, the compiler expands that to a slower string instruction.
  std::copy_n(text, size, frame.mtext);
  frame.mtype = HUBKEEPER_MTYPE;
  return account(kind, msgsnd(handleOf(kind.queue), &frame, size, IPC_NOWAIT) == 0);
}

void sendPacket(const SendKind& kind, std::uint16_t tag, std::uint8_t opcode, const std::uint8_t* payload,
                std::size_t payloadSize) {
  std::uint8_t packet[HUBKEEPER_PACKET_MAX];
  std::uint16_t length = HUBKEEPER_PACKET_MAX;
  if (buildPacket(packet, &length, tag, opcode, payload, static_cast<int>(payloadSize)) == 1)
    sendMessage(kind, packet, length);
}
