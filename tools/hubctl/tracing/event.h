// What a trace is made of, live or recorded: messages of the hub's, and what happened besides.
#pragma once

#include <cstdint>

#include "base/pieces.h"
#include "hubkeeper/capture.h"

struct Event {
  hubkeeper_capture facts{};
  std::int64_t time = 0;  // nanoseconds since 1970
  Bytes text;             // of a message, also of one that was lost
};

/// A message that the hub sent or received; otherwise something that happened besides.
inline bool isMessage(const Event& event) { return event.facts.kind <= HUBKEEPER_CAPTURE_FORWARD; }
