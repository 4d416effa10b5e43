#include "desk/board_json.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

constexpr const char* gradeNames[] = {"note", "unknown", "trouble"};
constexpr const char* doingNames[] = {"absent", "waiting", "working", "stopped", "hidden", "elsewhere", "doubtful"};

json timeOrNull(LogTime time) { return time == 0 ? json() : json(isoTime(time)); }

json processJson(const std::optional<Process>& process) {
  return process ? json{{"pid", process->id}, {"name", process->name}} : json();
}

json serviceJson(const HubFacts& hub) {
  json service = {{"process", processJson(hub.state.process)},
                  {"doing", hub.nowhere.empty() ? doingNames[static_cast<int>(hub.state.doing)] : "elsewhere"},
                  {"command", processJson(hub.state.command)},
                  {"version", hub.version},
                  {"logOpen", hub.logOpen ? json(*hub.logOpen) : json()}};
  if (hub.seen) {
    service.update({{"seconds", hub.age}, {"memory", hub.memory}, {"threads", hub.threads}, {"user", hub.user}});
  }
  if (hub.state.command) service["commandSeconds"] = hub.commandAge;
  return service;
}

json queueJson(const Facts& board, const QueueFacts& queue) {
  json one = {{"name", queue.queue->name}, {"key", queue.queue->key}, {"exists", queue.state.has_value()}};
  if (!queue.state) return one;
  one.update({{"messages", queue.state->messages},
              {"bytes", queue.state->bytes},
              {"capacity", queue.state->capacity},
              {"owner", userName(queue.state->owner)},
              {"mode", fmt::format("{:04o}", queue.state->mode)},
              {"waiting", processJson(queue.waiting)},
              {"reader", processJson(queue.reader.process)},
              {"full", isFull(queue)},
              {"trouble", queue.trouble}});
  const auto found = board.log.losses.find(queue.queue->key);
  const Losses losses = found == board.log.losses.end() ? Losses() : found->second;
  one["lost"] = {{"atLeast", losses.lines},
                 {"silent", losses.silent},
                 {"first", timeOrNull(losses.first)},
                 {"last", timeOrNull(losses.last)}};
  return one;
}

json watchedJson(const Facts& board) {
  json watched = json::array();
  for (const ServiceFacts& one : board.services) {
    json service = {{"name", one.name},
                    {"processes", one.processes},
                    {"restarts", one.restarts.count},
                    {"lastRestart", timeOrNull(one.restarts.last[0])}};
    if (!one.processes.empty()) service["seconds"] = one.age;
    watched.push_back(std::move(service));
  }
  return watched;
}

json placeJson(const Place& place) {
  return {{"exists", place.exists}, {"mount", place.mount}, {"writable", place.exists && !place.readOnly},
          {"size", place.size},     {"free", place.room},   {"mode", fmt::format("{:04o}", place.mode)}};
}

json logJson(const Facts& board) {
  json errors = json::array();
  for (const auto& [time, text] : board.log.errors) errors.push_back({{"time", isoTime(time)}, {"message", text}});
  return {{"bytes", board.logSize},
          {"readable", board.log.unread.empty()},
          {"start", timeOrNull(board.log.start)},
          {"errors", errors}};
}

}  // namespace

const char* verdictOf(const std::vector<Finding>& findings) {
  static constexpr const char* words[] = {"well", "unknown", "not well"};
  return words[static_cast<int>(worst(findings))];
}

json boardJson(const Facts& board, const std::vector<Finding>& findings) {
  json queues = json::array(), found = queues;
  for (const QueueFacts& queue : board.queues) queues.push_back(queueJson(board, queue));
  for (const Finding& one : findings) {
    found.push_back({{"name", one.name},
                     {"grade", gradeNames[static_cast<int>(one.grade)]},
                     {"subject", one.subject},
                     {"text", one.text},
                     {"step", one.step}});
  }
  const bool known = board.log.unread.empty() && board.log.start != 0;
  return {{"verdict", verdictOf(findings)},
          {"findings", found},
          {"blind", board.blind},
          {"service", serviceJson(board.hub)},
          {"queues", queues},
          {"watched", watchedJson(board)},
          {"log", logJson(board)},
          {"clocksteward",
           {{"switchedOn", known ? json(!board.log.clockstewardOff) : json()},
            {"runs", board.clockstewardRuns || !board.hidden ? json(board.clockstewardRuns) : json()}}},
          {"board",
           {{"msgmax", board.longest},
            {"msgmnb", board.queueBytes},
            {"msgmni", board.queueTable},
            {"queues", board.queuesUsed},
            {"fwPrintenv", board.firmwareTool},
            {"pkill", board.pkill},
            {"logDirectory", placeJson(board.logDirectory)},
            {"tmp", placeJson(board.tmp)}}}};
}
