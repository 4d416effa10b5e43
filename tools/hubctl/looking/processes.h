// The processes behind the ids that the kernel leaves in a queue. Sources: msgctl(2), proc(5).
#pragma once

#include <sys/types.h>

#include <ctime>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

struct Process {
  pid_t id;
  std::string name;  // "?" where no more than its number is seen
  pid_t parent = 0;
  bool stopped = false;  // by a signal, or by a debugger
  pid_t debugger = 0;    // where it is that
};

/// The process of an id from a queue, or nothing when it has ended (a zombie has, too). A reader that was waiting leaves
/// the id of its thread, which is turned into that of its process.
std::optional<Process> livingProcess(pid_t id);

/// The process that is called hubkeeper, or something longer that begins so, and has the queues that are seen from here, or
/// others, in another IPC namespace; of another user's process that is not known.
enum class Queues { ours, others, unknown };
std::optional<Process> findByName(Queues whose);

/// One more hub with the queues that are seen from here: of the same name, and neither its parent nor a command that starts.
std::optional<Process> findTwin(const Process& hub);

/// How long a process has run, by the clock that nobody sets.
double processAge(pid_t id);

/// Whether the clock has been set since then, as far as it shows: that was before this machine's start, or is still to come.
bool clockSetSince(std::time_t when);

/// Who used a queue last, by the number and the time that the kernel keeps. A number is given anew when its process has ended,
/// and then belongs to one that started later. A clock that was set meanwhile hides that, and then it counts as the same.
enum class User { none, gone, unseen, doubtful, alive };
struct LastUser {
  User user = User::none;
  pid_t id = 0;  // 0 where it is none, or unseen: in another PID namespace, where its number means nothing here
  std::optional<Process> process;  // where it is alive or doubtful
};
LastUser lastUser(pid_t id, std::time_t when);

std::vector<Process> livingProcesses();

/// Whether there may be processes of which nothing is seen: /proc is mounted with hidepid=, or not at all.
bool someAreHidden();
bool isProcMounted();

/// The processes that show each text where the service looks for its entries: in the first 511 bytes of the command line,
/// in the first argument, up to its first blank.
std::unordered_map<std::string, std::vector<pid_t>> shownNames();

/// The youngest generation below what the hub runs as a command, followed through the latest child of each; nothing when it
/// runs none. Where the kernel tells which thread has which children, those count that its second one has, which carries all
/// traffic: others are services that the monitor waits for, or that came to a hub which is process 1.
std::optional<Process> deepestChild(pid_t hub);

/// Who waits in msgrcv(2) for a message of this queue, other than one process. `hidden` when this user may not see it of every
/// process, `blind` when not even this process shows: no /proc here, or no descriptor left to read it with.
struct Waiting {
  std::optional<Process> process;
  bool hidden = false;
  bool blind = true;
};
Waiting whoWaits(int queueHandle, pid_t except = 0);

/// "57 ridgelink", "57? ridgelink" in doubt, "57, gone", "unseen", or "none"; harmless for a terminal.
std::string describeUser(const LastUser& last);
