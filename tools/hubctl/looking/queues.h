// A queue as a bystander sees it: how full it is and which processes used it last. Nothing in this room creates a queue,
// takes a message or sends one, so all of it is safe on a live board. Source: msgctl(2).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "base/queues.h"

struct QueueState {
  int handle;
  std::uint64_t messages;
  std::uint64_t bytes;
  std::uint64_t capacity;
  pid_t sender;    // the last one, 0 when there was none
  pid_t receiver;  // likewise
  std::time_t lastSend;
  std::time_t lastReceive;
  uid_t owner;
  uid_t creator;
  unsigned mode;
};

/// Nothing when the queue does not exist; throws a Failure when it may not be looked at.
std::optional<QueueState> lookAt(const Queue& queue);

struct Glance {
  std::optional<QueueState> state;
  bool hidden;  // it may not be looked at
};

/// The same for who goes on without that queue.
Glance glanceAt(const Queue& queue);

/// Seconds since anybody sent or took a message, whole ones as the kernel keeps them; nothing when nobody ever has, or
/// when the clock has been set since.
std::optional<double> idleSeconds(const QueueState& state);

/// The name of a user, or the number where there is none.
std::string userName(uid_t id);
