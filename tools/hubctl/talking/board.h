// The board's shell, reached through remote commands (opcode 0x63). A reply holds 507 bytes at most, and the service
// runs the text followed by a redirection, so every script is wrapped in braces and prints what its caller must know
// first. Hub and hubctl share a kernel, so what lies on the board is read directly where this user may.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "talking/session.h"

/// Bytes of a script's output in one reply, behind the mark that tells whose output it is.
constexpr std::size_t markSize = std::string_view("12345678\n").size();
constexpr std::size_t roomForOutput = HUBKEEPER_PAYLOAD_MAX - markSize;

/// The text as one word for the shell.
std::string shellQuote(std::string_view text);

/// The name of a directory on the board that nobody can foresee, for what a script leaves there for a while.
std::string temporaryName();

/// The shell's command that makes it. The log shows the name before the shell runs, and only mkdir(2) fails whatever stands
/// there: a redirection, with "set -C" too, would open a FIFO that another user was quick to make.
std::string makeDirectory(const std::string& place);

/// Has the shell run `text` as it is and returns the reply's payload; throws a Failure when the text is too long.
std::string runText(Session& session, const std::string& text, std::optional<double> wait = std::nullopt);

/// Has the shell run a list of commands and returns the output of the whole list. One that is longer than a request goes to
/// the board in pieces first. Throws a Failure where the shell cannot write: HubKeeper then sends an earlier command's output.
/// `script` is the tool's own, without an unclosed quote; its $PPID is HubKeeper. One that ends leaves its shell running, so behind
/// what takes long a script asks "kill -0 $PPID": it must neither print into a later reply nor touch what a later transfer put aside.
std::string runScript(Session& session, const std::string& script, std::optional<double> wait = std::nullopt);

/// Removes a directory of temporaryName()'s, whatever has happened: directly where it is `written` to the end, or by a request,
/// which HubKeeper carries out when it is free again; only where `awaited` its answer is waited for.
void removeFromBoard(Session& session, const std::string& place, bool written, bool awaited = false);

/// Hands the first `size` bytes of a file on the board to `sink`, with a bar: in one go, or in pieces of a reply each where
/// the hub's root directory may not be read. Throws a Failure when the file is shorter, or at Ctrl-C.
void fetchFromBoard(Session& session, const std::string& file, std::uint64_t size,
                    const std::function<void(std::string_view)>& sink);
