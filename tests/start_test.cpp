// The service as a process: its start, its receive loop, and each way in which it ends.
#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <regex>

#include "hub/identity.h"
#include "hub/queues.h"
#include "hub/threads.h"
#include "support.h"
#include "wraps.h"

namespace {

using Steps = Core;

void tool(const std::string& name, const std::string& script) {
  const std::string path = "/usr/local/bin/" + name;
  writeFile(path, "#!/bin/sh\n" + script);
  chmod(path.c_str(), 0755);
}

TEST(Start, LeavesItsRecordAndOpensItsQueues) {
  mkdir("/tmp/work", 0755);
  chdir("/tmp/work");
  tool("uname", "printf 'kernel %s' \"$1\"");
  tool("fw_printenv", "echo \"firmware $*\"");
  writeFile("/proc/sys/kernel/msgmnb", "10485760");
  int input[2];
  ASSERT_EQ(pipe(input), 0);
  dup2(input[0], 0);

  const auto expected = [](const std::string& size) {
    return Lines{"INFO HubKeeper version: " VERSION " ",
                 "INFO HubKeeper: " VERSION " ",
                 "INFO HubKeeper Build Date: ",
                 "INFO HubKeeper Attempting to createQues ",
                 "ERROR HubKeeper Netsteward msg queue size is :" + size + " ",
                 "ERROR HubKeeper Netsteward msg queue size is :10485760 ",
                 "INFO Ridgelink --> HubKeeper       Queue ID: 0 ",
                 "INFO HubKeeper --> Netsteward Queue ID: 1 ",
                 "INFO HubKeeper --> Chronicler       Queue ID: 3 ",
                 "INFO HubKeeper --> Stagehand       Queue ID: 4 ",
                 "INFO HubKeeper --> Ridgelink       Queue ID: 5 ",
                 "INFO kernel -a ",
                 "INFO firmware -n ver",
                 " "};
  };
  // The second start finds queues of the size that the first one left.
  writeFile("/proc/sys/kernel/msgmnb", "20000000");
  for (const std::string size : {"20000000", "10485760"}) {
    const Service service;
    ASSERT_TRUE(eventually([&] { return service.console().size() == 14; }));
    Lines lines = service.console();
    EXPECT_TRUE(std::regex_match(lines.at(2), std::regex("INFO HubKeeper Build Date: [A-Z][a-z]{2} [ \\d]\\d 20\\d\\d "
                                                         "\\d\\d:\\d\\d:\\d\\d ")));
    lines.at(2) = "INFO HubKeeper Build Date: ";
    EXPECT_EQ(lines, expected(size));
    EXPECT_NE(fcntl(input[0], F_GETFL) & O_NONBLOCK, 0);
  }
  EXPECT_EQ(readFile("/media/data/messages.log"), readFile("/tmp/service1.out") + readFile("/tmp/service2.out"));
  EXPECT_EQ(readFile("/usr/local/bin/AppVersionFile.txt"), "HubKeeper:" VERSION "\nHubKeeper:" VERSION "\n");
  EXPECT_EQ(access("/tmp/work/bad_file", F_OK), 0);
  for (const int key : {1000, 1002, 1003, 1006, 1010, 1011}) {
    msqid_ds stats;
    ASSERT_EQ(msgctl(msgget(key, 0), IPC_STAT, &stats), 0);
    EXPECT_EQ(stats.msg_perm.mode & 0777, 0644);
    EXPECT_EQ(stats.msg_qbytes, key == 1000 ? 10485760U : 20000000U);
  }
}

TEST(Start, GoesOnWithoutEnlargementVersionFileAndTools) {
  mkdir("/usr/local/bin/AppVersionFile.txt", 0755);
  symlink("/nowhere", "/usr/local/bin/fw_printenv");
  Service service;
  service.waitUntilReady();
  EXPECT_TRUE(service.logged("ERROR HubKeeper error opening version file: /usr/local/bin/AppVersionFile.txt "));
  EXPECT_TRUE(service.logged("ERROR HubKeeper Netsteward msg queue size is :16384 ", 2));
  EXPECT_TRUE(
      service.logged("ERROR HubKeeper Netsteward msg queue size failed to be adjusted: Operation not permitted "));
  EXPECT_NE(service.errors().find("fw_printenv"), std::string::npos);
}

TEST_F(Steps, QueueStatisticsAndPiecesOfOutput) {
  planFault("msgctl", 0, EIO);
  createQues();
  const std::string stats = "ERROR HubKeeper failed to get Netsteward msg queue stats";
  const std::string size = "ERROR HubKeeper Netsteward msg queue size is :0";
  EXPECT_EQ(log(), (Lines{"INFO HubKeeper Attempting to createQues", stats, size,
                          "ERROR HubKeeper Netsteward msg queue size failed to be adjusted: Input/output error", stats,
                          size}));
  clearFaults();
  EXPECT_EQ(logCommandOutput("true"), 0);
  EXPECT_EQ(logCommandOutput("exit 3"), 3 << 8);
  EXPECT_EQ(log(), Lines{});
  const std::string full(127, 'x');
  logCommandOutput("printf '%0127d\\n%%s a%0126d' 0 0 | tr 0 x");
  EXPECT_EQ(log(), (Lines{"INFO " + full, "INFO ", "", "INFO %s a" + full.substr(4), "INFO xxx"}));
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
  struct Row {
    const char* call;
    int skip;
    void (*step)();
    std::string line, cause;
  };
  const Row rows[] = {
      {"sched_get_priority_max", 0, threads, "scheduling thread priority failed", "sched_get_priority_max failed"},
      {"pthread_attr_setschedparam", 0, threads, "scheduling inbound thread param failed",
       "pthread_attr_setschedparam inbound failed"},
      {"pthread_attr_setdetachstate", 0, threads, "scheduling inbound thread detach state failed",
       "pthread_attr_setdetachstate inbound failed"},
      {"pthread_attr_setschedparam", 1, threads, "scheduling monitor thread param failed",
       "pthread_attr_setschedparam monitor failed"},
      {"pthread_attr_setdetachstate", 1, threads, "scheduling monitor detach state failed",
       "pthread_attr_setdetachstate monitor failed"},
      {"pthread_create", 0, threads, "failed to create inbound thread", "pthread_create inbound failed"},
      {"pthread_create", 1, threads, "failed to create monitor thread", "pthread_create monitor failed"},
      {"pthread_attr_destroy", 0, threads, "failed to destroy inbound thread", "pthread_attr_destroy inbound failed"},
      {"pthread_attr_destroy", 1, threads, "failed to destroy monitor thread", "pthread_attr_destroy monitor failed"},
      {"pthread_cancel", 0, threads, "failed to cancel inbound thread", "pthread_cancel inbound failed"},
      {"pthread_cancel", 1, threads, "failed to cancel monitor thread", "pthread_cancel monitor failed"},
      {"msgget", 0, createQues, "failed to open inbound message queue", "msgget"},
      {"msgget", 1, createQues, "failed to open Netsteward inbound queue", "msgget"},
      {"msgget", 2, createQues, "failed to open Clocksteward inbound queue", "msgget"},
      {"msgget", 3, createQues, "failed to open Chronicler inbound queue", "msgget"},
      {"msgget", 4, createQues, "failed to open Stagehand inbound queue", "Out to stagehand queue setup failed"},
      {"msgget", 5, createQues, "failed to open outbound queue", "In From Ridgelink queue setup failed"},
  };
  for (const Row& row : rows) {
    clearFaults();
    planFault(row.call, row.skip, ENOSPC, 1);
    // With the threads running, their own output may stand around the line.
    expectEnd(row.step, row.cause + ": No space left on device\n");
    const Lines lines = log();
    EXPECT_NE(std::find(lines.begin(), lines.end(), "ERROR HubKeeper " + row.line), lines.end()) << row.line;
  }
}

TEST(Service, EndsInOrderWhileOtherThreadsLog) {
  // The monitor thread logs without a pause while the main thread gives up; nothing may be torn away from under it.
  writeFile("/etc/qd/svcmanager.conf", "service=/nowhere/a\nservice=/nowhere/b\n");
  for (int i = 0; i < 200; ++i) {
    int output[2];
    ASSERT_EQ(pipe(output), 0);
    const pid_t id = fork();
    if (id == 0) {
      dup2(output[1], 1);
      dup2(open("/dev/null", O_WRONLY), 2);
      close(output[0]);
      setenv("HUB_FAULT", "clock_nanosleep:0:22", 1);
      setenv("HUB_MS_PER_S", "0", 1);
      execl(HASTY, HASTY, nullptr);
      _exit(127);
    }
    close(output[1]);
    std::string console;
    char piece[4096];
    for (ssize_t size; (size = read(output[0], piece, sizeof piece)) > 0;) console.append(piece, size_t(size));
    close(output[0]);
    int status = 0;
    waitpid(id, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << "status " << status << "\n" << console;
    ASSERT_NE(console.find(" HubKeeper: clock_nanosleep failed for main \n"), std::string::npos) << console;
  }
}

TEST(Service, ReceivesWhateverComes) {
  writeFile("/proc/sys/kernel/msgmax", "20000");
  writeFile("/proc/sys/kernel/msgmnb", "65536");
  Service service;
  service.waitUntilReady();
  const std::string failed = "ERROR HubKeeper: msgrcv inbound failed, sizeReceived = -1 ";

  sendBundle("");
  EXPECT_TRUE(eventually(
      [&] { return service.logged("ERROR HubKeeper: Received a queue message of size 0 on inbound queue "); }));

  // One that is too long costs one failure line, and the one behind it is served.
  struct {
    long mtype = 99;  // any type is accepted
    char mtext[9000] = {};
  } large;
  const int inbound = msgget(1002, 0);
  ASSERT_EQ(msgsnd(inbound, &large, 8193, 0), 0);
  std::memset(large.mtext, 0xFE, 8192);
  large.mtext[0] = 0, large.mtext[1] = 0x20;  // one Packet of 8192 bytes
  ASSERT_EQ(msgsnd(inbound, &large, 8192, 0), 0);
  EXPECT_EQ(await(toRidgelink, 1), Lines{"\xFE"});
  EXPECT_TRUE(eventually([&] { return service.logged("ERROR bad opcode: fe "); }));
  EXPECT_TRUE(service.logged(failed, 1));
  EXPECT_FALSE(service.logged(failed, 2));

  msgctl(inbound, IPC_RMID, nullptr);
  EXPECT_TRUE(eventually([&] { return service.logged(failed, 2); }));
  service.waitUntilReady();
}

TEST(Service, KeepsTryingUntilTheInboundQueueCanBeOpened) {
  Service service(HASTY, {"HUB_FAULT=msgget:6:28"});
  const std::string failed = "ERROR HubKeeper: msgrcv inbound failed, sizeReceived = -1 ";
  EXPECT_TRUE(eventually([&] { return service.logged("INFO HubKeeper --> Ridgelink       Queue ID: 5 "); }));
  msgctl(msgget(1002, 0), IPC_RMID, nullptr);
  EXPECT_TRUE(
      eventually([&] { return service.logged(failed, 3) && service.logged("ERROR Failed recreating the que ", 3); }));
}

TEST(Service, CarriesAFileOfSeveralMebibytes) {
  Service service;
  service.waitUntilReady();
  Bytes content;
  for (unsigned i = 0; content.size() < 4 << 20; ++i) content += static_cast<char>(i * 2654435761U >> 24);
  sendBundle(packet(0x70, "tmp/app "));
  for (std::size_t at = 0; at < content.size(); at += 8187)
    sendBundle(packet(0x71, content.substr(at, 8187))), drain(toRidgelink);
  sendBundle(packet(0x72));
  EXPECT_EQ(await(toStagehand, 2), (Lines{packet(0x70, "tmp/app "), packet(0x72)}));
  EXPECT_TRUE(readFile("/tmp/app") == content);
}

}  // namespace
