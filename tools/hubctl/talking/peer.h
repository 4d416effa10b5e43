// The other end of a local process's queue, played on the bench. Nothing here creates a queue: who does owns it, and a
// service of another user's refuses to start beside it.
#pragma once

#include <optional>

#include "base/pieces.h"
#include "base/queues.h"
#include "hubkeeper/queue.h"

struct Peer {
  const Queue* queue;
  hubkeeper_handle handle;
  explicit Peer(const Queue& itsQueue) : queue(&itsQueue), handle{itsQueue.key, -1} {}
};

/// Takes the next message, if there is one. A queue that is missing or was removed has none until the service makes it.
std::optional<Bytes> takeNext(Peer& peer);
