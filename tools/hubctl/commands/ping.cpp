// Heartbeat after heartbeat, each with a tag of its own: the bounce must come, and then the reply with that tag.
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "commands/arguments.h"
#include "commands/commands.h"
#include "session.h"
#include "showing/json.h"
#include "showing/terminal.h"
#include "showing/text.h"

namespace {

struct Options : SessionOptions {
  unsigned count = 0;
  double interval = 1;
};

int ping(const Options& options) {
  Session session(options);
  unsigned sent = 0, answered = 0, unbounced = 0;
  bool explained = false;
  double shortest = 0, longest = 0, sum = 0;
  while (interrupted == 0 && (options.count == 0 || sent < options.count)) {
    const Clock::time_point next = after(options.interval);
    ++sent;
    try {
      const auto reply =
          session.request(HUBKEEPER_OPCODE_HEARTBEAT, HUBKEEPER_OPCODE_HEARTBEAT_REPLY, {}, options.wait);
      const double time = reply.seconds * 1000;
      shortest = answered == 0 ? time : std::min(shortest, time);
      longest = std::max(longest, time);
      sum += time;
      ++answered;
      if (!reply.bounceSeconds) ++unbounced;
      if (!options.json) {
        fmt::print("{} bytes from HubKeeper: tag={:<5}  {}  time={:.3f} ms\n",
                   reply.payload.size() + HUBKEEPER_HEADER_SIZE, session.currentTag(),
                   reply.bounceSeconds ? fmt::format("bounce={:.3f} ms", *reply.bounceSeconds * 1000)
                                       : inked(Ink::red, "no bounce"),
                   time);
        std::fflush(stdout);
      }
    } catch (const Failure& silence) {
      if (interrupted != 0) {  // nothing was lost: nobody waited for this one
        --sent;
        break;
      }
      const std::string why = silence.what();  // in full for the first one only
      complain(fmt::format("tag {}: {}", session.currentTag(), explained ? why.substr(0, why.find('\n')) : why));
      explained = true;
    }
    if (sent != options.count) nap(std::chrono::duration<double>(next - Clock::now()).count());
  }
  const double average = answered == 0 ? 0 : sum / answered;
  if (options.json) {
    nlohmann::json json = {{"sent", sent}, {"answered", answered}, {"lost", sent - answered}, {"unbounced", unbounced}};
    if (answered > 0) json["milliseconds"] = {{"min", shortest}, {"avg", average}, {"max", longest}};
    printJson(json);
  } else {
    fmt::print("\n{}, {} answered, {} lost{}\n", count(sent, "heartbeat"), answered, sent - answered,
               unbounced > 0 ? fmt::format(", {} without a bounce", unbounced) : "");
    if (answered > 0) fmt::print("round trip min/avg/max = {:.3f}/{:.3f}/{:.3f} ms\n", shortest, average, longest);
  }
  return answered == sent && answered > 0 && unbounced == 0 ? 0 : 1;
}

}  // namespace

Action addPing(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  addNumber(app, "-c,--count", options->count, "N", 1, "Stop after N heartbeats; otherwise at Ctrl-C");
  addNumber(app, "-i,--interval", options->interval, "SECONDS", 0, "From one heartbeat to the next (default 1)");
  addSessionOptions(app, *options, "A heartbeat is lost after this long (default 5)");
  app.footer("Status 0 when every heartbeat was bounced and answered.");
  return [options] { return ping(*options); };
}
