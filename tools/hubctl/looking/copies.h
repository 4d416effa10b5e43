// What waits in a queue, copied and not taken: MSG_COPY of msgop(2).
#pragma once

#include <optional>

#include "base/frame.h"
#include "base/pieces.h"

class Copies {
 public:
  /// Throws a Failure when the queue does not exist.
  explicit Copies(const Queue& queue);

  /// The text of the message at `place`, counted from 0, until the next call; nothing behind the last message. Throws a
  /// Failure when the kernel cannot copy.
  std::optional<ByteView> at(unsigned place);

 private:
  const Queue& source;
  int handle;
  std::size_t room;
  Frame frame;
};
