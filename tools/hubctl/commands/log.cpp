// The service's log, read as tail(1) or grep(1) would do it, and with what its lines mean.
#include <fmt/format.h>
#include <regex.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "base/failure.h"
#include "commands/arguments.h"
#include "commands/commands.h"
#include "commands/meaning.h"
#include "desk/fold.h"
#include "desk/log_reader.h"
#include "desk/tally.h"
#include "showing/json.h"
#include "showing/output.h"
#include "showing/terminal.h"
#include "showing/text.h"
#include "showing/wrapping.h"

namespace {

struct Options {
  std::vector<std::string> files;
  std::optional<std::string> since, priority, pattern;
  bool follow = false, explain = false, summary = false, json = false;
};

// A log may hold anything, and what is shown here ends on some terminal.
void makeHarmless(std::string& text) {
  unsigned unusual = 0;  // in one go: nearly every line is plain
  for (const char c : text) unusual |= static_cast<unsigned>(static_cast<unsigned char>(c - ' ') > '~' - ' ');
  if (unusual != 0) text = harmless(text, "\n\t");
}

LogTime asLogTime(const std::tm& time) {
  const LogTime date = ((time.tm_year + 1900LL) * 100 + time.tm_mon + 1) * 100 + time.tm_mday;
  return ((date * 100 + time.tm_hour) * 100 + time.tm_min) * 100 + time.tm_sec;
}

// strptime(3) takes the 30th of February; mktime(3) makes another day of it.
bool isInCalendar(std::tm time) {
  const int day = time.tm_mday;
  time.tm_isdst = -1;
  return std::mktime(&time) != -1 && time.tm_mday == day;
}

LogTime readSince(const std::string& text) {
  const std::time_t now = std::time(nullptr);
  std::tm time = {};
  const std::size_t size = text.find_first_not_of("0123456789");
  const std::size_t unit = size == std::string::npos ? size : std::string_view("smhd").find(text[size]);
  if (unit != std::string::npos && size > 0 && size < 7 && size + 1 == text.size()) {
    static constexpr std::int64_t seconds[] = {1, 60, 3600, 86400};
    const auto then = static_cast<std::time_t>(std::max<std::int64_t>(0, now - std::stol(text) * seconds[unit]));
    return asLogTime(*localtime_r(&then, &time));
  }
  for (const char* format :
       {"%d %b %Y %H:%M:%S", "%d %b %Y %H:%M", "%d %b %Y", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M",
        "%Y-%m-%d %H:%M", "%Y-%m-%d", "%H:%M:%S", "%H:%M"}) {
    localtime_r(&now, &time);
    time.tm_hour = time.tm_min = time.tm_sec = 0;
    const char* end = strptime(text.c_str(), format, &time);
    if (end != nullptr && *end == '\0' && isInCalendar(time)) return asLogTime(time);
  }
  throw WrongUsage(
      fmt::format("\"{}\" is no time: \"22 Nov 2026 21:51:04\", 2026-11-22T21:51, 21:51 or 10m, say", text));
}

Priority readPriority(std::string name) {
  std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::toupper(c); });
  const auto priority = findPriority(name);
  if (!priority) throw WrongUsage(fmt::format("there is no priority \"{}\": FATAL, ERROR, WARN or INFO", name));
  return *priority;
}

// Which lines are wanted.
class Filter {
 public:
  explicit Filter(const Options& options) {
    if (options.since) since = readSince(*options.since);
    if (options.priority) least = readPriority(*options.priority);
    if (!options.pattern) return;
    regex = std::shared_ptr<regex_t>(new regex_t, [](regex_t* compiled) { regfree(compiled), delete compiled; });
    const int error = regcomp(regex.get(), options.pattern->c_str(), REG_EXTENDED | REG_NOSUB | REG_NEWLINE);
    if (error == 0) return;
    char why[200];
    regerror(error, regex.get(), why, sizeof why);
    *regex = {};
    throw WrongUsage(fmt::format("--grep {}: {}", *options.pattern, why));
  }

  // A line without a time counts as written with the one before it.
  bool wants(const LogLine& line) {
    if (line.time != 0) recent = line.time >= since;
    if (since != 0 && !recent) return false;
    const Priority priority = least < Priority::none && line.priority == Priority::none && kindOf(line) != nullptr
                                  ? Priority::perror
                                  : line.priority;
    if (priority > least) return false;
    if (!regex) return true;
    text = line.text;
    makeHarmless(text);
    return regexec(regex.get(), text.c_str(), 0, nullptr, 0) == 0;
  }

 private:
  LogTime since = 0;
  bool recent = false;
  Priority least = Priority::none;
  std::shared_ptr<regex_t> regex;
  std::string text;
};

std::string inkedLine(const LogLine& line, const std::string& text) {
  if (line.priority >= Priority::notice) return text;
  const LogKind* kind = kindOf(line);
  if (kind != nullptr && kind->noError) return inked(Ink::dim, text);
  return inked(line.priority <= Priority::error ? Ink::red : Ink::yellow, text);
}

// Lines as they stand, and what is known of them.
class Lines {
 public:
  explicit Lines(bool explain)
      : explains(explain),
        fold([this](const LogLine& line) { show(line); }, [this](const Fold::Rounds& rounds) { show(rounds); }) {}
  void take(const LogLine& line) { fold.take(line); }
  void flush() { fold.flush(); }

 private:
  void show(const LogLine& line) {
    text = line.text;
    makeHarmless(text);
    if (terminal) text = inkedLine(line, text);
    text += '\n';
    write(text);
    if (line.leftOut > 0) tell(fmt::format("{} more", count(line.leftOut, "byte")));
    const LogKind* kind = explains ? kindOf(line) : nullptr;
    if (kind != nullptr && explained.insert(kind).second) printMeaning(*kind, indent);
  }
  void show(const Fold::Rounds& rounds) {
    const std::string what = rounds.lines == 1 ? "this line" : fmt::format("these {} lines", rounds.lines);
    const std::string last = logTime(rounds.last);
    const bool sameDay = rounds.first / 1'000'000 == rounds.last / 1'000'000;
    const std::string when =
        rounds.first == 0 ? "" : fmt::format(", {} to {}", logTime(rounds.first), last.substr(sameDay ? 12 : 0));
    tell(fmt::format("{} {} times more{}", what, rounds.count, when));
  }
  static void tell(const std::string& text) { print("{:{}}{}\n", "", indent, inked(Ink::dim, text)); }

  static constexpr std::size_t indent = 6;
  bool explains;
  bool terminal = terminalWidth() > 0;
  std::string text;
  std::set<const LogKind*> explained;
  Fold fold;
};

nlohmann::json valuesOf(const LogLine& line, const LogKind& kind) {
  nlohmann::json json = nlohmann::json::object();
  for (const auto& [name, text] : match(kind, line.message).value_or(Values())) {
    const std::string value(text);
    if (isNumber(name)) {
      json[std::string(name)] = std::stoll(value, nullptr, name == "opcode" ? 16 : 10);
    } else {
      json[std::string(name)] = value;
    }
  }
  if (kind.queue != nullptr) json["queue"] = kind.queue->name;
  return json;
}

nlohmann::json orNull(std::string_view text) { return text.empty() ? nlohmann::json() : nlohmann::json(text); }

void printLineJson(const LogLine& line) {
  const LogKind* kind = kindOf(line);
  nlohmann::json json = {{"time", orNull(line.time == 0 ? "" : isoTime(line.time))},
                         {"priority", orNull(nameOf(kind == nullptr ? line.priority : kind->priority))},
                         {"message", line.message},
                         {"kind", orNull(kind == nullptr ? "" : kind->text)},
                         {"values", kind == nullptr ? nlohmann::json::object() : valuesOf(line, *kind)},
                         {"error", kind == nullptr ? line.priority <= Priority::error
                                                   : kind->priority <= Priority::error && !kind->noError}};
  if (line.leftOut > 0) json["leftOut"] = line.leftOut;
  printJson(json);
}

// The kind as its message looks, with the service's name in its place.
std::string headingOf(const Count& count) {
  if (count.kind == nullptr) return "not in the catalogue";
  std::string text = count.kind->text;
  const std::size_t place = text.find("<service>");
  if (place != std::string::npos && !count.service.empty()) text.replace(place, 9, harmless(count.service));
  return text;
}

void printSummary(const Tally& tally, bool explain) {
  const auto line = [](auto lines, auto priority, auto first, auto last) {
    return fmt::format("{:>7}  {:<8}  {:<15}  {:<15}  ", lines, priority, first, last);
  };
  // The year would leave no room for the kind.
  const auto shortTime = [](LogTime time) {
    const std::string whole = time == 0 ? "" : logTime(time);
    return whole.empty() ? "-" : whole.substr(0, 6) + whole.substr(11);
  };
  print("{}\n", inked(Ink::bold, line("LINES", "PRIORITY", "FIRST", "LAST") + "KIND"));
  for (const Count& count : tally.counts()) {
    const std::string start = line(count.lines, nameOf(count.priority), shortTime(count.first), shortTime(count.last));
    const Ink ink = count.kind != nullptr && count.kind->noError ? Ink::dim
                    : count.priority <= Priority::error          ? Ink::red
                                                                 : Ink::yellow;
    const auto rest = wrapWords(headingOf(count), terminalWidth(), start.size(), start.size());
    const std::string text = fmt::format("{}{}", start, fmt::join(rest, "\n"));
    print("{}\n", count.priority < Priority::notice ? inked(ink, text) : text);
    if (explain && count.kind != nullptr) printMeaning(*count.kind, 9);
  }
}

void printSummaryJson(const Tally& tally) {
  for (const Count& count : tally.counts()) {
    printJson({{"lines", count.lines},
               {"priority", orNull(nameOf(count.priority))},
               {"kind", orNull(count.kind == nullptr ? "" : count.kind->text)},
               {"service", orNull(count.service)},
               {"first", orNull(count.first == 0 ? "" : isoTime(count.first))},
               {"last", orNull(count.last == 0 ? "" : isoTime(count.last))}});
  }
}

// Calls `take` with each line that is wanted, and `pause` whenever no more are there for a while.
template <class Take, class Pause>
void readLog(const Options& options, Take take, Pause pause) {
  Filter filter(options);
  LogReader reader(options.files.empty() ? serviceLogs(options.follow) : options.files, options.follow);
  LogLine line;
  for (Got got = Got::pause; got != Got::end;) {
    got = reader.next(line);
    if (got == Got::line && filter.wants(line)) take(line);
    if (got == Got::line) continue;
    pause();
    flushOutput();
  }
}

int showLog(const Options& options) {
  if (options.json && options.explain) throw WrongUsage("--explain is for people; --json names the kind of each line");
  if (options.summary) {
    Tally tally;
    readLog(
        options, [&tally](const LogLine& line) { tally.take(line); }, [] {});
    options.json ? printSummaryJson(tally) : printSummary(tally, options.explain);
  } else if (options.json) {
    readLog(options, printLineJson, [] {});
  } else {
    Lines lines(options.explain);
    readLog(
        options, [&lines](const LogLine& line) { lines.take(line); }, [&lines] { lines.flush(); });
  }
  return 0;
}

}  // namespace

Action addLog(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  addArgument(app, "FILE", options->files, "Logs, the oldest first, or - (default the service's)");
  app.add_flag("-f,--follow", options->follow, "Go on with what is logged from now on, until Ctrl-C");
  app.add_option("--since", options->since, "Only from this time on, or so long ago: 10m, 2h")->type_name("TIME");
  app.add_option("--priority", options->priority, "Only this one and the more urgent")->type_name("PRIORITY");
  app.add_option("--grep", options->pattern, "Only lines in which the expression is found")->type_name("REGEX");
  app.add_flag("--explain", options->explain, "Tell what each kind of line means, and what to do");
  app.add_flag("--summary", options->summary, "How many lines of each kind, the first and the last");
  app.add_flag("--json", options->json, "Print each line as one JSON object");
  app.footer("Only looks.");
  return [options] { return showLog(*options); };
}
