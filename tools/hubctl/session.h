// One conversation with HubKeeper in Ridgelink's place: Bundles go out on the inbound queue, bounces, replies and
// notices come back on the other. A session refuses to start beside a living reader, and takes what an earlier
// conversation left behind before it sends anything. Single-threaded; sources: msgop(2), setitimer(2).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/clock.h"
#include "base/failure.h"
#include "base/pieces.h"
#include "base/signals.h"

struct SessionOptions {
  double wait = 5;  // seconds
  bool force = false;
  bool json = false;
};

class Session {
 public:
  /// Never creates a queue: where one is missing, the service has never run, and that is the Failure thrown.
  explicit Session(const SessionOptions& options);

  std::uint16_t nextTag() { return ++tag == 0 ? ++tag : tag; }

  /// Puts a Bundle on the inbound queue; waits for room until `deadline`, then throws.
  void put(ByteView bundle, Clock::time_point deadline);

  /// The next message, or nothing when the deadline has passed or Ctrl-C was pressed.
  std::optional<Bytes> take(Clock::time_point deadline);

  struct Reply {
    Bytes payload;
    std::optional<double> bounceSeconds;  // missing when the reply came without a bounce
    double seconds;
  };

  /// Sends one Packet with a tag of its own and waits for its reply.
  Reply request(std::uint8_t opcode, std::uint8_t replyOpcode, ByteView payload, double wait);

  /// Waits for the bounce of a Packet that has no reply.
  void awaitBounce(std::uint8_t opcode, double wait);

  /// Takes this session's unread Bundles back, so that nothing is carried out later that nobody waits for, and returns
  /// the sentences that tell why no answer came.
  [[nodiscard]] std::string giveUp(double wait);

  std::uint16_t currentTag() const { return tag; }

 private:
  int inboundId;
  int outboundId;
  std::uint16_t tag;
};
