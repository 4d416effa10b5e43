// The version report.
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "base/failure.h"
#include "commands/commands.h"
#include "commands/session_options.h"
#include "showing/json.h"
#include "showing/output.h"
#include "showing/terminal.h"
#include "showing/text.h"
#include "talking/requests.h"

namespace {

int showVersion(const TalkOptions& options) {
  Session session(options);
  const Reply reply = request(session, HUBKEEPER_OPCODE_VERSION, HUBKEEPER_OPCODE_VERSION_REPLY);
  const std::string text(reply.payload.begin(), reply.payload.end());
  if (options.json) {
    printJson({{"version", text}});
  } else {
    const bool open = terminalWidth() > 0 && !text.ends_with('\n');  // elsewhere it is printed byte by byte
    write(terminalWidth() > 0 ? harmless(text, "\n\t") : text);
    write(open && !text.empty() ? "\n" : "");
  }
  if (!text.empty()) return 0;
  throw Failure(
      "the board has no version to report: the reply is empty\n"
      "/etc/build-version, or else /etc/os-release, must hold 1 to 506 bytes");
}

}  // namespace

Action addVersion(CLI::App& app) {
  const auto options = std::make_shared<TalkOptions>();
  addSessionOptions(app, *options, "Wait this long for the reply (default 5)");
  return [options] { return showVersion(*options); };
}
