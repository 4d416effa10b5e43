#include "tracing/stats.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "showing/output.h"
#include "showing/terminal.h"
#include "showing/text.h"

namespace {

constexpr double stepsPerOctave = 32;

std::string span(double seconds) {
  if (seconds < 0.001) return fmt::format("{:.0f} us", seconds * 1e6);
  return seconds < 1 ? fmt::format("{:.2f} ms", seconds * 1e3) : fmt::format("{:.2f} s", seconds);
}

std::string nameOf(int key) {
  for (const Queue& queue : hubkeeper_queues) {
    if (queue.key == key) return fmt::format("{} {}", key, queue.name);
  }
  return key == 0 ? "?" : std::to_string(key);
}

std::string nameOf(const hubkeeper_opcode_range& row) {
  if (row.first == row.last) return fmt::format("{:02x} {}", row.first, row.name);
  if (row.first == 0 && row.last == 0xFF) return row.name;
  return fmt::format("{:02x}-{:02x} {}", row.first, row.last, row.name);
}

void printRow(const std::string& name, std::uint64_t messages, std::uint64_t bytes, std::uint64_t lost, double rate,
              const std::string& spans) {
  const std::string losses = fmt::format("{:>9}", lost);
  print("{:<27} {:>10} {:>10} {} {:>9.1f}{}\n", name, messages, humanSize(bytes),
        lost > 0 ? inked(Ink::red, losses) : losses, rate, spans);
}

void printTitles(const char* first, const char* second, const char* last) {
  const std::string titles =
      fmt::format("{:<27} {:>10} {:>10} {:>9} {:>9}{}", first, second, "BYTES", "LOST", "/S", last);
  print("{}\n", inked(Ink::bold, titles));
}

double seconds(std::int64_t nanoseconds) { return static_cast<double>(nanoseconds) / 1e9; }

}  // namespace

void Spans::add(std::int64_t nanoseconds) {
  const std::int64_t good = std::max<std::int64_t>(nanoseconds, 1);
  const auto step = static_cast<std::size_t>(std::log2(static_cast<double>(good)) * stepsPerOctave);
  ++counts[std::min(step, counts.size() - 1)];
  ++all;
  most = std::max(most, good);
}

double Spans::median() const {
  std::uint64_t below = 0;
  for (std::size_t step = 0; step < counts.size(); ++step) {
    below += counts[step];
    if (below == 0 || 2 * below < all) continue;
    return std::min(longest(), std::exp2((static_cast<double>(step) + 0.5) / stepsPerOctave) / 1e9);
  }
  return 0;
}

double Spans::longest() const { return static_cast<double>(most) / 1e9; }

void Stats::count(Row& row, const Line& line) {
  ++row.messages;
  row.bytes += line.piece.length;
  row.lost += isLost(line) ? 1 : 0;
}

void Stats::take(const Line& line) {
  latest = std::max(latest, line.event.time);
  if (began == 0) began = periodBegan = line.event.time;
  if (!isMessage(line.event) || isFailedReceive(line)) return;
  count(queues[line.event.facts.key], line);
  if (line.event.facts.kind == HUBKEEPER_CAPTURE_IN) return beginPacket(line);
  if (current == nullptr) return;
  current->lost += isLost(line) ? 1 : 0;
  lastSend = line.after;
}

void Stats::beginPacket(const Line& line) {
  closePacket();
  if (line.event.time != received) {  // the first Packet of its Bundle
    const std::int64_t since = std::max<std::int64_t>(line.event.time - received, 0);
    const std::uint64_t waited = std::min(line.event.facts.lasted, static_cast<std::uint64_t>(since));
    if (received != 0) busy += since - static_cast<std::int64_t>(waited);
    received = line.event.time;
  }
  const auto place = hubkeeper_find_opcode(line.cause.value_or(0xFF)) - hubkeeper_opcodes;
  current = &ranges[static_cast<std::size_t>(place)];
  count(*current, line);
}

void Stats::closePacket() {
  if (current != nullptr) current->spans.add(lastSend);
  lastSend = 0;
}

// A Bundle counts when the next one comes; of the last one it is known until when it sent.
double Stats::busyShare(std::int64_t now) const {
  const double whole = seconds(now - began);
  return whole > 0 ? std::min(1.0, seconds(busy + lastSend) / whole) : 0;
}

double Stats::rate(const Row& row, std::int64_t now, bool last) const {
  const double span = seconds(now - (last ? began : periodBegan));
  return span > 0 ? static_cast<double>(row.messages - (last ? 0 : row.before)) / span : 0;
}

void Stats::beginPeriod(std::int64_t now) {
  periodBegan = now;
  for (auto& [place, row] : ranges) row.before = row.messages;
  for (auto& [key, row] : queues) row.before = row.messages;
}

void Stats::print(std::int64_t now, bool last) {
  const double busyNow = busyShare(now);
  if (last) closePacket(), current = nullptr;
  printTitles("OPCODES", "PACKETS", "    MEDIAN   LONGEST");
  for (const auto& [place, row] : ranges) {
    printRow(nameOf(hubkeeper_opcodes[place]), row.messages, row.bytes, row.lost, rate(row, now, last),
             fmt::format(" {:>9} {:>9}", span(row.spans.median()), span(row.spans.longest())));
  }
  printTitles("QUEUE", "MESSAGES", "");
  for (const auto& [key, row] : queues)
    printRow(nameOf(key), row.messages, row.bytes, row.lost, rate(row, now, last), "");
  ::print("busy {:.1f} % of {:.1f} s\n", 100 * busyNow, seconds(now - began));
  flushOutput();
  beginPeriod(now);
}

nlohmann::json Stats::json(std::int64_t now, bool last) {
  const double busyNow = busyShare(now);
  if (last) closePacket(), current = nullptr;
  nlohmann::json opcodes = nlohmann::json::array(), byQueue = nlohmann::json::array();
  const auto sums = [&](const Row& row, const char* what) {
    return nlohmann::json{
        {what, row.messages}, {"bytes", row.bytes}, {"lost", row.lost}, {"perSecond", rate(row, now, last)}};
  };
  for (const auto& [place, row] : ranges) {
    const hubkeeper_opcode_range& range = hubkeeper_opcodes[place];
    opcodes.push_back(sums(row, "packets"));
    opcodes.back().update({{"first", range.first},
                           {"last", range.last},
                           {"name", range.name},
                           {"medianSeconds", row.spans.median()},
                           {"longestSeconds", row.spans.longest()}});
  }
  for (const auto& [key, row] : queues) {
    byQueue.push_back(sums(row, "messages"));
    byQueue.back()["key"] = key;
  }
  const nlohmann::json whole = {
      {"opcodes", opcodes}, {"queues", byQueue}, {"busy", busyNow}, {"seconds", seconds(now - began)}, {"final", last}};
  beginPeriod(now);
  return whole;
}
