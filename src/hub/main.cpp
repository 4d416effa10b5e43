// The process entry. The main thread sets up logging, leaves the version in log and version file, starts the inbound
// and the monitor thread and then only sleeps. Neither the command line nor the environment is looked at.

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

#include "hub/end_process.h"
#include "hub/identity.h"
#include "hub/settings.h"
#include "hub/threads.h"
#include "logging/log_channel.h"
#include "logging/log_manager.h"

namespace {

constexpr int messagesLogPriority = 600;  // INFO

// A standard descriptor that is closed would go to the next file that is opened. Lines for the console would then stand twice in the log, and
// those of perror(3) in a file that Ridgelink transfers.
void holdStandardDescriptors() {
  int descriptor = open("/dev/null", O_RDWR);
  while (descriptor >= 0 && descriptor < 2) descriptor = open("/dev/null", O_RDWR);
  if (descriptor > 2) close(descriptor);
}

void configureLogging() {
  // log4cpp's console sink does not flush; on a pipe, lines would wait in the buffer and be lost at a kill.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  LogManager* manager = LogManager::getInstance();
  manager->setPriority(defaultLogPriority);
  manager->setPattern(logPattern);
  manager->setPath(logDirectory);
  manager->setFile(logToFile);
  manager->setConsole(logToConsole);
  manager->getChannel("messages").setPriority(messagesLogPriority);
  messagesChannel = manager->getChannel("messages");
}

// Commands inherit descriptor 0. One that reads a terminal there finds nothing, instead of holding the inbound thread
// until somebody types.
void makeInputNonBlocking() {
  const int flags = fcntl(0, F_GETFL);
  fcntl(0, F_SETFL, flags | O_NONBLOCK);
}

[[noreturn]] void idle() {
  constexpr timespec step{0, 200'000'000};
  while (clock_nanosleep(CLOCK_REALTIME, 0, &step, nullptr) == 0) {
  }
  messagesChannel.error() << "HubKeeper: clock_nanosleep failed for main";
  endProcess();
}

}  // namespace

int main() {
  holdStandardDescriptors();
  configureLogging();
  messagesChannel.info() << "HubKeeper version: " << appVersion;
  stampVersion(appVersion);
  messagesChannel.info() << "HubKeeper Build Date: " << __DATE__ << " " << __TIME__;
  initThreadAttributes();
  setThreadScheduling();
  createThreads();
  destroyThreadAttributes();
  makeInputNonBlocking();
  idle();
}
