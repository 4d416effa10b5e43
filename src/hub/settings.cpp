#include "hub/settings.h"

const std::string appVersion = "1.0.2";
const std::int32_t defaultLogPriority = 400;  // WARN; no message is governed by it, as "messages" is set to INFO
const std::string logPattern = "%p %d{%d %b %Y %X} %m %n";
const std::string logDirectory = "/media/data";
const bool logToFile = true;
const bool logToConsole = true;
