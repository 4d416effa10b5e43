// The queues by name. Which there are, and in which order HubKeeper opens them, stands in hubkeeper/protocol.h.
#pragma once

#include <string_view>

#include "hubkeeper/protocol.h"

/// A row of hubkeeper_queues. It is told by its key: every source file has a copy of that table, so addresses differ.
using Queue = hubkeeper_queue;

inline bool operator==(const Queue& one, const Queue& other) { return one.key == other.key; }

extern const Queue& inbound;    // Bundles to HubKeeper
extern const Queue& ridgelink;  // bounces, replies and notices from it

/// Finds a queue by its name or by its key in decimal; throws a WrongUsage that lists the names.
const Queue& findQueue(std::string_view nameOrKey);
