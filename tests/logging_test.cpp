// The logging front end over log4cpp: lines, sinks that come and go, rolling.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <regex>
#include <sstream>

#include "logging/log_manager.h"
#include "support.h"

namespace {

class Logging : public testing::Test {
 protected:
  void SetUp() override { std::cout.rdbuf(console.rdbuf()); }
  void TearDown() override { std::cout.rdbuf(standard); }
  Lines printed() {
    const Lines lines = splitLines(console.str());
    console.str("");
    return lines;
  }
  static std::size_t sinkDescriptors() {
    std::size_t count = 0;
    for (int fd = 3; fd < 64; ++fd) {
      char target[256] = {};
      const std::string link = "/proc/self/fd/" + std::to_string(fd);
      if (readlink(link.c_str(), target, sizeof target - 1) < 0 || !std::string(target).ends_with(".log")) continue;
      EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC) << target;
      ++count;
    }
    return count;
  }
  LogManager* manager = LogManager::getInstance();
  std::ostringstream console;
  std::streambuf* standard = std::cout.rdbuf();
};

TEST_F(Logging, LinesAndPriorities) {
  EXPECT_EQ(LogManager::getInstance(), manager);
  EXPECT_FALSE(manager->first());
  manager->setPattern("%p %d{%d %b %Y %X} %m %n");
  manager->setConsole(true);
  LogChannel& channel = manager->getChannel("one");
  EXPECT_EQ(channel.getPriority(), 400);  // WARN, until told otherwise
  channel.info() << "dropped";
  channel.setPriority(600);
  LogChannel copy("");
  copy = channel;
  static_cast<void>(copy.debug());
  static_cast<void>(copy.info());  // a stream that receives nothing logs nothing
  copy.debug() << "dropped";
  copy.info() << "text " << std::string("string ") << -1 << ' ' << 10485760UL << " 100%s%n";
  copy.warn() << "";
  copy.alert() << "before " << static_cast<const char*>(nullptr) << "after";
  for (const int priority : {0, 100, 300, 400, 600, 700, 500}) copy.stream(priority) << priority;
  const Lines expected = {"INFO text string -1 10485760 100%s%n ",
                          "WARN  ",
                          "ALERT before  ",
                          "FATAL 0 ",
                          "ALERT 100 ",
                          "ERROR 300 ",
                          "WARN 400 ",
                          "INFO 600 "};
  Lines seen;
  for (const std::string& line : printed()) {
    std::smatch match;
    ASSERT_TRUE(
        std::regex_match(line, match, std::regex("([A-Z]+ )\\d\\d [A-Z][a-z][a-z] 20\\d\\d \\d\\d:\\d\\d:\\d\\d (.*)")))
        << line;
    seen.push_back(match.str(1) + match.str(2));
  }
  EXPECT_EQ(seen, expected);
  channel.setPriority(700);
  copy.stream(500) << "at DEBUG";
  EXPECT_TRUE(printed().at(0).starts_with("DEBUG "));
  EXPECT_EQ(LogManager::priorityName(100), "ALERT");
  EXPECT_EQ(LogManager::priorityValue("FATAL"), 0);
}

TEST_F(Logging, SinksComeAndGo) {
  mkdir("/tmp/a", 0755);
  mkdir("/tmp/b", 0755);
  manager->setPriority(600);
  manager->setPattern("%m%n");
  manager->setPath("/tmp/a");
  manager->setFile(true);
  LogChannel& channel = manager->getChannel("my log");
  const LogChannel held = [&] {
    LogChannel assigned("");
    assigned = channel;
    EXPECT_EQ(assigned.getPath(), "/tmp/a");
    return assigned;
  }();
  EXPECT_EQ(sinkDescriptors(), 1U);
  channel.info() << "1";
  channel.setFile(true);
  EXPECT_EQ(sinkDescriptors(), 1U);
  channel.setFile(false);
  channel.setFile(false);
  EXPECT_EQ(sinkDescriptors(), 0U);
  channel.info() << "nowhere";
  channel.setPath("/tmp/b");  // with the file off, a path only waits
  EXPECT_NE(access("/tmp/b/my_log.log", F_OK), 0);
  channel.setPath("/tmp/a");
  channel.setFile(true);
  channel.setPattern("[%m]%n");
  channel.info() << "2";
  EXPECT_EQ(readFile("/tmp/a/my_log.log"), "1\n[2]\n");
  manager->setPath("/tmp/b/");
  channel.info() << "3";
  EXPECT_EQ(readFile("/tmp/b/my_log.log"), "[3]\n");
  EXPECT_EQ(sinkDescriptors(), 1U);
  struct stat status;
  stat("/tmp/b/my_log.log", &status);
  EXPECT_EQ(status.st_mode & 0777, 0644U);

  manager->setConsole(true);
  channel.setConsole(true);
  held.info() << "4";
  EXPECT_EQ(printed(), Lines{"[4]"});
  channel.setConsole(false);  // the sink is the category's, so the copy falls silent too
  held.info() << "5";
  EXPECT_EQ(printed(), Lines{});
  EXPECT_EQ(readFile("/tmp/b/my_log.log"), "[3]\n[4]\n[5]\n");
}

TEST_F(Logging, AKnownChannelIsReturnedAsItIs) {
  LogChannel& channel = manager->getChannel("b");
  channel.setPriority(300);
  EXPECT_EQ(&manager->getChannel("b"), &channel);
  EXPECT_EQ(channel.getPriority(), 300);
  manager->getChannel("a");
  Lines names;
  for (bool more = manager->first(); more; more = manager->next()) names.push_back(manager->current().getName());
  EXPECT_EQ(names, (Lines{"a", "b"}));
  manager->setPriority(100);
  manager->setPattern("%p");
  EXPECT_EQ(channel.getPriority(), 100);
  EXPECT_EQ(channel.getPattern(), "%p");
  const LogChannel copy(channel);  // a copy takes name and pattern alone
  EXPECT_EQ(copy.getPattern(), "%p");
  EXPECT_EQ(copy.getPath(), "");
}

TEST_F(Logging, RollsAtTenMebibytesAndKeepsOneBackup) {
  manager->setPriority(600);
  manager->setPattern("%m%n");
  manager->setPath("/tmp");
  manager->setFile(true);
  LogChannel& channel = manager->getChannel("roll");
  const std::string mebibyte(1024 * 1024 - 1, 'x');
  const auto size = [](const char* path) {
    struct stat status;
    return stat(path, &status) == 0 ? status.st_size : -1;
  };
  for (int i = 0; i < 9; ++i) channel.info() << mebibyte;
  EXPECT_EQ(size("/tmp/roll.log.1"), -1);
  channel.info() << mebibyte;
  EXPECT_EQ(size("/tmp/roll.log"), 0);
  EXPECT_EQ(size("/tmp/roll.log.1"), 10485760);
  for (int i = 0; i < 10; ++i) channel.info() << mebibyte;
  channel.info() << "next";
  EXPECT_EQ(readFile("/tmp/roll.log"), "next\n");
  EXPECT_EQ(size("/tmp/roll.log.2"), -1);
  EXPECT_EQ(sinkDescriptors(), 1U);  // checks that a rolled file is kept from child processes, too
}

TEST_F(Logging, AFileThatCannotBeOpenedLeavesTheConsole) {
  manager->setPriority(600);
  manager->setPattern("%m%n");
  manager->setPath("/nowhere");
  manager->setConsole(true);
  manager->setFile(true);
  manager->getChannel("messages").info() << "still here";
  EXPECT_EQ(printed(), Lines{"still here"});
}

}  // namespace
