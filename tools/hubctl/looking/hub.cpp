#include "looking/hub.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "showing/text.h"

namespace {

constexpr double grace = 3;  // seconds in which a reader need not come back

// Who has sent on the other queues, and lives for certain, or only perhaps.
std::optional<Process> findSender(User user) {
  for (const Queue& queue : hubkeeper_queues) {
    const auto state = queue == inbound ? std::nullopt : glanceAt(queue).state;
    const LastUser sender = state ? lastUser(state->sender, state->lastSend) : LastUser{};
    if (sender.user == user && sender.process->id != getpid()) return sender.process;
  }
  return std::nullopt;
}

// The hub by what it has sent, or else by its name.
std::optional<Process> lastSeen() {
  if (const auto sender = findSender(User::alive)) return sender;
  const auto ours = findByName(Queues::ours);
  return ours ? ours : findByName(Queues::unknown);
}

bool anybodyUnseen() {
  return std::any_of(std::begin(hubkeeper_queues), std::end(hubkeeper_queues), [](const Queue& queue) {
    const auto state = glanceAt(queue).state;
    return state && (lastUser(state->sender, state->lastSend).user == User::unseen ||
                     lastUser(state->receiver, state->lastReceive).user == User::unseen);
  });
}

// The kernel keeps no time for each message, only the last send and the last receive. While either is new, all may be well.
bool isFresh(const QueueState& state) { return idleSeconds(state).value_or(grace) < grace; }

std::string newestAge(const QueueState& state) {
  if (clockSetSince(state.lastSend)) return "the newest message is older than the clock's setting";
  return fmt::format("newest message {} old", humanSpan(std::difftime(std::time(nullptr), state.lastSend)));
}

std::string hubTrouble(const QueueState& state) {
  const HubState hub = lookAtHub();
  const bool known = hub.doing == Doing::stopped || hub.doing == Doing::absent;
  if (hub.doing == Doing::waiting || (!known && isFresh(state))) return "";
  std::string text = describeHub(hub);
  if (const auto end = text.find('\n'); end != std::string::npos) text.replace(end, 1, ", ");
  return "not drained: " + text;
}

}  // namespace

HubState lookAtHub() {
  const auto in = lookAt(inbound);
  if (!in) return {};
  const Waiting waiting = whoWaits(in->handle);
  if (waiting.process) return {waiting.process->stopped ? Doing::stopped : Doing::waiting, waiting.process, {}};
  const auto process = lastSeen();
  if (!process && anybodyUnseen()) return {Doing::elsewhere, {}, {}};
  if (const auto perhaps = process ? std::nullopt : findSender(User::doubtful)) return {Doing::doubtful, perhaps, {}};
  if (!process) return {waiting.hidden ? Doing::hidden : Doing::absent, {}, {}};
  const auto command = deepestChild(process->id);
  if (process->stopped) return {Doing::stopped, process, {}};
  return {command || !waiting.hidden ? Doing::working : Doing::hidden, process, command};
}

std::string describeHub(const HubState& hub) {
  const char* const seenBy = isProcMounted() ? " only its own user and root can see" : " cannot be seen without /proc";
  if (hub.doing == Doing::hidden && !hub.process) return fmt::format("whether HubKeeper runs{}", seenBy);
  if (hub.doing == Doing::elsewhere) return "HubKeeper is in another PID namespace, and cannot be seen from this one";
  if (!hub.process) return "HubKeeper does not run";
  if (hub.doing == Doing::doubtful) {
    return fmt::format(
        "whether HubKeeper runs cannot be told: its number, {}, is that of {}, and the clock has been set since",
        hub.process->id, harmless(hub.process->name));
  }
  const bool ownName = hub.process->name.starts_with("hubkeeper") || hub.process->name == "?";
  const std::string who =
      fmt::format("HubKeeper (process {}{})", hub.process->id, ownName ? "" : ", " + harmless(hub.process->name));
  switch (hub.doing) {
    case Doing::waiting: return who + " waits for requests";
    case Doing::stopped:
      if (hub.process->debugger != 0)
        return fmt::format("{} is held by a debugger, process {}", who, hub.process->debugger);
      return fmt::format("{} is stopped by a signal\nkill -CONT {} lets it go on", who, hub.process->id);
    case Doing::hidden: return fmt::format("{} lives; whether it waits for requests{}", who, seenBy);
    default: break;
  }
  if (!hub.command) return who + " is busy";
  return fmt::format("{} is busy with a command, process {} ({})\nkill {}, or at last kill -9 {}, ends that process",
                     who, hub.command->id, harmless(hub.command->name), hub.command->id, hub.command->id);
}

std::string whyMissing() {
  if (const auto hub = findByName(Queues::ours)) {
    return fmt::format(
        "somebody has removed the queues of HubKeeper (process {}), which makes each anew when it uses it next; or it "
        "is only just starting",
        hub->id);
  }
  if (const auto hub = findByName(Queues::others)) {
    return fmt::format(
        "HubKeeper (process {}) has queues of its own, in another IPC namespace: nsenter -t {} -a hubctl", hub->id,
        hub->id);
  }
  if (const auto hub = findByName(Queues::unknown)) {
    return fmt::format(
        "HubKeeper (process {}) lives: somebody has removed its queues, or they are in another IPC namespace, which "
        "only its own user and root can see",
        hub->id);
  }
  return "HubKeeper has not run since this machine's start, or somebody has removed its queues; it creates them when "
         "it starts";
}

std::string trouble(const Queue& queue, const QueueState& state) {
  if (state.messages == 0) return "";
  if (queue == inbound) return hubTrouble(state);
  const auto named = [](const Process& process) {
    return fmt::format("not drained: {} (process {})", harmless(process.name), process.id);
  };
  const LastUser reader = lastUser(state.receiver, state.lastReceive);
  const auto waiting = whoWaits(state.handle).process;
  const auto known = waiting ? waiting : reader.user == User::alive ? reader.process : std::nullopt;
  if (known && known->stopped) return named(*known) + " is stopped by a signal or a debugger";
  if (waiting) return "";
  if (reader.user == User::none) return "nobody drains it: no process has ever read from it";
  if (reader.user == User::gone) {
    return fmt::format("nobody drains it: its last reader, process {}, is gone", reader.id);
  }
  if (isFresh(state)) return "";
  if (reader.user == User::unseen) return "not drained: its reader cannot be seen from here; " + newestAge(state);
  if (reader.user == User::alive) return named(*reader.process) + " is busy or stuck; " + newestAge(state);
  return named(*reader.process) +
         " has the number of the last reader, but the clock has been set since, so that one may be gone; " +
         newestAge(state);
}
