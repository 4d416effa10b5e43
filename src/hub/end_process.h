// The one way out. Other threads may be logging at the moment when one of them gives up, so nothing static is
// destroyed: log4cpp would be pulled away from under them.
#pragma once

#include <cerrno>

/// Ends the process by exit(3) with status 1, from any thread; nothing but standard output is flushed.
[[noreturn]] void endProcess();

/// Logs `line` at ERROR, writes `cause` and the text of `error` to standard error as perror(3) does, and ends the
/// process. `error` is errno as the failed step left it, unless that step returns its error number itself.
[[noreturn]] void endAfterFailure(const char* line, const char* cause, int error = errno);
