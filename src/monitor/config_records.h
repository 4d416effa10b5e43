// The grammar of the service configuration file, without any meaning: records of a key, "=" and a value, one after the
// other. Nothing here logs, so that tools can read a file exactly as the service does. A reader holds its file, and
// belongs to one thread.
#pragma once

#include <cstdio>
#include <string>

constexpr const char* serviceConfigPath = "/etc/qd/svcmanager.conf";

class ConfigRecords {
 public:
  /// Opens the file at `path`; isOpen() tells whether that worked.
  explicit ConfigRecords(const char* path);
  ~ConfigRecords();
  ConfigRecords(const ConfigRecords&) = delete;
  ConfigRecords& operator=(const ConfigRecords&) = delete;

  [[nodiscard]] bool isOpen() const { return file != nullptr; }

  /// Reads the next record; false when nothing is left of the file. The key is every byte up to the next "=", newlines
  /// among them, and the value every byte up to the next newline or the end. Nothing is trimmed. Text without "=" at
  /// the end of the file is a key whose value is the one that `value` held before: pass the same strings at every call.
  bool next(std::string& key, std::string& value);

 private:
  bool readUpTo(int delimiter, std::string& piece);

  std::FILE* file;
};
