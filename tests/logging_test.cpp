// The logging front end over log4cpp: lines, sinks that come and go, rolling.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <log4cpp/Configurator.hh>
#include <regex>

#include "linked.h"
#include "logging/log_manager.h"

namespace {

struct Logging : testing::Test {
  Logging() {
    umask(022);
    std::cout.rdbuf(console.rdbuf());
    manager->setPriority(600);
    manager->setPattern("%m%n");
    manager->setPath("/tmp");
  }
  ~Logging() override { std::cout.rdbuf(standard); }
  static std::string readFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }
  // How many log files are open; each must be kept from child processes.
  static int openFiles() {
    int count = 0;
    for (const auto& link : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      if (!std::filesystem::read_symlink(link, gone).string().ends_with(".log")) continue;
      EXPECT_EQ(fcntl(std::stoi(link.path().filename()), F_GETFD), FD_CLOEXEC);
      ++count;
    }
    return count;
  }
  LogManager* manager = LogManager::getInstance();
  std::ostringstream console;
  std::streambuf* standard = std::cout.rdbuf();
};

struct Converting {
  operator const char*() const { return "converted"; }
};

TEST_F(Logging, LinesAndPriorities) {
  manager->setPriority(400);
  manager->setPattern("%p %m %n");
  manager->setConsole(true);
  EXPECT_FALSE(manager->first());
  LogChannel& channel = manager->getChannel("one");
  channel.info() << "dropped";
  channel.setPriority(600);
  LogChannel copy("");
  copy = channel;
  copy.info();  // a stream that receives nothing logs nothing
  copy.debug() << "dropped";
  copy.info() << "text " << std::string("string ") << -1 << ' ' << 10485760UL << " 100%s%n" << nullptr << Converting();
  copy.warn() << "";
  copy.alert() << "before " << static_cast<const char*>(nullptr) << "after";
  for (const int priority : {0, 100, 300, 400, 600, 700, 500}) copy.stream(priority) << priority;
  channel.setPriority(700);
  copy.stream(500) << "at DEBUG";
  EXPECT_EQ(console.str(),
            "INFO text string -1 10485760 100%s%nnullptrconverted \nWARN  \nALERT before  \nFATAL 0 \nALERT 100 "
            "\nERROR 300 \n"
            "WARN 400 \nINFO 600 \nDEBUG at DEBUG \n");
  EXPECT_EQ(&manager->getChannel("one"), &channel);  // as it is: no setting is applied again
  EXPECT_EQ(channel.getPriority(), 700);
  manager->getChannel("all");
  std::string names;
  for (bool more = manager->first(); more; more = manager->next()) names += manager->current().getName() + " ";
  EXPECT_EQ(names, "all one ");
  manager->setPriority(LogManager::priorityValue("ALERT"));
  EXPECT_EQ(LogManager::priorityName(channel.getPriority()), "ALERT");
  EXPECT_EQ(LogChannel(channel).getPattern() + LogChannel(channel).getPath(), "%p %m %n");
  // A refused pattern passes through code that is built without exceptions, and leaves a layout behind on its way.
  const auto refused = [&] {
    try {
      manager->setPattern("%q");
    } catch (const log4cpp::ConfigureFailure&) {
      _exit(7);
    }
  };
  EXPECT_EXIT(refused(), testing::ExitedWithCode(7), "");
}

TEST_F(Logging, SinksComeAndGo) {
  manager->setPath("/tmp/a");  // which does not exist: nothing tells of it, and the console goes on
  manager->setFile(true);
  manager->setConsole(true);
  LogChannel& channel = manager->getChannel("my log");
  LogChannel held("");
  held = channel;
  channel.info() << "1";
  for (const char* directory : {"/tmp/a", "/tmp/b"}) std::filesystem::create_directory(directory);
  for (int i = 0; i < 2; ++i) manager->setFile(false);
  channel.setPath("/tmp/b");  // with the file off, a path only waits
  EXPECT_FALSE(std::filesystem::exists("/tmp/b/my_log.log"));
  channel.setPath("/tmp/a");
  for (int i = 0; i < 2; ++i) channel.setFile(true);
  channel.setPattern("[%m]%n");
  EXPECT_EQ(openFiles(), 1);
  channel.info() << "2";
  manager->setPath("/tmp/b/");
  channel.info() << "3";
  EXPECT_EQ(openFiles(), 1);
  channel.setConsole(true);
  held.info() << "4";
  manager->setConsole(false);  // the sink is the category's, so the copy falls silent too
  held.info() << "5";
  EXPECT_EQ(console.str(), "1\n[2]\n[3]\n[4]\n");
  EXPECT_EQ(readFile("/tmp/a/my_log.log") + readFile("/tmp/b/my_log.log"), "[2]\n[3]\n[4]\n[5]\n");
  EXPECT_EQ(std::filesystem::status("/tmp/b/my_log.log").permissions(), std::filesystem::perms{0644});
}

TEST_F(Logging, RollsAtTenMebibytesAndKeepsOneBackup) {
  manager->setFile(true);
  LogChannel& channel = manager->getChannel("roll");
  for (int i = 1; i <= 21; ++i) {
    channel.info() << std::string(i == 21 ? 4 : 1024 * 1024 - 1, 'x');
    EXPECT_EQ(std::filesystem::exists("/tmp/roll.log.1"), i >= 10);
  }
  EXPECT_EQ(readFile("/tmp/roll.log"), "xxxx\n");
  EXPECT_EQ(std::filesystem::file_size("/tmp/roll.log.1"), 10485760U);
  EXPECT_FALSE(std::filesystem::exists("/tmp/roll.log.2"));
  EXPECT_EQ(openFiles(), 1);
}

}  // namespace
