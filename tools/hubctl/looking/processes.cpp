#include "looking/processes.h"

#include <fmt/format.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>

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
