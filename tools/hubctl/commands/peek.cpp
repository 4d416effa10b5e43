// What waits in a queue, decoded and left where it is.
#include <fmt/format.h>

#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>

#include "base/signals.h"
#include "commands/arguments.h"
#include "commands/commands.h"
#include "looking/copies.h"
#include "looking/processes.h"
#include "looking/queues.h"
#include "showing/json.h"
#include "showing/output.h"
#include "showing/piece_printer.h"
#include "showing/terminal.h"

namespace {

struct Options {
  std::string queue;
  unsigned most = 0;
  bool json = false;
};

// Calls `show` with the pieces of each message, oldest first, and returns how many messages there were.
template <class Show>
unsigned forEachMessage(const Queue& queue, unsigned most, Show show) {
  Copies copies(queue);
  unsigned shown = 0;
  for (; !stopWanted() && (most == 0 || shown < most); ++shown) {
    const auto text = copies.at(shown);
    if (!text) break;
    show(shown + 1, split(queue, *text));
  }
  return shown;
}

void peekJson(const Queue& queue, unsigned most) {
  nlohmann::json list = nlohmann::json::array();
  forEachMessage(queue, most, [&](unsigned, const std::vector<Piece>& message) {
    nlohmann::json pieces = nlohmann::json::array();
    for (const Piece& piece : message) pieces.push_back(pieceJson(piece));
    list.push_back(pieces);
  });
  printJson(list);
}

void peekTable(const Queue& queue, unsigned most) {
  PiecePrinter printer(fmt::format("{:>4}", "#"));
  const unsigned shown = forEachMessage(queue, most, [&](unsigned number, const std::vector<Piece>& message) {
    std::string column = std::to_string(number);
    for (const Piece& piece : message) {
      printer.print(fmt::format("{:>4}", column), piece);
      column.clear();  // the further Packets of one Bundle
    }
  });
  if (shown == 0) {
    print("queue {} ({} to {}) is empty\n", queue.key, queue.from, queue.to);
  } else if (const auto now = lookAt(queue); now && now->messages > shown) {
    print("{} more\n", now->messages - shown);
  }
}

// A copy is asked for by its place, and places move when somebody takes a message. The times are whole seconds.
void tellOfReader(const Queue& queue, const std::optional<QueueState>& before, std::time_t start) {
  const auto after = lookAt(queue);
  if (!before || before->messages == 0 || !after || after->lastReceive < start) return;
  const LastUser reader = lastUser(after->receiver, after->lastReceive);
  if (after->lastReceive == start && reader.user == User::gone) return;
  complain(fmt::format("process {} takes messages from this queue at this moment, so some may be missing here",
                       describeUser(reader)));
}

int peek(const Options& options) {
  const Queue& queue = findQueue(options.queue);
  const auto before = lookAt(queue);
  const std::time_t start = std::time(nullptr);
  options.json ? peekJson(queue, options.most) : peekTable(queue, options.most);
  tellOfReader(queue, before, start);
  return 0;
}

}  // namespace

Action addPeek(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  addArgument(app, "QUEUE", options->queue, "Its name or key, as \"hubctl queues\" shows them")->required();
  addNumber(app, "-n,--number", options->most, "N", 1, "Show the first N messages only");
  app.add_flag("--json", options->json, "Print one JSON array of messages");
  return [options] { return peek(*options); };
}
