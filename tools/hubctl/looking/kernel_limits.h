// What the kernel allows in this IPC namespace. Source: msgctl(2), which needs no /proc.
#pragma once

#include <cstddef>

/// The usual where the kernel does not tell.
struct QueueLimits {
  std::size_t longest = 8192;    // bytes of a message (kernel.msgmax)
  std::size_t capacity = 16384;  // bytes of a new queue (kernel.msgmnb)
  std::size_t queues = 32000;    // (kernel.msgmni)
  std::size_t inUse = 0;         // how many queues there are
};
QueueLimits queueLimits();
