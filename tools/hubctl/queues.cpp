#include "queues.h"

#include <fmt/format.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "base/failure.h"

std::optional<QueueState> lookAt(const Queue& queue) {
  const int id = msgget(queue.key, 0);
  msqid_ds state = {};
  if (id == -1 || msgctl(id, IPC_STAT, &state) == -1) {
    if (errno == ENOENT || errno == EIDRM || errno == EINVAL) return std::nullopt;
    throw Failure(fmt::format("cannot look at queue {} ({}): {}", queue.key, queue.name, std::strerror(errno)));
  }
  return QueueState{id,
                    state.msg_qnum,
                    state.msg_cbytes,
                    state.msg_qbytes,
                    state.msg_lspid,
                    state.msg_lrpid,
                    state.msg_stime,
                    state.msg_rtime};
}

std::optional<Process> livingProcess(pid_t id) {
  if (id <= 0 || (kill(id, 0) == -1 && errno != EPERM)) return std::nullopt;
  Process process = {id, "?"};
  std::ifstream file(fmt::format("/proc/{}/status", id));
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("State:\tZ") || line.starts_with("State:\tX")) return std::nullopt;
    if (line.starts_with("Name:\t")) process.name = line.substr(6);
    if (line.starts_with("Tgid:\t")) process.id = std::atoi(line.c_str() + 6);
  }
  return process;
}

std::string describeProcess(pid_t id) {
  if (id == 0) return "none";
  const auto process = livingProcess(id);
  return process ? fmt::format("{} {}", process->id, process->name) : fmt::format("{}, gone", id);
}

void refuseBesideReader(const Queue& queue, bool force) {
  const auto state = lookAt(queue);
  const auto reader = state ? livingProcess(state->receiver) : std::nullopt;
  if (force || !reader || reader->id == getpid()) return;
  throw Failure(
      fmt::format("process {} ({}) reads queue {} ({}), and a message is taken by one reader alone\n"
                  "stop it first, or use --force and let both miss messages",
                  reader->id, reader->name, queue.key, queue.name));
}
