#include "tracing/lines.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/wait.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "showing/json.h"
#include "showing/output.h"
#include "showing/terminal.h"
#include "showing/text.h"

namespace {

constexpr const char* kindNames[] = {"",       "in",      "bounce", "reply",    "forward",
                                     "opened", "command", "full",   "attached", "ended"};

std::string clockTime(std::int64_t time) {
  const auto seconds = static_cast<std::time_t>(time / 1'000'000'000);
  return fmt::format("{:%H:%M:%S}.{:06}", fmt::localtime(seconds), time % 1'000'000'000 / 1000);
}

std::string queueName(int key) {
  for (const Queue& queue : hubkeeper_queues) {
    if (queue.key == key) return queue.name;
  }
  return key == 0 ? "?" : std::to_string(key);
}

double seconds(std::uint64_t nanoseconds) { return static_cast<double>(nanoseconds) / 1e9; }

std::string describeStatus(int status) {
  return WIFSIGNALED(status) ? fmt::format("killed by signal {}", WTERMSIG(status))
                             : fmt::format("exit status {}", WEXITSTATUS(status));
}

// The text for the shell, up to the NUL that ends it.
std::string commandText(ByteView payload) {
  const std::string text(payload.begin(), payload.end());
  return harmless(std::string_view(text).substr(0, text.find('\0')));
}

std::string describeFull(const hubkeeper_capture& facts) {
  if (facts.lasted > 0) return fmt::format("no longer full, after {:.3f} s", seconds(facts.lasted));
  return fmt::format("stands full with {} of {} bytes: who sends without waiting is refused", facts.result,
                     facts.value);
}

std::string describeOpened(const Line& line) {
  const hubkeeper_capture& facts = line.event.facts;
  if (facts.result < 0) return fmt::format("cannot be opened: {}", whyLost(line));
  return fmt::format("id {}, owner {}", facts.result,
                     facts.value < 0 ? "unknown" : fmt::format("user {}", facts.value));
}

std::string describeCommand(const Line& line) {
  const std::string text = line.command.empty() ? "began before the trace" : commandText(line.command);
  return fmt::format("{}, after {:.3f} s: {}", describeStatus(line.event.facts.result),
                     seconds(line.event.facts.lasted), text);
}

}  // namespace

bool isInner(const Line& line) {
  return line.event.facts.kind == HUBKEEPER_CAPTURE_COMMAND && line.command.empty() && line.cause.has_value();
}

std::string LinePrinter::titles() { return fmt::format("{:<15}  {:<7}  {:<12}", "TIME", "WHAT", "QUEUE"); }

void LinePrinter::print(const Line& line) {
  const hubkeeper_capture& facts = line.event.facts;
  const bool answers = isMessage(line.event) && facts.kind != HUBKEEPER_CAPTURE_IN && line.packet != 0;
  const std::string time =
      answers ? fmt::format("{:>+12.3f} ms", static_cast<double>(line.after) / 1e6) : clockTime(line.event.time);
  if (!isMessage(line.event) || isFailedReceive(line)) return printNote(line, time);
  std::string columns = fmt::format("{:<15}  {:<7}  {:<12}", time, kindNames[facts.kind], queueName(facts.key));
  if (isLost(line)) columns += inked(Ink::red, fmt::format("  LOST ({})", whyLost(line)));
  printer.print(columns, line.piece);
}

// What is no message has a sentence instead of the columns behind the queue.
void LinePrinter::printNote(const Line& line, const std::string& time) {
  const hubkeeper_capture& facts = line.event.facts;
  const std::string status = describeStatus(facts.result);
  std::string text, queue = facts.key == 0 ? "" : queueName(facts.key);
  Ink ink = Ink::yellow;
  switch (facts.kind) {
    case HUBKEEPER_CAPTURE_IN: text = fmt::format("cannot receive: {}", whyLost(line)); break;
    case HUBKEEPER_CAPTURE_OPENED:
      text = describeOpened(line);
      ink = facts.result < 0 || (facts.value >= 0 && hubUser >= 0 && facts.value != hubUser) ? Ink::red : Ink::dim;
      if (ink == Ink::red && facts.result >= 0) text += ", not the hub's";
      break;
    case HUBKEEPER_CAPTURE_COMMAND: text = describeCommand(line), ink = Ink::dim; break;
    case HUBKEEPER_CAPTURE_FULL: text = describeFull(facts); break;
    case HUBKEEPER_CAPTURE_ATTACHED:
      text = fmt::format("process {}, user {}", facts.result, facts.value), ink = Ink::bold;
      hubUser = facts.value;
      break;
    default: text = status, ink = Ink::bold; break;
  }
  ::print("{}\n", inked(ink, fmt::format("{:<15}  {:<7}  {:<12}  {}", time, kindNames[facts.kind], queue, text)));
  flushOutput();
}

nlohmann::json lineJson(const Line& line) {
  const hubkeeper_capture& facts = line.event.facts;
  const bool message = isMessage(line.event) && !isFailedReceive(line);
  nlohmann::json json = message ? pieceJson(line.piece) : nlohmann::json::object();
  json.update(
      {{"what", kindNames[facts.kind]}, {"time", clockTime(line.event.time)}, {"nanoseconds", line.event.time}});
  if (facts.key != 0) json.update({{"queue", queueName(facts.key)}, {"key", facts.key}});
  if (line.packet != 0) json["packet"] = line.packet;
  if (line.packet != 0 && facts.kind != HUBKEEPER_CAPTURE_IN)
    json["milliseconds"] = static_cast<double>(line.after) / 1e6;
  if (message) json.update({{"mtype", facts.value}, {"lost", isLost(line)}});
  if (isLost(line) || isFailedReceive(line)) json["reason"] = whyLost(line);
  switch (facts.kind) {
    case HUBKEEPER_CAPTURE_OPENED: json.update({{"id", facts.result}, {"owner", facts.value}}); break;
    case HUBKEEPER_CAPTURE_COMMAND:
      json.update(
          {{"status", facts.result}, {"seconds", seconds(facts.lasted)}, {"command", commandText(line.command)}});
      break;
    case HUBKEEPER_CAPTURE_FULL:
      json.update({{"bytes", facts.result}, {"capacity", facts.value}, {"seconds", seconds(facts.lasted)}});
      break;
    case HUBKEEPER_CAPTURE_ATTACHED: json.update({{"process", facts.result}, {"user", facts.value}}); break;
    case HUBKEEPER_CAPTURE_ENDED: json["status"] = facts.result; break;
    default: break;
  }
  return json;
}
