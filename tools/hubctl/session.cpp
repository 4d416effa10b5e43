#include "session.h"

#include <fmt/format.h>

#include <sys/msg.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>

#include "base/queues.h"
#include "looking/queues.h"
#include "looking/readers.h"
#include "showing/terminal.h"
#include "showing/text.h"

namespace {

template <std::size_t size>
struct Frame {
  long type;
  std::uint8_t text[size];
};

// HubKeeper takes messages of any type, so the type tells which Bundles are this session's own.
long ownType() { return 0x1000000L + getpid(); }

// A queue call has no time-out. While one blocks, a timer interrupts it again and again, so that a signal which falls
// just before the call is not missed.
class Ticking {
 public:
  Ticking() { set({{0, 10000}, {0, 10000}}); }
  ~Ticking() { set({}); }
  Ticking(const Ticking&) = delete;
  Ticking& operator=(const Ticking&) = delete;

 private:
  static void set(const itimerval& timer) { setitimer(ITIMER_REAL, &timer, nullptr); }
};

int openExisting(const Queue& queue) {
  const int id = msgget(queue.key, 0);
  if (id != -1) return id;
  throw Failure(
      fmt::format("queue {} ({} to {}) does not exist: HubKeeper has never run here", queue.key, queue.from, queue.to));
}

[[noreturn]] void failOn(const Queue& queue, const char* verb) {
  const int error = errno;
  const char* hint = error == EACCES ? "\nthe queues belong to the user that HubKeeper runs as, mostly root"
                     : error == EINVAL || error == EIDRM ? "\nthe queue was removed, or the message is longer than "
                                                           "/proc/sys/kernel/msgmax allows"
                                                         : "";
  throw Failure(fmt::format("cannot {} queue {} ({}): {}{}", verb, queue.key, queue.name, std::strerror(error), hint));
}

}  // namespace

Session::Session(const SessionOptions& options)
    : inboundId(openExisting(inbound)),
      outboundId(openExisting(ridgelink)),
      tag(static_cast<std::uint16_t>(std::chrono::system_clock::now().time_since_epoch().count() >> 10)) {
  refuseBesideReader(ridgelink, options.force);
  std::uint64_t leftovers = 0;
  while (take(Clock::time_point::min())) ++leftovers;
  if (leftovers > 0)
    complain(fmt::format("took {} first that had been left in queue 1003", count(leftovers, "message")));
}

void Session::put(ByteView bundle, Clock::time_point deadline) {
  Frame<65536> frame = {ownType(), {}};
  if (bundle.size() > sizeof frame.text) throw WrongUsage("a Bundle holds 8192 bytes at most");
  if (!bundle.empty()) std::memcpy(frame.text, bundle.data(), bundle.size());
  if (msgsnd(inboundId, &frame, bundle.size(), IPC_NOWAIT) == 0) return;
  const Ticking ticking;
  const Clock::time_point start = Clock::now();
  while (errno == EAGAIN || errno == EINTR) {
    if (interrupted != 0) throw Failure("interrupted while queue 1002 was full");
    if (Clock::now() >= deadline) {
      throw Failure(fmt::format("queue 1002 has been full for {:.3g} s, so nothing was sent\n{}", secondsSince(start),
                                giveUp(0)));
    }
    if (msgsnd(inboundId, &frame, bundle.size(), 0) == 0) return;
  }
  failOn(inbound, "send on");
}

std::optional<Bytes> Session::take(Clock::time_point deadline) {
  Frame<HUBKEEPER_BUNDLE_MAX> frame;
  const auto receive = [&](int flags) { return msgrcv(outboundId, &frame, sizeof frame.text, 0, flags | MSG_NOERROR); };
  ssize_t size = receive(IPC_NOWAIT);
  if (size == -1 && errno == ENOMSG) {
    const Ticking ticking;
    while (size == -1 && (errno == ENOMSG || errno == EINTR)) {
      if (interrupted != 0 || Clock::now() >= deadline) return std::nullopt;
      size = receive(0);
    }
  }
  if (size == -1) failOn(ridgelink, "receive from");
  return Bytes(frame.text, frame.text + size);
}

Session::Reply Session::request(std::uint8_t opcode, std::uint8_t replyOpcode, ByteView payload, double wait) {
  const std::uint16_t own = nextTag();
  const Bytes packet = makePacket(opcode, own, payload);
  const Clock::time_point start = Clock::now();
  const Clock::time_point deadline = after(wait);
  put(packet, deadline);
  std::optional<double> bounce;
  while (const auto message = take(deadline)) {
    const Piece piece = split(ridgelink, *message).front();
    if (piece.kind == Kind::bounce && piece.opcode == opcode) bounce = secondsSince(start);
    if (piece.kind == Kind::packet && piece.opcode == replyOpcode && piece.tag == own) {
      return {Bytes(piece.payload.begin(), piece.payload.end()), bounce, secondsSince(start)};
    }
  }
  throw Failure(giveUp(wait));
}

void Session::awaitBounce(std::uint8_t opcode, double wait) {
  const Clock::time_point deadline = after(wait);
  while (const auto message = take(deadline)) {
    if (message->size() == 1 && message->front() == opcode) return;
  }
  throw Failure(giveUp(wait));
}

std::string Session::giveUp(double wait) {
  std::string text = interrupted != 0 ? "interrupted before the answer came\n" : "";
  if (interrupted == 0 && wait > 0) text = fmt::format("no answer within {:.3g} s\n", wait);
  text += explainSilence();  // before anything is taken back
  Frame<HUBKEEPER_BUNDLE_MAX> frame;
  std::uint64_t takenBack = 0;
  while (msgrcv(inboundId, &frame, sizeof frame.text, ownType(), IPC_NOWAIT | MSG_NOERROR) >= 0) ++takenBack;
  if (takenBack > 0) text += "\nthe request was taken back from the queue: it will not be carried out later";
  return text;
}
