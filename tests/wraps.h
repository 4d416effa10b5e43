// Link-time stand-ins (ld --wrap) for calls that the kernel cannot be brought to fail or to hurry.
#pragma once

#include <climits>
#include <string>

/// From now on `call` succeeds `skip` times and then fails `count` times with `error` in errno, or as its error number.
void planFault(const std::string& call, int skip, int error, int count = INT_MAX);
void clearFaults();

/// sleep(3) takes this many milliseconds for each second that it was asked for, and leaves a line in that file.
extern int millisecondsPerSecond;
extern std::string sleepLog;
