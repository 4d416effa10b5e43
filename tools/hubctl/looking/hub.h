// HubKeeper's own state. The ids in a queue tell who used it last, which may be anybody who took a request back; the hub is
// the process that waits in msgrcv(2) on queue 1002, or, while it is at work, the one that sends on the other queues, or
// else the one of its name.
#pragma once

#include <optional>
#include <string>

#include "looking/processes.h"
#include "looking/queues.h"

enum class Doing { absent, waiting, working, stopped, hidden, elsewhere, doubtful };

struct HubState {
  Doing doing = Doing::absent;
  std::optional<Process> process;  // missing when it is absent, or hidden and never seen; a stranger, perhaps, in doubt
  std::optional<Process> command;  // what it waits for, where it works and has a child
};

HubState lookAtHub();

/// One or two sentences, the second of which says what can be done.
std::string describeHub(const HubState& hub);

/// Why all queues, or the first, are missing: a sentence or two.
std::string whyMissing();

/// Why messages pile up in a queue, as a sentence; empty where they do not.
std::string trouble(const Queue& queue, const QueueState& state);
