#include "tracing/service.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <vector>

#include "base/failure.h"

namespace {

// Empty where this user may not know; the attempt to attach will tell it then.
std::string queuesOf(const std::string& process) {
  std::error_code ignored;
  return std::filesystem::read_symlink("/proc/" + process + "/ns/ipc", ignored);
}

bool sharesOurQueues(pid_t id) {
  const std::string theirs = queuesOf(std::to_string(id));
  return theirs.empty() || theirs == queuesOf("self");
}

Service describe(pid_t id) {
  const std::string users = statusLine(id, "Uid:");  // real, effective, saved, of the file system
  return {id, static_cast<std::uint32_t>(
                  std::strtoul(users.c_str() + std::min(users.find('\t'), users.size()), nullptr, 10))};
}

std::vector<pid_t> everybody() {
  std::vector<pid_t> all;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", ignored)) {
    if (const int id = std::atoi(entry.path().filename().c_str()); id > 0) all.push_back(id);
  }
  return all;
}

}  // namespace

std::string statusLine(pid_t id, const std::string& label) {
  std::ifstream file(fmt::format("/proc/{}/status", id));
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(label)) return line.substr(std::min(line.find_first_not_of(" \t", label.size()), line.size()));
  }
  return "";
}

bool lives(pid_t id) {
  const std::string state = statusLine(id, "State:");
  return !state.empty() && state[0] != 'Z' && state[0] != 'X';
}

std::optional<Service> findService() {
  std::map<pid_t, pid_t> parents;
  for (const pid_t id : everybody()) {
    const bool ours = statusLine(id, "Name:") == "hubkeeper" && lives(id) && sharesOurQueues(id);
    const std::string parent = ours ? statusLine(id, "PPid:") : "";
    if (!parent.empty()) parents[id] = std::atoi(parent.c_str());  // 0 for a container's first process
  }
  // A command that the hub is just starting still has its name, and may have ended meanwhile.
  std::vector<pid_t> found;
  for (const auto& [id, parent] : parents) {
    if (!parents.contains(parent)) found.push_back(id);
  }
  if (found.empty()) return std::nullopt;
  if (found.size() == 1) return describe(found.front());
  throw Failure(fmt::format("{} processes are hubkeeper here: {}\nname one of them with --pid", found.size(),
                            fmt::join(found, ", ")));
}

Service namedService(pid_t id) {
  if (!lives(id)) throw Failure(fmt::format("there is no process {}", id));
  if (sharesOurQueues(id)) return describe(id);
  throw Failure(fmt::format(
      "process {} has queues of its own, in another IPC namespace\nrun hubctl in there: nsenter -t {} -a", id, id));
}
