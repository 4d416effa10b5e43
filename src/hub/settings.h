// What is fixed when the program is built. Written by nobody: everything here stands ready before main runs.
#pragma once

#include <cstdint>
#include <string>

/// The service's own version. The build, the packages and the man pages take it from settings.cpp.
extern const std::string appVersion;

// What main passes to the LogManager.
extern const std::int32_t defaultLogPriority;  // of log4cpp::Priority
extern const std::string logPattern;           // of log4cpp::PatternLayout
extern const std::string logDirectory;
extern const bool logToFile;
extern const bool logToConsole;
