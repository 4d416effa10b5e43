// The one way out. Other threads may be logging at the moment when one of them gives up, so nothing static is
// destroyed: log4cpp would be pulled away from under them.
#pragma once

#include <cerrno>

/// Flushes standard output and ends the process with status 1, from any thread.
[[noreturn]] void endProcess();

/// Logs `line` at ERROR, writes `cause` and the text of `error` to standard error as perror(3) does, and ends the
/// process. `error` is errno as the failed step left it, unless that step returns its error number itself.
[[noreturn]] void endAfterFailure(const char* line, const char* cause, int error = errno);
