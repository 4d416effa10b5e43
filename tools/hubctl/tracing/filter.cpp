#include "tracing/filter.h"

#include <fmt/format.h>

#include <charconv>
#include <sstream>

#include "base/failure.h"
#include "base/queues.h"

namespace {

// One or two hexadecimal digits, with or without 0x; -1 for anything else.
int hexByte(std::string_view text) {
  if (text.starts_with("0x")) text.remove_prefix(2);
  int value = -1;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), value, 16);
  return read.ec == std::errc() && read.ptr == text.data() + text.size() && value >= 0 && value <= 0xFF ? value : -1;
}

bool isWordOf(const std::string& word, const std::string& name) {
  std::istringstream words(name);
  for (std::string one; words >> one;) {
    if (one == word) return true;
  }
  return word == name;
}

std::bitset<256> opcodesOf(const std::string& text) {
  std::bitset<256> found;
  const std::size_t hyphen = text.find('-');
  const int first = hexByte(std::string_view(text).substr(0, hyphen));
  const int last = hyphen == std::string::npos ? first : hexByte(std::string_view(text).substr(hyphen + 1));
  for (int opcode = 0; opcode <= 0xFF; ++opcode) {
    const char* name = hubkeeper_find_opcode(static_cast<std::uint8_t>(opcode))->name;
    const bool byNumber = first >= 0 && last >= 0;
    const bool named = !byNumber && isWordOf(text, name);
    found[static_cast<std::size_t>(opcode)] = byNumber ? first <= opcode && opcode <= last : named;
  }
  if (found.any()) return found;
  throw WrongUsage(
      fmt::format("\"{}\" is no opcode: give one as 04, a range as 20-28, or a word of a name as in \"heartbeat\", "
                  "\"netsteward\" or \"transfer start\"",
                  text));
}

}  // namespace

Filter::Filter(const std::vector<std::string>& queueNames, const std::vector<std::string>& opcodeTexts, bool lostAlone)
    : anyOpcode(opcodeTexts.empty()), lost(lostAlone) {
  for (const std::string& name : queueNames) keys.insert(findQueue(name).key);
  for (const std::string& text : opcodeTexts) opcodes |= opcodesOf(text);
}

bool Filter::wants(const Line& line) const {
  const std::uint8_t kind = line.event.facts.kind;
  if (kind == HUBKEEPER_CAPTURE_ATTACHED || kind == HUBKEEPER_CAPTURE_ENDED) return true;
  if (lost && !isLost(line)) return false;
  if (!keys.empty() && !keys.contains(line.event.facts.key)) return false;
  const bool own = isMessage(line.event) && line.piece.kind == Kind::packet && opcodes[line.piece.opcode];
  return anyOpcode || own || (line.cause && opcodes[*line.cause]);
}
