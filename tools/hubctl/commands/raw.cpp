// Any bytes as one Bundle, and whatever comes back for a while.
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "base/clock.h"
#include "commands/commands.h"
#include "commands/session_options.h"
#include "showing/json.h"
#include "showing/piece_printer.h"
#include "talking/requests.h"

namespace {

struct Options : TalkOptions {
  std::vector<std::string> hex;
};

Bytes joinBytes(const std::vector<std::string>& words) {
  Bytes bundle;
  for (const std::string& word : words) {
    const Bytes bytes = parseHex(word);
    bundle.insert(bundle.end(), bytes.begin(), bytes.end());
  }
  return bundle;
}

void printPieceJson(double milliseconds, const Piece& piece) {
  nlohmann::json json = pieceJson(piece);
  json["milliseconds"] = milliseconds;
  printJson(json);
}

int sendRaw(const Options& options) {
  const Bytes bundle = joinBytes(options.hex);
  Session session(options);
  PiecePrinter printer(fmt::format("{:>10}", "MS"));
  const Clock::time_point start = Clock::now();
  const Clock::time_point end = after(options.wait);
  session.put(bundle, end);
  bool answered = false;
  while (const auto message = session.take(end)) {
    answered = true;
    const double time = secondsSince(start) * 1000;
    const Piece piece = split(ridgelink, *message).front();
    options.json ? printPieceJson(time, piece) : printer.print(fmt::format("{:>10.3f}", time), piece);
    std::fflush(stdout);
  }
  if (!answered) throw unanswered(session, options.wait);
  return 0;
}

}  // namespace

Action addRaw(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  options->wait = 2;
  addArgument(app, "HEX", options->hex, "The bytes: 05 00 07 00 04, or 0500070004")->required();
  addSessionOptions(app, *options, "Listen for this long (default 2)");
  app.footer(
      "A Packet is its length and a tag, low byte first, then opcode and payload;\n"
      "05 00 07 00 04 is a heartbeat with tag 7. Nothing checks the bytes.");
  return [options] { return sendRaw(*options); };
}
