// hubctl: a console that plays Ridgelink. This file holds the table of subcommands, from which the help is printed, and
// turns what goes wrong into a sentence on stderr and an exit status: 0 done, 1 failed, 2 wrong usage.
//
// Includes point one way through the rooms: base, on which all stand, showing, looking, talking, commands. Looking takes
// and sends nothing; a subcommand that includes nothing of talking cannot disturb a board.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "base/failure.h"
#include "base/signals.h"
#include "commands/commands.h"
#include "showing/terminal.h"

namespace {

struct Subcommand {
  const char* name;
  const char* summary;
  Action (*add)(CLI::App&);
};

constexpr Subcommand subcommands[] = {
    {"ping", "Send heartbeats and time the replies", addPing},
    {"run", "Run a shell command on the board", addRun},
    {"version", "Ask for the board's software version", addVersion},
    {"clocksteward", "Let Clocksteward run, or stop it and keep it stopped", addClocksteward},
    {"send", "Transfer a file to the board and verify it", addSend},
    {"queues", "Show the six queues; only looks", addQueues},
    {"peek", "Show what waits in a queue, without taking it", addPeek},
    {"peers", "Play the local processes: drain and print their queues", addPeers},
    {"raw", "Send any bytes as one Bundle and print what comes back", addRaw},
    {"check-config", "Tell what a service configuration would watch", addCheckConfig},
};

constexpr const char* footer = "hubctl SUBCOMMAND --help tells more.\nExit status: 0 done, 1 failed, 2 wrong usage.";

// Names the words that a prefix command takes, which CLI11 leaves out.
struct HelpFormatter : CLI::Formatter {
  std::string make_usage(const CLI::App* app, std::string name) const override {
    std::string usage = CLI::Formatter::make_usage(app, name);
    if (app->get_prefix_command()) usage.insert(usage.find_last_not_of('\n') + 1, " COMMAND...");
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

int refuseUnparsed(const CLI::App& app, int argc, char** argv, const CLI::ParseError& error) {
  if (argc == 1) {
    fmt::print(stderr, "{}", app.help());
    return 2;
  }
  const bool unknown = chosen(app).empty() && argv[1][0] != '-';
  return refuse(app, unknown ? fmt::format("there is no subcommand \"{}\"", argv[1]) : error.what());
}

int runChosen(int argc, char** argv) {
  CLI::App app("hubctl plays Ridgelink: it talks to HubKeeper through its message queues.", "hubctl");
  const auto actions = declare(app);
  try {
    app.parse(argc, argv);
    return actions.at(chosen(app))();
  } catch (const CLI::Success& request) {
    return app.exit(request);  // --help and --version
  } catch (const CLI::ParseError& error) {
    return refuseUnparsed(app, argc, argv, error);
  } catch (const WrongUsage& error) {
    return refuse(app, error.what());
  } catch (const std::exception& error) {
    complain(error.what());
    return 1;
  }
}

}  // namespace

int main(int argc, char** argv) {
  catchSignals();
  const int status = runChosen(argc, argv);
  if (std::fflush(stdout) == 0) return status;
  complain("cannot write to standard output");
  return 1;
}
