// What HubKeeper is measured against: one thread that makes only the system calls that the job forces, with nothing
// around them. It looks into no Packet; what it sends lies ready in its frames.
//
//   bare loop SIZE QUEUE BYTES   one receive a Bundle; for each SIZE bytes of it a bounce and BYTES to the peer
//   bare log                     one receive a Bundle; for each 5 bytes a bounce and one log4cpp line
//   bare start                   the steps of a start, then as "loop 5 1003 512"

#include <fcntl.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>

#include <log4cpp/Category.hh>
#include <log4cpp/OstreamAppender.hh>
#include <log4cpp/PatternLayout.hh>
#include <log4cpp/RollingFileAppender.hh>

namespace {

struct {
  long mtype = 1;
  char text[8192];
} received, bounce, frame;

int queue(int key) { return msgget(key, IPC_CREAT | 0644); }

log4cpp::Category& openLog(const char* name) {
  log4cpp::Category& category = log4cpp::Category::getInstance(name);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const std::string path = std::string("/media/data/") + name + ".log";
  for (log4cpp::Appender* sink : {static_cast<log4cpp::Appender*>(new log4cpp::OstreamAppender("Console", &std::cout)),
                                  static_cast<log4cpp::Appender*>(new log4cpp::RollingFileAppender("File", path))}) {
    auto* layout = new log4cpp::PatternLayout;
    layout->setConversionPattern("%p %d{%d %b %Y %X} %m %n");
    sink->setLayout(layout);
    category.addAppender(sink);
  }
  category.setPriority(log4cpp::Priority::INFO);
  return category;
}

[[noreturn]] void loop(int offset, ssize_t size, int peer, std::size_t bytes) {
  const int inbound = queue(1002 + offset);
  const int ridgelink = queue(1003 + offset);
  const int other = queue(peer + offset);
  for (;;) {
    const ssize_t count = msgrcv(inbound, &received, sizeof received.text, 0, 0) / size;
    for (ssize_t i = 0; i < count; ++i) {
      msgsnd(ridgelink, &bounce, 1, IPC_NOWAIT);
      msgsnd(other, &frame, bytes, IPC_NOWAIT);
    }
  }
}

[[noreturn]] void logLoop(int offset) {
  log4cpp::Category& category = openLog("bare");
  const int inbound = queue(1002 + offset);
  const int ridgelink = queue(1003 + offset);
  for (;;) {
    const ssize_t count = msgrcv(inbound, &received, sizeof received.text, 0, 0) / 5;
    for (ssize_t i = 0; i < count; ++i) {
      msgsnd(ridgelink, &bounce, 1, IPC_NOWAIT);
      category.error("bad opcode: ff");
    }
  }
}

void logOutput(log4cpp::Category& category, const char* command) {
  std::FILE* output = popen(command, "r");
  char piece[128];
  while (std::fgets(piece, sizeof piece, output) != nullptr) category.info(std::string(piece));
  pclose(output);
}

[[noreturn]] void start() {
  log4cpp::Category& category = openLog("messages");
  for (int i = 0; i < 3; ++i) category.info("HubKeeper version: 1.0.2");
  std::FILE* version = std::fopen("/usr/local/bin/AppVersionFile.txt", "a");
  std::fprintf(version, "HubKeeper:%s\n", "1.0.2");
  std::fclose(version);
  std::thread([] { sleep(40); }).detach();
  std::thread([&category] {
    std::fopen("bad_file", "ab+");
    for (const int key : {1002, 1000, 1011, 1010, 1006, 1003}) {
      if (key != 1000) {
        queue(key);
        continue;
      }
      msqid_ds state{};
      msgctl(queue(key), IPC_STAT, &state);
      state.msg_qbytes = 10485760;
      msgctl(queue(key), IPC_SET, &state);
      msgctl(queue(key), IPC_STAT, &state);
    }
    for (int i = 0; i < 8; ++i) category.info("HubKeeper --> Netsteward Queue ID: 1");
    logOutput(category, "uname -a");
    logOutput(category, "fw_printenv -n ver");
    loop(0, 5, 1003, 512);
  }).detach();
  for (;;) usleep(200000);
}

}  // namespace

int main(int count, char** words) {
  const std::string mode = count > 1 ? words[1] : "";
  constexpr int ownQueues = 5000;  // beside HubKeeper's, so that both can run at the same time
  if (mode == "start") start();
  if (mode == "log") logLoop(ownQueues);
  if (mode != "loop" || count != 5) return 2;
  loop(ownQueues, std::atol(words[2]), std::atoi(words[3]), static_cast<std::size_t>(std::atol(words[4])));
}
