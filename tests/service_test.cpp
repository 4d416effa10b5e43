// The service as a process, and what only whole processes show: its start and its end, the services that it watches.
#include <fcntl.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "hub/identity.h"
#include "hub/queues.h"
#include "hub/sends.h"
#include "hub/threads.h"
#include "monitor/config_file.h"
#include "monitor/process_lookup.h"
#include "support.h"

namespace {

using InProcess = Core;
const char* const configPath = "/etc/qd/svcmanager.conf";

TEST(Process, LeavesItsRecordAndOpensItsQueues) {
  static_cast<void>(
      std::system("cd /usr/local/bin; echo 'printf \"kernel $1\"' >uname; echo 'echo firmware $*' >fw_printenv;"
                  "sed -i 1i#!/bin/sh *; chmod +x *; echo 20000000 >/proc/sys/kernel/msgmnb"));
  chdir("/tmp");
  int input[2];
  ASSERT_EQ(pipe(input), 0);
  dup2(input[0], 0);
  std::string expected;
  for (const std::string size : {"20000000", "10485760"}) {  // the second start finds what the first one left
    const Service service(HUBKEEPER);
    expected += "I HubKeeper version: " VERSION "|I HubKeeper: " VERSION
                "|I ..|I HubKeeper Attempting to createQues|E HubKeeper Netsteward msg queue size is :" +
                size + R"(
|E HubKeeper Netsteward msg queue size is :10485760|I Ridgelink --> HubKeeper       Queue ID: 0|I HubKeeper --> Netsteward Queue ID: 1
|I HubKeeper --> Chronicler       Queue ID: 3|I HubKeeper --> Stagehand       Queue ID: 4|I HubKeeper --> Ridgelink       Queue ID: 5|I kernel -a|I firmware -n ver||)";
    EXPECT_TRUE(eventually([&] { return like(console(), columns(expected)); })) << readFile("/tmp/console");
  }
  EXPECT_NE(fcntl(input[0], F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(readFile("/media/data/messages.log"), readFile("/tmp/console"));
  const Lines first = splitLines(readFile("/tmp/console"));
  for (const auto& [at, pattern] :
       {std::pair{0U, "INFO \\d\\d [A-Z][a-z]{2} 20\\d\\d \\d\\d:\\d\\d:\\d\\d HubKeeper version: .*"},
        {2U, ".* HubKeeper Build Date: [A-Z][a-z]{2} [ \\d]\\d 20\\d\\d [\\d:]{8} "}})
    EXPECT_TRUE(std::regex_match(first.at(at), std::regex(pattern))) << first.at(at);
  EXPECT_EQ(readFile("/usr/local/bin/AppVersionFile.txt"), "HubKeeper:" VERSION "\nHubKeeper:" VERSION "\n");
  EXPECT_EQ(access("/tmp/bad_file", F_OK), 0);
  for (const auto& [name, key] : keys) {
    msqid_ds stats;
    ASSERT_EQ(msgctl(msgget(key, 0), IPC_STAT, &stats), 0);
    EXPECT_EQ(stats.msg_perm.mode & 0777, 0644);
    EXPECT_EQ(stats.msg_qbytes, name == 'N' ? 10485760U : 20000000U);
  }
}

TEST(Process, MakesTheseCallsAtItsStart) {
  // Of each thread, in its order. Detached is 1, SCHED_RR is 2; nothing is inherited explicitly, no argument handed over.
  const std::string transcript = R"(
inbound fopen64 bad_file ab+
inbound msgget 1002 932
inbound msgget 1000 932
inbound msgctl 2
inbound msgctl 1
inbound msgctl 2
inbound msgget 1011 932
inbound msgget 1010 932
inbound msgget 1006 932
inbound msgget 1003 932
inbound popen uname -a
inbound popen fw_printenv -n ver
inbound msgrcv 8192 0 0
main fopen64 /usr/local/bin/AppVersionFile.txt a
main fclose
main sched_get_priority_max 2
main pthread_attr_setschedparam 99
main pthread_attr_setdetachstate 1
main pthread_attr_setschedparam 99
main pthread_attr_setdetachstate 1
main pthread_create inbound 1 2 99 0 0
main pthread_create monitor 1 2 99 0 0
main pthread_attr_destroy
main pthread_attr_destroy
main clock_nanosleep 0 0 0 200000000 0
monitor sleep 40
monitor fopen64 /etc/qd/svcmanager.conf re
)";
  const Service service(HASTY, "none:0:0:0");
  std::string calls;
  EXPECT_TRUE(eventually([&] {
    static_cast<void>(
        std::system("sort -s -k1,1 /tmp/calls | sed '$!N; /^\\(main clock.*\\)\\n\\1$/!P; D' >/tmp/sorted"));
    return "\n" + (calls = readFile("/tmp/sorted")) == transcript;
  })) << calls;
}

TEST(Process, GoesOnWithoutEnlargementVersionFileAndTools) {
  std::filesystem::create_directory("/usr/local/bin/AppVersionFile.txt");
  const Service service(HUBKEEPER);
  waitUntilReady();
  EXPECT_EQ(logged("ERROR HubKeeper error opening version file: /usr/local/bin/AppVersionFile.txt"), 1);
  EXPECT_EQ(logged("ERROR HubKeeper Netsteward msg queue size is :16384"), 2);
  EXPECT_EQ(logged("ERROR HubKeeper Netsteward msg queue size failed to be adjusted: Operation not permitted"), 1);
}

TEST_F(InProcess, QueueStatisticsAndPiecesOfOutput) {
  planFailure("msgctl", 0, EIO);
  createQues();
  EXPECT_PRED2(like, log(),
               (Lines{"I HubKeeper Attempting to createQues", "E ..queue stats", "E ..size is :0",
                      "E ..failed to be adjusted: Input/output error", "E ..queue stats", "E ..size is :0"}));
  EXPECT_EQ(logCommandOutput("exit 3"), 3 << 8);
  logCommandOutput("printf '%0127d\\n%%s a%0126d' 0 0");
  const std::string full(127, '0');
  EXPECT_EQ(log(), (Lines{"INFO " + full, "INFO ", "", "INFO %s a" + full.substr(4), "INFO 000"}));
  planFailure("popen", 0, ENOMEM);
  EXPECT_EQ(logCommandOutput("uname -a"), -1);
  EXPECT_EQ(log(), Lines{"ERROR HubKeeper: Failed to run command uname -a"});
}

TEST_F(InProcess, EachFailedStepEndsTheProcessWithItsTwoTexts) {
  const auto steps = [] {
    initThreadAttributes();
    setThreadScheduling();
    createThreads();
    destroyThreadAttributes();
    cancelThreads();
  };
  // The call that fails, how often it succeeds before, the line logged and the text on standard error.
  const std::string table = R"(
sched_get_priority_max      | 0 | scheduling thread priority failed            | sched_get_priority_max failed
pthread_attr_setschedparam  | 0 | scheduling inbound thread param failed       | pthread_attr_setschedparam inbound failed
pthread_attr_setdetachstate | 0 | scheduling inbound thread detach state failed | pthread_attr_setdetachstate inbound failed
pthread_attr_setschedparam  | 1 | scheduling monitor thread param failed       | pthread_attr_setschedparam monitor failed
pthread_attr_setdetachstate | 1 | scheduling monitor detach state failed       | pthread_attr_setdetachstate monitor failed
pthread_create              | 0 | failed to create inbound thread              | pthread_create inbound failed
pthread_create              | 1 | failed to create monitor thread              | pthread_create monitor failed
pthread_attr_destroy        | 0 | failed to destroy inbound thread             | pthread_attr_destroy inbound failed
pthread_attr_destroy        | 1 | failed to destroy monitor thread             | pthread_attr_destroy monitor failed
pthread_cancel              | 0 | failed to cancel inbound thread              | pthread_cancel inbound failed
pthread_cancel              | 1 | failed to cancel monitor thread              | pthread_cancel monitor failed
msgget                      | 0 | failed to open inbound message queue         | msgget
msgget                      | 1 | failed to open Netsteward inbound queue      | msgget
msgget                      | 2 | failed to open Clocksteward inbound queue    | msgget
msgget                      | 3 | failed to open Chronicler inbound queue      | msgget
msgget                      | 4 | failed to open Stagehand inbound queue       | Out to stagehand queue setup failed
msgget                      | 5 | failed to open outbound queue                | In From Ridgelink queue setup failed
)";
  for (const std::string& row : splitLines(table.substr(1))) {
    const Lines column = columns(row);
    planFailure(column[0], std::stoi(column[1]), ENOSPC);
    EXPECT_EXIT(column[0] == "msgget" ? createQues() : steps(), testing::ExitedWithCode(1), "");
    planFailure("", 0, 0);
    const Lines lines = log(), wanted = {"ERROR HubKeeper " + column[2], column[3] + ": No space left on device"};
    // With the threads running, lines of their own may stand around and between these.
    EXPECT_LT(std::find(lines.begin(), lines.end(), wanted[0]), std::find(lines.begin(), lines.end(), wanted[1]))
        << row;
    EXPECT_NE(std::find(lines.begin(), lines.end(), wanted[1]), lines.end()) << row;
  }
}

TEST(Process, EndsInOrderWhileOtherThreadsLog) {
  // The monitor thread logs without a pause while the main thread gives up; nothing may be torn away from under it.
  writeFile(configPath, "service=/nowhere/a\nservice=/nowhere/b\n");
  for (int i = 0; i < 200; ++i) {
    std::FILE* output =
        popen("TSAN_OPTIONS=\"$TSAN_OPTIONS atexit_sleep_ms=0\" HUB_FAILURE=clock_nanosleep:0:22:0 exec " HASTY
              " 2>/dev/null",
              "r");
    std::string printed;
    for (char piece[4096]; fgets(piece, sizeof piece, output) != nullptr;) printed += piece;
    ASSERT_EQ(pclose(output), 1 << 8) << printed;
    ASSERT_EQ(printed.find("torn down"), printed.npos) << printed;
    ASSERT_NE(printed.find(" HubKeeper: clock_nanosleep failed for main \n"), std::string::npos) << printed;
  }
}

TEST(Process, ReceivesWhateverComes) {
  static_cast<void>(std::system("cd /proc/sys/kernel; echo 20000 >msgmax; echo 65536 >msgmnb"));
  const Service service(HUBKEEPER);
  waitUntilReady();
  sendBundle("");
  // One that is too long costs one failure line, and the one behind it is served, a Packet of 8192 bytes.
  const long large[1200] = {1};
  ASSERT_EQ(msgsnd(msgget(1002, 0), &large, 8193, 0), 0);
  sendBundle(text("fe\"x{8187}\""));
  ASSERT_EQ(drain('R', 1), Lines{"\xFE"});
  EXPECT_TRUE(eventually([&] { return logged("ERROR bad opcode: fe") == 1; }));
  EXPECT_EQ(logged("ERROR HubKeeper: Received a queue message of size 0 on inbound queue"), 1);
  EXPECT_EQ(logged("ERROR HubKeeper: msgrcv inbound failed, sizeReceived = -1"), 1);
}

TEST(Process, ServesWhatStandsInForAMessageThatWasTooLong) {
  // Each receive says that the message is too long, but somebody else takes it before the service does.
  const Service service(HASTY, "msgrcv:0:7:20");
  sendBundle("");
  sendBundle(text("fe\"x{8187}\""));
  EXPECT_EQ(drain('R', 1), Lines{"\xFE"});
  EXPECT_TRUE(eventually([&] { return logged("ERROR bad opcode: fe") == 1; }));
  EXPECT_EQ(logged("ERROR HubKeeper: Received a queue message of size 0 on inbound queue"), 1);
  EXPECT_NE(readFile("/tmp/calls").find("msgrcv 8193 0 6144\n"), std::string::npos);  // cut short, and without waiting
}

TEST_F(InProcess, ReadsTheConfigurationToTheLetter) {
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
      const std::size_t known = record[0] != '!', separator = record.find('=');
      const std::string key = record.substr(1 - known, separator + known - 1), value = record.substr(separator + 1);
      lines += "INFO key: " + key + " value: " + value + "\n";
      if (known == 0)
        lines += "ERROR HubKeeper: Did not recognize config option key[" + key + "] value[" + value + "]\n";
    }
    EXPECT_EQ(log(), splitLines(lines)) << row;
  }
}

TEST_F(InProcess, FindsProcessesByTheirFirstArgument) {
  const auto start = [](const char* first, const char* second = nullptr) {
    const pid_t id = fork();
    if (id == 0) _exit(execl(IDLE_SERVICE, first, second, nullptr));
    eventually([&] { return readFile("/proc/" + std::to_string(id) + "/comm") == "idle_service\n"; });
    return id;
  };
  const long full = start("/opt/bin/alpha", "beta"), bare = start("gamma"), blank = start("delta with blanks");
  const long second = start("/opt/bin/alpha"), none = start(""), zombie = start("omega");
  kill(static_cast<pid_t>(zombie), SIGKILL);
  siginfo_t info;
  waitid(P_PID, static_cast<id_t>(zombie), &info, WEXITED | WNOWAIT);
  ASSERT_GT(none, 0);
  const std::string self = readFile("/proc/self/cmdline").c_str();
  const std::map<std::string, long> found = {
      {"/opt/bin/alpha", std::min(full, second)}, {"gamma", bare}, {"delta", blank}, {self, getpid()}};
  for (const auto& [name, id] : found) EXPECT_EQ(findProcess(name.c_str()), id) << name;
  for (const char* name :
       {"omega", "alpha", "beta", "with", "delta with blanks", "/opt/bin/gamma", "gamm", "gammas", ""})
    EXPECT_EQ(findProcess(name), -1) << name;
  planFailure("opendir", 0, EACCES);
  EXPECT_EQ(findProcess("gamma"), -1);
  EXPECT_EQ(log(), (Lines{"ERROR HubKeeper failed to open proc", "can't open /proc: Permission denied"}));
}

std::string stopped(const std::string& name) { return "ERROR HubKeeper: service " + name + " has stopped running"; }
std::string restarted(const std::string& name) { return "INFO Successfully restarted " + name; }

TEST(Process, DeadServicesComeBackAndClockstewardOnlyWhileAllowed) {
  // The empty entry never matches, so that its lines count the cycles.
  const std::string a = "/tmp/alpha", b = "/tmp/beta", c = "/tmp/clocksteward", tick;
  writeFile(configPath, "service=" + a + "\nservice=" + b + "\nservice=" + c + "\nservice=\n");
  for (const std::string& name : {a, b, c}) std::filesystem::copy(IDLE_SERVICE, name);
  const auto idOf = [](const std::string& name) { return findProcess(name.c_str()); };
  const Service service(HASTY, "none:0:0:20");  // cycles of 100 ms, in which a service comes up
  waitUntilReady();
  sendBundle(text("70\"tmp/transfer \""));  // one more descriptor that must not be inherited
  const auto awaitCycles = [&](long count) {
    const long target = logged(restarted(tick)) + count;
    ASSERT_TRUE(eventually([&] { return logged(restarted(tick)) >= target; }));
  };
  awaitCycles(3);
  EXPECT_TRUE(readFile("/tmp/slept").starts_with("slept 40\nslept 5\nslept 5\n"));
  const long quiet = static_cast<long>(console().size());
  for (const std::string& name : {a, b, c}) {
    const long before = idOf(name);
    ASSERT_GT(before, 0);
    kill(static_cast<pid_t>(before), SIGKILL);
    long id = -1;
    ASSERT_TRUE(eventually([&] { return (id = idOf(name)) > 0 && id != before; })) << name;
    // Standard input, output and error, and nothing else, but for what its loader opens for a moment.
    const std::string descriptors = "/proc/" + std::to_string(id) + "/fd";
    ASSERT_TRUE(eventually([&] {
      const std::filesystem::directory_iterator entries(descriptors);
      return std::all_of(begin(entries), end(entries), [](const auto& entry) { return entry.path().filename() < "3"; });
    }));
  }
  awaitCycles(2);
  sendBundle(text("75"));
  ASSERT_TRUE(eventually([&] { return idOf(c) == -1; }));
  awaitCycles(3);
  EXPECT_EQ(idOf(c), -1);
  sendBundle(text("76"));
  ASSERT_TRUE(eventually([&] { return idOf(c) > 0; }));
  awaitCycles(2);
  Lines lines = console();
  lines.erase(lines.begin(), lines.begin() + quiet);
  std::erase_if(lines, [&](const std::string& line) { return line == stopped(tick) || line == restarted(tick); });
  EXPECT_EQ(lines, (Lines{stopped(a), restarted(a), stopped(b), restarted(b), stopped(c), restarted(c),
                          "WARN Clocksteward application has been disabled",
                          "WARN Clocksteward application has been enabled", stopped(c), restarted(c)}));
}

TEST(Process, SaysWhyItDoesNotWatch) {
  // The configuration, a call that fails, and the last lines.
  const std::string table = R"(
rm -f      |             | E Failed to open config file: /etc/qd/svcmanager.conf | E HubKeeper: Failed to parse config file
echo debug=true >  |     | I key: debug value: true | I HubKeeper: Not monitoring services as the debug flag was set in the config file
echo debug=false > |     | I key: debug value: false | I HubKeeper: No services specified to monitor in config file
echo service=/x >  | system:0:12 | E HubKeeper: service /x has stopped running | E HubKeeper: service /x has stopped running
)";
  for (const std::string& row : splitLines(table.substr(1))) {
    const Lines column = columns(row);
    static_cast<void>(std::system((column[0] + " " + configPath).c_str()));
    const Service service(HASTY, column[1]);
    EXPECT_TRUE(eventually([&] {
      const Lines lines = console();
      return lines.size() > 2 && like(Lines(lines.end() - 2, lines.end()), Lines(column.end() - 2, column.end()));
    })) << row;
  }
}

}  // namespace
