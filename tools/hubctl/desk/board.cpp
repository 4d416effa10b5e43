#include "desk/board.h"

#include <fmt/format.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "base/failure.h"
#include "desk/log_reader.h"
#include "looking/kernel_limits.h"
#include "looking/program_file.h"
#include "monitor/config_records.h"

namespace {

constexpr const char* logFile = "/media/data/messages.log";

// Whether a file with six columns, such as fstab(5), names this directory in its second one.
bool names(const char* table, std::string_view directory) {
  std::ifstream file(table);
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string source, place;
    if (words >> source >> place && source[0] != '#' && place == directory) return true;
  }
  return false;
}

Place lookAtPlace(const char* path) {
  Place place = {path};
  struct stat state = {};
  struct statvfs disk = {};
  place.exists = stat(path, &state) == 0 && S_ISDIR(state.st_mode);
  place.mode = state.st_mode & 07777;
  place.mount = names("/proc/self/mounts", path);
  place.wanted = names("/etc/fstab", path);
  if (!place.exists || statvfs(path, &disk) != 0) return place;
  place.readOnly = (disk.f_flag & ST_RDONLY) != 0 || (access(path, W_OK) != 0 && geteuid() == 0);
  place.size = static_cast<std::uint64_t>(disk.f_blocks) * disk.f_frsize;
  place.room = static_cast<std::uint64_t>(disk.f_bfree) * disk.f_frsize;
  return place;
}

// The service keeps it open from its start on, or does without.
std::optional<bool> hasLogOpen(pid_t hub) {
  std::error_code refused;
  std::filesystem::directory_iterator entry(fmt::format("/proc/{}/fd", hub), refused), end;
  if (refused) return std::nullopt;
  struct stat log = {};
  if (stat(logFile, &log) != 0) return false;
  for (; !refused && entry != end; entry.increment(refused)) {
    struct stat open = {};
    if (stat(entry->path().c_str(), &open) != 0) continue;
    if (open.st_dev == log.st_dev && open.st_ino == log.st_ino) return true;
  }
  return false;
}

std::string lastVersion() {
  std::ifstream file("/usr/local/bin/AppVersionFile.txt");
  file.seekg(-std::min<std::streamoff>(4096, file.seekg(0, std::ios::end).tellg()), std::ios::end);
  std::string version;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("HubKeeper:")) version = line.substr(10);
  }
  return version;
}

// The service where queue 1002 is missing, or where no queue is.
void lookWithoutInbound(HubFacts& hub) {
  const auto ours = findByName(Queues::ours);
  const auto named = ours ? ours : findByName(Queues::unknown);
  if (named) hub.state = {named->stopped ? Doing::stopped : Doing::working, named, deepestChild(named->id)};
  struct stat space = {};
  static constexpr ino_t firstSpace = 0xEFFFFFFC;  // of the machine itself, as the kernel numbers it
  const bool contained = stat("/proc/self/ns/pid", &space) == 0 && space.st_ino != firstSpace;
  if (named || queueLimits().inUse > 0) return;
  if (findByName(Queues::others)) hub.nowhere = whyMissing();
  if (contained && hub.nowhere.empty()) {
    hub.nowhere =
        "neither HubKeeper nor its queues are seen from here, a container or another PID namespace: it runs elsewhere, "
        "or not at all";
  }
}

std::optional<Process> findRival(const Process& hub) {
  const int handle = msgget(inbound.key, 0);
  const auto waiting = handle == -1 ? std::nullopt : whoWaits(handle, hub.id).process;
  return waiting ? waiting : findTwin(hub);
}

HubFacts lookAtService() {
  HubFacts hub;
  hub.version = lastVersion();
  try {
    hub.state = lookAtHub();
    if (!lookAt(inbound)) lookWithoutInbound(hub);
  } catch (const Failure&) {  // a queue that this user may not look at
    hub.state = {Doing::hidden, findByName(Queues::unknown), {}};
  }
  if (!hub.state.process) return hub;
  const pid_t id = hub.state.process->id;
  hub.rival = findRival(*hub.state.process);
  std::ifstream file(fmt::format("/proc/{}/status", id));
  hub.seen = file.is_open();
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string title;
    words >> title;
    if (title == "Uid:") words >> hub.user;
    if (title == "Threads:") words >> hub.threads;
    if (title == "VmRSS:" && words >> hub.memory) hub.memory *= 1024;
  }
  if (hub.seen) hub.age = processAge(id);
  hub.logOpen = hasLogOpen(id);
  if (hub.state.command) hub.commandAge = processAge(hub.state.command->id);
  return hub;
}

QueueFacts lookAtQueue(const Queue& queue) {
  QueueFacts facts = {&queue, {}, {}, {}, false, ""};
  const Glance glance = glanceAt(queue);
  facts.state = glance.state;
  facts.hidden = glance.hidden;
  if (!facts.state) return facts;
  facts.reader = lastUser(facts.state->receiver, facts.state->lastReceive);
  const Waiting waiting = whoWaits(facts.state->handle);
  facts.waiting = waiting.process;
  facts.hidden = waiting.hidden && !waiting.process;
  facts.trouble = trouble(queue, *facts.state);
  return facts;
}

ConfigFacts lookAtConfig() {
  ConfigFacts config;
  struct stat state = {};
  const bool regular = stat(serviceConfigPath, &state) == 0 && S_ISREG(state.st_mode);
  if (state.st_mode != 0 && !regular) {  // to open a FIFO would wait
    config.unread = "it is no file";
    return config;
  }
  errno = 0;
  std::ifstream file(serviceConfigPath, std::ios::binary);
  if (!file.is_open()) {
    config.missing = errno == ENOENT || errno == ENOTDIR;
    config.forbidden = errno == EACCES;
    config.unread = std::strerror(errno);
    return config;
  }
  std::ostringstream content;
  content << file.rdbuf();
  config.verdict = judgeConfig(content.str(), true);
  config.age = std::difftime(std::time(nullptr), state.st_mtime);
  return config;
}

std::vector<ServiceFacts> lookAtServices(const Facts& board) {
  std::vector<ServiceFacts> services;
  for (const Service& watched : board.config.verdict.watched) {
    ServiceFacts service = {watched.name, watched.processes, 0, {}};
    for (const pid_t id : watched.processes) {
      const double age = processAge(id);
      service.age = id == watched.processes.front() ? age : std::min(age, service.age);
    }
    const auto found = board.log.restarts.find(watched.name);
    if (found != board.log.restarts.end()) service.restarts = found->second;
    services.push_back(std::move(service));
  }
  return services;
}

bool isInPath(const std::string& path, const char* program) {
  std::istringstream directories(path);
  for (std::string directory; std::getline(directories, directory, ':');) {
    if (access((directory + "/" + program).c_str(), X_OK) == 0) return true;
  }
  return false;
}

// pkill(1) ends what has it in its name, wherever it stands.
bool anyClocksteward() {
  const std::vector<Process> all = livingProcesses();
  return std::any_of(all.begin(), all.end(),
                     [](const Process& one) { return one.name.find("clocksteward") != std::string::npos; });
}

std::uint64_t logSize() {
  std::uint64_t size = 0;
  for (const std::string& path : serviceLogs(false)) {
    struct stat state = {};
    if (stat(path.c_str(), &state) == 0) size += static_cast<std::uint64_t>(state.st_size);
  }
  return size;
}

}  // namespace

Facts lookAtBoard() {
  Facts board;
  board.hub = lookAtService();
  std::transform(std::begin(hubkeeper_queues), std::end(hubkeeper_queues), board.queues.begin(), lookAtQueue);
  board.config = lookAtConfig();
  const auto now = std::time(nullptr);
  board.log =
      readLogFacts(board.hub.seen ? std::optional(now - static_cast<std::time_t>(board.hub.age)) : std::nullopt);
  board.logSize = logSize();
  board.services = lookAtServices(board);
  board.clockstewardRuns = anyClocksteward();
  for (const ServiceFacts& service : board.services) {
    const bool shown = service.name.find("clocksteward") != std::string::npos && !service.processes.empty();
    board.clockstewardRuns = board.clockstewardRuns || shown;
  }
  board.logDirectory = lookAtPlace("/media/data");
  board.tmp = lookAtPlace("/tmp");
  const QueueLimits limits = queueLimits();
  board.longest = limits.longest;
  board.queueBytes = limits.capacity;
  board.queueTable = limits.queues;
  board.queuesUsed = limits.inUse;
  const std::string path = findStartPlace().path;
  board.firmwareTool = isInPath(path, "fw_printenv");
  board.pkill = isInPath(path, "pkill");
  const auto hidden = [](const QueueFacts& queue) { return queue.hidden; };
  board.hidden = someAreHidden();
  board.blind = board.hidden || std::any_of(board.queues.begin(), board.queues.end(), hidden) ||
                (board.hub.state.process && !board.hub.logOpen);
  return board;
}
