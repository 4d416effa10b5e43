#include "talking/board.h"

#include <fmt/format.h>

#include "base/failure.h"
#include "talking/requests.h"

std::string shellQuote(std::string_view text) {
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

std::string runText(Session& session, const std::string& text, std::optional<double> wait) {
  if (text.size() > HUBKEEPER_COMMAND_MAX) {
    throw Failure(fmt::format("the board takes {} characters of command text; with its quoting this has {}",
                              HUBKEEPER_COMMAND_MAX, text.size()));
  }
  const ByteView payload(reinterpret_cast<const std::uint8_t*>(text.c_str()), text.size() + 1);  // with its NUL
  const Reply reply = request(session, HUBKEEPER_OPCODE_COMMAND, HUBKEEPER_OPCODE_COMMAND_REPLY, payload, wait);
  return {reply.payload.begin(), reply.payload.end()};
}

std::string runScript(Session& session, const std::string& script, std::optional<double> wait) {
  return runText(session, "{ " + script + "; }", wait);
}
