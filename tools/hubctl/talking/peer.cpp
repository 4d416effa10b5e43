#include "talking/peer.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "base/failure.h"
#include "base/frame.h"
#include "looking/kernel_limits.h"

std::optional<Bytes> takeNext(Peer& peer) {
  const std::size_t longest = queueLimits().longest;  // anybody may have put it there
  Frame frame(longest);
  const ssize_t size = hubkeeper_receive(&peer.handle, frame.message(), longest, 0);
  if (size >= 0) return Bytes(frame.text(), frame.text() + size);
  if (errno == ETIMEDOUT || errno == EINTR || errno == EIDRM) return std::nullopt;
  throw Failure(
      fmt::format("cannot receive from queue {} ({}): {}", peer.queue->key, peer.queue->name, std::strerror(errno)));
}
