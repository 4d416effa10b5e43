// The logging front end over log4cpp: lines, sinks that come and go, rolling.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <regex>
#include <sstream>

#include "logging/log_manager.h"
#include "support.h"

namespace {

class Logging : public testing::Test {
 protected:
  void SetUp() override {
    std::cout.rdbuf(console.rdbuf());
    manager->setPriority(600);
    manager->setPattern("%m%n");
    manager->setPath("/tmp");
  }
  void TearDown() override { std::cout.rdbuf(standard); }
  std::string printed() {
    const std::string text = console.str();
    console.str("");
    return text;
  }
  // How many log files are open; each must be kept from child processes.
  static int openFiles() {
    int count = 0;
    for (int fd = 3; fd < 64; ++fd) {
      std::error_code none;
      if (!std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), none).string().ends_with(".log"))
        continue;
      EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
      ++count;
    }
    return count;
  }
  static long size(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
  }
  LogManager* manager = LogManager::getInstance();
  std::ostringstream console;
  std::streambuf* standard = std::cout.rdbuf();
};

TEST_F(Logging, LinesAndPriorities) {
  manager->setPriority(400);
  manager->setPattern("%p %d{%d %b %Y %X} %m %n");
  manager->setConsole(true);
  EXPECT_FALSE(manager->first());
  LogChannel& channel = manager->getChannel("one");
  channel.info() << "dropped";
  channel.setPriority(600);
  LogChannel copy("");
  copy = channel;
  static_cast<void>(copy.info());  // a stream that receives nothing logs nothing
  copy.debug() << "dropped";
  copy.info() << "text " << std::string("string ") << -1 << ' ' << 10485760UL << " 100%s%n";
  copy.warn() << "";
  copy.alert() << "before " << static_cast<const char*>(nullptr) << "after";
  for (const int priority : {0, 100, 300, 400, 600, 700, 500}) copy.stream(priority) << priority;
  channel.setPriority(700);
  copy.stream(500) << "at DEBUG";
  EXPECT_EQ(std::regex_replace(printed(), std::regex("\\d\\d [A-Z][a-z]{2} 20\\d\\d \\d\\d:\\d\\d:\\d\\d "), "@"),
            "INFO @text string -1 10485760 100%s%n \nWARN @ \nALERT @before  \nFATAL @0 \nALERT @100 \nERROR @300 \n"
            "WARN @400 \nINFO @600 \nDEBUG @at DEBUG \n");
  EXPECT_EQ(&manager->getChannel("one"), &channel);  // as it is: no setting is applied again
  EXPECT_EQ(channel.getPriority(), 700);
  manager->getChannel("all");
  std::string names;
  for (bool more = manager->first(); more; more = manager->next()) names += manager->current().getName() + " ";
  EXPECT_EQ(names, "all one ");
  manager->setPriority(100);
  EXPECT_EQ(channel.getPriority(), 100);
  EXPECT_EQ(LogChannel(channel).getPattern() + LogChannel(channel).getPath(), channel.getPattern());
  EXPECT_EQ(LogManager::priorityName(100), "ALERT");
  EXPECT_EQ(LogManager::priorityValue("FATAL"), 0);
}

TEST_F(Logging, SinksComeAndGo) {
  manager->setPath("/tmp/a");  // which does not exist: nothing tells of it, and the console goes on
  manager->setFile(true);
  manager->setConsole(true);
  LogChannel& channel = manager->getChannel("my log");
  LogChannel held("");
  held = channel;
  channel.info() << "1";
  EXPECT_EQ(printed(), "1\n");
  mkdir("/tmp/a", 0755);
  mkdir("/tmp/b", 0755);
  channel.setFile(false);
  channel.setFile(false);
  channel.setPath("/tmp/b");  // with the file off, a path only waits
  EXPECT_EQ(size("/tmp/b/my_log.log"), -1);
  channel.setPath("/tmp/a");
  channel.setFile(true);
  channel.setFile(true);
  channel.setPattern("[%m]%n");
  EXPECT_EQ(openFiles(), 1);
  channel.info() << "2";
  manager->setPath("/tmp/b/");
  channel.info() << "3";
  EXPECT_EQ(openFiles(), 1);
  channel.setConsole(true);
  held.info() << "4";
  channel.setConsole(false);  // the sink is the category's, so the copy falls silent too
  held.info() << "5";
  EXPECT_EQ(printed(), "[2]\n[3]\n[4]\n");
  EXPECT_EQ(readFile("/tmp/a/my_log.log") + readFile("/tmp/b/my_log.log"), "[2]\n[3]\n[4]\n[5]\n");
  struct stat status;
  stat("/tmp/b/my_log.log", &status);
  EXPECT_EQ(status.st_mode & 0777, 0644U);
}

TEST_F(Logging, RollsAtTenMebibytesAndKeepsOneBackup) {
  manager->setFile(true);
  LogChannel& channel = manager->getChannel("roll");
  const std::string mebibyte(1024 * 1024 - 1, 'x');
  for (int i = 0; i < 9; ++i) channel.info() << mebibyte;
  EXPECT_EQ(size("/tmp/roll.log.1"), -1);
  for (int i = 9; i < 20; ++i) channel.info() << mebibyte;
  channel.info() << "next";
  EXPECT_EQ(readFile("/tmp/roll.log"), "next\n");
  EXPECT_EQ(size("/tmp/roll.log.1"), 10485760);
  EXPECT_EQ(size("/tmp/roll.log.2"), -1);
  EXPECT_EQ(openFiles(), 1);
}

}  // namespace
