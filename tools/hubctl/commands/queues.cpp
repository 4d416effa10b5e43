// The queues as a table. It only looks, so it can be watched on a live board.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "base/clock.h"
#include "base/signals.h"
#include "commands/arguments.h"
#include "commands/commands.h"
#include "looking/hub.h"
#include "looking/processes.h"
#include "looking/queues.h"
#include "showing/json.h"
#include "showing/output.h"
#include "showing/terminal.h"
#include "showing/text.h"
#include "showing/watching.h"
#include "showing/wrapping.h"

namespace {

struct Options {
  bool watch = false;
  bool owners = false;
  bool json = false;
  double interval = 1;
};

// What the table shows beside its fixed columns.
struct Shape {
  bool bars = true;
  bool owners = false;
  bool changes = false;
  int users = 16;  // columns for each of the two processes
};

struct Columns {
  std::string name, key, messages, change, bytes, bar, sender, receiver, idle, owner;
};

constexpr int narrow = 92;    // columns; a smaller terminal goes without the bars
constexpr int narrower = 77;  // and on one that is smaller than that, the processes get less room
constexpr std::size_t barCells = 10;

std::string lineOf(const Columns& columns, const Shape& shape) {
  return fmt::format("{:<12} {:>4} {:>5} {}{:>11}  {}{:<{}.{}} {:<{}.{}} {:>6}{}", columns.name, columns.key,
                     columns.messages, shape.changes ? fmt::format("{:>7} ", columns.change) : "", columns.bytes,
                     shape.bars ? fmt::format("{:<{}}  ", columns.bar, barCells + 2) : "", columns.sender, shape.users,
                     shape.users, columns.receiver, shape.users, shape.users, columns.idle,
                     shape.owners ? "  " + columns.owner : "");
}

std::string fillBar(const QueueState& state) {
  const double share = state.capacity == 0 ? 0 : static_cast<double>(state.bytes) / static_cast<double>(state.capacity);
  const auto cells =
      static_cast<std::size_t>(std::min(share * barCells + (state.bytes > 0 ? 0.999 : 0), 1.0 * barCells));
  const Ink ink = share < 0.5 ? Ink::green : share < 0.9 ? Ink::yellow : Ink::red;
  return fmt::format("[{}{:.<{}}]", inked(ink, std::string(cells, '#')), "", barCells - cells);
}

// A sentence below the table, behind a mark in red.
void addNote(std::vector<std::string>& notes, const std::string& mark, const std::string& text, int width) {
  const std::size_t taken = mark.empty() ? 0 : mark.size() + 1;
  std::vector<std::string> lines = wrapWords(text, width, taken, 2);
  if (taken > 0) lines.front() = inked(Ink::red, mark) + " " + lines.front();
  notes.insert(notes.end(), lines.begin(), lines.end());
}

Columns columnsOf(const Queue& queue, const QueueState& state) {
  const auto idle = idleSeconds(state);
  return {queue.name,
          std::to_string(queue.key),
          std::to_string(state.messages),
          "",
          shortSize(state.bytes) + "/" + shortSize(state.capacity),
          fillBar(state),
          describeUser(lastUser(state.sender, state.lastSend)),
          describeUser(lastUser(state.receiver, state.lastReceive)),
          idle ? humanSpan(*idle) : "-",
          fmt::format("{:<10} {:04o} {:>6}", userName(state.owner), state.mode, state.handle)};
}

// The numbers of messages at the last look, for what they change by in a second: the kernel counts what waits, not what passes.
class Changes {
 public:
  std::string of(const Queue& queue, std::uint64_t messages) {
    const auto [seen, fresh] = before.try_emplace(queue.key, messages, Clock::now());
    const double span = secondsSince(seen->second.second);
    const double change = static_cast<double>(messages) - static_cast<double>(seen->second.first);
    seen->second = {messages, Clock::now()};
    if (fresh || span <= 0) return "";
    return change == 0 ? "0" : fmt::format("{:+.{}f}", change / span, std::abs(change / span) < 10 ? 1 : 0);
  }

 private:
  std::map<int, std::pair<std::uint64_t, Clock::time_point>> before;
};

// The lines of the table. Its notes are wrapped at `width`, unless that is 0.
std::vector<std::string> makeTable(const Shape& shape, int width, Changes& changes) {
  const Columns titles = {
      "QUEUE", "KEY",         "MSGS",          "CHG/S", "BYTES",
      "",      "LAST SENDER", "LAST RECEIVER", "IDLE",  fmt::format("{:<10} {} {:>6}", "OWNER", "MODE", "ID")};
  std::vector<std::string> lines = {inked(Ink::bold, lineOf(titles, shape))}, notes;
  std::size_t missing = 0;
  bool unseen = false;
  for (const Queue& queue : hubkeeper_queues) {
    const auto [state, hidden] = glanceAt(queue);
    if (!state) {
      missing += hidden ? 0 : 1;
      const std::string why = hidden ? "hidden" : "missing";
      const Columns columns = {queue.name, std::to_string(queue.key), "-", "", why, "", "", "", "", ""};
      lines.push_back(inked(Ink::dim, lineOf(columns, shape)));
      continue;
    }
    Columns columns = columnsOf(queue, *state);
    columns.change = changes.of(queue, state->messages);
    unseen = unseen || columns.sender == "unseen" || columns.receiver == "unseen";
    const std::string why = trouble(queue, *state);
    if (!why.empty()) addNote(notes, fmt::format("! {}:", queue.name), why, width);
    lines.push_back(lineOf(columns, shape));
  }
  if (missing == HUBKEEPER_QUEUE_COUNT) addNote(notes, "", whyMissing(), width);
  if (unseen)
    addNote(notes, "", "unseen: a process in another PID namespace, where its number means nothing here", width);
  if (!notes.empty()) lines.emplace_back();
  lines.insert(lines.end(), notes.begin(), notes.end());
  return lines;
}

nlohmann::json userJson(pid_t id, std::time_t when) {
  const LastUser last = lastUser(id, when);
  if (last.user == User::none || last.user == User::unseen) return {};
  return {{"pid", last.process ? last.process->id : id},
          {"name", last.process ? last.process->name : ""},
          {"alive", last.process.has_value()},
          {"doubtful", last.user == User::doubtful}};
}

nlohmann::json queueJson(const Queue& queue) {
  const auto [state, hidden] = glanceAt(queue);
  nlohmann::json json = {
      {"name", queue.name}, {"key", queue.key}, {"from", queue.from}, {"to", queue.to}, {"exists", state || hidden}};
  if (!state) return json;
  json.update({{"messages", state->messages},
               {"bytes", state->bytes},
               {"capacity", state->capacity},
               {"id", state->handle},
               {"owner", userName(state->owner)},
               {"mode", fmt::format("{:04o}", state->mode)},
               {"sender", userJson(state->sender, state->lastSend)},
               {"receiver", userJson(state->receiver, state->lastReceive)},
               {"trouble", trouble(queue, *state)}});
  if (const auto idle = idleSeconds(*state)) json["idleSeconds"] = *idle;
  return json;
}

void printList() {
  nlohmann::json list = nlohmann::json::array();
  for (const Queue& queue : hubkeeper_queues) list.push_back(queueJson(queue));
  printJson(list);
}

Shape shapeFor(const Options& options, int width) {
  const int more = (options.owners ? 24 : 0) + (options.watch ? 8 : 0);
  return {width == 0 || width >= narrow + more, options.owners, options.watch,
          width == 0 || width >= narrower + more ? 16 : 13};
}

int showQueues(const Options& options) {
  Changes changes;
  const auto lines = [&](int width) { return makeTable(shapeFor(options, width), width, changes); };
  if (options.json) return showAgain(options.watch, options.interval, printList), 0;
  return showLines(options.watch, options.interval, lines), 0;
}

}  // namespace

Action addQueues(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  app.add_flag("--watch", options->watch, "Show them again and again, until Ctrl-C");
  addNumber(app, "-i,--interval", options->interval, "SECONDS", 0.1, "Time between two looks (default 1)");
  app.add_flag("-l,--long", options->owners, "Add each queue's owner, mode and id");
  app.add_flag("--json", options->json, "Print one JSON array a look");
  return [options] { return showQueues(*options); };
}
