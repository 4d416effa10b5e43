// A shell command on the board, and what it printed.
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "base/clock.h"
#include "base/failure.h"
#include "commands/commands.h"
#include "commands/session_options.h"
#include "showing/json.h"
#include "showing/terminal.h"
#include "talking/remote_command.h"

namespace {

struct Options : TalkOptions {
  bool raw = false;
  bool all = false;
  double timeout = 0;
  std::string command;
};

void checkOptions(const Options& options, const std::vector<std::string>& words) {
  if (options.command.empty()) throw WrongUsage("COMMAND is required");
  if (options.command.front() == '-') throw WrongUsage(words.front() + " is no option of run");
  if (options.raw && (options.all || options.timeout > 0)) {
    throw WrongUsage("--raw sends the text untouched, so --all and --timeout cannot go with it");
  }
}

void printOutcomeJson(const Outcome& outcome) {
  nlohmann::json json = {{"output", outcome.output}, {"cut", outcome.cut}};
  if (outcome.status) json.update({{"status", *outcome.status}, {"bytes", outcome.size}});
  printJson(json);
}

void printOutput(const Outcome& outcome) {
  std::fwrite(outcome.output.data(), 1, outcome.output.size(), stdout);
  if (terminalWidth() > 0 && !outcome.output.empty() && outcome.output.back() != '\n') fmt::print("\n");
  std::fflush(stdout);
  if (!outcome.cut) return;
  complain(outcome.status
               ? fmt::format("cut after {} of {} bytes; --all fetches the rest", outcome.output.size(), outcome.size)
               : fmt::format("{} bytes came back, all that a reply holds: the output may be cut", outcome.size));
}

void tellStatus(int status, double seconds, bool limited) {
  const std::string text = fmt::format("exit status {} after {:.3f} s{}", status, seconds,
                                       limited && status == 124 ? ": stopped by the time-out" : "");
  fmt::print(stderr, "{}\n", inked(status == 0 ? Ink::dim : Ink::red, text, STDERR_FILENO));
}

int run(const Options& options) {
  Session session(options);
  const Clock::time_point start = Clock::now();
  const Outcome outcome = options.raw ? runAsItIs(session, options.command)
                                      : runCommand(session, options.command, options.timeout, options.all);
  if (options.json) {
    printOutcomeJson(outcome);
  } else {
    printOutput(outcome);
    if (outcome.status) tellStatus(*outcome.status, secondsSince(start), options.timeout > 0);
  }
  return outcome.status.value_or(0) == 0 ? 0 : 1;
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
  return [options, wait, subcommand = &app] {
    const std::vector<std::string> words = subcommand->remaining();
    options->command = fmt::format("{}", fmt::join(words, " "));
    checkOptions(*options, words);
    if (wait->count() == 0) options->wait = options->timeout > 0 ? options->timeout + 5 : 30;
    return run(*options);
  };
}
