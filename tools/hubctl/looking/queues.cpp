#include "looking/queues.h"

#include <fmt/format.h>
#include <sys/msg.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/failure.h"
#include "looking/processes.h"
#include "showing/text.h"

namespace {

double secondsSince(std::time_t moment) { return std::difftime(std::time(nullptr), moment); }

}  // namespace

std::optional<QueueState> lookAt(const Queue& queue) {
  const int handle = msgget(queue.key, 0);
  msqid_ds state = {};
  if (handle == -1 || msgctl(handle, IPC_STAT, &state) == -1) {
    if (errno == ENOENT || errno == EIDRM || errno == EINVAL) return std::nullopt;
    throw Failure(fmt::format("cannot look at queue {} ({}): {}", queue.key, queue.name, std::strerror(errno)));
  }
  return QueueState{handle,          state.msg_qnum,  state.msg_cbytes, state.msg_qbytes,
                    state.msg_lspid, state.msg_lrpid, state.msg_stime,  state.msg_rtime};
}

std::optional<double> idleSeconds(const QueueState& state) {
  const std::time_t last = std::max(state.lastSend, state.lastReceive);
  return last == 0 ? std::nullopt : std::optional(secondsSince(last));
}

std::string trouble(const QueueState& state) {
  if (state.messages == 0) return "";
  if (state.receiver == 0) return "nobody drains it: no process has ever read from it";
  const auto reader = livingProcess(state.receiver);
  if (!reader) return fmt::format("nobody drains it: its last reader, process {}, is gone", state.receiver);
  const double waiting = secondsSince(state.lastReceive);
  if (waiting < 3) return "";
  return fmt::format("not drained for {}: {} is busy or stuck", humanSpan(waiting), reader->name);
}
