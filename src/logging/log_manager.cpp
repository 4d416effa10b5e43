#include "logging/log_manager.h"

#include <log4cpp/Priority.hh>

LogManager::LogManager() : priority(log4cpp::Priority::WARN) {}

LogManager* LogManager::getInstance() {
  static LogManager* manager = nullptr;
  if (manager == nullptr) manager = new LogManager;
  return manager;
}

LogChannel& LogManager::getChannel(const std::string& name) {
  const auto known = channels.find(name);
  if (known != channels.end()) return known->second;

  // Pattern and path come before the sinks, which are made with them, and the console comes before the file.
  LogChannel channel(name);
  channel.setPattern(pattern);
  channel.setPriority(priority);
  channel.setPath(path);
  channel.setConsole(console);
  channel.setFile(file);

  // A copy would leave path and switches behind, so the element is made first and then assigned to.
  LogChannel& element = channels.try_emplace(name, name).first->second;
  element = channel;
  return element;
}

void LogManager::setPriority(const int& value) {
  priority = value;
  for (auto& [name, channel] : channels) channel.setPriority(value);
}

void LogManager::setPattern(const std::string& conversion) {
  pattern = conversion;
  for (auto& [name, channel] : channels) channel.setPattern(conversion);
}

void LogManager::setPath(const std::string& directory) {
  path = directory;
  for (auto& [name, channel] : channels) channel.setPath(directory);
}

void LogManager::setConsole(const bool& on) {
  console = on;
  for (auto& [name, channel] : channels) channel.setConsole(on);
}

void LogManager::setFile(const bool& on) {
  file = on;
  for (auto& [name, channel] : channels) channel.setFile(on);
}

bool LogManager::first() {
  cursor = channels.begin();
  return cursor != channels.end();
}

bool LogManager::next() { return cursor != channels.end() && ++cursor != channels.end(); }

std::string LogManager::priorityName(const int& priority) { return log4cpp::Priority::getPriorityName(priority); }

int LogManager::priorityValue(const std::string& name) { return log4cpp::Priority::getPriorityValue(name); }
