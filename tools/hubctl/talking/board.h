// The board's shell, reached through remote commands (opcode 0x63). A reply holds 507 bytes at most, and the service
// runs the text followed by a redirection, so every script is wrapped in braces and prints what its caller must know
// first.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "talking/session.h"

/// The text as one word for the shell.
std::string shellQuote(std::string_view text);

/// Has the shell run `text` as it is and returns the reply's payload; throws a Failure when the text is too long.
std::string runText(Session& session, const std::string& text, std::optional<double> wait = std::nullopt);

/// Has the shell run a list of commands and returns the output of the whole list. `script` is the tool's own, without
/// a comment or an unclosed quote.
std::string runScript(Session& session, const std::string& script, std::optional<double> wait = std::nullopt);
