// Ctrl-C and its kin. The handler only leaves a mark, so that a command ends where it can tidy up behind itself.
#pragma once

#include <csignal>

/// Set by SIGINT, SIGTERM and SIGHUP. A wait ends soon after; a command that must tidy up clears it first.
extern volatile std::sig_atomic_t interrupted;

/// Makes those signals set `interrupted`.
void catchSignals();
