// The switch of Clocksteward.
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "commands/commands.h"
#include "commands/session_options.h"
#include "showing/json.h"
#include "showing/output.h"
#include "talking/requests.h"

namespace {

struct Options : TalkOptions {
  std::string state;
};

int switchClocksteward(const Options& options) {
  const bool on = options.state == "on";
  const std::uint8_t opcode = on ? HUBKEEPER_OPCODE_CLOCKSTEWARD_ENABLE : HUBKEEPER_OPCODE_CLOCKSTEWARD_DISABLE;
  Session session(options);
  sendPacket(session, opcode);
  awaitBounce(session, opcode);
  if (options.json) {
    printJson({{"clocksteward", options.state}});
  } else {
    print("Clocksteward is switched {}\n",
          on ? "on: HubKeeper restarts it when dead, if configured" : "off: HubKeeper stops it and leaves it dead");
  }
  return 0;
}

}  // namespace

Action addClocksteward(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  addArgument(app, "STATE", options->state, "on: restart it when dead; off: stop it, leave it dead")
      ->required()
      ->check(CLI::IsMember({"on", "off"}).description(""));
  addSessionOptions(app, *options, "Wait this long for the bounce (default 5)");
  app.footer(
      "Only the bounce tells that HubKeeper took the request. Its monitor restarts a\n"
      "dead Clocksteward within some seconds, if the configuration names it.");
  return [options] { return switchClocksteward(*options); };
}
