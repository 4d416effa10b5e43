#include "talking/remote_command.h"

#include <fmt/format.h>

#include <algorithm>
#include <sstream>

#include "base/failure.h"
#include "base/signals.h"
#include "showing/progress.h"
#include "talking/board.h"

namespace {

std::string fetch(Session& session, const std::string& file, std::uint64_t size) {
  std::string content;
  Progress progress(size);
  for (std::uint64_t piece = 0; content.size() < size; ++piece) {
    const std::string bytes = runScript(
        session, fmt::format("dd if={} bs={} skip={} count=1 2>/dev/null", file, HUBKEEPER_PAYLOAD_MAX, piece));
    if (bytes.empty()) throw Failure("the output kept on the board has become shorter");
    content += bytes;
    progress.show(content.size());
  }
  content.resize(static_cast<std::size_t>(size));  // a job in the background may have gone on writing
  return content;
}

// The same, and removes the file from the board, whatever happens; a Ctrl-C ends the fetching, not the tidying up.
std::string fetchAndRemove(Session& session, const std::string& file, std::uint64_t size) {
  const auto remove = [&] {
    interrupted = 0;
    runScript(session, "rm -f " + file);
  };
  std::string content;
  try {
    content = fetch(session, file, size);
  } catch (const Failure&) {
    remove();
    throw;
  }
  remove();
  return content;
}

}  // namespace

Outcome runCommand(Session& session, const std::string& command, double timeout, bool all) {
  const std::string limit = timeout > 0 ? fmt::format("timeout {:g} ", timeout) : "";
  const std::string rest = all ? "$t" : fmt::format("; head -c {} $t; rm -f $t", HUBKEEPER_PAYLOAD_MAX);
  const std::string reply = runScript(
      session,
      fmt::format("t=$(mktemp /tmp/hubctl.XXXXXX) && {{ {}sh -c {} </dev/null >$t 2>&1; echo $? $(wc -c <$t) {}; }}",
                  limit, shellQuote(command), rest));
  std::istringstream header(reply.substr(0, reply.find('\n')));
  Outcome outcome;
  int status = 0;
  std::string path;
  if (!(header >> status >> outcome.size) || (all && !(header >> path))) {
    throw Failure("the board could not prepare the command; it said\n" + reply);
  }
  outcome.status = status;
  outcome.output = all ? fetchAndRemove(session, shellQuote(path), outcome.size)
                       : reply.substr(std::min(reply.size(), reply.find('\n') + 1));
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
