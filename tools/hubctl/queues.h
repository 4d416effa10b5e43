// The six queues as a bystander sees them: which there are, how full they are, and which processes used them last.
// Nothing here creates a queue or takes a message. Sources: msgctl(2), proc(5).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "base/queues.h"

struct QueueState {
  int id;
  std::uint64_t messages;
  std::uint64_t bytes;
  std::uint64_t capacity;
  pid_t sender;    // the last one, 0 when there was none
  pid_t receiver;  // likewise
  std::time_t lastSend;
  std::time_t lastReceive;
};

/// Nothing when the queue does not exist; throws a Failure when it may not be looked at.
std::optional<QueueState> lookAt(const Queue& queue);

struct Process {
  pid_t id;
  std::string name;
};

/// The process of an id that the kernel left in a queue, or nothing when it has ended (a zombie has, too). A reader
/// that was waiting leaves the id of its thread, which is turned into that of its process.
std::optional<Process> livingProcess(pid_t id);

/// "57 ridgelink", or "57, gone", or "none".
std::string describeProcess(pid_t id);

/// Throws a Failure when the queue's last receiver still lives and is not this process: a message is taken by one
/// reader alone, so that both would miss some.
void refuseBesideReader(const Queue& queue, bool force);
