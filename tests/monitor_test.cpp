// The configuration file, the process lookup, and real services that die and come back.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
  // The file, the services, what becomes of a debug switch that is on, and the records logged, with ! those not known.
  const std::string table = R"(
=                                     |            | 1
=service=/a\0aservice=/b\0aservice=/a\0a | =/a =/b =/a | 1 | =service=/a =service=/b =service=/a
=service=a=b                          | =a=b       | 1 | =service=a=b
=debug=true\0adebug=false\0a          |            | 0 | =debug=true =debug=false
=debug=false\0aservice=x\0adebug=true | =x         | 1 | =debug=false =service=x =debug=true
=debug=true\20\0a                     |            | 0 | =debug=true\20
=debug=TRUE\0a                        |            | 0 | =debug=TRUE
=service\20=\20x\0a                   |            | 1 | =!service\20=\20x
=service=x\0d\0adebug=true\0d\0a      | =x\0d      | 0 | =service=x\0d =debug=true\0d
=#\0aservice=x\0aservice=y\0a         | =y         | 1 | =!#\0aservice=x =service=y
=Service=x\0a=y\0a                    |            | 1 | =!Service=x =!=y
=service=x\0aservice=                 | =x =       | 1 | =service=x =service=
=service=x\0a\0a                      | =x         | 1 | =service=x =!\0a=x
=service=x\0aservice                  | =x =x      | 1 | =service=x =service=x
=service                              | =          | 1 | =service=
)";
  for (const std::string& row : splitLines(table.substr(1))) {
    Lines column = columns(row);
    column.resize(4);
    writeFile(configPath, text(column[0]));
    Lines services = {"kept"};
    bool debug = true;
    EXPECT_TRUE(parseConfigFile(services, debug));
    EXPECT_EQ(services, texts("=kept " + column[1])) << row;
    EXPECT_EQ(debug, column[2] == "1") << row;
    std::string lines;
    for (const std::string& record : texts(column[3])) {
      const bool known = record[0] != '!';
      const std::string key = record.substr(known ? 0 : 1, record.find('=') - (known ? 0 : 1));
      const std::string value = record.substr(record.find('=') + 1);
      lines += "INFO key: " + key + " value: " + value + "\n";
      if (!known) lines += "ERROR HubKeeper: Did not recognize config option key[" + key + "] value[" + value + "]\n";
    }
    EXPECT_EQ(log(), splitLines(lines)) << row;
  }
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
  const pid_t full = start({"/opt/bin/alpha", "beta"}), bare = start({"gamma"}), blank = start({"delta with blanks"});
  const pid_t second = start({"/opt/bin/alpha"}), zombie = start({"omega"});
  start({""});
  kill(zombie, SIGKILL);
  siginfo_t info;
  waitid(P_PID, static_cast<id_t>(zombie), &info, WEXITED | WNOWAIT);
  const std::string self = readFile("/proc/self/cmdline").c_str();
  const std::pair<std::string, long> rows[] = {{"/opt/bin/alpha", full},
                                               {"gamma", bare},
                                               {"delta", blank},
                                               {self, getpid()},
                                               {"omega", -1},
                                               {"alpha", -1},
                                               {"beta", -1},
                                               {"with", -1},
                                               {"delta with blanks", -1},
                                               {"/opt/bin/gamma", -1},
                                               {"gamm", -1},
                                               {"gammas", -1},
                                               {"", -1}};
  for (const auto& [name, id] : rows) EXPECT_EQ(findProcess(name.c_str()), id) << name;
  kill(full, SIGKILL);
  waitpid(full, nullptr, 0);
  EXPECT_EQ(findProcess("/opt/bin/alpha"), second);
  planFault("opendir", 0, EACCES);
  EXPECT_EQ(findProcess("gamma"), -1);
  EXPECT_EQ(log(), Lines{"ERROR HubKeeper failed to open proc"});
  EXPECT_EQ(errors(), Lines{"can't open /proc: Permission denied"});
}

std::string stopped(const std::string& name) { return "ERROR HubKeeper: service " + name + " has stopped running "; }
std::string restarted(const std::string& name) { return "INFO Successfully restarted " + name + " "; }

TEST(Board, DeadServicesComeBackAndClockstewardOnlyWhileAllowed) {
  // The empty entry never matches, so that its lines count the cycles.
  const std::string a = "/tmp/alpha", b = "/tmp/beta", c = "/tmp/clocksteward", tick;
  writeFile(configPath, "service=" + a + "\nservice=" + b + "\nservice=" + c + "\nservice=\n");
  for (const std::string& name : {a, b, c}) std::filesystem::copy(IDLE_SERVICE, name);
  const auto idOf = [](const std::string& name) { return findProcess(name.c_str()); };
  Service service(HASTY);
  service.waitUntilReady();
  sendBundle(text("70\"tmp/transfer \""));  // one more descriptor that must not be inherited
  const auto awaitCycles = [&](long count) {
    const long target = service.logged(restarted(tick)) + count;
    ASSERT_TRUE(eventually([&] { return service.logged(restarted(tick)) >= target; }));
  };
  awaitCycles(3);
  EXPECT_TRUE(readFile("/tmp/slept").starts_with("slept 40\nslept 5\nslept 5\n"));
  const long quiet = static_cast<long>(service.console().size());
  for (const std::string& name : {a, b, c}) {
    const long before = idOf(name);
    ASSERT_GT(before, 0);
    kill(static_cast<pid_t>(before), SIGKILL);
    long id = -1;
    ASSERT_TRUE(eventually([&] { return (id = idOf(name)) > 0 && id != before; })) << name;
    // Standard input, output and error, and nothing else, but for what its loader opens for a moment.
    const std::string descriptors = "/proc/" + std::to_string(id) + "/fd";
    EXPECT_TRUE(eventually([&] {
      const std::filesystem::directory_iterator entries(descriptors);
      return std::all_of(begin(entries), end(entries), [](const auto& entry) { return entry.path().filename() < "3"; });
    }));
  }
  awaitCycles(2);
  sendBundle(packet(0x75));
  ASSERT_TRUE(eventually([&] { return idOf(c) == -1; }));
  awaitCycles(3);
  EXPECT_EQ(idOf(c), -1);
  sendBundle(packet(0x76));
  ASSERT_TRUE(eventually([&] { return idOf(c) > 0; }));
  awaitCycles(2);
  Lines lines = service.console();
  lines.erase(lines.begin(), lines.begin() + quiet);
  std::erase_if(lines, [&](const std::string& line) { return line == stopped(tick) || line == restarted(tick); });
  EXPECT_EQ(lines, (Lines{stopped(a), restarted(a), stopped(b), restarted(b), stopped(c), restarted(c),
                          "WARN Clocksteward application has been disabled ",
                          "WARN Clocksteward application has been enabled ", stopped(c), restarted(c)}));
}

TEST(Board, SaysWhatItDoes) {
  // The configuration, the call that fails, and the last lines.
  const std::tuple<std::string, const char*, Lines> rows[] = {
      {"",
       "open:0:0",
       {"ERROR Failed to open config file: /etc/qd/svcmanager.conf ", "ERROR HubKeeper: Failed to parse config file "}},
      {"debug=true\n",
       nullptr,
       {"INFO key: debug value: true ",
        "INFO HubKeeper: Not monitoring services as the debug flag was set in the config file "}},
      {"debug=false\n",
       nullptr,
       {"INFO key: debug value: false ", "INFO HubKeeper: No services specified to monitor in config file "}},
      {"service=/x\n",
       "system:0:12",
       {"INFO HubKeeper: Start Monitoring service /x ", stopped("/x"), stopped("/x"), stopped("/x")}}};
  for (const auto& [config, fault, expected] : rows) {
    if (!config.empty()) writeFile(configPath, config);
    Service service(HASTY, fault);
    service.waitUntilReady();
    EXPECT_TRUE(eventually([&, &expected = expected] {
      const Lines lines = service.console();
      return std::search(lines.begin(), lines.end(), expected.begin(), expected.end()) != lines.end();
    }));
  }
}

}  // namespace
