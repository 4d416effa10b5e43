// One conversation with HubKeeper in Ridgelink's place: Bundles go out on the inbound queue, bounces, replies and
// notices come back on the other. A session refuses to start beside a living reader, and takes what an earlier
// conversation left behind before it sends anything. Single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "base/clock.h"
#include "base/pieces.h"
#include "hubkeeper/queue.h"

struct SessionOptions {
  double wait = 5;  // seconds
  bool force = false;
};

class Session {
 public:
  /// Never creates a queue: where one is missing, the service has never run, and that is the Failure thrown.
  explicit Session(const SessionOptions& options);

  /// Seconds to wait for an answer, or for room, where a caller does not ask for another time.
  double wait() const { return patience; }

  std::uint16_t nextTag() { return ++tag == 0 ? ++tag : tag; }
  std::uint16_t currentTag() const { return tag; }

  /// Puts a Bundle on the inbound queue; waits for room until `deadline`, then throws. Throws a WrongUsage when the kernel
  /// allows no message of that size; one that only HubKeeper refuses goes out.
  void put(ByteView bundle, Clock::time_point deadline);
  void put(ByteView bundle) { put(bundle, after(patience)); }

  /// The next message, or nothing when the deadline has passed or Ctrl-C was pressed.
  std::optional<Bytes> take(Clock::time_point deadline);

  /// Takes this session's unread Bundles back, so that nothing is carried out later that nobody waits for, and returns
  /// what the queues showed before: the sentences that tell why no answer came.
  [[nodiscard]] std::string giveUp();

 private:
  bool takeBack();

  hubkeeper_handle inboundHandle;
  hubkeeper_handle ridgelinkHandle;
  std::size_t longest;  // bytes that the kernel allows in one message
  std::uint16_t tag;
  double patience;
};
