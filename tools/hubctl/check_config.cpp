// Reads a service configuration exactly as the service does, and tells what would be watched and where the plain format
// sets traps.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>

#include "arguments.h"
#include "base/failure.h"
#include "commands.h"
#include "monitor/config_records.h"
#include "showing/json.h"
#include "showing/terminal.h"
#include "showing/text.h"

namespace {

struct Trap {
  std::size_t line;
  bool unwatched;  // because of it, a service is not watched
  std::string text;
};

struct Verdict {
  std::vector<std::string> watched;
  std::vector<Trap> traps;
  bool debug = false;
};

constexpr std::size_t longestEntry = 510;  // what the service reads of a command line

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  return first == std::string_view::npos ? "" : text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// Why a process can never match the entry; nothing when it can.
std::string neverMatches(const std::string& entry) {
  if (entry.empty()) return "the name is empty";
  if (entry.find('\r') != std::string::npos) return "the name ends in a carriage return";
  if (entry.front() == ' ' || entry.front() == '\t') return "the name begins with a blank";
  if (entry.back() == ' ' || entry.back() == '\t') return "the name ends in a blank";
  if (entry.find_first_of(" \t") != std::string::npos) return "an entry with arguments matches no process";
  if (entry.size() > longestEntry) return fmt::format("the name is longer than {} characters", longestEntry);
  return "";
}

// A record whose key is neither "service" nor "debug", as a sentence; `meant` is the last line of the key.
Trap explainUnknown(const std::string& key, std::size_t line) {
  const std::size_t lastLine = key.rfind('\n');
  const std::string_view meant =
      lastLine == std::string::npos ? std::string_view(key) : std::string_view(key).substr(lastLine + 1);
  std::string lower(trimmed(meant));
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const bool isService = lower == "service";
  const bool known = isService || lower == "debug";
  std::string why = fmt::format("the key \"{}\" is not known", printable(meant));
  if (lastLine != std::string::npos && known) {
    const std::string_view swallowed = trimmed(std::string_view(key).substr(0, lastLine));
    why = fmt::format("{} swallows this record, whose key is then not \"{}\"",
                      swallowed.empty()                            ? "the empty line above"
                      : swallowed[0] == '#' || swallowed[0] == ';' ? "the comment above"
                                                                   : "the text without \"=\" above",
                      lower);
  } else if (known && meant != trimmed(meant)) {
    why = fmt::format("a blank or carriage return beside \"{}\" belongs to the key", lower);
  } else if (known) {
    why = fmt::format("\"{}\" must be written in small letters", printable(meant));
  }
  return {line, isService, why};
}

Verdict judge(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(file), {}};
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> records(std::fopen(path.c_str(), "re"), std::fclose);
  if (!file || !records) throw Failure(fmt::format("cannot open {}: {}", path, std::strerror(errno)));

  Verdict verdict;
  std::string key, value;
  std::size_t offset = 0;
  const auto lineAt = [&](std::size_t place) {
    return 1 + static_cast<std::size_t>(
                   std::count(content.begin(), content.begin() + static_cast<std::ptrdiff_t>(place), '\n'));
  };
  while (readRecord(records.get(), key, value)) {
    const bool tail = offset + key.size() >= content.size();  // text without "=", which repeats the last value
    const std::size_t line = lineAt(tail ? offset : offset + key.size());
    const auto trap = [&](bool unwatched, std::string text) {
      verdict.traps.push_back({line, unwatched, std::move(text)});
    };
    offset += key.size() + 1 + value.size() + 1;
    if (tail && key != "service" && key != "debug") {
      trap(false, trimmed(key).empty() ? "the empty line at the end is logged as an unknown key"
                                       : "text without \"=\" at the end is logged as an unknown key");
    } else if (tail) {
      trap(false, fmt::format("\"{}\" without \"=\" repeats the value \"{}\"", key, printable(value)));
    }
    if (key == "debug") {
      verdict.debug = value == "true";
      if (value != "true" && value != "false") {
        trap(false, fmt::format("\"{}\" is not \"true\", so debug is off", printable(value)));
      }
    } else if (key == "service") {
      const std::string why = neverMatches(value);
      if (!why.empty()) {
        trap(true, fmt::format("\"{}\" is started anew in every cycle: {}", printable(value), why));
        continue;
      }
      if (std::count(verdict.watched.begin(), verdict.watched.end(), value) > 0) {
        trap(false, fmt::format("\"{}\" stands here twice: when it dies, two copies may be started", printable(value)));
      }
      verdict.watched.push_back(value);
    } else if (!tail) {
      verdict.traps.push_back(explainUnknown(key, line));
    }
  }
  return verdict;
}

int check(const std::string& path, bool json) {
  const Verdict verdict = judge(path);
  const auto unwatched =
      std::count_if(verdict.traps.begin(), verdict.traps.end(), [](const Trap& trap) { return trap.unwatched; });
  if (json) {
    nlohmann::json traps = nlohmann::json::array();
    for (const Trap& trap : verdict.traps) {
      traps.push_back({{"line", trap.line}, {"unwatched", trap.unwatched}, {"text", trap.text}});
    }
    printJson({{"file", path}, {"debug", verdict.debug}, {"services", verdict.watched}, {"traps", traps}});
  } else {
    for (const std::string& service : verdict.watched) {
      fmt::print("{}  {}\n", verdict.debug ? inked(Ink::yellow, "not watched") : inked(Ink::green, "watched"), service);
    }
    for (const Trap& trap : verdict.traps) {
      fmt::print("{}  line {}: {}\n", trap.unwatched ? inked(Ink::red, "not watched") : inked(Ink::yellow, "trap"),
                 trap.line, trap.text);
    }
    if (verdict.debug) fmt::print("debug is on, so nothing is watched at all\n");
    if (!verdict.debug && verdict.watched.empty()) fmt::print("no service is watched\n");
  }
  return unwatched == 0 && !verdict.debug && !verdict.watched.empty() ? 0 : 1;
}

}  // namespace

Action addCheckConfig(CLI::App& app) {
  const auto path = std::make_shared<std::string>(serviceConfigPath);
  const auto json = std::make_shared<bool>(false);
  addArgument(app, "FILE", *path, fmt::format("The file (default {})", serviceConfigPath));
  app.add_flag("--json", *json, "Print the result as JSON");
  app.footer("Status 1 when a service in the file would not be watched, or none at all.");
  return [path, json] { return check(*path, *json); };
}
