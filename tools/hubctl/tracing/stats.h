// Sums of a trace: what each range of opcodes and each queue carried and lost, and how long the hub took.
#pragma once

#include <array>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tracing/story.h"

/// Spans of time, counted in steps of 3 %: a median of any number of them takes no more room.
class Spans {
 public:
  void add(std::int64_t nanoseconds);
  double median() const;   // in seconds
  double longest() const;  // likewise

 private:
  std::array<std::uint64_t, 40 * 32> counts{};  // 32 steps for each power of two
  std::uint64_t all = 0;
  std::int64_t most = 0;
};

class Stats {
 public:
  void take(const Line& line);
  /// A table of the sums until `now`, in nanoseconds since 1970. The rates are those since the table before; in the last one,
  /// over the whole time.
  void print(std::int64_t now, bool last);
  /// The same as one object.
  nlohmann::json json(std::int64_t now, bool last);
  /// When the latest event was, for a recording's end.
  std::int64_t end() const { return latest; }

 private:
  struct Row {
    std::uint64_t messages = 0, bytes = 0, lost = 0;
    std::uint64_t before = 0;  // messages at the last table
    Spans spans{};             // of a range: from receiving a Packet to the last send that it caused
  };

  static void count(Row& row, const Line& line);
  void beginPacket(const Line& line);
  void closePacket();
  double busyShare(std::int64_t now) const;
  double rate(const Row& row, std::int64_t now, bool last) const;
  void beginPeriod(std::int64_t now);

  std::map<std::size_t, Row> ranges;   // by their place in hubkeeper_opcodes
  std::map<int, Row> queues;           // by key
  Row* current = nullptr;              // the range of the Packet at work
  std::int64_t lastSend = 0;           // because of that one, since it was received
  std::int64_t began = 0, latest = 0;  // first and latest event
  std::int64_t periodBegan = 0;
  std::int64_t received = 0;  // the Bundle at work
  std::int64_t busy = 0;      // from each receive to the time when the hub waited again
};
