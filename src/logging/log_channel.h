// A named log handle over one log4cpp category: its console sink, its rolling file and six streams, one for each
// priority. The category, its priority and its sinks live in log4cpp under the channel's name and are found again by
// that name at every call; so copies of a channel all speak of the same sinks, and a channel's end leaves them in
// place.
//
// The setters belong to the main thread before any other thread starts. Afterwards channels are only read, from any
// thread.
#pragma once

#include <string>

#include "logging/log_stream.h"

class LogChannel {
 public:
  /// A channel without sinks and with the pattern "%m". log4cpp is not touched.
  explicit LogChannel(const std::string& name);

  /// Takes name and pattern alone: the copy has an empty path, both switches off and fresh streams.
  LogChannel(const LogChannel& other);
  /// Takes every field.
  LogChannel& operator=(const LogChannel& other) = default;
  ~LogChannel() = default;

  LogStream debug() const;
  LogStream info() const;
  LogStream warn() const;
  LogStream error() const;
  LogStream alert() const;
  LogStream fatal() const;
  /// The stream of exactly that priority (0, 100, 300, 400, 600, 700); any other number yields the DEBUG stream.
  LogStream stream(const int& priority) const;

  [[nodiscard]] std::string getName() const { return name; }
  [[nodiscard]] std::string getPattern() const { return pattern; }
  [[nodiscard]] std::string getPath() const { return path; }
  [[nodiscard]] int getPriority() const;

  void setPriority(const int& priority);
  /// Adds or takes away the sink on standard output. Asking twice changes nothing.
  void setConsole(const bool& on);
  /// Adds or takes away the rolling file `path`/`name`.log (blanks in the name become underscores): 10 MiB and one
  /// backup, opened to append with mode 0644. A file that cannot be opened goes unreported.
  void setFile(const bool& on);
  /// Sets the directory of the log file and, where the file is switched on, goes on writing there.
  void setPath(const std::string& path);
  /// Sets the conversion pattern (log4cpp::PatternLayout) of both sinks, present and future.
  void setPattern(const std::string& pattern);

 private:
  std::string name;
  std::string pattern = "%m";
  bool console = false;
  bool file = false;
  std::string path;
  LogStream debugStream;
  LogStream infoStream;
  LogStream warnStream;
  LogStream errorStream;
  LogStream alertStream;
  LogStream fatalStream;
};

/// The one channel that all code logs to. Built with an empty name before main; main assigns it once, before any other
/// thread exists, and nothing writes to it afterwards.
extern LogChannel messagesChannel;
