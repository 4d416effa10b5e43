#include "logging/log_channel.h"

#include <fcntl.h>

#include <algorithm>
#include <initializer_list>
#include <iostream>

#include <log4cpp/Category.hh>
#include <log4cpp/OstreamAppender.hh>
#include <log4cpp/PatternLayout.hh>
#include <log4cpp/RollingFileAppender.hh>

using log4cpp::Category;
using log4cpp::Priority;

LogChannel messagesChannel("");

namespace {

const std::string consoleAppender = "Console";
const std::string fileAppender = "File";

constexpr std::size_t maxFileSize = 10485760;  // 10 MiB
constexpr unsigned maxBackupIndex = 1;
constexpr mode_t fileMode = 0644;

// log4cpp opens its file without O_CLOEXEC. A service that HubKeeper restarts would inherit the descriptor, hold the
// space of a rolled file for the rest of its life and could write into the log. Setting the flag among those that
// log4cpp opens with covers every later roll, with no moment in between.
class OwnRollingFile : public log4cpp::RollingFileAppender {
 public:
  explicit OwnRollingFile(const std::string& fileName)
      : RollingFileAppender(fileAppender, fileName, maxFileSize, maxBackupIndex, true, fileMode) {
    _flags |= O_CLOEXEC;
    fcntl(_fd, F_SETFD, FD_CLOEXEC);
  }
};

void setLayout(log4cpp::Appender* appender, const std::string& pattern) {
  auto* layout = new log4cpp::PatternLayout;
  layout->setConversionPattern(pattern);
  appender->setLayout(layout);
}

// Switches the sink of that name on, made by `make` where there is none yet, or takes it away.
template <typename Make>
void switchSink(const std::string& channel, const std::string& sink, bool on, const std::string& pattern, Make make) {
  Category& category = Category::getInstance(channel);
  log4cpp::Appender* appender = category.getAppender(sink);
  if (on == (appender != nullptr)) return;
  if (!on) {
    category.removeAppender(appender);
    return;
  }
  appender = make();
  setLayout(appender, pattern);
  category.addAppender(appender);
}

}  // namespace

LogChannel::LogChannel(const std::string& channelName)
    : name(channelName),
      debugStream(name, Priority::DEBUG),
      infoStream(name, Priority::INFO),
      warnStream(name, Priority::WARN),
      errorStream(name, Priority::ERROR),
      alertStream(name, Priority::ALERT),
      fatalStream(name, Priority::FATAL) {}

LogChannel::LogChannel(const LogChannel& other) : LogChannel(other.name) { pattern = other.pattern; }

LogStream LogChannel::debug() const { return debugStream; }
LogStream LogChannel::info() const { return infoStream; }
LogStream LogChannel::warn() const { return warnStream; }
LogStream LogChannel::error() const { return errorStream; }
LogStream LogChannel::alert() const { return alertStream; }
LogStream LogChannel::fatal() const { return fatalStream; }

LogStream LogChannel::stream(const int& priority) const {
  switch (priority) {
    case Priority::FATAL: return fatalStream;
    case Priority::ALERT: return alertStream;
    case Priority::ERROR: return errorStream;
    case Priority::WARN: return warnStream;
    case Priority::INFO: return infoStream;
    default: return debugStream;
  }
}

int LogChannel::getPriority() const { return Category::getInstance(name).getPriority(); }

void LogChannel::setPriority(const int& priority) { Category::getInstance(name).setPriority(priority); }

void LogChannel::setConsole(const bool& on) {
  console = on;
  switchSink(name, consoleAppender, on, pattern,
             [] { return new log4cpp::OstreamAppender(consoleAppender, &std::cout); });
}

void LogChannel::setFile(const bool& on) {
  file = on;
  switchSink(name, fileAppender, on, pattern, [this] {
    std::string fileName = name;
    std::replace(fileName.begin(), fileName.end(), ' ', '_');
    return new OwnRollingFile(path + "/" + fileName + ".log");
  });
}

void LogChannel::setPath(const std::string& directory) {
  path = directory;
  const bool wanted = file;
  setFile(false);  // closes the file in the old place
  setFile(wanted);
}

void LogChannel::setPattern(const std::string& conversion) {
  pattern = conversion;
  for (const std::string& sink : {consoleAppender, fileAppender}) {
    log4cpp::Appender* appender = Category::getInstance(name).getAppender(sink);
    if (appender != nullptr) setLayout(appender, pattern);
  }
}
