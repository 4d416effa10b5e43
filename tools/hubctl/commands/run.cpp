// A shell command on the board, and what it printed.
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "base/failure.h"
#include "commands/commands.h"
#include "commands/session_options.h"
#include "showing/json.h"
#include "showing/output.h"
#include "showing/terminal.h"
#include "showing/text.h"
#include "talking/remote_command.h"

namespace {

struct Options : TalkOptions {
  bool raw = false;
  bool all = false;
  double timeout = 0;
  std::string file;
  std::string command;
};

constexpr std::size_t longestCommand = 131071;  // bytes of one argument, see execve(2)

// The words of the command line, or what the file holds.
std::string chooseCommand(const std::string& file, std::vector<std::string> words) {
  const bool marked = !words.empty() && words.front() == endOfOptions;
  if (marked) words.erase(words.begin());
  std::replace(words.begin(), words.end(), std::string(endOfOptions), std::string("--"));
  if (!words.empty() && !file.empty())
    throw WrongUsage("the command comes from the file or from the words, not from both");
  const std::string command = file.empty() ? fmt::format("{}", fmt::join(words, " ")) : readInput(file);
  if (command.empty()) throw WrongUsage(file.empty() ? "COMMAND is required" : file + " is empty");
  if (command.size() > longestCommand) {
    throw WrongUsage(fmt::format("a command may have {} bytes, and this has {}; send it as a file, and run that",
                                 longestCommand, command.size()));
  }
  if (command.find('\0') != std::string::npos) throw WrongUsage("a command holds no NUL byte");
  if (file.empty() && !marked && command.front() == '-') throw WrongUsage(words.front() + " is no option of run");
  return command;
}

void checkOptions(const Options& options) {
  if (options.raw && (options.all || options.timeout > 0)) {
    throw WrongUsage("--raw sends the text untouched, so --all and --timeout cannot go with it");
  }
}

void printOutcomeJson(const Outcome& outcome) {
  nlohmann::json json = {{"output", outcome.output}, {"cut", outcome.cut}};
  if (!isUtf8(outcome.output)) json["base64"] = base64Of(outcome.output);
  if (outcome.status) {
    json.update({{"status", *outcome.status}, {"timedOut", outcome.timedOut}, {"bytes", outcome.size}});
  }
  printJson(json);
}

void printOutput(const Outcome& outcome, bool raw) {
  const bool terminal = terminalWidth() > 0;
  write(terminal && !raw ? harmless(outcome.output, "\n\t") : outcome.output);
  if (terminal && !outcome.output.empty() && outcome.output.back() != '\n') write("\n");
}

void tellCut(const Outcome& outcome) {
  if (!outcome.cut) return;
  complain(outcome.status
               ? fmt::format("cut after {} of {} bytes; --all fetches the rest", outcome.output.size(), outcome.size)
               : fmt::format("{} bytes came back, all that a reply holds: the output may be cut", outcome.size));
}

void tellStatus(const Outcome& outcome, double timeout) {
  if (outcome.timeout != timeout) {
    complain(fmt::format("the board's timeout(1) knows whole seconds only, so it was given {:g}", outcome.timeout));
  }
  const std::string text = fmt::format("exit status {} after {:.3f} s{}", *outcome.status, outcome.seconds,
                                       outcome.timedOut ? ": stopped by the time-out" : "");
  writeError(fmt::format("{}\n", inked(*outcome.status == 0 ? Ink::dim : Ink::red, text, STDERR_FILENO)));
}

int run(const Options& options) {
  Session session(options);
  const Outcome outcome = options.raw ? runAsItIs(session, options.command)
                                      : runCommand(session, options.command, options.timeout, options.all);
  options.json ? printOutcomeJson(outcome) : printOutput(outcome, options.raw);
  flushOutput();  // what cannot be printed is a failure of this tool, whatever the command's status
  if (!options.json) tellCut(outcome);
  if (!options.json && outcome.status) tellStatus(outcome, options.timeout);
  return outcome.status.value_or(0);
}

}  // namespace

Action addRun(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  app.prefix_command();  // the words are taken as they are; as an argument, CLI11 would take the brackets off [a]
  app.add_flag("--all", options->all, "Fetch the whole output, not only one reply");
  addNumber(app, "--timeout", options->timeout, "SECONDS", 0.001, "Stop the command after this long");
  addFile(app, "--file", options->file, "Take the command, a script of any length, from FILE; - is standard input");
  app.add_flag("--raw", options->raw, "Send the text as it is, learn no exit status, print bytes as they come");
  const CLI::Option* wait = addSessionOptions(app, *options, "Wait this long for the reply (default 30)");
  app.footer(
      "COMMAND is one text or several words, as for ssh: hubctl run 'cd /tmp; ls | wc -l'\n"
      "It runs as HubKeeper's user, and HubKeeper does nothing else meanwhile.\n"
      "The status is the command's, and 255 when there is none because something failed.");
  return [options, wait, subcommand = &app] {
    options->command = chooseCommand(options->file, subcommand->remaining());
    checkOptions(*options);
    if (wait->count() == 0) options->wait = options->timeout > 0 ? options->timeout + 5 : 30;
    return run(*options);
  };
}
