// The grammar of the service configuration file, without any meaning: records of a key, "=" and a value, one after the
// other. Nothing here logs and nothing is kept, so that tools can read a file exactly as the service does.
#pragma once

#include <cstdio>
#include <string>

constexpr const char* serviceConfigPath = "/etc/qd/svcmanager.conf";

/// Reads the next record; false when nothing is left of the file. The key is every byte up to the next "=", newlines
/// among them, and the value every byte up to the next newline or the end. Nothing is trimmed. Text without "=" at the
/// end of the file is a key whose value is the one that `value` held before: pass the same strings at every call.
bool readRecord(std::FILE* file, std::string& key, std::string& value);
