// Tells what a service configuration would watch, and where it has fallen into a trap.
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "commands/arguments.h"
#include "commands/commands.h"
#include "looking/config.h"
#include "monitor/config_records.h"
#include "showing/json.h"
#include "showing/terminal.h"

namespace {

struct Options {
  std::string file = serviceConfigPath;
  bool json = false;
};

void printVerdict(const Verdict& verdict) {
  const std::string watched = verdict.debug ? inked(Ink::yellow, "not watched") : inked(Ink::green, "watched");
  for (const std::string& service : verdict.watched) fmt::print("{}  {}\n", watched, service);
  for (const Trap& trap : verdict.traps) {
    const std::string label = trap.unwatched ? inked(Ink::red, "not watched") : inked(Ink::yellow, "trap");
    fmt::print("{}  line {}: {}\n", label, trap.line, trap.text);
  }
  if (verdict.debug) fmt::print("debug is on, so nothing is watched at all\n");
  if (!verdict.debug && verdict.watched.empty()) fmt::print("no service is watched\n");
}

void printVerdictJson(const std::string& file, const Verdict& verdict) {
  nlohmann::json traps = nlohmann::json::array();
  for (const Trap& trap : verdict.traps) {
    traps.push_back({{"line", trap.line}, {"unwatched", trap.unwatched}, {"text", trap.text}});
  }
  printJson({{"file", file}, {"debug", verdict.debug}, {"services", verdict.watched}, {"traps", traps}});
}

int check(const Options& options) {
  const Verdict verdict = judgeConfig(options.file);
  options.json ? printVerdictJson(options.file, verdict) : printVerdict(verdict);
  const bool all = std::none_of(verdict.traps.begin(), verdict.traps.end(), [](const Trap& t) { return t.unwatched; });
  return all && !verdict.debug && !verdict.watched.empty() ? 0 : 1;
}

}  // namespace

Action addCheckConfig(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  addArgument(app, "FILE", options->file, fmt::format("The file (default {})", serviceConfigPath));
  app.add_flag("--json", options->json, "Print the result as JSON");
  app.footer("Status 1 when a service in the file would not be watched, or none at all.");
  return [options] { return check(*options); };
}
