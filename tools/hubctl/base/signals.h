// Ctrl-C and its kin. The handler only leaves a mark, so that a command ends where it can tidy up behind itself.
#pragma once

#include <csignal>

/// Set by SIGINT, SIGTERM and SIGHUP. A blocking queue call returns soon after; a command that must tidy up clears it first.
extern volatile std::sig_atomic_t interrupted;

/// Makes those signals set `interrupted`, and a SIGALRM do nothing but end a blocking queue call.
void catchSignals();
