// The six queues as a table. It only looks, so it can be watched on a live board.
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "arguments.h"
#include "base/clock.h"
#include "base/signals.h"
#include "commands.h"
#include "queues.h"
#include "showing/json.h"
#include "showing/terminal.h"
#include "showing/text.h"

namespace {

struct Options {
  bool watch = false;
  bool json = false;
  double interval = 1;
};

constexpr int narrow = 92;  // columns; a smaller terminal goes without the bars
constexpr std::size_t barCells = 10;

double idleSeconds(const QueueState& state) {
  const std::time_t last = std::max(state.lastSend, state.lastReceive);
  return last == 0 ? -1 : std::difftime(std::time(nullptr), last);
}

// Why messages pile up, or nothing where they do not.
std::string trouble(const QueueState& state) {
  if (state.messages == 0) return "";
  if (state.receiver == 0) return "nobody drains it: no process has ever read from it";
  const auto reader = livingProcess(state.receiver);
  if (!reader) return fmt::format("nobody drains it: its last reader, process {}, is gone", state.receiver);
  const double waiting = std::difftime(std::time(nullptr), state.lastReceive);
  if (waiting < 3) return "";
  return fmt::format("not drained for {}: {} is busy or stuck", humanSpan(waiting), reader->name);
}

std::string fillBar(const QueueState& state) {
  const double share = state.capacity == 0 ? 0 : static_cast<double>(state.bytes) / static_cast<double>(state.capacity);
  const auto cells =
      static_cast<std::size_t>(std::min(share * barCells + (state.bytes > 0 ? 0.999 : 0), 1.0 * barCells));
  const Ink ink = share < 0.5 ? Ink::green : share < 0.9 ? Ink::yellow : Ink::red;
  return fmt::format("[{}{:.<{}}]", inked(ink, std::string(cells, '#')), "", barCells - cells);
}

void printTable(bool bars) {
  const auto row = [bars](auto name, auto key, auto messages, auto bytes, auto bar, auto sender, auto receiver,
                          auto idle) {
    return fmt::format("{:<12} {:>4} {:>5} {:>11}  {}{:<16} {:<16} {:>6}", name, key, messages, bytes,
                       bars ? fmt::format("{:<{}}  ", bar, barCells + 2) : "", sender, receiver, idle);
  };
  std::string notes;
  std::size_t missing = 0;
  fmt::print("{}\n",
             inked(Ink::bold, row("QUEUE", "KEY", "MSGS", "BYTES", "", "LAST SENDER", "LAST RECEIVER", "IDLE")));
  for (const Queue& queue : hubkeeper_queues) {
    const auto state = lookAt(queue);
    if (!state) {
      ++missing;
      fmt::print("{}\n", inked(Ink::dim, row(queue.name, queue.key, "-", "missing", "", "", "", "")));
      continue;
    }
    const double idle = idleSeconds(*state);
    const std::string why = trouble(*state);
    const std::string line =
        row(queue.name, queue.key, state->messages, shortSize(state->bytes) + "/" + shortSize(state->capacity),
            fillBar(*state), fmt::format("{:.16}", describeProcess(state->sender)),
            fmt::format("{:.16}", describeProcess(state->receiver)), idle < 0 ? "-" : humanSpan(idle));
    fmt::print("{}\n", line);
    if (!why.empty()) notes += fmt::format("{} {}\n", inked(Ink::red, fmt::format("! {}:", queue.name)), why);
  }
  if (missing == HUBKEEPER_QUEUE_COUNT) notes = "HubKeeper has never run here: it creates its queues when it starts\n";
  if (!notes.empty()) fmt::print("\n{}", notes);
}

void printList() {
  nlohmann::json list = nlohmann::json::array();
  const auto process = [](pid_t id) {
    const auto living = livingProcess(id);
    if (id == 0) return nlohmann::json();
    return nlohmann::json{{"pid", living ? living->id : id}, {"name", living ? living->name : ""}, {"alive", !!living}};
  };
  for (const Queue& queue : hubkeeper_queues) {
    nlohmann::json json = {{"name", queue.name}, {"key", queue.key}, {"from", queue.from}, {"to", queue.to}};
    const auto state = lookAt(queue);
    json["exists"] = state.has_value();
    if (state) {
      json.update({{"messages", state->messages},
                   {"bytes", state->bytes},
                   {"capacity", state->capacity},
                   {"sender", process(state->sender)},
                   {"receiver", process(state->receiver)},
                   {"trouble", trouble(*state)}});
      if (idleSeconds(*state) >= 0) json["idleSeconds"] = idleSeconds(*state);
    }
    list.push_back(json);
  }
  printJson(list);
}

int show(const Options& options) {
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
  return [options] { return show(*options); };
}
