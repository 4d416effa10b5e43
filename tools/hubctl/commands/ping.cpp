// Heartbeat after heartbeat, each with a tag of its own: the bounce must come, and then the reply with that tag.
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "base/clock.h"
#include "base/failure.h"
#include "base/signals.h"
#include "commands/commands.h"
#include "commands/session_options.h"
#include "showing/json.h"
#include "showing/output.h"
#include "showing/terminal.h"
#include "showing/text.h"
#include "talking/requests.h"

namespace {

struct Options : TalkOptions {
  unsigned count = 0;
  double interval = 1;
};

// Round trips in milliseconds.
struct Tally {
  unsigned sent = 0, answered = 0, unbounced = 0;
  double shortest = 0, longest = 0, sum = 0;

  void add(const Reply& reply) {
    const double time = reply.seconds * 1000;
    shortest = answered == 0 ? time : std::min(shortest, time);
    longest = std::max(longest, time);
    sum += time;
    ++answered;
    if (!reply.bounceSeconds) ++unbounced;
  }
  unsigned lost() const { return sent - answered; }
  double average() const { return answered == 0 ? 0 : sum / answered; }
};

void printReply(std::uint16_t tag, const Reply& reply) {
  const std::string bounce =
      reply.bounceSeconds ? fmt::format("bounce={:.3f} ms", *reply.bounceSeconds * 1000) : inked(Ink::red, "no bounce");
  print("{} bytes from HubKeeper: tag={:<5}  {}  time={:.3f} ms\n", reply.payload.size() + HUBKEEPER_HEADER_SIZE, tag,
        bounce, reply.seconds * 1000);
  flushOutput();
}

void printTally(const Tally& tally) {
  print("\n{}, {} answered, {} lost{}\n", count(tally.sent, "heartbeat"), tally.answered, tally.lost(),
        tally.unbounced > 0 ? fmt::format(", {} without a bounce", tally.unbounced) : "");
  if (tally.answered == 0) return;
  print("round trip min/avg/max = {:.3f}/{:.3f}/{:.3f} ms\n", tally.shortest, tally.average(), tally.longest);
}

void printTallyJson(const Tally& tally) {
  nlohmann::json json = {
      {"sent", tally.sent}, {"answered", tally.answered}, {"lost", tally.lost()}, {"unbounced", tally.unbounced}};
  if (tally.answered > 0) {
    json["milliseconds"] = {{"min", tally.shortest}, {"avg", tally.average()}, {"max", tally.longest}};
  }
  printJson(json);
}

Tally sendHeartbeats(Session& session, const Options& options) {
  Tally tally;
  bool explained = false;
  while (!stopWanted() && (options.count == 0 || tally.sent < options.count)) {
    const Clock::time_point next = after(options.interval);
    ++tally.sent;
    std::optional<Reply> reply;
    try {
      reply = request(session, HUBKEEPER_OPCODE_HEARTBEAT, HUBKEEPER_OPCODE_HEARTBEAT_REPLY);
    } catch (const Failure& silence) {
      if (stopWanted()) {  // nothing was lost: nobody waited for this one
        --tally.sent;
        break;
      }
      const std::string why = silence.what();  // in full for the first one only
      complain(fmt::format("tag {}: {}", session.currentTag(), explained ? why.substr(0, why.find('\n')) : why));
      explained = true;
    }
    if (reply) tally.add(*reply);
    if (reply && !options.json) printReply(session.currentTag(), *reply);
    if (tally.sent != options.count) nap(-secondsSince(next));
  }
  return tally;
}

int ping(const Options& options) {
  Session session(options);
  const Tally tally = sendHeartbeats(session, options);
  options.json ? printTallyJson(tally) : printTally(tally);
  return tally.lost() == 0 && tally.answered > 0 && tally.unbounced == 0 ? 0 : 1;
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
