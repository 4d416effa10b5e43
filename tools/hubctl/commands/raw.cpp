// Any bytes as one Bundle, and whatever comes back for a while.
#include <fmt/format.h>

#include <memory>

#include "commands/bundle.h"
#include "commands/commands.h"

namespace {

struct Options : TalkOptions {
  std::vector<std::string> hex;
};

Bytes joinBytes(const std::vector<std::string>& words) {
  Bytes bundle;
  for (const std::string& word : words) {
    const Bytes bytes = parseHex(word == "-" ? readInput("-") : word);
    bundle.insert(bundle.end(), bytes.begin(), bytes.end());
  }
  return bundle;
}

}  // namespace

Action addRaw(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  options->wait = 2;
  addArgument(app, "HEX", options->hex, "The bytes: 05 00 07 00 04, or 0500070004; - for standard input")->required();
  addSessionOptions(app, *options, "Listen for this long (default 2)");
  app.footer(
      "A Packet is its length and a tag, low byte first, then opcode and payload;\n"
      "05 00 07 00 04 is a heartbeat with tag 7. Nothing checks the bytes.");
  return [options] { return sendAndShow(joinBytes(options->hex), *options); };
}
