#include "talking/peer.h"

#include <fmt/format.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstring>

#include "base/failure.h"
#include "base/frame.h"

std::optional<Bytes> takeAsPeer(const Queue& queue) {
  Frame frame(HUBKEEPER_BUNDLE_MAX);
  const int handle = msgget(queue.key, IPC_CREAT | HUBKEEPER_QUEUE_MODE);
  const ssize_t size =
      handle == -1 ? -1 : msgrcv(handle, frame.message(), HUBKEEPER_BUNDLE_MAX, 0, IPC_NOWAIT | MSG_NOERROR);
  if (size >= 0) return Bytes(frame.text(), frame.text() + size);
  const int error = errno;
  if (error == ENOMSG || error == EINTR || error == EIDRM || error == EINVAL) return std::nullopt;
  throw Failure(fmt::format("cannot receive from queue {} ({}): {}", queue.key, queue.name, std::strerror(error)));
}
