#include "looking/readers.h"

#include <fmt/format.h>
#include <unistd.h>

#include "base/failure.h"
#include "looking/hub.h"
#include "looking/processes.h"
#include "looking/queues.h"
#include "showing/text.h"

namespace {

// What is known of a reader; empty where there is none.
std::string knownReader(const Queue& queue, const QueueState& state) {
  const std::string name = fmt::format("queue {} ({})", queue.key, queue.name);
  const auto [waiting, hidden, blind] = whoWaits(state.handle);
  if (waiting && waiting->id != getpid()) {
    return fmt::format("process {} ({}) reads {}: it waits for the next message", waiting->id, waiting->name, name);
  }
  if (blind) return fmt::format("/proc cannot be read, so who reads {} cannot be seen", name);
  const LastUser last = lastUser(state.receiver, state.lastReceive);
  if (last.user == User::unseen) {
    return fmt::format(
        "the last message of {} was taken by a process in another PID namespace, which may still read it", name);
  }
  if (!last.process || last.process->id == getpid()) return "";
  if (last.user == User::alive) {
    return fmt::format("process {} ({}) reads {}: it took the last message", last.process->id, last.process->name,
                       name);
  }
  return fmt::format(
      "the last message of {} was taken by a process of the number {}, which is {} now; the clock has been set since,\n"
      "so it may be the reader or a later one",
      name, last.process->id, last.process->name);
}

// Who took the last message off the queue to HubKeeper, where that was for certain not the one that is there; else nothing.
std::string stolenBy(const QueueState& in, const HubState& hub) {
  const LastUser taker = lastUser(in.receiver, in.lastReceive);
  const bool known =
      taker.user == User::gone ? hub.process.has_value() : taker.user == User::alive && taker.process->name != "?";
  const pid_t id = taker.process ? taker.process->id : taker.id;
  if (!known || id == getpid() || (hub.process && id == hub.process->id)) return "";
  return fmt::format("HubKeeper has not taken its last message, but process {}", describeUser(taker));
}

}  // namespace

void refuseBesideReader(const Queue& queue, bool force) {
  const auto state = lookAt(queue);
  const std::string reader = force || !state ? "" : knownReader(queue, *state);
  if (reader.empty()) return;
  throw Failure(
      reader +
      "\na message is taken by one reader alone: end that one first, or use --force and let both miss messages");
}

std::string explainSilence() {
  const auto in = lookAt(inbound);
  const auto out = lookAt(ridgelink);
  if (!in) return "queue 1002 has been removed";
  const HubState hub = lookAtHub();
  if (in->messages > 0) {
    return fmt::format("queue 1002 holds {}, {} of {} bytes:\n{}", count(in->messages, "message"), in->bytes,
                       in->capacity, describeHub(hub));
  }
  if (const std::string thief = stolenBy(*in, hub); !thief.empty()) {
    return fmt::format("queue 1002 is empty: {}\n{}", thief, describeHub(hub));
  }
  const LastUser other = out ? lastUser(out->receiver, out->lastReceive) : LastUser{};
  if (other.process && other.process->id != getpid()) {
    return fmt::format("queue 1002 is empty, but process {} took messages from queue 1003 too", describeUser(other));
  }
  const bool late = out && out->messages > 0;
  const char* taken = late                          ? "; what lies in queue 1003 came too late"
                      : hub.doing == Doing::waiting ? ": it took the request and has no answer to it"
                      : hub.doing == Doing::absent  ? " any more"
                                                    : "";
  return fmt::format("queue 1002 is empty:\n{}{}", describeHub(hub), taken);
}
