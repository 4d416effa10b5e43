// Puts together what belongs together: a Bundle is split into its Packets, and what the hub sent because of a Packet comes
// right behind it. The hub works on one Packet at a time and bounces each one first, so that a bounce begins the next.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tracing/event.h"

/// One line of a trace: a Packet, bounce, reply or forward, or what happened besides.
struct Line {
  const Event& event;
  Piece piece{};             // of a message alone
  std::uint64_t packet = 0;  // this Packet, or the one that caused this, counted from 1; 0: none that was seen
  std::optional<std::uint8_t> cause{};  // the opcode that it was bounced with
  std::int64_t after = 0;               // nanoseconds since that Packet was received
  ByteView command{};                   // the text of a command that has ended
};

/// The hub's attempt to receive failed: there is no message to show.
inline bool isFailedReceive(const Line& line) {
  return line.event.facts.kind == HUBKEEPER_CAPTURE_IN && line.event.facts.result < 0;
}

/// Whether the message reached nobody: no room, no queue, no right; or the hub throws it away unread.
bool isLost(const Line& line);
/// Why, or why another call failed, in a few words.
std::string whyLost(const Line& line);

class Story {
 public:
  explicit Story(std::function<void(const Line&)> itsSink) : sink(std::move(itsSink)) {}
  void take(const Event& event);
  /// Hands out the Packets that are left of a Bundle when nothing more is to come.
  void finish();

 private:
  void begin(const Event& event);
  void tellPacket();
  Line caused(const Event& event) const;

  std::function<void(const Line&)> sink;
  Event bundle;
  std::vector<Piece> pieces;  // of that Bundle
  std::size_t told = 0;       // Packets of it that have been handed out; the last of them is the one at work
  bool bounced = false;       // that one
  std::uint64_t packets = 0;  // in all, up to that one
};
