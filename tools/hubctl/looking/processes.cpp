#include "looking/processes.h"

#include <fmt/format.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string_view>

#include "showing/text.h"

namespace {

// The numeric entries of a directory of /proc in its order, as far as they can be seen.
std::vector<pid_t> idsIn(const std::string& directory) {
  std::vector<pid_t> ids;
  std::error_code gone;
  for (std::filesystem::directory_iterator entry(directory, gone), end; !gone && entry != end; entry.increment(gone)) {
    const std::string name = entry->path().filename();
    pid_t id = 0;
    if (std::from_chars(name.data(), name.data() + name.size(), id).ptr == name.data() + name.size()) ids.push_back(id);
  }
  return ids;
}

constexpr std::time_t clockGrain = 2;  // seconds: start and boot are rounded

// When this machine was started, by its clock of now: it moves when the clock is set.
std::time_t bootTime() {
  std::ifstream file("/proc/stat");
  long long seconds = 0;
  for (std::string word; file >> word;) {
    if (word == "btime" && file >> seconds) break;
  }
  return static_cast<std::time_t>(seconds);
}

Queues queuesOf(pid_t id) {
  std::error_code refused;
  const auto theirs = std::filesystem::read_symlink(fmt::format("/proc/{}/ns/ipc", id), refused);
  if (theirs.empty()) return Queues::unknown;
  return theirs == std::filesystem::read_symlink("/proc/self/ns/ipc", refused) ? Queues::ours : Queues::others;
}

bool bearsTheName(const Process& process) { return process.name.starts_with("hubkeeper"); }

// A command that the hub is just starting still has its name.
bool isHub(const Process& process, Queues whose) {
  if (!bearsTheName(process) || queuesOf(process.id) != whose) return false;
  const auto parent = livingProcess(process.parent);
  return !parent || !bearsTheName(*parent);
}

// Seconds from the machine's start to that of a process or thread: the 22nd field, behind a name that may hold anything.
// 0 where that cannot be read: read(2) fails (ESRCH) when it has just ended, which an iterator over the file would throw.
std::time_t startSeconds(pid_t id) {
  std::ifstream file(fmt::format("/proc/{}/stat", id));
  std::string line;
  std::getline(file, line, '\0');
  std::istringstream fields(line.substr(std::min(line.size(), line.rfind(')') + 1)));
  std::string field;
  for (int number = 3; number <= 22; ++number) fields >> field;
  return static_cast<std::time_t>(std::atoll(field.c_str()) / sysconf(_SC_CLK_TCK));
}

// The children of the thread that was started second; nothing where the kernel does not tell, or there is no such thread.
// The kernel lists threads in the order of their start. Their numbers begin anew at pid_max.
std::optional<std::set<pid_t>> commandsOf(pid_t hub) {
  const std::vector<pid_t> threads = idsIn(fmt::format("/proc/{}/task", hub));
  if (threads.size() < 2) return std::nullopt;
  std::ifstream file(fmt::format("/proc/{}/task/{}/children", hub, threads[1]));
  if (!file) return std::nullopt;
  return std::set<pid_t>(std::istream_iterator<pid_t>(file), {});
}

// Whether a thread stands in msgrcv(2) on that queue: its system call and first arguments. A kernel of 64 bits runs 32-bit
// programs too, which have numbers of their own; the other kind has no call that waits under the same ones. Older 32-bit
// programs of x86 go through ipc(2), where call 12 is the receive and the queue stands second.
bool waitsFor(std::ifstream& call, int queueHandle) {
  enum : long { x86Receive = 70, x86Receive32 = 401, x86Ipc32 = 117, armReceive = 188, armReceive32 = 302 };
  constexpr bool x86 = SYS_msgrcv == x86Receive || SYS_msgrcv == x86Receive32;
  constexpr bool arm = SYS_msgrcv == armReceive || SYS_msgrcv == armReceive32;
  long number = -1;
  std::string first, second;
  if (!(call >> number >> first >> second)) return false;
  const auto is = [](const std::string& argument, long value) {
    return std::strtol(argument.c_str(), nullptr, 16) == value;
  };
  if (x86 && number == x86Ipc32)
    return (std::strtol(first.c_str(), nullptr, 16) & 0xFFFF) == 12 && is(second, queueHandle);
  const bool receives = number == SYS_msgrcv || (x86 && (number == x86Receive || number == x86Receive32)) ||
                        (arm && (number == armReceive || number == armReceive32));
  return receives && is(first, queueHandle);
}

}  // namespace

// The first process is there as long as any other.
bool someAreHidden() { return !std::ifstream("/proc/1/stat").is_open(); }

bool isProcMounted() { return access("/proc/self/stat", F_OK) == 0; }

std::optional<Process> livingProcess(pid_t id) {
  if (id <= 0 || (kill(id, 0) == -1 && errno != EPERM)) return std::nullopt;
  Process process = {id, "?"};
  std::ifstream file(fmt::format("/proc/{}/status", id));
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("State:\tZ") || line.starts_with("State:\tX")) return std::nullopt;
    if (line.starts_with("State:\tT") || line.starts_with("State:\tt")) process.stopped = true;
    if (line.starts_with("TracerPid:\t") && process.stopped) process.debugger = std::atoi(line.c_str() + 11);
    if (line.starts_with("Name:\t")) process.name = line.substr(6);
    if (line.starts_with("Tgid:\t")) process.id = std::atoi(line.c_str() + 6);
    if (line.starts_with("PPid:\t")) process.parent = std::atoi(line.c_str() + 6);
  }
  return process;
}

std::optional<Process> findByName(Queues whose) {
  for (const Process& process : livingProcesses()) {
    if (isHub(process, whose)) return process;
  }
  return std::nullopt;
}

std::optional<Process> findTwin(const Process& hub) {
  for (const Process& process : livingProcesses()) {
    if (process.id == hub.id || process.id == hub.parent || process.name != hub.name) continue;
    if (isHub(process, Queues::ours)) return process;
  }
  return std::nullopt;
}

double processAge(pid_t id) {
  timespec now = {};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return std::max(0.0, static_cast<double>(now.tv_sec - startSeconds(id)));
}

bool clockSetSince(std::time_t when) { return when < bootTime() || when > std::time(nullptr) + clockGrain; }

LastUser lastUser(pid_t id, std::time_t when) {
  if (id == 0) return {when == 0 ? User::none : User::unseen, 0, {}};
  const std::time_t start =
      startSeconds(id);  // before the question whether it lives, or its end in between would tell 0
  const auto process = livingProcess(id);
  if (!process) return {User::gone, id, {}};
  if (clockSetSince(when)) return {User::doubtful, id, process};
  if (bootTime() + start > when + clockGrain) return {User::gone, id, {}};
  return {User::alive, id, process};
}

std::vector<Process> livingProcesses() {
  std::vector<Process> processes;
  for (const pid_t id : idsIn("/proc")) {
    if (const auto process = livingProcess(id)) processes.push_back(*process);
  }
  return processes;
}

std::unordered_map<std::string, std::vector<pid_t>> shownNames() {
  std::unordered_map<std::string, std::vector<pid_t>> names;
  for (const pid_t id : idsIn("/proc")) {
    char line[511];
    std::ifstream file(fmt::format("/proc/{}/cmdline", id), std::ios::binary);
    file.read(line, sizeof line);
    std::string_view shown(line, static_cast<std::size_t>(file.gcount()));
    shown = shown.substr(0, std::min(shown.size(), shown.find('\0')));
    shown.remove_prefix(std::min(shown.size(), shown.find_first_not_of(' ')));
    shown = shown.substr(0, std::min(shown.size(), shown.find(' ')));
    if (!shown.empty()) names[std::string(shown)].push_back(id);
  }
  return names;
}

std::optional<Process> deepestChild(pid_t hub) {
  const std::vector<Process> all = livingProcesses();
  const auto own = commandsOf(hub);
  std::optional<Process> deepest;
  for (bool deeper = true; deeper;) {
    deeper = false;
    const pid_t parent = deepest ? deepest->id : hub;
    const bool chosen = parent == hub && own;
    for (const Process& process : all) {
      if (process.parent != parent || (chosen && !own->contains(process.id))) continue;
      deepest = process;
      deeper = true;
    }
  }
  return deepest;
}

Waiting whoWaits(int queueHandle, pid_t except) {
  Waiting waiting = {std::nullopt, someAreHidden()};
  for (const pid_t id : idsIn("/proc")) {
    waiting.blind = waiting.blind && id != getpid();
    if (id == except) continue;
    for (const pid_t thread : idsIn(fmt::format("/proc/{}/task", id))) {
      errno = 0;
      std::ifstream call(fmt::format("/proc/{}/task/{}/syscall", id, thread));
      // Each IPC namespace numbers its queues from 0.
      if (waitsFor(call, queueHandle) && queuesOf(id) != Queues::others) return {livingProcess(id), false, false};
      // What has ended and was not waited for belongs to the machine's root, and waits for nothing.
      waiting.hidden = waiting.hidden || ((errno == EACCES || errno == EPERM) && livingProcess(id));
    }
  }
  return waiting;
}

std::string describeUser(const LastUser& last) {
  switch (last.user) {
    case User::none: return "none";
    case User::unseen: return "unseen";
    case User::gone: return fmt::format("{}, gone", last.id);
    default: break;
  }
  return fmt::format("{}{} {}", last.process->id, last.user == User::doubtful ? "?" : "", harmless(last.process->name));
}
