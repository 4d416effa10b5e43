#include "hub/queues.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "hub/end_process.h"
#include "logging/log_channel.h"

int inboundQueue;
int netstewardQueue;
int clockstewardQueue;
int chroniclerQueue;
int stagehandQueue;
int ridgelinkQueue;

QueueMessage replyFrame;
QueueMessage forwardFrame;
QueueMessage stagehandFrame;

std::uint32_t ridgelinkFailures;
std::uint32_t chroniclerFailures;
std::uint32_t netstewardFailures;
std::uint32_t clockstewardFailures;
std::uint32_t stagehandFailures;

namespace {

constexpr int openFlags = IPC_CREAT | 0644;
constexpr msglen_t netstewardQueueSize = 10485760;  // 10 MiB

struct Queue {
  key_t key;
  int* handle;
  const char* openFailed;  // at ERROR when the first opening fails, which ends the process
  const char* openPerror;  // what perror(3) is given then
  const char* idLabel;     // in front of the id at start; null for none
  bool enlarged;
};

// In the order of opening.
constexpr Queue queues[] = {
    {1002, &inboundQueue, "HubKeeper failed to open inbound message queue", "msgget",
     "Ridgelink --> HubKeeper       Queue ID: ", false},
    {1000, &netstewardQueue, "HubKeeper failed to open Netsteward inbound queue", "msgget",
     "HubKeeper --> Netsteward Queue ID: ", true},
    {1011, &clockstewardQueue, "HubKeeper failed to open Clocksteward inbound queue", "msgget", nullptr, false},
    {1010, &chroniclerQueue, "HubKeeper failed to open Chronicler inbound queue", "msgget",
     "HubKeeper --> Chronicler       Queue ID: ", false},
    {1006, &stagehandQueue, "HubKeeper failed to open Stagehand inbound queue", "Out to stagehand queue setup failed",
     "HubKeeper --> Stagehand       Queue ID: ", false},
    {1003, &ridgelinkQueue, "HubKeeper failed to open outbound queue", "In From Ridgelink queue setup failed",
     "HubKeeper --> Ridgelink       Queue ID: ", false},
};
constexpr const Queue& inbound = queues[0];
constexpr const Queue& netsteward = queues[1];
constexpr const Queue& clocksteward = queues[2];
constexpr const Queue& chronicler = queues[3];
constexpr const Queue& stagehand = queues[4];
constexpr const Queue& ridgelink = queues[5];

int openQueue(const Queue& queue) { return *queue.handle = msgget(queue.key, openFlags); }

}  // namespace

// A counted send names a counter: the failure line is logged up to the fourteenth failure in a row, the last line at
// the fifteenth, then nothing until a send to that peer succeeds. An uncounted send logs its failure line each time.
struct SendKind {
  const Queue& queue;
  QueueMessage* frame;                 // null: a frame of its own in local storage
  std::uint32_t* failures = nullptr;   // null: not counted
  const char* failed = nullptr;        // at ERROR; null: silent
  const char* failedLast = nullptr;    // at ERROR instead, at the fifteenth failure in a row
  const char* restored = nullptr;      // at INFO, at a success after fifteen failures or more
  const char* reopenFailed = nullptr;  // at ERROR whenever the queue cannot be opened anew, never suppressed
  bool reopenReason = false;           // the text of errno follows that line directly
  const char* alsoLogged = nullptr;    // at ERROR after that line
  const char* perrorText = nullptr;    // what perror(3) is given
  bool perrorAlways = false;           // at every failure; otherwise only when the queue cannot be opened anew
};

// "occurance" and "Communcation" are misspelt, and two lines begin with a blank: peers and operators search for
// them so.
const SendKind bounceSend{
    .queue = ridgelink,
    .frame = &replyFrame,
    .failures = &ridgelinkFailures,
    .failed = "HubKeeper: Failed bouncing to Ridgelink",
    .failedLast = "HubKeeper: Failed bouncing to Ridgelink, last logged occurance",
    .restored = "HubKeeper: Failed bouncing to Ridgelink error has been recovered",
    .reopenFailed = "HubKeeper: In From Ridgelink queue setup failed",
};
// Goes to Ridgelink, but travels in the frame of the forwards.
const SendKind heartbeatReplySend{
    .queue = ridgelink,
    .frame = &forwardFrame,
    .failures = &ridgelinkFailures,
    .failed = "HubKeeper: Send Heartbeat to ridgelink failed",
    .failedLast = "HubKeeper: Send Heartbeat to ridgelink failed, last logged occurance",
    .restored = "HubKeeper recovered from failed heartbeat send to Ridgelink",
    .reopenFailed = "HubKeeper: In From Ridgelink queue setup failed",
};
const SendKind chroniclerSend{
    .queue = chronicler,
    .frame = &forwardFrame,
    .failures = &chroniclerFailures,
    .failed = "HubKeeper: Failed sending to Chronicler",
    .failedLast = "HubKeeper: Failed sending to Chronicler, last logged occurance",
    .restored = "HubKeeper: Restored communication to Chronicler",
    .reopenFailed = "HubKeeper: Failed to recreate msgque to Chronicler",
};
const SendKind netstewardSend{
    .queue = netsteward,
    .frame = &forwardFrame,
    .failures = &netstewardFailures,
    .failed = "HubKeeper: Failed sending to Netsteward",
    .failedLast = "HubKeeper: Failed sending to Netsteward, last logged occurance",
    .restored = " HubKeeper: Communcation with Netsteward has been restored",
    .reopenFailed = "HubKeeper: Failed msgget after comm error",
};
const SendKind clockstewardSend{
    .queue = clocksteward,
    .frame = &forwardFrame,
    .failures = &clockstewardFailures,
    .failed = "HubKeeper: Failed sending to Clocksteward",
    .failedLast = "HubKeeper: Failed sending to Clocksteward, last logged occurance",
    .restored = " HubKeeper: Communication with Clocksteward has been restored",
    .reopenFailed = "HubKeeper: Failed getting message que handle for PTP",
};
// Lost in silence when the queue can be opened anew.
const SendKind versionReplySend{
    .queue = ridgelink,
    .frame = &replyFrame,
    .reopenFailed = "In From Ridgelink queue setup failed",
    .alsoLogged = "HubKeeper: failed sending to Ridgelink",
    .perrorText = "msgsnd to Ridgelink",
};
const SendKind commandReplySend{
    .queue = ridgelink,
    .frame = &replyFrame,
    .failed = "HubKeeper: Failed sending to Ridgelink",
    .reopenFailed = "In From Ridgelink queue setup failed",
};
const SendKind transferStartSend{
    .queue = stagehand,
    .frame = &stagehandFrame,
    .failures = &stagehandFailures,
    .failed = "HubKeeper: Failed sending to Stagehand",
    .failedLast = "HubKeeper: Failed sending to Stagehand, last logged occurance",
    .restored = "HubKeeper: Communication with Stagehand has been restored",
    .reopenFailed = "HubKeeper: Out to stagehand queue setup failed",
};
// Neither reads nor changes the counter, and has no "HubKeeper: " in front of its re-open line.
const SendKind transferEndSend{
    .queue = stagehand,
    .frame = &stagehandFrame,
    .failed = "HubKeeper: Failed sending to Stagehand",
    .reopenFailed = "Out to stagehand queue setup failed",
};
const SendKind packageNoticeSend{
    .queue = ridgelink,
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
    .queue = ridgelink,
    .frame = nullptr,
    .failed = "HubKeeper: setState: Failed sending state to Ridgelink",
    .reopenFailed = "In From Ridgelink queue setup failed",
};

bool sendMessage(const SendKind& kind, const std::uint8_t* text, std::uint16_t size) {
  constexpr std::uint32_t lastLogged = 15;
  if (size > frameTextSize) return false;
  QueueMessage ownFrame;
  QueueMessage& frame = kind.frame != nullptr ? *kind.frame : ownFrame;
  std::memset(&frame, 0, sizeof frame);
  std::memcpy(frame.mtext, text, size);
  frame.mtype = 1;

  if (msgsnd(*kind.queue.handle, &frame, size, IPC_NOWAIT) == 0) {
    if (kind.failures == nullptr) return true;
    if (*kind.failures >= lastLogged) messagesChannel.info() << kind.restored;
    *kind.failures = 0;
    return true;
  }

  int error = errno;
  const std::uint32_t count = kind.failures != nullptr ? ++*kind.failures : 0;
  if (count < lastLogged && kind.failed != nullptr) messagesChannel.error() << kind.failed;
  if (count == lastLogged) messagesChannel.error() << kind.failedLast;

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
  return false;
}

bool sendPacket(const SendKind& kind, std::uint16_t tag, std::uint8_t opcode, const std::uint8_t* payload,
                int payloadLength) {
  std::uint8_t packet[frameTextSize];
  std::uint16_t length = frameTextSize;
  return buildPacket(packet, &length, tag, opcode, payload, payloadLength) == 1 && sendMessage(kind, packet, length);
}

namespace {

// Reads the queue's state into `stats` and logs its size; after a failure the size is 0.
void logNetstewardSize(msqid_ds& stats) {
  std::memset(&stats, 0, sizeof stats);
  if (msgctl(netstewardQueue, IPC_STAT, &stats) == -1) {
    messagesChannel.error() << "HubKeeper failed to get Netsteward msg queue stats";
  }
  // A size is no error, but operators look for it at this priority.
  messagesChannel.error() << "HubKeeper Netsteward msg queue size is :" << static_cast<unsigned long>(stats.msg_qbytes);
}

void enlargeNetstewardQueue() {
  msqid_ds before;
  logNetstewardSize(before);
  before.msg_qbytes = netstewardQueueSize;
  if (msgctl(netstewardQueue, IPC_SET, &before) == -1) {
    const int reason = errno;
    messagesChannel.error() << "HubKeeper Netsteward msg queue size failed to be adjusted: " << std::strerror(reason);
  }
  msqid_ds after;
  logNetstewardSize(after);
}

}  // namespace

void createQues() {
  messagesChannel.info() << "HubKeeper Attempting to createQues";
  for (const Queue& queue : queues) {
    if (openQueue(queue) == -1) endAfterFailure(queue.openFailed, queue.openPerror);
    if (queue.enlarged) enlargeNetstewardQueue();
  }
}

void logQueueIds() {
  for (const Queue& queue : queues) {
    if (queue.idLabel != nullptr) messagesChannel.info() << queue.idLabel << *queue.handle;
  }
}

int reopenInboundQueue() { return openQueue(inbound); }
