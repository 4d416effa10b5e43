// The other end of a local process's queue, played on the bench.
#pragma once

#include <optional>

#include "base/pieces.h"

/// Takes the next message of a queue, if there is one. A queue that is missing or was removed is created, as any peer does.
std::optional<Bytes> takeAsPeer(const Queue& queue);
