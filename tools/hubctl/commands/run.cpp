// A shell command on the board. Its output goes to a temporary file there, so that the exit status and the size of the
// output come first in the reply, however long the output is, and a job left in the background holds nothing up.
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "board.h"
#include "commands/arguments.h"
#include "commands/commands.h"
#include "showing/json.h"
#include "showing/progress.h"
#include "showing/terminal.h"

namespace {

struct Options : SessionOptions {
  bool raw = false;
  bool all = false;
  double timeout = 0;
  std::string command;
};

struct Outcome {
  int status = 0;
  std::uint64_t size = 0;  // of the whole output
  std::string output;
  bool cut = false;
};

std::string fetch(Session& session, const std::string& file, std::uint64_t size, double wait) {
  std::string content;
  Progress progress(size);
  for (std::uint64_t piece = 0; content.size() < size; ++piece) {
    const std::string bytes = runScript(
        session, fmt::format("dd if={} bs={} skip={} count=1 2>/dev/null", file, HUBKEEPER_PAYLOAD_MAX, piece), wait);
    if (bytes.empty()) throw Failure("the output kept on the board has become shorter");
    content += bytes;
    progress.show(content.size());
  }
  content.resize(static_cast<std::size_t>(size));  // a job in the background may have gone on writing
  return content;
}

// The same, and removes the file from the board, whatever happens; a Ctrl-C ends the fetching, not the tidying up.
std::string fetchAndRemove(Session& session, const std::string& file, std::uint64_t size, double wait) {
  const auto remove = [&] {
    interrupted = 0;
    runScript(session, "rm -f " + file, wait);
  };
  std::string content;
  try {
    content = fetch(session, file, size, wait);
  } catch (const Failure&) {
    remove();
    throw;
  }
  remove();
  return content;
}

Outcome runWrapped(Session& session, const Options& options) {
  const std::string limit = options.timeout > 0 ? fmt::format("timeout {:g} ", options.timeout) : "";
  const std::string reply = runScript(
      session,
      fmt::format("t=$(mktemp /tmp/hubctl.XXXXXX) && {{ {}sh -c {} </dev/null >$t 2>&1; echo $? $(wc -c <$t) {}; }}",
                  limit, shellQuote(options.command), options.all ? "$t" : "; head -c 507 $t; rm -f $t"),
      options.wait);
  std::istringstream header(reply.substr(0, reply.find('\n')));
  Outcome outcome;
  std::string path;
  if (!(header >> outcome.status >> outcome.size) || (options.all && !(header >> path))) {
    throw Failure("the board could not prepare the command; it said\n" + reply);
  }
  outcome.output = reply.substr(std::min(reply.size(), reply.find('\n') + 1));
  if (options.all) outcome.output = fetchAndRemove(session, shellQuote(path), outcome.size, options.wait);
  outcome.cut = outcome.output.size() < outcome.size;
  return outcome;
}

int run(const Options& options) {
  Session session(options);
  Outcome outcome;
  const Clock::time_point start = Clock::now();
  if (options.raw) {
    outcome.output = runText(session, options.command, options.wait);
    outcome.size = outcome.output.size();
    outcome.cut = outcome.size == HUBKEEPER_PAYLOAD_MAX;
  } else {
    outcome = runWrapped(session, options);
  }
  if (options.json) {
    nlohmann::json json = {{"output", outcome.output}, {"cut", outcome.cut}};
    if (!options.raw) json.update({{"status", outcome.status}, {"bytes", outcome.size}});
    printJson(json);
    return outcome.status == 0 ? 0 : 1;
  }
  std::fwrite(outcome.output.data(), 1, outcome.output.size(), stdout);
  if (terminalWidth() > 0 && !outcome.output.empty() && outcome.output.back() != '\n') fmt::print("\n");
  if (options.raw) {
    if (outcome.cut) complain("507 bytes came back, all that a reply holds: the output may be cut");
    return 0;
  }
  if (outcome.cut) {
    complain(fmt::format("cut after {} of {} bytes; --all fetches the rest", outcome.output.size(), outcome.size));
  }
  const bool timedOut = options.timeout > 0 && outcome.status == 124;
  std::fflush(stdout);
  fmt::print(stderr, "{}\n",
             inked(outcome.status == 0 ? Ink::dim : Ink::red,
                   fmt::format("exit status {} after {:.3f} s{}", outcome.status, secondsSince(start),
                               timedOut ? ": stopped by the time-out" : ""),
                   STDERR_FILENO));
  return outcome.status == 0 ? 0 : 1;
}

}  // namespace

Action addRun(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  app.prefix_command();  // the words are taken as they are; as an argument, CLI11 would take the brackets off [a]
  app.add_flag("--all", options->all, "Fetch the whole output, not only one reply");
  addNumber(app, "--timeout", options->timeout, "SECONDS", 0.001, "Stop the command after this long");
  app.add_flag("--raw", options->raw, "Send the text as it is, and learn no exit status");
  const CLI::Option* wait = addSessionOptions(app, *options, "Wait this long for the reply (default 30)");
  app.footer(
      "COMMAND is one text or several words, as for ssh: hubctl run 'cd /tmp; ls | wc -l'\n"
      "It runs as HubKeeper's user, and HubKeeper does nothing else meanwhile.\n"
      "Status 0 when the command's was 0.");
  return [options, wait, words = &app] {
    options->command = fmt::format("{}", fmt::join(words->remaining(), " "));
    if (options->command.empty()) throw WrongUsage("COMMAND is required");
    if (options->command.front() == '-') throw WrongUsage(words->remaining().front() + " is no option of run");
    if (options->raw && (options->all || options->timeout > 0)) {
      throw WrongUsage("--raw sends the text untouched, so --all and --timeout cannot go with it");
    }
    if (wait->count() == 0) options->wait = options->timeout > 0 ? options->timeout + 5 : 30;
    return run(*options);
  };
}
