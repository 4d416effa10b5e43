// The options that all subcommands which talk to HubKeeper have in common. A subcommand that only looks goes without this
// header.
#pragma once

#include <string>

#include "commands/arguments.h"
#include "talking/session.h"

struct TalkOptions : SessionOptions {
  bool json = false;
};

/// -w, --force and --json. `wait` tells what is waited for, and for how long.
inline CLI::Option* addSessionOptions(CLI::App& app, TalkOptions& options, const std::string& wait) {
  CLI::Option* option = addNumber(app, "-w,--wait", options.wait, "SECONDS", 0, wait);
  app.add_flag("--force", options.force, "Go ahead beside another reader of queue 1003");
  app.add_flag("--json", options.json, "Print the result as JSON");
  return option;
}
