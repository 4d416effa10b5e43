#include "desk/log_facts.h"

#include <cmath>
#include <unordered_map>

#include "base/failure.h"
#include "desk/log_reader.h"

namespace {

constexpr double grain = 15;  // seconds from the start of a process to its first line, at most
constexpr std::size_t kept = 3;

enum class Role { none, start, lost, dead, off, on };

bool holds(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

Role judge(const LogKind& kind) {
  if (kind.text.starts_with("HubKeeper version:")) return Role::start;
  if (holds(kind.text, "has stopped running")) return Role::dead;
  if (kind.text == "Clocksteward application has been disabled") return Role::off;
  if (kind.text == "Clocksteward application has been enabled") return Role::on;
  if (kind.queue == nullptr) return Role::none;
  for (const char* failed : {"ailed sending", "Failed bouncing", "Send Heartbeat"}) {
    if (kind.priority == Priority::error && holds(kind.text, failed)) return Role::lost;
  }
  return Role::none;
}

Role roleOf(const LogKind* kind) {
  static const auto roles = [] {
    std::unordered_map<const LogKind*, Role> made;
    for (const LogKind& row : catalogue()) made[&row] = judge(row);
    return made;
  }();
  return kind == nullptr ? Role::none : roles.at(kind);
}

class Story {
 public:
  explicit Story(std::optional<std::time_t> processStart) : started(processStart) {}

  void take(const LogLine& line) {
    // Most lines of a busy board, and none of these tells anything here.
    if (line.priority == Priority::none || line.message.starts_with("RemoteCommand: ")) return;
    const LogKind* kind = find(line);
    const Role role = roleOf(kind);
    if (role == Role::start) return begin(line.time);
    if (role == Role::lost) {
      Losses& losses = facts.losses[kind->queue->key];
      if (++losses.lines == 1) losses.first = line.time;
      losses.last = line.time;
      // How many failed in silence, no line tells, and a version reply to Ridgelink is lost without any.
      losses.silent = losses.silent || *kind->queue == ridgelink || holds(kind->text, "last logged");
    }
    if (role == Role::off || role == Role::on) facts.clockstewardOff = role == Role::off;
    if (role == Role::dead) countRestart(*kind, line);
    if (line.priority <= Priority::error && kind != nullptr && !kind->noError && role != Role::lost) keepError(line);
  }

  LogFacts facts;

 private:
  // A log says the same again and again, and to look for a line among all kinds takes long.
  const LogKind* find(const LogLine& line) {
    if (known.size() >= 256 || line.message.size() > 200) known.clear();
    const auto [place, fresh] = known.try_emplace({line.priority, std::string(line.message)});
    if (fresh) place->second = kindOf(line);
    return place->second;
  }

  bool fits(LogTime time) const { return started && std::abs(std::difftime(clockTime(time), *started)) <= grain; }

  void begin(LogTime time) {
    if (fits(facts.start) && !fits(time)) return;
    std::deque<LogTime> starts = std::move(facts.starts);
    starts.push_back(time);
    if (starts.size() > kept) starts.pop_front();
    facts = {};
    facts.start = time;
    facts.starts = std::move(starts);
  }

  void countRestart(const LogKind& kind, const LogLine& line) {
    const auto values = match(kind, line.message);
    if (!values || values->empty()) return;
    Restarts& restarts = facts.restarts[std::string(values->front().second)];
    ++restarts.count;
    restarts.last = {line.time, restarts.last[0], restarts.last[1]};
  }

  void keepError(const LogLine& line) {
    facts.errors.emplace_back(line.time, std::string(line.message.substr(0, 200)));
    if (facts.errors.size() > kept) facts.errors.pop_front();
  }

  std::optional<std::time_t> started;
  std::map<std::pair<Priority, std::string>, const LogKind*> known;
};

}  // namespace

LogFacts readLogFacts(std::optional<std::time_t> processStart) {
  Story story(processStart);
  try {
    LogReader reader(serviceLogs(false), false);
    LogLine line;
    for (Got got = reader.next(line); got != Got::end; got = reader.next(line)) {
      if (got == Got::line) story.take(line);
    }
  } catch (const Failure& failure) {
    story.facts = {};
    story.facts.unread = failure.what();
  }
  return std::move(story.facts);
}
