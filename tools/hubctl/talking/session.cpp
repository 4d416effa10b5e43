#include "talking/session.h"

#include <fmt/format.h>
#include <sys/msg.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/failure.h"
#include "base/frame.h"
#include "base/signals.h"
#include "looking/kernel_limits.h"
#include "looking/readers.h"
#include "showing/terminal.h"
#include "showing/text.h"

namespace {

using namespace std::chrono_literals;

// HubKeeper takes messages of any type, so the type tells which Bundles are this session's own.
long ownType() { return 0x1000000L + getpid(); }

// A late reply to an earlier session must not pass for an answer to this one, so tags do not begin at 1 each time but
// where the clock stands. The ten lowest bits are left out: they are finer than many clocks count.
std::uint16_t firstTag() {
  return static_cast<std::uint16_t>(std::chrono::system_clock::now().time_since_epoch().count() >> 10);
}

// Milliseconds to wait before the next look at the deadline and at `interrupted`: a signal that falls between that look
// and the nap of a queue call would otherwise be noticed at its end only.
long slice(Clock::time_point deadline) {
  const auto left = deadline - Clock::now();
  return left <= Clock::duration::zero() ? 0 : 1 + std::min(100L, static_cast<long>(left / 1ms));
}

// Whether a wait that has ended for this reason goes on; otherwise `errno` is for failOn.
bool waitsOn(int reason) { return reason == ETIMEDOUT || reason == EINTR; }

hubkeeper_handle openExisting(const Queue& queue) {
  hubkeeper_handle handle{queue.key, -1};
  if (hubkeeper_open(&handle, 0) == 0) return handle;
  throw Failure(
      fmt::format("queue {} ({} to {}) does not exist: HubKeeper has never run here", queue.key, queue.from, queue.to));
}

[[noreturn]] void failOn(const Queue& queue, const char* verb) {
  const int error = errno;
  const char* hint = error == EACCES  ? "\nthe queues belong to the user that HubKeeper runs as, mostly root"
                     : error == EIDRM ? "\nthe queue was removed"
                                      : "";
  throw Failure(fmt::format("cannot {} queue {} ({}): {}{}", verb, queue.key, queue.name, std::strerror(error), hint));
}

}  // namespace

Session::Session(const SessionOptions& options)
    : inboundHandle(openExisting(inbound)),
      ridgelinkHandle(openExisting(ridgelink)),
      longest(longestMessage()),
      tag(firstTag()),
      patience(options.wait) {
  refuseBesideReader(ridgelink, options.force);
  std::uint64_t leftovers = 0;
  while (take(Clock::now())) ++leftovers;
  if (leftovers == 0) return;
  complain(fmt::format("took {} first that had been left in queue 1003", count(leftovers, "message")));
}

void Session::put(ByteView bundle, Clock::time_point deadline) {
  if (bundle.size() > longest) {
    throw WrongUsage(fmt::format("the kernel takes messages of {} bytes at most (/proc/sys/kernel/msgmax); this has {}",
                                 longest, bundle.size()));
  }
  Frame frame(bundle.size(), ownType());
  std::copy(bundle.begin(), bundle.end(), frame.text());
  const Clock::time_point start = Clock::now();
  while (hubkeeper_send(&inboundHandle, frame.message(), bundle.size(), slice(deadline)) == -1) {
    if (!waitsOn(errno)) failOn(inbound, "send on");
    if (interrupted != 0) throw Failure("interrupted while queue 1002 was full");
    if (Clock::now() < deadline) continue;
    throw Failure(
        fmt::format("queue 1002 has been full for {:.3g} s, so nothing was sent\n{}", secondsSince(start), giveUp()));
  }
}

std::optional<Bytes> Session::take(Clock::time_point deadline) {
  Frame frame(longest);
  for (;;) {
    const ssize_t size = hubkeeper_receive(&ridgelinkHandle, frame.message(), longest, slice(deadline));
    if (size >= 0) return Bytes(frame.text(), frame.text() + size);
    if (!waitsOn(errno)) failOn(ridgelink, "receive from");
    if (interrupted != 0 || Clock::now() >= deadline) return std::nullopt;
  }
}

std::string Session::giveUp() {
  std::string why = explainSilence();  // as long as the request stands there to be seen
  if (takeBack()) why += "\nthe request was taken back from the queue: it will not be carried out later";
  return why;
}

bool Session::takeBack() {
  Frame frame(HUBKEEPER_BUNDLE_MAX);
  bool any = false;
  while (msgrcv(inboundHandle.id, frame.message(), HUBKEEPER_BUNDLE_MAX, ownType(), IPC_NOWAIT | MSG_NOERROR) >= 0) {
    any = true;
  }
  return any;
}
