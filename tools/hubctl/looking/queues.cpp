#include "looking/queues.h"

#include <fmt/format.h>
#include <pwd.h>
#include <sys/msg.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "base/failure.h"
#include "looking/processes.h"

std::optional<QueueState> lookAt(const Queue& queue) {
  const int handle = msgget(queue.key, 0);
  msqid_ds state = {};
  if (handle == -1 || msgctl(handle, IPC_STAT, &state) == -1) {
    if (errno == ENOENT || errno == EIDRM || errno == EINVAL) return std::nullopt;
    throw Failure(fmt::format("cannot look at queue {} ({}): {}", queue.key, queue.name, std::strerror(errno)));
  }
  return QueueState{handle,
                    state.msg_qnum,
                    state.msg_cbytes,
                    state.msg_qbytes,
                    state.msg_lspid,
                    state.msg_lrpid,
                    state.msg_stime,
                    state.msg_rtime,
                    state.msg_perm.uid,
                    state.msg_perm.cuid,
                    static_cast<unsigned>(state.msg_perm.mode & 0777)};
}

Glance glanceAt(const Queue& queue) {
  try {
    return {lookAt(queue), false};
  } catch (const Failure&) {
    return {std::nullopt, true};
  }
}

std::optional<double> idleSeconds(const QueueState& state) {
  const std::time_t last = std::max(state.lastSend, state.lastReceive);
  if (last == 0 || clockSetSince(last)) return std::nullopt;
  return std::max(0.0, std::difftime(std::time(nullptr), last));
}

// From the file itself: what getpwuid(3) loads at run time may not fit a static program.
std::string userName(uid_t id) {
  const std::unique_ptr<FILE, int (*)(FILE*)> list(std::fopen("/etc/passwd", "re"), &std::fclose);
  const passwd* entry = nullptr;
  while (list && (entry = fgetpwent(list.get())) != nullptr && entry->pw_uid != id) continue;
  return entry == nullptr ? std::to_string(id) : entry->pw_name;
}
