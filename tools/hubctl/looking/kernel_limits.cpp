#include "looking/kernel_limits.h"

#include <sys/msg.h>

QueueLimits queueLimits() {
  msginfo info = {};
  if (msgctl(0, MSG_INFO, reinterpret_cast<msqid_ds*>(&info)) == -1) return {};
  const auto size = [](int number) { return static_cast<std::size_t>(number); };
  return {size(info.msgmax), size(info.msgmnb), size(info.msgmni), size(info.msgpool)};
}
