// The service as a process: its start, its receive loop, and each way in which it ends.
#include <fcntl.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <regex>

#include "hub/identity.h"
#include "hub/queues.h"
#include "hub/threads.h"
#include "support.h"
#include "wraps.h"

namespace {

using Steps = Core;

TEST(Start, LeavesItsRecordAndOpensItsQueues) {
  std::system(
      "printf '#!/bin/sh\\nprintf \"kernel $1\"' >/usr/local/bin/uname; chmod +x /usr/local/bin/uname;"
      "printf '#!/bin/sh\\necho firmware $*' >/usr/local/bin/fw_printenv; chmod +x /usr/local/bin/fw_printenv");
  chdir("/tmp");
  int input[2];
  ASSERT_EQ(pipe(input), 0);
  dup2(input[0], 0);
  writeFile("/proc/sys/kernel/msgmnb", "20000000");
  for (const std::string size : {"20000000", "10485760"}) {  // the second start finds what the first one left
    const Service service(HUBKEEPER);
    ASSERT_TRUE(eventually([&] { return service.console().size() == 14; }));
    Lines lines = service.console();
    lines[2] =
        std::regex_replace(lines[2], std::regex(": [A-Z][a-z]{2} [ \\d]\\d 20\\d\\d \\d\\d:\\d\\d:\\d\\d $"), "?");
    EXPECT_PRED2(like, lines,
                 (Lines{"I HubKeeper version: " VERSION " ", "I HubKeeper: " VERSION " ", "I HubKeeper Build Date?",
                        "I HubKeeper Attempting to createQues ", "E ..queue size is :" + size + " ",
                        "E HubKeeper Netsteward msg queue size is :10485760 ",
                        "I Ridgelink --> HubKeeper       Queue ID: 0 ", "I HubKeeper --> Netsteward Queue ID: 1 ",
                        "I ..Chronicler       Queue ID: 3 ", "I ..Stagehand       Queue ID: 4 ",
                        "I ..Ridgelink       Queue ID: 5 ", "I kernel -a ", "I firmware -n ver", " "}));
    EXPECT_NE(fcntl(input[0], F_GETFL) & O_NONBLOCK, 0);
  }
  EXPECT_EQ(readFile("/media/data/messages.log"), readFile("/tmp/service1.out") + readFile("/tmp/service2.out"));
  EXPECT_EQ(readFile("/usr/local/bin/AppVersionFile.txt"), "HubKeeper:" VERSION "\nHubKeeper:" VERSION "\n");
  EXPECT_EQ(access("/tmp/bad_file", F_OK), 0);
  for (const int key : {1000, 1002, 1003, 1006, 1010, 1011}) {
    msqid_ds stats;
    ASSERT_EQ(msgctl(msgget(key, 0), IPC_STAT, &stats), 0);
    EXPECT_EQ(stats.msg_perm.mode & 0777, 0644);
    EXPECT_EQ(stats.msg_qbytes, key == 1000 ? 10485760U : 20000000U);
  }
}

TEST(Start, GoesOnWithoutEnlargementVersionFileAndTools) {
  mkdir("/usr/local/bin/AppVersionFile.txt", 0755);
  Service service(HUBKEEPER);
  service.waitUntilReady();
  EXPECT_EQ(service.logged("ERROR HubKeeper error opening version file: /usr/local/bin/AppVersionFile.txt "), 1);
  EXPECT_EQ(service.logged("ERROR HubKeeper Netsteward msg queue size is :16384 "), 2);
  EXPECT_EQ(service.logged("ERROR HubKeeper Netsteward msg queue size failed to be adjusted: Operation not permitted "),
            1);
}

TEST_F(Steps, QueueStatisticsAndPiecesOfOutput) {
  planFault("msgctl", 0, EIO);
  createQues();
  EXPECT_PRED2(like, log(),
               (Lines{"I HubKeeper Attempting to createQues", "E ..queue stats", "E ..size is :0",
                      "E ..failed to be adjusted: Input/output error", "E ..queue stats", "E ..size is :0"}));
  EXPECT_EQ(logCommandOutput("exit 3"), 3 << 8);
  logCommandOutput("printf '%0127d\\n%%s a%0126d' 0 0");
  const std::string full(127, '0');
  EXPECT_EQ(log(), (Lines{"INFO " + full, "INFO ", "", "INFO %s a" + full.substr(4), "INFO 000"}));
  planFault("popen", 0, ENOMEM);
  EXPECT_EQ(logCommandOutput("uname -a"), -1);
  EXPECT_EQ(log(), Lines{"ERROR HubKeeper: Failed to run command uname -a"});
}

TEST_F(Steps, EachFailedStepEndsTheProcessWithItsTwoTexts) {
  const auto threads = [] {
    initThreadAttributes();
    setThreadScheduling();
    createThreads();
    destroyThreadAttributes();
    cancelThreads();
  };
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
    clearFaults();
    planFault(column[0], std::stoi(column[1]), ENOSPC, 1);
    // With the threads running, their own output may stand around the line.
    expectEnd(column[0] == "msgget" ? std::function<void()>(createQues) : threads,
              "(^|\n)" + column[3] + ": No space left on device\n");
    const Lines lines = log();
    EXPECT_NE(std::find(lines.begin(), lines.end(), "ERROR HubKeeper " + column[2]), lines.end()) << row;
  }
}

TEST(Service, EndsInOrderWhileOtherThreadsLog) {
  // The monitor thread logs without a pause while the main thread gives up; nothing may be torn away from under it.
  writeFile("/etc/qd/svcmanager.conf", "service=/nowhere/a\nservice=/nowhere/b\n");
  for (int i = 0; i < 200; ++i) {
    std::FILE* output = popen("HUB_FAULT=clock_nanosleep:0:22:0 exec " HASTY " 2>/dev/null", "r");
    std::string console;
    for (char piece[4096]; fgets(piece, sizeof piece, output) != nullptr;) console += piece;
    ASSERT_EQ(pclose(output), 1 << 8) << console;
    ASSERT_NE(console.find(" HubKeeper: clock_nanosleep failed for main \n"), std::string::npos) << console;
  }
}

TEST(Service, ReceivesWhateverComes) {
  writeFile("/proc/sys/kernel/msgmax", "20000");
  writeFile("/proc/sys/kernel/msgmnb", "65536");
  Service service(HUBKEEPER);
  service.waitUntilReady();
  sendBundle("");
  // One that is too long costs one failure line, and the one behind it is served, a Packet of 8192 bytes.
  const struct {
    long mtype = 1;
    char mtext[9000] = {};
  } large;
  ASSERT_EQ(msgsnd(msgget(1002, 0), &large, 8193, 0), 0);
  sendBundle(text("fe\"x{8187}\""));
  EXPECT_EQ(drain(toRidgelink, 1), Lines{"\xFE"});
  EXPECT_TRUE(eventually([&] { return service.logged("ERROR bad opcode: fe ") == 1; }));
  EXPECT_EQ(service.logged("ERROR HubKeeper: Received a queue message of size 0 on inbound queue "), 1);
  const std::string failed = "ERROR HubKeeper: msgrcv inbound failed, sizeReceived = -1 ";
  EXPECT_EQ(service.logged(failed), 1);
  msgctl(msgget(1002, 0), IPC_RMID, nullptr);
  EXPECT_TRUE(eventually([&] { return service.logged(failed) == 2; }));
  service.waitUntilReady();

  Bytes content;  // of several mebibytes
  for (unsigned i = 0; content.size() < 4 << 20; ++i) content += static_cast<char>(i * 2654435761U >> 24);
  sendBundle(text("70\"tmp/app \""));
  for (std::size_t at = 0; at < content.size(); at += 8187)
    sendBundle(packet(0x71, content.substr(at, 8187))), drain(toRidgelink);
  sendBundle(packet(0x72));
  EXPECT_EQ(drain(toStagehand, 2), texts("70\"tmp/app \" 72"));
  EXPECT_TRUE(readFile("/tmp/app") == content);
}

}  // namespace
