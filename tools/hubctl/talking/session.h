// One conversation with HubKeeper in Ridgelink's place: Bundles go out on the inbound queue, bounces, replies and
// notices come back on the other. A session waits for its turn, refuses to start beside a living reader, and takes what an
// earlier conversation left behind before it sends anything. Single-threaded.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "base/clock.h"
#include "base/failure.h"
#include "base/pieces.h"
#include "hubkeeper/queue.h"

struct SessionOptions {
  double wait = 5;  // seconds
  bool force = false;
};

/// HubKeeper has ended, or another process has taken its place, since it answered in this session.
struct HubLost : Failure {
  using Failure::Failure;
};

class Session {
 public:
  /// Never creates a queue; throws a Failure where the inbound one is missing. The other may be: the service makes it anew
  /// when it sends. Whether this user may send is asked before anything is taken.
  explicit Session(const SessionOptions& options);

  /// Seconds to wait for an answer, or for room, where a caller does not ask for another time.
  double wait() const { return patience; }

  /// Bytes of the longest Bundle that kernel, queue and HubKeeper take.
  std::size_t longestBundle() const;

  /// The process that answered last in this session; 0 where it cannot be told.
  pid_t hub() const { return hubProcess; }

  /// From now on, put and take throw HubLost as soon as it is not that process any more which serves the queues;
  /// otherwise that holds for one request, until its answer.
  void bindHub(bool on) { bound = on; }

  std::uint16_t nextTag() { return ++tag == 0 ? ++tag : tag; }
  std::uint16_t currentTag() const { return tag; }

  /// Puts a Bundle on the inbound queue; waits for room until `deadline`, then throws. Throws a WrongUsage when the kernel
  /// allows no message of that size; one that only HubKeeper refuses goes out.
  void put(ByteView bundle, Clock::time_point deadline);
  void put(ByteView bundle) { put(bundle, after(patience)); }

  /// The next message, or nothing when the deadline has passed or Ctrl-C was pressed.
  std::optional<Bytes> take(Clock::time_point deadline);

  /// Takes this session's unread Bundles back, so that nothing is carried out later that nobody waits for; whether there
  /// were any.
  bool takeBack();

  /// The same, and returns what the queues showed before: the sentences that tell why no answer came.
  [[nodiscard]] std::string giveUp();

  /// Whether the last request was taken back, so that nothing on the board has come of it.
  bool tookBack() const { return taken; }

 private:
  void requireHub(bool answered);
  std::optional<Bytes> receive(long milliseconds);

  hubkeeper_handle inboundHandle;
  hubkeeper_handle ridgelinkHandle;
  std::size_t longest;  // bytes that the kernel allows in one message
  std::uint16_t tag = 0;
  double patience;
  pid_t hubProcess = 0;
  bool bound = false;
  bool taken = false;
};
