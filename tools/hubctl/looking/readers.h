// Who reads a queue, and what the queues tell of HubKeeper when it does not answer.
#pragma once

#include <string>

#include "base/queues.h"

/// Throws a Failure when any other process waits for the queue's next message, or when its last receiver still lives, or may
/// live: a message is taken by one reader alone, so that both would miss some. With `force` it goes ahead.
void refuseBesideReader(const Queue& queue, bool force);

/// Why no answer has come, as far as queues 1002 and 1003 show it: one or two lines.
std::string explainSilence();
