#include "looking/copies.h"

#include <fmt/format.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstring>

#include "base/failure.h"
#include "looking/kernel_limits.h"
#include "looking/queues.h"

namespace {

int handleOf(const Queue& queue) {
  if (const auto state = lookAt(queue)) return state->handle;
  throw Failure(fmt::format("queue {} ({}) does not exist", queue.key, queue.name));
}

}  // namespace

// A copy cannot be cut, so there is room for the longest message that the kernel allows.
Copies::Copies(const Queue& queue) : source(queue), handle(handleOf(queue)), room(queueLimits().longest), frame(room) {}

std::optional<ByteView> Copies::at(unsigned place) {
  const ssize_t size = msgrcv(handle, frame.message(), room, place, MSG_COPY | IPC_NOWAIT);
  if (size >= 0) return ByteView(frame.text(), static_cast<std::size_t>(size));
  const int error = errno;
  if (error == ENOMSG || error == EIDRM || (error == EINVAL && !lookAt(source))) return std::nullopt;
  if (error == EINVAL) {
    throw Failure(
        fmt::format("message {} of queue {} cannot be copied: it has more than {} bytes, which is the longest\n"
                    "that /proc/sys/kernel/msgmax allows now",
                    place + 1, source.key, room));
  }
  if (error == ENOSYS) {
    throw Failure(
        "this kernel cannot copy a message: it was built without CONFIG_CHECKPOINT_RESTORE\n"
        "hubctl queues still tells how many wait");
  }
  throw Failure(fmt::format("cannot read queue {}: {}", source.key, std::strerror(error)));
}
