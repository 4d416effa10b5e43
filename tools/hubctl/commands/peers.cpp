// Plays the local processes on the bench: drains their queues and prints each Packet. A System V queue cannot be waited
// for together with others, so the queues are polled.
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "base/clock.h"
#include "base/failure.h"
#include "base/signals.h"
#include "commands/arguments.h"
#include "commands/commands.h"
#include "looking/queues.h"
#include "looking/readers.h"
#include "showing/json.h"
#include "showing/output.h"
#include "showing/piece_printer.h"
#include "showing/terminal.h"
#include "showing/text.h"
#include "talking/peer.h"

namespace {

struct Options {
  std::vector<std::string> names;
  unsigned most = 0;
  bool force = false;
  bool json = false;
};

bool isPeers(const Queue& queue) { return !(queue == inbound || queue == ridgelink); }

std::vector<Peer> choose(const std::vector<std::string>& names) {
  std::vector<Peer> chosen;
  for (const std::string& name : names) {
    const Queue& queue = *chosen.emplace_back(findQueue(name)).queue;
    if (isPeers(queue)) continue;
    throw WrongUsage(fmt::format("queue \"{}\" belongs to no local process; hubctl peek looks into it", queue.name));
  }
  for (const Queue& queue : hubkeeper_queues) {
    if (names.empty() && isPeers(queue)) chosen.emplace_back(queue);
  }
  return chosen;
}

void tellOfMissing(const std::vector<Peer>& peers) {
  for (const Peer& peer : peers) {
    if (lookAt(*peer.queue)) continue;
    complain(fmt::format("queue {} ({}) does not exist yet: HubKeeper makes it when it starts, or sends to it",
                         peer.queue->key, peer.queue->name));
  }
}

void printPieceJson(const Queue& queue, const Piece& piece) {
  nlohmann::json json = pieceJson(piece);
  json.update({{"time", timeOfDay()}, {"queue", queue.name}});
  printJson(json);
}

int play(const Options& options) {
  std::vector<Peer> peers = choose(options.names);
  for (const Peer& peer : peers) refuseBesideReader(*peer.queue, options.force);
  tellOfMissing(peers);
  PiecePrinter printer(fmt::format("{:<12}  {:<12}", "TIME", "QUEUE"));
  if (!options.json) printer.printTitles();
  unsigned taken = 0;
  const auto wanted = [&] { return !stopWanted() && (options.most == 0 || taken < options.most); };
  while (wanted()) {
    const unsigned before = taken;
    for (Peer& peer : peers) {
      const auto message = wanted() ? takeNext(peer) : std::nullopt;
      if (!message) continue;
      ++taken;
      for (const Piece& piece : split(*peer.queue, *message)) {
        options.json ? printPieceJson(*peer.queue, piece)
                     : printer.print(fmt::format("{}  {:<12}", timeOfDay(), peer.queue->name), piece);
      }
    }
    flushOutput();
    if (taken == before) nap(0.01);
  }
  return 0;
}

}  // namespace

Action addPeers(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  addArgument(app, "NAME", options->names, "Whose queue, as in \"hubctl queues\" (default all)");
  addNumber(app, "-n,--number", options->most, "N", 1, "Stop after N messages; otherwise at Ctrl-C");
  app.add_flag("--force", options->force, "Go ahead beside the real process");
  app.add_flag("--json", options->json, "Print each Packet as one JSON object");
  app.footer("For the bench: what is printed has been taken, and reaches no other process.");
  return [options] { return play(*options); };
}
