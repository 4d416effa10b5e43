// What waits in a queue, without taking it (MSG_COPY, see msgop(2)).
#include <fmt/format.h>

#include <sys/msg.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>

#include "arguments.h"
#include "base/failure.h"
#include "base/signals.h"
#include "commands.h"
#include "queues.h"
#include "showing/json.h"
#include "showing/piece_printer.h"

namespace {

struct Options {
  std::string queue;
  unsigned most = 0;
  bool json = false;
};

// The copy is refused unless there is room for the longest message that the kernel allows.
std::size_t longestMessage() {
  std::size_t limit = 0;
  std::ifstream("/proc/sys/kernel/msgmax") >> limit;
  return std::max<std::size_t>(limit, 8192);
}

int peek(const Options& options) {
  const Queue& queue = findQueue(options.queue);
  const auto state = lookAt(queue);
  if (!state) throw Failure(fmt::format("queue {} ({}) does not exist", queue.key, queue.name));
  PiecePrinter printer(fmt::format("{:>4}", "#"));
  const std::size_t limit = longestMessage();
  std::vector<long> frame(1 + (limit + sizeof(long) - 1) / sizeof(long));  // the type, then the text
  nlohmann::json list = nlohmann::json::array();
  unsigned shown = 0;
  for (; interrupted == 0 && (options.most == 0 || shown < options.most); ++shown) {
    const ssize_t size = msgrcv(state->id, frame.data(), limit, shown, MSG_COPY | IPC_NOWAIT);
    const int error = errno;
    if (size == -1 && (error == ENOMSG || error == EIDRM)) break;
    if (size == -1 && (error == ENOSYS || (error == EINVAL && shown == 0))) {
      throw Failure(
          "this kernel cannot copy a message: it was built without CONFIG_CHECKPOINT_RESTORE\n"
          "hubctl queues still tells how many wait");
    }
    if (size == -1) throw Failure(fmt::format("cannot read queue {}: {}", queue.key, std::strerror(error)));
    nlohmann::json pieces = nlohmann::json::array();
    const ByteView text(reinterpret_cast<const std::uint8_t*>(&frame[1]), static_cast<std::size_t>(size));
    std::string number = std::to_string(shown + 1);
    for (const Piece& piece : split(queue, text)) {
      if (options.json) pieces.push_back(pieceJson(piece));
      if (!options.json) printer.print(fmt::format("{:>4}", number), piece);
      number.clear();  // the Packets of one Bundle
    }
    list.push_back(pieces);
  }
  if (options.json) {
    printJson(list);
  } else if (shown == 0) {
    fmt::print("queue {} ({} to {}) is empty\n", queue.key, queue.from, queue.to);
  } else if (const auto now = lookAt(queue); now && now->messages > shown) {
    fmt::print("{} more\n", now->messages - shown);
  }
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
