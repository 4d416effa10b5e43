// hubctl: a console that plays Ridgelink. This file holds the table of subcommands, from which the help is printed, and
// turns what goes wrong into a sentence on stderr and an exit status: 0 done, 1 failed, 2 wrong usage.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "base/failure.h"
#include "base/signals.h"
#include "commands/commands.h"
#include "commands/complete.h"
#include "showing/output.h"
#include "showing/terminal.h"

namespace {

using Words = std::vector<std::string>;

struct Subcommand {
  const char* name;
  const char* summary;
  Action (*add)(CLI::App&);
  int failed = 1;  // the exit status when it fails
};

constexpr Subcommand subcommands[] = {
    {"ping", "Send heartbeats and time the replies", addPing},
    {"run", "Run a shell command on the board", addRun, 255},
    {"version", "Ask for the board's software version", addVersion},
    {"clocksteward", "Let Clocksteward run, or stop it and keep it stopped", addClocksteward},
    {"send", "Transfer a file to the board and verify it", addSend},
    {"get", "Fetch a file from the board and verify it", addGet},
    {"queues", "Show the queues; only looks", addQueues},
    {"peek", "Show what waits in a queue, without taking it", addPeek},
    {"peers", "Play the local processes: drain and print their queues", addPeers},
    {"trace", "Show what runs through the live hub; only looks", addTrace},
    {"raw", "Send any bytes as one Bundle and print what comes back", addRaw},
    {"packet", "Send Packets by opcode, tag and payload, as one Bundle", addPacket},
    {"status", "Tell whether the hub is well, and what to do; only looks", addStatus},
    {"metrics", "Print what status knows for Prometheus; only looks", addMetrics},
    {"log", "Show the service's log; only looks", addLog},
    {"explain", "Tell what a line of the log means, and what to do", addExplain},
    {"check-config", "Tell what a service configuration would watch", addCheckConfig},
};

constexpr const char* footer =
    "hubctl help SUBCOMMAND tells more.\nExit status: 0 done, 1 failed, 2 wrong usage; that of run is the command's, "
    "or 255.";

// Names the words that a prefix command takes, which CLI11 leaves out.
struct HelpFormatter : CLI::Formatter {
  std::string make_usage(const CLI::App* app, std::string name) const override {
    std::string usage = CLI::Formatter::make_usage(app, name);
    const std::string words = app->get_name() == "packet"    ? " OPCODE [--tag N] [--text T]..."
                              : app->get_name() == "explain" ? " [LINE]"
                                                             : " COMMAND...";
    if (app->get_prefix_command()) usage.insert(usage.find_last_not_of('\n') + 1, words);
    return usage;
  }
};

// Declares all that a command line may hold, and returns what each subcommand does.
std::map<std::string, Action> declare(CLI::App& app) {
  app.set_version_flag("--version", std::string("hubctl " HUBCTL_VERSION), "Print the version");
  app.set_help_flag("-h,--help", "Print this help");
  app.require_subcommand(1);
  app.formatter(std::make_shared<HelpFormatter>());
  app.get_formatter()->column_width(26);
  app.get_formatter()->label("REQUIRED", "");
  app.get_formatter()->label("Positionals", "Arguments");

  std::map<std::string, Action> actions;
  for (const Subcommand& row : subcommands) actions[row.name] = row.add(*app.add_subcommand(row.name, row.summary));
  // A subcommand copies what it finds in place when it is added, so these come last.
  app.formatter(std::make_shared<CLI::Formatter>());
  app.get_formatter()->column_width(16);
  app.footer(footer);
  return actions;
}

std::string chosen(const CLI::App& app) {
  return app.get_subcommands().empty() ? std::string() : app.get_subcommands().front()->get_name();
}

int refuse(const CLI::App& app, const std::string& why) {
  complain(fmt::format("{}\ntry: hubctl {}{}--help", why, chosen(app), chosen(app).empty() ? "" : " "));
  return 2;
}

const Subcommand* findSubcommand(const std::string& name) {
  for (const Subcommand& row : subcommands) {
    if (name == row.name) return &row;
  }
  return nullptr;
}

int failedStatus(const CLI::App& app) {
  const Subcommand* row = findSubcommand(chosen(app));
  return row == nullptr ? 1 : row->failed;
}

// The command line as CLI11 reads it: "help" asks the subcommand itself, options before a subcommand are its own, and the
// end of the options before a COMMAND is not the end of all.
Words arrange(Words words) {
  if (!words.empty() && words.front() == "complete") return words;  // for the shells, see packaging/completion
  if (!words.empty() && words.front() == "help") {
    words.erase(words.begin());
    if (!words.empty() && findSubcommand(words.front()) == nullptr && words.front() != "help") return words;
    words.resize(std::min<std::size_t>(1, words.size()));
    words.push_back("--help");
    return words;
  }
  const auto name = std::find_if(words.begin(), words.end(), [](const auto& word) { return findSubcommand(word); });
  if (name == words.end() || words.front() == "--version") return words;
  if (words.front().starts_with("-")) std::rotate(words.begin(), name, name + 1);
  const bool takesCommand = words.front() == "run" || words.front() == "packet" || words.front() == "explain";
  const auto end = std::find(words.begin(), words.end(), "--");
  if (takesCommand && end != words.end()) *end = endOfOptions;
  return words;
}

int refuseUnparsed(const CLI::App& app, const Words& words, const CLI::ParseError& error) {
  if (words.empty()) {
    writeError(app.help());
    return 2;
  }
  const bool unknown = chosen(app).empty() && !words.front().starts_with("-");
  return refuse(app, unknown ? fmt::format("there is no subcommand \"{}\"", words.front()) : error.what());
}

int printRequested(const CLI::App& app, const CLI::Success& request) {
  std::ostringstream text;
  app.exit(request, text, text);  // --help and --version
  write(text.str());
  return 0;
}

int runChosen(CLI::App& app, const Words& words) {
  try {
    const auto actions = declare(app);
    if (!words.empty() && words.front() == "complete")
      return printCompletions(app, Words(words.begin() + 1, words.end())), 0;
    try {
      app.parse(Words(words.rbegin(), words.rend()));
      return actions.at(chosen(app))();
    } catch (const CLI::Success& request) {
      return printRequested(app, request);
    }
  } catch (const CLI::ParseError& error) {
    return refuseUnparsed(app, words, error);
  } catch (const WrongUsage& error) {
    return refuse(app, error.what());
  } catch (const std::exception& error) {
    complain(error.what());
    return failedStatus(app);
  }
}

}  // namespace

int main(int argc, char** argv) {
  holdStandardStreams();
  catchSignals();
  CLI::App app("hubctl plays Ridgelink: it talks to HubKeeper through its message queues.", "hubctl");
  const int status = runChosen(app, arrange(Words(argv + 1, argv + argc)));
  if (closeOutput()) return status;
  if (status == 0) complain("cannot write all of the output");
  return status == 2 ? status : failedStatus(app);
}
