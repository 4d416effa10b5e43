#include "looking/readers.h"

#include <fmt/format.h>
#include <unistd.h>

#include "base/failure.h"
#include "looking/processes.h"
#include "looking/queues.h"
#include "showing/text.h"

void refuseBesideReader(const Queue& queue, bool force) {
  const auto state = lookAt(queue);
  const auto reader = state ? livingProcess(state->receiver) : std::nullopt;
  if (force || !reader || reader->id == getpid()) return;
  throw Failure(
      fmt::format("process {} ({}) reads queue {} ({}), and a message is taken by one reader alone\n"
                  "stop it first, or use --force and let both miss messages",
                  reader->id, reader->name, queue.key, queue.name));
}

std::string explainSilence() {
  const auto in = lookAt(inbound);
  const auto out = lookAt(ridgelink);
  if (!in || !out) return "the queues have been removed";
  const std::string hub =
      in->receiver == 0 ? "nobody has read from it yet" : "last read by " + describeProcess(in->receiver);
  if (in->messages > 0) {
    return fmt::format("queue 1002 holds {}, {} of {} bytes ({}):\nHubKeeper is not running, or busy with a command",
                       count(in->messages, "message"), in->bytes, in->capacity, hub);
  }
  if (out->receiver != 0 && out->receiver != getpid() && livingProcess(out->receiver)) {
    return fmt::format("queue 1002 is empty, but process {} took messages from queue 1003 too",
                       describeProcess(out->receiver));
  }
  if (!livingProcess(in->receiver)) return fmt::format("queue 1002 is empty ({}): HubKeeper has ended since", hub);
  return fmt::format("queue 1002 is empty ({}): HubKeeper took it and has not answered yet", hub);
}
