// What status knows, in the text format 0.0.4 of Prometheus, once or into a file that its node exporter collects.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "base/failure.h"
#include "commands/arguments.h"
#include "commands/commands.h"
#include "desk/verdict.h"
#include "showing/output.h"
#include "showing/text.h"

namespace {

struct Sample {
  std::string labels;  // with their braces
  double value;
};

std::string escaped(std::string_view text) {
  std::string value;
  for (const char c : harmless(text)) value += c == '"' || c == '\\' ? std::string{'\\', c} : std::string(1, c);
  return value;
}

std::string labelled(std::string_view name, std::string_view value) {
  return fmt::format("{{{}=\"{}\"}}", name, escaped(value));
}

// A family of samples; none of it where nothing is known.
void add(std::string& text, std::string_view name, std::string_view type, std::string_view help,
         const std::vector<Sample>& samples) {
  if (samples.empty()) return;
  text += fmt::format("# HELP hubkeeper_{} {}\n# TYPE hubkeeper_{} {}\n", name, help, name, type);
  for (const Sample& sample : samples) text += fmt::format("hubkeeper_{}{} {}\n", name, sample.labels, sample.value);
}

void addService(std::string& text, const Facts& board, const std::vector<Finding>& findings) {
  const HubFacts& hub = board.hub;
  std::vector<Sample> troubles;
  for (const Finding& one : findings) {
    if (one.grade != Grade::trouble) continue;
    troubles.push_back({fmt::format("{{name=\"{}\",subject=\"{}\"}}", one.name, escaped(one.subject)), 1});
  }
  add(text, "well", "gauge", "Whether hubctl status calls the board well; 0 too where that cannot be seen.",
      {{"", worst(findings) == Grade::note ? 1. : 0.}});
  add(text, "trouble", "gauge", "A trouble that hubctl status names.", troubles);
  const bool seen = hub.seen && hub.state.doing != Doing::doubtful;
  if (seen || (hub.nowhere.empty() && hub.state.doing == Doing::absent)) {
    add(text, "up", "gauge", "Whether the service runs and is not stopped; absent where that cannot be seen.",
        {{"", seen && hub.state.doing != Doing::stopped ? 1. : 0.}});
  }
  if (!seen) return;
  add(text, "busy", "gauge", "Whether it runs a command, and serves nothing else meanwhile.",
      {{"", hub.state.command ? 1. : 0.}});
  add(text, "command_seconds", "gauge", "For how long the command has run.", {{"", hub.commandAge}});
  add(text, "uptime_seconds", "gauge", "For how long the service has run.", {{"", hub.age}});
  add(text, "resident_memory_bytes", "gauge", "Its memory.", {{"", static_cast<double>(hub.memory)}});
}

void addQueues(std::string& text, const Facts& board) {
  std::vector<Sample> exist, messages, bytes, capacity, lost;
  const bool known = board.log.unread.empty() && board.log.start != 0;
  for (const QueueFacts& queue : board.queues) {
    const std::string labels = labelled("queue", queue.queue->name);
    if (!queue.hidden || queue.state) exist.push_back({labels, queue.state ? 1. : 0.});
    if (queue.state) {
      messages.push_back({labels, static_cast<double>(queue.state->messages)});
      bytes.push_back({labels, static_cast<double>(queue.state->bytes)});
      capacity.push_back({labels, static_cast<double>(queue.state->capacity)});
    }
    const auto found = board.log.losses.find(queue.queue->key);
    if (known && queue.queue->key != inbound.key)
      lost.push_back({labels, found == board.log.losses.end() ? 0. : static_cast<double>(found->second.lines)});
  }
  add(text, "queue_exists", "gauge", "Whether the queue exists.", exist);
  add(text, "queue_messages", "gauge", "Messages that wait.", messages);
  add(text, "queue_bytes", "gauge", "Bytes that wait.", bytes);
  add(text, "queue_capacity_bytes", "gauge", "Bytes that may wait.", capacity);
  add(text, "send_failures_total", "counter", "Failed sends that the log shows since the start; at least so many.",
      lost);
}

void addRest(std::string& text, const Facts& board) {
  const bool known = board.log.unread.empty() && board.log.start != 0;
  std::vector<Sample> running, restarts;
  for (const ServiceFacts& one : board.services) {
    const std::string labels = labelled("service", one.name);
    if (!one.processes.empty() || !board.hidden) running.push_back({labels, one.processes.empty() ? 0. : 1.});
    if (known) restarts.push_back({labels, static_cast<double>(one.restarts.count)});
  }
  add(text, "service_running", "gauge", "Whether a watched service runs.", running);
  add(text, "service_restarts_total", "counter", "How often it was found dead since the hub's start, as the log shows.",
      restarts);
  if (known) {
    add(text, "clocksteward_switched_on", "gauge", "Whether Clocksteward is switched on, as the log shows.",
        {{"", board.log.clockstewardOff ? 0. : 1.}});
  }
  const Place& place = board.logDirectory;
  add(text, "log_directory_exists", "gauge", "Whether there is a directory for the log.",
      {{"", place.exists ? 1. : 0.}});
  if (place.exists) {
    add(text, "log_free_bytes", "gauge", "Free space where the log is written.",
        {{"", static_cast<double>(place.room)}});
  }
}

std::string makeText() {
  const Facts board = lookAtBoard();
  std::string text;
  addService(text, board, judgeBoard(board));
  addQueues(text, board);
  addRest(text, board);
  return text;
}

[[noreturn]] void refuse(const std::string& path) {
  const int error = errno;
  throw Failure(fmt::format("cannot write {}: {}", path, std::strerror(error)));
}

// Beside it and renamed: who reads it sees the old one or the new one, and never a part.
void replaceFile(const std::string& path, const std::string& text) {
  const std::string beside = fmt::format("{}.hubctl-{}", path, getpid());
  const std::unique_ptr<FILE, int (*)(FILE*)> closing(std::fopen(beside.c_str(), "wxe"), &std::fclose);
  if (!closing) refuse(beside);
  const bool whole = std::fwrite(text.data(), 1, text.size(), closing.get()) == text.size() &&
                     std::fflush(closing.get()) == 0 && fchmod(fileno(closing.get()), 0644) == 0;
  if (whole && std::rename(beside.c_str(), path.c_str()) == 0) return;
  const int error = errno;
  unlink(beside.c_str());
  errno = error;
  refuse(path);
}

}  // namespace

Action addMetrics(CLI::App& app) {
  const auto file = std::make_shared<std::string>();
  addFile(app, "--write", *file, "Write them to this file, in one go, in place of standard output");
  return [file] {
    if (file->empty())
      write(makeText());
    else
      replaceFile(*file, makeText());
    return 0;
  };
}
