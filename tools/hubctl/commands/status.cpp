// One screen that tells whether the hub is well, what is wrong and what to do. It only looks.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "commands/arguments.h"
#include "commands/commands.h"
#include "desk/board_json.h"
#include "showing/json.h"
#include "showing/output.h"
#include "showing/terminal.h"
#include "showing/text.h"
#include "showing/watching.h"
#include "showing/wrapping.h"

namespace {

struct Options {
  bool watch = false;
  bool json = false;
  double interval = 2;
};

using Lines = std::vector<std::string>;

constexpr double yearly = 300. * 86400;  // seconds, after which a date needs its year
constexpr std::size_t titleSize = 11;    // columns before a row's text

void add(Lines& lines, std::string_view title, const std::string& text, int width) {
  Lines wrapped = wrapWords(text, width, titleSize, titleSize);
  wrapped.front() = inked(Ink::bold, fmt::format("{:<{}}", title, titleSize)) + wrapped.front();
  lines.insert(lines.end(), wrapped.begin(), wrapped.end());
}

std::string describeVerdict(const std::vector<Finding>& findings, const Facts& board) {
  const auto troubles = static_cast<std::uint64_t>(
      std::count_if(findings.begin(), findings.end(), [](const Finding& one) { return one.grade == Grade::trouble; }));
  if (troubles > 0) return inked(Ink::red, fmt::format("not well: {}", count(troubles, "trouble")));
  if (worst(findings) == Grade::unknown) return inked(Ink::yellow, "unknown");
  return inked(Ink::green, board.blind ? "well, as far as this user can see" : "well");
}

void addFindings(Lines& lines, const std::vector<Finding>& findings, int width) {
  for (const Finding& one : findings) {
    const bool note = one.grade == Grade::note;
    Lines text = wrapWords(one.text, width, 2, 2);
    text.front() = inked(note ? Ink::yellow : Ink::red, note ? "-" : "!") + " " + text.front();
    lines.insert(lines.end(), text.begin(), text.end());
    text = wrapWords(one.step, width, 5, 5);
    text.front() = "  " + inked(Ink::cyan, "->") + " " + text.front();
    lines.insert(lines.end(), text.begin(), text.end());
  }
  if (!findings.empty()) lines.emplace_back();
}

std::string describeService(const HubFacts& hub) {
  if (!hub.nowhere.empty() || !hub.state.process) return "not seen";
  const std::string version = hub.version.empty() ? "" : ", version " + harmless(hub.version);
  if (!hub.seen) return fmt::format("process {}, of which no more is seen{}", hub.state.process->id, version);
  const auto since = std::time(nullptr) - static_cast<std::time_t>(hub.age);
  std::tm time = {};
  char text[32] = "";
  std::strftime(text, sizeof text, hub.age < yearly ? "%d %b %H:%M" : "%d %b %Y", localtime_r(&since, &time));
  return fmt::format("process {} since {}, {}, {}{}", hub.state.process->id, text, humanSize(hub.memory),
                     count(hub.threads, "thread"), version);
}

std::string describeDoing(const HubFacts& hub) {
  if (hub.state.command) {
    return fmt::format("runs a command, process {} ({}), for {}", hub.state.command->id,
                       harmless(hub.state.command->name), humanSpan(hub.commandAge));
  }
  switch (hub.state.doing) {
    case Doing::waiting: return "waits for requests";
    case Doing::working: return "is at work";
    case Doing::stopped: return "is stopped";
    default: return "not seen";
  }
}

std::string describeLog(const Facts& board) {
  const Place& place = board.logDirectory;
  if (!place.exists) return "no directory /media/data";
  return fmt::format("{} of at most 21 MiB, {} free{}", humanSize(board.logSize), humanSize(place.room),
                     place.mount ? "" : ", /media/data not mounted");
}

std::string describeReader(const QueueFacts& queue) {
  if (queue.waiting) return fmt::format("{} {} waits", queue.waiting->id, harmless(queue.waiting->name));
  return describeUser(queue.reader);
}

void addQueues(Lines& lines, const Facts& board) {
  lines.push_back(inked(Ink::bold, fmt::format("{:<{}}{:>5} {:>11} {:>7}  {:<24} {}", "queue", titleSize + 2, "msgs",
                                               "bytes", "newest", "drained by", "owner")));
  for (const QueueFacts& queue : board.queues) {
    const std::string name = fmt::format("{:<{}}", queue.queue->name, titleSize + 2);
    if (!queue.state) {
      lines.push_back(fmt::format("{}{:>5} {:>11}", name, "-", queue.hidden ? "hidden" : "missing"));
      continue;
    }
    const QueueState& state = *queue.state;
    const auto idle = std::difftime(std::time(nullptr), state.lastSend);
    const bool aged = state.messages > 0 && !clockSetSince(state.lastSend);
    lines.push_back(fmt::format("{}{:>5} {:>11} {:>7}  {:<24.24} {}", name, state.messages,
                                shortSize(state.bytes) + "/" + shortSize(state.capacity), aged ? humanSpan(idle) : "-",
                                describeReader(queue), harmless(userName(state.owner))));
    const std::string losses = describeLosses(board, queue);
    if (!losses.empty()) lines.push_back("  " + inked(Ink::yellow, "lost: " + losses));
  }
}

std::string withoutYear(LogTime time) { return logTime(time).erase(7, 5); }

std::string describeWatched(const ServiceFacts& one, bool hidden) {
  const std::string now = one.processes.empty()
                              ? hidden ? "not seen" : "not running"
                              : fmt::format("process {} for {}", fmt::join(one.processes, ", "), humanSpan(one.age));
  if (one.restarts.count == 0) return fmt::format("{}  {}", harmless(one.name), now);
  return fmt::format("{}  {}, restarted {}, last {}", harmless(one.name), now, count(one.restarts.count, "time"),
                     withoutYear(one.restarts.last[0]));
}

std::string describeSwitch(const Facts& board) {
  if (!board.log.unread.empty() || board.log.start == 0) return "unknown";
  return fmt::format("switched {}, and {}", board.log.clockstewardOff ? "off" : "on",
                     board.clockstewardRuns ? "runs"
                     : board.hidden         ? "is not seen"
                                            : "does not run");
}

Lines makeScreen(const Facts& board, const std::vector<Finding>& findings, int width) {
  Lines lines = {inked(Ink::bold, "HubKeeper is ") + describeVerdict(findings, board)};
  addFindings(lines, findings, width);
  add(lines, "service", describeService(board.hub), width);
  add(lines, "now", describeDoing(board.hub), width);
  add(lines, "log", describeLog(board), width);
  add(lines, "clock", "Clocksteward is " + describeSwitch(board), width);
  addQueues(lines, board);
  std::string_view title = "watched";
  for (const ServiceFacts& one : board.services) {
    add(lines, title, describeWatched(one, board.hidden), width);
    title = "";
  }
  title = "errors";
  for (const auto& [time, text] : board.log.errors) {
    const std::string line = harmless(fmt::format("{} {}", withoutYear(time), text));
    add(lines, title, width == 0 ? line : harmless(line.substr(0, static_cast<std::size_t>(std::max(width - 11, 20)))),
        0);
    title = "";
  }
  if (board.blind) {
    add(lines, "",
        fmt::format("{} sees all of \"service\", \"now\", who waits at a queue, {}and whether the log is open.",
                    isProcMounted() ? "Only root" : "Without /proc nobody", board.hidden ? "what is watched, " : ""),
        width);
  }
  return lines;
}

int showStatus(const Options& options) {
  std::vector<Finding> findings;
  if (options.json) {
    showAgain(options.watch, options.interval, [&] {
      const Facts board = lookAtBoard();
      findings = judgeBoard(board);
      printJson(boardJson(board, findings));
    });
  } else {
    showLines(options.watch, options.interval, [&](int width) {
      const Facts board = lookAtBoard();
      findings = judgeBoard(board);
      return makeScreen(board, findings, width);
    });
  }
  return worst(findings) == Grade::note ? 0 : 1;
}

}  // namespace

Action addStatus(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  app.add_flag("--watch", options->watch, "Show it again and again, until Ctrl-C");
  addNumber(app, "-i,--interval", options->interval, "SECONDS", 0.1, "Time between two looks (default 2)");
  app.add_flag("--json", options->json, "Print one JSON object a look");
  app.footer("Status 0 when all is well, 1 when it is not, or cannot be seen.");
  return [options] { return showStatus(*options); };
}
