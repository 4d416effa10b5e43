#include "talking/peer.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "base/failure.h"

std::optional<Bytes> takeNext(Peer& peer) {
  hubkeeper_message message;
  const ssize_t size = hubkeeper_receive(&peer.handle, &message, sizeof message.text, 0);
  if (size >= 0) return Bytes(message.text, message.text + size);
  if (errno == ETIMEDOUT || errno == EINTR || errno == EIDRM) return std::nullopt;
  throw Failure(
      fmt::format("cannot receive from queue {} ({}): {}", peer.queue->key, peer.queue->name, std::strerror(errno)));
}
