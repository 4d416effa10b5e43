#include "talking/remote_command.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "base/clock.h"
#include "base/failure.h"
#include "talking/board.h"

namespace {

constexpr int statusOfTimeout = 124;

// What runs the command and leaves timeout(1)'s own status in $o, 0 when it stopped nothing, and the command's in $s. The
// shell between them outlives SIGTERM, so that what ignores it is still watched, and killed a second later.
std::string running(const std::string& command, double timeout) {
  const std::string quoted = shellQuote(command);
  if (timeout <= 0) return fmt::format("sh -c {} </dev/null >$t 2>&1; s=$? o=0 n=0", quoted);
  const double whole = std::ceil(timeout);
  const std::string probe = whole == timeout ? "" : fmt::format("timeout 9.5 true 2>/dev/null || n={:.0f}; ", whole);
  return fmt::format(
      "n={:.12g} k='-k 1'; {}timeout $k 9 true 2>/dev/null || k='-s KILL'; "
      "s=$({{ timeout $k $n sh -c 'trap : TERM; sh -c \"$1\" </dev/null >\"$2\" 2>&1; echo $?' x {} $t; }} "
      "2>/dev/null); "
      "o=$?",
      timeout, probe, quoted);
}

// The first line of the reply: the statuses, the time-out and the size of the output. What was killed earlier than that was
// killed by somebody else.
void readHeader(const std::string& reply, Outcome& outcome) {
  constexpr const char* lost = "the board's shell was ended before it could tell how the command went";
  int tool = 0, status = -1;
  unsigned long long size = 0;
  if (reply.empty()) throw Failure(lost);
  if (std::sscanf(reply.c_str(), "%d %lf %llu %d", &tool, &outcome.timeout, &size, &status) < 3) {
    throw Failure("the board could not prepare the command; it said\n" + reply);
  }
  const bool ended = tool == 137 || tool == 143;  // timeout or its shell was killed, or terminated
  outcome.timedOut = tool == statusOfTimeout || (ended && outcome.seconds >= outcome.timeout);
  if (ended && !outcome.timedOut) throw Failure(lost);
  if (tool != 0 && !outcome.timedOut) {
    throw Failure(fmt::format("the board's timeout could not run the command: status {}{}", tool,
                              tool == 127 ? ", it has no such program" : ""));
  }
  if (!outcome.timedOut && (status < 0 || status > 255)) throw Failure(lost);
  outcome.status = outcome.timedOut ? statusOfTimeout : status;
  outcome.size = size;
}

}  // namespace

Outcome runCommand(Session& session, const std::string& command, double timeout, bool all) {
  const std::string kept = temporaryName();
  const std::string rest = all ? "" : fmt::format("; head -c {} $t; rm -r {}", roomForOutput, kept);
  const Clock::time_point start = Clock::now();
  Outcome outcome;
  bool ran = false;
  try {
    const std::string reply =
        runScript(session, fmt::format("t={0}/o; {1} && {{ {2}; kill -0 $PPID 2>/dev/null || {{ rm -rf {0}; exit; }}; "
                                       "echo $o $n $(wc -c <$t) $s{3}; }}",
                                       kept, makeDirectory(kept), running(command, timeout), rest));
    ran = true;
    outcome.seconds = secondsSince(start);
    readHeader(reply, outcome);
    outcome.output = reply.substr(std::min(reply.size(), reply.find('\n') + 1), outcome.size);
    const auto sink = [&](std::string_view piece) { outcome.output += piece; };
    if (all) fetchFromBoard(session, kept + "/o", outcome.size, sink);
  } catch (const std::exception&) {
    if (ran || !session.tookBack()) removeFromBoard(session, kept, ran);
    throw;
  }
  if (all) removeFromBoard(session, kept, true, true);
  outcome.cut = outcome.output.size() < outcome.size;
  return outcome;
}

Outcome runAsItIs(Session& session, const std::string& text) {
  Outcome outcome;
  outcome.output = runText(session, text);
  outcome.size = outcome.output.size();
  outcome.cut = outcome.size == HUBKEEPER_PAYLOAD_MAX;
  return outcome;
}
