#include "commands/complete.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <sstream>

#include "base/queues.h"
#include "showing/output.h"

namespace {

using Words = std::vector<std::string>;

constexpr const char* files = ":files";

const CLI::App* subcommandIn(const CLI::App& app, const std::string& word) {
  const auto found = app.get_subcommands([&word](const CLI::App* one) { return one->get_name() == word; });
  return found.empty() ? nullptr : found.front();
}

Words subcommandNames(const CLI::App& app) {
  Words lines;
  for (const CLI::App* one : app.get_subcommands([](const CLI::App*) { return true; })) {
    lines.push_back(fmt::format("{}\t{}", one->get_name(), one->get_description()));
  }
  return lines;
}

// Also those of each Packet, which stand in the text below the help alone.
Words optionsOf(const CLI::App& app) {
  Words lines;
  for (const CLI::Option* option : app.get_options([](const CLI::Option* one) { return one->nonpositional(); })) {
    for (const std::string& name : option->get_snames())
      lines.push_back(fmt::format("-{}\t{}", name, option->get_description()));
    for (const std::string& name : option->get_lnames())
      lines.push_back(fmt::format("--{}\t{}", name, option->get_description()));
  }
  std::istringstream footer(app.get_footer());
  for (std::string word; footer >> word;) {
    if (word.starts_with("--")) lines.push_back(word);
  }
  return lines;
}

// The option that this word is, if a value has to follow it.
const CLI::Option* optionWithValue(const CLI::App& app, const std::string& word) {
  const CLI::Option* option = word.starts_with("-") ? app.get_option_no_throw(word) : nullptr;
  return option != nullptr && option->get_items_expected_min() > 0 ? option : nullptr;
}

// What can be offered for a value or an argument that the help calls so.
Words valuesOf(const std::string& name) {
  static const std::map<std::string, Words> fixed = {{"FILE", {files}},
                                                     {"TARGET", {files}},
                                                     {"STATE", {"on", "off"}},
                                                     {"PRIORITY", {"FATAL", "ERROR", "WARN", "INFO"}}};
  Words lines;
  for (const Queue& queue : hubkeeper_queues) {
    const bool local = !(queue == inbound) && !(queue == ridgelink);
    if (name.starts_with("QUEUE") || (name == "NAME" && local)) lines.emplace_back(queue.name);
  }
  const auto found = fixed.find(name);
  return found == fixed.end() ? lines : found->second;
}

// The argument that comes behind these words.
std::string argumentAfter(const CLI::App& app, const Words& words) {
  if (app.get_prefix_command()) return app.get_name() == "run" ? "FILE" : "";
  const auto arguments = app.get_options([](const CLI::Option* one) { return one->get_positional(); });
  std::size_t taken = 0;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (!words[i].starts_with("-") && (i == 0 || optionWithValue(app, words[i - 1]) == nullptr)) ++taken;
  }
  if (!arguments.empty() && arguments.back()->get_expected_max() > 1) taken = std::min(taken, arguments.size() - 1);
  return taken < arguments.size() ? arguments[taken]->get_name(true) : "";
}

Words linesFor(const CLI::App& app, const Words& words, const std::string& begun) {
  if (words.empty() || words == Words{"help"}) {
    Words lines = begun.starts_with("-") ? optionsOf(app) : subcommandNames(app);
    if (words.empty() && !begun.starts_with("-")) lines.emplace_back("help\tTell more about a subcommand");
    return lines;
  }
  const auto name = std::find_if(words.begin(), words.end(), [&](const auto& word) { return subcommandIn(app, word); });
  if (name == words.end() || words.front() == "help") return {};
  const CLI::App& subcommand = *subcommandIn(app, *name);
  if (words.back() == "--file") return {files};
  if (const CLI::Option* option = optionWithValue(subcommand, words.back())) return valuesOf(option->get_type_name());
  const Words lines = valuesOf(argumentAfter(subcommand, Words(name + 1, words.end())));
  return begun.starts_with("-") || (lines.empty() && begun.empty()) ? optionsOf(subcommand) : lines;
}

}  // namespace

void printCompletions(const CLI::App& app, Words words) {
  // bash takes --option=value apart.
  words.erase(std::remove(words.begin(), words.end(), "="), words.end());
  const std::string begun = words.empty() ? "" : words.back();
  if (!words.empty()) words.pop_back();
  for (const std::string& line : linesFor(app, words, begun)) {
    if (line == files || line.starts_with(begun)) print("{}\n", line);
  }
}
