// A message as msgop(2) takes and gives it: a long, then the text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

/// Room for the type of one message and for `room` bytes of its text.
class Frame {
 public:
  explicit Frame(std::size_t room, long type = 0) : words(1 + (room + sizeof(long) - 1) / sizeof(long)) {
    words[0] = type;
  }
  void* message() { return words.data(); }
  std::uint8_t* text() { return reinterpret_cast<std::uint8_t*>(words.data() + 1); }

 private:
  std::vector<long> words;
};
