// The two small requests: the version report, and the switch of Clocksteward.
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "commands/arguments.h"
#include "commands/commands.h"
#include "session.h"
#include "showing/json.h"

Action addVersion(CLI::App& app) {
  const auto options = std::make_shared<SessionOptions>();
  addSessionOptions(app, *options, "Wait this long for the reply (default 5)");
  return [options] {
    Session session(*options);
    const auto reply = session.request(HUBKEEPER_OPCODE_VERSION, HUBKEEPER_OPCODE_VERSION_REPLY, {}, options->wait);
    const std::string text(reply.payload.begin(), reply.payload.end());
    if (options->json) {
      printJson({{"version", text}});
    } else {
      fmt::print("{}{}", text, text.empty() || text.back() == '\n' ? "" : "\n");
    }
    if (!text.empty()) return 0;
    throw Failure(
        "the board has no version to report: the reply is empty\n"
        "/etc/build-version, or else /etc/os-release, must hold 1 to 506 bytes");
  };
}

Action addClocksteward(CLI::App& app) {
  struct Options : SessionOptions {
    std::string state;
  };
  const auto options = std::make_shared<Options>();
  addArgument(app, "STATE", options->state, "on: restart it when dead; off: stop it, leave it dead")
      ->required()
      ->check(CLI::IsMember({"on", "off"}).description(""));
  addSessionOptions(app, *options, "Wait this long for the bounce (default 5)");
  app.footer(
      "Only the bounce tells that HubKeeper took the request. Its monitor restarts a\n"
      "dead Clocksteward within some seconds, if the configuration names it.");
  return [options] {
    const bool on = options->state == "on";
    const std::uint8_t opcode = on ? HUBKEEPER_OPCODE_CLOCKSTEWARD_ENABLE : HUBKEEPER_OPCODE_CLOCKSTEWARD_DISABLE;
    Session session(*options);
    session.put(makePacket(opcode, session.nextTag()), after(options->wait));
    session.awaitBounce(opcode, options->wait);
    if (options->json) {
      printJson({{"clocksteward", options->state}});
    } else {
      fmt::print("Clocksteward is switched {}\n",
                 on ? "on: HubKeeper restarts it when it is dead" : "off: HubKeeper stops it and leaves it dead");
    }
    return 0;
  };
}
