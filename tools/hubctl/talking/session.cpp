#include "talking/session.h"

#include <fmt/format.h>
#include <sys/msg.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/frame.h"
#include "base/signals.h"
#include "looking/hub.h"
#include "looking/kernel_limits.h"
#include "looking/processes.h"
#include "looking/queues.h"
#include "looking/readers.h"
#include "showing/terminal.h"
#include "showing/text.h"
#include "talking/turn.h"

namespace {

using namespace std::chrono_literals;

// HubKeeper takes messages of any type, so the type tells which Bundles are this session's own.
long ownType() { return 0x1000000L + getpid(); }

// A late reply to an earlier session must not pass for an answer to this one, so tags do not begin at 1 each time but
// where the clock stands. The ten lowest bits are left out: they are finer than many clocks count.
std::uint16_t firstTag() {
  return static_cast<std::uint16_t>(std::chrono::system_clock::now().time_since_epoch().count() >> 10);
}

// Milliseconds to wait before the next look at the deadline and at the mark of a signal: a signal that falls between that look
// and the nap of a queue call would otherwise be noticed at its end only.
long slice(Clock::time_point deadline) {
  const auto left = deadline - Clock::now();
  return left <= Clock::duration::zero() ? 0 : 1 + std::min(100L, static_cast<long>(left / 1ms));
}

// Whether a wait that has ended for this reason goes on; otherwise `errno` is for failOn.
bool waitsOn(int reason) { return reason == ETIMEDOUT || reason == EINTR; }

// Who had the turn before may not be quite gone yet, and would look like a living reader.
void awaitExit() {
  const auto isLeaving = [] {
    const auto state = lookAt(ridgelink);
    const auto reader = state ? lastUser(state->receiver, state->lastReceive).process : std::nullopt;
    return reader && reader->id != getpid() && reader->name == "hubctl";
  };
  for (const Clock::time_point deadline = after(0.5); isLeaving() && Clock::now() < deadline;) nap(0.005);
}

// Who sent last on the queue to Ridgelink, if it still lives: what waits there may come from a hub of before.
pid_t livingSender() {
  const auto state = lookAt(ridgelink);
  return state && lastUser(state->sender, state->lastSend).process ? state->sender : 0;
}

[[noreturn]] void failOn(const Queue& queue, const char* verb) {
  const int error = errno;
  const char* hint = error == EACCES  ? "\nthe queues belong to the user that HubKeeper runs as, mostly root"
                     : error == EIDRM ? "\nthe queue was removed"
                                      : "";
  throw Failure(fmt::format("cannot {} queue {} ({}): {}{}", verb, queue.key, queue.name, std::strerror(error), hint));
}

// Asks for the right to send: the kernel says no here, before anything is touched.
hubkeeper_handle openInbound() {
  const hubkeeper_handle handle{inbound.key, msgget(inbound.key, 0200)};
  if (handle.id != -1) return handle;
  if (errno != ENOENT) failOn(inbound, "send on");
  throw Failure(fmt::format("queue 1002 (Ridgelink to HubKeeper) does not exist:\n{}", whyMissing()));
}

}  // namespace

Session::Session(const SessionOptions& options)
    : inboundHandle(openInbound()),
      ridgelinkHandle{ridgelink.key, -1},
      longest(queueLimits().longest),
      patience(options.wait) {
  takeTurn(options.wait);
  tag = firstTag();
  awaitExit();
  refuseBesideReader(ridgelink, options.force);
  std::uint64_t leftovers = 0;
  while (receive(0)) ++leftovers;
  if (leftovers == 0) return;
  complain(fmt::format("took {} first that had been left in queue 1003", count(leftovers, "message")));
}

std::size_t Session::longestBundle() const {
  const auto state = lookAt(inbound);
  const std::size_t capacity = state ? static_cast<std::size_t>(state->capacity) : 0;
  return std::min({std::size_t{HUBKEEPER_BUNDLE_MAX}, longest, capacity});
}

// The id of the last sender is the hub's own: nobody else sends on that queue.
void Session::requireHub(bool answered) {
  if (hubProcess == 0) return;
  const pid_t old = hubProcess;
  const auto state = lookAt(ridgelink);
  const bool replaced = state && state->sender != old;
  const bool lives = livingProcess(old).has_value();
  if (!replaced && (answered || lives)) return;
  hubProcess = 0;
  if (replaced && lives) {
    throw HubLost(
        fmt::format("processes {} and {} both send on queue 1003: where two HubKeepers run, one of them must end", old,
                    state->sender));
  }
  throw HubLost(replaced ? fmt::format("HubKeeper was started anew meanwhile: process {} took the place of {}",
                                       state->sender, old)
                         : fmt::format("HubKeeper (process {}) has ended meanwhile", old));
}

void Session::put(ByteView bundle, Clock::time_point deadline) {
  if (!bound) hubProcess = 0;
  taken = false;
  if (bundle.size() > longest) {
    throw WrongUsage(fmt::format("the kernel takes messages of {} bytes at most (/proc/sys/kernel/msgmax); this has {}",
                                 longest, bundle.size()));
  }
  if (const auto state = lookAt(inbound); state && bundle.size() > state->capacity) {
    throw Failure(
        fmt::format("queue 1002 has room for {} bytes in all, and this Bundle has {}", state->capacity, bundle.size()));
  }
  Frame frame(bundle.size(), ownType());
  std::copy(bundle.begin(), bundle.end(), frame.text());
  const Clock::time_point start = Clock::now();
  for (;;) {
    requireHub(false);
    if (hubkeeper_send(&inboundHandle, frame.message(), bundle.size(), slice(deadline)) == 0) return;
    if (!waitsOn(errno)) failOn(inbound, "send on");
    if (stopWanted()) throw Failure("interrupted while queue 1002 was full");
    if (Clock::now() < deadline) continue;
    throw Failure(
        fmt::format("queue 1002 has been full for {:.3g} s, so nothing was sent\n{}", secondsSince(start), giveUp()));
  }
}

std::optional<Bytes> Session::take(Clock::time_point deadline) {
  for (;;) {
    auto message = receive(slice(deadline));
    if (message && hubProcess == 0) hubProcess = livingSender();
    requireHub(message.has_value());
    if (message || stopWanted() || Clock::now() >= deadline) return message;
  }
}

std::optional<Bytes> Session::receive(long milliseconds) {
  Frame frame(longest);
  const ssize_t size = hubkeeper_receive(&ridgelinkHandle, frame.message(), longest, milliseconds);
  if (size >= 0) return Bytes(frame.text(), frame.text() + size);
  if (!waitsOn(errno)) failOn(ridgelink, "receive from");
  return std::nullopt;
}

std::string Session::giveUp() {
  std::string why;
  try {
    why = explainSilence();  // as long as the request stands there to be seen
  } catch (const std::exception& blind) {
    why = blind.what();
  }
  if (takeBack()) why += "\nthe request was taken back from the queue: it will not be carried out later";
  return why;
}

bool Session::takeBack() {
  Frame frame(HUBKEEPER_BUNDLE_MAX);
  bool any = false;
  while (msgrcv(inboundHandle.id, frame.message(), HUBKEEPER_BUNDLE_MAX, ownType(), IPC_NOWAIT | MSG_NOERROR) >= 0) {
    any = true;
  }
  taken = taken || any;
  return any;
}
