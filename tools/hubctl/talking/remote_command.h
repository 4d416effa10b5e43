// A shell command of the user's on the board. Its output goes to a temporary file there, so that the exit status and the
// size of the output come first in the reply, however long the output is, and a job left in the background holds
// nothing up.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "talking/session.h"

struct Outcome {
  std::optional<int> status;  // missing where the text was sent as it is
  bool timedOut = false;      // it was stopped, and then the status is 124
  double timeout = 0;         // seconds that the board's timeout(1) was given; it may not know fractions
  double seconds = 0;         // until it had ended, without the fetching of its output; 0 without a status
  std::uint64_t size = 0;     // of the whole output
  std::string output;
  bool cut = false;  // or, without a status, perhaps cut
};

/// Has the shell run `command`, stopped after `timeout` seconds unless they are 0, and returns what one reply holds of
/// its output, or with `all` the whole of it.
Outcome runCommand(Session& session, const std::string& command, double timeout, bool all);

/// Has the shell run the text and nothing around it.
Outcome runAsItIs(Session& session, const std::string& text);
