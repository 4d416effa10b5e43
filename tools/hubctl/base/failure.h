// How a subcommand ends early. main.cpp turns either into sentences on stderr and an exit status.
#pragma once

#include <stdexcept>

/// Ends the tool with status 1; the text is a sentence for the user, and may run over several lines.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Ends the tool with status 2; the text likewise.
struct WrongUsage : std::runtime_error {
  using std::runtime_error::runtime_error;
};
