#include "board.h"

#include <fmt/format.h>

std::string shellQuote(std::string_view text) {
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

std::string runText(Session& session, const std::string& text, double wait) {
  if (text.size() > HUBKEEPER_COMMAND_MAX) {
    throw Failure(fmt::format("the board takes {} characters of command text; with its quoting this has {}",
                              HUBKEEPER_COMMAND_MAX, text.size()));
  }
  const auto* begin = reinterpret_cast<const std::uint8_t*>(text.c_str());
  const auto reply = session.request(HUBKEEPER_OPCODE_COMMAND, HUBKEEPER_OPCODE_COMMAND_REPLY, {begin, text.size() + 1},
                                     wait);  // with its NUL
  return {reply.payload.begin(), reply.payload.end()};
}

std::string runScript(Session& session, const std::string& script, double wait) {
  return runText(session, "{ " + script + "; }", wait);
}
