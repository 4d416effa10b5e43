#include "desk/verdict.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "monitor/config_records.h"
#include "showing/text.h"

namespace {

constexpr double young = 60;        // seconds that a process lives at most, in a loop of restarts
constexpr double loopSpan = 300;    // seconds in which three restarts are a loop
constexpr double firstCycle = 50;   // seconds after which the service has looked for each entry
constexpr double longCommand = 60;  // seconds
constexpr std::uint64_t largeQueue = 10485760;
constexpr std::uint64_t leastRoom = 16384;

// One kind of trouble of `Of`: when it holds, what is said, and what to do.
template <class... Of>
struct Row {
  const char* name;
  Grade grade;
  bool (*holds)(const Facts&, const Of&...);
  std::string (*says)(const Facts&, const Of&...);
  std::string (*step)(const Facts&, const Of&...);
};

std::string service(std::string_view verb) {
  if (access("/run/systemd/system", F_OK) != 0 && access("/etc/init.d/hubkeeper", X_OK) == 0)
    return fmt::format("/etc/init.d/hubkeeper {}", verb);
  return fmt::format("systemctl {} hubkeeper", verb);
}

std::string thenRestart(std::string_view before) { return fmt::format("{}, then {}", before, service("restart")); }

std::string line(const std::string& text, std::size_t number) {
  const std::size_t end = text.find('\n');
  if (number == 0) return text.substr(0, end);
  return end == std::string::npos ? "" : text.substr(end + 1);
}

bool is(const Facts& board, Doing doing) { return board.hub.nowhere.empty() && board.hub.state.doing == doing; }
bool runsElsewhere(const Facts& board) { return !board.hub.nowhere.empty() || is(board, Doing::elsewhere); }
bool lives(const Facts& board) { return board.hub.state.process.has_value() && !is(board, Doing::doubtful); }
bool held(const Facts& board) { return is(board, Doing::stopped) && board.hub.state.process->debugger != 0; }
bool hasStart(const Facts& board) { return board.log.unread.empty() && board.log.start != 0; }
bool clockstewardOff(const Facts& board) {
  return hasStart(board) && lives(board) && board.log.clockstewardOff && !board.clockstewardRuns && !board.hidden;
}

// Three within a few minutes, the newest of them not long ago. Times are those of the log.
bool isLoop(LogTime oldest, LogTime newest) {
  if (oldest == 0) return false;
  const std::time_t last = clockTime(newest);
  return std::difftime(last, clockTime(oldest)) <= loopSpan && std::difftime(std::time(nullptr), last) <= young;
}

bool runsLong(const Facts& board) {
  return board.hub.state.command && board.hub.commandAge >= longCommand && is(board, Doing::working);
}

std::string sayBusy(const Facts& board) {
  const Process& command = *board.hub.state.command;
  return fmt::format("HubKeeper runs a command, process {} ({}), for {}, and serves nothing else meanwhile", command.id,
                     harmless(command.name), humanSpan(board.hub.commandAge));
}

std::string endCommand(const Facts& board) {
  const pid_t id = board.hub.state.command->id;
  return fmt::format("kill {}, or at last kill -9 {}, if it hangs", id, id);
}

const Row<> serviceRows[] = {
    {"hub-elsewhere", Grade::unknown, runsElsewhere,
     [](const Facts& b) { return b.hub.nowhere.empty() ? describeHub(b.hub.state) : line(b.hub.nowhere, 0); },
     [](const Facts&) {
       return std::string("run hubctl status where HubKeeper runs: nsenter -t PID -a hubctl status");
     }},
    {"hub-hidden", Grade::unknown, [](const Facts& b) { return is(b, Doing::hidden) && !lives(b); },
     [](const Facts& b) { return describeHub(b.hub.state); },
     [](const Facts&) { return std::string(isProcMounted() ? "sudo hubctl status" : "mount -t proc proc /proc"); }},
    {"hub-doubtful", Grade::unknown, [](const Facts& b) { return is(b, Doing::doubtful); },
     [](const Facts& b) { return describeHub(b.hub.state); },
     [](const Facts& b) { return fmt::format("ps -p {} -o lstart,args", b.hub.state.process->id); }},
    {"hub-stopped", Grade::trouble, [](const Facts& b) { return is(b, Doing::absent); },
     [](const Facts& b) { return b.queuesUsed == 0 ? whyMissing() : std::string("HubKeeper does not run"); },
     [](const Facts&) { return service("start") + "; why it ended: hubctl log | tail"; }},
    {"hub-debugged", Grade::trouble, [](const Facts& b) { return held(b); },
     [](const Facts& b) { return line(describeHub(b.hub.state), 0); },
     [](const Facts& b) { return fmt::format("let it go on there, or kill {}", b.hub.state.process->debugger); }},
    {"hub-frozen", Grade::trouble, [](const Facts& b) { return is(b, Doing::stopped) && !held(b); },
     [](const Facts& b) { return line(describeHub(b.hub.state), 0) + ", and serves nothing"; },
     [](const Facts& b) { return fmt::format("kill -CONT {}", b.hub.state.process->id); }},
    {"hub-rival", Grade::trouble, [](const Facts& b) { return lives(b) && b.hub.rival.has_value(); },
     [](const Facts& b) {
       const Process& rival = *b.hub.rival;
       const bool twin = rival.name == b.hub.state.process->name;
       return fmt::format(
           "{} reads queue 1002 beside HubKeeper (process {}): each of them takes some of the requests{}",
           twin ? fmt::format("a second HubKeeper, process {},", rival.id)
                : fmt::format("process {} ({})", rival.id, harmless(rival.name)),
           b.hub.state.process->id, twin ? ", and both roll one log" : "");
     },
     [](const Facts& b) {
       return fmt::format("ps -o pid,lstart,args -p {},{}, and kill the one that should not be there",
                          b.hub.state.process->id, b.hub.rival->id);
     }},
    {"hub-restarts", Grade::trouble,
     [](const Facts& b) {
       const auto& starts = b.log.starts;
       return b.hub.age < young && starts.size() == 3 && isLoop(starts.front(), starts.back());
     },
     [](const Facts& b) {
       return fmt::format("HubKeeper is started again and again, three times since {}", logTime(b.log.starts.front()));
     },
     [](const Facts&) { return std::string("hubctl log --priority error --since 10m --explain"); }},
    {"hub-held-up", Grade::trouble,
     [](const Facts& b) {
       const auto& in = b.queues[HUBKEEPER_QUEUE_INBOUND].state;
       return runsLong(b) && in && in->messages > 0;
     },
     [](const Facts& b) {
       const auto& in = b.queues[HUBKEEPER_QUEUE_INBOUND].state;
       return fmt::format("{}; {} in queue 1002", sayBusy(b),
                          in->messages == 1 ? "a request waits" : fmt::format("{} requests wait", in->messages));
     },
     endCommand},
    {"hub-busy", Grade::note,
     [](const Facts& b) { return is(b, Doing::working) && b.hub.state.command && !runsLong(b); }, sayBusy, endCommand},
    {"log-not-open", Grade::trouble,
     [](const Facts& b) {
       return lives(b) && b.hub.logOpen == false && b.hub.age > 2 && b.logDirectory.exists && !b.logDirectory.readOnly;
     },
     [](const Facts&) {
       return std::string(
                  "HubKeeper does not have /media/data/messages.log open: the directory was missing at its start, ") +
              "or the file has been moved or removed";
     },
     [](const Facts&) { return service("restart"); }},
    {"log-start-unknown", Grade::trouble,
     [](const Facts& b) {
       return lives(b) && b.hub.logOpen != false && b.log.unread.empty() && b.log.start == 0 && b.hub.age > 2;
     },
     [](const Facts&) {
       return std::string(
                  "the log does not reach back to HubKeeper's start, so it is unknown whether Clocksteward is ") +
              "switched off, what was lost and what was restarted";
     },
     [](const Facts&) { return service("restart") + ", which switches Clocksteward on"; }},
    {"clocksteward-off", Grade::trouble, [](const Facts& b) { return clockstewardOff(b); },
     [](const Facts&) { return std::string("Clocksteward is switched off and does not run"); },
     [](const Facts&) { return std::string("hubctl clocksteward on"); }},
};

const Row<> boardRows[] = {
    {"no-configuration", Grade::trouble, [](const Facts& b) { return !b.config.unread.empty() && !b.config.forbidden; },
     [](const Facts& b) {
       return fmt::format("{} cannot be read, so no service is watched: {}", serviceConfigPath, b.config.unread);
     },
     [](const Facts&) { return thenRestart(fmt::format("write {} (man svcmanager.conf)", serviceConfigPath)); }},
    {"debug-on", Grade::trouble, [](const Facts& b) { return b.config.verdict.debug; },
     [](const Facts&) { return fmt::format("debug=true in {}: no service is watched", serviceConfigPath); },
     [](const Facts&) { return thenRestart("remove that line"); }},
    {"nothing-watched", Grade::trouble,
     [](const Facts& b) {
       const Verdict& verdict = b.config.verdict;
       return b.config.unread.empty() && !verdict.debug && verdict.watched.empty() && verdict.traps.empty();
     },
     [](const Facts&) { return fmt::format("{} names no service, so none is watched", serviceConfigPath); },
     [](const Facts&) { return thenRestart("add a line service=PATH for each"); }},
    {"configuration-newer", Grade::trouble,
     [](const Facts& b) {
       return lives(b) && b.config.unread.empty() && b.config.age >= 0 && b.config.age + firstCycle < b.hub.age;
     },
     [](const Facts&) {
       return fmt::format("{} has been changed since HubKeeper read it, 40 seconds after its start", serviceConfigPath);
     },
     [](const Facts&) { return service("restart"); }},
    {"limits-low", Grade::trouble,
     [](const Facts& b) {
       const auto& large = b.queues[HUBKEEPER_QUEUE_NETSTEWARD].state;
       return b.queueBytes < std::size_t{2} * HUBKEEPER_BUNDLE_MAX || (large && large->capacity < largeQueue);
     },
     [](const Facts& b) {
       const auto& large = b.queues[HUBKEEPER_QUEUE_NETSTEWARD].state;
       if (!large || large->capacity >= largeQueue) return fmt::format("kernel.msgmnb is {}: too low", b.queueBytes);
       return fmt::format(
           "Netsteward's queue holds {} in place of 10 MiB: kernel.msgmnb is {}, and HubKeeper could not "
           "make it larger",
           humanSize(large->capacity), b.queueBytes);
     },
     [](const Facts&) { return thenRestart(fmt::format("sysctl -w kernel.msgmnb={}", largeQueue)); }},
    {"messages-short", Grade::trouble, [](const Facts& b) { return b.longest < HUBKEEPER_BUNDLE_MAX; },
     [](const Facts& b) {
       return fmt::format("kernel.msgmax is {}: a Bundle of 8192 bytes cannot be sent", b.longest);
     },
     [](const Facts&) { return std::string("sysctl -w kernel.msgmax=8192"); }},
    {"queue-table-full", Grade::trouble,
     [](const Facts& b) {
       const auto missing = [](const QueueFacts& q) { return !q.state && !q.hidden; };
       const bool some = std::any_of(b.queues.begin(), b.queues.end(), missing);
       return b.queueTable < HUBKEEPER_QUEUE_COUNT || (some && b.queuesUsed >= b.queueTable);
     },
     [](const Facts& b) {
       return fmt::format("kernel.msgmni allows {} queues and there are {}, so that a missing one cannot be made",
                          b.queueTable, b.queuesUsed);
     },
     [](const Facts&) { return thenRestart("sysctl -w kernel.msgmni=32000"); }},
    {"no-pkill", Grade::trouble, [](const Facts& b) { return !b.pkill; },
     [](const Facts&) { return std::string("there is no pkill in HubKeeper's PATH: Clocksteward cannot be stopped"); },
     [](const Facts&) { return std::string("apt install procps, or what brings pkill on this board"); }},
    {"no-fw-printenv", Grade::note, [](const Facts& b) { return !b.firmwareTool; },
     [](const Facts&) {
       return std::string("there is no fw_printenv in HubKeeper's PATH: no firmware version in the log");
     },
     [](const Facts&) { return std::string("apt install libubootenv-tool, if the board has U-Boot"); }},
};

const Row<Place> placeRows[] = {
    {"directory-missing", Grade::trouble, [](const Facts&, const Place& p) { return !p.exists; },
     [](const Facts&, const Place& p) {
       const bool log = std::strcmp(p.path, "/tmp") != 0;
       return fmt::format("there is no directory {}: {}", p.path,
                          log ? "nothing is logged to a file" : "what commands print is lost");
     },
     [](const Facts&, const Place& p) {
       return thenRestart(fmt::format("{} {}", p.wanted ? "mount" : "mkdir -p", p.path));
     }},
    {"not-mounted", Grade::trouble, [](const Facts&, const Place& p) { return p.exists && p.wanted && !p.mount; },
     [](const Facts&, const Place& p) { return fmt::format("{} stands in /etc/fstab, but is not mounted", p.path); },
     [](const Facts&, const Place& p) { return thenRestart(fmt::format("mount {}", p.path)); }},
    {"read-only", Grade::trouble, [](const Facts&, const Place& p) { return p.exists && p.readOnly; },
     [](const Facts&, const Place& p) { return fmt::format("{} cannot be written", p.path); },
     [](const Facts&, const Place& p) {
       return thenRestart(p.mount ? fmt::format("dmesg | tail, mount -o remount,rw {}", p.path)
                                  : fmt::format("ls -ld {}, chmod", p.path));
     }},
    {"disk-full", Grade::trouble,
     [](const Facts&, const Place& p) {
       return p.exists && !p.readOnly && p.size > 0 && p.room < std::min(leastRoom, p.size / 8);
     },
     [](const Facts&, const Place& p) {
       const bool log = std::strcmp(p.path, "/tmp") != 0;
       return fmt::format("the disk of {} is full, {} left: {} lost", p.path, humanSize(p.room),
                          log ? "lines of the log are" : "what commands print is");
     },
     [](const Facts&, const Place& p) {
       return fmt::format("du -ax {} | sort -n | tail, and remove what may go", p.path);
     }},
    {"open-directory", Grade::trouble,
     [](const Facts&, const Place& p) { return p.exists && (p.mode & 0022) != 0 && (p.mode & 01000) == 0; },
     [](const Facts&, const Place& p) {
       return fmt::format("others may write to {} (mode {:04o}), and lead HubKeeper's files elsewhere", p.path, p.mode);
     },
     [](const Facts&, const Place& p) {
       return fmt::format("chmod {} {}", std::strcmp(p.path, "/tmp") == 0 ? "1777" : "go-w", p.path);
     }},
};

const ServiceFacts* watchedAs(const Facts& board, const QueueFacts& queue) {
  for (const ServiceFacts& one : board.services) {
    if (one.name.find(queue.queue->name) != std::string::npos) return &one;
  }
  return nullptr;
}

bool isGone(const QueueFacts& q) {
  return q.state && q.reader.user == User::gone && !q.waiting && (q.state->messages > 0 || !q.hidden);
}

// The service itself, where it does not serve, is a trouble of its own.
bool isOfHub(const Facts& board, const QueueFacts& q) {
  return *q.queue == inbound && (!lives(board) || is(board, Doing::stopped) || board.hub.state.command);
}

bool isForeign(const Facts& board, uid_t user) {
  return user != 0 && (!lives(board) || (board.hub.seen && user != board.hub.user));
}

bool isSwitchedOff(const Facts& board, const QueueFacts& q) {
  return std::strcmp(q.queue->name, "clocksteward") == 0 && clockstewardOff(board);
}

std::string peerStep(const Facts& board, const QueueFacts& q) {
  if (*q.queue == inbound && board.hub.state.command) return endCommand(board);
  if (*q.queue == inbound && is(board, Doing::stopped))
    return fmt::format("kill -CONT {}", board.hub.state.process->id);
  if (*q.queue == inbound) return service(lives(board) ? "restart" : "start");
  const Process* reader = q.waiting ? &*q.waiting : q.reader.process ? &*q.reader.process : nullptr;
  if (reader != nullptr && reader->stopped) return fmt::format("kill -CONT {}", reader->id);
  if (reader != nullptr) return fmt::format("kill {}, and start {} again", reader->id, q.queue->to);
  if (*q.queue == ridgelink) return "start Ridgelink; hubctl queues --watch shows whether it drains its queue";
  if (isSwitchedOff(board, q)) return "hubctl clocksteward on";
  if (const ServiceFacts* watched = watchedAs(board, q)) {
    if (!watched->processes.empty()) {
      return fmt::format("{} runs and does not read: kill {}, and HubKeeper restarts it", harmless(watched->name),
                         watched->processes.front());
    }
    return fmt::format("HubKeeper restarts it; hubctl log --grep 'service {}'", harmless(watched->name));
  }
  return fmt::format("start {}, or have HubKeeper restart it: service=PATH in {}", q.queue->to, serviceConfigPath);
}

std::string whoseQueue(const QueueFacts& q) { return fmt::format("{}'s queue ({})", q.queue->to, q.queue->key); }

std::string sayGone(const Facts&, const QueueFacts& q) {
  const std::string left =
      q.state->messages == 0 ? "" : fmt::format(", and {} in its queue", count(q.state->messages, "message"));
  return fmt::format("{} is gone: nobody reads queue {} since process {} has ended{}", q.queue->to, q.queue->key,
                     q.reader.id, left);
}

const Row<QueueFacts> queueRows[] = {
    {"queue-removed", Grade::trouble,
     [](const Facts& b, const QueueFacts& q) {
       return !q.state && !q.hidden && lives(b) && (b.hub.age > 2 || !b.hub.seen);
     },
     [](const Facts&, const QueueFacts& q) {
       return fmt::format("{} has been removed; HubKeeper makes it anew when it uses it next", whoseQueue(q));
     },
     [](const Facts&, const QueueFacts&) { return service("restart"); }},
    {"queue-owner", Grade::trouble,
     [](const Facts& b, const QueueFacts& q) {
       return q.state && !runsElsewhere(b) &&
              (isForeign(b, q.state->owner) || isForeign(b, q.state->creator) || (q.state->mode & 0022) != 0);
     },
     [](const Facts& b, const QueueFacts& q) {
       const bool owned = isForeign(b, q.state->owner) || isForeign(b, q.state->creator);
       const std::string who =
           owned ? "was made by or belongs to " +
                       harmless(userName(isForeign(b, q.state->owner) ? q.state->owner : q.state->creator))
                 : fmt::format("has mode {:04o}", q.state->mode);
       return fmt::format("{} {}: others than HubKeeper's user may write to it", whoseQueue(q), who);
     },
     [](const Facts&, const QueueFacts& q) { return thenRestart(fmt::format("ipcrm -q {}", q.state->handle)); }},
    {"queue-small", Grade::trouble,
     [](const Facts&, const QueueFacts& q) { return q.state && q.state->capacity < HUBKEEPER_PACKET_MAX; },
     [](const Facts&, const QueueFacts& q) {
       return fmt::format("{} holds {} at most: a Packet of {} bytes never fits", whoseQueue(q),
                          humanSize(q.state->capacity), HUBKEEPER_PACKET_MAX);
     },
     [](const Facts&, const QueueFacts& q) { return thenRestart(fmt::format("ipcrm -q {}", q.state->handle)); }},
    {"queue-full", Grade::trouble, [](const Facts&, const QueueFacts& q) { return isFull(q); },
     [](const Facts& b, const QueueFacts& q) {
       const std::string losses = describeLosses(b, q);
       return fmt::format("{} is full ({}), and {}{}{}{}", whoseQueue(q), count(q.state->messages, "message"),
                          *q.queue == inbound ? "Ridgelink cannot send" : "what is sent there is lost",
                          losses.empty() ? "" : " (" + losses + ")", q.trouble.empty() ? "" : "; ", q.trouble);
     },
     peerStep},
    {"peer-gone", Grade::trouble,
     [](const Facts& b, const QueueFacts& q) {
       return isGone(q) && !isFull(q) && !isOfHub(b, q) && !isSwitchedOff(b, q) && !(*q.queue == inbound);
     },
     sayGone, peerStep},
    {"not-drained", Grade::trouble,
     [](const Facts& b, const QueueFacts& q) {
       return !q.trouble.empty() && !isFull(q) && !isOfHub(b, q) && (!isGone(q) || *q.queue == inbound);
     },
     [](const Facts&, const QueueFacts& q) {
       return fmt::format("{} holds {}, {}", whoseQueue(q), count(q.state->messages, "message"), q.trouble);
     },
     peerStep},
};

bool switchedOff(const Facts& board, const ServiceFacts& one) {
  return clockstewardOff(board) && one.name.find("clocksteward") != std::string::npos;
}

bool loops(const Facts&, const ServiceFacts& one) {
  return (one.processes.empty() || one.age < young) && isLoop(one.restarts.last[2], one.restarts.last[0]);
}

const Row<ServiceFacts> watchedRows[] = {
    {"service-loop", Grade::trouble, loops,
     [](const Facts&, const ServiceFacts& one) {
       return fmt::format("{} is found dead again and again, {} so far", harmless(one.name),
                          count(one.restarts.count, "time"));
     },
     [](const Facts&, const ServiceFacts& one) {
       return fmt::format("run it by hand and see why it ends: {}", harmless(one.name));
     }},
    {"service-dead", Grade::trouble,
     [](const Facts& b, const ServiceFacts& one) {
       return one.processes.empty() && !b.hidden && !loops(b, one) && !switchedOff(b, one);
     },
     [](const Facts&, const ServiceFacts& one) { return fmt::format("{} does not run", harmless(one.name)); },
     [](const Facts& b, const ServiceFacts& one) {
       if (!lives(b) || b.config.verdict.debug) return fmt::format("{} &", harmless(one.name));
       if (b.hub.age < firstCycle) return std::string("wait: HubKeeper looks for it 45 seconds after its own start");
       return fmt::format("hubctl log --grep 'service {}'", harmless(one.name));
     }},
};

const Row<Trap> trapRows[] = {
    {"entry-trap", Grade::trouble, [](const Facts&, const Trap& trap) { return trap.unwatched; },
     [](const Facts&, const Trap& trap) {
       return fmt::format("{}, line {}: {}", serviceConfigPath, trap.line, trap.text);
     },
     [](const Facts&, const Trap&) {
       return thenRestart(fmt::format("mend it, hubctl check-config {}", serviceConfigPath));
     }},
};

template <class... Of, std::size_t size>
void judge(std::vector<Finding>& findings, const Row<Of...> (&rows)[size], const Facts& board,
           const std::string& subject, const Of&... of) {
  for (const Row<Of...>& row : rows) {
    if (row.holds(board, of...))
      findings.push_back({row.name, row.grade, subject, row.says(board, of...), row.step(board, of...)});
  }
}

}  // namespace

bool isFull(const QueueFacts& queue) {
  return queue.state && queue.state->messages > 0 && queue.state->capacity >= HUBKEEPER_PACKET_MAX &&
         queue.state->bytes + HUBKEEPER_PACKET_MAX > queue.state->capacity;
}

std::string describeLosses(const Facts& board, const QueueFacts& queue) {
  const auto found = board.log.losses.find(queue.queue->key);
  if (found == board.log.losses.end() || found->second.lines == 0) return "";
  return fmt::format("{}{} since {}", found->second.silent ? "at least " : "", found->second.lines,
                     logTime(found->second.first));
}

std::vector<Finding> judgeBoard(const Facts& board) {
  std::vector<Finding> findings;
  judge(findings, serviceRows, board, "");
  for (const QueueFacts& queue : board.queues) judge(findings, queueRows, board, queue.queue->name, queue);
  // Elsewhere, it sees other files and other processes than these.
  if (!runsElsewhere(board)) {
    for (const ServiceFacts& one : board.services) judge(findings, watchedRows, board, one.name, one);
    for (const Trap& trap : board.config.verdict.traps) {
      judge(findings, trapRows, board, std::to_string(trap.line), trap);
    }
    judge(findings, boardRows, board, "");
    for (const Place& place : {board.logDirectory, board.tmp}) judge(findings, placeRows, board, place.path, place);
  }
  std::stable_sort(findings.begin(), findings.end(),
                   [](const Finding& one, const Finding& other) { return one.grade > other.grade; });
  return findings;
}

Grade worst(const std::vector<Finding>& findings) { return findings.empty() ? Grade::note : findings.front().grade; }
