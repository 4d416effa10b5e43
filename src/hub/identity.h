// The record that each start leaves of what is running: a line in the version file, and the kernel's and the firmware's
// own words in the log. Nothing here stops a start, and nothing keeps any state.
#pragma once

#include <cstdint>
#include <string>

/// Where stampVersion leaves its line; written by nobody.
extern const std::string versionFilePath;

/// Logs the version and appends it as a line to the version file; always returns 0. Runs on the main thread before any
/// other thread exists.
std::int32_t stampVersion(const std::string& version);

/// Runs a shell command and logs its standard output, one line of the log for each piece of at most 127 characters.
/// Blocks until the command has closed its output. Returns what pclose(3) returned, or -1 if popen(3) failed.
std::int32_t logCommandOutput(const std::string& command);

/// Log the output of uname(1), and the variable "ver" of the firmware environment. Both run on the inbound thread.
void logSystemName();
void logFirmwareVersion();
