// The service configuration: which services are watched, and whether at all. Read once, on the monitor thread.
#pragma once

#include <string>
#include <vector>

/// Reads /etc/qd/svcmanager.conf. Appends the value of each "service" record to `services`; each "debug" record sets
/// `debug`, true only for the value "true", so the last one decides. Every record is logged, an unknown key at ERROR
/// too. False, with both untouched, when the file cannot be opened.
bool parseConfigFile(std::vector<std::string>& services, bool& debug);
