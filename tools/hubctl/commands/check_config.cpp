// Tells what a service configuration would watch, and where it has fallen into a trap.
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/failure.h"
#include "commands/arguments.h"
#include "commands/commands.h"
#include "looking/config.h"
#include "monitor/config_records.h"
#include "showing/json.h"
#include "showing/output.h"
#include "showing/terminal.h"
#include "showing/text.h"
#include "showing/wrapping.h"

namespace {

struct Options {
  std::string file = serviceConfigPath;
  bool elsewhere = false;
  bool json = false;
};

void printService(const Service& service, const std::string& label) {
  const std::string who =
      service.processes.empty() ? "" : fmt::format("  process {}", fmt::join(service.processes, ", "));
  print("{}  {}{}\n", label, harmless(service.name), inked(Ink::dim, who));
}

// A label, and a sentence that is wrapped behind it.
void tell(const std::string& label, const std::string& text, std::size_t labelSize) {
  std::string before = label + (label.empty() ? "" : "  ");
  for (const std::string& line : wrapWords(text, terminalWidth(), labelSize == 0 ? 0 : labelSize + 2, 2)) {
    print("{}{}\n", std::exchange(before, ""), line);
  }
}

void printVerdict(const Verdict& verdict) {
  const std::string watched = verdict.debug ? inked(Ink::yellow, "not watched") : inked(Ink::green, "watched");
  bool silent = false, blocks = false;
  for (const Service& service : verdict.watched) {
    printService(service, watched);
    silent = silent || service.processes.empty();
  }
  for (const Trap& trap : verdict.traps) {
    const std::string_view word = trap.blocks ? "blocks all" : trap.unwatched ? "not watched" : "trap";
    const std::string label = inked(trap.unwatched ? Ink::red : Ink::yellow, word);
    tell(label, fmt::format("line {}: {}", trap.line, trap.text), word.size());
    blocks = blocks || trap.blocks;
  }
  if (verdict.debug) return print("debug is on, so nothing is watched at all\n");
  if (verdict.watched.empty()) return print("no service is watched\n");
  if (blocks) tell("", "what is called watched is so only until HubKeeper waits", 0);
  if (silent)
    tell("", "a program that ends at once, or renames itself, is started anew in every cycle all the same", 0);
}

void printVerdictJson(const std::string& file, const Verdict& verdict) {
  nlohmann::json traps = nlohmann::json::array(), names = traps, processes = traps;
  for (const Service& service : verdict.watched) {
    names.push_back(service.name);
    processes.push_back(service.processes);
  }
  for (const Trap& trap : verdict.traps) {
    traps.push_back({{"line", trap.line}, {"unwatched", trap.unwatched}, {"blocks", trap.blocks}, {"text", trap.text}});
  }
  printJson(
      {{"file", file}, {"debug", verdict.debug}, {"services", names}, {"processes", processes}, {"traps", traps}});
}

int check(const Options& options) {
  if (options.file.empty()) throw WrongUsage("FILE has no name");
  const Verdict verdict = judgeConfig(readInput(options.file), !options.elsewhere);
  options.json ? printVerdictJson(options.file, verdict) : printVerdict(verdict);
  const bool all = std::none_of(verdict.traps.begin(), verdict.traps.end(), [](const Trap& t) { return t.unwatched; });
  return all && !verdict.debug && !verdict.watched.empty() ? 0 : 1;
}

}  // namespace

Action addCheckConfig(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  addArgument(app, "FILE", options->file, fmt::format("The file, or - (default {})", serviceConfigPath));
  app.add_flag("--elsewhere", options->elsewhere, "It is for another machine: do not look at programs and processes");
  app.add_flag("--json", options->json, "Print the result as JSON");
  app.footer("Status 1 when a service in the file would not be kept watched, or none at all.");
  return [options] { return check(*options); };
}
