// The six queues as a table. It only looks, so it can be watched on a live board.
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "base/clock.h"
#include "base/signals.h"
#include "commands/arguments.h"
#include "commands/commands.h"
#include "looking/processes.h"
#include "looking/queues.h"
#include "showing/json.h"
#include "showing/terminal.h"
#include "showing/text.h"

namespace {

struct Options {
  bool watch = false;
  bool json = false;
  double interval = 1;
};

struct Columns {
  std::string name, key, messages, bytes, bar, sender, receiver, idle;
};

constexpr int narrow = 92;  // columns; a smaller terminal goes without the bars
constexpr std::size_t barCells = 10;

std::string lineOf(const Columns& columns, bool bars) {
  return fmt::format("{:<12} {:>4} {:>5} {:>11}  {}{:<16} {:<16} {:>6}", columns.name, columns.key, columns.messages,
                     columns.bytes, bars ? fmt::format("{:<{}}  ", columns.bar, barCells + 2) : "", columns.sender,
                     columns.receiver, columns.idle);
}

std::string fillBar(const QueueState& state) {
  const double share = state.capacity == 0 ? 0 : static_cast<double>(state.bytes) / static_cast<double>(state.capacity);
  const auto cells =
      static_cast<std::size_t>(std::min(share * barCells + (state.bytes > 0 ? 0.999 : 0), 1.0 * barCells));
  const Ink ink = share < 0.5 ? Ink::green : share < 0.9 ? Ink::yellow : Ink::red;
  return fmt::format("[{}{:.<{}}]", inked(ink, std::string(cells, '#')), "", barCells - cells);
}

Columns columnsOf(const Queue& queue, const QueueState& state) {
  const auto idle = idleSeconds(state);
  return {queue.name,
          std::to_string(queue.key),
          std::to_string(state.messages),
          shortSize(state.bytes) + "/" + shortSize(state.capacity),
          fillBar(state),
          fmt::format("{:.16}", describeProcess(state.sender)),
          fmt::format("{:.16}", describeProcess(state.receiver)),
          idle ? humanSpan(*idle) : "-"};
}

void printTable(bool bars) {
  const Columns titles = {"QUEUE", "KEY", "MSGS", "BYTES", "", "LAST SENDER", "LAST RECEIVER", "IDLE"};
  fmt::print("{}\n", inked(Ink::bold, lineOf(titles, bars)));
  std::string notes;
  std::size_t missing = 0;
  for (const Queue& queue : hubkeeper_queues) {
    const auto state = lookAt(queue);
    if (!state) {
      ++missing;
      const Columns columns = {queue.name, std::to_string(queue.key), "-", "missing", "", "", "", ""};
      fmt::print("{}\n", inked(Ink::dim, lineOf(columns, bars)));
      continue;
    }
    const std::string why = trouble(*state);
    if (!why.empty()) notes += fmt::format("{} {}\n", inked(Ink::red, fmt::format("! {}:", queue.name)), why);
    fmt::print("{}\n", lineOf(columnsOf(queue, *state), bars));
  }
  if (missing == HUBKEEPER_QUEUE_COUNT) notes = "HubKeeper has never run here: it creates its queues when it starts\n";
  if (!notes.empty()) fmt::print("\n{}", notes);
}

nlohmann::json processJson(pid_t id) {
  if (id == 0) return {};
  const auto living = livingProcess(id);
  return {{"pid", living ? living->id : id}, {"name", living ? living->name : ""}, {"alive", living.has_value()}};
}

nlohmann::json queueJson(const Queue& queue) {
  const auto state = lookAt(queue);
  nlohmann::json json = {
      {"name", queue.name}, {"key", queue.key}, {"from", queue.from}, {"to", queue.to}, {"exists", state.has_value()}};
  if (!state) return json;
  json.update({{"messages", state->messages},
               {"bytes", state->bytes},
               {"capacity", state->capacity},
               {"sender", processJson(state->sender)},
               {"receiver", processJson(state->receiver)},
               {"trouble", trouble(*state)}});
  if (const auto idle = idleSeconds(*state)) json["idleSeconds"] = *idle;
  return json;
}

void printList() {
  nlohmann::json list = nlohmann::json::array();
  for (const Queue& queue : hubkeeper_queues) list.push_back(queueJson(queue));
  printJson(list);
}

int showQueues(const Options& options) {
  const int width = terminalWidth();
  do {
    if (options.watch && width > 0 && !options.json) {
      fmt::print("\033[H\033[2J{}, every {:g} s; Ctrl-C ends\n\n", timeOfDay().substr(0, 8), options.interval);
    }
    options.json ? printList() : printTable(width == 0 || width >= narrow);
    std::fflush(stdout);
    if (options.watch) nap(options.interval);
    if (options.watch && width == 0 && !options.json) fmt::print("\n");
  } while (options.watch && interrupted == 0);
  return 0;
}

}  // namespace

Action addQueues(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  app.add_flag("--watch", options->watch, "Show them again and again, until Ctrl-C");
  addNumber(app, "-i,--interval", options->interval, "SECONDS", 0.1, "Time between two looks (default 1)");
  app.add_flag("--json", options->json, "Print one JSON array a look");
  return [options] { return showQueues(*options); };
}
