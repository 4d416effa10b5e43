// The registry of channels and the settings that new channels receive. One per process, made by the first getInstance
// and never destroyed. There is no lock: everything but the two conversions of priorities is called on the main thread
// alone, before any other thread starts.
#pragma once

#include <map>
#include <string>

#include "logging/log_channel.h"

class LogManager {
 public:
  static LogManager* getInstance();
  virtual ~LogManager() = default;

  /// The channel of that name, made from the settings on the first request. The reference stays valid for the life of
  /// the process. A channel that exists is returned as it is: the settings are not applied again.
  LogChannel& getChannel(const std::string& name);

  // Each stores a setting for new channels and then applies it to every channel there is, in ascending order of name.
  void setPriority(const int& priority);
  void setPattern(const std::string& pattern);
  void setPath(const std::string& path);
  void setConsole(const bool& on);
  void setFile(const bool& on);

  // A walk over the channels: first() and next() tell whether there is a current() one.
  bool first();
  bool next();
  LogChannel& current() { return cursor->second; }

  static std::string priorityName(const int& priority);
  static int priorityValue(const std::string& name);

 private:
  LogManager();

  std::map<std::string, LogChannel> channels;
  std::map<std::string, LogChannel>::iterator cursor = channels.begin();
  bool console = false;
  bool file = false;
  std::string path;
  std::string pattern = "%m";
  int priority;
};
