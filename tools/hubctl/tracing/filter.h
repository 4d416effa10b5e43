// Which lines of a trace are wanted, whether live or recorded.
#pragma once

#include <bitset>
#include <set>
#include <string>
#include <vector>

#include "tracing/story.h"

class Filter {
 public:
  /// Queues by name or key; opcodes in hexadecimal, as ranges (20-28), or by a word of their name. An empty list wants all.
  /// Throws a WrongUsage.
  Filter(const std::vector<std::string>& queues, const std::vector<std::string>& opcodes, bool lostAlone);

  /// A line that belongs to a Packet is wanted with its Packet's opcode or its own.
  bool wants(const Line& line) const;

 private:
  std::set<int> keys;
  std::bitset<256> opcodes;
  bool anyOpcode;
  bool lost;
};
