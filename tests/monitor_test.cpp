// The configuration file, the process lookup, and real services that die and come back.
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "monitor/config_file.h"
#include "monitor/process_lookup.h"
#include "support.h"
#include "wraps.h"

namespace {

using Monitor = Core;
const char* const configPath = "/etc/qd/svcmanager.conf";

TEST_F(Monitor, ReadsTheConfigurationToTheLetter) {
  const auto seen = [](const std::string& key, const std::string& value) {
    return "INFO key: " + key + " value: " + value + "\n";
  };
  const auto unknown = [&](const std::string& key, const std::string& value) {
    return seen(key, value) + "ERROR HubKeeper: Did not recognize config option key[" + key + "] value[" + value +
           "]\n";
  };
  struct Row {
    std::string text;
    Lines services;
    bool debug;
    std::string lines;
  };
  const Row rows[] = {
      {"", {}, false, ""},
      {"service=/a\nservice=/b\nservice=/a\n",
       {"/a", "/b", "/a"},
       false,
       seen("service", "/a") + seen("service", "/b") + seen("service", "/a")},
      {"service=a=b", {"a=b"}, false, seen("service", "a=b")},
      {"debug=true\ndebug=false\n", {}, false, seen("debug", "true") + seen("debug", "false")},
      {"debug=false\nservice=x\ndebug=true",
       {"x"},
       true,
       seen("debug", "false") + seen("service", "x") + seen("debug", "true")},
      {"debug=true \n", {}, false, seen("debug", "true ")},
      {"debug=TRUE\n", {}, false, seen("debug", "TRUE")},
      {"service = x\n", {}, false, unknown("service ", " x")},
      {"service=x\r\ndebug=true\r\n", {"x\r"}, false, seen("service", "x\r") + seen("debug", "true\r")},
      {"# note\nservice=x\nservice=y\n", {"y"}, false, unknown("# note\nservice", "x") + seen("service", "y")},
      {"\nservice=x\n", {}, false, unknown("\nservice", "x")},
      {"Service=x\n=y\n", {}, false, unknown("Service", "x") + unknown("", "y")},
      {"service=\nservice=", {"", ""}, false, seen("service", "") + seen("service", "")},
      {"service=x\nservice=", {"x", ""}, false, seen("service", "x") + seen("service", "")},
      {"service=x\n\n", {"x"}, false, seen("service", "x") + unknown("\n", "x")},
      {"service=x\nservice", {"x", "x"}, false, seen("service", "x") + seen("service", "x")},
      {"service", {""}, false, seen("service", "")},
  };
  for (const Row& row : rows) {
    writeFile(configPath, row.text);
    Lines services;
    bool debug = false;
    EXPECT_TRUE(parseConfigFile(services, debug));
    EXPECT_EQ(services, row.services) << row.text;
    EXPECT_EQ(debug, row.debug) << row.text;
    EXPECT_EQ(log(), splitLines(row.lines));
  }
  writeFile(configPath, "service=new\n");
  Lines services = {"kept"};
  bool debug = true;
  parseConfigFile(services, debug);
  EXPECT_EQ(services, (Lines{"kept", "new"}));
  EXPECT_TRUE(debug);
  log();
  unlink(configPath);
  EXPECT_FALSE(parseConfigFile(services, debug));
  EXPECT_EQ(services, (Lines{"kept", "new"}));
  EXPECT_EQ(log(), Lines{"ERROR Failed to open config file: /etc/qd/svcmanager.conf"});
}

pid_t start(const std::vector<const char*>& arguments) {
  const pid_t id = fork();
  if (id == 0) {
    std::vector<const char*> list = arguments;
    list.push_back(nullptr);
    execv(IDLE_SERVICE, const_cast<char* const*>(list.data()));
    _exit(127);
  }
  eventually([&] { return readFile("/proc/" + std::to_string(id) + "/comm") == "idle_service\n"; });
  return id;
}

TEST_F(Monitor, FindsProcessesByTheirFirstArgument) {
  const pid_t full = start({"/opt/bin/alpha", "beta"});
  const pid_t bare = start({"gamma"});
  const pid_t blank = start({"delta with blanks"});
  const pid_t second = start({"/opt/bin/alpha"});
  start({""});
  const pid_t zombie = start({"omega"});
  EXPECT_EQ(findProcess("omega"), zombie);
  kill(zombie, SIGKILL);
  siginfo_t info;
  waitid(P_PID, static_cast<id_t>(zombie), &info, WEXITED | WNOWAIT);
  const std::string self = readFile("/proc/self/cmdline").c_str();
  const std::pair<const char*, long> rows[] = {
      {"/opt/bin/alpha", full},
      {"gamma", bare},
      {"delta", blank},
      {"omega", -1},
      {"alpha", -1},
      {"beta", -1},
      {"with", -1},
      {"delta with blanks", -1},
      {"/opt/bin/gamma", -1},
      {"gamm", -1},
      {"gammas", -1},
      {"", -1},
      {self.c_str(), getpid()},
  };
  for (const auto& [name, id] : rows) EXPECT_EQ(findProcess(name), id) << name;
  kill(full, SIGKILL);
  waitpid(full, nullptr, 0);
  EXPECT_EQ(findProcess("/opt/bin/alpha"), second);
  EXPECT_EQ(log(), Lines{});

  planFault("opendir", 0, EACCES);
  EXPECT_EQ(findProcess("gamma"), -1);
  EXPECT_EQ(log(), Lines{"ERROR HubKeeper failed to open proc"});
  EXPECT_EQ(errors(), Lines{"can't open /proc: Permission denied"});
}

// A board on which the services named run; the service under test is in haste, a cycle takes 50 ms.
class Board : public testing::Test {
 protected:
  void install(const Lines& names, const std::string& config) {
    for (const std::string& name : names) std::filesystem::copy(IDLE_SERVICE, name);
    writeFile(configPath, config);
  }
  static long idOf(const std::string& name) { return findProcess(name.c_str()); }
  static void watching(const Service& service, const std::string& last) {
    eventually([&] { return service.logged("INFO HubKeeper: Start Monitoring service " + last + " "); });
  }
  static std::string stopped(const std::string& name) {
    return "ERROR HubKeeper: service " + name + " has stopped running ";
  }
  static std::string restarted(const std::string& name) { return "INFO Successfully restarted " + name + " "; }
};

TEST_F(Board, DeadServicesComeBackAndClockstewardOnlyWhileAllowed) {
  const std::string a = "/tmp/alpha", b = "/tmp/beta", c = "/tmp/clocksteward";
  const std::string tick = "/nowhere";  // never starts, so that its lines count the cycles
  install({a, b, c}, "service=" + a + "\nservice=" + b + "\nservice=" + c + "\nservice=" + tick + "\n");
  Service service(HASTY);
  service.waitUntilReady();
  watching(service, tick);
  for (const std::string& name : {a, b, c}) {
    ASSERT_TRUE(eventually([&] { return service.logged(stopped(name)) && idOf(name) > 0; }));
  }
  sendBundle(packet(0x70, "tmp/transfer "));  // one more descriptor that must not be inherited
  const auto awaitCycles = [&](long count) {
    const auto now = [&] {
      const Lines lines = service.console();
      return std::count(lines.begin(), lines.end(), stopped(tick));
    };
    const long target = now() + count;
    ASSERT_TRUE(eventually([&] { return now() >= target; }));
  };
  awaitCycles(2);
  const std::size_t quiet = service.console().size();
  for (const std::string& name : {a, b, c}) {
    const long before = idOf(name);
    kill(static_cast<pid_t>(before), SIGKILL);
    ASSERT_TRUE(eventually([&] { return idOf(name) > 0 && idOf(name) != before; })) << name;
    // What it inherits: standard input, output and error, and nothing else (a loader at work has one more for a moment).
    EXPECT_TRUE(eventually([&] {
      Lines descriptors;
      for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(idOf(name)) + "/fd")) {
        descriptors.push_back(entry.path().filename());
      }
      return descriptors.size() == 3 && *std::max_element(descriptors.begin(), descriptors.end()) == "2";
    }));
  }
  awaitCycles(2);
  sendBundle(packet(0x75));
  ASSERT_TRUE(eventually([&] { return idOf(c) == -1; }));
  awaitCycles(5);
  EXPECT_EQ(idOf(c), -1);
  sendBundle(packet(0x76));
  ASSERT_TRUE(eventually([&] { return idOf(c) > 0; }));
  awaitCycles(2);
  Lines lines = service.console();
  lines.erase(lines.begin(), lines.begin() + static_cast<long>(quiet));
  std::erase_if(lines, [&](const std::string& line) { return line == stopped(tick) || line == restarted(tick); });
  EXPECT_EQ(lines, (Lines{stopped(a), restarted(a), stopped(b), restarted(b), stopped(c), restarted(c),
                          "WARN Clocksteward application has been disabled ",
                          "WARN Clocksteward application has been enabled ", stopped(c), restarted(c)}));
}

TEST_F(Board, SaysWhyItDoesNotWatch) {
  const std::pair<const char*, Lines> rows[] = {
      {nullptr,
       {"ERROR Failed to open config file: /etc/qd/svcmanager.conf ", "ERROR HubKeeper: Failed to parse config file "}},
      {"debug=true\n",
       {"INFO key: debug value: true ",
        "INFO HubKeeper: Not monitoring services as the debug flag was set in the config file "}},
      {"debug=false\n",
       {"INFO key: debug value: false ", "INFO HubKeeper: No services specified to monitor in config file "}},
  };
  for (const auto& [config, expected] : rows) {
    unlink(configPath);
    if (config != nullptr) writeFile(configPath, config);
    Service service(HASTY);
    service.waitUntilReady();
    const Lines& last = expected;
    EXPECT_TRUE(eventually([&] { return service.logged(last.back()); }));
    const Lines lines = service.console();
    EXPECT_EQ(Lines(lines.end() - 2, lines.end()), expected);
  }
}

TEST_F(Board, AnEntryThatCannotStartIsTriedInEveryCycle) {
  install({"/tmp/alpha"}, "service=/tmp/alpha --option\nservice=\n");
  Service hasty(HASTY);
  ASSERT_TRUE(
      eventually([&] { return hasty.logged(restarted("/tmp/alpha --option"), 3) && hasty.logged(restarted(""), 3); }));
}

TEST_F(Board, AShellThatCannotBeStartedIsNoSuccess) {
  install({}, "service=/tmp/alpha\n");
  Service hasty(HASTY, {"HUB_FAULT=system:0:12"});
  ASSERT_TRUE(eventually([&] { return hasty.logged(stopped("/tmp/alpha"), 3); }));
  EXPECT_FALSE(hasty.logged(restarted("/tmp/alpha")));
}

}  // namespace
